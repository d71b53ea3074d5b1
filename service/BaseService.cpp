#include "service/BaseService.h"

#include <exception>

namespace service
{

CServiceDispatchTable& CServiceDispatchTable::Instance()
{
    static CServiceDispatchTable table;
    return table;
}

void CServiceDispatchTable::Append(const wchar_t* name, LPSERVICE_MAIN_FUNCTIONW serviceMain)
{
    daxlib::lock_guard lock(m_srwLock);
    if (m_nCount + 2 > m_nCapacity)
    {
        m_nCapacity += 10;
        m_entries.reserve(m_nCapacity);
    }
    if (!m_entries.empty())
        m_entries.pop_back(); // the terminator moves behind the new entry
    m_entries.push_back({const_cast<LPWSTR>(name), serviceMain});
    m_entries.push_back({nullptr, nullptr});
    ++m_nCount;
}

BOOL CServiceDispatchTable::Run(bool isNt)
{
    daxlib::lock_guard lock(m_srwLock);
    if (m_nCount == 0)
        return FALSE;
    if (isNt)
        return ::StartServiceCtrlDispatcherW(m_entries.data());
    m_entries[0].lpServiceProc(0, nullptr);
    return TRUE;
}

size_t CServiceDispatchTable::Count() const
{
    daxlib::lock_guard lock(m_srwLock);
    return m_nCount;
}

size_t CServiceDispatchTable::Capacity() const
{
    daxlib::lock_guard lock(m_srwLock);
    return m_nCapacity;
}

bool IsNtPlatform()
{
    OSVERSIONINFOEXW info{};
    info.dwOSVersionInfoSize = sizeof(info);
#ifdef _MSC_VER
#pragma warning(suppress : 4996)
#endif
    if (!::GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(&info)))
        return true;
    return (info.dwPlatformId & 2) != 0;
}

CServiceBase::SetStatusFunction CServiceBase::s_setStatus = &::SetServiceStatus;
CServiceBase* CServiceBase::s_instance = nullptr;

CServiceBase::CServiceBase(DWORD serviceType, const wchar_t* name, void* context)
    : m_dwServiceType(serviceType), m_strName(name ? name : L""), m_pContext(context)
{
    if (!IsNtPlatform())
    {
        // Systems outside the NT family hide a service process from the task list this way.
        using RegisterServiceProcessFn = DWORD(WINAPI*)(DWORD, DWORD);
        if (HMODULE kernel = ::GetModuleHandleW(L"kernel32"))
        {
            auto reg = reinterpret_cast<RegisterServiceProcessFn>(
                reinterpret_cast<void*>(::GetProcAddress(kernel, "RegisterServiceProcess")));
            if (reg)
                reg(::GetCurrentProcessId(), 1);
        }
    }
    s_instance = this;
    CServiceDispatchTable::Instance().Append(m_strName.c_str(), &CServiceBase::ServiceMainEntry);
}

CServiceBase::~CServiceBase()
{
    if (s_instance == this)
        s_instance = nullptr;
}

void CServiceBase::main(DWORD, LPWSTR*, void*, SERVICE_STATUS_HANDLE)
{
    ReportStatus(SERVICE_RUNNING, kAcceptedControls);
}

// Pause and continue report only the pending states; the mask never offers them anyway.
bool CServiceBase::OnPause()
{
    ReportStatus(SERVICE_PAUSE_PENDING, kAcceptedControls);
    return true;
}

bool CServiceBase::OnContinue()
{
    ReportStatus(SERVICE_CONTINUE_PENDING, kAcceptedControls);
    return true;
}

bool CServiceBase::OnInterrogate()
{
    return true;
}

bool CServiceBase::OnShutdown()
{
    ReportStatus(SERVICE_STOP_PENDING, kAcceptedControls);
    ReportStatus(SERVICE_STOPPED, kAcceptedControls);
    return true;
}

bool CServiceBase::OnStop()
{
    ReportStatus(SERVICE_STOP_PENDING, kAcceptedControls);
    ReportStatus(SERVICE_STOPPED, kAcceptedControls);
    return false;
}

bool CServiceBase::OnDeviceEvent(DWORD, void*, void*)
{
    return true;
}

bool CServiceBase::OnSessionChange(DWORD, void*, void*)
{
    // Remote sessions are learnt from the channel library, not from the control manager.
    return true;
}

void CServiceBase::HandleControl(DWORD control, DWORD eventType, void* eventData, void* context)
{
    switch (control)
    {
    case SERVICE_CONTROL_STOP:
        OnStop();
        break;
    case SERVICE_CONTROL_PAUSE:
        OnPause();
        break;
    case SERVICE_CONTROL_CONTINUE:
        OnContinue();
        break;
    case SERVICE_CONTROL_INTERROGATE:
        if (!OnInterrogate())
            ReportStatus(m_dwCurrentState, kAcceptedControls);
        break;
    case SERVICE_CONTROL_SHUTDOWN:
        OnShutdown();
        break;
    case SERVICE_CONTROL_DEVICEEVENT:
        OnDeviceEvent(eventType, eventData, context);
        break;
    case SERVICE_CONTROL_SESSIONCHANGE:
        OnSessionChange(eventType, eventData, context);
        break;
    default:
        break;
    }
}

void CServiceBase::ReportStatus(DWORD state, DWORD controlsAccepted)
{
    SERVICE_STATUS status{};
    status.dwServiceType = m_dwServiceType;
    status.dwCurrentState = state;
    status.dwControlsAccepted = controlsAccepted;
    m_dwCurrentState = state;
    s_setStatus(m_hStatus, &status);
}

BOOL CServiceBase::RunDispatcher()
{
    return CServiceDispatchTable::Instance().Run(IsNtPlatform());
}

void WINAPI CServiceBase::ServiceMainEntry(DWORD argc, LPWSTR* argv)
{
    if (!s_instance)
        return;
    try
    {
        s_instance->ServiceMain(argc, argv);
    }
    catch (...)
    {
        // The service class logs what it can; nothing may unwind into the control manager.
    }
}

DWORD WINAPI CServiceBase::ControlHandlerEntry(DWORD control, DWORD eventType, LPVOID eventData,
                                               LPVOID context)
{
    if (CServiceBase* self = s_instance)
    {
        try
        {
            self->HandleControl(control, eventType, eventData, context);
        }
        catch (...)
        {
            // A control must never throw into the dispatcher.
        }
    }
    return NO_ERROR;
}

void CServiceBase::ServiceMain(DWORD argc, LPWSTR* argv)
{
    m_hStatus =
        ::RegisterServiceCtrlHandlerExW(m_strName.c_str(), &CServiceBase::ControlHandlerEntry, m_pContext);
    ReportStatus(SERVICE_START_PENDING, kAcceptedControls);
    main(argc, argv, m_pContext, m_hStatus);
}

} // namespace service
