#pragma once
// Command line and output of velomar-status. Free of Windows headers.
#include "statusapi/StatusProtocol.h"

#include <cstdint>
#include <string>
#include <vector>

namespace statustool
{

// Exit codes, also listed by --help.
enum ExitCode : int
{
    kExitConnected = 0,    // connected (with --all: every session listed is)
    kExitNotConnected = 1, // not connected, connection broken, invalid protocol, or no channel
    kExitUnreachable = 2,  // the service is not running, busy, or ended the connection
    kExitDenied = 3,       // --all, but this user is no administrator
    kExitUsage = 64,
    kExitWrongServer = 77, // the status pipe is served by another process than the service
};

constexpr uint32_t kDefaultTimeoutMs = 5000;

struct Options
{
    bool watch = false;
    bool all = false;
    bool json = false;
    bool help = false;
    uint32_t timeoutMs = kDefaultTimeoutMs;
};

struct ParseResult
{
    Options options;
    int exitCode = kExitConnected; // kExitUsage when the command line is refused
    std::wstring error;
};

ParseResult ParseCommandLine(const std::vector<std::wstring>& args); // without the program name
std::wstring HelpText();

// The lines of an answer (text or JSON), one per session, or one saying there is no channel.
// With counters (a service that keeps them), each session's line ends with its counts, and a
// session that has counts but no channel now gets a line of its own.
std::vector<std::string> AnswerLines(const statusapi::Answer& answer, uint32_t ownSession, bool json,
                                     const statusapi::CountersAnswer* counters = nullptr);
int ExitCodeOf(const statusapi::Answer& answer);

} // namespace statustool
