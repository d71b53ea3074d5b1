#include "service/ServiceSetup.h"

#include "common/UniqueHandle.h"
#include "service/ServiceConfig.h"

#include <tlhelp32.h>

#include <cwchar>
#include <iterator>
#include <string>
#include <vector>

namespace service
{

namespace
{
std::wstring OwnImagePath()
{
    wchar_t path[MAX_PATH] = {};
    const DWORD length = ::GetModuleFileNameW(nullptr, path, MAX_PATH);
    return length && length < MAX_PATH ? std::wstring(path, length) : std::wstring();
}

std::wstring ImagePathOf(HANDLE process)
{
    wchar_t path[MAX_PATH] = {};
    DWORD size = MAX_PATH;
    return ::QueryFullProcessImageNameW(process, 0, path, &size) ? std::wstring(path, size) : std::wstring();
}
} // namespace

DWORD ConfigureService(const wchar_t* serviceName)
{
    daxlib::unique_schandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    if (!manager)
        return ::GetLastError();
    // A restart action needs SERVICE_START besides SERVICE_CHANGE_CONFIG.
    daxlib::unique_schandle serviceHandle(::OpenServiceW(
        manager.get(), serviceName, SERVICE_CHANGE_CONFIG | SERVICE_QUERY_CONFIG | SERVICE_START));
    if (!serviceHandle)
        return ::GetLastError();

    // An installer may register the path without quotes (Wine's does); unquoted, a path with a
    // blank lets C:\Program.exe run as LocalSystem in the service's place.
    std::vector<BYTE> buffer(8192);
    DWORD needed = 0;
    if (!::QueryServiceConfigW(serviceHandle.get(), reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data()),
                               static_cast<DWORD>(buffer.size()), &needed))
        return ::GetLastError();
    const std::wstring path = reinterpret_cast<const QUERY_SERVICE_CONFIGW*>(buffer.data())->lpBinaryPathName;
    if (!path.empty() && path.front() != L'"' && path.find(L' ') != std::wstring::npos)
    {
        const std::wstring quoted = L"\"" + path + L"\"";
        if (!::ChangeServiceConfigW(serviceHandle.get(), SERVICE_NO_CHANGE, SERVICE_NO_CHANGE,
                                    SERVICE_NO_CHANGE, quoted.c_str(), nullptr, nullptr, nullptr, nullptr,
                                    nullptr, nullptr))
            return ::GetLastError();
    }

    SC_ACTION actions[] = {
        {SC_ACTION_RESTART, kRestartDelayMs},
        {SC_ACTION_RESTART, kRestartDelayMs},
        {SC_ACTION_NONE, 0},
    };
    SERVICE_FAILURE_ACTIONSW failure{};
    failure.dwResetPeriod = kFailureCountResetSeconds;
    failure.cActions = static_cast<DWORD>(std::size(actions));
    failure.lpsaActions = actions;
    if (!::ChangeServiceConfig2W(serviceHandle.get(), SERVICE_CONFIG_FAILURE_ACTIONS, &failure))
        return ::GetLastError();
    return ERROR_SUCCESS;
}

DWORD WaitForOtherInstancesToExit(DWORD limitMs)
{
    const std::wstring self = OwnImagePath();
    daxlib::unique_hfile snapshot(
        ::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0)); // empty: INVALID_HANDLE_VALUE
    if (self.empty() || !snapshot)
        return ::GetLastError();
    std::vector<daxlib::unique_handle> others;
    PROCESSENTRY32W entry{};
    entry.dwSize = sizeof(entry);
    for (BOOL more = ::Process32FirstW(snapshot.get(), &entry); more && others.size() < MAXIMUM_WAIT_OBJECTS;
         more = ::Process32NextW(snapshot.get(), &entry))
    {
        if (entry.th32ProcessID == ::GetCurrentProcessId())
            continue;
        daxlib::unique_handle process(
            ::OpenProcess(SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE, entry.th32ProcessID));
        if (process && ::_wcsicmp(ImagePathOf(process.get()).c_str(), self.c_str()) == 0)
            others.push_back(std::move(process));
    }
    if (others.empty())
        return ERROR_SUCCESS;
    std::vector<HANDLE> handles;
    handles.reserve(others.size());
    for (const auto& process : others)
        handles.push_back(process.get());
    const DWORD wait =
        ::WaitForMultipleObjects(static_cast<DWORD>(handles.size()), handles.data(), TRUE, limitMs);
    return wait == WAIT_TIMEOUT  ? static_cast<DWORD>(ERROR_TIMEOUT)
           : wait == WAIT_FAILED ? ::GetLastError()
                                 : ERROR_SUCCESS;
}

std::optional<int> RunSetupCommand(int argc, wchar_t** argv)
{
    if (argc != 2 || !argv[1])
        return std::nullopt;
    if (std::wcscmp(argv[1], kConfigureServiceSwitch) == 0)
        return static_cast<int>(ConfigureService(kServiceName));
    if (std::wcscmp(argv[1], kWaitForExitSwitch) == 0)
        return static_cast<int>(WaitForOtherInstancesToExit(kWaitForExitLimitMs));
    return std::nullopt;
}

} // namespace service
