#pragma once
// Runs the built velomar-open.exe as a child process with its output in files, and waits for it
// with a limit.
#include "tests/common/TestSupport.h"

#include <string>

namespace agenttests
{

using AgentRun = testsupport::ProcessRun; // out and err: UTF-8 as written

inline std::wstring AgentExePath()
{
    return testsupport::BuildPath(VELOMAR_OPEN_EXE);
}

inline AgentRun RunAgent(const std::wstring& arguments)
{
    return testsupport::RunProcess(L"\"" + AgentExePath() + L"\" " + arguments);
}

// True when `text` is exactly one line ended by CRLF.
inline bool IsOneLine(const std::string& text)
{
    return text.size() > 2 && text.find('\n') == text.size() - 1 && text[text.size() - 2] == '\r';
}

} // namespace agenttests
