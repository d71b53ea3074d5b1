#include "pipe/NamedPipeServer.h"
#include "tests/pipe/EchoOwner.h"
#include "tests/pipe/PipeTestSupport.h"

#include <atomic>
#include <cstdlib>
#include <latch>
#include <random>
#include <thread>
#include <vector>

using namespace pipetests;

namespace
{
constexpr int kClients = 200;

// All clients connect at once, then each sends its messages, mostly small, now and then one up
// to 64 KiB; returns the number of clients whose every echo matched.
int RunClients(const std::shared_ptr<testsupport::CapturingLogger>& log, int messages)
{
    EchoOwner owner(log);
    const std::wstring name = testsupport::UniqueName(L"velomar-load");
    auto server = std::make_shared<CNamedPipeServer>(name, PIPE_UNLIMITED_INSTANCES, 3, nullptr, log);
    if (!owner.Start(server))
        return -1;
    std::atomic<int> ok{0};
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
                for (int m = 0; m < messages && good; ++m)
                {
                    std::vector<unsigned char> payload((random() % 16 == 0) ? 1 + random() % 65536
                                                                            : 1 + random() % 1024);
                    // Client and sequence in every message, so a byte from another client or out of
                    // order fails the comparison.
                    for (size_t i = 0; i < payload.size(); ++i)
                        payload[i] = static_cast<unsigned char>(c * 31 + m * 7 + i);
                    good = RoundTrip(h.get(), payload);
                }
                ok += good ? 1 : 0;
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
    return ok.load();
}
} // namespace

using LoadTest = PoolTest;

TEST_F(LoadTest, TwoHundredClientsAtOnce)
{
    m_log->SetLevel(LogLevel::Error);
    // A short run first, so that the pools have grown to their working size.
    ASSERT_EQ(kClients, RunClients(m_log, 3));
    const char* messages = std::getenv("VELOMAR_LOAD_MESSAGES");
    EXPECT_EQ(kClients, RunClients(m_log, messages ? std::atoi(messages) : 200));
    EXPECT_EQ(0u, m_log->Count(L"not found in the"));
}
