// The status API pipe of the real service under the service control manager, with the stand-in
// channel library scripted by skeinctl: what subscribers and velomar-status see as the channel
// breaks, is refused and its session closes and opens again; and what hostile status clients get,
// while agents keep being served and the service gives back every handle and thread.
#include "tests/e2e/E2eTestSupport.h"

#include "statusapi/PeerIdentity.h"
#include "statusapi/StatusServer.h"
#include "tests/common/TestSupport.h"
#include "tools/status/StatusClient.h"

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#ifndef VELOMAR_STATUS_EXE
#error VELOMAR_STATUS_EXE names the built velomar-status
#endif

using namespace std::chrono_literals;
using namespace e2e;
using namespace statusapi;
using statusclient::CStatusClient;
using statusclient::Status;

namespace
{

constexpr DWORD kLimitMs = 15000;

std::unique_ptr<CStatusClient> Subscriber(Answer& first)
{
    auto client = std::make_unique<CStatusClient>();
    client->ExpectService(L"velomard");
    if (client->Connect(kLimitMs) != Status::Ok ||
        client->Ask(kSubscribe, kOwnSession, first, kLimitMs) != Status::Ok)
        return nullptr;
    return client;
}

// Notifications until one carries `wanted`; the states seen on the way, `wanted` last (absent
// when it did not come within the limit).
std::vector<uint32_t> StatesUntil(CStatusClient& client, uint32_t wanted)
{
    std::vector<uint32_t> states;
    Notification notification;
    while (client.NextNotification(notification, kLimitMs) == Status::Ok)
    {
        EXPECT_EQ(1u, notification.entry.sessionId);
        states.push_back(notification.entry.record.dwState);
        if (states.back() == wanted)
            break;
    }
    return states;
}

// Subscribed, and the channel of session 1 is up.
std::unique_ptr<CStatusClient> ConnectedSubscriber()
{
    Answer first;
    auto client = Subscriber(first);
    if (!client || first.entries.size() != 1)
        return nullptr;
    if (first.entries[0].record.dwState != eCvUrlApiEvent_RdpConnected &&
        StatesUntil(*client, eCvUrlApiEvent_RdpConnected).back() != eCvUrlApiEvent_RdpConnected)
        return nullptr;
    return client;
}

// Breaks session 1's channel: the subscriber hears of the break first and of `last` at the end.
void ExpectBreakThen(CStatusClient& client, uint32_t last)
{
    ASSERT_EQ(0, Skeinctl("break 1").exitCode);
    const std::vector<uint32_t> states = StatesUntil(client, last);
    ASSERT_FALSE(states.empty());
    EXPECT_EQ(eCvUrlApiEvent_RdpConnectionBroken, states.front());
    EXPECT_EQ(last, states.back());
}

testsupport::ProcessRun VelomarStatus(const std::wstring& arguments)
{
    return testsupport::RunProcess(L"\"" + testsupport::BuildPath(VELOMAR_STATUS_EXE) + L"\" " + arguments,
                                   30000);
}

uint32_t CloseReasonOf(CStatusClient& client)
{
    for (;;)
    {
        Packet packet;
        if (client.ReadRaw(packet, kLimitMs) != Status::Ok)
            return 0xFFFFFFFF;
        if (packet.header.type == kClose)
            return DecodeClose(packet.payload.data(), packet.payload.size()).value_or(0xFFFFFFFF);
    }
}

// A client that sends `bytes` first, whatever they are.
std::unique_ptr<CStatusClient> Sending(const std::vector<uint8_t>& bytes)
{
    auto client = std::make_unique<CStatusClient>();
    if (client->Open(kLimitMs) != Status::Ok || client->Write(bytes, kLimitMs) != Status::Ok)
        return nullptr;
    return client;
}

std::vector<uint8_t> OwnHelloWith(uint32_t sessionDelta)
{
    Hello hello;
    OwnHello(hello);
    hello.sessionId += sessionDelta;
    return EncodeHello(hello);
}

} // namespace

TEST(StatusE2e, SubscriberSeesConnectedBrokenAndInvalidProtocol)
{
    ServiceRun run(ServiceOptions{});
    StartRunning(run);
    auto client = ConnectedSubscriber();
    ASSERT_TRUE(client);

    ExpectBreakThen(*client, eCvUrlApiEvent_RdpConnected); // and connected again
    ASSERT_EQ(0, Skeinctl("peer 1 refuse-version").exitCode);
    ExpectBreakThen(*client, eCvUrlApiEvent_RdpInvalidProtocol);

    Answer now;
    ASSERT_EQ(Status::Ok, client->Ask(kGetStatus, kOwnSession, now, kLimitMs));
    ASSERT_EQ(1u, now.entries.size());
    EXPECT_EQ(0x00010001u, now.entries[0].record.dwLocalVersion);
    EXPECT_EQ(0x00010001u, now.entries[0].record.dwRemoteVersion);
    EXPECT_EQ(0u, now.entries[0].record.dwNegotiatedVersion) << "the version was refused";
    client->Goodbye();
    ExpectCleanStop(run);
}

TEST(StatusE2e, SessionClosedAndOpenedAgain)
{
    ServiceRun run(ServiceOptions{});
    StartRunning(run);
    auto client = ConnectedSubscriber();
    ASSERT_TRUE(client);

    ASSERT_EQ(0, Skeinctl("close 1").exitCode);
    EXPECT_EQ(eCvUrlApiEvent_RdpNotConnected, StatesUntil(*client, eCvUrlApiEvent_RdpNotConnected).back());
    Answer closed;
    ASSERT_EQ(Status::Ok, client->Ask(kGetStatus, kOwnSession, closed, kLimitMs));
    EXPECT_EQ(kNoChannel, closed.result);

    ASSERT_EQ(0, Skeinctl("open 1 auto").exitCode);
    EXPECT_EQ(eCvUrlApiEvent_RdpConnected, StatesUntil(*client, eCvUrlApiEvent_RdpConnected).back());
    Answer open;
    ASSERT_EQ(Status::Ok, client->Ask(kGetStatus, kOwnSession, open, kLimitMs));
    EXPECT_EQ(kOk, open.result);
    ASSERT_EQ(1u, open.entries.size());
    EXPECT_EQ(eCvUrlApiEvent_RdpConnected, open.entries[0].record.dwState);
}

// What velomar-status prints and exits with, and the counters it shows after URLs sent, one
// refused by the policy, one sent while the client side was gone, and the reconnect after it.
TEST(StatusE2e, VelomarStatusExitCodesJsonAndCounters)
{
    ServiceRun run(ServiceOptions{});
    ASSERT_TRUE(run.SetupError().empty());
    const auto absent = VelomarStatus(L"");
    ASSERT_TRUE(absent.ended);
    EXPECT_EQ(2u, absent.exitCode) << "the service is not running";

    StartRunning(run);
    ASSERT_TRUE(ConnectedSubscriber());
    AgentPipe agent;
    ASSERT_TRUE(agent.Connect() && agent.Handshake());
    EXPECT_EQ(std::optional<uint32_t>(agentpipe::kResultSent), agent.OpenUrl(u"https://example.com/1"));
    EXPECT_EQ(std::optional<uint32_t>(agentpipe::kResultSent), agent.OpenUrl(u"https://example.com/2"));
    EXPECT_EQ(std::optional<uint32_t>(agentpipe::kResultRefused), agent.OpenUrl(u"ftp://example.com/3"));
    const auto text = VelomarStatus(L"");
    EXPECT_EQ(0u, text.exitCode) << text.err;
    EXPECT_NE(std::string::npos,
              text.out.find("session 1: connected (versions: local 1.1, remote 1.1, negotiated 1.1); URLs 2 "
                            "forwarded, 1 refused by policy, 0 failed; handshakes 1 completed, 0 refused; "
                            "reconnects 0; last URL 20"))
        << text.out;

    ASSERT_EQ(0, Skeinctl("peer 1 absent").exitCode);
    ASSERT_EQ(0, Skeinctl("break 1").exitCode);
    testsupport::ProcessRun broken;
    EXPECT_TRUE(WaitUntil([&] { return (broken = VelomarStatus(L"--json")).exitCode == 1; }, 15s, 100ms));
    EXPECT_NE(std::string::npos, broken.out.find("\"session\":1")) << broken.out;
    EXPECT_EQ(std::optional<uint32_t>(agentpipe::kResultNotSent), agent.OpenUrl(u"https://example.com/4"));
    ASSERT_EQ(0, Skeinctl("peer 1 accept").exitCode);
    testsupport::ProcessRun json;
    EXPECT_TRUE(WaitUntil([&] { return (json = VelomarStatus(L"--json")).exitCode == 0; }, 15s, 100ms));
    const std::string expected =
        "{\"session\":1,\"state\":\"connected\",\"stateCode\":50,\"localVersion\":\"1.1\",\"remoteVersion\":"
        "\"1.1\",\"negotiatedVersion\":\"1.1\",\"counters\":{\"urlsForwarded\":2,\"urlsRefusedByPolicy\":1,"
        "\"urlsFailed\":1,\"handshakesCompleted\":2,\"handshakesRefused\":0,\"reconnects\":1,\"lastUrlTime\":"
        "\"";
    EXPECT_EQ(expected, json.out.substr(0, expected.size())) << json.out;
    EXPECT_EQ("Z\"}}\r\n", json.out.substr(json.out.size() - std::min<size_t>(json.out.size(), 6)));
    const auto all = VelomarStatus(L"--all --json"); // Wine's user is an administrator
    EXPECT_EQ(0u, all.exitCode) << all.err;
    EXPECT_EQ(json.out, all.out) << "one session only";

    // A client of the first version is welcomed in it and answered as that version's service did.
    CStatusClient old;
    old.SetVersion(1);
    ASSERT_EQ(Status::Ok, old.Connect(kLimitMs));
    EXPECT_EQ(1u, old.Welcome().version);
    Answer now;
    ASSERT_EQ(Status::Ok, old.Ask(kGetStatus, kOwnSession, now, kLimitMs));
    EXPECT_EQ(kOk, now.result);
    ASSERT_EQ(Status::Ok, old.Write(EncodeRequest(kGetCounters, {9, kOwnSession}), kLimitMs));
    EXPECT_EQ(kPacketMalformed, CloseReasonOf(old));
}

TEST(StatusE2e, HostileStatusClientsGetTheirReasonsWhileAgentsWorkAndTheServiceGivesEverythingBack)
{
    ServiceRun run(ServiceOptions{});
    StartRunning(run);
    const DWORD pid = run.ProcessId();
    {
        auto warm = ConnectedSubscriber();
        ASSERT_TRUE(warm);
        warm->Goodbye();
        AgentPipe agent;
        ASSERT_TRUE(agent.Connect());
        ASSERT_EQ(std::optional<uint32_t>(0), agent.OpenUrl(u"https://e.x/first"));
    }
    ProcessCounts baseline{};
    ASSERT_TRUE(WaitUntil([&] { return (baseline = MeasureCounts(pid)).handles > 0; }, 5s));

    // An agent sends URLs all along, and every one is sent.
    std::atomic<bool> stop{false};
    std::atomic<int> sent{0};
    std::atomic<int> failed{0};
    std::thread agent(
        [&]
        {
            AgentPipe pipe;
            if (!pipe.Connect())
                return static_cast<void>(++failed);
            for (int i = 0; !stop; ++i)
                ++(pipe.OpenUrl(u"https://e.x/" + std::u16string(1, u'a' + i % 26)) == 0u ? sent : failed);
        });

    const std::pair<std::vector<uint8_t>, uint32_t> cases[] = {
        {OwnHelloWith(1), kSessionMismatch},
        {{0x47, 0x45, 0x54, 0x20, 0x2f, 0x20, 0x48, 0x54, 0x54, 0x50}, kHelloMalformed}, // garbage
        {{kHello, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}, kPacketTooLarge},
        {{}, kHelloTimeout}, // never a hello: the service's 5 s deadline
    };
    for (const auto& [bytes, reason] : cases)
    {
        auto client = Sending(bytes);
        ASSERT_TRUE(client);
        EXPECT_EQ(reason, CloseReasonOf(*client)) << CloseReasonWord(reason);
    }
    // One more than a session may hold (the last client above may still count for a moment).
    std::vector<std::unique_ptr<CStatusClient>> crowd;
    for (uint32_t i = 0; i <= StatusApiSettings::kDefaultMaxPerSession; ++i)
        crowd.push_back(Sending({}));
    size_t refused = 0;
    for (auto& client : crowd)
    {
        ASSERT_TRUE(client);
        const uint32_t reason = CloseReasonOf(*client);
        EXPECT_TRUE(reason == kTooManyConnections || reason == kHelloTimeout) << reason;
        refused += reason == kTooManyConnections ? 1 : 0;
    }
    EXPECT_GE(refused, 1u);
    EXPECT_LE(refused, 2u);
    crowd.clear();
    stop = true;
    agent.join();
    EXPECT_EQ(0, failed.load());
    EXPECT_GT(sent.load(), 0);

    // A subscriber that reads nothing while the channel keeps breaking and coming back. It is
    // closed by whichever bound it reaches first: more changes unread than its queue holds (and
    // told why, when the pipe still has room for that), or a change it has not taken within the
    // answer time (on a loaded machine the breaks may come slower than that).
    Answer first;
    auto sleeper = Subscriber(first);
    ASSERT_TRUE(sleeper);
    const auto closed = []
    {
        const std::wstring log = ReadLog();
        return CountOf(log, L"reader too slow") + CountOf(log, L"it took no answer") > 0;
    };
    for (int i = 0; i < 60 && !closed(); ++i)
    {
        Skeinctl("break 1");
        ::Sleep(100);
    }
    ASSERT_TRUE(closed());
    const uint32_t reason = CloseReasonOf(*sleeper);
    if (CountOf(ReadLog(), L"reader too slow") > 0)
        EXPECT_EQ(kReaderTooSlow, reason) << reason;
    else
        EXPECT_EQ(0xFFFFFFFFu, reason) << reason; // closed with its answers unread: no room to say why

    ProcessCounts now{};
    EXPECT_TRUE(BackToBaseline(pid, baseline, {8, 2}, now));
    std::printf("service handles %lld then %lld; threads %lld then %lld\n", baseline.handles, now.handles,
                baseline.threads, now.threads);
}
