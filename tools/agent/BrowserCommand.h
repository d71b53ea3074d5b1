#pragma once
// Browser command lines as the registry holds them ("C:\...\browser.exe" --flag "%1") turned
// into a process to start for one URL, without a shell: the URL becomes exactly one argument,
// quoted so that the browser's command-line parser gives it back unchanged. Free of <windows.h>.
#include <optional>
#include <string>
#include <vector>

namespace agent
{

// `argument` quoted as CommandLineToArgvW and the C runtime read it back: bare when it holds no
// blank and no quote, otherwise in quotes, with backslashes doubled before a quote and at the end.
std::wstring QuoteArgument(const std::wstring& argument);

// The arguments of `commandLine` after its program name, read as the C runtime reads them.
std::vector<std::wstring> SplitArguments(const std::wstring& commandLine);

struct BrowserLaunch
{
    std::wstring program;     // the executable, as the registry named it
    std::wstring commandLine; // the full command line, program first, every argument quoted
};

// The launch of `url` by the registered `command`: every %1 or %L in an argument is the URL (an
// argument that is only the placeholder becomes the URL exactly); a command without one gets the
// URL as its last argument. Other text is kept, and nothing in the URL is expanded. Empty when
// the command names no program.
std::optional<BrowserLaunch> ExpandBrowserCommand(const std::wstring& command, const std::wstring& url);

// True when `program` is one of velomar-open's own executables (by file name, in any case and
// folder): such a command would hand the URL straight back.
bool IsOwnProgram(const std::wstring& program);

// velomar-open.exe beside `program` when that is velomar-open-cli.exe, else `program` itself.
std::wstring WindowedProgramBeside(const std::wstring& program);

} // namespace agent
