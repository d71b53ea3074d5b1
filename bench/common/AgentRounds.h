#pragma once
// The clock of the end-to-end benchmarks and one round of agents sending URLs through the running
// service, shared by e2e_bench and status_bench.
#include "tests/e2e/E2eHarness.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace bench
{

// QueryPerformanceCounter ticks.
inline long long Now()
{
    LARGE_INTEGER value;
    ::QueryPerformanceCounter(&value);
    return value.QuadPart;
}

inline double Micros(long long ticks)
{
    static const double ticksPerMicrosecond = []
    {
        LARGE_INTEGER frequency;
        ::QueryPerformanceFrequency(&frequency);
        return static_cast<double>(frequency.QuadPart) / 1e6;
    }();
    return static_cast<double>(ticks) / ticksPerMicrosecond;
}

// In microseconds.
inline double Percentile(std::vector<long long> values, double p)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    const size_t at =
        std::min(values.size() - 1, static_cast<size_t>(p * static_cast<double>(values.size())));
    return Micros(values[at]);
}

struct Round
{
    double urlsPerSecond = 0;
    std::vector<long long> answers; // write to answer, per URL
    size_t failures = 0;
};

// `agents` connections share `totalUrls`, all started together; each URL carries its write time
// ("?t=" and the ticks) for a receipt watcher.
inline Round RunAgents(int agents, int totalUrls)
{
    using namespace std::chrono_literals;
    Round round;
    std::mutex mutex;
    std::atomic<int> ready{0};
    std::atomic<bool> go{false};
    const int perAgent = std::max(1, totalUrls / agents);
    std::vector<std::thread> threads;
    for (int a = 0; a < agents; ++a)
        threads.emplace_back(
            [&, a]
            {
                e2e::AgentPipe agent;
                const bool connected = agent.Connect(30s) && agent.Handshake();
                ++ready;
                while (!go)
                    ::Sleep(0);
                std::vector<long long> answers;
                size_t failures = connected ? 0 : static_cast<size_t>(perAgent);
                for (int i = 0; connected && i < perAgent; ++i)
                {
                    const long long written = Now();
                    const std::string url = "https://bench.example/" + std::to_string(a) + "/" +
                                            std::to_string(i) + "?t=" + std::to_string(written);
                    const auto answer = agent.OpenUrl(std::u16string(url.begin(), url.end()), 30s);
                    answers.push_back(Now() - written);
                    failures += answer == 0u ? 0 : 1;
                }
                std::lock_guard lock(mutex);
                round.answers.insert(round.answers.end(), answers.begin(), answers.end());
                round.failures += failures;
            });
    e2e::WaitUntil([&] { return ready.load() == agents; }, 60s, 5ms);
    const long long start = Now();
    go = true;
    for (auto& thread : threads)
        thread.join();
    const double seconds = Micros(Now() - start) / 1e6;
    round.urlsPerSecond = static_cast<double>(round.answers.size()) / seconds;
    return round;
}

} // namespace bench
