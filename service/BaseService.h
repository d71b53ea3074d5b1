#pragma once
// A small framework for a Windows service: registration in the process-wide dispatch table,
// the control handler, and status reporting. One object per process handles controls.
#include "common/Locks.h"

#include <windows.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace service
{

// Controls the service accepts: stop, shutdown and session change.
constexpr DWORD kAcceptedControls =
    SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN | SERVICE_ACCEPT_SESSIONCHANGE;
static_assert(kAcceptedControls == 133);

// The process-wide table handed to the service control dispatcher. It grows by 10 entries
// whenever fewer than two free slots remain and always ends with an all-zero entry.
class CServiceDispatchTable
{
public:
    static CServiceDispatchTable& Instance();

    void Append(const wchar_t* name, LPSERVICE_MAIN_FUNCTIONW serviceMain);
    // On NT runs the dispatcher (returns when the service has stopped); elsewhere calls the
    // first entry's service main directly. The table lock is held throughout.
    BOOL Run(bool isNt);
    size_t Count() const;
    size_t Capacity() const;

private:
    mutable daxlib::srw_lock m_srwLock;
    std::vector<SERVICE_TABLE_ENTRYW> m_entries TS_GUARDED_BY(m_srwLock); // count entries plus the terminator
    size_t m_nCount TS_GUARDED_BY(m_srwLock) = 0;
    size_t m_nCapacity TS_GUARDED_BY(m_srwLock) = 0;
};

// Whether the system is of the NT family (platform id 2).
bool IsNtPlatform();

class CServiceBase
{
public:
    using SetStatusFunction = BOOL(WINAPI*)(SERVICE_STATUS_HANDLE, LPSERVICE_STATUS);

    CServiceBase(DWORD serviceType, const wchar_t* name, void* context);
    virtual ~CServiceBase();
    CServiceBase(const CServiceBase&) = delete;
    CServiceBase& operator=(const CServiceBase&) = delete;

    // Slot 0: runs the service; the base only reports running.
    virtual void main(DWORD argc, LPWSTR* argv, void* context, SERVICE_STATUS_HANDLE statusHandle);
    virtual bool OnPause();
    virtual bool OnContinue();
    virtual bool OnInterrogate();
    virtual bool OnShutdown();
    virtual bool OnStop();
    virtual bool OnDeviceEvent(DWORD eventType, void* eventData, void* context);
    virtual bool OnSessionChange(DWORD eventType, void* eventData, void* context);
    virtual void HandleControl(DWORD control, DWORD eventType, void* eventData, void* context);

    // Fills a status with this service's type, the state and the mask, everything else 0.
    void ReportStatus(DWORD state, DWORD controlsAccepted);
    BOOL RunDispatcher();

    const std::wstring& Name() const noexcept { return m_strName; }
    DWORD CurrentState() const noexcept { return m_dwCurrentState; }
    SERVICE_STATUS_HANDLE StatusHandle() const noexcept { return m_hStatus; }

    // Where status reports go; tests replace it to observe what the service reports.
    static SetStatusFunction s_setStatus;
    // The one object the control handler forwards to.
    static CServiceBase* Instance() noexcept { return s_instance; }

private:
    static void WINAPI ServiceMainEntry(DWORD argc, LPWSTR* argv);
    static DWORD WINAPI ControlHandlerEntry(DWORD control, DWORD eventType, LPVOID eventData, LPVOID context);
    void ServiceMain(DWORD argc, LPWSTR* argv);

    static CServiceBase* s_instance;

    DWORD m_dwServiceType;
    std::wstring m_strName;
    SERVICE_STATUS_HANDLE m_hStatus = nullptr;
    DWORD m_dwCurrentState = SERVICE_STOPPED;
    void* m_pContext;
};

// The framework as a template over the service type, as every service of this product uses it.
template <DWORD ServiceType> class base_service : public CServiceBase
{
public:
    base_service(const wchar_t* name, void* context) : CServiceBase(ServiceType, name, context) {}
};

} // namespace service
