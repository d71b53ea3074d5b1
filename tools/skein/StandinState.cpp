#include "tools/skein/StandinState.h"

#include <shlobj.h>

#include <cstdio>

namespace standin
{

// Never deleted at process exit, where the library's threads may still run.
Library* g_library;

Library& Lib()
{
    static Library* library = g_library = new Library;
    return *library;
}

HMODULE g_hSelf;

std::wstring Widen(const std::string& text)
{
    if (text.empty())
        return {};
    const int n = ::MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring wide(static_cast<size_t>(n), L'\0');
    ::MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), wide.data(), n);
    return wide;
}

std::string Narrow(const std::wstring& text)
{
    if (text.empty())
        return {};
    const int n = ::WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0,
                                        nullptr, nullptr);
    std::string narrow(static_cast<size_t>(n), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), narrow.data(), n, nullptr,
                          nullptr);
    return narrow;
}

std::wstring Lower(std::wstring text)
{
    for (auto& c : text)
        if (c >= L'A' && c <= L'Z')
            c = static_cast<wchar_t>(c - L'A' + L'a');
    return text;
}

bool ParseHex(const std::string& text, std::vector<uint8_t>& out)
{
    if (text.size() % 2 != 0)
        return false;
    out.clear();
    for (size_t i = 0; i < text.size(); i += 2)
    {
        unsigned value = 0;
        if (std::sscanf(text.substr(i, 2).c_str(), "%2x", &value) != 1)
            return false;
        out.push_back(static_cast<uint8_t>(value));
    }
    return true;
}

bool ParseGuid(const std::wstring& text, GUID& guid)
{
    unsigned d1 = 0, d2 = 0, d3 = 0, b[8] = {};
    wchar_t tail = 0;
    const int n = swscanf(text.c_str(), L"%8x-%4x-%4x-%2x%2x-%2x%2x%2x%2x%2x%2x%lc", &d1, &d2, &d3, &b[0],
                          &b[1], &b[2], &b[3], &b[4], &b[5], &b[6], &b[7], &tail);
    if (n != 11)
        return false;
    guid.Data1 = d1;
    guid.Data2 = static_cast<unsigned short>(d2);
    guid.Data3 = static_cast<unsigned short>(d3);
    for (int i = 0; i < 8; ++i)
        guid.Data4[i] = static_cast<unsigned char>(b[i]);
    return true;
}

std::wstring AutoGuid(uint32_t id)
{
    wchar_t text[64];
    _snwprintf(text, 64, L"%08x-5e1c-4a3b-9d2e-0000c0ffee%02x", id, id & 0xff);
    text[63] = 0;
    return text;
}

std::wstring DefaultSink()
{
    wchar_t folder[MAX_PATH] = {};
    if (FAILED(::SHGetFolderPathW(nullptr, CSIDL_COMMON_APPDATA, nullptr, 0, folder)))
        return {};
    return std::wstring(folder) + L"\\Corvane\\Skein Standin\\received.txt";
}

void AppendLine(SinkFile& sink, const std::wstring& path, const std::string& line)
{
    if (sink.path != path)
    {
        sink.file.reset();
        sink.path = path;
    }
    const auto open = [&]
    {
        // Shared for deletion as well: a test may remove the file while a service still runs.
        return ::CreateFileW(path.c_str(), FILE_APPEND_DATA,
                             FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS,
                             FILE_ATTRIBUTE_NORMAL, nullptr);
    };
    if (!sink.file)
    {
        sink.file.reset(open());
        const size_t slash = path.find_last_of(L'\\');
        if (!sink.file && ::GetLastError() == ERROR_PATH_NOT_FOUND && slash != std::wstring::npos)
        {
            ::SHCreateDirectoryExW(nullptr, path.substr(0, slash).c_str(), nullptr);
            sink.file.reset(open());
        }
    }
    if (!sink.file)
        return;
    const std::string text = line + "\n";
    DWORD written = 0;
    if (!::WriteFile(sink.file.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr))
        sink.file.reset(); // opened again for the next line
}

} // namespace standin
