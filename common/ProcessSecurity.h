#pragma once
// What every program of the project does before it loads a library or opens one of the
// service's pipes.
#include <windows.h>

#include <cstdint>
#include <string>

namespace daxlib
{

// The flags every pipe client adds to CreateFileW: the server may learn who the client is, but
// can never act as the client. Without SECURITY_SQOS_PRESENT a client grants full
// impersonation to whatever process owns a pipe of that name.
constexpr DWORD kPipeClientSecurityFlags = SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION;

// The session of a pipe client that the system could not report. Such a client is refused:
// routing it to session 0 (or any other) would hand its URLs to a session that is not its own.
constexpr uint32_t kUnknownSession = 0xFFFFFFFF;

// Called first in every wmain: from then on a library named without a path is found in
// System32 only, never in the program's folder, the current folder or PATH, where users may
// place files.
inline bool RestrictLibrarySearch()
{
    return ::SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32) != FALSE;
}

// A library given by full path whose own imports are found beside it or in System32, nowhere
// else. Null on failure (last error set).
inline HMODULE LoadLibraryByFullPath(const std::wstring& path)
{
    return ::LoadLibraryExW(path.c_str(), nullptr,
                            LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_SYSTEM32);
}

// A system library (advapi32.dll, ...) from System32 only.
inline HMODULE LoadSystemLibrary(const wchar_t* name)
{
    return ::LoadLibraryExW(name, nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
}

} // namespace daxlib
