#include "tests/common/TestSupport.h"

#include <tlhelp32.h>

#include <algorithm>
#include <atomic>
#include <vector>

namespace testsupport
{

std::wstring UniqueName(const std::wstring& stem)
{
    static std::atomic<unsigned> counter{0};
    return stem + L"-" + std::to_wstring(::GetCurrentProcessId()) + L"-" + std::to_wstring(::GetTickCount()) +
           L"-" + std::to_wstring(++counter);
}

TempDir::TempDir(const std::wstring& stem)
{
    wchar_t base[MAX_PATH];
    const DWORD n = ::GetTempPathW(MAX_PATH, base);
    std::wstring root(base, n);
    if (!root.empty() && root.back() == L'\\')
        root.pop_back();
    m_path = root + L"\\" + UniqueName(stem);
    ::CreateDirectoryW(m_path.c_str(), nullptr);
}

TempDir::~TempDir()
{
    RemoveTree(m_path);
}

void RemoveTree(const std::wstring& path)
{
    const DWORD attributes = ::GetFileAttributesW(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES)
        return;
    // A junction is removed as a link; its target is left alone.
    if ((attributes & FILE_ATTRIBUTE_DIRECTORY) && !(attributes & FILE_ATTRIBUTE_REPARSE_POINT))
    {
        WIN32_FIND_DATAW data;
        HANDLE find = ::FindFirstFileW((path + L"\\*").c_str(), &data);
        for (BOOL more = find != INVALID_HANDLE_VALUE; more; more = ::FindNextFileW(find, &data))
            if (std::wstring name = data.cFileName; name != L"." && name != L"..")
                RemoveTree(path + L"\\" + name);
        if (find != INVALID_HANDLE_VALUE)
            ::FindClose(find);
    }
    if (attributes & FILE_ATTRIBUTE_DIRECTORY)
        ::RemoveDirectoryW(path.c_str());
    else
    {
        ::SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
        ::DeleteFileW(path.c_str());
    }
}

TempKey::TempKey(std::wstring path, HKEY root) : m_root(root), m_path(std::move(path))
{
    ::RegCreateKeyExW(m_root, m_path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, m_key.put(), nullptr);
}

TempKey::~TempKey()
{
    m_key.reset();
    ::RegDeleteTreeW(m_root, m_path.c_str());
    ::RegDeleteKeyW(m_root, m_path.c_str());
}

bool TempKey::Set(const wchar_t* name, DWORD type, const void* data, DWORD size) const
{
    return ::RegSetValueExW(m_key.get(), name, 0, type, static_cast<const BYTE*>(data), size) ==
           ERROR_SUCCESS;
}

bool TempKey::SetText(const wchar_t* name, const std::wstring& text) const
{
    return Set(name, REG_SZ, text.c_str(), static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
}

bool TempKey::SetStrings(const wchar_t* name, const std::vector<std::wstring>& strings) const
{
    std::wstring data;
    for (const auto& s : strings)
        data += s + L'\0';
    data += L'\0';
    return Set(name, REG_MULTI_SZ, data.c_str(), static_cast<DWORD>(data.size() * sizeof(wchar_t)));
}

std::wstring ReadRegString(HKEY root, const std::wstring& path, const wchar_t* name)
{
    wchar_t value[1024] = {};
    DWORD size = sizeof(value);
    return ::RegGetValueW(root, path.c_str(), name, RRF_RT_REG_SZ, nullptr, value, &size) == ERROR_SUCCESS
               ? value
               : L"<missing>";
}

DWORD ReadRegDword(HKEY root, const std::wstring& path, const wchar_t* name, DWORD missing)
{
    DWORD value = missing, size = sizeof value;
    return ::RegGetValueW(root, path.c_str(), name, RRF_RT_REG_DWORD, nullptr, &value, &size) == ERROR_SUCCESS
               ? value
               : missing;
}

namespace
{
// Whether a handle value names a handle of the process. Asking about one's own handle creates
// nothing; another process's handle is copied here and the copy closed at once.
bool IsLiveHandle(HANDLE process, uintptr_t value)
{
    const auto handle = reinterpret_cast<HANDLE>(value);
    if (!process)
    {
        DWORD flags = 0;
        return ::GetHandleInformation(handle, &flags) != FALSE;
    }
    daxlib::unique_handle copy;
    return ::DuplicateHandle(process, handle, ::GetCurrentProcess(), copy.put(), 0, FALSE,
                             DUPLICATE_SAME_ACCESS) != FALSE;
}
} // namespace

long long CountProcessHandles(DWORD processId)
{
    const bool self = processId == ::GetCurrentProcessId();
    daxlib::unique_handle process;
    if (!self)
    {
        process.reset(::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, processId));
        if (!process)
            return -1;
    }
    DWORD reported = 0;
    if (::GetProcessHandleCount(self ? ::GetCurrentProcess() : process.get(), &reported) && reported > 0)
        return reported;

    // Wine reports no handles at all. Nor can its system handle table be read instead: Wine 8's
    // server crashes on it whenever some process of the prefix is just starting (its handle
    // table still empty), and takes every process of the prefix with it. So each handle value
    // is asked about in turn. Wine gives out the lowest free value first, so a process's handles
    // sit close together and a long run of values that name nothing ends the count.
    if (!self)
    {
        process.reset(::OpenProcess(PROCESS_DUP_HANDLE, FALSE, processId));
        if (!process)
            return -1;
    }
    constexpr unsigned kEmptyValuesThatEnd = 4096;
    long long count = 0;
    unsigned empty = 0;
    for (uintptr_t value = 4; empty < kEmptyValuesThatEnd; value += 4)
    {
        if (IsLiveHandle(process.get(), value))
        {
            ++count;
            empty = 0;
        }
        else
            ++empty;
    }
    return count;
}

long long CountProcessThreads(DWORD processId)
{
    daxlib::unique_hfile snapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
    if (!snapshot)
        return -1;
    THREADENTRY32 entry{};
    entry.dwSize = sizeof(entry);
    long long count = 0;
    for (BOOL more = ::Thread32First(snapshot.get(), &entry); more;
         more = ::Thread32Next(snapshot.get(), &entry))
        count += entry.th32OwnerProcessID == processId ? 1 : 0;
    return count;
}

bool Eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition())
    {
        if (std::chrono::steady_clock::now() > end)
            return false;
        ::Sleep(5);
    }
    return true;
}

ProcessRun RunProcess(std::wstring commandLine, DWORD limitMs)
{
    ProcessRun run;
    TempDir dir(L"velomar-run");
    SECURITY_ATTRIBUTES inherit{sizeof(inherit), nullptr, TRUE};
    daxlib::unique_hfile files[2];
    for (int i = 0; i < 2; ++i)
        files[i].reset(::CreateFileW(dir.File(i ? L"err.txt" : L"out.txt").c_str(), GENERIC_WRITE,
                                     FILE_SHARE_READ, &inherit, CREATE_ALWAYS, 0, nullptr));
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = files[0].get();
    startup.hStdError = files[1].get();
    PROCESS_INFORMATION info{};
    const auto start = std::chrono::steady_clock::now();
    if (!::CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr,
                          nullptr, &startup, &info))
        return run;
    daxlib::unique_handle process(info.hProcess), thread(info.hThread);
    run.processId = info.dwProcessId;
    run.ended = ::WaitForSingleObject(process.get(), limitMs) == WAIT_OBJECT_0;
    run.elapsed =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    if (!run.ended && ::TerminateProcess(process.get(), 99))
        ::WaitForSingleObject(process.get(), 5000);
    ::GetExitCodeProcess(process.get(), &run.exitCode);
    files[0].reset();
    files[1].reset();
    run.out = ReadFileBytes(dir.File(L"out.txt"));
    run.err = ReadFileBytes(dir.File(L"err.txt"));
    return run;
}

std::wstring BuildPath(const std::string& path)
{
    std::wstring windows(path.begin(), path.end());
    std::replace(windows.begin(), windows.end(), L'/', L'\\');
    return !windows.empty() && windows[0] == L'\\' ? L"Z:" + windows : windows;
}

std::string ReadFileBytes(const std::wstring& path)
{
    daxlib::unique_hfile file(::CreateFileW(path.c_str(), GENERIC_READ,
                                            FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                            OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    std::string bytes;
    char chunk[65536];
    DWORD read = 0;
    while (file && ::ReadFile(file.get(), chunk, sizeof(chunk), &read, nullptr) && read > 0)
        bytes.append(chunk, read);
    return bytes;
}

std::wstring FromUtf16Bytes(const std::string& bytes)
{
    std::wstring text(bytes.size() / 2, L'\0');
    for (size_t i = 0; i < text.size(); ++i)
        text[i] = static_cast<wchar_t>(static_cast<unsigned char>(bytes[2 * i]) |
                                       (static_cast<unsigned char>(bytes[2 * i + 1]) << 8));
    return text;
}

} // namespace testsupport
