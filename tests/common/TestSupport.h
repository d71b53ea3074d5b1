#pragma once
// Helpers for tests that run under Windows or Wine: unique names, temporary folders and registry
// keys, and the process's real handle and thread counts for leak checks.
#include "common/UniqueHandle.h"

#include <windows.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace testsupport
{

// A name unique to this process and call, for pipes, registry keys and folders, so that tests
// running in parallel never meet.
std::wstring UniqueName(const std::wstring& stem);

// A folder under the temporary folder, removed with everything in it at destruction.
class TempDir
{
public:
    explicit TempDir(const std::wstring& stem = L"velomar-test");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::wstring& Path() const { return m_path; } // no trailing backslash
    std::wstring File(const std::wstring& name) const { return m_path + L"\\" + name; }

private:
    std::wstring m_path;
};

void RemoveTree(const std::wstring& path);

// Handles the process holds: the system's count, or under Wine (which reports none) each handle
// value asked about in turn. Returns -1 when the process cannot be opened.
long long CountProcessHandles(DWORD processId = ::GetCurrentProcessId());
// Threads of the process.
long long CountProcessThreads(DWORD processId = ::GetCurrentProcessId());

// Polls a condition until it holds or the limit passes, for state that has no event of its own.
bool Eventually(const std::function<bool()>& condition,
                std::chrono::milliseconds limit = std::chrono::seconds(20));

// A child process run to its end, or ended after the limit; its output is kept in files.
struct ProcessRun
{
    bool ended = false;
    DWORD exitCode = STILL_ACTIVE;
    DWORD processId = 0;
    std::chrono::milliseconds elapsed{0};
    std::string out; // as written
    std::string err;
};
ProcessRun RunProcess(std::wstring commandLine, DWORD limitMs = 20000);
// A path CMake gave; a host path of the cross build ("/a/b") is reached through Z: ("Z:\a\b").
std::wstring BuildPath(const std::string& path);

// Reads a whole file; empty when it cannot be opened.
std::string ReadFileBytes(const std::wstring& path);
// Decodes UTF-16LE bytes (no byte-order mark) to a wide string.
std::wstring FromUtf16Bytes(const std::string& bytes);
// A UTF-16LE text file such as a log, decoded; empty when it cannot be opened.
inline std::wstring ReadUtf16File(const std::wstring& path)
{
    return FromUtf16Bytes(ReadFileBytes(path));
}
inline bool PathExists(const std::wstring& path)
{
    return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES;
}

// A REG_SZ value, or "<missing>" when it cannot be read.
std::wstring ReadRegString(HKEY root, const std::wstring& path, const wchar_t* name);
// A REG_DWORD value, or `missing` when it cannot be read.
DWORD ReadRegDword(HKEY root, const std::wstring& path, const wchar_t* name, DWORD missing = 99);

// A registry key made for one test, removed with everything below it at destruction.
class TempKey
{
public:
    explicit TempKey(std::wstring path = L"Software\\" + UniqueName(L"velomar-test"),
                     HKEY root = HKEY_CURRENT_USER);
    ~TempKey();
    TempKey(const TempKey&) = delete;
    TempKey& operator=(const TempKey&) = delete;

    const std::wstring& Path() const { return m_path; }
    HKEY Get() const { return m_key.get(); }
    bool Set(const wchar_t* name, DWORD type, const void* data, DWORD size) const;
    bool SetDword(const wchar_t* name, DWORD value) const
    {
        return Set(name, REG_DWORD, &value, sizeof value);
    }
    bool SetText(const wchar_t* name, const std::wstring& text) const;                    // REG_SZ
    bool SetStrings(const wchar_t* name, const std::vector<std::wstring>& strings) const; // REG_MULTI_SZ
    DWORD GetDword(const wchar_t* name) const { return ReadRegDword(m_root, m_path, name); }

private:
    HKEY m_root;
    std::wstring m_path;
    daxlib::unique_hkey m_key;
};

} // namespace testsupport
