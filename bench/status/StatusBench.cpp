// The status API pipe against the running service, in one run:
// - change to receipt: the time from a `break` of session 1 sent to the stand-in's control pipe to
//   each subscriber's receipt of the "connection broken" notification, p50 and p99, with 1 and with
//   64 subscribers (every round waits until all subscribers have also seen the reconnection);
// - the agent path (answer time and URLs per second of 8 agents, as in e2e_bench) without
//   subscribers and with 64 idle subscribers attached, twice each, interleaved; it must not be
//   more than 5% slower with them.
//   status_bench [--changes 200] [--urls 3000]
#include "bench/common/AgentRounds.h"
#include "bench/common/ServiceFigures.h"
#include "statusapi/PipeIo.h"
#include "tests/e2e/E2eHarness.h"
#include "tools/status/StatusClient.h"

#include <windows.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace
{

using namespace std::chrono_literals;
using namespace bench;
using statusclient::CStatusClient;
using statusclient::Status;

constexpr DWORD kLimitMs = 30000;

// One command to the stand-in's control pipe, as skeinctl sends it, without starting a process.
bool Control(const std::string& command)
{
    daxlib::unique_hfile pipe;
    const ULONGLONG deadline = statusapi::DeadlineAfter(kLimitMs);
    while (!pipe && statusapi::Remaining(deadline) > 0)
    {
        pipe.reset(::CreateFileW(daxlib::kStandinControlPipe, GENERIC_READ | FILE_WRITE_DATA, 0, nullptr,
                                 OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr));
        if (!pipe)
            ::WaitNamedPipeW(daxlib::kStandinControlPipe, 100);
    }
    if (!pipe || statusapi::WriteAll(pipe.get(), std::vector<uint8_t>(command.begin(), command.end()),
                                     deadline) != statusapi::IoOutcome::Ok)
        return false;
    char reply[256];
    statusapi::CPipeOperation read;
    DWORD bytes = 0;
    DWORD error = 0;
    return read.Start(pipe.get(), false, reply, sizeof(reply)) &&
           ::WaitForSingleObject(read.Event(), statusapi::Remaining(deadline)) == WAIT_OBJECT_0 &&
           read.Complete(pipe.get(), bytes, error) && bytes >= 2 && reply[0] == 'o' && reply[1] == 'k';
}

// Subscribers of session 1, each read on a thread of its own that stamps every notification.
class Subscribers
{
public:
    explicit Subscribers(int count) : m_stop(::CreateEventW(nullptr, TRUE, FALSE, nullptr)), m_broken(count)
    {
        for (int i = 0; i < count; ++i)
        {
            auto client = std::make_unique<CStatusClient>();
            client->SetInterrupt(m_stop.get());
            statusapi::Answer first;
            if (client->Connect(kLimitMs) != Status::Ok ||
                client->Ask(statusapi::kSubscribe, statusapi::kOwnSession, first, kLimitMs) != Status::Ok)
                return;
            m_clients.push_back(std::move(client));
        }
        for (int i = 0; i < count; ++i)
            m_readers.emplace_back([this, i] { Read(i); });
    }
    ~Subscribers()
    {
        ::SetEvent(m_stop.get());
        for (auto& reader : m_readers)
            reader.join();
        for (auto& client : m_clients)
            client->Goodbye();
    }
    Subscribers(const Subscribers&) = delete;
    Subscribers& operator=(const Subscribers&) = delete;

    bool Complete() const { return m_clients.size() == m_broken.size(); }
    long long Reconnections() const { return m_reconnections.load(); }
    std::vector<std::vector<long long>> Broken()
    {
        std::lock_guard lock(m_mutex);
        return m_broken;
    }

private:
    void Read(int index)
    {
        statusapi::Notification notification;
        while (m_clients[static_cast<size_t>(index)]->NextNotification(notification, INFINITE) == Status::Ok)
        {
            const long long seen = Now();
            if (notification.entry.record.dwState == eCvUrlApiEvent_RdpConnectionBroken)
            {
                std::lock_guard lock(m_mutex);
                m_broken[static_cast<size_t>(index)].push_back(seen);
            }
            else if (notification.entry.record.dwState == eCvUrlApiEvent_RdpConnected)
            {
                ++m_reconnections;
            }
        }
    }

    daxlib::unique_handle m_stop;
    std::vector<std::unique_ptr<CStatusClient>> m_clients;
    std::vector<std::thread> m_readers;
    std::mutex m_mutex;
    std::vector<std::vector<long long>> m_broken; // per subscriber, the receipt of each break
    std::atomic<long long> m_reconnections{0};
};

// Change-to-receipt latencies of `changes` breaks seen by `count` subscribers; empty on failure.
std::vector<long long> ChangeLatencies(int count, int changes)
{
    Subscribers subscribers(count);
    if (!subscribers.Complete())
        return {};
    std::vector<long long> sent;
    for (int k = 0; k < changes; ++k)
    {
        sent.push_back(Now());
        if (!Control("break 1") ||
            !e2e::WaitUntil([&]
                            { return subscribers.Reconnections() >= static_cast<long long>(k + 1) * count; },
                            30s, 1ms))
            return {};
    }
    std::vector<long long> latencies;
    for (const auto& receipts : subscribers.Broken())
    {
        if (receipts.size() != sent.size())
            return {};
        for (size_t k = 0; k < sent.size(); ++k)
            latencies.push_back(receipts[k] - sent[k]);
    }
    return latencies;
}

void PrintRound(const char* label, const Round& round)
{
    std::printf("%-28s %10.0f %10.1fus %10.1fus%s\n", label, round.urlsPerSecond,
                Percentile(round.answers, 0.5), Percentile(round.answers, 0.99),
                round.failures ? "  (some URLs not answered 0)" : "");
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    int changes = 200;
    int urls = 3000;
    if (!ParseNumberOptions(argc, argv, {{L"--changes", &changes}, {L"--urls", &urls}}) || changes < 1 ||
        urls < 8)
        return std::fprintf(stderr, "usage: status_bench [--changes N] [--urls N]\n"), 64;
    // Wine puts every client in session 1: room for 64 subscribers there.
    ProductValues values({{L"MaxStatusConnectionsPerSession", 100}});
    e2e::ServiceRun run(e2e::ServiceOptions{});
    if (!values.Ok() || !run.SetupError().empty())
        return std::fprintf(stderr, "setup failed\n"), 1;
    const DWORD pid = StartAndWarmUp(run, u"https://bench.example/warm-up");
    if (!pid)
        return 1;

    std::printf("status change to receipt (%d breaks of session 1):\n%12s %12s %12s %12s\n", changes,
                "subscribers", "receipts", "p50", "p99");
    for (int count : {1, 64})
    {
        const std::vector<long long> latencies = ChangeLatencies(count, changes);
        if (latencies.empty())
            return std::fprintf(stderr, "the changes did not reach every subscriber\n"), 1;
        std::printf("%12d %12zu %10.1fus %10.1fus\n", count, latencies.size(), Percentile(latencies, 0.5),
                    Percentile(latencies, 0.99));
    }

    std::printf("\nagent path, 8 agents, %d URLs a round:\n%-28s %10s %12s %12s\n", urls, "", "URLs/s",
                "answer p50", "answer p99");
    double rate[2] = {0, 0};
    double p50[2] = {0, 0};
    for (int pass = 0; pass < 2; ++pass)
    {
        for (int with = 0; with < 2; ++with)
        {
            std::unique_ptr<Subscribers> attached = with ? std::make_unique<Subscribers>(64) : nullptr;
            if (attached && !attached->Complete())
                return std::fprintf(stderr, "64 subscribers could not attach\n"), 1;
            const ProcessFigures figures = MeasureProcess(pid);
            const Round round = RunAgents(8, urls);
            rate[with] += round.urlsPerSecond / 2;
            p50[with] += Percentile(round.answers, 0.5) / 2;
            const std::string label = std::string(with ? "with 64 subscribers" : "without subscribers") +
                                      " (" + std::to_string(figures.threads) + " thr)";
            PrintRound(label.c_str(), round);
        }
    }
    std::printf("with 64 subscribers: URLs/s %+.1f%%, answer p50 %+.1f%% (the bound: 5%% slower)\n",
                100 * (rate[1] / rate[0] - 1), 100 * (p50[1] / p50[0] - 1));
    run.Stop();
    return 0;
}
