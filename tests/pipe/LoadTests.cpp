#include "pipe/NamedPipeServer.h"
#include "tests/pipe/EchoOwner.h"
#include "tests/pipe/PipeTestSupport.h"

#include <cstdlib>
#include <latch>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

using namespace pipetests;

namespace
{
constexpr int kClients = 200;

// What the service side logged, as far as the test's level lets it through: a failure here is
// rare, and its message should say why.
std::string Records(const testsupport::CapturingLogger& log)
{
    std::string text;
    for (const auto& record : log.Records())
        for (wchar_t ch : record.text + L"\n")
            text += static_cast<char>(ch < 128 ? ch : '?');
    return text;
}

// All clients connect at once, then each sends its messages, mostly small, now and then one up
// to 64 KiB; returns which clients failed, where and with which error (empty when every echo
// matched).
std::string RunClients(const std::shared_ptr<testsupport::CapturingLogger>& log, int messages)
{
    EchoOwner owner(log);
    const std::wstring name = testsupport::UniqueName(L"velomar-load");
    auto server = std::make_shared<CNamedPipeServer>(name, PIPE_UNLIMITED_INSTANCES, 3, nullptr, log);
    if (!owner.Start(server))
        return "the server did not start";
    std::mutex failuresLock;
    std::string failures;
    std::latch start(kClients);
    std::vector<std::thread> clients;
    for (int c = 0; c < kClients; ++c)
        clients.emplace_back(
            [&, c]
            {
                start.arrive_and_wait();
                daxlib::unique_hfile h(OpenClient(L"\\\\.\\pipe\\" + name));
                std::mt19937 random(static_cast<unsigned>(c) * 7919u + static_cast<unsigned>(messages));
                bool good = h.valid();
                int m = 0;
                for (; m < messages && good; ++m)
                {
                    std::vector<unsigned char> payload((random() % 16 == 0) ? 1 + random() % 65536
                                                                            : 1 + random() % 1024);
                    // Client and sequence in every message, so a byte from another client or out of
                    // order fails the comparison.
                    for (size_t i = 0; i < payload.size(); ++i)
                        payload[i] = static_cast<unsigned char>(c * 31 + m * 7 + i);
                    good = RoundTrip(h.get(), payload);
                }
                if (!good)
                {
                    const unsigned long error = ::GetLastError();
                    std::lock_guard lock(failuresLock);
                    failures +=
                        "client " + std::to_string(c) +
                        (h.valid() ? " at message " + std::to_string(m - 1) : std::string(" opening")) +
                        ", error " + std::to_string(error) + "\n";
                }
            });
    for (auto& t : clients)
        t.join();
    EXPECT_TRUE(Eventually([&] { return owner.Disconnects() == kClients; }, 60s));
    EXPECT_EQ(kClients, owner.Connects());
    EXPECT_EQ(kClients, owner.Disconnects());
    EXPECT_EQ(0, owner.Duplicates());
    EXPECT_EQ(0u, owner.Live());
    EXPECT_EQ(0u, server->ConnectionCount());
    server->ResetCallback();
    return failures;
}
} // namespace

using LoadTest = PoolTest;

TEST_F(LoadTest, TwoHundredClientsAtOnce)
{
    m_log->SetLevel(LogLevel::Error);
    // A short run first, so that the pools have grown to their working size.
    ASSERT_EQ("", RunClients(m_log, 3)) << Records(*m_log);
    const char* messages = std::getenv("VELOMAR_LOAD_MESSAGES");
    EXPECT_EQ("", RunClients(m_log, messages ? std::atoi(messages) : 200)) << Records(*m_log);
    // No completion may come for a request the binding does not know. (A write's own completion
    // that lost the race with the cancel-all of a departing client is logged apart; that is
    // allowed.)
    EXPECT_EQ(0u, m_log->Count(L"CThreadPoolIo::IoCompletionCallback: (213)")) << Records(*m_log);
}
