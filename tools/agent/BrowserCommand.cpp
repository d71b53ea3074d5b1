#include "tools/agent/BrowserCommand.h"

#include <algorithm>

namespace agent
{

namespace
{
bool IsBlank(wchar_t c)
{
    return c == L' ' || c == L'\t';
}

// The program name ends at the next blank, or at the closing quote when it starts with one; no
// backslash rule applies to it (the runtime's own reading of argv[0]).
std::wstring ReadProgram(const std::wstring& line, size_t& pos)
{
    while (pos < line.size() && IsBlank(line[pos]))
        ++pos;
    std::wstring program;
    if (pos < line.size() && line[pos] == L'"')
    {
        const size_t end = line.find(L'"', pos + 1);
        program = line.substr(pos + 1, end == std::wstring::npos ? std::wstring::npos : end - pos - 1);
        pos = end == std::wstring::npos ? line.size() : end + 1;
        return program;
    }
    while (pos < line.size() && !IsBlank(line[pos]))
        program += line[pos++];
    return program;
}

std::vector<std::wstring> ReadArguments(const std::wstring& line, size_t pos)
{
    std::vector<std::wstring> args;
    for (;;)
    {
        while (pos < line.size() && IsBlank(line[pos]))
            ++pos;
        if (pos >= line.size())
            return args;
        std::wstring arg;
        bool quoted = false;
        while (pos < line.size() && (quoted || !IsBlank(line[pos])))
        {
            size_t slashes = 0;
            while (pos < line.size() && line[pos] == L'\\')
            {
                ++slashes;
                ++pos;
            }
            if (pos < line.size() && line[pos] == L'"')
            {
                arg.append(slashes / 2, L'\\');
                if (slashes % 2 == 1)
                    arg += L'"';
                else if (quoted && pos + 1 < line.size() && line[pos + 1] == L'"')
                {
                    arg += L'"'; // "" inside quotes is one quote (the runtime since 2008)
                    ++pos;
                }
                else
                    quoted = !quoted;
                ++pos;
                continue;
            }
            arg.append(slashes, L'\\');
            if (pos < line.size() && (quoted || !IsBlank(line[pos])))
                arg += line[pos++];
        }
        args.push_back(std::move(arg));
    }
}

std::wstring Substitute(const std::wstring& arg, const std::wstring& url, bool& used)
{
    std::wstring out;
    for (size_t i = 0; i < arg.size(); ++i)
    {
        if (arg[i] == L'%' && i + 1 < arg.size() &&
            (arg[i + 1] == L'1' || arg[i + 1] == L'L' || arg[i + 1] == L'l'))
        {
            out += url;
            used = true;
            ++i;
        }
        else
            out += arg[i];
    }
    return out;
}

std::wstring Lower(std::wstring text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](wchar_t c)
                   { return c >= L'A' && c <= L'Z' ? static_cast<wchar_t>(c - L'A' + L'a') : c; });
    return text;
}
} // namespace

std::wstring QuoteArgument(const std::wstring& argument)
{
    if (!argument.empty() && argument.find_first_of(L" \t\n\v\"") == std::wstring::npos)
        return argument;
    std::wstring out = L"\"";
    size_t slashes = 0;
    for (const wchar_t c : argument)
    {
        if (c == L'\\')
        {
            ++slashes;
            continue;
        }
        out.append(c == L'"' ? slashes * 2 + 1 : slashes, L'\\');
        slashes = 0;
        out += c;
    }
    out.append(slashes * 2, L'\\');
    out += L'"';
    return out;
}

std::vector<std::wstring> SplitArguments(const std::wstring& commandLine)
{
    size_t pos = 0;
    ReadProgram(commandLine, pos);
    return ReadArguments(commandLine, pos);
}

std::optional<BrowserLaunch> ExpandBrowserCommand(const std::wstring& command, const std::wstring& url)
{
    size_t pos = 0;
    BrowserLaunch launch;
    launch.program = ReadProgram(command, pos);
    if (launch.program.empty())
        return std::nullopt;
    // The program is quoted whatever it holds: a bare one with a blank would be read apart.
    launch.commandLine = L"\"" + launch.program + L"\"";
    bool used = false;
    for (const std::wstring& arg : ReadArguments(command, pos))
        launch.commandLine += L" " + QuoteArgument(Substitute(arg, url, used));
    if (!used)
        launch.commandLine += L" " + QuoteArgument(url);
    return launch;
}

bool IsOwnProgram(const std::wstring& program)
{
    const size_t slash = program.find_last_of(L"\\/");
    const std::wstring name = Lower(slash == std::wstring::npos ? program : program.substr(slash + 1));
    return name == L"velomar-open.exe" || name == L"velomar-open-cli.exe" || name == L"velomar-open" ||
           name == L"velomar-open-cli";
}

std::wstring WindowedProgramBeside(const std::wstring& program)
{
    const size_t slash = program.find_last_of(L"\\/");
    const size_t start = slash == std::wstring::npos ? 0 : slash + 1;
    if (Lower(program.substr(start)) != L"velomar-open-cli.exe")
        return program;
    return program.substr(0, start) + L"velomar-open.exe";
}

} // namespace agent
