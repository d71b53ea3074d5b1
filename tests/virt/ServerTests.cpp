// The server: sessions follow the library's notifications, URLs go to their own session, and
// concurrent senders never split a message.
#include "tests/virt/VirtTestSupport.h"
#include "virt/UrlProtocol.h"

#include <thread>

using namespace virttest;

namespace
{
constexpr char kOtherGuid[] = "11111111-2222-3333-4444-555555555555";

// A URL long enough that a split write would show, with characters of every width, and the
// UTF-8 bytes the client side receives for it.
std::pair<std::wstring, std::string> SenderUrl(int t, int i)
{
    const std::string tail = std::to_string(i) + "/" + std::string(200 + 13 * t, static_cast<char>('a' + t));
    return {L"https://t" + std::to_wstring(t) + L".example/\u00E9\u4F8B\U0001F600/" +
                std::wstring(tail.begin(), tail.end()),
            "https://t" + std::to_string(t) + ".example/\xC3\xA9\xE4\xBE\x8B\xF0\x9F\x98\x80/" + tail};
}
} // namespace

class VirtServerTest : public ChannelTest
{
protected:
    // Session 2, opened by a notification, with its handshake accepted.
    void OpenSessionTwo()
    {
        ASSERT_TRUE(StartServer());
        Command("open 2 auto 1 Desk two");
        ASSERT_TRUE(WaitConnected(2));
    }
};

// cbData counts UTF-8 bytes; an unpaired surrogate goes out as U+FFFD, as the system's
// converter makes it. An empty URL is not sent.
TEST_F(VirtServerTest, EachUrlGoesOutAsOneUtf8SubmitMessage)
{
    ASSERT_NO_FATAL_FAILURE(OpenSessionTwo());
    const std::pair<std::wstring, std::string> urls[] = {
        {L"https://example.org/a?b=c", "https://example.org/a?b=c"},
        {L"https://\u4F8B\u3048.jp/\u00E9", "https://\xE4\xBE\x8B\xE3\x81\x88.jp/\xC3\xA9"},
        {L"https://x/\U0001F600", "https://x/\xF0\x9F\x98\x80"},
        {std::wstring(L"h/") + wchar_t(0xD800) + L"y", "h/\xEF\xBF\xBDy"}};
    std::vector<uint8_t> expected = {0x01, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00}; // handshake
    for (const auto& [wide, utf8] : urls)
    {
        EXPECT_EQ(1, m_server->SendURL(2, wide));
        const auto message = UrlNet::BuildSubmitMessage(utf8);
        expected.insert(expected.end(), message.begin(), message.end());
    }
    EXPECT_EQ(0, m_server->SendURL(2, L""));
    EXPECT_TRUE(m_logger->Contains(L"WideCharToMultiByte failed. ret=0"));
    EXPECT_EQ(expected, Received(2));
}

// A close naming an earlier session's GUID, or a session without a handler, changes nothing
// but the record published for the session it names.
TEST_F(VirtServerTest, StrayClosesLeaveTheOpenSessionAlone)
{
    ASSERT_NO_FATAL_FAILURE(OpenSessionTwo());
    const std::weak_ptr<CSessionHandler> handler = m_server->FindSession(2);
    Command(std::string("notify 2 close ") + kOtherGuid);
    ASSERT_TRUE(m_logger->WaitFor(L"CVirtServer::OnSessionClosed: : Session mismatch", 5s));
    EXPECT_EQ(handler.lock(), m_server->FindSession(2));
    EXPECT_EQ((std::vector<uint32_t>{50}), m_status.States(2));

    Command(std::string("notify 9 close ") + kOtherGuid);
    ASSERT_TRUE(m_status.WaitForState(9, eCvUrlApiEvent_RdpNotConnected, 5s));
    ChannelStatusRecord zero{}, published = m_status.Last(9);
    zero.dwState = eCvUrlApiEvent_RdpNotConnected;
    EXPECT_EQ(0, std::memcmp(&zero, &published, sizeof(zero)));
}

TEST_F(VirtServerTest, BrokenConnectionIsPublishedAndConnectedAgain)
{
    ASSERT_NO_FATAL_FAILURE(OpenSessionTwo());
    EXPECT_EQ(1, m_server->SendURL(2, L"https://before/"));
    Command("break 2");
    ASSERT_TRUE(m_status.WaitForState(2, eCvUrlApiEvent_RdpConnected, 10s, 2));
    EXPECT_EQ((std::vector<uint32_t>{50, 52, 50}), m_status.States(2));
    EXPECT_EQ(2u, Stats(2).connectAttempts);
    EXPECT_EQ(1, m_server->SendURL(2, L"https://after/"));
    EXPECT_EQ((std::vector<std::string>{"https://before/", "https://after/"}), Urls(2));
}

TEST_F(VirtServerTest, OpenWithoutACloseReplacesTheHandler)
{
    ASSERT_NO_FATAL_FAILURE(OpenSessionTwo());
    const std::weak_ptr<CSessionHandler> first = m_server->FindSession(2);
    Command("open 2 auto");
    ASSERT_TRUE(m_status.WaitForState(2, eCvUrlApiEvent_RdpConnected, 10s, 2));
    EXPECT_TRUE(first.expired());
    EXPECT_EQ(1u, m_logger->Count(L"CSessionHandler::ConnectionThread: Session 2: Stopped"));
    EXPECT_EQ(1u, m_logger->Count(L"CSessionHandler::ReadThread: Session 2: Stopped"));
    EXPECT_EQ(1u, Stats(2).liveConnections);
    EXPECT_EQ(1, m_server->SendURL(2, L"https://second/"));
}

TEST_F(VirtServerTest, AddressThatNoLongerResolvesIsPublishedAsNotConnected)
{
    ASSERT_NO_FATAL_FAILURE(OpenSessionTwo());
    Command("peer 2 invalid-address");
    Command("break 2");
    ASSERT_TRUE(m_status.WaitForState(2, eCvUrlApiEvent_RdpNotConnected, 10s));
    EXPECT_TRUE(m_logger->WaitFor(L"Session 2: Event=INVALIDADRESS", 5s));
}

TEST_F(VirtServerTest, CloseRemovesTheHandler)
{
    ASSERT_NO_FATAL_FAILURE(OpenSessionTwo());
    Command("close 2");
    // The channel's end may be published before the session's close removes the handler.
    EXPECT_TRUE(Eventually([&] { return m_server->FindSession(2) == nullptr; }, 10s));
    EXPECT_EQ(0, m_server->SendURL(2, L"https://gone/"));
}

TEST_F(VirtServerTest, ConcurrentSendersDuringReconnectionNeverSplitAUrl)
{
    ASSERT_TRUE(StartServer());
    Command("peer 2 break-after=25");
    Command("open 2 auto");
    ASSERT_TRUE(WaitConnected(2));
    constexpr int kThreads = 4, kPerThread = 150;
    std::vector<std::string> expected[kThreads];
    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; ++t)
        senders.emplace_back(
            [&, t]
            {
                for (int i = 0; i < kPerThread; ++i)
                {
                    const auto [wide, utf8] = SenderUrl(t, i);
                    if (m_server->SendURL(2, wide))
                        expected[t].push_back(utf8);
                    else // pacing only, so that the run spans several reconnections
                        std::this_thread::sleep_for(2ms);
                }
            });
    for (auto& s : senders)
        s.join();
    // Whole, once each, and only what was reported sent.
    std::vector<std::string> sent, received = Urls(2);
    for (const auto& e : expected)
        sent.insert(sent.end(), e.begin(), e.end());
    std::sort(sent.begin(), sent.end());
    std::sort(received.begin(), received.end());
    EXPECT_TRUE(sent == received) << sent.size() << " sent, " << received.size() << " received";
    const StandinStats stats = Stats(2);
    EXPECT_EQ(0u, stats.malformed);
    EXPECT_EQ(0u, stats.otherMessages);
    EXPECT_GE(stats.connectAttempts, 2u) << "the run should have crossed a reconnection";
}
