// The service's life under the service control manager with and without the channel library:
// it always reaches running and serves agents, and a stop ends its process half a second later
// with exit code 0, also while agents are connected. The control manager refuses the shutdown
// control from a program (ERROR_INVALID_PARAMETER), so only the system's own shutdown could send
// it; not driven here.
#include "common/PipeNames.h"
#include "tests/e2e/E2eTestSupport.h"

#include "pipeserver/AgentProtocol.h"

#include <cstdio>
#include <map>
#include <string>
#include <vector>

using namespace std::chrono_literals;
using namespace e2e;

TEST(ServiceE2e, WithoutTheLibraryItRunsAndAnswersEveryUrlWithOne)
{
    ServiceRun run(ServiceOptions().WithoutLibrary());
    StartRunning(run);

    AgentPipe agent;
    ASSERT_TRUE(agent.Connect());
    EXPECT_TRUE(agent.Handshake());
    EXPECT_EQ(std::optional<uint32_t>(1), agent.OpenUrl(u"https://example.com/no-library"));
    EXPECT_EQ(std::optional<uint32_t>(1), agent.OpenUrl(u"https://example.com/still-none"));
    EXPECT_FALSE(::WaitNamedPipeW(daxlib::kStandinControlPipe, 100))
        << "no library, so nobody serves its control pipe";
    ExpectCleanStop(run);
}

namespace
{
// One run with the library's default scenario: session 1 with an accepting client side. The
// stop comes last.
class ServiceE2eRunning : public SharedServiceRun<ServiceE2eRunning>
{
public:
    static ServiceOptions Options() { return {}; }
};
} // namespace

// The file begins with the banner's blank line (the banner itself is the logger's, checked by its
// own tests); the start record has the version as bare hex digits run together with the build date.
TEST_F(ServiceE2eRunning, LogBeginsWithTheBannerAndHasTheStartRecord)
{
    const std::wstring text = WaitForLog(L"CLogSvc::main: Service Running...", 10s);
    const std::string date = __DATE__;
    const std::wstring expected =
        L"Start service. Version program 10400" + std::wstring(date.begin(), date.end());
    EXPECT_NE(std::wstring::npos, text.find(expected)) << std::string(text.begin(), text.end());
    EXPECT_EQ(0u, text.find(L"\r\n"));
}

// The service connects to the client side and completes the channel handshake without any agent.
TEST_F(ServiceE2eRunning, OpensTheSessionsChannelWithoutAnyAgent)
{
    std::map<std::string, unsigned> stats;
    EXPECT_TRUE(WaitUntil([&] { return (stats = SessionStats(1))["handshakes"] >= 1; }, 15s, 200ms));
    EXPECT_EQ(1u, stats["live"]);
    EXPECT_EQ(0u, stats["submits"]);
    const CtlResult sessions = Skeinctl("sessions");
    EXPECT_NE(std::string::npos, sessions.output.find("1 00000001-5e1c-4a3b-9d2e-0000c0ffee01"))
        << sessions.output;
}

// Idle agents, one in the middle of a message, and one waiting for an answer it never gets.
TEST_F(ServiceE2eRunning, StopsWithAgentsConnectedAndClosesThem)
{
    std::vector<AgentPipe> agents(4);
    for (auto& agent : agents)
        ASSERT_TRUE(agent.Connect());
    ASSERT_TRUE(agents[0].Handshake());
    ASSERT_EQ(std::optional<uint32_t>(0), agents[1].OpenUrl(u"https://example.com/before-stop"));
    const auto half = agentpipe::EncodeOpenUrl(u"https://example.com/half");
    ASSERT_TRUE(agents[2].Write(half.data(), half.size() / 2));
    ASSERT_TRUE(agents[3].Write(agentpipe::EncodeHandshake({}).data(), 8)); // header only
    ExpectCleanStop(Run());
    for (auto& agent : agents)
        EXPECT_TRUE(agent.ClosedByPeer(5s));
}
