// Agents against the running service and the stand-in's client side: the bytes that reach the
// client side, the answers, the channel ids, the protocol's corner cases, and what happens while
// the client side is absent or its session opens again.
#include "tests/e2e/E2eTestSupport.h"

#include "pipeserver/AgentProtocol.h"
#include "tests/common/TestSupport.h"

#include <algorithm>
#include <array>
#include <cwchar>
#include <string>
#include <vector>

using namespace std::chrono_literals;
using namespace e2e;

namespace
{
const std::wstring kConnected = L"client connected: h = 0x";
const std::wstring kDisconnected = L"client disconnected: h = 0x";

// One run at log level 3 with the default scenario (session 1, an accepting client side). The
// administrator's policy cases come last: they change what the run allows.
class AgentE2e : public SharedServiceRun<AgentE2e>
{
public:
    static ServiceOptions Options() { return ServiceOptions().LogLevel(3); }

protected:
    // The URLs the client side of session 1 received since the case began.
    std::vector<std::string> NewUrls() const
    {
        const auto all = ReceivedUrls(1);
        return {all.begin() + static_cast<std::ptrdiff_t>(std::min(m_urlsBefore, all.size())), all.end()};
    }

    const size_t m_urlsBefore = ReceivedUrls(1).size();
};

// The channel ids of the disconnects logged after the first `skip`, in the log's order.
std::vector<long long> DisconnectedIds(const std::wstring& log, size_t skip)
{
    std::vector<long long> ids;
    for (size_t at = log.find(kDisconnected); at != std::wstring::npos; at = log.find(kDisconnected, at + 1))
        if (skip > 0)
            --skip;
        else
            ids.push_back(std::wcstoll(log.c_str() + log.find(L"ch: <", at) + 5, nullptr, 10));
    return ids;
}
} // namespace

TEST_F(AgentE2e, UrlsOfEveryShapeReachTheClientSideInOrder)
{
    AgentPipe agent;
    ASSERT_TRUE(agent.Connect());
    ASSERT_TRUE(agent.Handshake(0xA1B2C3D4u, 0x1122334455667788ull));
    std::vector<std::u16string> urls = {u"http://a.b/", u"https://\u4F8B.jp/\U0001F600",
                                        u"https://example.com/path?q=1&r=%20#frag"};
    urls.push_back(u"https://example.com/long/" + std::u16string(6000, u'x'));
    for (int i = 0; i < 20; ++i)
        urls.push_back(u"https://example.com/seq/" + std::u16string(1, static_cast<char16_t>(u'a' + i)));
    const unsigned submitsBefore = SessionStats(1)["submits"];
    std::vector<std::string> expected;
    std::string lines;
    for (const auto& url : urls)
    {
        EXPECT_EQ(std::optional<uint32_t>(0), agent.OpenUrl(url)) << ToUtf8(url).substr(0, 60);
        expected.push_back(ToUtf8(url));
        lines += expected.back() + "\n";
    }
    EXPECT_EQ(expected, NewUrls());
    auto stats = SessionStats(1);
    EXPECT_EQ(expected.size(), stats["submits"] - submitsBefore);
    EXPECT_EQ(0u, stats["malformed"]);
    const std::string sink = testsupport::ReadFileBytes(kSinkFile);
    EXPECT_EQ(lines, sink.substr(sink.size() - std::min(sink.size(), lines.size())));
}

// Closed one at a time, opposite to the order of the connects, so that the log's order is that
// of the disconnects: each id must stay with its own connection.
TEST_F(AgentE2e, EachConnectionKeepsItsOwnChannelId)
{
    const size_t before = CountOf(ReadLog(), kConnected);
    ASSERT_EQ(before, CountOf(WaitForLog(kDisconnected, 10s, before), kDisconnected))
        << "earlier agents linger";
    std::array<AgentPipe, 3> agents;
    for (auto& agent : agents)
        ASSERT_TRUE(agent.Connect() && agent.Handshake());
    for (size_t i = agents.size(); i-- > 0;)
    {
        agents[i].Close();
        WaitForLog(kDisconnected, 10s, before + agents.size() - i);
    }
    const std::vector<long long> ids = DisconnectedIds(ReadLog(), before);
    ASSERT_EQ(3u, ids.size());
    EXPECT_EQ((std::vector<long long>{ids[2] + 2, ids[2] + 1, ids[2]}), ids);
}

// The reference agent hands its URL over only once it has seen that the pipe's server is the
// service's own process.
TEST_F(AgentE2e, ReferenceAgentHandsItsUrlToTheServicesOwnPipe)
{
    const auto agentRun = testsupport::RunProcess(L"\"" + testsupport::BuildPath(VELOMAR_OPEN_EXE) +
                                                  L"\" --no-fallback https://example.com/by-velomar-open");
    EXPECT_EQ(0u, agentRun.exitCode) << agentRun.err;
    EXPECT_EQ(std::vector<std::string>{"https://example.com/by-velomar-open"}, NewUrls());
}

// The administrator's policy is watched: each change applies to the next URL, without a restart.
TEST_F(AgentE2e, AdministratorsSchemesApplyToTheNextUrl)
{
    AgentPipe agent;
    ASSERT_TRUE(agent.Connect());
    ASSERT_TRUE(SetPolicyStrings(L"AllowedSchemes", {L"HTTPS", L"ms-settings:"}));
    WaitForLog(L"schemes <https ms-settings>", 10s);
    EXPECT_EQ(std::optional<uint32_t>(0), agent.OpenUrl(u"ms-settings:display"));
    EXPECT_EQ(std::optional<uint32_t>(2), agent.OpenUrl(u"http://plain.example/"));
    EXPECT_EQ(std::vector<std::string>{"ms-settings:display"}, NewUrls());
}

// A broken value is ignored, with one warning however often the key is read again after it,
// and the rest of the key still applies.
TEST_F(AgentE2e, BrokenPolicyValueIsIgnoredWithOneWarning)
{
    AgentPipe agent;
    ASSERT_TRUE(agent.Connect());
    ASSERT_TRUE(SetPolicyValue(L"Enabled", REG_SZ, L"0", sizeof(L"0")));
    WaitForLog(L"value \"Enabled\" ignored: not a REG_DWORD", 10s);
    ASSERT_TRUE(SetPolicyStrings(L"ExceptionHosts", {L"*.blocked.example"}));
    EXPECT_EQ(1u, CountOf(WaitForLog(L"1 exception(s)", 10s), L"value \"Enabled\" ignored"));
    EXPECT_EQ(std::optional<uint32_t>(0), agent.OpenUrl(u"https://fine.example/"));
    EXPECT_EQ(std::optional<uint32_t>(2), agent.OpenUrl(u"https://x.Blocked.example./"));
    EXPECT_EQ(std::vector<std::string>{"https://fine.example/"}, NewUrls());
}

namespace
{
// Without a client side the service answers 1 and keeps trying. The cases follow the client
// side through its states.
class AgentE2eClientSide : public SharedServiceRun<AgentE2eClientSide>
{
public:
    static ServiceOptions Options()
    {
        return ServiceOptions().Scenario("peer 1 absent\nopen 1 auto 1 E2E desk\n");
    }

protected:
    void SetUp() override
    {
        SharedServiceRun::SetUp();
        ASSERT_TRUE(m_agent.Connect() && m_agent.Handshake());
    }

    AgentPipe m_agent;
};
} // namespace

TEST_F(AgentE2eClientSide, AbsentAnswersOneAndThoseUrlsNeverArrive)
{
    EXPECT_EQ(std::optional<uint32_t>(1), m_agent.OpenUrl(u"https://example.com/absent"));
    ASSERT_EQ(0, Skeinctl("peer 1 accept").exitCode);
    int refused = 0;
    const bool flowing = WaitUntil(
        [&]
        {
            const auto result = m_agent.OpenUrl(u"https://example.com/after-absent");
            refused += result == std::optional<uint32_t>(1);
            return result == std::optional<uint32_t>(0);
        },
        15s, 200ms);
    ASSERT_TRUE(flowing) << "the service never reconnected to the client side";
    EXPECT_EQ(std::vector<std::string>{"https://example.com/after-absent"}, ReceivedUrls(1))
        << "answered 1 " << refused << " times; none of those may arrive";
}

// A session closed and opened again carries URLs as soon as its new channel is up.
TEST_F(AgentE2eClientSide, ReopenedSessionCarriesUrlsAtOnce)
{
    ASSERT_EQ(0, Skeinctl("close 1").exitCode);
    ASSERT_EQ(0, Skeinctl("peer 1 accept").exitCode);
    ASSERT_EQ(0, Skeinctl("open 1 auto 1 E2E desk").exitCode);
    ASSERT_TRUE(
        WaitUntil([&] { return m_agent.OpenUrl(u"https://example.com/reopened") == 0u; }, 15s, 200ms));
    const auto urls = ReceivedUrls(1);
    ASSERT_FALSE(urls.empty());
    EXPECT_EQ("https://example.com/reopened", urls.back());
    EXPECT_EQ(0u, SessionStats(1)["malformed"]);
}
