// The agent pipe server with real pipes and the real thread pool; URLs go to a recording sender
// in place of the channel server.
#include "pipe/ThreadPool.h"
#include "pipeserver/AgentProtocol.h"
#include "pipeserver/PipeServer.h"
#include "tests/common/CapturingLogger.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using testing_support::CapturingLogger;

namespace
{

// A raw agent: overlapped client end with bounded reads.
class TestAgent
{
public:
    explicit TestAgent(const std::wstring& pipe)
    {
        const auto end = std::chrono::steady_clock::now() + 10s;
        while (std::chrono::steady_clock::now() < end)
        {
            m_pipe.reset(::CreateFileW(pipe.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                       FILE_FLAG_OVERLAPPED, nullptr));
            if (m_pipe)
                break;
            if (::GetLastError() == ERROR_PIPE_BUSY)
                ::WaitNamedPipeW(pipe.c_str(), 200);
            else
                std::this_thread::sleep_for(20ms);
        }
        m_event.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    }
    bool Connected() const { return m_pipe.valid(); }

    bool Write(const std::vector<uint8_t>& bytes)
    {
        OVERLAPPED ov{};
        ov.hEvent = m_event.get();
        DWORD written = 0;
        if (!::WriteFile(m_pipe.get(), bytes.data(), static_cast<DWORD>(bytes.size()), nullptr, &ov) &&
            ::GetLastError() != ERROR_IO_PENDING)
            return false;
        return ::GetOverlappedResult(m_pipe.get(), &ov, &written, TRUE) && written == bytes.size();
    }

    // Exactly `count` bytes, or nothing when they do not come within the limit or the pipe ends.
    std::optional<std::vector<uint8_t>> Read(size_t count, DWORD limitMs = 5000)
    {
        std::vector<uint8_t> bytes(count);
        size_t have = 0;
        while (have < count)
        {
            OVERLAPPED ov{};
            ov.hEvent = m_event.get();
            ::ResetEvent(m_event.get());
            DWORD got = 0;
            if (!::ReadFile(m_pipe.get(), bytes.data() + have, static_cast<DWORD>(count - have), nullptr, &ov))
            {
                m_lastError = ::GetLastError();
                if (m_lastError != ERROR_IO_PENDING)
                    return std::nullopt;
                if (::WaitForSingleObject(m_event.get(), limitMs) != WAIT_OBJECT_0)
                {
                    ::CancelIoEx(m_pipe.get(), &ov);
                    ::GetOverlappedResult(m_pipe.get(), &ov, &got, TRUE);
                    m_lastError = WAIT_TIMEOUT;
                    return std::nullopt;
                }
            }
            if (!::GetOverlappedResult(m_pipe.get(), &ov, &got, TRUE))
            {
                m_lastError = ::GetLastError();
                return std::nullopt;
            }
            have += got;
        }
        return bytes;
    }
    DWORD LastError() const { return m_lastError; }
    void Close() { m_pipe.reset(); }

    std::optional<uint32_t> OpenUrl(const std::u16string& url)
    {
        if (!Write(agentpipe::EncodeOpenUrl(url)))
            return std::nullopt;
        auto answer = Read(12);
        if (!answer || agentpipe::LoadU32(answer->data()) != 1 || agentpipe::LoadU32(answer->data() + 4) != 4)
            return std::nullopt;
        return agentpipe::LoadU32(answer->data() + 8);
    }

private:
    daxlib::unique_hfile m_pipe;
    daxlib::unique_handle m_event;
    DWORD m_lastError = 0;
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
        m_logger = std::make_shared<CapturingLogger>(4);
        SetThreadPool(std::make_shared<CThreadPool>(64, m_logger));
        m_name = testing_support::UniqueName(L"velomar-agentpipe");
        m_server = std::make_unique<CPipeServer>(m_logger, m_name);
        m_server->SetUrlSender([this](uint32_t session, const std::wstring& url) {
            std::lock_guard lock(m_mutex);
            m_sent.push_back({session, url});
            return m_result;
        });
        ASSERT_EQ(1, m_server->Start());
    }
    void TearDown() override
    {
        m_server.reset();
        SetThreadPool(nullptr);
    }
    std::wstring PipePath() const { return L"\\\\.\\pipe\\" + m_name; }
    std::vector<std::pair<uint32_t, std::wstring>> Sent()
    {
        std::lock_guard lock(m_mutex);
        return m_sent;
    }
    bool WaitForConnections(size_t count)
    {
        const auto end = std::chrono::steady_clock::now() + 10s;
        while (m_server->ConnectionCount() != count && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(10ms);
        return m_server->ConnectionCount() == count;
    }

    std::shared_ptr<CapturingLogger> m_logger;
    std::wstring m_name;
    std::unique_ptr<CPipeServer> m_server;
    std::mutex m_mutex;
    std::vector<std::pair<uint32_t, std::wstring>> m_sent;
    int m_result = 1;
};

} // namespace

TEST_F(AgentPipeServer, AnswersHandshakesAndSendsUrlsToTheAgentsOwnSession)
{
    TestAgent agent(PipePath());
    ASSERT_TRUE(agent.Connected());
    ASSERT_TRUE(agent.Write(agentpipe::EncodeHandshake({42, 7})));
    auto answer = agent.Read(24);
    ASSERT_TRUE(answer);
    const auto expected = agentpipe::EncodeHandshakeAnswer();
    EXPECT_EQ(std::vector<uint8_t>(expected.begin(), expected.end()), *answer);

    EXPECT_EQ(agentpipe::kResultSent, agent.OpenUrl(u"https://example.test/\u00e9"));
    m_result = 0;
    EXPECT_EQ(agentpipe::kResultNotSent, agent.OpenUrl(u"https://example.test/second"));
    // A second handshake is answered the same way.
    ASSERT_TRUE(agent.Write(agentpipe::EncodeHandshake({1, 2})));
    EXPECT_EQ(std::vector<uint8_t>(expected.begin(), expected.end()), agent.Read(24).value_or(std::vector<uint8_t>{}));

    const auto sent = Sent();
    ASSERT_EQ(2u, sent.size());
    // Wine reports session 1 for every pipe client; the URL carries no session of its own.
    DWORD session = 0;
    ::ProcessIdToSessionId(::GetCurrentProcessId(), &session);
    EXPECT_EQ(L"https://example.test/\u00e9", sent[0].second);
    EXPECT_EQ(sent[0].first, sent[1].first);
    EXPECT_EQ(1u, sent[0].first);
}

TEST_F(AgentPipeServer, MessagesWithoutAnAnswerKeepTheStreamInStep)
{
    TestAgent agent(PipePath());
    ASSERT_TRUE(agent.Connected());
    std::vector<uint8_t> burst;
    auto append = [&burst](const std::vector<uint8_t>& bytes) { burst.insert(burst.end(), bytes.begin(), bytes.end()); };
    append(Header(2, 0));                           // unknown type, empty
    append(Header(7, 5));                           // unknown type with a payload
    append({1, 2, 3, 4, 5});
    append(Header(agentpipe::kTypeHandshake, 0));   // empty handshake
    append(Header(agentpipe::kTypeHandshake, 8));   // handshake of the wrong size
    append(std::vector<uint8_t>(8, 0xAA));
    append(Header(agentpipe::kTypeOpenUrl, 0));     // empty URL message
    // A URL without its terminating NUL ends at the payload's end.
    append(Header(agentpipe::kTypeOpenUrl, 4 + 6));
    append({0, 0, 0, 0, 'a', 0, ':', 0, 'b', 0});
    ASSERT_TRUE(agent.Write(burst));
    // The first answer is the URL's: nothing before it was answered.
    auto answer = agent.Read(12);
    ASSERT_TRUE(answer);
    EXPECT_EQ(agentpipe::kTypeOpenUrl, agentpipe::LoadU32(answer->data()));
    const auto sent = Sent();
    ASSERT_EQ(1u, sent.size());
    EXPECT_EQ(L"a:b", sent[0].second);
    // And nothing else arrives.
    EXPECT_FALSE(agent.Read(1, 300));
}

TEST_F(AgentPipeServer, OversizedPayloadClosesOnlyThatConnection)
{
    m_result = 1;
    TestAgent hostile(PipePath());
    TestAgent good(PipePath());
    ASSERT_TRUE(hostile.Connected());
    ASSERT_TRUE(good.Connected());
    ASSERT_TRUE(hostile.Write(Header(agentpipe::kTypeOpenUrl, 0xFFFFFFF0u)));
    ASSERT_TRUE(hostile.Write(std::vector<uint8_t>(100, 'x')));
    EXPECT_FALSE(hostile.Read(1, 5000));
    EXPECT_NE(static_cast<DWORD>(WAIT_TIMEOUT), hostile.LastError()) << "the connection should be closed";
    EXPECT_TRUE(m_logger->Contains(L"refused"));
    EXPECT_EQ(agentpipe::kResultSent, good.OpenUrl(u"https://still.works/"));
    EXPECT_TRUE(WaitForConnections(1));
}

TEST_F(AgentPipeServer, ChannelIdsCountOnAndWrapWithOneErrorLine)
{
    CPipeServer::SetNextChannelIDForTest(0xFFFFFFFEull);
    for (int i = 0; i < 3; ++i)
    {
        TestAgent agent(PipePath());
        ASSERT_TRUE(agent.Connected());
        ASSERT_TRUE(agent.OpenUrl(u"https://a.test/")); // the handler exists once it answers
        agent.Close();
        ASSERT_TRUE(WaitForConnections(0));
    }
    EXPECT_TRUE(m_logger->WaitFor(L"ch: <0>", 5s));
    EXPECT_TRUE(m_logger->Contains(L"ch: <4294967294>"));
    EXPECT_TRUE(m_logger->Contains(L"ch: <4294967295>"));
    EXPECT_EQ(1u, m_logger->Count(L"Unique identifier counter overflow occurred"));
}

TEST_F(AgentPipeServer, StopWithLiveConnectionsEmptiesTheTable)
{
    std::vector<std::unique_ptr<TestAgent>> agents;
    for (int i = 0; i < 5; ++i)
    {
        agents.push_back(std::make_unique<TestAgent>(PipePath()));
        ASSERT_TRUE(agents.back()->Connected());
        ASSERT_TRUE(agents.back()->OpenUrl(u"https://a.test/"));
    }
    EXPECT_EQ(5u, m_server->ConnectionCount());
    EXPECT_EQ(1, m_server->Stop());
    EXPECT_EQ(0u, m_server->ConnectionCount());
    for (auto& agent : agents)
        EXPECT_FALSE(agent->Read(1, 2000));
    EXPECT_EQ(1, m_server->Stop()); // a second stop is harmless
}

TEST(AgentPipeServerLeaks, ManyShortConnectionsLeaveNothingBehind)
{
    auto logger = std::make_shared<CapturingLogger>(0);
    SetThreadPool(std::make_shared<CThreadPool>(64, logger));
    const std::wstring name = testing_support::UniqueName(L"velomar-agentpipe-leak");
    std::atomic<int> answered{0};
    auto round = [&](int clients) {
        CPipeServer server(logger, name);
        server.SetUrlSender([](uint32_t, const std::wstring&) { return 1; });
        ASSERT_EQ(1, server.Start());
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([&] {
                for (int i = 0; i < clients / 4; ++i)
                {
                    TestAgent agent(L"\\\\.\\pipe\\" + name);
                    if (i % 3 == 0)
                        continue; // connect and vanish
                    if (agent.OpenUrl(u"https://a.test/") == agentpipe::kResultSent)
                        ++answered;
                }
            });
        for (auto& t : threads)
            t.join();
    };
    // Warm-up at full size: the pools grow to what this load needs and their threads take their
    // lazily made objects. A leak per connection would then show as hundreds of handles.
    round(200);
    round(200);
    const long long handles = testing_support::CountProcessHandles();
    const long long threads = testing_support::CountProcessThreads();
    answered = 0;
    round(200);
    round(200);
    EXPECT_EQ(2 * 4 * (50 - 17), answered.load()) << "every agent that stayed gets its answer";
    EXPECT_LE(testing_support::CountProcessHandles(), handles + 4);
    EXPECT_LE(testing_support::CountProcessThreads(), threads + 4);
    SetThreadPool(nullptr);
}
