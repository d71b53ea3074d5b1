// The agent pipe server with real pipes and the real thread pool; URLs go to a recording sender
// in place of the channel server.
#include "common/UniqueHandle.h"
#include "pipe/ThreadPool.h"
#include "pipe/attributes.h"
#include "pipeserver/AgentProtocol.h"
#include "pipeserver/PipeServer.h"
#include "tests/common/CapturingLogger.h"
#include "tests/common/RawPipeClient.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

#include <aclapi.h>
#include <sddl.h>

#include <atomic>
#include <map>
#include <cstdint>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using testsupport::CapturingLogger;
using testsupport::Eventually;

namespace
{

// A raw agent. Reads wait (10 s at most) until all they want has come, so that a service that
// stays silent fails the test instead of hanging it.
class TestAgent
{
public:
    explicit TestAgent(const std::wstring& pipe) : m_pipe(testsupport::OpenClient(pipe)) {}
    bool Write(const std::vector<uint8_t>& bytes)
    {
        return testsupport::WriteAll(m_pipe.get(), bytes.data(), static_cast<DWORD>(bytes.size()));
    }
    std::optional<std::vector<uint8_t>> Read(size_t count)
    {
        std::vector<uint8_t> bytes(count);
        if (!Eventually([&] { return Available() >= count; }, 10s) ||
            !testsupport::ReadAll(m_pipe.get(), bytes.data(), static_cast<DWORD>(count)))
            return std::nullopt;
        return bytes;
    }
    // The service closed its end.
    bool Ended()
    {
        return Eventually([&] { return Available() == kEnded; }, 10s);
    }

    std::optional<uint32_t> OpenUrl(const std::u16string& url)
    {
        auto answer = Write(agentpipe::EncodeOpenUrl(url)) ? Read(12) : std::nullopt;
        if (!answer || agentpipe::LoadU32(answer->data()) != 1 || agentpipe::LoadU32(answer->data() + 4) != 4)
            return std::nullopt;
        return agentpipe::LoadU32(answer->data() + 8);
    }
    bool Handshake()
    {
        const auto expected = agentpipe::EncodeHandshakeAnswer();
        return Write(agentpipe::EncodeHandshake({42, 7})) &&
               Read(24) == std::vector<uint8_t>(expected.begin(), expected.end());
    }

private:
    static constexpr size_t kEnded = SIZE_MAX;
    size_t Available() const
    {
        DWORD bytes = 0;
        return ::PeekNamedPipe(m_pipe.get(), nullptr, 0, nullptr, &bytes, nullptr) ? bytes : kEnded;
    }

    daxlib::unique_hfile m_pipe;
};

std::vector<uint8_t> Header(uint32_t type, uint32_t length)
{
    const auto h = agentpipe::EncodeHeader({type, length});
    return {h.begin(), h.end()};
}

class AgentPipeServer : public ::testing::Test
{
protected:
    void SetUp() override
    {
        SetThreadPool(std::make_shared<CThreadPool>(64, m_logger));
        m_server = std::make_unique<CPipeServer>(m_logger, m_name);
        m_server->SetUrlSender(
            [this](uint32_t session, const std::wstring& url)
            {
                std::lock_guard lock(m_mutex);
                m_sent.push_back({session, url});
                return m_result.load();
            });
        ASSERT_EQ(1, m_server->Start());
    }
    void TearDown() override
    {
        m_server.reset();
        SetThreadPool(nullptr);
    }
    bool ConnectionsBecome(size_t count)
    {
        return Eventually([&] { return m_server->ConnectionCount() == count; }, 10s);
    }
    // What reached the sender: Wine reports session 1 for every pipe client.
    std::vector<std::pair<uint32_t, std::wstring>> Sent()
    {
        std::lock_guard lock(m_mutex);
        return m_sent;
    }

    std::shared_ptr<CapturingLogger> m_logger = std::make_shared<CapturingLogger>(4);
    std::wstring m_name = testsupport::UniqueName(L"velomar-agentpipe");
    std::wstring m_path = L"\\\\.\\pipe\\" + m_name;
    std::unique_ptr<CPipeServer> m_server;
    std::mutex m_mutex;
    std::vector<std::pair<uint32_t, std::wstring>> m_sent;
    std::atomic<int> m_result{1};
};

} // namespace

TEST_F(AgentPipeServer, AnswersHandshakesAndUrlsWithWhatTheSenderReports)
{
    TestAgent agent(m_path);
    ASSERT_TRUE(agent.Handshake());
    EXPECT_EQ(agentpipe::kResultSent, agent.OpenUrl(u" https://example.test/\u00e9\t"));
    m_result = 0;
    EXPECT_EQ(agentpipe::kResultNotSent, agent.OpenUrl(u"https://example.test/second"));
    EXPECT_TRUE(agent.Handshake()); // a second handshake is answered the same way
    // Trimmed, and with the pipe client's session: the URL carries none of its own.
    EXPECT_EQ((std::vector<std::pair<uint32_t, std::wstring>>{{1, L"https://example.test/\u00e9"},
                                                              {1, L"https://example.test/second"}}),
              Sent());
}

// Without a policy of its own the server applies the default one.
TEST_F(AgentPipeServer, RefusedUrlIsNeitherHandedOnNorLoggedBeyondItsSchemeAndHost)
{
    EXPECT_EQ(agentpipe::kResultRefused,
              TestAgent(m_path).OpenUrl(u"ms-msdt:/id PCWDiagnostic /param token=s3cret"));
    EXPECT_TRUE(m_logger->Contains(L"URL refused by the URL policy: scheme <ms-msdt>, host <>"));
    for (const auto& record : m_logger->Records())
        EXPECT_EQ(std::wstring::npos, record.text.find(L"s3cret"));
    EXPECT_TRUE(Sent().empty());
}

TEST_F(AgentPipeServer, OddMessagesAreConsumedInStepWithoutAnswers)
{
    TestAgent agent(m_path);
    std::vector<uint8_t> burst;
    for (const auto& part :
         std::vector<std::vector<uint8_t>>{Header(2, 0), // unknown type, empty
                                           Header(7, 5),
                                           {1, 2, 3, 4, 5}, // unknown type with a payload
                                           Header(agentpipe::kTypeHandshake, 0), // empty handshake
                                           Header(agentpipe::kTypeHandshake, 8),
                                           std::vector<uint8_t>(8, 0xAA),      // handshake of the wrong size
                                           Header(agentpipe::kTypeOpenUrl, 0), // empty URL message
                                           // A URL without its terminating NUL ends at the payload's end.
                                           Header(agentpipe::kTypeOpenUrl, 4 + 12),
                                           {0, 0, 0, 0, 'h', 0, 't', 0, 't', 0, 'p', 0, ':', 0, 'b', 0}})
        burst.insert(burst.end(), part.begin(), part.end());
    ASSERT_TRUE(agent.Write(burst));
    // The first answer is the URL's and the next one the handshake's: nothing else was answered.
    auto answer = agent.Read(12);
    ASSERT_TRUE(answer);
    EXPECT_EQ(agentpipe::kTypeOpenUrl, agentpipe::LoadU32(answer->data()));
    EXPECT_TRUE(agent.Handshake());
    EXPECT_EQ((std::vector<std::pair<uint32_t, std::wstring>>{{1, L"http:b"}}), Sent());
}

TEST_F(AgentPipeServer, ChannelIdsCountOnAndWrapWithOneErrorLine)
{
    CPipeServer::SetNextChannelIDForTest(0xFFFFFFFEull);
    for (int i = 0; i < 3; ++i)
    {
        ASSERT_TRUE(TestAgent(m_path).OpenUrl(u"https://a.test/")); // the handler exists once it answers
        ASSERT_TRUE(ConnectionsBecome(0));
    }
    EXPECT_TRUE(m_logger->WaitFor(L"ch: <0>", 5s));
    EXPECT_TRUE(m_logger->Contains(L"ch: <4294967294>"));
    EXPECT_TRUE(m_logger->Contains(L"ch: <4294967295>"));
    EXPECT_EQ(1u, m_logger->Count(L"Unique identifier counter overflow occurred"));
}

TEST_F(AgentPipeServer, OversizedPayloadClosesOnlyItsConnectionAndStopClosesTheRest)
{
    TestAgent hostile(m_path);
    std::vector<std::unique_ptr<TestAgent>> agents;
    for (int i = 0; i < 5; ++i)
    {
        agents.push_back(std::make_unique<TestAgent>(m_path));
        ASSERT_TRUE(agents.back()->OpenUrl(u"https://a.test/"));
    }
    ASSERT_TRUE(hostile.Write(Header(agentpipe::kTypeOpenUrl, 0xFFFFFFF0u)));
    // The header alone is refused, so the service may have closed the pipe before this write.
    (void)hostile.Write(std::vector<uint8_t>(100, 'x'));
    EXPECT_TRUE(hostile.Ended());
    EXPECT_TRUE(m_logger->Contains(L"refused"));
    EXPECT_EQ(agentpipe::kResultSent, agents[0]->OpenUrl(u"https://still.works/"));
    EXPECT_TRUE(ConnectionsBecome(5));

    EXPECT_EQ(1, m_server->Stop());
    EXPECT_EQ(0u, m_server->ConnectionCount());
    for (auto& agent : agents)
        EXPECT_TRUE(agent->Ended());
    EXPECT_EQ(1, m_server->Stop()); // a second stop is harmless
}

// An agent that writes and never reads its answers: once they fill its pipe the service stops
// reading it, holds no thread for it, and closes it when an answer is overdue, while an agent
// beside it in the same session is answered throughout.
TEST_F(AgentPipeServer, AgentThatNeverReadsIsThrottledThenClosedWhileOthersAreAnswered)
{
    m_server->Stop();
    AgentPipeSettings settings;
    settings.replyTimeoutMs = 500;
    m_server->SetSettings(settings);
    ASSERT_EQ(1, m_server->Start());
    TestAgent hostile(m_path);
    TestAgent good(m_path);
    ASSERT_TRUE(good.Handshake());
    // About 120 KB of handshakes: more than the pipe and the service's read-ahead take, so the
    // writer blocks until the service closes the connection.
    std::thread flood(
        [&]
        {
            const auto handshake = agentpipe::EncodeHandshake({1, 2});
            for (int i = 0; i < 5000 && hostile.Write(handshake); ++i)
            {
            }
        });
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(agentpipe::kResultSent, good.OpenUrl(u"https://a.test/"));
    EXPECT_TRUE(hostile.Ended());
    flood.join();
    EXPECT_TRUE(m_logger->WaitFor(L"an agent did not take its answer within 500 ms", 10s));
    EXPECT_TRUE(ConnectionsBecome(1));
    EXPECT_TRUE(good.Handshake());
}

TEST(AgentPipeServerLeaks, ManyShortConnectionsLeaveNothingBehind)
{
    auto logger = std::make_shared<CapturingLogger>(0);
    SetThreadPool(std::make_shared<CThreadPool>(64, logger));
    const std::wstring name = testsupport::UniqueName(L"velomar-agentpipe-leak");
    std::atomic<int> answered{0};
    auto round = [&]
    {
        CPipeServer server(logger, name);
        server.SetUrlSender([](uint32_t, const std::wstring&) { return 1; });
        ASSERT_EQ(1, server.Start());
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back(
                [&]
                {
                    for (int i = 0; i < 50; ++i)
                    {
                        TestAgent agent(L"\\\\.\\pipe\\" + name);
                        if (i % 3 != 0) // else connect and vanish, before or after its handler exists
                            answered += agent.OpenUrl(u"https://a.test/") == agentpipe::kResultSent ? 1 : 0;
                    }
                });
        for (auto& t : threads)
            t.join();
    };
    // Warm-up at full size: the pools grow to what this load needs and their threads take their
    // lazily made objects. A leak per connection would then show as hundreds of handles. Pool
    // threads that took their first lock during the measured rounds may need a moment to go.
    round(), round();
    const long long handles = testsupport::CountProcessHandles();
    const long long threads = testsupport::CountProcessThreads();
    answered = 0;
    round(), round();
    EXPECT_EQ(2 * 4 * (50 - 17), answered.load()) << "every agent that stayed gets its answer";
    EXPECT_TRUE(Eventually([&] { return testsupport::CountProcessHandles() <= handles + 4; }, 30s))
        << "handles " << handles << " -> " << testsupport::CountProcessHandles();
    EXPECT_TRUE(Eventually([&] { return testsupport::CountProcessThreads() <= threads + 4; }, 30s))
        << "threads " << threads << " -> " << testsupport::CountProcessThreads();
    SetThreadPool(nullptr);
}

namespace
{

// The rights each SID is allowed and denied on a live pipe instance, read through a client's
// handle. Wine enforces no pipe access check, so what a client could do is read from the
// descriptor instead of being tried. (The mandatory label is checked by the security attribute
// tests.)
struct Grants
{
    std::map<std::wstring, DWORD> allowed;
    std::map<std::wstring, DWORD> denied;
    DWORD Allowed(const wchar_t* sid) const { return allowed.count(sid) ? allowed.at(sid) : 0u; }
};

Grants ReadGrants(HANDLE pipe)
{
    Grants grants;
    PACL dacl = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (::GetSecurityInfo(pipe, SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr, &dacl, nullptr,
                          &descriptor) != ERROR_SUCCESS)
        return grants;
    daxlib::unique_hlocal owned(descriptor);
    for (DWORD i = 0; dacl && i < dacl->AceCount; ++i)
    {
        ACE_HEADER* ace = nullptr;
        if (!::GetAce(dacl, i, reinterpret_cast<void**>(&ace)))
            continue;
        // Allowed and denied ACEs share their layout: header, mask, then the SID.
        auto* entry = reinterpret_cast<ACCESS_ALLOWED_ACE*>(ace);
        LPWSTR sid = nullptr;
        if (!::ConvertSidToStringSidW(&entry->SidStart, &sid))
            continue;
        (ace->AceType == ACCESS_DENIED_ACE_TYPE ? grants.denied : grants.allowed)[sid] |= entry->Mask;
        ::LocalFree(sid);
    }
    return grants;
}

} // namespace

TEST(AgentPipeAccess, ClientsMayConnectReadAndWriteButNeitherServeTheNameNorRewriteItsSecurity)
{
    auto logger = std::make_shared<CapturingLogger>(1);
    SetThreadPool(std::make_shared<CThreadPool>(8, logger));
    for (const bool legacy : {false, true})
    {
        const std::wstring name = testsupport::UniqueName(L"velomar-agentpipe-acl");
        CPipeServer server(logger, name);
        AgentPipeSettings settings;
        settings.legacyClientAccess = legacy;
        server.SetSettings(settings);
        ASSERT_EQ(1, server.Start());
        daxlib::unique_hfile client(testsupport::OpenClient(L"\\\\.\\pipe\\" + name));
        ASSERT_TRUE(client);
        const Grants grants = ReadGrants(client.get());
        const DWORD client_rights = legacy ? pipeaccess::kLegacyClient : pipeaccess::kClient;
        for (const wchar_t* sid :
             {L"S-1-2-0", L"S-1-5-11", L"S-1-15-2-1"}) // local, authenticated, app containers
        {
            EXPECT_EQ(client_rights, grants.Allowed(sid)) << sid;
            EXPECT_EQ(0u, grants.Allowed(sid) & (WRITE_DAC | WRITE_OWNER | 0xF0000000u));
        }
        EXPECT_EQ(static_cast<DWORD>(FILE_ALL_ACCESS), grants.Allowed(L"S-1-5-18"));
        EXPECT_EQ(4u, grants.allowed.size()) << "nobody else is granted anything";
        EXPECT_EQ(static_cast<DWORD>(FILE_ALL_ACCESS),
                  grants.denied.count(L"S-1-5-2") ? grants.denied.at(L"S-1-5-2") : 0u)
            << "network logons are kept out";
        EXPECT_EQ(legacy ? 1u : 0u, logger->Count(L"agents may open the pipe with GENERIC_WRITE"));
    }
    // The narrow grant keeps the instance-creation bit (FILE_APPEND_DATA) from clients.
    EXPECT_EQ(0u, pipeaccess::kClient & FILE_CREATE_PIPE_INSTANCE);
    SetThreadPool(nullptr);
}

// Session 1 floods with ten connections and is cut at four; later connections play session 2
// (Wine reports session 1 for everyone, so the first ten resolved are taken as session 1's).
// Six connections in all at most.
class AgentPipeBounds : public ::testing::Test
{
protected:
    void SetUp() override
    {
        SetThreadPool(std::make_shared<CThreadPool>(16, m_logger));
        m_server = std::make_unique<CPipeServer>(m_logger, m_name);
        AgentPipeSettings settings;
        settings.maxConnectionsPerSession = 4;
        settings.maxConnections = 6;
        m_server->SetSettings(settings);
        m_server->SetSessionResolver([this](uint32_t, uint32_t) { return ++m_resolved <= 10 ? 1u : 2u; });
        m_server->SetUrlSender(
            [this](uint32_t session, const std::wstring&)
            {
                std::lock_guard lock(m_mutex);
                m_sessions.push_back(session);
                return 1; // sent
            });
        ASSERT_EQ(1, m_server->Start());
        for (int i = 0; i < 10; ++i)
            m_flood.emplace_back(testsupport::OpenClient(m_path));
        ASSERT_TRUE(Eventually([&] { return m_resolved >= 10 && m_server->ConnectionCount() == 4; }, 20s));
    }
    void TearDown() override
    {
        m_flood.clear();
        m_server.reset();
        SetThreadPool(nullptr);
    }

    std::shared_ptr<CapturingLogger> m_logger = std::make_shared<CapturingLogger>(1);
    std::wstring m_name = testsupport::UniqueName(L"velomar-agentpipe-flood");
    std::wstring m_path = L"\\\\.\\pipe\\" + m_name;
    std::unique_ptr<CPipeServer> m_server;
    std::atomic<uint32_t> m_resolved{0};
    std::vector<daxlib::unique_hfile> m_flood;
    std::mutex m_mutex;
    std::vector<uint32_t> m_sessions;
};

TEST_F(AgentPipeBounds, FloodIsCutAtTheSessionsLimitWithOneWarningPerBurst)
{
    EXPECT_TRUE(m_logger->WaitFor(L"open in this session, the limit", 20s));
    ::Sleep(500); // the rest of the burst
    EXPECT_EQ(1u, m_logger->Count(L"open in this session, the limit"));
    EXPECT_EQ(4u, m_server->ConnectionCount());
}

TEST_F(AgentPipeBounds, OtherSessionsAreServedUpToTheTotalLimit)
{
    TestAgent mine(m_path);
    EXPECT_EQ(agentpipe::kResultSent, mine.OpenUrl(u"https://a.test/"));
    EXPECT_TRUE(m_logger->Contains(L"were closed over the limits"));
    TestAgent second(m_path);
    EXPECT_TRUE(second.Handshake());
    TestAgent overTotal(m_path); // the seventh connection in all
    EXPECT_TRUE(overTotal.Ended());
    EXPECT_TRUE(m_logger->Contains(L"open in all, the limit"));
    std::lock_guard lock(m_mutex);
    EXPECT_EQ(std::vector<uint32_t>{2u}, m_sessions);
}

// The system could not tell the agents' sessions (played through the resolver): they are closed
// before anything they send is routed, with one error for the burst.
TEST(AgentPipeSessions, AgentsOfUnknownSessionAreClosedUnroutedWithOneErrorPerBurst)
{
    auto logger = std::make_shared<CapturingLogger>(1);
    SetThreadPool(std::make_shared<CThreadPool>(8, logger));
    const std::wstring name = testsupport::UniqueName(L"velomar-agentpipe-session");
    const std::wstring path = L"\\\\.\\pipe\\" + name;
    std::atomic<bool> known{false};
    std::atomic<int> routed{0};
    {
        CPipeServer server(logger, name);
        server.SetSessionResolver([&](uint32_t, uint32_t) { return known ? 1u : daxlib::kUnknownSession; });
        server.SetUrlSender([&](uint32_t, const std::wstring&) { return ++routed, 1; });
        ASSERT_EQ(1, server.Start());
        for (int i = 0; i < 2; ++i)
        {
            TestAgent agent(path);
            agent.Write(agentpipe::EncodeOpenUrl(u"https://a.test/"));
            EXPECT_TRUE(agent.Ended());
        }
        EXPECT_EQ(1u, logger->Count(L"cannot be determined"));
        known = true;
        EXPECT_EQ(agentpipe::kResultSent, TestAgent(path).OpenUrl(u"https://b.test/"));
        EXPECT_EQ(1, routed.load());
        server.Stop();
    }
    SetThreadPool(nullptr);
}

TEST_F(AgentPipeBounds, RoomFreedByClosedConnectionsIsUsedAgain)
{
    TestAgent mine(m_path), second(m_path);
    ASSERT_TRUE(mine.Handshake());
    ASSERT_TRUE(second.Handshake()); // six in all now
    m_flood.clear();
    EXPECT_TRUE(Eventually([&] { return m_server->ConnectionCount() == 2; }, 20s));
    EXPECT_EQ(agentpipe::kResultSent, TestAgent(m_path).OpenUrl(u"https://b.test/"));
}
