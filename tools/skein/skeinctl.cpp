// Sends one command to the stand-in channel library loaded in another process (the service)
// over its control pipe and prints the reply. Usage: skeinctl <command words...>
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

} // namespace

int wmain(int argc, wchar_t** argv)
{
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
        wcscpy(name, L"\\\\.\\pipe\\CorvaneSkeinStandin");
    HANDLE pipe = INVALID_HANDLE_VALUE;
    for (int attempt = 0; attempt < 50 && pipe == INVALID_HANDLE_VALUE; ++attempt)
    {
        pipe = ::CreateFileW(name, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        if (pipe == INVALID_HANDLE_VALUE && !::WaitNamedPipeW(name, 200))
            ::Sleep(100); // the library serves one command at a time; try again shortly
    }
    if (pipe == INVALID_HANDLE_VALUE)
    {
        std::fprintf(stderr, "skeinctl: the stand-in library is not listening (error %lu)\n", ::GetLastError());
        return 3;
    }
    DWORD mode = PIPE_READMODE_MESSAGE;
    ::SetNamedPipeHandleState(pipe, &mode, nullptr, nullptr);
    DWORD written = 0;
    std::string reply(65536, '\0');
    DWORD got = 0;
    const bool ok = ::WriteFile(pipe, command.data(), static_cast<DWORD>(command.size()), &written, nullptr) &&
                    ::ReadFile(pipe, reply.data(), static_cast<DWORD>(reply.size()), &got, nullptr);
    ::CloseHandle(pipe);
    if (!ok)
    {
        std::fprintf(stderr, "skeinctl: no reply (error %lu)\n", ::GetLastError());
        return 3;
    }
    reply.resize(got);
    std::printf("%s\n", reply.c_str());
    return reply.rfind("ok", 0) == 0 ? 0 : 1;
}
