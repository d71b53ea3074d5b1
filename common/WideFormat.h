#pragma once
// printf-style formatting of wide text into bounded buffers, with truncation instead of failure.
// Formats follow the Windows convention: %s wide, %S narrow, %I64d 64-bit.
#include <cstdarg>
#include <cstddef>
#include <string>

namespace daxlib
{

constexpr size_t kFormatCapacity = 4096; // characters, terminator included

// Formats into buffer[capacity]; the text is cut at capacity - 1 characters. Returns the
// number of characters written, or -1 when the format itself could not be processed.
// `truncated` (optional) tells whether the text had to be cut.
int FormatTruncatedV(wchar_t* buffer, size_t capacity, const wchar_t* format, va_list args,
                     bool* truncated = nullptr) noexcept;
int FormatTruncated(wchar_t* buffer, size_t capacity, const wchar_t* format, ...) noexcept;

// The same into a string of at most kFormatCapacity - 1 characters.
std::wstring FormatV(const wchar_t* format, va_list args);
std::wstring Format(const wchar_t* format, ...);

} // namespace daxlib
