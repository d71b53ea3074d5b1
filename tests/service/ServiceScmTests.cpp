// The service under the service control manager of the private Wine prefix: registration,
// start, the start record, interrogation, stop and the end of the process.
#include "common/UniqueHandle.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;

namespace
{

std::wstring WindowsPath(const char* unixPath)
{
    std::wstring path = L"Z:";
    for (const char* p = unixPath; *p; ++p)
        path += *p == '/' ? L'\\' : static_cast<wchar_t>(*p);
    return path;
}

const std::wstring kLogFolder = L"C:\\ProgramData\\Corvane\\Velomar (Server)";
const std::wstring kProductKey = L"Software\\Corvane\\Velomar (Server)";

class VelomardService : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_scm.reset(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
        ASSERT_TRUE(m_scm) << ::GetLastError();
        RemoveService();
        testing_support::RemoveTree(kLogFolder);
        // Level 2 so that the service's information records reach the file as well.
        HKEY key = nullptr;
        ASSERT_EQ(ERROR_SUCCESS, ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, kProductKey.c_str(), 0, nullptr, 0,
                                                   KEY_ALL_ACCESS, nullptr, &key, nullptr));
        const DWORD level = 2;
        ::RegSetValueExW(key, L"LogLevel", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&level), sizeof(level));
        ::RegCloseKey(key);

        const std::wstring binary = L"\"" + WindowsPath(VELOMARD_EXE) + L"\"";
        m_service.reset(::CreateServiceW(m_scm.get(), L"velomard", L"velomard", SERVICE_ALL_ACCESS,
                                         SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL,
                                         binary.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr));
        ASSERT_TRUE(m_service) << ::GetLastError();
    }
    void TearDown() override { RemoveService(); }

    void RemoveService()
    {
        m_service.reset();
        daxlib::unique_schandle old(::OpenServiceW(m_scm.get(), L"velomard", SERVICE_ALL_ACCESS));
        if (!old)
            return;
        SERVICE_STATUS status{};
        ::ControlService(old.get(), SERVICE_CONTROL_STOP, &status);
        WaitForState(old.get(), SERVICE_STOPPED, 10s);
        ::DeleteService(old.get());
    }

    static SERVICE_STATUS_PROCESS Query(SC_HANDLE service)
    {
        SERVICE_STATUS_PROCESS status{};
        DWORD needed = 0;
        ::QueryServiceStatusEx(service, SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status), sizeof(status),
                               &needed);
        return status;
    }

    // Polls until the state is reached; returns every distinct state seen on the way.
    static std::vector<DWORD> WaitForState(SC_HANDLE service, DWORD state, std::chrono::milliseconds limit)
    {
        std::vector<DWORD> seen;
        const auto end = std::chrono::steady_clock::now() + limit;
        while (std::chrono::steady_clock::now() < end)
        {
            const DWORD current = Query(service).dwCurrentState;
            if (seen.empty() || seen.back() != current)
                seen.push_back(current);
            if (current == state)
                break;
            std::this_thread::sleep_for(10ms);
        }
        return seen;
    }

    static std::wstring WaitForLogText(const std::wstring& fragment, std::chrono::milliseconds limit)
    {
        const auto end = std::chrono::steady_clock::now() + limit;
        std::wstring text;
        do
        {
            text = testing_support::FromUtf16Bytes(testing_support::ReadFileBytes(kLogFolder + L"\\velomard.txt"));
            if (text.find(fragment) != std::wstring::npos)
                break;
            std::this_thread::sleep_for(50ms);
        } while (std::chrono::steady_clock::now() < end);
        return text;
    }

    daxlib::unique_schandle m_scm;
    daxlib::unique_schandle m_service;
};

} // namespace

TEST_F(VelomardService, StartsRunsAndEndsItsProcessAfterStop)
{
    ASSERT_TRUE(::StartServiceW(m_service.get(), 0, nullptr)) << ::GetLastError();
    const std::vector<DWORD> states = WaitForState(m_service.get(), SERVICE_RUNNING, 30s);
    ASSERT_FALSE(states.empty());
    EXPECT_EQ(static_cast<DWORD>(SERVICE_RUNNING), states.back());
    for (size_t i = 0; i + 1 < states.size(); ++i)
        EXPECT_EQ(static_cast<DWORD>(SERVICE_START_PENDING), states[i]) << "state " << i;

    const SERVICE_STATUS_PROCESS running = Query(m_service.get());
    EXPECT_EQ(133u, running.dwControlsAccepted);
    ASSERT_NE(0u, running.dwProcessId);

    // The start record: the version as bare hex digits run together with the build date.
    const std::wstring text = WaitForLogText(L"CLogSvc::main: Service Running...", 10s);
    const std::wstring expected = L"Start service. Version program 10400" + std::wstring(__DATE__, __DATE__ + 11);
    EXPECT_NE(std::wstring::npos, text.find(expected)) << "log:\n" << std::string(text.begin(), text.end());
    EXPECT_NE(std::wstring::npos, text.find(L"[SERVICE]"));
    EXPECT_NE(std::wstring::npos, text.find(L"[INFO]"));
    EXPECT_NE(std::wstring::npos, text.find(L"Service logger is working."));
    EXPECT_NE(std::wstring::npos, text.find(L"CLogSvc::main: Service Running..."));
    // The file begins with the banner: a blank line, then a header and the build text.
    EXPECT_EQ(0u, text.find(L"\r\n"));
    EXPECT_NE(std::wstring::npos, text.find(L"Build "));

    // Interrogation leaves the service running.
    SERVICE_STATUS status{};
    ::ControlService(m_service.get(), SERVICE_CONTROL_INTERROGATE, &status);
    EXPECT_EQ(static_cast<DWORD>(SERVICE_RUNNING), Query(m_service.get()).dwCurrentState);

    daxlib::unique_handle process(
        ::OpenProcess(SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE, running.dwProcessId));
    ASSERT_TRUE(process) << ::GetLastError();
    const auto stopAt = std::chrono::steady_clock::now();
    ASSERT_TRUE(::ControlService(m_service.get(), SERVICE_CONTROL_STOP, &status)) << ::GetLastError();
    // Stopped is reported at once, without a stop-pending phase.
    EXPECT_EQ(static_cast<DWORD>(SERVICE_STOPPED), status.dwCurrentState);
    ASSERT_EQ(WAIT_OBJECT_0, ::WaitForSingleObject(process.get(), 10000));
    const auto ended = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - stopAt);
    DWORD exitCode = 1234;
    ASSERT_TRUE(::GetExitCodeProcess(process.get(), &exitCode));
    EXPECT_EQ(0u, exitCode);
    std::printf("service process ended %lld ms after the stop control\n", static_cast<long long>(ended.count()));

    const std::wstring after = WaitForLogText(L"CLogSvc::OnStop: Service Stopping...", 5s);
    EXPECT_NE(std::wstring::npos, after.find(L"CLogSvc::OnStop: Service Stopping..."));
}
