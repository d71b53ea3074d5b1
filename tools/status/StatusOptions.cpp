#include "tools/status/StatusOptions.h"

#include "tools/agent/AgentOptions.h"

namespace statustool
{

ParseResult ParseCommandLine(const std::vector<std::wstring>& args)
{
    ParseResult result;
    for (size_t i = 0; i < args.size(); ++i)
    {
        const std::wstring& arg = args[i];
        if (arg == L"--help" || arg == L"-h" || arg == L"/?")
            result.options.help = true;
        else if (arg == L"--watch")
            result.options.watch = true;
        else if (arg == L"--all")
            result.options.all = true;
        else if (arg == L"--json")
            result.options.json = true;
        else if (arg == L"--timeout" && i + 1 < args.size() &&
                 agent::ParseMilliseconds(args[i + 1], result.options.timeoutMs))
            ++i;
        else
        {
            result.exitCode = kExitUsage;
            result.error = arg == L"--timeout" ? L"--timeout needs a number of milliseconds"
                                               : L"unknown argument " + arg + L" (see --help)";
            return result;
        }
    }
    return result;
}

std::wstring HelpText()
{
    return L"Usage: velomar-status [--watch] [--all] [--json] [--timeout MS]\n"
           L"Shows the state of this session's remote URL channel as the velomard service sees it.\n"
           L"\n"
           L"  --watch       one line per change until Ctrl+C\n"
           L"  --all         every session (LocalSystem and administrators only)\n"
           L"  --json        one JSON object per line\n"
           L"  --timeout MS  the limit of every wait for the service (default 5000)\n"
           L"\n"
           L"Exit codes:\n"
           L"  0   connected (with --all: every session listed is)\n"
           L"  1   not connected, connection broken, invalid protocol, or no channel for this session\n"
           L"  2   the service is not running, busy, or ended the connection\n"
           L"  3   --all, but this user is no administrator\n"
           L"  64  usage error\n"
           L"  77  the status pipe is served by another process than the velomard service\n";
}

std::vector<std::string> AnswerLines(const statusapi::Answer& answer, uint32_t ownSession, bool json)
{
    std::vector<std::string> lines;
    if (answer.result == statusapi::kNoChannel)
    {
        const std::string session = std::to_string(ownSession);
        lines.push_back(json ? "{\"session\":" + session + ",\"state\":\"no channel\"}"
                             : "session " + session +
                                   ": no channel (the service has no remote channel for it)");
        return lines;
    }
    for (const statusapi::SessionEntry& entry : answer.entries)
        lines.push_back(json ? statusapi::JsonEntry(entry) : statusapi::DescribeEntry(entry));
    return lines;
}

int ExitCodeOf(const statusapi::Answer& answer)
{
    if (answer.result == statusapi::kDenied)
        return kExitDenied;
    if (answer.result != statusapi::kOk || answer.entries.empty())
        return kExitNotConnected;
    for (const statusapi::SessionEntry& entry : answer.entries)
        if (entry.record.dwState != eCvUrlApiEvent_RdpConnected)
            return kExitNotConnected;
    return kExitConnected;
}

} // namespace statustool
