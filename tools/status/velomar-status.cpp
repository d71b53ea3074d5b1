// velomar-status: the state of this session's remote URL channel (or of every session's, for
// administrators), as the velomard service reports it on its status pipe; once, or at every change.
#include "common/ProcessSecurity.h"
#include "common/UniqueHandle.h"
#include "tools/agent/AgentSession.h"
#include "tools/agent/ConsoleOutput.h"
#include "tools/status/StatusClient.h"
#include "tools/status/StatusOptions.h"

#include <windows.h>

#include <exception>
#include <map>
#include <string>
#include <vector>

namespace
{

using statusclient::Status;

HANDLE g_interrupt = nullptr;

BOOL WINAPI OnConsoleControl(DWORD)
{
    // Ctrl+C, Ctrl+Break, a closed window: the main thread says goodbye and ends.
    ::SetEvent(g_interrupt);
    return TRUE;
}

void PrintLines(const std::vector<std::string>& lines)
{
    std::wstring text;
    for (const std::string& line : lines)
        text += std::wstring(line.begin(), line.end()) + L"\n"; // the lines are ASCII
    agent::Print(STD_OUTPUT_HANDLE, text);
}

int Fail(Status status, const statusclient::CStatusClient& client)
{
    agent::Print(STD_ERROR_HANDLE,
                 L"velomar-status: " +
                     statusclient::DescribeStatus(status, client.CloseReason(), client.Error()) + L"\n");
    return status == Status::WrongServer ? statustool::kExitWrongServer : statustool::kExitUnreachable;
}

// Prints every change until Ctrl+C; the exit code follows the last states seen.
int Watch(statusclient::CStatusClient& client, const statustool::Options& options,
          const statusapi::Answer& first)
{
    std::map<uint32_t, statusapi::SessionEntry> latest;
    for (const auto& entry : first.entries)
        latest[entry.sessionId] = entry;
    for (;;)
    {
        statusapi::Notification notification;
        const Status status = client.NextNotification(notification, INFINITE);
        if (status == Status::Interrupted)
            break;
        if (status != Status::Ok)
            return Fail(status, client);
        latest[notification.entry.sessionId] = notification.entry;
        statusapi::Answer change;
        change.entries.push_back(notification.entry);
        PrintLines(statustool::AnswerLines(change, client.Welcome().sessionId, options.json));
    }
    client.Goodbye();
    statusapi::Answer now;
    for (const auto& [session, entry] : latest)
        now.entries.push_back(entry);
    return statustool::ExitCodeOf(now);
}

int Run(int argc, wchar_t** argv)
{
    const statustool::ParseResult parsed =
        statustool::ParseCommandLine(std::vector<std::wstring>(argv + 1, argv + argc));
    if (parsed.exitCode != statustool::kExitConnected)
    {
        agent::Print(STD_ERROR_HANDLE, L"velomar-status: " + parsed.error + L"\n");
        return parsed.exitCode;
    }
    const statustool::Options& options = parsed.options;
    if (options.help)
    {
        agent::Print(STD_OUTPUT_HANDLE, statustool::HelpText());
        return statustool::kExitConnected;
    }
    daxlib::unique_handle interrupt(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    g_interrupt = interrupt.get();
    ::SetConsoleCtrlHandler(OnConsoleControl, TRUE);

    statusclient::CStatusClient client;
    client.ExpectService(agent::kServiceName);
    client.SetInterrupt(interrupt.get());
    Status status = client.Connect(options.timeoutMs);
    if (status != Status::Ok)
        return Fail(status, client);
    if (options.all && !(client.Welcome().flags & statusapi::kMayAskAllSessions))
    {
        client.Goodbye();
        agent::Print(STD_ERROR_HANDLE, L"velomar-status: --all is for administrators only\n");
        return statustool::kExitDenied;
    }
    statusapi::Answer answer;
    status =
        client.Ask(options.watch ? statusapi::kSubscribe : statusapi::kGetStatus,
                   options.all ? statusapi::kAllSessions : statusapi::kOwnSession, answer, options.timeoutMs);
    if (status != Status::Ok)
        return Fail(status, client);
    // A service older than the counters answers without them.
    statusapi::CountersAnswer counters;
    const bool counted =
        client.Welcome().version >= statusapi::kCountersVersion && answer.result != statusapi::kDenied;
    if (counted)
    {
        status = client.AskCounters(options.all ? statusapi::kAllSessions : statusapi::kOwnSession, counters,
                                    options.timeoutMs);
        if (status != Status::Ok)
            return Fail(status, client);
    }
    PrintLines(statustool::AnswerLines(answer, client.Welcome().sessionId, options.json,
                                       counted ? &counters : nullptr));
    if (options.watch && answer.result != statusapi::kDenied)
        return Watch(client, options, answer);
    client.Goodbye();
    return statustool::ExitCodeOf(answer);
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    daxlib::RestrictLibrarySearch();
    try
    {
        return Run(argc, argv);
    }
    catch (const std::exception&)
    {
        agent::Print(STD_ERROR_HANDLE, L"velomar-status: internal error\n");
    }
    return statustool::kExitUnreachable;
}
