#pragma once
// Conversions between the system's types and the logger's Windows-free text code, shared by
// the logger's units.
#include "log/LogText.h"

#include <windows.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace cvlog
{
static_assert(sizeof(wchar_t) == sizeof(char16_t), "the Windows build keeps UTF-16 in wchar_t");

inline std::u16string ToU16(const wchar_t* text)
{
    const std::wstring_view view = text ? std::wstring_view(text) : std::wstring_view();
    return std::u16string(view.begin(), view.end());
}
inline std::wstring FromU16(const std::u16string& text)
{
    return std::wstring(text.begin(), text.end());
}
inline TimeParts ToParts(const SYSTEMTIME& t)
{
    return {t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute, t.wSecond, t.wMilliseconds};
}
inline std::wstring WithoutTrailingSlash(std::wstring path)
{
    while (path.size() > 3 && (path.back() == L'\\' || path.back() == L'/'))
        path.pop_back();
    return path;
}
inline uint64_t FileTimeValue(const FILETIME& t)
{
    return (static_cast<uint64_t>(t.dwHighDateTime) << 32) | t.dwLowDateTime;
}
} // namespace cvlog
