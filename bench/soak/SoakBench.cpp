// A long run of the real service under the service control manager with what it meets on a busy
// host, all at once: well-behaved agents sending URLs in a loop, hostile pipe clients beside them,
// remote sessions opening, closing and breaking, and a log small enough to rotate. Every report
// interval it prints one line of figures; at the end it checks that no URL was lost or duplicated
// and that handles, threads and private bytes stayed flat after the first minute, prints PASS or
// FAIL, and exits with 0 or 1.
//   soak_bench [--minutes N (10)] [--report-seconds S (30)] [--agents A (4)] [--pause-ms P (10)]
//              [--churn-ms C (2000)] [--seed X (1)]
//
// Where URLs go: the service sends a URL to the session the pipe reports for the agent, and under
// Wine that is session 1 for every client. Session 1 therefore stays open with an accepting client
// side for the whole run and carries every agent's URLs; sessions 2 to 5 are opened, closed and
// broken with assorted client sides, which works the service's session handlers beside the
// traffic. So every URL answered 0 must reach session 1's client side exactly once, no URL
// answered 1 may arrive there, and the churned sessions must receive nothing.
//
// Flatness: a figure is flat when the least-squares slope of its samples (one every 5 s) after the
// first minute stays under its tolerance below. A leak of one handle or thread per churned session,
// or of a few dozen bytes per URL, exceeds them; the churn itself moves handles and threads by a
// few either way, which a fit over nine minutes flattens far below them. Private bytes also move
// with every thread that comes and goes (each connected session has two, and under Wine a thread
// commits its whole stack, some megabytes), so their trend is fitted beside the thread count and is
// the part that count does not explain; the thread count's own trend is checked on its own. A
// short run fits fewer samples over less time, so its slopes are noisier.
#include "bench/common/ServiceFigures.h"
#include "tests/e2e/E2eHarness.h"

#include "pipeserver/AgentProtocol.h"

#include <windows.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <iterator>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace
{

using namespace e2e;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr double kHandleSlopeTolerance = 3.0;             // handles per minute
constexpr double kThreadSlopeTolerance = 1.0;             // threads per minute
constexpr double kPrivateSlopeTolerance = 512.0 * 1024.0; // bytes per minute
constexpr auto kSampleInterval = 5s;
constexpr uint32_t kAgentSession = 1;
constexpr uint32_t kFirstChurned = 2;
constexpr uint32_t kLastChurned = 5;

struct Options
{
    int minutes = 10;
    int reportSeconds = 30;
    int agents = 4;
    int pauseMs = 10;
    int churnMs = 2000;
    int seed = 1;
};

bool ParseOptions(int argc, wchar_t** argv, Options& options)
{
    return bench::ParseNumberOptions(argc, argv,
                                     {{L"--minutes", &options.minutes},
                                      {L"--report-seconds", &options.reportSeconds},
                                      {L"--agents", &options.agents},
                                      {L"--pause-ms", &options.pauseMs},
                                      {L"--churn-ms", &options.churnMs},
                                      {L"--seed", &options.seed}}) &&
           options.minutes > 0 && options.reportSeconds > 0 && options.agents > 0 && options.pauseMs >= 0 &&
           options.churnMs > 0;
}

std::u16string Widen(const std::string& text)
{
    return std::u16string(text.begin(), text.end());
}

// skeinctl, one call at a time: concurrent process starts would hand each other's inheritable
// output files to their children.
CtlResult Ctl(const std::string& words)
{
    static std::mutex mutex;
    std::lock_guard lock(mutex);
    return Skeinctl(words);
}

// What the agents were told, by URL.
class Ledger
{
public:
    enum Answer
    {
        Sent,
        NotSent,
        Other,
        None,
        Kinds
    };

    void Record(const std::string& url, std::optional<uint32_t> answer)
    {
        const Answer kind = !answer                                ? None
                            : *answer == agentpipe::kResultSent    ? Sent
                            : *answer == agentpipe::kResultNotSent ? NotSent
                                                                   : Other;
        std::lock_guard lock(m_mutex);
        m_answers[url] = kind;
        ++m_tally[kind];
    }
    std::vector<long long> Tally() const
    {
        std::lock_guard lock(m_mutex);
        return std::vector<long long>(std::begin(m_tally), std::end(m_tally));
    }
    std::unordered_map<std::string, Answer> Answers() const
    {
        std::lock_guard lock(m_mutex);
        return m_answers;
    }

private:
    mutable std::mutex m_mutex;
    std::unordered_map<std::string, Answer> m_answers;
    long long m_tally[Kinds] = {};
};

// Follows the client side's sink file and counts each line it holds.
class SinkReader
{
public:
    SinkReader()
        : m_file(::CreateFileW(kSinkFile, GENERIC_READ,
                               FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS,
                               FILE_ATTRIBUTE_NORMAL, nullptr))
    {
    }
    bool Valid() const { return m_file.valid(); }
    // Reads what was appended since the last call; the number of lines seen so far.
    long long Poll()
    {
        char chunk[65536];
        DWORD got = 0;
        while (m_file && ::ReadFile(m_file.get(), chunk, sizeof(chunk), &got, nullptr) && got > 0)
        {
            m_pending.append(chunk, got);
            size_t start = 0;
            for (size_t end = m_pending.find('\n'); end != std::string::npos;
                 end = m_pending.find('\n', start))
            {
                ++m_times[m_pending.substr(start, end - start)];
                ++m_lines;
                start = end + 1;
            }
            m_pending.erase(0, start);
        }
        return m_lines;
    }
    const std::unordered_map<std::string, int>& Times() const { return m_times; }

private:
    daxlib::unique_hfile m_file;
    std::string m_pending;
    std::unordered_map<std::string, int> m_times;
    long long m_lines = 0;
};

struct Shared
{
    Options options;
    std::atomic<bool> stop{false};
    Ledger ledger;
    std::atomic<long long> agentConnections{0};
    std::atomic<long long> connectFailures{0};
    std::atomic<long long> hostileRounds{0};
    std::atomic<long long> opens{0}, closes{0}, breaks{0};
    std::mutex mutex;
    std::vector<std::string> anomalies; // what the service did that it should not have

    void Anomaly(const std::string& what)
    {
        std::lock_guard lock(mutex);
        anomalies.push_back(what);
    }
};

// A well-behaved agent: connects, shakes hands and sends a batch of unique URLs, then hangs up
// and starts again, so that connections come and go as well.
void GoodAgent(int id, Shared& shared)
{
    std::mt19937 random(static_cast<unsigned>(shared.options.seed) * 7919u + static_cast<unsigned>(id));
    long long next = 0;
    while (!shared.stop)
    {
        AgentPipe agent;
        if (!agent.Connect(30s) || !agent.Handshake(static_cast<uint32_t>(id), static_cast<uint64_t>(next)))
        {
            ++shared.connectFailures;
            ::Sleep(100);
            continue;
        }
        ++shared.agentConnections;
        for (int left = 20 + static_cast<int>(random() % 200); left > 0 && !shared.stop; --left)
        {
            const std::string url =
                "https://soak.example/a" + std::to_string(id) + "/" + std::to_string(next++);
            const auto answer = agent.OpenUrl(Widen(url), 30s);
            shared.ledger.Record(url, answer);
            if (!answer)
                break; // the connection's state is unknown: start a new one
            ::Sleep(static_cast<DWORD>(shared.options.pauseMs));
        }
    }
}

// One round of a hostile client of the given kind.
void Hostile(int kind, int round, std::mt19937& random, Shared& shared)
{
    AgentPipe client;
    if (!client.Connect(30s))
    {
        ++shared.connectFailures;
        return;
    }
    const std::string tag = "hostile " + std::to_string(kind) + "/" + std::to_string(round) + ": ";
    switch (kind)
    {
    case 0: // garbage: random bytes behind a type that is neither a handshake nor a URL
    {
        std::vector<uint8_t> bytes(8 + random() % 120);
        std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8_t>(random()); });
        agentpipe::StoreU32(bytes.data(), 2 + random() % 0xFFFFFF00u);
        client.Write(bytes);
        if (!client.NothingArrives(50ms))
            shared.Anomaly(tag + "garbage was answered");
        break;
    }
    case 1: // a header announcing more than 1 MiB
    {
        std::vector<uint8_t> bytes(8 + 64, 0x61);
        agentpipe::StoreU32(bytes.data(), random() % 2);
        agentpipe::StoreU32(bytes.data() + 4, 1024u * 1024u + 1u + random() % 0x7FF00000u);
        client.Write(bytes);
        if (!client.ClosedByPeer(10s))
            shared.Anomaly(tag + "a payload over 1 MiB did not close the connection");
        break;
    }
    case 2: // a payload announced and never finished, held open a while
    {
        std::vector<uint8_t> bytes(8 + 100, 0x62);
        agentpipe::StoreU32(bytes.data(), agentpipe::kTypeOpenUrl);
        agentpipe::StoreU32(bytes.data() + 4, 4096u + random() % 100000u);
        client.Write(bytes);
        if (!client.NothingArrives(std::chrono::milliseconds(1000 + random() % 3000)))
            shared.Anomaly(tag + "an unfinished payload was answered");
        break;
    }
    case 3: // gone in the middle of a header or of a URL
    {
        std::vector<uint8_t> bytes = agentpipe::EncodeOpenUrl(u"https://soak.example/vanished");
        bytes.resize(1 + random() % (bytes.size() - 1));
        client.Write(bytes);
        break;
    }
    case 4: // handshakes, written until the service stops taking them, and no answer ever read
    {
        const std::vector<uint8_t> handshake = agentpipe::EncodeHandshake({1, 2});
        for (int i = 0; i < 20000 && client.Write(handshake.data(), handshake.size(), 100ms); ++i)
        {
        }
        if (!client.ClosedUnread(10s))
            shared.Anomaly(tag + "an agent that never reads was not closed");
        break;
    }
    default: // a correct agent that writes one byte at a time with pauses; its URL counts
    {
        const std::string url = "https://soak.example/t/" + std::to_string(round);
        const std::vector<uint8_t> bytes = agentpipe::EncodeOpenUrl(Widen(url));
        bool written = true;
        for (size_t i = 0; i < bytes.size() && written; ++i)
        {
            written = client.Write(&bytes[i], 1);
            ::Sleep(5 + random() % 20);
        }
        uint8_t answer[12];
        const bool answered = written && client.ReadExact(answer, sizeof(answer), 30s) &&
                              agentpipe::LoadU32(answer) == agentpipe::kTypeOpenUrl &&
                              agentpipe::LoadU32(answer + 4) == 4;
        shared.ledger.Record(url, answered ? std::optional<uint32_t>(agentpipe::LoadU32(answer + 8))
                                           : std::nullopt);
        break;
    }
    }
    ++shared.hostileRounds;
}

void HostileClients(int id, Shared& shared)
{
    std::mt19937 random(static_cast<unsigned>(shared.options.seed) * 104729u + static_cast<unsigned>(id));
    for (int round = id; !shared.stop; round += 2)
    {
        Hostile(static_cast<int>(random() % 6), round, random, shared);
        ::Sleep(20);
    }
}

// Opens, closes and breaks sessions 2 to 5 on a steady cadence; each opening gets a client side
// of its own kind.
void SessionChurn(Shared& shared)
{
    static const char* const peers[] = {
        "",
        "refuse-version",
        "refuse-options",
        "mute",
        "silent",
        "absent",
        "invalid-address",
        "options=8",
        "break-after=1",
        "send=0700000064000000aabb close-after-send",
    };
    std::mt19937 random(static_cast<unsigned>(shared.options.seed) * 15485863u);
    bool open[kLastChurned + 1] = {};
    const auto check = [&](const std::string& words)
    {
        if (Ctl(words).exitCode != 0)
            shared.Anomaly("skeinctl " + words + " failed");
    };
    while (!shared.stop)
    {
        const uint32_t id = kFirstChurned + random() % (kLastChurned - kFirstChurned + 1);
        const std::string text = std::to_string(id);
        if (!open[id])
        {
            check("peer " + text + " accept " + peers[random() % std::size(peers)]);
            check("open " + text + " auto 1 Churn " + text);
            ++shared.opens;
            open[id] = true;
        }
        else if (random() % 3 == 0)
        {
            check("close " + text);
            ++shared.closes;
            open[id] = false;
        }
        else
        {
            check("break " + text);
            ++shared.breaks;
        }
        for (int slept = 0; slept < shared.options.churnMs && !shared.stop; slept += 50)
            ::Sleep(50);
    }
}

struct Sample
{
    double minutes = 0;
    bench::ProcessFigures figures;
};

using Figure = long long bench::ProcessFigures::*;

struct Trend
{
    double perMinute = 0;
    double perBeside = 0; // how much one unit of the second variable adds, when there is one
};

// Least-squares trend per minute of one figure over the samples from `fromMinute` on. With
// `beside`, the fit takes that figure as a second variable, and the trend is what it leaves.
Trend Fit(const std::vector<Sample>& samples, double fromMinute, Figure figure, Figure beside = nullptr)
{
    std::vector<std::array<double, 3>> points; // minutes, beside, figure
    for (const auto& s : samples)
        if (s.minutes >= fromMinute && s.figures.*figure >= 0 && (!beside || s.figures.*beside >= 0))
            points.push_back({s.minutes, beside ? static_cast<double>(s.figures.*beside) : 0.0,
                              static_cast<double>(s.figures.*figure)});
    if (points.size() < 3)
        return {};
    double mean[3] = {};
    for (const auto& p : points)
        for (int i = 0; i < 3; ++i)
            mean[i] += p[i] / static_cast<double>(points.size());
    double stt = 0, szz = 0, stz = 0, sty = 0, szy = 0;
    for (const auto& p : points)
    {
        const double t = p[0] - mean[0], z = p[1] - mean[1], y = p[2] - mean[2];
        stt += t * t, szz += z * z, stz += t * z, sty += t * y, szy += z * y;
    }
    const double determinant = stt * szz - stz * stz;
    if (szz <= 0 || determinant <= 1e-9 * stt * szz)
        return {stt > 0 ? sty / stt : 0.0, 0.0};
    return {(szz * sty - stz * szy) / determinant, (stt * szy - stz * sty) / determinant};
}

size_t RotatedLogFiles()
{
    WIN32_FIND_DATAW found{};
    size_t count = 0;
    const HANDLE search =
        ::FindFirstFileW(L"C:\\ProgramData\\Corvane\\Velomar (Server)\\velomard(*).txt", &found);
    if (search == INVALID_HANDLE_VALUE)
        return 0;
    do
        ++count;
    while (::FindNextFileW(search, &found));
    ::FindClose(search);
    return count;
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    Shared shared;
    if (!ParseOptions(argc, argv, shared.options))
        return std::fprintf(stderr, "usage: soak_bench [--minutes N] [--report-seconds S] [--agents A] "
                                    "[--pause-ms P] [--churn-ms C] [--seed X]\n"),
               2;
    const Options& options = shared.options;

    ServiceRun run(ServiceOptions{}.LogLevel(3).Scenario("open 1 auto 1 Soak desk\nsink 1 default\n"));
    // Debug records for every URL, in files of 1 MiB of which three are kept: the log rotates
    // every few thousand URLs.
    bench::ProductValues logValues({{L"RotationLogFileSizeMB", 1}, {L"RotationLogFileNumber", 3}});
    if (!run.SetupError().empty() || !logValues.Ok())
        return std::fwprintf(stderr, L"setup failed: %ls\n", run.SetupError().c_str()), 1;
    const DWORD pid = bench::StartAndWarmUp(run, u"https://soak.example/warm-up");
    if (!pid)
        return 1;
    shared.ledger.Record("https://soak.example/warm-up", 0u);
    SinkReader sink;
    if (!sink.Valid())
        return std::fprintf(stderr, "cannot read the sink file\n"), 1;

    std::printf(
        "soak: %d min, %d agents (pause %d ms), 2 hostile clients, sessions %u-%u churned every %d ms, "
        "service pid %lu\n",
        options.minutes, options.agents, options.pauseMs, kFirstChurned, kLastChurned, options.churnMs,
        static_cast<unsigned long>(pid));
    std::printf("%7s %9s %9s %22s %8s %7s %8s %8s %8s %12s\n", "elapsed", "sent", "received",
                "answers 0/1/other/none", "hostile", "churn", "handles", "threads", "private",
                "rotated logs");

    std::vector<std::thread> threads;
    for (int i = 0; i < options.agents; ++i)
        threads.emplace_back([&, i] { GoodAgent(i, shared); });
    for (int i = 0; i < 2; ++i)
        threads.emplace_back([&, i] { HostileClients(i, shared); });
    threads.emplace_back([&] { SessionChurn(shared); });

    std::vector<Sample> samples;
    const auto start = Clock::now();
    const auto end = start + std::chrono::minutes(options.minutes);
    auto nextReport = start + std::chrono::seconds(options.reportSeconds);
    bool serviceAlive = true;
    for (auto nextSample = start + kSampleInterval; serviceAlive; nextSample += kSampleInterval)
    {
        std::this_thread::sleep_until(std::min(nextSample, end));
        const auto now = Clock::now();
        // The client side records everything it receives in the service's process; only the sink
        // file needs it, so the record is dropped before each sample.
        Ctl("forget " + std::to_string(kAgentSession));
        const SERVICE_STATUS_PROCESS status = run.Query();
        serviceAlive = status.dwCurrentState == SERVICE_RUNNING && status.dwProcessId == pid;
        const double minutes = std::chrono::duration<double, std::ratio<60>>(now - start).count();
        samples.push_back({minutes, bench::MeasureProcess(pid)});
        const long long received = sink.Poll();
        if (now >= nextReport || now >= end || !serviceAlive)
        {
            for (uint32_t id = kFirstChurned; id <= kLastChurned; ++id)
                Ctl("forget " + std::to_string(id));
            const auto tally = shared.ledger.Tally();
            const auto& f = samples.back().figures;
            std::printf("%6.1fm %9lld %9lld %22s %8lld %7lld %8lld %8lld %7lldK %12zu\n", minutes,
                        tally[Ledger::Sent], received,
                        (std::to_string(tally[Ledger::Sent]) + "/" + std::to_string(tally[Ledger::NotSent]) +
                         "/" + std::to_string(tally[Ledger::Other]) + "/" +
                         std::to_string(tally[Ledger::None]))
                            .c_str(),
                        shared.hostileRounds.load(), shared.opens + shared.closes + shared.breaks, f.handles,
                        f.threads, f.privateBytes / 1024, RotatedLogFiles());
            std::fflush(stdout);
            nextReport += std::chrono::seconds(options.reportSeconds);
        }
        if (now >= end)
            break;
    }
    shared.stop = true;
    for (auto& thread : threads)
        thread.join();

    // URLs in flight when the agents stopped: wait until the client side has everything it was
    // promised, or nothing more comes for a while.
    const auto tally = shared.ledger.Tally();
    long long received = sink.Poll();
    for (auto quietSince = Clock::now(); received < tally[Ledger::Sent] && Clock::now() - quietSince < 15s;)
    {
        ::Sleep(200);
        if (const long long now = sink.Poll(); now != received)
            received = now, quietSince = Clock::now();
    }

    // Every URL answered 0 arrived exactly once, none answered 1 arrived, nothing unknown arrived.
    long long lost = 0, duplicated = 0, arrivedThoughRefused = 0, unknown = 0, unansweredArrived = 0;
    std::vector<std::string> examples;
    const auto note = [&](const std::string& what)
    {
        if (examples.size() < 5)
            examples.push_back(what);
    };
    const auto answers = shared.ledger.Answers();
    const auto& times = sink.Times();
    for (const auto& [url, answer] : answers)
    {
        const auto found = times.find(url);
        const int count = found == times.end() ? 0 : found->second;
        if (answer == Ledger::Sent && count == 0)
            ++lost, note("lost: " + url);
        else if (count > 1)
            ++duplicated, note("received " + std::to_string(count) + " times: " + url);
        else if (answer == Ledger::NotSent && count > 0)
            ++arrivedThoughRefused, note("answered 1 but received: " + url);
        else if (answer == Ledger::None && count > 0)
            ++unansweredArrived;
    }
    for (const auto& [url, count] : times)
        if (!answers.count(url))
            ++unknown, note("received but never sent: " + url);
    unsigned churnedSubmits = 0;
    for (uint32_t id = kFirstChurned; id <= kLastChurned; ++id)
        churnedSubmits += SessionStats(id)["submits"];
    const unsigned malformed = SessionStats(kAgentSession)["malformed"];

    const double handleSlope = Fit(samples, 1.0, &bench::ProcessFigures::handles).perMinute;
    const double threadSlope = Fit(samples, 1.0, &bench::ProcessFigures::threads).perMinute;
    const double rawPrivateSlope = Fit(samples, 1.0, &bench::ProcessFigures::privateBytes).perMinute;
    const Trend privateTrend =
        Fit(samples, 1.0, &bench::ProcessFigures::privateBytes, &bench::ProcessFigures::threads);
    const double privateSlope = privateTrend.perMinute;
    const bool enoughSamples =
        std::count_if(samples.begin(), samples.end(), [](const Sample& s) { return s.minutes >= 1.0; }) >= 3;

    std::printf("\nURLs answered 0 %lld, 1 %lld, other %lld, unanswered %lld (of which %lld arrived); "
                "received %lld\n",
                tally[Ledger::Sent], tally[Ledger::NotSent], tally[Ledger::Other], tally[Ledger::None],
                unansweredArrived, received);
    std::printf(
        "agent connections %lld, connect failures %lld, hostile rounds %lld; sessions opened %lld, closed "
        "%lld, broken %lld; rotated log files %zu\n",
        shared.agentConnections.load(), shared.connectFailures.load(), shared.hostileRounds.load(),
        shared.opens.load(), shared.closes.load(), shared.breaks.load(), RotatedLogFiles());
    for (const auto& example : examples)
        std::printf("  %s\n", example.c_str());
    for (size_t i = 0; i < shared.anomalies.size() && i < 5; ++i)
        std::printf("  %s\n", shared.anomalies[i].c_str());
    std::printf(
        "slopes after minute 1: handles %+.2f/min (tolerance %.1f), threads %+.2f/min (tolerance %.1f), "
        "private bytes %+.1f KiB/min beside the thread count (tolerance %.0f; %+.1f KiB/min alone, %.0f KiB "
        "per "
        "thread)\n",
        handleSlope, kHandleSlopeTolerance, threadSlope, kThreadSlopeTolerance, privateSlope / 1024,
        kPrivateSlopeTolerance / 1024, rawPrivateSlope / 1024, privateTrend.perBeside / 1024);

    struct Criterion
    {
        const char* name;
        bool met;
    };
    const Criterion criteria[] = {
        {"the service ran throughout", serviceAlive},
        {"no URL lost", lost == 0},
        {"no URL duplicated", duplicated == 0},
        {"no URL answered 1 arrived", arrivedThoughRefused == 0},
        {"nothing arrived that was never sent", unknown == 0},
        {"every URL was answered 0 or 1", tally[Ledger::Other] == 0 && tally[Ledger::None] == 0},
        {"the churned sessions received no URL", churnedSubmits == 0},
        {"the client side saw no malformed message", malformed == 0},
        {"hostile clients were treated as documented", shared.anomalies.empty()},
        {"the log rotated", RotatedLogFiles() > 0},
        {"enough samples after minute 1 for the slopes", enoughSamples},
        {"handles flat", handleSlope <= kHandleSlopeTolerance},
        {"threads flat", threadSlope <= kThreadSlopeTolerance},
        {"private bytes flat", privateSlope <= kPrivateSlopeTolerance},
    };
    bool pass = true;
    for (const auto& [name, met] : criteria)
    {
        std::printf("  %-46s %s\n", name, met ? "yes" : "NO");
        pass = pass && met;
    }
    std::printf("%s\n", pass ? "PASS" : "FAIL");
    run.Stop();
    return pass ? 0 : 1;
}
