// Sends one command to the stand-in channel library loaded in another process (the service)
// over its control pipe and prints the reply. Usage: skeinctl <command words...>
#include "common/PipeNames.h"
#include "common/ProcessSecurity.h"
#include "common/UniqueHandle.h"

#include <windows.h>

#include <cstdio>
#include <string>

namespace
{

std::string Narrow(const wchar_t* text)
{
    const int n = ::WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    if (n <= 1)
        return {};
    std::string narrow(static_cast<size_t>(n), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, text, -1, narrow.data(), n, nullptr, nullptr);
    narrow.resize(static_cast<size_t>(n - 1));
    return narrow;
}

// One overlapped read or write that gives up after kReplyLimitMs.
constexpr DWORD kReplyLimitMs = 15000;

bool Transfer(HANDLE pipe, bool write, char* data, DWORD size, DWORD& done)
{
    daxlib::unique_handle event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (!event)
        return false;
    OVERLAPPED ov{};
    ov.hEvent = event.get();
    const BOOL started =
        write ? ::WriteFile(pipe, data, size, nullptr, &ov) : ::ReadFile(pipe, data, size, nullptr, &ov);
    if (!started && ::GetLastError() != ERROR_IO_PENDING)
        return false;
    if (::WaitForSingleObject(event.get(), kReplyLimitMs) != WAIT_OBJECT_0)
    {
        ::CancelIoEx(pipe, &ov);
        ::GetOverlappedResult(pipe, &ov, &done, TRUE); // the buffer stays in use until the cancel lands
        ::SetLastError(WAIT_TIMEOUT);
        return false;
    }
    return ::GetOverlappedResult(pipe, &ov, &done, FALSE) != FALSE;
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    daxlib::RestrictLibrarySearch();
    if (argc < 2)
    {
        std::fprintf(stderr, "usage: skeinctl <command> [arguments...]   (see tools/skein/README.md)\n");
        return 2;
    }
    std::string command;
    for (int i = 1; i < argc; ++i)
        command += (i > 1 ? " " : "") + Narrow(argv[i]);

    wchar_t name[256] = {};
    if (!::GetEnvironmentVariableW(L"CVSKAPI_STANDIN_PIPE", name, 256))
        wcscpy(name, daxlib::kStandinControlPipe);
    daxlib::unique_hfile pipe;
    for (int attempt = 0; attempt < 50 && !pipe; ++attempt)
    {
        pipe.reset(::CreateFileW(name, GENERIC_READ | FILE_WRITE_DATA | FILE_WRITE_ATTRIBUTES, 0, nullptr,
                                 OPEN_EXISTING, FILE_FLAG_OVERLAPPED | daxlib::kPipeClientSecurityFlags,
                                 nullptr));
        if (!pipe && !::WaitNamedPipeW(name, 200))
            ::Sleep(100); // the library serves one command at a time; try again shortly
    }
    if (!pipe)
    {
        std::fprintf(stderr, "skeinctl: the stand-in library is not listening (error %lu)\n",
                     ::GetLastError());
        return 3;
    }
    DWORD mode = PIPE_READMODE_MESSAGE;
    ::SetNamedPipeHandleState(pipe.get(), &mode, nullptr, nullptr);
    std::string reply(65536, '\0');
    DWORD got = 0;
    // A library that stops answering (its process stuck or ending) must not hang the caller.
    const bool ok = Transfer(pipe.get(), true, command.data(), static_cast<DWORD>(command.size()), got) &&
                    Transfer(pipe.get(), false, reply.data(), static_cast<DWORD>(reply.size()), got);
    if (!ok)
    {
        std::fprintf(stderr, "skeinctl: no reply (error %lu)\n", ::GetLastError());
        return 3;
    }
    reply.resize(got);
    std::printf("%s\n", reply.c_str());
    return reply.rfind("ok", 0) == 0 ? 0 : 1;
}
