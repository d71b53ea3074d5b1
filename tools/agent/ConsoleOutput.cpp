#include "tools/agent/ConsoleOutput.h"

#include <string>

namespace agent
{

void Print(DWORD which, const std::wstring& text)
{
    const HANDLE out = ::GetStdHandle(which);
    if (!out || out == INVALID_HANDLE_VALUE)
        return;
    DWORD mode = 0;
    DWORD written = 0;
    if (::GetConsoleMode(out, &mode))
    {
        ::WriteConsoleW(out, text.c_str(), static_cast<DWORD>(text.size()), &written, nullptr);
        return;
    }
    std::wstring lines;
    lines.reserve(text.size() + 16);
    for (wchar_t c : text)
    {
        if (c == L'\n')
            lines += L'\r';
        lines += c;
    }
    const int size = ::WideCharToMultiByte(CP_UTF8, 0, lines.c_str(), static_cast<int>(lines.size()), nullptr,
                                           0, nullptr, nullptr);
    if (size <= 0)
        return;
    std::string bytes(static_cast<size_t>(size), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, lines.c_str(), static_cast<int>(lines.size()), bytes.data(), size,
                          nullptr, nullptr);
    ::WriteFile(out, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
}

} // namespace agent
