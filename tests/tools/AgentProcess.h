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
    daxlib::unique_hfile files[2];
    for (int i = 0; i < 2; ++i)
        files[i].reset(::CreateFileW(dir.File(i ? L"err.txt" : L"out.txt").c_str(), GENERIC_WRITE, FILE_SHARE_READ,
                                     &inherit, CREATE_ALWAYS, 0, nullptr));
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = files[0].get();
    startup.hStdError = files[1].get();
    std::wstring commandLine = L"\"" + AgentExePath() + L"\" " + arguments;
    PROCESS_INFORMATION info{};
    const auto start = std::chrono::steady_clock::now();
    if (!::CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr, nullptr,
                          &startup, &info))
        return run;
    daxlib::unique_handle process(info.hProcess), thread(info.hThread);
    run.processId = info.dwProcessId;
    run.ended = ::WaitForSingleObject(process.get(), limitMs) == WAIT_OBJECT_0;
    run.elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    if (!run.ended && ::TerminateProcess(process.get(), 99))
        ::WaitForSingleObject(process.get(), 5000);
    ::GetExitCodeProcess(process.get(), &run.exitCode);
    files[0].reset();
    files[1].reset();
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
