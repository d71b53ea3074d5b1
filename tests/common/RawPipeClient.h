#pragma once
// Blocking client ends of named pipes, shared by the transport's tests and its benchmark.
#include <windows.h>

#include <string>

namespace testsupport
{

inline bool WriteAll(HANDLE h, const void* data, DWORD length)
{
    DWORD done = 0;
    return ::WriteFile(h, data, length, &done, nullptr) && done == length;
}

inline bool ReadAll(HANDLE h, void* data, DWORD length)
{
    auto* p = static_cast<unsigned char*>(data);
    while (length > 0)
    {
        DWORD got = 0;
        if (!::ReadFile(h, p, length, &got, nullptr) || got == 0)
            return false;
        p += got;
        length -= got;
    }
    return true;
}

// Opens the client end synchronously, waiting for a free instance or for the pipe to appear
// (a few seconds at most).
inline HANDLE OpenClient(const std::wstring& fullName)
{
    // Bounded by time, not by attempts: on a loaded machine the server may take seconds to put
    // up the next instance while hundreds of clients wait for one.
    const ULONGLONG deadline = ::GetTickCount64() + 60000;
    while (::GetTickCount64() < deadline)
    {
        // As agents must: GENERIC_WRITE would ask for the right to create instances as well.
        HANDLE h = ::CreateFileW(fullName.c_str(), GENERIC_READ | FILE_WRITE_DATA, 0, nullptr, OPEN_EXISTING,
                                 0, nullptr);
        if (h != INVALID_HANDLE_VALUE)
            return h;
        const DWORD error = ::GetLastError();
        if (error == ERROR_PIPE_BUSY)
            ::WaitNamedPipeW(fullName.c_str(), 1000);
        else if (error == ERROR_FILE_NOT_FOUND)
            ::Sleep(1);
        else
            return INVALID_HANDLE_VALUE;
    }
    return INVALID_HANDLE_VALUE;
}

} // namespace testsupport
