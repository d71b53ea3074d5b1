// The service's life under the service control manager with and without the channel library:
// it always reaches running and serves agents, and a stop ends its process half a second later with exit
// code 0, also while agents are connected. The control manager refuses the shutdown control
// from a program (error 87), so only the system's own shutdown could send it; not driven here.
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
    EXPECT_FALSE(::WaitNamedPipeW(L"\\\\.\\pipe\\CorvaneSkeinStandin", 100))
        << "no library, so nobody serves its control pipe";

    const ServiceRun::StopOutcome stop = run.Stop();
    EXPECT_TRUE(stop.controlAccepted) << "error " << stop.controlError;
    EXPECT_EQ(static_cast<DWORD>(SERVICE_STOPPED), stop.reportedState);
    EXPECT_TRUE(stop.processEnded);
    EXPECT_EQ(0u, stop.exitCode);
}

TEST(ServiceE2e, StopWithAgentsConnectedEndsTheProcessHalfASecondLaterWithZero)
{
    ServiceRun run({});
    StartRunning(run);

    // Idle agents, one in the middle of a message, and one waiting for an answer it never gets.
    std::vector<AgentPipe> agents(4);
    for (auto& agent : agents)
        ASSERT_TRUE(agent.Connect());
    ASSERT_TRUE(agents[0].Handshake());
    ASSERT_EQ(std::optional<uint32_t>(0), agents[1].OpenUrl(u"https://example.com/before-stop"));
    const auto half = agentpipe::EncodeOpenUrl(u"https://example.com/half");
    ASSERT_TRUE(agents[2].Write(half.data(), half.size() / 2));
    ASSERT_TRUE(agents[3].Write(agentpipe::EncodeHandshake({}).data(), 8)); // header only

    const ServiceRun::StopOutcome stop = run.Stop();
    EXPECT_TRUE(stop.controlAccepted) << "error " << stop.controlError;
    EXPECT_EQ(static_cast<DWORD>(SERVICE_STOPPED), stop.reportedState) << "no stop-pending phase";
    ASSERT_TRUE(stop.processEnded);
    EXPECT_EQ(0u, stop.exitCode);
    // The stop thread ends the process half a second after the stop; nothing ends it earlier,
    // which would risk cutting off the answer to the stop control.
    EXPECT_GE(stop.endedAfterMs, 450);
    EXPECT_LT(stop.endedAfterMs, 5000);
    std::printf("process ended %lld ms after the stop control, agents connected\n", stop.endedAfterMs);
    EXPECT_NE(std::wstring::npos, WaitForLog(L"CLogSvc::OnStop: Service Stopping...", 5s).find(
                                      L"CLogSvc::OnStop: Service Stopping..."));
    for (auto& agent : agents)
        EXPECT_TRUE(agent.ClosedByPeer(5s));
}

TEST(ServiceE2e, OnStartItOpensTheChannelOfTheLibrarysSession)
{
    ServiceRun run({});
    StartRunning(run);

    // The library's default scenario opens session 1 with an accepting client side: the service
    // connects to it and completes the channel handshake without any agent.
    std::map<std::string, unsigned> stats;
    EXPECT_TRUE(WaitUntil(
        [&] {
            stats = SessionStats(1);
            return stats["handshakes"] >= 1;
        },
        15s, 200ms));
    EXPECT_EQ(1u, stats["live"]);
    EXPECT_EQ(0u, stats["submits"]);
    const CtlResult sessions = Skeinctl("sessions");
    EXPECT_EQ(0, sessions.exitCode);
    EXPECT_NE(std::string::npos, sessions.output.find("1 00000001-5e1c-4a3b-9d2e-0000c0ffee01")) << sessions.output;
}
