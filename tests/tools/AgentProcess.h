#pragma once
// Runs the built velomar-open.exe as a child process with its output in files, and waits for it
// with a limit.
#include "common/UniqueHandle.h"
#include "tests/common/TestSupport.h"

#include <windows.h>

#include <chrono>
#include <string>

namespace agent_tests
{

struct AgentRun
{
    bool ended = false;
    DWORD exitCode = STILL_ACTIVE;
    DWORD processId = 0;
    std::chrono::milliseconds elapsed{0};
    std::string out; // UTF-8 as written
    std::string err;
};

// The program's path as CMake gave it; a host path of the cross build is reached through Z:.
inline std::wstring AgentExePath()
{
    const std::string built = VELOMAR_OPEN_EXE;
    std::wstring path(built.begin(), built.end());
    for (wchar_t& c : path)
        c = c == L'/' ? L'\\' : c;
    return !path.empty() && path[0] == L'\\' ? L"Z:" + path : path;
}

inline AgentRun RunAgent(const std::wstring& arguments, DWORD limitMs = 20000)
{
    AgentRun run;
    testing_support::TempDir dir(L"velomar-open-run");
    SECURITY_ATTRIBUTES inherit{sizeof(inherit), nullptr, TRUE};
    auto open = [&](const wchar_t* name) {
        return daxlib::unique_hfile(::CreateFileW(dir.File(name).c_str(), GENERIC_WRITE, FILE_SHARE_READ, &inherit,
                                                  CREATE_ALWAYS, 0, nullptr));
    };
    daxlib::unique_hfile out = open(L"out.txt");
    daxlib::unique_hfile err = open(L"err.txt");
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = nullptr;
    startup.hStdOutput = out.get();
    startup.hStdError = err.get();
    std::wstring commandLine = L"\"" + AgentExePath() + L"\" " + arguments;
    PROCESS_INFORMATION info{};
    const auto start = std::chrono::steady_clock::now();
    if (!::CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr, nullptr,
                          &startup, &info))
        return run;
    daxlib::unique_handle process(info.hProcess);
    daxlib::unique_handle thread(info.hThread);
    run.processId = info.dwProcessId;
    run.ended = ::WaitForSingleObject(process.get(), limitMs) == WAIT_OBJECT_0;
    run.elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    if (!run.ended)
    {
        ::TerminateProcess(process.get(), 99);
        ::WaitForSingleObject(process.get(), 5000);
    }
    ::GetExitCodeProcess(process.get(), &run.exitCode);
    out.reset();
    err.reset();
    run.out = testing_support::ReadFileBytes(dir.File(L"out.txt"));
    run.err = testing_support::ReadFileBytes(dir.File(L"err.txt"));
    return run;
}

// True when `text` is exactly one line ended by CRLF.
inline bool IsOneLine(const std::string& text)
{
    return text.size() > 2 && text.find('\n') == text.size() - 1 && text[text.size() - 2] == '\r';
}

} // namespace agent_tests
