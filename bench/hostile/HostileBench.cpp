// What agents that write and never read cost the service: N connections write handshakes as
// fast as the service takes them and never read an answer; a connection the service closes is
// opened again at once. Beside them, in the same session, one well-behaved agent sends a URL
// every 250 ms and must have its answer within a second. Prints the service's private bytes
// and threads every 5 s, then, after the hostile agents have left, how soon they come back.
// With --reading 1 the same agents read every answer (a handshake round trip each time): the
// cost of the same connections and traffic from agents that behave.
//   hostile_bench [--connections N (64)] [--seconds S (60)] [--threads T (4)] [--reading 0|1]
#include "bench/common/ServiceFigures.h"
#include "tests/e2e/E2eHarness.h"

#include "pipeserver/AgentProtocol.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

namespace
{

using namespace e2e;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

struct Options
{
    int connections = 64;
    int seconds = 60;
    int threads = 4;
    int reading = 0;
};

struct Hostile
{
    AgentPipe pipe;
    bool open = false;
};

struct Counts
{
    std::atomic<long long> written{0};   // handshakes the service took
    std::atomic<long long> throttled{0}; // writes the service did not take within 100 ms
    std::atomic<long long> closed{0};    // connections the service closed
    std::atomic<long long> answered{0};  // the good agent's URLs answered within a second
    std::atomic<long long> late{0};      // ... answered later, or not at all
};

void PrintFigures(const char* when, double seconds, const Counts& c, const bench::ProcessFigures& f)
{
    std::printf("%-9s %6.0fs %12lld %8lld %10lld %10lld %8lld %9lld %6lld\n", when, seconds,
                f.privateBytes / 1024, f.threads, c.written.load(), c.throttled.load(), c.closed.load(),
                c.answered.load(), c.late.load());
    std::fflush(stdout);
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    Options options;
    if (!bench::ParseNumberOptions(argc, argv,
                                   {{L"--connections", &options.connections},
                                    {L"--seconds", &options.seconds},
                                    {L"--threads", &options.threads},
                                    {L"--reading", &options.reading}}) ||
        options.connections <= 0 || options.seconds <= 0 || options.threads <= 0)
        return std::fprintf(stderr, "usage: hostile_bench [--connections N] [--seconds S] [--threads T] "
                                    "[--reading 0|1]\n"),
               2;

    ServiceRun run(ServiceOptions{});
    // Room for the hostile agents and the good one in the one session Wine reports.
    bench::ProductValues caps({{L"MaxAgentConnectionsPerSession", 1000}, {L"MaxAgentConnections", 2000}});
    if (!run.SetupError().empty() || !caps.Ok())
        return std::fwprintf(stderr, L"setup failed: %ls\n", run.SetupError().c_str()), 1;
    const DWORD pid = bench::StartAndWarmUp(run, u"https://hostile.example/warm-up");
    if (!pid)
        return 1;
    ::Sleep(3000);
    const bench::ProcessFigures idle = bench::MeasureProcess(pid);
    Counts counts;
    std::printf("%-9s %7s %12s %8s %10s %10s %8s %9s %6s\n", "", "elapsed", "private KiB", "threads",
                "written", "throttled", "closed", "answered", "late");
    PrintFigures("idle", 0, counts, idle);

    std::atomic<bool> stop{false};
    std::vector<Hostile> hostiles(static_cast<size_t>(options.connections));
    std::vector<std::thread> threads;
    const auto handshake = agentpipe::EncodeHandshake({1, 2});
    for (int t = 0; t < options.threads; ++t)
        threads.emplace_back(
            [&, t]
            {
                while (!stop)
                    for (size_t i = static_cast<size_t>(t); i < hostiles.size() && !stop;
                         i += static_cast<size_t>(options.threads))
                    {
                        Hostile& h = hostiles[i];
                        if (!h.open && !(h.open = h.pipe.Connect(1s)))
                            continue;
                        if (options.reading ? h.pipe.Handshake()
                                            : h.pipe.Write(handshake.data(), handshake.size(), 100ms))
                            ++counts.written;
                        else if (h.pipe.ClosedUnread(0ms))
                            h.open = false, h.pipe.Close(), ++counts.closed;
                        else
                            ++counts.throttled;
                    }
            });
    threads.emplace_back(
        [&]
        {
            AgentPipe good;
            bool connected = false;
            for (auto tick = Clock::now(); !stop; tick += 250ms)
            {
                if (!connected)
                    connected = good.Connect(1s);
                const auto sent = Clock::now();
                const auto result = connected ? good.OpenUrl(u"https://good.example/", 5s) : std::nullopt;
                const bool inTime = result == agentpipe::kResultSent && Clock::now() - sent <= 1s;
                ++(inTime ? counts.answered : counts.late);
                if (!result)
                    good.Close(), connected = false;
                std::this_thread::sleep_until(std::max(tick + 250ms, Clock::now()));
            }
        });

    const auto start = Clock::now();
    long long peak = idle.privateBytes;
    for (int second = 1; second <= options.seconds; ++second)
    {
        std::this_thread::sleep_until(start + std::chrono::seconds(second));
        if (second % 5 == 0 || second == options.seconds)
        {
            const bench::ProcessFigures f = bench::MeasureProcess(pid);
            peak = std::max(peak, f.privateBytes);
            PrintFigures("hostile", second, counts, f);
        }
        else
            peak = std::max(peak, bench::PrivateBytes(pid));
    }
    stop = true;
    for (auto& thread : threads)
        thread.join();
    for (auto& h : hostiles)
        h.pipe.Close();

    const auto left = Clock::now();
    bench::ProcessFigures after;
    for (int second : {5, 10, 15})
    {
        std::this_thread::sleep_until(left + std::chrono::seconds(second));
        after = bench::MeasureProcess(pid);
        PrintFigures("left", options.seconds + second, counts, after);
    }

    const bool alive = run.Query().dwCurrentState == SERVICE_RUNNING && run.ProcessId() == pid;
    const long long growth = peak - idle.privateBytes;
    std::printf(
        "\nprivate bytes: idle %lld KiB, peak %lld KiB (+%lld KiB), 15 s after the hostile agents left "
        "%lld KiB (%+lld KiB); threads idle %lld, after %lld\n",
        idle.privateBytes / 1024, peak / 1024, growth / 1024, after.privateBytes / 1024,
        (after.privateBytes - idle.privateBytes) / 1024, idle.threads, after.threads);
    std::printf("hostile connections closed by the service %lld, writes throttled %lld; good agent answered "
                "within a second %lld, late or not at all %lld\n",
                counts.closed.load(), counts.throttled.load(), counts.answered.load(), counts.late.load());
    std::printf("the service %s\n", alive ? "is still running" : "is NOT running any more");
    run.Stop();
    return alive ? 0 : 1;
}
