// Hostile clients on the agent pipe while well-behaved agents work: the agents keep getting
// right answers, every URL they were told was sent reaches the client side exactly once, and
// once the hostile clients have gone the service holds no more handles or threads than before.
#include "tests/e2e/E2eTestSupport.h"

#include "pipeserver/AgentProtocol.h"
#include "tests/common/TestSupport.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using namespace e2e;

namespace
{

struct Results
{
    std::mutex mutex;
    std::vector<std::string> sent; // answered 0
    std::vector<std::string> failures;

    void Add(std::vector<std::string>& to, const std::string& what)
    {
        std::lock_guard lock(mutex);
        to.push_back(what);
    }
    void Failed(const std::string& what) { Add(failures, what); }
};

std::u16string Widen(const std::string& text)
{
    return std::u16string(text.begin(), text.end());
}

// A well-behaved agent: one connection, a handshake, then URLs until told to stop (at least
// `minimum`, at most kMaxUrlsPerAgent of them, paced so that the storm is met all along); each
// must be answered 0. A trickling one, slow but correct, writes every byte on its own.
constexpr int kMaxUrlsPerAgent = 250; // the client side's URL list must fit one control reply
void Agent(int id, int minimum, const std::atomic<bool>& enough, Results& results, bool trickle = false)
{
    AgentPipe agent(trickle);
    if (!agent.Connect(30s) || !agent.Handshake(static_cast<uint32_t>(id), 0))
        return results.Failed("agent " + std::to_string(id) + " could not connect and shake hands");
    for (int i = 0; (i < minimum || !enough.load()) && i < kMaxUrlsPerAgent; ++i)
    {
        const std::string url = "https://e.x/" + std::to_string(id) + "/" + std::to_string(i);
        const auto answer = agent.OpenUrl(Widen(url), 30s);
        if (answer != 0u)
            return results.Failed(url + (answer ? " answered " + std::to_string(*answer) : " not answered"));
        results.Add(results.sent, url);
        ::Sleep(5);
    }
}

// Headers that are never answered: an unknown type with random bytes, then a length that is
// never sent in full or is over the service's limit.
void Garbage(int round, Results& results)
{
    std::mt19937 random(static_cast<unsigned>(round));
    AgentPipe client;
    if (!client.Connect(30s))
        return results.Failed("garbage client could not connect");
    std::vector<uint8_t> bytes(8 + 24 + 8);
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8_t>(random()); });
    agentpipe::StoreU32(bytes.data(), 2 + random() % 0xFFFFFF00u); // never a handshake or a URL
    agentpipe::StoreU32(bytes.data() + 4, 24);
    agentpipe::StoreU32(bytes.data() + 32, 0x41414141u);
    client.Write(bytes);
    if (!client.NothingArrives(20ms))
        results.Failed("garbage was answered");
}

// A payload length far beyond what follows, then away; over 1 MiB the service hangs up first.
void Oversized(int round, Results& results)
{
    const bool overLimit = round % 2 == 0;
    AgentPipe client;
    if (!client.Connect(30s))
        return results.Failed("oversized client could not connect");
    std::vector<uint8_t> bytes(8 + 100, 0x61);
    agentpipe::StoreU32(bytes.data(), agentpipe::kTypeOpenUrl);
    agentpipe::StoreU32(bytes.data() + 4, overLimit ? 0x7FFFFFF0u : 1024u * 1024u);
    client.Write(bytes);
    if (overLimit && !client.ClosedByPeer(10s))
        results.Failed("a payload over 1 MiB did not close the connection");
}

const std::atomic<bool> kAlwaysEnough{true};

// Runs the agents and the hostile clients together; the agents go on until every hostile kind
// has had its rounds: twelve of each single-client kind and two floods of `floodSize`
// connections held at once and dropped together.
void Storm(int firstAgent, int agents, int urlsPerAgent, int floodSize, Results& results)
{
    std::atomic<bool> enough{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < agents; ++i)
        threads.emplace_back([&, i] { Agent(firstAgent + i, urlsPerAgent, enough, results); });

    const std::vector<std::pair<int, std::function<void(int, Results&)>>> hostile = {
        {12, [](int round, Results& r) { Agent(1000 + round, 1, kAlwaysEnough, r, true); }},
        {12, Garbage},
        {12, Oversized},
        {12, [](int, Results&) { AgentPipe().Connect(30s); }},
        {2,
         [floodSize](int, Results& r)
         {
             std::vector<AgentPipe> clients(static_cast<size_t>(floodSize));
             if (!std::all_of(clients.begin(), clients.end(), [](AgentPipe& c) { return c.Connect(30s); }))
                 r.Failed("flood could not connect");
         }},
    };
    std::atomic<size_t> kindsDone{0};
    for (const auto& [rounds, kind] : hostile)
        threads.emplace_back(
            [&, rounds = rounds, kind = kind]
            {
                for (int round = 0; round < rounds; ++round)
                    kind(firstAgent + round, results);
                ++kindsDone;
            });
    WaitUntil([&] { return kindsDone.load() == hostile.size(); }, 60s, 20ms);
    enough = true;
    for (auto& thread : threads)
        thread.join();
}

} // namespace

TEST(HostileE2e, AgentsKeepTheirAnswersAndUrlsAndTheServiceGivesEverythingBack)
{
    // Storm and good agents all share Wine's one session: the session's bound is the total one.
    ServiceRun run(ServiceOptions().AgentsPerSession(1024));
    StartRunning(run);
    const DWORD pid = run.ProcessId();

    // The baseline: the service with its channel up and one agent served.
    {
        AgentPipe first;
        ASSERT_TRUE(first.Connect());
        ASSERT_TRUE(WaitUntil([&] { return first.OpenUrl(u"https://e.x/first") == 0u; }, 15s, 100ms));
    }
    std::set<std::string> known = {"https://e.x/first"};
    ProcessCounts baseline{};
    ASSERT_TRUE(WaitUntil([&] { return (baseline = MeasureCounts(pid)).handles > 0; }, 5s));

    // Warm-up: the same storm, smaller, so that the storm proper meets grown pools and buffers.
    Results warmUp;
    Storm(100, 2, 5, 100, warmUp);
    ASSERT_TRUE(warmUp.failures.empty()) << warmUp.failures.front();
    const ProcessCounts warm = MeasureCounts(pid);

    Results results;
    Storm(0, 4, 30, 200, results);
    for (const auto& failure : results.failures)
        ADD_FAILURE() << failure;

    // Every URL an agent was told was sent arrived exactly once; nothing else arrived.
    std::map<std::string, int> times;
    for (const auto& url : ReceivedUrls(1))
        ++times[url];
    known.insert(warmUp.sent.begin(), warmUp.sent.end());
    known.insert(results.sent.begin(), results.sent.end());
    std::vector<std::string> wrong;
    for (const auto& url : known)
        if (times[url] != 1)
            wrong.push_back(url + " received " + std::to_string(times[url]) + " times");
    for (const auto& [url, count] : times)
        if (!known.count(url))
            wrong.push_back(url + " received but never sent");
    EXPECT_TRUE(wrong.empty()) << wrong.size() << " wrong, first: " << wrong.front();
    EXPECT_GE(results.sent.size(), 4u * 30u);
    EXPECT_EQ(0u, SessionStats(1)["malformed"]);

    // Handles and threads return to the baseline (with a little slack for the pools' idle threads).
    ProcessCounts now{};
    const bool back = BackToBaseline(pid, baseline, {24, 6}, now);
    std::printf("service handles %lld, after warm-up %lld, at the end %lld; threads %lld, %lld, %lld\n",
                baseline.handles, warm.handles, now.handles, baseline.threads, warm.threads, now.threads);
    EXPECT_TRUE(back);

    // And the service still answers a newcomer.
    AgentPipe late;
    ASSERT_TRUE(late.Connect());
    EXPECT_EQ(std::optional<uint32_t>(0), late.OpenUrl(u"https://example.com/after-the-storm"));
}
