#pragma once
// Command line of velomar-open, the reference agent. Free of Windows headers.
#include <cstdint>
#include <string>
#include <vector>

namespace agent
{

// Exit codes, also listed by --help.
enum ExitCode : int
{
    kExitSent = 0,                 // the service sent the URL to the client side of this session
    kExitOpenedLocally = 1,        // the service did not send it; it was opened on this host instead
    kExitNotOpened = 2,            // neither: not sent, and no local opening (--no-fallback, or it failed)
    kExitRefusedOpenedLocally = 3, // refused by the host's URL policy; opened on this host instead
    kExitRefusedNotOpened = 4,     // refused by the host's URL policy, and not opened on this host
    kExitUsage = 64,               // no URL, an unknown option, or too many arguments
    kExitBadUrl = 65,              // the text is not a URL, or it is too long
    kExitRegistration = 70,        // --register or --unregister failed
    kExitWrongServer = 77, // the agent pipe is served by another process than the service: nothing sent
};

constexpr size_t kMaxUrlLength = 16384; // characters
constexpr uint32_t kDefaultTimeoutMs = 5000;

enum class Action
{
    OpenUrl,
    Register,
    Unregister,
    Help,
};

struct Options
{
    Action action = Action::OpenUrl;
    bool fallback = true;
    uint32_t timeoutMs = kDefaultTimeoutMs;
    std::wstring url;
};

struct ParseResult
{
    Options options;
    int exitCode = kExitSent; // non-zero when the command line is refused
    std::wstring error;       // one line, set when refused
};

ParseResult ParseCommandLine(const std::vector<std::wstring>& args); // without the program name

// Empty when the text is acceptable as a URL, else a one-line reason. A URL is an absolute one:
// a scheme of two or more characters (letter, then letters, digits, '+', '-', '.'), a colon and
// something after it; no control characters, tabs or trailing space (spaces inside are kept);
// at most kMaxUrlLength characters.
std::wstring CheckUrl(const std::wstring& url);

std::wstring UrlScheme(const std::wstring& url);

// An absolute path (drive or share) of an .htm or .html file, which the command line takes as
// its file: URL.
bool IsPageFilePath(const std::wstring& text);
std::wstring FileUrlFromPath(const std::wstring& path); // lower-case, without the colon

std::wstring HelpText();

// A --timeout value: at most seven decimal digits.
bool ParseMilliseconds(const std::wstring& text, uint32_t& value);

} // namespace agent
