// URLs per second and the agent's answer time through a service that is already running with the
// RDP transport (bench/e2e/rdp_bench.sh sets it up: the forwarding wtsapi32.dll, the test RDP
// host and a FreeRDP client with the add-in), with 1 and 8 concurrent agents.
//   rdp_bench [URLs per measurement, default 2000]
// The answer comes once the service has written the URL to the session's channel, so it holds
// the forwarded channel write (loopback TCP to the test host, then FreeRDP) but not the client's
// opener.
#include "bench/common/AgentRounds.h"

#include <cstdio>

int wmain(int argc, wchar_t** argv)
{
    using namespace bench;
    using namespace e2e;
    using namespace std::chrono_literals;
    const int urls = argc > 1 ? std::max(64, _wtoi(argv[1])) : 2000;
    {
        AgentPipe probe;
        if (!probe.Connect(30s) ||
            !WaitUntil([&] { return probe.OpenUrl(u"https://bench.example/warm-up") == 0u; }, 60s, 200ms))
            return std::fprintf(stderr, "the service does not reach the client side\n"), 1;
    }
    std::printf("%7s %10s %12s %12s\n", "agents", "URLs/s", "answer p50", "answer p99");
    for (int agents : {1, 8})
    {
        const Round round = RunAgents(agents, urls);
        std::printf("%7d %10.0f %10.1fus %10.1fus%s\n", agents, round.urlsPerSecond,
                    Percentile(round.answers, 0.5), Percentile(round.answers, 0.99),
                    round.failures ? "  (some URLs answered 1)" : "");
    }
    return 0;
}
