#include "pipe/NamedPipeServer.h"
#include "tests/pipe/EchoOwner.h"
#include "tests/pipe/PipeTestSupport.h"

#include <atomic>
#include <cstdlib>
#include <random>
#include <thread>
#include <vector>

using namespace pipe_tests;

namespace
{
constexpr int kClients = 200;

int Messages()
{
    const char* value = std::getenv("VELOMAR_LOAD_MESSAGES");
    return value ? std::atoi(value) : 200;
}

// Mostly small messages, now and then one up to 64 KiB.
size_t RandomSize(std::mt19937& random)
{
    return (random() % 16 == 0) ? 1 + random() % 65536 : 1 + random() % 1024;
}

class LoadTest : public PoolTest
{
protected:
    // All clients connect at once, then each runs its messages; returns the number of clients
    // whose every echo matched.
    int Run(int messages)
    {
        EchoOwner owner(m_log);
        const std::wstring name = testing_support::UniqueName(L"velomar-load");
        auto server = std::make_shared<CNamedPipeServer>(name, PIPE_UNLIMITED_INSTANCES, 3, nullptr, m_log);
        if (!owner.Start(server))
            return -1;
        const std::wstring fullName = L"\\\\.\\pipe\\" + name;
        std::atomic<int> ok{0};
        std::atomic<int> ready{0};
        HANDLE go = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
        std::vector<std::thread> clients;
        for (int c = 0; c < kClients; ++c)
            clients.emplace_back([&, c] {
                ++ready;
                ::WaitForSingleObject(go, INFINITE);
                HANDLE h = OpenClient(fullName);
                if (h == INVALID_HANDLE_VALUE)
                    return;
                std::mt19937 random(static_cast<unsigned>(c) * 7919u + static_cast<unsigned>(messages));
                bool good = true;
                for (int m = 0; m < messages && good; ++m)
                {
                    std::vector<unsigned char> payload(RandomSize(random));
                    // Client and sequence in every message, so a byte from another client or
                    // out of order fails the comparison.
                    for (size_t i = 0; i < payload.size(); ++i)
                        payload[i] = static_cast<unsigned char>(c * 31 + m * 7 + i);
                    good = RoundTrip(h, payload);
                }
                ::CloseHandle(h);
                if (good)
                    ++ok;
            });
        while (ready < kClients)
            ::Sleep(1);
        ::SetEvent(go);
        for (auto& t : clients)
            t.join();
        ::CloseHandle(go);
        EXPECT_TRUE(Eventually([&] { return owner.Disconnects() == kClients; }, 60s));
        EXPECT_EQ(kClients, owner.Connects());
        EXPECT_EQ(kClients, owner.Disconnects());
        EXPECT_EQ(0, owner.Duplicates());
        EXPECT_EQ(0u, owner.Live());
        EXPECT_EQ(0u, server->ConnectionCount());
        server->ResetCallback();
        server.reset();
        return ok.load();
    }
};
} // namespace

TEST_F(LoadTest, TwoHundredClientsAtOnce)
{
    m_log->SetLevel(LogLevel::Error);
    // A short run first, so that the pools have grown to their working size.
    ASSERT_EQ(kClients, Run(3));
    const long long handles = testing_support::CountProcessHandles();
    const long long threads = testing_support::CountProcessThreads();

    EXPECT_EQ(kClients, Run(Messages()));

    // Back to where the measured run started, once idle pool threads have retired (a few
    // handles of slack for pool threads that took their first lock during this run).
    EXPECT_TRUE(Eventually([&] { return testing_support::CountProcessHandles() <= handles + 2; }, 30s))
        << handles << " -> " << testing_support::CountProcessHandles();
    EXPECT_TRUE(Eventually([&] { return testing_support::CountProcessThreads() <= threads + 2; }, 30s))
        << threads << " -> " << testing_support::CountProcessThreads();
    EXPECT_EQ(0u, m_log->Count(L"not found in the"));
}
