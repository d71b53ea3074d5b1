#include "tools/status/StatusOptions.h"

#include "tools/agent/AgentOptions.h"

#include <map>

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
           L"Shows the state of this session's remote URL channel as the velomard service sees it, and\n"
           L"what the channel has carried since the service started (URLs forwarded, refused by\n"
           L"the URL policy, failed; handshakes; reconnects; the time of the last URL).\n"
           L"\n"
           L"  --watch       one line per change until Ctrl+C\n"
           L"  --all         every session, one line each (LocalSystem and administrators only)\n"
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

namespace
{
// Appends a session's counts to its line: in words, or as a "counters" member of its object.
std::string WithCounters(std::string line, const SessionCountersSnapshot& counters, bool json)
{
    if (json)
    {
        line.pop_back(); // the object's closing brace
        return line + ",\"counters\":" + statusapi::JsonCounters(counters) + "}";
    }
    return line + "; " + statusapi::DescribeCounters(counters);
}

std::string NoChannelLine(uint32_t session, bool json)
{
    const std::string id = std::to_string(session);
    return json ? "{\"session\":" + id + ",\"state\":\"no channel\"}"
                : "session " + id + ": no channel (the service has no remote channel for it)";
}
} // namespace

std::vector<std::string> AnswerLines(const statusapi::Answer& answer, uint32_t ownSession, bool json,
                                     const statusapi::CountersAnswer* counters)
{
    std::map<uint32_t, SessionCountersSnapshot> counts;
    if (counters && counters->result == statusapi::kOk)
        for (const statusapi::CountersEntry& entry : counters->entries)
            counts[entry.sessionId] = entry.counters;
    const auto line = [&](uint32_t session, std::string text)
    {
        const auto found = counts.find(session);
        if (found == counts.end())
            return text;
        text = WithCounters(std::move(text), found->second, json);
        counts.erase(found);
        return text;
    };

    std::vector<std::string> lines;
    if (answer.result == statusapi::kNoChannel)
        lines.push_back(line(ownSession, NoChannelLine(ownSession, json)));
    else
        for (const statusapi::SessionEntry& entry : answer.entries)
            lines.push_back(
                line(entry.sessionId, json ? statusapi::JsonEntry(entry) : statusapi::DescribeEntry(entry)));
    // Sessions that carried URLs but have no channel now (closed, or never connected).
    if (answer.result == statusapi::kOk || answer.result == statusapi::kNoChannel)
        for (const auto& [session, snapshot] : counts)
            lines.push_back(WithCounters(NoChannelLine(session, json), snapshot, json));
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
