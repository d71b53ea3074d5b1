// Channels against scripted client sides: how the handler publishes, logs and retries each end
// of the handshake (whose verdicts HandshakeTests.cpp covers natively), peers that send what
// nobody asked for, and what starting and stopping leaves behind.
#include "tests/common/EventRecorder.h"
#include "tests/virt/VirtTestSupport.h"
#include "virt/LibraryTransport.h"

using namespace virttest;

namespace
{
std::wstring Tag(uint32_t session)
{
    return L"Session " + std::to_wstring(session) + L": ";
}
} // namespace

using ChannelProtocolTest = ChannelTest;

// Refused by either status, or by a version below the lowest accepted (without a warning).
TEST_F(ChannelProtocolTest, RefusedHandshakeIsPublishedAndNeverRetried)
{
    testsupport::EventRecorder events;
    ASSERT_TRUE(StartServer());
    Command("peer 3 refuse-version");
    Command("peer 4 refuse-options");
    Command("peer 5 version=0x00010000");
    Command("peer 8 absent"); // the clock: its retries show that a retry's time has passed
    OpenSessions(3, 8);
    for (uint32_t refused : {3u, 4u, 5u})
        ASSERT_TRUE(m_status.WaitForState(refused, eCvUrlApiEvent_RdpInvalidProtocol, 10s)) << refused;
    EXPECT_TRUE(m_logger->Contains(Tag(3) + L"Remote side is not compatible with local protocol version"));
    EXPECT_TRUE(m_logger->Contains(Tag(4) + L"Remote side is not compatible with local protocol options"));
    EXPECT_FALSE(m_logger->Contains(Tag(5) + L"Remote side is not compatible"));
    EXPECT_EQ(0x00010000u, StatusOf(5).dwRemoteVersion);

    ASSERT_TRUE(m_logger->WaitFor(Tag(8) + L"SkConnectTo() failed", 10s, 2));
    for (uint32_t refused : {3u, 4u, 5u})
    {
        EXPECT_EQ(1u, Stats(refused).connectAttempts) << refused;
        EXPECT_EQ(0, m_server->SendURL(refused, L"https://refused/"));
        EXPECT_TRUE(
            m_logger->Contains(Tag(refused) + L"Connection is closed. Module=\"VirtServer\", Line=443"));
    }

    // The administrator hears of each refusal by the client side, with its reason.
    const auto refusals = events.Of(events::kChannelRefused);
    ASSERT_EQ(2u, refusals.size()) << "sessions 3 and 4; session 5's low version is no refusal by the client";
    for (const auto& refusal : refusals)
        EXPECT_EQ(events::Level::Warning, refusal.level);
    const bool threeFirst = refusals[0].strings[0] == L"3";
    EXPECT_EQ((std::vector<std::wstring>{L"3", L"version", L"1.1", L"1.1"}),
              refusals[threeFirst ? 0 : 1].strings);
    EXPECT_EQ(L"options", refusals[threeFirst ? 1 : 0].strings[1]);
}

// Announced option bytes are not waited for: the header sent right after is read at once.
TEST_F(ChannelProtocolTest, AcceptedHandshakeIsLoggedAndRecordedAndOpensTheChannel)
{
    ASSERT_TRUE(StartServer());
    Command("peer 6 version=0x00020000 options=12 send=0900000000000000");
    OpenSessions(6, 6);
    ASSERT_TRUE(WaitConnected(6));
    const ChannelStatusRecord accepted = StatusOf(6);
    EXPECT_EQ(0x00010001u, accepted.dwLocalVersion);
    EXPECT_EQ(0x00020000u, accepted.dwRemoteVersion);
    EXPECT_EQ(0x00010001u, accepted.dwNegotiatedVersion);
    EXPECT_EQ(50u, accepted.dwState);
    EXPECT_TRUE(m_logger->Contains(L"CSessionHandler::DoHandshake: " + Tag(6) + L"cbRemoteOptions=12"));
    EXPECT_TRUE(m_logger->WaitFor(
        Tag(6) + L"CSessionHandler::ReadThread: Unknown command. Command=undefined command(9)", 5s));
    EXPECT_EQ(1, m_server->SendURL(6, L"https://six/"));
}

// A connection that breaks in the middle of the handshake is no verdict on the protocol.
TEST_F(ChannelProtocolTest, HandshakeBrokenOnTheWayIsRetriedLikeABrokenConnection)
{
    ASSERT_TRUE(StartServer());
    Command("peer 10 mute"); // connects, then answers nothing: its handshake waits
    OpenSessions(10, 10);
    ASSERT_TRUE(m_logger->WaitFor(Tag(10) + L"LocalVersion=", 10s));
    Command("peer 10 accept");
    Command("break 10");
    ASSERT_TRUE(m_status.WaitForState(10, eCvUrlApiEvent_RdpConnectionBroken, 10s));
    // The break's own event may publish the state before the handshake's read has failed.
    EXPECT_TRUE(m_logger->WaitFor(
        Tag(10) + L"First SkReadData(RemoteVersion) failed. Error=ERROR_NOT_CONNECTED(2250)", 10s));
    EXPECT_TRUE(WaitConnected(10));
    EXPECT_EQ(2u, Stats(10).connectAttempts);
}

TEST_F(ChannelProtocolTest, ClientSideThatNeverConnectsIsRetriedEveryThreeSeconds)
{
    ASSERT_TRUE(StartServer());
    Command("peer 8 absent");
    Command("peer 9 silent"); // connects, but CONNECTED never comes: 3 s of waiting, then 3 s of pause
    OpenSessions(8, 9);
    ASSERT_TRUE(m_logger->WaitFor(Tag(8) + L"SkConnectTo() failed", 15s, 3));
    const auto times = Fetch<uint64_t>(Export<PFN_StandinGetConnectTimes>("StandinGetConnectTimes"), 8);
    ASSERT_GE(times.size(), 3u);
    for (size_t i = 1; i < times.size(); ++i)
    {
        EXPECT_GE(times[i] - times[i - 1], 2800u);
        EXPECT_LE(times[i] - times[i - 1], 4500u);
    }
    EXPECT_TRUE(Eventually([&] { return Stats(9).connectAttempts >= 2; }, 10s));
    for (uint32_t id : {8u, 9u})
        EXPECT_EQ(51u, StateOf(id)) << id;
    EXPECT_TRUE(m_status.States(8).empty());
}

// Unknown messages are read whole and dropped, and the reader stays in step: a message sent
// later is seen as such.
TEST_F(ChannelProtocolTest, MessagesFromTheClientSideAreReadWholeAndDropped)
{
    ASSERT_TRUE(StartServer());
    // Command 7 with 5 bytes, command 0 with none, and a submit from the client side.
    Command("peer 6 send=0700000005000000aabbccddee"
            "0000000000000000"
            "0100000006000000000000006869");
    OpenSessions(6, 6);
    const std::wstring prefix = Tag(6) + L"CSessionHandler::ReadThread: Unknown command. Command=";
    EXPECT_TRUE(m_logger->WaitFor(prefix + L"eUrlNet_Submit(1)", 10s));
    EXPECT_EQ(1u, m_logger->Count(prefix + L"undefined command(7)"));
    EXPECT_EQ(1u, m_logger->Count(prefix + L"eUrlNet_Handshake(0)"));
    EXPECT_TRUE(m_logger->Contains(Tag(6) + L"SkReadData(Header) undefined command 7 5"));
    Command("send 6 2a00000000000000");
    EXPECT_TRUE(m_logger->WaitFor(prefix + L"undefined command(42)", 5s));
    EXPECT_EQ((std::vector<uint32_t>{50}), m_status.States(6));
}

TEST_F(ChannelProtocolTest, PeerThatBreaksMidMessageIsReconnectedOnceItBehaves)
{
    ASSERT_TRUE(StartServer());
    Command("peer 4 send=07000000f0ffffff0102 close-after-send"); // a huge cbData, then the close
    Command("peer 5 send=0700000064000000000102030405060708 close-after-send");
    OpenSessions(4, 5);
    for (uint32_t id : {4u, 5u})
        ASSERT_TRUE(m_status.WaitForState(id, eCvUrlApiEvent_RdpConnectionBroken, 10s)) << id;
    EXPECT_TRUE(m_logger->WaitFor(Tag(5) + L"SkReadData(Data) failed. Error=ERROR_NOT_CONNECTED(2250)", 5s));
    Command("peer 4 accept");
    Command("peer 5 accept");
    // A connection made just before a peer was told may still run the old script and close
    // after its handshake, hence a URL sent until one goes through.
    for (uint32_t id : {4u, 5u})
        EXPECT_TRUE(Eventually(
            [&]
            {
                return StateOf(id) == 50u && Stats(id).liveConnections == 1 &&
                       m_server->SendURL(id, L"https://ok/" + std::to_wstring(id)) == 1;
            },
            10s))
            << id;
}

// Garbage that makes the service wait for a message of ~1.5 GB which never comes.
TEST_F(ChannelProtocolTest, EndlessMessageBlocksNeitherSendingNorOtherSessions)
{
    ASSERT_TRUE(StartServer());
    Command("peer 3 send=5a5a5a5a5a5a5a5aff13ee37c0");
    OpenSessions(2, 3);
    for (uint32_t id : {2u, 3u})
    {
        ASSERT_TRUE(WaitConnected(id)) << id;
        EXPECT_EQ(1, m_server->SendURL(id, L"https://ok/" + std::to_wstring(id))) << id;
    }
    EXPECT_EQ((std::vector<std::string>{"https://ok/2"}), Urls(2));
    EXPECT_EQ((std::vector<std::string>{"https://ok/3"}), Urls(3));
}

// Start, bad peers, stop, again and again: later rounds end with the handles and threads of earlier ones,
// including the read thread that was waiting for an endless message.
TEST_F(ChannelProtocolTest, StartAndStopWithBadPeersLeaveNothingBehind)
{
    constexpr int kRounds = 9;
    long long handles[kRounds] = {};
    long long threads[kRounds] = {};
    ASSERT_TRUE(InstallLibrary(VIRT_STANDIN_DLL));
    for (int round = 0; round < kRounds; ++round)
    {
        ASSERT_TRUE(m_server->Init());
        Command("peer 3 send=5a5a5a5a5a5a5a5aff13ee37c0");
        Command("peer 4 send=0700000064000000000102 close-after-send");
        OpenSessions(2, 4);
        for (uint32_t id : {2u, 3u})
            ASSERT_TRUE(m_status.WaitForState(id, eCvUrlApiEvent_RdpConnected, 10s, round + 1)) << id;
        ASSERT_TRUE(m_logger->WaitFor(L"Session 3: SkReadData(Header) undefined command", 5s, round + 1));
        EXPECT_EQ(1, m_server->SendURL(2, L"https://x/"));
        // The library stays loaded, as in the service: each load of it brings its own copy of
        // the C++ runtime, whose few handles stay behind when it is unloaded.
        m_server->Free();
        if (round > 0)
            Eventually([&] { return testsupport::CountProcessThreads() <= threads[round - 1]; }, 5s);
        threads[round] = testsupport::CountProcessThreads();
        handles[round] = testsupport::CountProcessHandles();
    }
    // The first rounds also pay for what the system caches once. A handle lost per round shows
    // as six over the last six rounds; one or two may still be on their way out when counted.
    constexpr int kLast = kRounds - 1;
    EXPECT_LE(threads[kLast], threads[2]);
    EXPECT_TRUE(Eventually(
        [&] { return (handles[kLast] = testsupport::CountProcessHandles()) <= handles[2] + 3; }, 10s))
        << handles[2] << " handles after round 3, " << handles[kLast] << " after " << kRounds;
}

TEST(SessionHandler, StartsOnceStopsTwiceAndKeepsItsStateWithoutALibrary)
{
    auto logger = std::make_shared<testsupport::CapturingLogger>(4);
    const long long threadsBefore = testsupport::CountProcessThreads();
    {
        CSessionHandler handler(logger, std::make_shared<CLibraryTransport>(),
                                L"00000007-5e1c-4a3b-9d2e-0000c0ffee07", 7, L"seven");
        ChannelStatusRecord record{};
        handler.GetChannelStatus(record);
        EXPECT_EQ(51u, record.dwState);
        EXPECT_FALSE(handler.SendURL(L"https://x/"));

        EXPECT_TRUE(handler.StartThreads());
        EXPECT_TRUE(handler.StartThreads());
        EXPECT_EQ(1u, logger->Count(L"CSessionHandler::StartThreads: Session 7: Success"));
        // No library: every attempt fails and is retried, never published.
        EXPECT_TRUE(logger->WaitFor(
            L"Session 7: SkResolveAddressW(\"00000007-5e1c-4a3b-9d2e-0000c0ffee07\") failed", 5s));
        EXPECT_EQ(1, handler.Stop());
        EXPECT_EQ(1u, logger->Count(L"CSessionHandler::ConnectionThread: Session 7: Stopped"));
        EXPECT_EQ(1u, logger->Count(L"CSessionHandler::ReadThread: Session 7: Stopped"));
    }
    // The destructor's second stop finds nothing to do.
    EXPECT_EQ(2u, logger->Count(L"CSessionHandler::CloseConnection: Session 7: Success"));
    EXPECT_TRUE(Eventually([&] { return testsupport::CountProcessThreads() <= threadsBefore; }, 5s));
}
