// Agents against the running service and the stand-in's client side: the bytes that reach the
// client side, the answers, the channel ids, the protocol's corner cases, and what happens while
// the client side is absent or refuses the channel.
#include "tests/e2e/E2eTestSupport.h"

#include "pipeserver/AgentProtocol.h"
#include "tests/common/TestSupport.h"

#include <algorithm>
#include <array>
#include <string>
#include <vector>

using namespace std::chrono_literals;
using namespace e2e;

// One service run at log level 3 carries the cases that need a fresh channel-id counter, and the
// URL policy: the default one, then the administrator's, changed while the service runs.
TEST(AgentE2e, UrlsReachTheClientSideExactlyInOrderOnChannelsOneTwoThreeAsThePolicyAllows)
{
    ServiceRun run(ServiceOptions().LogLevel(3));
    StartRunning(run);

    // Channel 1: the handshake and URLs of every shape, each its own submit, in order.
    AgentPipe first;
    ASSERT_TRUE(first.Connect());
    ASSERT_TRUE(first.Handshake(0xA1B2C3D4u, 0x1122334455667788ull));

    std::vector<std::u16string> urls = {u"http://a.b/", u"https://\u4F8B.jp/\U0001F600",
                                        u"https://example.com/path?q=1&r=%20#frag"};
    urls.push_back(u"https://example.com/long/" + std::u16string(6000, u'x'));
    for (int i = 0; i < 20; ++i)
        urls.push_back(u"https://example.com/seq/" + std::u16string(1, static_cast<char16_t>(u'a' + i)));
    std::vector<std::string> expected;
    for (const auto& url : urls)
    {
        EXPECT_EQ(std::optional<uint32_t>(0), first.OpenUrl(url)) << ToUtf8(url).substr(0, 60);
        expected.push_back(ToUtf8(url));
    }
    // The default policy refuses every scheme but http, https and mailto: answer 2, nothing on
    // the channel, and a warning that names the scheme and the rule but not the rest.
    for (const char16_t* refused : {u"file://\\\\attacker\\share\\x.exe", u"ms-msdt:/id PCWDiagnostic /param s3cret"})
        EXPECT_EQ(std::optional<uint32_t>(2), first.OpenUrl(refused)) << ToUtf8(refused);
    EXPECT_EQ(std::optional<uint32_t>(0), first.OpenUrl(u"  MAILTO:a@b.example "));
    expected.push_back("MAILTO:a@b.example");

    // Channel 2: a header of another type with length 0 is consumed without an answer, and a
    // payload without NUL ends the URL at the payload's end; the reserved word is not read.
    AgentPipe second;
    ASSERT_TRUE(second.Connect());
    for (uint8_t type : {2, 9})
        ASSERT_TRUE(second.Write(std::vector<uint8_t>{type, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_TRUE(second.NothingArrives(300ms));
    auto noNul = agentpipe::EncodeOpenUrl(u"https://example.com/no-nul");
    noNul.resize(noNul.size() - 2);
    agentpipe::StoreU32(noNul.data() + 4, static_cast<uint32_t>(noNul.size() - 8));
    agentpipe::StoreU32(noNul.data() + 8, 0xFFFFFFFFu);
    ASSERT_TRUE(second.Write(noNul));
    std::array<uint8_t, 12> urlAnswer{};
    ASSERT_TRUE(second.ReadExact(urlAnswer.data(), urlAnswer.size()));
    EXPECT_EQ(agentpipe::EncodeOpenUrlAnswer(agentpipe::kResultSent), urlAnswer) << "the first answer is the URL's";
    expected.push_back("https://example.com/no-nul");
    // Channel 3: connects, says nothing, goes.
    AgentPipe third;
    ASSERT_TRUE(third.Connect());

    EXPECT_EQ(expected, ReceivedUrls(1));
    const auto stats = SessionStats(1);
    EXPECT_EQ(expected.size(), stats.at("submits"));
    EXPECT_EQ(0u, stats.at("malformed"));
    EXPECT_EQ(0u, stats.at("other"));
    std::string lines;
    for (const auto& url : expected)
        lines += url + "\n";
    EXPECT_EQ(lines, testing_support::ReadFileBytes(kSinkFile));

    // One at a time, so that the log's order is the order of the disconnects: the opposite of
    // the connects, so each id must stay with its own connection.
    std::wstring log;
    size_t closed = 0;
    for (AgentPipe* agent : {&third, &second, &first})
    {
        agent->Close();
        log = WaitForLog(L"CPipeServer::OnDisconnectedChannel", 10s, ++closed);
    }
    EXPECT_EQ(3u, CountOf(log, L"client connected: h = 0x"));
    const std::vector<size_t> at = {log.find(L"ch: <3>"), log.find(L"ch: <2>"), log.find(L"ch: <1>")};
    EXPECT_TRUE(std::is_sorted(at.begin(), at.end()) && at.back() != std::wstring::npos);
    EXPECT_EQ(std::wstring::npos, log.find(L"ch: <0>"));
    EXPECT_EQ(std::wstring::npos, log.find(L"ch: <4>"));
    EXPECT_EQ(1u, CountOf(log, L"scheme <ms-msdt>, host <>, rule: scheme not in AllowedSchemes"));
    EXPECT_EQ(1u, CountOf(log, L"scheme <file>, host <attacker>, rule: scheme not in AllowedSchemes"));
    EXPECT_EQ(std::wstring::npos, log.find(L"s3cret"));

    // The administrator's policy is watched: each change applies to the next URL, no restart.
    AgentPipe fourth;
    ASSERT_TRUE(fourth.Connect());
    ASSERT_TRUE(SetPolicyStrings(L"AllowedSchemes", {L"HTTPS", L"ms-settings:"}));
    WaitForLog(L"schemes <https ms-settings>", 10s);
    EXPECT_EQ(std::optional<uint32_t>(0), fourth.OpenUrl(u"ms-settings:display"));
    EXPECT_EQ(std::optional<uint32_t>(2), fourth.OpenUrl(u"http://plain.example/"));
    // A broken value is ignored, with one warning however often the key is read again after it.
    ASSERT_TRUE(SetPolicyValue(L"Enabled", REG_SZ, L"0", sizeof(L"0")));
    WaitForLog(L"value \"Enabled\" ignored: not a REG_DWORD", 10s);
    ASSERT_TRUE(SetPolicyStrings(L"ExceptionHosts", {L"*.blocked.example"}));
    WaitForLog(L"1 exception(s)", 10s);
    EXPECT_EQ(std::optional<uint32_t>(0), fourth.OpenUrl(u"https://fine.example/"));
    EXPECT_EQ(std::optional<uint32_t>(2), fourth.OpenUrl(u"https://x.Blocked.example./"));
    const DWORD off = 0;
    ASSERT_TRUE(SetPolicyValue(L"Enabled", REG_DWORD, &off, sizeof(off)));
    WaitForLog(L"redirection off", 10s);
    EXPECT_EQ(std::optional<uint32_t>(2), fourth.OpenUrl(u"https://fine.example/again"));
    log = ReadLog();
    EXPECT_EQ(1u, CountOf(log, L"value \"Enabled\" ignored"));
    expected.push_back("ms-settings:display");
    expected.push_back("https://fine.example/");
    EXPECT_EQ(expected, ReceivedUrls(1));
}

// Clients that leave around the moment the service takes them up, some before it has made
// their handler, leave nothing behind, and the agents after them are served. Which of them hit
// that moment cannot be forced from outside; the test holds each for a different short while.
TEST(AgentE2e, ClientsThatVanishAroundTheirConnectAreIgnored)
{
    ServiceRun run(ServiceOptions().LogLevel(3));
    StartRunning(run);

    constexpr int kVanishing = 60;
    for (int i = 0; i < kVanishing; ++i)
    {
        AgentPipe gone;
        ASSERT_TRUE(gone.Connect());
        ::Sleep(static_cast<DWORD>(i % 4)); // not for correctness: spreads the moments of leaving
    }
    AgentPipe agent;
    ASSERT_TRUE(agent.Connect());
    EXPECT_EQ(std::optional<uint32_t>(0), agent.OpenUrl(u"https://example.com/after-the-vanished"));
    const std::wstring log = WaitForLog(L"CPipeServer::OnDisconnectedChannel", 10s,
                                        CountOf(ReadLog(), L"client connected: h = 0x") - 1);
    agent.Close();

    // Every connection the service saw is also seen to go, whether or not it got a handler.
    const std::wstring after =
        WaitForLog(L"CPipeServer::OnDisconnectedChannel", 10s, CountOf(log, L"client connected: h = 0x"));
    const size_t connected = CountOf(after, L"client connected: h = 0x");
    EXPECT_EQ(connected, CountOf(after, L"CPipeServer::OnDisconnectedChannel"));
    EXPECT_EQ(std::vector<std::string>{"https://example.com/after-the-vanished"}, ReceivedUrls(1));
    AgentPipe late;
    ASSERT_TRUE(late.Connect());
    EXPECT_EQ(std::optional<uint32_t>(0), late.OpenUrl(u"https://example.com/later"));
}

// Without a client side the service answers 1 and keeps trying; the URLs answered 1 never arrive,
// the ones after the client side appears do. A refused handshake is final until the session
// opens again.
TEST(AgentE2e, AbsentOrRefusingClientSideAnswersOneUntilAChannelIsUp)
{
    ServiceRun run(ServiceOptions().Scenario("peer 1 absent\nopen 1 auto 1 E2E desk\n"));
    StartRunning(run);

    AgentPipe agent;
    ASSERT_TRUE(agent.Connect());
    ASSERT_TRUE(agent.Handshake());
    EXPECT_EQ(std::optional<uint32_t>(1), agent.OpenUrl(u"https://example.com/absent"));

    ASSERT_EQ(0, Skeinctl("peer 1 accept").exitCode);
    int refused = 0;
    const bool flowing = WaitUntil(
        [&] {
            const auto result = agent.OpenUrl(u"https://example.com/after-absent");
            refused += result == std::optional<uint32_t>(1);
            return result == std::optional<uint32_t>(0);
        },
        15s, 200ms);
    ASSERT_TRUE(flowing) << "the service never reconnected to the client side";
    EXPECT_EQ(std::vector<std::string>{"https://example.com/after-absent"}, ReceivedUrls(1))
        << "answered 1 " << refused << " times; none of those may arrive";

    // The client side now refuses the version; the next connection fails its handshake.
    ASSERT_EQ(0, Skeinctl("peer 1 refuse-version").exitCode);
    const unsigned attemptsBefore = SessionStats(1)["attempts"];
    ASSERT_EQ(0, Skeinctl("break 1").exitCode);
    ASSERT_TRUE(WaitUntil([&] { return SessionStats(1)["attempts"] > attemptsBefore; }, 15s, 200ms));
    EXPECT_EQ(std::optional<uint32_t>(1), agent.OpenUrl(u"https://example.com/refused"));
    // Final for the session: it stays refused, however long one waits.
    EXPECT_FALSE(WaitUntil([&] { return SessionStats(1)["attempts"] > attemptsBefore + 1; }, 4s, 500ms));
    EXPECT_EQ(std::optional<uint32_t>(1), agent.OpenUrl(u"https://example.com/still-refused"));

    // The session opens again with an accepting client side: URLs flow at once.
    ASSERT_EQ(0, Skeinctl("close 1").exitCode);
    ASSERT_EQ(0, Skeinctl("peer 1 accept").exitCode);
    ASSERT_EQ(0, Skeinctl("open 1 auto 1 E2E desk").exitCode);
    ASSERT_TRUE(WaitUntil([&] { return agent.OpenUrl(u"https://example.com/reopened") == 0u; }, 15s, 200ms));
    const auto urls = ReceivedUrls(1);
    ASSERT_FALSE(urls.empty());
    EXPECT_EQ("https://example.com/reopened", urls.back());
    EXPECT_EQ(0u, SessionStats(1)["malformed"]);

    // The reference agent hands its URL over only once it has seen that the pipe's server is the
    // service's own process.
    const auto agentRun = testing_support::RunProcess(L"\"" + testing_support::BuildPath(VELOMAR_OPEN_EXE) +
                                                      L"\" --no-fallback https://example.com/by-velomar-open");
    EXPECT_EQ(0u, agentRun.exitCode) << agentRun.err;
    EXPECT_EQ("https://example.com/by-velomar-open", ReceivedUrls(1).back());
}
