// The server: sessions follow the library's notifications, URLs go to their own session, and
// concurrent senders never split a message.
#include "tests/virt/VirtTestSupport.h"

#include "tests/common/TestSupport.h"

#include <shlobj.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <fstream>
#include <sstream>
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
    const auto published = m_status.All().back();
    ChannelStatusRecord zero{};
    zero.dwState = eCvUrlApiEvent_RdpNotConnected;
    EXPECT_EQ(0, std::memcmp(&zero, &published.record, sizeof(zero)));
}

TEST_F(VirtServerTest, ConcurrentSendersDuringReconnectionNeverSplitAUrl)
{
    ASSERT_TRUE(StartServer());
    Command("peer 2 break-after=25");
    Command("open 2 auto");
    ASSERT_TRUE(WaitConnected(2));

    constexpr int kThreads = 4;
    constexpr int kPerThread = 150;
    std::vector<std::vector<std::string>> delivered(kThreads);
    std::atomic<int> refused{0};
    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; ++t)
        senders.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i)
            {
                // Long enough that a split write would show, with characters of every width.
                const std::wstring url = L"https://t" + std::to_wstring(t) + L".example/\u00E9\u4F8B\U0001F600/" +
                                         std::to_wstring(i) + L"/" + std::wstring(200 + 13 * t, L'a' + t);
                if (m_server->SendURL(2, url))
                {
                    const int n = ::WideCharToMultiByte(CP_UTF8, 0, url.data(), static_cast<int>(url.size()),
                                                        nullptr, 0, nullptr, nullptr);
                    std::string utf8(static_cast<size_t>(n), '\0');
                    ::WideCharToMultiByte(CP_UTF8, 0, url.data(), static_cast<int>(url.size()), utf8.data(), n,
                                          nullptr, nullptr);
                    delivered[t].push_back(utf8);
                }
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

    std::vector<std::string> expected;
    for (const auto& d : delivered)
        expected.insert(expected.end(), d.begin(), d.end());
    std::vector<std::string> received = Urls(2);
    std::sort(expected.begin(), expected.end());
    std::sort(received.begin(), received.end());
    // Whole, once each, and only what was reported sent.
    EXPECT_EQ(expected.size(), received.size());
    std::vector<std::string> difference;
    std::set_symmetric_difference(expected.begin(), expected.end(), received.begin(), received.end(),
                                  std::back_inserter(difference));
    EXPECT_TRUE(difference.empty()) << difference.size() << " differ, first: " << difference.front().substr(0, 40);
    const StandinStats stats = Stats(2);
    EXPECT_EQ(0u, stats.malformed);
    EXPECT_EQ(0u, stats.otherMessages);
    EXPECT_GE(stats.connectAttempts, 2u) << "the run should have crossed a reconnection";
    EXPECT_EQ(kThreads * kPerThread, static_cast<int>(expected.size()) + refused.load());
}

TEST_F(VirtServerTest, ScenarioFileAndControlPipeScriptTheLibrary)
{
    testing_support::TempDir dir(L"virt-scenario");
    const std::wstring sink = dir.File(L"got.txt");
    {
        std::ofstream scenario(dir.File(L"cvskapi.scenario").c_str());
        std::string sinkPath(sink.begin(), sink.end());
        scenario << "# two sessions\nopen 4 auto 1 Scripted\nsink 4 " << sinkPath << "\n";
    }
    ::SetEnvironmentVariableW(L"CVSKAPI_STANDIN_SCENARIO", dir.File(L"cvskapi.scenario").c_str());
    ASSERT_TRUE(StartServer());
    ASSERT_TRUE(WaitConnected(4));
    EXPECT_EQ(L"Scripted", m_server->FindSession(4)->GetName());
    EXPECT_EQ(1, m_server->SendURL(4, L"https://\u00E9.example/"));
    EXPECT_EQ("https://\xC3\xA9.example/\n", testing_support::ReadFileBytes(sink));

    // skeinctl in another process opens a session through the control pipe.
    std::wstring commandLine = L"\"" + BuildPath(VIRT_SKEINCTL_EXE) + L"\" open 6 auto 1 From afar";
    STARTUPINFOW si{};
    si.cb = sizeof(si);
    PROCESS_INFORMATION pi{};
    ASSERT_TRUE(::CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi));
    daxlib::unique_handle process(pi.hProcess), thread(pi.hThread);
    ASSERT_EQ(WAIT_OBJECT_0, ::WaitForSingleObject(process.get(), 30000));
    DWORD exitCode = 99;
    ::GetExitCodeProcess(process.get(), &exitCode);
    EXPECT_EQ(0u, exitCode);
    ASSERT_TRUE(WaitConnected(6));
    EXPECT_EQ(L"From afar", m_server->FindSession(6)->GetName());
}

TEST_F(VirtServerTest, WithoutScenarioSessionOneWritesWhatItReceivesToTheDemoFile)
{
    wchar_t folder[MAX_PATH] = {};
    ASSERT_TRUE(::SHGetSpecialFolderPathW(nullptr, folder, CSIDL_COMMON_APPDATA, FALSE));
    const std::wstring demoFile = std::wstring(folder) + L"\\Corvane\\Skein Standin\\received.txt";
    ::DeleteFileW(demoFile.c_str());
    ::SetEnvironmentVariableW(L"CVSKAPI_STANDIN_SCENARIO", nullptr);
    ::SetEnvironmentVariableW(L"CVSKAPI_STANDIN_PIPE", nullptr); // the name the demo uses

    ASSERT_TRUE(StartServer());
    ASSERT_TRUE(WaitConnected(1));
    EXPECT_EQ(1, m_server->SendURL(1, L"https://demo.example/one"));
    EXPECT_EQ(1, m_server->SendURL(1, L"https://demo.example/\u00E9"));
    EXPECT_EQ("https://demo.example/one\nhttps://demo.example/\xC3\xA9\n", testing_support::ReadFileBytes(demoFile));
    ::DeleteFileW(demoFile.c_str());
}
