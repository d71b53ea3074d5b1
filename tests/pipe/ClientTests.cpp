#include "pipe/NamedPipeClient.h"
#include "pipe/NamedPipeServer.h"
#include "pipe/PipeRequest.h"
#include "tests/pipe/EchoOwner.h"
#include "tests/pipe/PipeTestSupport.h"

#include <chrono>

using namespace pipetests;

namespace
{
class ClientTest : public PoolTest
{
protected:
    std::shared_ptr<CNamedPipeClient> MakeClient()
    {
        return std::make_shared<CNamedPipeClient>(m_name, nullptr, m_log);
    }
    void TearDown() override
    {
        m_server.reset(); // the server and its owner go before the pool
        m_owner.reset();
        PoolTest::TearDown();
    }
    // A client that retries, counting its connects and disconnects.
    std::shared_ptr<CNamedPipeClient> MakeRetryingClient()
    {
        auto client = MakeClient();
        client->SetReconnect(true);
        client->SetCallbacks(MakeGlobalCallback<void(void*)>([this](void*) { m_connected.Add(); }),
                             MakeGlobalCallback<void(void*)>([this](void*) { m_disconnected.Add(); }));
        return client;
    }
    bool StartServer()
    {
        m_server = std::make_shared<CNamedPipeServer>(m_name, PIPE_UNLIMITED_INSTANCES, 1, nullptr, m_log);
        return m_owner->Start(m_server);
    }

    std::wstring m_name = testsupport::UniqueName(L"velomar-client");
    Counter m_connected;
    Counter m_disconnected;
    std::unique_ptr<EchoOwner> m_owner = std::make_unique<EchoOwner>(m_log);
    std::shared_ptr<CNamedPipeServer> m_server;
};
} // namespace

TEST_F(ClientTest, WithoutReconnectAFailureIsNotRetried)
{
    auto single = MakeClient();
    ASSERT_TRUE(single->CreateConnectTimer());
    ASSERT_TRUE(Eventually([&] { return single->GetTimerShots() == 1; }));
    single->Close();
    EXPECT_EQ(1u, single->GetTimerShots());
    EXPECT_FALSE(m_log->Contains(L"Shedule next connection..."));
}

TEST_F(ClientTest, RetriesOneShotPerFailureUntilAServerStarts)
{
    auto client = MakeRetryingClient();
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(client->CreateConnectTimer());
    ASSERT_TRUE(m_log->WaitFor(L"Shedule next connection...", kLimit, 3));
    // Each shot follows the previous failure by 200 ms: three failures take at least 600 ms.
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(600));
    EXPECT_FALSE(m_log->Contains(L"Unable to connect to instance of named pipe"));
    ASSERT_TRUE(StartServer());
    ASSERT_TRUE(m_connected.WaitAtLeast(1));
    client->Close();
    EXPECT_LE(m_log->Count(L"Shedule next connection..."),
              client->GetTimerShots()); // never two re-arms per shot
}

TEST_F(ClientTest, RequestRoundTripsThroughTheClientsStream)
{
    ASSERT_TRUE(StartServer());
    auto client = MakeRetryingClient();
    ASSERT_TRUE(client->CreateConnectTimer());
    ASSERT_TRUE(m_connected.WaitAtLeast(1));
    CPipeClientRequest request(client->GetStream(), m_log);
    const unsigned char message[] = {3, 0, 0, 0, 'a', 'b', 'c'};
    ASSERT_TRUE(request.Write(message, sizeof(message)));
    Completions read;
    read.retire = &request;
    ASSERT_TRUE(request.ReadAsync(sizeof(message), read.Callback(), new PIPE_OVERLAPPED()));
    ASSERT_TRUE(read.calls.WaitAtLeast(1));
    EXPECT_EQ(std::vector<unsigned char>(message, message + sizeof(message)), read.lastData);
    client->Close();
}

TEST_F(ClientTest, ServerGoingAwayEndsTheStreamOnce)
{
    ASSERT_TRUE(StartServer());
    auto client = MakeRetryingClient();
    ASSERT_TRUE(client->CreateConnectTimer());
    ASSERT_TRUE(m_connected.WaitAtLeast(1));
    m_server.reset();
    ASSERT_TRUE(m_disconnected.WaitAtLeast(1));
    EXPECT_TRUE(Eventually([&] { return client->GetStream() == nullptr; }));
    EXPECT_EQ(1, m_disconnected.Get());
    client->Close();
}

TEST_F(ClientTest, AllInstancesBusyBoundsTheWait)
{
    m_log->SetLevel(LogLevel::Warning);
    m_server = std::make_shared<CNamedPipeServer>(m_name, 1, 1, nullptr, m_log);
    ASSERT_TRUE(m_owner->Start(m_server));
    auto first = MakeClient();
    ASSERT_TRUE(first->Connect(2000));
    ASSERT_TRUE(Eventually([&] { return m_owner->Connects() == 1; }));

    auto second = MakeClient();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(second->Connect(200));
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(static_cast<DWORD>(ERROR_SEM_TIMEOUT), ::GetLastError());
    EXPECT_GE(waited, std::chrono::milliseconds(150));
    EXPECT_LT(waited, std::chrono::milliseconds(2000)); // about 200 ms in all, not 200 ms per attempt
    first->Close();
    second->Close();
}

TEST_F(ClientTest, AccessDeniedEndsTheRetries)
{
    // A pipe the server only reads from: a client asking to read and write is refused access.
    daxlib::unique_hfile pipe(::CreateNamedPipeW((L"\\\\.\\pipe\\" + m_name).c_str(),
                                                 PIPE_ACCESS_INBOUND | FILE_FLAG_OVERLAPPED, 0, 1, 1024, 1024,
                                                 1000, nullptr));
    ASSERT_TRUE(pipe);
    auto client = MakeClient();
    client->SetReconnect(true);
    ASSERT_TRUE(client->CreateConnectTimer());
    const auto denied =
        L"Unable to connect to instance of named pipe. GLE=" + std::to_wstring(ERROR_ACCESS_DENIED);
    ASSERT_TRUE(m_log->WaitFor(denied, kLimit));
    client->Close();
    EXPECT_EQ(1u, client->GetTimerShots());
    EXPECT_FALSE(m_log->Contains(L"Shedule next connection..."));
}
