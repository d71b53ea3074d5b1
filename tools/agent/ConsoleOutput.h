#pragma once
// Text output of the command-line tools.
#include <windows.h>

#include <string>

namespace agent
{

// One text to stdout or stderr (STD_OUTPUT_HANDLE, STD_ERROR_HANDLE): through the console when it
// is one, so that any character shows; otherwise as UTF-8 bytes with Windows line ends.
void Print(DWORD which, const std::wstring& text);

} // namespace agent
