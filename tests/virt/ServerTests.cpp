// The server: sessions follow the library's notifications, URLs go to their own session, and
// concurrent senders never split a message.
#include "tests/virt/VirtTestSupport.h"

#include <atomic>
#include <thread>

using namespace virt_test;

namespace
{
constexpr char kOtherGuid[] = "11111111-2222-3333-4444-555555555555";
}

class VirtServerTest : public ChannelTest
{
};

TEST_F(VirtServerTest, SessionsComeAndGoWithNotifications)
{
    ASSERT_TRUE(StartServer());
    EXPECT_EQ(0, m_server->SendURL(0, L"https://nobody/"));
    EXPECT_EQ(0, m_server->SendURL(2, L"https://nobody/"));

    const std::string guid = Command("open 2 auto 1 Desk two").substr(3);
    ASSERT_TRUE(WaitConnected(2));
    const auto handler = m_server->FindSession(2);
    ASSERT_NE(nullptr, handler);
    EXPECT_EQ(L"Desk two", handler->GetName());
    EXPECT_EQ(std::wstring(guid.begin(), guid.end()), handler->GetSessionGUID());
    EXPECT_TRUE(m_logger->Contains(L"Session 2 (type 1), old GUID=" + std::wstring(guid.begin(), guid.end())));
    EXPECT_EQ(1, m_server->SendURL(2, L"https://two/"));
    EXPECT_EQ(0, m_server->SendURL(3, L"https://two/"));

    Command("close 2");
    ASSERT_TRUE(m_status.WaitForState(2, eCvUrlApiEvent_RdpNotConnected, 10s));
    // The channel's end may be published before the session's close removes the handler.
    EXPECT_TRUE(Eventually([&] { return m_server->FindSession(2) == nullptr; }, 10s));
    EXPECT_EQ(0, m_server->SendURL(2, L"https://gone/"));
}

TEST_F(VirtServerTest, LateCloseIsIgnoredSecondOpenReplacesAndUnknownClosePublishesZeros)
{
    ASSERT_TRUE(StartServer());
    Command("open 2 auto");
    ASSERT_TRUE(WaitConnected(2));
    std::weak_ptr<CSessionHandler> first = m_server->FindSession(2);

    // A close naming an earlier session's GUID leaves the current one alone.
    Command(std::string("notify 2 close ") + kOtherGuid);
    ASSERT_TRUE(m_logger->WaitFor(L"CVirtServer::OnSessionClosed: : Session mismatch", 5s));
    EXPECT_EQ(first.lock(), m_server->FindSession(2));
    EXPECT_EQ(1, m_server->SendURL(2, L"https://kept/"));
    EXPECT_EQ((std::vector<uint32_t>{50}), m_status.States(2));

    Command("open 2 auto"); // opened again without a close
    ASSERT_TRUE(m_status.WaitForState(2, eCvUrlApiEvent_RdpConnected, 10s, 2));
    EXPECT_TRUE(first.expired());
    EXPECT_EQ(1u, m_logger->Count(L"CSessionHandler::ConnectionThread: Session 2: Stopped"));
    EXPECT_EQ(1u, m_logger->Count(L"CSessionHandler::ReadThread: Session 2: Stopped"));
    EXPECT_EQ(1u, Stats(2).liveConnections);
    EXPECT_EQ(1, m_server->SendURL(2, L"https://second/"));

    Command(std::string("notify 9 close ") + kOtherGuid);
    ASSERT_TRUE(m_status.WaitForState(9, eCvUrlApiEvent_RdpNotConnected, 5s));
    ChannelStatusRecord zero{}, published = m_status.Last();
    zero.dwState = eCvUrlApiEvent_RdpNotConnected;
    EXPECT_EQ(0, std::memcmp(&zero, &published, sizeof(zero)));
}

TEST_F(VirtServerTest, ConcurrentSendersDuringReconnectionNeverSplitAUrl)
{
    ASSERT_TRUE(StartServer());
    Command("peer 2 break-after=25");
    Command("open 2 auto");
    ASSERT_TRUE(WaitConnected(2));

    constexpr int kThreads = 4;
    constexpr int kPerThread = 150;
    std::vector<std::string> expected[kThreads];
    std::atomic<int> refused{0};
    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; ++t)
        senders.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i)
            {
                // Long enough that a split write would show, with characters of every width.
                const std::string tail = std::to_string(i) + "/" + std::string(200 + 13 * t, static_cast<char>('a' + t));
                const std::wstring url = L"https://t" + std::to_wstring(t) + L".example/\u00E9\u4F8B\U0001F600/" +
                                         std::wstring(tail.begin(), tail.end());
                if (m_server->SendURL(2, url))
                    expected[t].push_back("https://t" + std::to_string(t) +
                                          ".example/\xC3\xA9\xE4\xBE\x8B\xF0\x9F\x98\x80/" + tail);
                else
                {
                    ++refused;
                    // Pacing only, so that the run spans several reconnections.
                    std::this_thread::sleep_for(2ms);
                }
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
    EXPECT_EQ(kThreads * kPerThread, static_cast<int>(sent.size()) + refused.load());
}
