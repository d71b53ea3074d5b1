#include "common/WideFormat.h"

#include <cwchar>
#include <stdio.h>

namespace daxlib
{

int FormatTruncatedV(wchar_t* buffer, size_t capacity, const wchar_t* format, va_list args,
                     bool* truncated) noexcept
{
    if (truncated)
        *truncated = false;
    if (!buffer || capacity == 0)
        return -1;
    buffer[0] = L'\0';
    if (!format)
        return -1;
    // The C runtime's wide formatter reports truncation as -1 with the buffer filled; a
    // length check tells it apart from a format error.
    const int written = _vsnwprintf_s(buffer, capacity, _TRUNCATE, format, args);
    if (written >= 0)
        return written;
    const size_t length = wcsnlen(buffer, capacity);
    if (length + 1 == capacity)
    {
        if (truncated)
            *truncated = true;
        return static_cast<int>(length);
    }
    buffer[0] = L'\0';
    return -1;
}

int FormatTruncated(wchar_t* buffer, size_t capacity, const wchar_t* format, ...) noexcept
{
    va_list args;
    va_start(args, format);
    const int written = FormatTruncatedV(buffer, capacity, format, args);
    va_end(args);
    return written;
}

std::wstring FormatV(const wchar_t* format, va_list args)
{
    wchar_t buffer[kFormatCapacity];
    const int written = FormatTruncatedV(buffer, kFormatCapacity, format, args);
    return written > 0 ? std::wstring(buffer, static_cast<size_t>(written)) : std::wstring();
}

std::wstring Format(const wchar_t* format, ...)
{
    va_list args;
    va_start(args, format);
    std::wstring text = FormatV(format, args);
    va_end(args);
    return text;
}

} // namespace daxlib
