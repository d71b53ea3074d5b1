#include "pipe/NamedPipeServer.h"
#include "tests/pipe/EchoOwner.h"
#include "tests/pipe/PipeTestSupport.h"

#include <random>
#include <thread>
#include <vector>

using namespace pipe_tests;

namespace
{
class ServerTest : public PoolTest
{
protected:
    std::shared_ptr<CNamedPipeServer> MakeServer(uint32_t accepts, uint32_t maxInstances = PIPE_UNLIMITED_INSTANCES)
    {
        m_name = testing_support::UniqueName(L"velomar-server");
        return std::make_shared<CNamedPipeServer>(m_name, maxInstances, accepts, nullptr, m_log);
    }
    std::wstring FullName() const { return L"\\\\.\\pipe\\" + m_name; }

    std::wstring m_name;
};
} // namespace

TEST_F(ServerTest, AcceptsAreClampedAndThatManyInstancesWait)
{
    m_log->SetLevel(LogLevel::Error);
    struct Case
    {
        uint32_t requested;
        uint32_t waiting;
    };
    for (Case c : {Case{0, 1}, Case{1, 1}, Case{3, 3}, Case{100, 100}, Case{101, 1}})
    {
        EchoOwner owner(m_log);
        auto server = MakeServer(c.requested);
        EXPECT_EQ(c.waiting, server->GetAccepts());
        ASSERT_TRUE(owner.Start(server));
        EXPECT_TRUE(Eventually([&] { return server->AcceptCount() == c.waiting; })) << c.requested;
        // A connected client is replaced by a new waiting instance.
        HANDLE client = OpenClient(FullName());
        ASSERT_NE(INVALID_HANDLE_VALUE, client);
        EXPECT_TRUE(Eventually([&] { return owner.Connects() == 1 && server->AcceptCount() == c.waiting; }));
        EXPECT_EQ(c.waiting, server->AcceptCount());
        ::CloseHandle(client);
        EXPECT_TRUE(Eventually([&] { return owner.Disconnects() == 1; }));
        server->EndWaitForConnection();
        EXPECT_EQ(0u, server->AcceptCount());
    }
}

TEST_F(ServerTest, EachConnectAndDisconnectIsReportedOnce)
{
    EchoOwner owner(m_log);
    auto server = MakeServer(3);
    ASSERT_TRUE(owner.Start(server));
    std::vector<HANDLE> clients;
    for (int i = 0; i < 8; ++i)
    {
        clients.push_back(OpenClient(FullName()));
        ASSERT_NE(INVALID_HANDLE_VALUE, clients.back());
    }
    ASSERT_TRUE(Eventually([&] { return owner.Connects() == 8; }));
    for (HANDLE client : clients)
        EXPECT_TRUE(RoundTrip(client, std::vector<unsigned char>(100, 7)));
    for (HANDLE client : clients)
        ::CloseHandle(client);
    ASSERT_TRUE(Eventually([&] { return owner.Disconnects() == 8; }));
    EXPECT_EQ(8, owner.Connects());
    EXPECT_EQ(0, owner.Duplicates());
    EXPECT_EQ(0u, server->ConnectionCount());
    EXPECT_EQ(0u, owner.Live());
    // A disconnect notification arriving twice is dropped by the once-only flag.
    EXPECT_EQ(8u, m_log->Count(L"Client disonnected: hPipe"));
    EXPECT_EQ(0u, m_log->Count(L"not found in the connection list"));
}

TEST_F(ServerTest, ClientArrivingBetweenCreateAndConnectIsConnected)
{
    RawPipePair pair; // the client opened before ConnectNamedPipe
    ASSERT_NE(INVALID_HANDLE_VALUE, pair.client);
    auto stream = std::make_shared<CNamedPipeServerStream>(m_log, std::make_shared<daxlib::unique_hfile>(pair.TakeServer()),
                                                           nullptr);
    EXPECT_TRUE(stream->ConnectAsync());
    EXPECT_EQ(ePipeConnectionState_Connected, stream->GetPipeConnectionState());
    EXPECT_EQ(::GetCurrentProcessId(), stream->GetClientProcessId());
    EXPECT_TRUE(m_log->Contains(L"ClientProcessId = "));
    // Nothing is left pending on the pool: reading works and the stream closes at once.
    EXPECT_TRUE(stream->BeginRead());
    stream->Close();
}

TEST_F(ServerTest, ConnectCallbackNotCalledWhenFirstReadCannotStart)
{
    // A pool of four threads, all held, so the connection's handling waits until the client is gone.
    auto small = std::make_shared<CThreadPool>(4, m_log);
    SetThreadPool(small);
    HANDLE gate = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    Counter held;
    for (int i = 0; i < 4; ++i)
        ASSERT_TRUE((small->CreateTask<void, int>(MakeGlobalCallback<void(int)>([&](int) {
                                                      held.Add();
                                                      ::WaitForSingleObject(gate, INFINITE);
                                                  }),
                                                  i)));
    ASSERT_TRUE(held.WaitAtLeast(4));
    {
        EchoOwner owner(m_log);
        auto server = MakeServer(1);
        ASSERT_TRUE(owner.Start(server));
        HANDLE client = OpenClient(FullName());
        ASSERT_NE(INVALID_HANDLE_VALUE, client);
        ASSERT_TRUE(m_log->WaitFor(L"ClientProcessId = ", kLimit));
        ::CloseHandle(client);
        ::SetEvent(gate);
        ASSERT_TRUE(m_log->WaitFor(L"Failed to start asynchronous read operation", kLimit));
        // The failure is logged before the stream leaves the list.
        EXPECT_TRUE(Eventually([&] { return server->ConnectionCount() == 0; }));
        EXPECT_EQ(0, owner.Connects());
        server->ResetCallback();
    }
    SetThreadPool(m_pool);
    small.reset();
    ::CloseHandle(gate);
    EXPECT_EQ(0u, m_log->Count(L"Client disonnected"));
}

TEST_F(ServerTest, EndWaitAndDestructionWithClientsConnected)
{
    ExpectNoLeaks([&] {
        std::vector<HANDLE> clients;
        {
            EchoOwner owner(m_log);
            auto server = MakeServer(3);
            ASSERT_TRUE(owner.Start(server));
            for (int i = 0; i < 4; ++i)
                clients.push_back(OpenClient(FullName()));
            ASSERT_TRUE(Eventually([&] { return owner.Connects() == 4; }));
            server->EndWaitForConnection();
            EXPECT_EQ(0u, server->AcceptCount());
            // Connected clients are still served after accepting ended.
            EXPECT_TRUE(RoundTrip(clients[0], {1, 2, 3}));
            EXPECT_TRUE(m_log->Contains(L"Thread stopped"));
            server.reset(); // destroyed with four clients connected; no callback reaches the owner afterwards
            EXPECT_EQ(0, owner.Disconnects());
        }
        for (HANDLE client : clients)
        {
            char byte;
            DWORD got = 0;
            EXPECT_FALSE(::ReadFile(client, &byte, 1, &got, nullptr)); // the server end is gone
            ::CloseHandle(client);
        }
    });
}

TEST_F(ServerTest, MisbehavingClientsDoNotStopOthers)
{
    m_log->SetLevel(LogLevel::Warning);
    ExpectNoLeaks([&] {
        EchoOwner owner(m_log);
        auto server = MakeServer(3);
        ASSERT_TRUE(owner.Start(server));
        // Writes large messages and never reads: the echo's writes pend.
        HANDLE writer = OpenClient(FullName());
        // Sends one byte at a time.
        HANDLE trickler = OpenClient(FullName());
        // Is served all along.
        HANDLE good = OpenClient(FullName());
        ASSERT_TRUE(writer != INVALID_HANDLE_VALUE && trickler != INVALID_HANDLE_VALUE && good != INVALID_HANDLE_VALUE);
        std::vector<unsigned char> big(4 + 60000, 9);
        const uint32_t bigLength = 60000;
        std::memcpy(big.data(), &bigLength, 4);
        EXPECT_TRUE(WriteAll(writer, big.data(), static_cast<DWORD>(big.size())));
        EXPECT_TRUE(WriteAll(writer, big.data(), static_cast<DWORD>(big.size())));

        std::atomic<bool> stop{false};
        std::atomic<int> vanished{0};
        std::thread vanisher([&] {
            // Connects and vanishes, over and over.
            while (!stop)
            {
                HANDLE h = OpenClient(FullName());
                if (h != INVALID_HANDLE_VALUE)
                {
                    ::CloseHandle(h);
                    ++vanished;
                }
            }
        });
        std::thread trickle([&] {
            std::vector<unsigned char> message(4 + 300);
            const uint32_t length = 300;
            std::memcpy(message.data(), &length, 4);
            for (size_t i = 4; i < message.size(); ++i)
                message[i] = static_cast<unsigned char>(i);
            for (unsigned char byte : message)
                WriteAll(trickler, &byte, 1);
            std::vector<unsigned char> echo(message.size());
            EXPECT_TRUE(ReadAll(trickler, echo.data(), static_cast<DWORD>(echo.size())));
            EXPECT_EQ(message, echo);
        });
        std::mt19937 random(7);
        int served = 0;
        for (; served < 100; ++served)
        {
            std::vector<unsigned char> payload(1 + random() % 3000);
            for (auto& b : payload)
                b = static_cast<unsigned char>(random());
            if (!RoundTrip(good, payload))
                break;
        }
        EXPECT_EQ(100, served);
        trickle.join();
        stop = true;
        vanisher.join();
        EXPECT_GT(vanished.load(), 0);
        ::CloseHandle(good);
        ::CloseHandle(trickler);
        ::CloseHandle(writer); // wakes the echo's pending write
        EXPECT_TRUE(Eventually([&] { return owner.Disconnects() == owner.Connects(); }));
        EXPECT_EQ(0, owner.Duplicates());
        EXPECT_EQ(0u, owner.Live());
        EXPECT_EQ(0u, server->ConnectionCount());
        server.reset();
    });
}

TEST_F(ServerTest, AcceptingCanBeResumedAfterItEnded)
{
    EchoOwner owner(m_log);
    auto server = MakeServer(2);
    ASSERT_TRUE(owner.Start(server));
    ASSERT_TRUE(Eventually([&] { return server->AcceptCount() == 2; }));
    server->EndWaitForConnection();
    EXPECT_EQ(0u, server->AcceptCount());
    ASSERT_TRUE(owner.Start(server)); // the accept thread and its stop event come back
    HANDLE client = OpenClient(FullName());
    ASSERT_NE(INVALID_HANDLE_VALUE, client);
    EXPECT_TRUE(RoundTrip(client, {4, 5, 6}));
    ::CloseHandle(client);
    EXPECT_TRUE(Eventually([&] { return owner.Disconnects() == 1 && server->AcceptCount() == 2; }));
}
