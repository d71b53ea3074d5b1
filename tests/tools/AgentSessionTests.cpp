// CAgentSession in this process against a fake service: waiting for a taken instance, and cleanup.
// Its answers are checked through velomar-open.
#include "tests/pipe/PipeTestSupport.h"
#include "tests/tools/FakeAgentService.h"
#include "tools/agent/AgentSession.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

using namespace agenttests;
using namespace pipetests;
using agent::SessionStatus;

namespace
{

class AgentSessionTest : public PoolTest
{
protected:
    void SetUp() override
    {
        PoolTest::SetUp();
        m_log->SetLevel(LogLevel::Warning);
        m_name = testsupport::UniqueName(L"velomar-session-test");
    }
    std::wstring FullName() const { return L"\\\\.\\pipe\\" + m_name; }

    std::wstring m_name;
};

} // namespace

TEST_F(AgentSessionTest, TakenInstanceIsWaitedForWithinTheLimit)
{
    FakeAgentService service(FullName(), FakeAgentService::Mode::Answer);
    HANDLE occupant = OpenClient(FullName());
    ASSERT_NE(INVALID_HANDLE_VALUE, occupant);
    ASSERT_TRUE(Eventually([&] { return service.Connections() == 1; }));

    agent::CAgentSession session(m_name, m_log);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(SessionStatus::Busy, session.Connect(300));
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, 250ms);
    EXPECT_LT(waited, 5s);

    // The instance comes free while the session waits. (The pause only makes the waiting path
    // likely; the outcome is the same without it.)
    std::thread release(
        [&]
        {
            ::Sleep(300);
            ::CloseHandle(occupant);
        });
    EXPECT_EQ(SessionStatus::Sent, session.SendUrl(L"http://a.b/", {1, 2}, 15000));
    release.join();
    EXPECT_EQ(2, service.Connections());
}

TEST_F(AgentSessionTest, AbandonedReadsAndClosedSessionsLeaveNothingBehind)
{
    // Ten runs: under load a few more pool threads may start, each with a thread handle and an
    // event of the threading runtime, while a leak of one handle per session grows with the runs.
    FakeAgentService silent(FullName(), FakeAgentService::Mode::Silent);
    ExpectNoLeaks(
        [&]
        {
            agent::CAgentSession session(m_name, m_log);
            EXPECT_EQ(SessionStatus::TimedOut, session.SendUrl(L"http://a.b/", {1, 2}, 150));
            // The fake's one instance is free again before the next round.
            EXPECT_TRUE(Eventually([&] { return silent.Ended() == silent.Connections(); }));
        },
        3, 10, 5);
}
