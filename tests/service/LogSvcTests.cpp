#include "common/DaxException.h"
#include "log/CvLogger.h"
#include "service/LogSvc.h"
#include "service/ServiceConfig.h"
#include "service/ServiceSingletons.h"
#include "service/StartupComposition.h"
#include "tests/common/EventRecorder.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <new>
#include <stdexcept>
#include <vector>

namespace
{

std::vector<DWORD> g_states;
std::atomic<int> g_ends{0};

BOOL WINAPI RecordState(SERVICE_STATUS_HANDLE, LPSERVICE_STATUS status)
{
    g_states.push_back(status->dwCurrentState);
    return TRUE;
}

void RecordEnd()
{
    ++g_ends;
}

void ThrowDax(const std::shared_ptr<CCvLogger>&)
{
    ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    daxlib::ThrowDaxException(L"ThreadPool", 58);
}

void ThrowStd(const std::shared_ptr<CCvLogger>&)
{
    throw std::runtime_error("no pool");
}

void ComposeNothing(const std::shared_ptr<CCvLogger>&) {}

} // namespace

// A composition that throws must not leave the service in start-pending: it is logged, the
// service reports stopped without ever reporting running, and the process is ended. The event log
// hears of a start only when it held, with the version and the channel, and of every stop.
TEST(StartupFailure, ThrownCompositionIsLoggedAndStopsTheServiceAndOnlyAStartThatHeldIsAnnounced)
{
    testsupport::EventRecorder events;
    testsupport::TempDir dir;
    auto logger = CCvLogger::CreateLoggerInFolder(dir.Path().c_str(), nullptr, nullptr, L"svc", nullptr,
                                                  FALSE, FALSE, 2);
    ASSERT_NE(nullptr, logger);
    service::SetServiceLogger(logger);
    service::CServiceBase::s_setStatus = &RecordState;
    CLogSvc::s_endProcess = &RecordEnd;
    struct Case
    {
        void (*compose)(const std::shared_ptr<CCvLogger>&);
        const wchar_t* logged;
    };
    for (const Case& c : {Case{&ThrowDax, L"Exception => Error (8), Module: \"ThreadPool\" (58)"},
                          Case{&ThrowStd, L"Exception => Descr: \"no pool\""}})
    {
        g_states.clear();
        const int endsBefore = g_ends;
        CLogSvc::s_compose = c.compose;
        CLogSvc svc(L"velomar-startup-test", nullptr);
        svc.main(0, nullptr, nullptr, nullptr);
        EXPECT_EQ(std::vector<DWORD>{SERVICE_STOPPED}, g_states);
        EXPECT_TRUE(testsupport::Eventually([&] { return g_ends == endsBefore + 1; }));
        const std::wstring log = testsupport::ReadUtf16File(dir.File(L"svc.txt"));
        EXPECT_NE(std::wstring::npos, log.find(c.logged)) << c.logged;
    }
    EXPECT_NE(std::wstring::npos,
              testsupport::ReadUtf16File(dir.File(L"svc.txt")).find(L"CLogSvc::OnStop: Service Stopping..."));
    EXPECT_TRUE(events.Of(events::kServiceStarted).empty());
    EXPECT_EQ(2u, events.Of(events::kServiceStopping).size());

    g_states.clear();
    CLogSvc::s_compose = &ComposeNothing;
    CLogSvc svc(L"velomar-startup-test", nullptr);
    svc.main(0, nullptr, nullptr, nullptr);
    EXPECT_EQ(std::vector<DWORD>{SERVICE_RUNNING}, g_states);
    const auto started = events.Of(events::kServiceStarted);
    ASSERT_EQ(1u, started.size());
    EXPECT_EQ((std::vector<std::wstring>{L"" VELOMAR_VERSION_TEXT, service::ChannelTransportText()}),
              started[0].strings);
    EXPECT_NE(std::wstring::npos, started[0].strings[1].find(L"cvskapi.dll (not loaded"));
    svc.OnStop();
    EXPECT_EQ(3u, events.Of(events::kServiceStopping).size());
    service::CServiceBase::s_setStatus = &::SetServiceStatus;
    service::SetServiceLogger(nullptr);
    logger.reset();
}
