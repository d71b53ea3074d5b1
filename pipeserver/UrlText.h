#pragma once
// Characters as the URL policy reads them: ASCII classes, hexadecimal digits and strict UTF-8.
// Shared by the scheme, host and path code; free of Windows headers.
#include <string>

namespace urlpolicy::detail
{

inline bool IsBlank(char16_t c)
{
    return c == u' ' || c == u'\t';
}

inline bool IsAsciiAlpha(char32_t c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

inline bool IsDigit(char32_t c)
{
    return c >= '0' && c <= '9';
}

inline char ToLowerAscii(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

inline int HexValue(char32_t c)
{
    if (IsDigit(c))
        return static_cast<int>(c - '0');
    if (c >= 'a' && c <= 'f')
        return static_cast<int>(c - 'a' + 10);
    if (c >= 'A' && c <= 'F')
        return static_cast<int>(c - 'A' + 10);
    return -1;
}

void AppendUtf8(std::string& out, char32_t c);
// Strict UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
bool DecodeUtf8(const std::string& bytes, std::u32string& out);

} // namespace urlpolicy::detail
