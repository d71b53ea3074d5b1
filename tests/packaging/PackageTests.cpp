// The installer package in a Wine prefix made anew for this test: a package whose service cannot
// start, then a fresh install, its removal, and an upgrade from an older package. The suites run
// in this order and each one starts from what the one before left.
#include "common/UniqueHandle.h"
#include "tests/common/HostPaths.h"
#include "tests/common/TestSupport.h"

#include "VelomardMessages.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <aclapi.h>
#include <sddl.h>

#include <string>
#include <vector>

using namespace std::chrono_literals;
using testsupport::BuildPath;
using testsupport::Eventually;
using testsupport::PathExists;
using testsupport::RunProcess;

namespace
{
using namespace testsupport;

const std::wstring kInstallDir = L"C:\\Program Files\\Corvane\\Velomar";
const std::wstring kServiceExe = kInstallDir + L"\\velomard.exe";
const std::wstring kAgentExe = kInstallDir + L"\\velomar-open.exe";
const std::wstring kStatusExe = kInstallDir + L"\\velomar-status.exe";
// The agent's console twin and the default-associations file for administrators.
const std::wstring kAgentCliExe = kInstallDir + L"\\velomar-open-cli.exe";
const std::wstring kAssociations = kInstallDir + L"\\DefaultAssociations.xml";
const wchar_t kEventSourceKey[] = L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\velomard";
const wchar_t kCapabilitiesKey[] = L"Software\\Clients\\StartMenuInternet\\velomar-open\\Capabilities";
const wchar_t kProgIdKey[] = L"Software\\Classes\\VelomarOpen.URL";

DWORD Msiexec(const wchar_t* action, const char* package)
{
    const auto run =
        RunProcess(std::wstring(L"msiexec.exe ") + action + L" \"" + BuildPath(package) + L"\" /qn", 180000);
    return run.ended ? run.exitCode : WAIT_TIMEOUT;
}

std::wstring ReadString(const std::wstring& key, const wchar_t* name)
{
    return testsupport::ReadRegString(HKEY_LOCAL_MACHINE, key, name);
}

bool KeyExists(const wchar_t* key)
{
    daxlib::unique_hkey opened;
    return ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, key, 0, KEY_READ, opened.put()) == ERROR_SUCCESS;
}

// The service's status, or an empty one with the error in dwWin32ExitCode when it is not registered.
SERVICE_STATUS_PROCESS ServiceStatus()
{
    SERVICE_STATUS_PROCESS status{};
    daxlib::unique_schandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    daxlib::unique_schandle service(manager ? ::OpenServiceW(manager.get(), L"velomard", SERVICE_QUERY_STATUS)
                                            : nullptr);
    DWORD needed = 0;
    if (!service || !::QueryServiceStatusEx(service.get(), SC_STATUS_PROCESS_INFO,
                                            reinterpret_cast<BYTE*>(&status), sizeof(status), &needed))
        status.dwWin32ExitCode = ::GetLastError();
    return status;
}

bool ServiceRuns()
{
    return Eventually([] { return ServiceStatus().dwCurrentState == SERVICE_RUNNING; }, 30s);
}

// Wine deletes a service marked for deletion once its process has ended.
bool ServiceGone()
{
    return Eventually([] { return ServiceStatus().dwWin32ExitCode == ERROR_SERVICE_DOES_NOT_EXIST; }, 15s);
}

void ExpectBrowserEntriesGone()
{
    EXPECT_FALSE(KeyExists(L"Software\\Clients\\StartMenuInternet\\velomar-open"));
    EXPECT_FALSE(KeyExists(kProgIdKey));
    EXPECT_EQ(L"<missing>", ReadString(L"Software\\RegisteredApplications", L"Velomar"));
}

} // namespace

TEST(FailedInstall, ServiceThatCannotStartRollsBackEverything)
{
    // This package carries a program that is no service in velomard.exe's place. Windows ends
    // such an install with ERROR_INSTALL_FAILURE, Wine's installer with ERROR_FUNCTION_FAILED.
    const DWORD result = Msiexec(L"/i", BROKEN_MSI);
    EXPECT_TRUE(result == ERROR_INSTALL_FAILURE || result == ERROR_FUNCTION_FAILED) << result;
    EXPECT_TRUE(ServiceGone());
    EXPECT_FALSE(PathExists(kInstallDir));
    EXPECT_FALSE(KeyExists(kEventSourceKey));
    ExpectBrowserEntriesGone();
}

class FreshInstall : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        // The channel library comes from its maker's installer, not from this package.
        ::CreateDirectoryW(kLibraryParent, nullptr);
        ::CreateDirectoryW(kLibraryFolder, nullptr);
        ::CopyFileW(BuildPath(STANDIN_DLL).c_str(), kLibraryPath, FALSE);
        s_result = Msiexec(L"/i", CURRENT_MSI);
    }
    void SetUp() override { ASSERT_EQ(static_cast<DWORD>(ERROR_SUCCESS), s_result); }

    static inline DWORD s_result = ERROR_INVALID_FUNCTION;
};

TEST_F(FreshInstall, RegistersAnAutomaticLocalSystemServiceThatRuns)
{
    daxlib::unique_schandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    daxlib::unique_schandle service(::OpenServiceW(manager.get(), L"velomard", SERVICE_QUERY_CONFIG));
    ASSERT_TRUE(service);
    std::vector<BYTE> buffer(8192);
    DWORD needed = 0;
    ASSERT_TRUE(::QueryServiceConfigW(service.get(), reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer.data()),
                                      static_cast<DWORD>(buffer.size()), &needed));
    const auto* config = reinterpret_cast<const QUERY_SERVICE_CONFIGW*>(buffer.data());
    EXPECT_EQ(static_cast<DWORD>(SERVICE_WIN32_OWN_PROCESS), config->dwServiceType);
    EXPECT_EQ(static_cast<DWORD>(SERVICE_AUTO_START), config->dwStartType);
    EXPECT_STREQ(L"LocalSystem", config->lpServiceStartName);
    // Quoted: the path holds blanks and the service runs as LocalSystem.
    EXPECT_EQ(L"\"" + kServiceExe + L"\"", std::wstring(config->lpBinaryPathName));
    EXPECT_TRUE(ServiceRuns());
}

TEST_F(FreshInstall, FailureActionsRestartTheServiceTwice)
{
    daxlib::unique_schandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    daxlib::unique_schandle service(::OpenServiceW(manager.get(), L"velomard", SERVICE_QUERY_CONFIG));
    std::vector<BYTE> buffer(1024);
    DWORD needed = 0;
    const BOOL read = ::QueryServiceConfig2W(service.get(), SERVICE_CONFIG_FAILURE_ACTIONS, buffer.data(),
                                             static_cast<DWORD>(buffer.size()), &needed);
    const auto* actions = reinterpret_cast<const SERVICE_FAILURE_ACTIONSW*>(buffer.data());
    // Wine's service manager accepts failure actions without keeping them and cannot report any.
    if ((!read || actions->cActions == 0) &&
        ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "wine_get_version"))
        GTEST_SKIP() << "Wine keeps no failure actions (read: " << read << ", error " << ::GetLastError()
                     << ")";
    ASSERT_TRUE(read);
    ASSERT_EQ(3u, actions->cActions);
    EXPECT_EQ(SC_ACTION_RESTART, actions->lpsaActions[0].Type);
    EXPECT_EQ(SC_ACTION_RESTART, actions->lpsaActions[1].Type);
    EXPECT_EQ(SC_ACTION_NONE, actions->lpsaActions[2].Type);
}

TEST_F(FreshInstall, EventSourceFindsTheTextOfEveryEventInTheInstalledExecutable)
{
    EXPECT_EQ(kServiceExe, ReadString(kEventSourceKey, L"EventMessageFile"));
    EXPECT_EQ(7u, testsupport::ReadRegDword(HKEY_LOCAL_MACHINE, kEventSourceKey, L"TypesSupported"));

    daxlib::unique_hmodule module(::LoadLibraryExW(kServiceExe.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE));
    ASSERT_TRUE(module);
    for (DWORD id : {VELOMARD_EVENT_ERROR, VELOMARD_EVENT_WARNING, VELOMARD_EVENT_INFORMATION})
    {
        const DWORD_PTR inserts[] = {reinterpret_cast<DWORD_PTR>(L"CLogSvc::main: text")};
        wchar_t text[256] = {};
        const DWORD length =
            ::FormatMessageW(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ARGUMENT_ARRAY, module.get(), id, 0,
                             text, 256, reinterpret_cast<va_list*>(const_cast<DWORD_PTR*>(inserts)));
        EXPECT_NE(0u, length) << "event " << id << ", error " << ::GetLastError();
        EXPECT_EQ(0, std::wstring(text).find(L"CLogSvc::main: text")) << "event " << id;
    }
    // The service's own events: each text takes exactly as many insertion strings as the code
    // reports with it.
    const std::pair<DWORD, size_t> events[] = {{VELOMARD_EVENT_SERVICE_STARTED, 2},
                                               {VELOMARD_EVENT_SERVICE_STOPPING, 0},
                                               {VELOMARD_EVENT_CHANNEL_LIBRARY_UNAVAILABLE, 2},
                                               {VELOMARD_EVENT_PIPE_NAME_TAKEN, 3},
                                               {VELOMARD_EVENT_PIPE_NAME_FREED, 2},
                                               {VELOMARD_EVENT_URL_POLICY_VALUE_BROKEN, 2},
                                               {VELOMARD_EVENT_LOG_FOLDER_UNSAFE, 1},
                                               {VELOMARD_EVENT_CHANNEL_REFUSED, 4}};
    const wchar_t* const strings[] = {L"<one>", L"<two>", L"<three>", L"<four>", L"<five>"};
    for (const auto& [id, count] : events)
    {
        DWORD_PTR inserts[5] = {};
        for (size_t i = 0; i < 5; ++i)
            inserts[i] = reinterpret_cast<DWORD_PTR>(strings[i]);
        wchar_t text[1024] = {};
        const DWORD length =
            ::FormatMessageW(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ARGUMENT_ARRAY, module.get(), id, 0,
                             text, 1024, reinterpret_cast<va_list*>(inserts));
        ASSERT_NE(0u, length) << "event " << id << ", error " << ::GetLastError();
        for (size_t i = 0; i < 5; ++i)
            EXPECT_EQ(i < count, std::wstring(text).find(strings[i]) != std::wstring::npos)
                << "event " << id << ", string " << i + 1;
    }
}

// The service's folders exist once the package is installed, made as the system's own. Where the
// file system keeps descriptors (Windows) they are read back; Wine keeps none, so there what can
// be seen is a plain folder and a service log without a finding about it.
TEST_F(FreshInstall, LogFoldersExistForSystemAndAdministratorsOnly)
{
    ASSERT_TRUE(ServiceRuns());
    const DWORD attributes = ::GetFileAttributesW(testsupport::kLogFolder);
    ASSERT_NE(INVALID_FILE_ATTRIBUTES, attributes);
    EXPECT_EQ(static_cast<DWORD>(FILE_ATTRIBUTE_DIRECTORY),
              attributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT));
    EXPECT_TRUE(Eventually([] { return PathExists(kLogFile); }));
    EXPECT_EQ(std::wstring::npos, testsupport::ReadUtf16File(kLogFile).find(L"log folder \""));
    if (::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "wine_get_version"))
        return;
    for (const wchar_t* folder : {L"C:\\ProgramData\\Corvane", testsupport::kLogFolder})
    {
        PSECURITY_DESCRIPTOR descriptor = nullptr;
        ASSERT_EQ(static_cast<DWORD>(ERROR_SUCCESS),
                  ::GetNamedSecurityInfoW(folder, SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr,
                                          nullptr, nullptr, &descriptor));
        daxlib::unique_hlocal owned(descriptor);
        LPWSTR text = nullptr;
        ASSERT_TRUE(::ConvertSecurityDescriptorToStringSecurityDescriptorW(
            descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &text, nullptr));
        daxlib::unique_hlocal ownedText(text);
        EXPECT_STREQ(L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)", text);
    }
}

TEST_F(FreshInstall, RegistersTheAgentAsABrowserForEveryUser)
{
    EXPECT_EQ(kCapabilitiesKey, ReadString(L"Software\\RegisteredApplications", L"Velomar"));
    const std::wstring associations = std::wstring(kCapabilitiesKey) + L"\\URLAssociations";
    EXPECT_EQ(L"VelomarOpen.URL", ReadString(associations.c_str(), L"http"));
    EXPECT_EQ(L"VelomarOpen.URL", ReadString(associations.c_str(), L"https"));
    EXPECT_EQ(L"\"" + kAgentExe + L"\" \"%1\"",
              ReadString(L"Software\\Classes\\VelomarOpen.URL\\shell\\open\\command", nullptr));
    EXPECT_TRUE(PathExists(kAgentExe));
    EXPECT_TRUE(PathExists(kStatusExe));
    EXPECT_TRUE(PathExists(kAgentCliExe));
    EXPECT_TRUE(PathExists(kAssociations));
}

TEST_F(FreshInstall, InstalledAgentReachesTheClientSideThroughTheInstalledService)
{
    ASSERT_TRUE(ServiceRuns());
    const std::string url = "https://example.test/installed?by=msi";
    // The session handler connects to the client side shortly after the service starts.
    EXPECT_TRUE(Eventually(
        [&]
        {
            return RunProcess(L"\"" + kAgentExe + L"\" --no-fallback " + std::wstring(url.begin(), url.end()))
                       .exitCode == 0;
        },
        20s));
    EXPECT_NE(std::string::npos, testsupport::ReadFileBytes(kSinkFile).find(url));
    // The installed status tool finds the installed service and its connected channel.
    EXPECT_EQ(0, RunProcess(L"\"" + kStatusExe + L"\"").exitCode);
}

TEST(Uninstall, RemovesServiceFilesAndEntriesButKeepsLogAndSettings)
{
    daxlib::unique_hkey settings;
    ASSERT_EQ(ERROR_SUCCESS, ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, kProductKey, 0, nullptr, 0, KEY_SET_VALUE,
                                               nullptr, settings.put(), nullptr));
    const DWORD level = 3;
    ASSERT_EQ(ERROR_SUCCESS, ::RegSetValueExW(settings.get(), L"LogLevel", 0, REG_DWORD,
                                              reinterpret_cast<const BYTE*>(&level), sizeof(level)));
    ASSERT_TRUE(PathExists(kLogFile));

    EXPECT_EQ(static_cast<DWORD>(ERROR_SUCCESS), Msiexec(L"/x", CURRENT_MSI));
    EXPECT_TRUE(ServiceGone());
    EXPECT_FALSE(PathExists(kServiceExe));
    EXPECT_FALSE(PathExists(kAgentExe));
    EXPECT_FALSE(PathExists(kStatusExe));
    EXPECT_FALSE(PathExists(kAgentCliExe));
    EXPECT_FALSE(PathExists(kAssociations));
    EXPECT_FALSE(KeyExists(kEventSourceKey));
    ExpectBrowserEntriesGone();
    EXPECT_TRUE(PathExists(kLogFile));
    EXPECT_TRUE(PathExists(testsupport::kLogFolder));
    EXPECT_EQ(level, testsupport::ReadRegDword(HKEY_LOCAL_MACHINE, kProductKey, L"LogLevel"));
}

TEST(Upgrade, NewerPackageReplacesTheServiceAndKeepsSettingsAndOlderOneIsRefused)
{
    ASSERT_EQ(static_cast<DWORD>(ERROR_SUCCESS), Msiexec(L"/i", OLD_MSI));
    ASSERT_TRUE(ServiceRuns());
    const DWORD oldProcess = ServiceStatus().dwProcessId;
    daxlib::unique_handle oldHandle(::OpenProcess(SYNCHRONIZE, FALSE, oldProcess));
    const std::wstring marker = L"kept-across-upgrade";
    ASSERT_EQ(ERROR_SUCCESS, ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kProductKey, L"UpgradeMarker", REG_SZ,
                                               marker.c_str(), static_cast<DWORD>((marker.size() + 1) * 2)));

    EXPECT_EQ(static_cast<DWORD>(ERROR_SUCCESS), Msiexec(L"/i", CURRENT_MSI));
    ASSERT_TRUE(ServiceRuns());
    const DWORD newProcess = ServiceStatus().dwProcessId;
    EXPECT_NE(oldProcess, newProcess);
    EXPECT_EQ(static_cast<DWORD>(WAIT_OBJECT_0), ::WaitForSingleObject(oldHandle.get(), 0))
        << "old service still runs";
    EXPECT_EQ(testsupport::ReadFileBytes(BuildPath(VELOMARD_EXE)), testsupport::ReadFileBytes(kServiceExe));
    EXPECT_EQ(marker, ReadString(kProductKey, L"UpgradeMarker"));

    // Going back, or installing the same version again, is refused and changes nothing.
    EXPECT_EQ(static_cast<DWORD>(ERROR_INSTALL_FAILURE), Msiexec(L"/i", OLD_MSI));
    EXPECT_EQ(static_cast<DWORD>(ERROR_INSTALL_FAILURE), Msiexec(L"/i", SAME_VERSION_MSI));
    EXPECT_EQ(newProcess, ServiceStatus().dwProcessId);
}
