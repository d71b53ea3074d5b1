#include "service/LogSvc.h"

#include "common/DaxException.h"
#include "common/ServiceEvents.h"
#include "log/CvLogger.h"
#include "service/EventLogSink.h"
#include "service/ServiceConfig.h"
#include "service/ServiceSingletons.h"
#include "service/StartupComposition.h"

#include <process.h>

#include <atomic>
#include <exception>

namespace
{
std::atomic<bool> g_endingProcess{false};

void TerminateThisProcess()
{
    ::TerminateProcess(::GetCurrentProcess(), 0);
}

unsigned __stdcall EndProcessAfterDelay(void*)
{
    ::Sleep(service::kStopDelayMs);
    CLogSvc::s_endProcess();
    return 0;
}
} // namespace

void (*CLogSvc::s_compose)(const std::shared_ptr<CCvLogger>&) = &service::RunStartupComposition;
void (*CLogSvc::s_endProcess)() = &TerminateThisProcess;

CLogSvc::CLogSvc(const wchar_t* name, void* context) : base_service(name, context) {}

void CLogSvc::main(DWORD, LPWSTR*, void*, SERVICE_STATUS_HANDLE)
{
    // First, so that what the logger finds about its folder reaches the event log. A sink that
    // is there already is a test's.
    if (!events::HasSink())
        service::InstallEventLogSink(service::kServiceName);
    m_pLogger = service::GetServiceLogger();
    if (!m_pLogger)
    {
        m_pLogger = service::CreateServiceLogger();
        if (m_pLogger)
            service::SetServiceLogger(m_pLogger);
    }
    if (m_pLogger)
        m_pLogger->Log(LogLevel::Info, L"CLogSvc::main: Service Running...");

    try
    {
        s_compose(m_pLogger);
    }
    catch (daxlib::CDaxException* raw)
    {
        daxlib::DaxExceptionPtr e(raw);
        if (m_pLogger)
            m_pLogger->Log(LogLevel::Error,
                           L"CLogSvc::main: Exception => Error (%d), Module: \"%s\" (%d). %s",
                           static_cast<int>(e->ErrorCode()), e->Module().c_str(), static_cast<int>(e->Line()),
                           e->Description().c_str());
        // A service that cannot build its objects would otherwise hang in start-pending.
        OnStop();
        return;
    }
    catch (const std::exception& e)
    {
        if (m_pLogger)
            m_pLogger->Log(LogLevel::Error, L"CLogSvc::main: Exception => Descr: \"%S\"", e.what());
        OnStop();
        return;
    }
    events::Report(events::Level::Information, events::kServiceStarted,
                   {L"" VELOMAR_VERSION_TEXT, service::ChannelTransportText()});
    ReportStatus(SERVICE_RUNNING, service::kAcceptedControls);
}

bool CLogSvc::OnShutdown()
{
    return OnStop();
}

bool CLogSvc::OnStop()
{
    if (m_pLogger)
        m_pLogger->Log(LogLevel::Info, L"CLogSvc::OnStop: Service Stopping...");
    events::Report(events::Level::Information, events::kServiceStopping, {});
    // The servers are not torn down in order: the process ends under them. The ending thread is
    // started before stopped is reported, because the report may let the dispatcher return at
    // once and the main thread must then already know that it is to wait for that thread.
    const uintptr_t thread = _beginthreadex(nullptr, 128, &EndProcessAfterDelay, nullptr, 0, nullptr);
    if (thread)
    {
        ::CloseHandle(reinterpret_cast<HANDLE>(thread));
        g_endingProcess = true;
    }
    ReportStatus(SERVICE_STOPPED, service::kAcceptedControls);
    return true;
}

bool CLogSvc::EndingProcess()
{
    return g_endingProcess;
}
