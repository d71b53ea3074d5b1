// Memory the service holds while many agents trickle a large URL: each connection announces an
// open-URL payload of 1 MiB and then sends one payload byte per second. Prints the service's
// private bytes, handles and threads every 10 s, and at the end the peak private bytes, the cost
// per connection above the idle service, and how many connections the service accepted (a pipe
// has at most 255 instances, and the service may refuse connections of its own accord).
//   trickle_bench [--connections N (500)] [--seconds S (60)] [--threads T (4)]
//
// A few threads serve all connections, each writing one byte to each of its connections per
// second with a bounded overlapped write: every thread costs about 1 MB under Wine, which would
// drown the figure measured here.
#include "bench/common/ServiceFigures.h"
#include "tests/e2e/E2eHarness.h"

#include "pipeserver/AgentProtocol.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cwchar>
#include <string>
#include <thread>
#include <vector>

namespace
{

using namespace e2e;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kAnnounced = 1024 * 1024;

struct Options
{
    int connections = 500;
    int seconds = 60;
    int threads = 4;
};

bool ParseOptions(int argc, wchar_t** argv, Options& options)
{
    return bench::ParseNumberOptions(argc, argv,
                                     {{L"--connections", &options.connections},
                                      {L"--seconds", &options.seconds},
                                      {L"--threads", &options.threads}}) &&
           options.connections > 0 && options.seconds > 0 && options.threads > 0;
}

struct Connection
{
    AgentPipe pipe;
    bool open = false;
};

void PrintFigures(const char* when, double seconds, long long open, const bench::ProcessFigures& f)
{
    std::printf("%-10s %7.0fs %6lld %12lld %8lld %8lld\n", when, seconds, open, f.privateBytes / 1024,
                f.handles, f.threads);
    std::fflush(stdout);
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    Options options;
    if (!ParseOptions(argc, argv, options))
        return std::fprintf(stderr, "usage: trickle_bench [--connections N] [--seconds S] [--threads T]\n"),
               2;

    ServiceRun run(ServiceOptions{}); // the stand-in's default: session 1 with an accepting client side
    // Caps on agent connections well above what this program opens, so that they refuse none.
    bench::ProductValues caps({{L"MaxAgentConnectionsPerSession", 1000}, {L"MaxAgentConnections", 2000}});
    if (!run.SetupError().empty() || !caps.Ok())
        return std::fwprintf(stderr, L"setup failed: %ls\n", run.SetupError().c_str()), 1;
    const DWORD pid = bench::StartAndWarmUp(run, u"https://trickle.example/warm-up");
    if (!pid)
        return 1;
    ::Sleep(3000); // let the pools settle after the first agent
    const bench::ProcessFigures idle = bench::MeasureProcess(pid);
    std::printf("%-10s %8s %6s %12s %8s %8s\n", "", "elapsed", "open", "private KiB", "handles", "threads");
    PrintFigures("idle", 0, 0, idle);

    // Open the connections, each announcing its payload at once. Once the pipe's instances are
    // exhausted every further open waits in vain; three in a row end the attempt.
    std::vector<Connection> connections(static_cast<size_t>(options.connections));
    long long opened = 0, refused = 0, failedInARow = 0;
    const auto connectStart = Clock::now();
    for (auto& c : connections)
    {
        if (failedInARow >= 3)
            break;
        if (!c.pipe.Connect(3s))
        {
            ++failedInARow;
            continue;
        }
        failedInARow = 0;
        ++opened;
        const auto header = agentpipe::EncodeHeader({agentpipe::kTypeOpenUrl, kAnnounced});
        c.open = c.pipe.Write(header.data(), header.size(), 2s);
        refused += c.open ? 0 : 1;
    }
    const double connectSeconds = std::chrono::duration<double>(Clock::now() - connectStart).count();
    std::printf("opened %lld of %d connections in %.1f s (%lld could not write their header)\n", opened,
                options.connections, connectSeconds, refused);

    // Trickle: one byte per open connection per second.
    std::atomic<bool> stop{false};
    std::atomic<long long> open{opened - refused}, closedByService{0}, stalledWrites{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < options.threads; ++t)
        threads.emplace_back(
            [&, t]
            {
                const uint8_t byte = 0x61;
                for (auto tick = Clock::now(); !stop; tick += 1s)
                {
                    for (size_t i = static_cast<size_t>(t); i < connections.size() && !stop;
                         i += options.threads)
                    {
                        Connection& c = connections[i];
                        if (!c.open || c.pipe.Write(&byte, 1, 200ms))
                            continue;
                        if (c.pipe.ClosedByPeer(10ms))
                            c.open = false, --open, ++closedByService;
                        else
                            ++stalledWrites;
                    }
                    std::this_thread::sleep_until(tick + 1s);
                }
            });

    const auto start = Clock::now();
    long long peak = idle.privateBytes;
    for (int second = 1; second <= options.seconds; ++second)
    {
        std::this_thread::sleep_until(start + std::chrono::seconds(second));
        if (second % 10 == 0 || second == options.seconds)
        {
            const bench::ProcessFigures f = bench::MeasureProcess(pid);
            peak = std::max(peak, f.privateBytes);
            PrintFigures("trickling", second, open.load(), f);
        }
        else
            peak = std::max(peak, bench::PrivateBytes(pid));
    }
    stop = true;
    for (auto& thread : threads)
        thread.join();
    const long long stillOpen = open.load();

    for (auto& c : connections)
        c.pipe.Close();
    // What the service gives back once the clients are gone.
    const auto hungUp = Clock::now();
    bench::ProcessFigures after;
    long long peakAfter = 0;
    for (int second : {5, 15, 30})
    {
        std::this_thread::sleep_until(hungUp + std::chrono::seconds(second));
        after = bench::MeasureProcess(pid);
        peakAfter = std::max(peakAfter, after.privateBytes);
        PrintFigures("hung up", options.seconds + second, 0, after);
    }

    const bool alive = run.Query().dwCurrentState == SERVICE_RUNNING && run.ProcessId() == pid;
    const long long accepted = opened - refused;
    std::printf(
        "\nconnections: asked %d, opened %lld, accepted %lld, open at the end %lld, closed by the service "
        "%lld, writes that stalled %lld\n",
        options.connections, opened, accepted, stillOpen, closedByService.load(), stalledWrites.load());
    std::printf(
        "private bytes: idle %lld KiB, peak while trickling %lld KiB, %.1f KiB per accepted connection "
        "above idle; after the clients hung up up to %lld KiB, 30 s later %lld KiB\n",
        idle.privateBytes / 1024, peak / 1024,
        accepted > 0 ? static_cast<double>(peak - idle.privateBytes) / 1024.0 / static_cast<double>(accepted)
                     : 0.0,
        peakAfter / 1024, after.privateBytes / 1024);
    std::printf("the service %s\n", alive ? "is still running" : "is NOT running any more");
    run.Stop();
    return alive ? 0 : 1;
}
