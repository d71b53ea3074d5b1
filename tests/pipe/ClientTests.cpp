#include "pipe/NamedPipeClient.h"
#include "pipe/NamedPipeServer.h"
#include "pipe/PipeRequest.h"
#include "tests/pipe/EchoOwner.h"
#include "tests/pipe/PipeTestSupport.h"

#include <chrono>

using namespace pipe_tests;

namespace
{
class ClientTest : public PoolTest
{
protected:
    std::shared_ptr<CNamedPipeClient> MakeClient() { return std::make_shared<CNamedPipeClient>(m_name, nullptr, m_log); }
    std::wstring m_name = testing_support::UniqueName(L"velomar-client");
};
} // namespace

TEST_F(ClientTest, RetriesOneShotPerFailureUntilAServerStarts)
{
    // Without the flag a failure is not retried.
    auto single = MakeClient();
    ASSERT_TRUE(single->CreateConnectTimer());
    ASSERT_TRUE(Eventually([&] { return single->GetTimerShots() == 1; }));
    single->Close();
    EXPECT_EQ(1u, single->GetTimerShots());
    EXPECT_FALSE(m_log->Contains(L"Shedule next connection..."));

    auto client = MakeClient();
    client->SetReconnect(true);
    Counter connected;
    Counter disconnected;
    client->SetCallbacks(MakeGlobalCallback<void(void*)>([&](void*) { connected.Add(); }),
                         MakeGlobalCallback<void(void*)>([&](void*) { disconnected.Add(); }));
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(client->CreateConnectTimer());
    ASSERT_TRUE(m_log->WaitFor(L"Shedule next connection...", kLimit, 3));
    // Each shot follows the previous failure by 200 ms: three failures take at least 600 ms.
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(600));
    EXPECT_FALSE(m_log->Contains(L"Unable to connect to instance of named pipe"));

    EchoOwner owner(m_log);
    auto server = std::make_shared<CNamedPipeServer>(m_name, PIPE_UNLIMITED_INSTANCES, 1, nullptr, m_log);
    ASSERT_TRUE(owner.Start(server));
    ASSERT_TRUE(connected.WaitAtLeast(1));
    auto stream = client->GetStream();
    ASSERT_TRUE(stream);
    // A round trip through the client's stream and request object.
    CPipeClientRequest request(stream, m_log);
    const unsigned char message[] = {3, 0, 0, 0, 'a', 'b', 'c'};
    ASSERT_TRUE(request.Write(message, sizeof(message)));
    Completions read;
    read.retire = &request;
    ASSERT_TRUE(request.ReadAsync(sizeof(message), read.Callback(), new PIPE_OVERLAPPED()));
    ASSERT_TRUE(read.calls.WaitAtLeast(1));
    EXPECT_EQ(std::vector<unsigned char>(message, message + sizeof(message)), read.lastData);

    // The server going away ends the client's stream once.
    server.reset();
    ASSERT_TRUE(disconnected.WaitAtLeast(1));
    EXPECT_TRUE(Eventually([&] { return client->GetStream() == nullptr; }));
    EXPECT_EQ(1, disconnected.Get());
    client->Close();
    EXPECT_LE(m_log->Count(L"Shedule next connection..."), client->GetTimerShots()); // never two re-arms for one shot
}

TEST_F(ClientTest, AllInstancesBusyBoundsTheWait)
{
    m_log->SetLevel(LogLevel::Warning);
    EchoOwner owner(m_log);
    auto server = std::make_shared<CNamedPipeServer>(m_name, 1, 1, nullptr, m_log);
    ASSERT_TRUE(owner.Start(server));
    auto first = MakeClient();
    ASSERT_TRUE(first->Connect(2000));
    ASSERT_TRUE(Eventually([&] { return owner.Connects() == 1; }));

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
    daxlib::unique_hfile pipe(::CreateNamedPipeW((L"\\\\.\\pipe\\" + m_name).c_str(), PIPE_ACCESS_INBOUND | FILE_FLAG_OVERLAPPED,
                                                 0, 1, 1024, 1024, 1000, nullptr));
    ASSERT_TRUE(pipe);
    auto client = MakeClient();
    client->SetReconnect(true);
    ASSERT_TRUE(client->CreateConnectTimer());
    ASSERT_TRUE(m_log->WaitFor(L"Unable to connect to instance of named pipe. GLE=5", kLimit));
    client->Close();
    EXPECT_EQ(1u, client->GetTimerShots());
    EXPECT_FALSE(m_log->Contains(L"Shedule next connection..."));
}
