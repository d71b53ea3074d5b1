#pragma once
// Shared pieces of the transport's tests: a private CThreadPool per test, a capturing logger,
// raw pipe pairs and a waitable counter.
#include "pipe/ThreadPool.h"
#include "tests/common/CapturingLogger.h"
#include "tests/common/RawPipeClient.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <vector>
#include <memory>
#include <mutex>
#include <string>

namespace pipe_tests
{

using namespace std::chrono_literals;
constexpr auto kLimit = 20s; // generous: Wine on two shared cores

// A counter that tests wait on.
class Counter
{
public:
    void Add(int n = 1)
    {
        {
            std::lock_guard lock(m_mutex);
            m_value += n;
        }
        m_changed.notify_all();
    }
    int Get() const
    {
        std::lock_guard lock(m_mutex);
        return m_value;
    }
    bool WaitAtLeast(int value, std::chrono::milliseconds limit = kLimit) const
    {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, limit, [&] { return m_value >= value; });
    }

private:
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    int m_value = 0;
};

using testing_support::Eventually;

// Runs a scenario until the process's pools have grown to their working size, then `runs` more
// times, and expects no growth that follows the number of runs. A small slack remains: under
// Wine each pool thread that first takes a lock gets an event and a thread handle from the
// threading runtime, and which pool thread runs a task is not ours to choose. A leak of one
// handle per connection or per run exceeds it; more runs allow a larger slack.
inline void ExpectNoLeaks(const std::function<void()>& scenario, int warmUps = 2, int runs = 3, long long slack = 2)
{
    for (int i = 0; i < warmUps; ++i)
        scenario();
    const long long handles = testing_support::CountProcessHandles();
    const long long threads = testing_support::CountProcessThreads();
    for (int i = 0; i < runs; ++i)
        scenario();
    EXPECT_TRUE(Eventually([&] { return testing_support::CountProcessHandles() <= handles + slack; }, 15s))
        << "handles " << handles << " -> " << testing_support::CountProcessHandles();
    EXPECT_TRUE(Eventually([&] { return testing_support::CountProcessThreads() <= threads + slack; }, 15s))
        << "threads " << threads << " -> " << testing_support::CountProcessThreads();
}

class PoolTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_log = std::make_shared<testing_support::CapturingLogger>(LogLevel::Trace);
        m_pool = std::make_shared<CThreadPool>(64, std::make_shared<testing_support::CapturingLogger>(LogLevel::Error));
        SetThreadPool(m_pool);
    }
    void TearDown() override
    {
        SetThreadPool(nullptr);
        m_pool.reset();
    }

    std::shared_ptr<testing_support::CapturingLogger> m_log;
    std::shared_ptr<CThreadPool> m_pool;
};

// A server instance (overlapped) and a connected client end (synchronous unless asked).
struct RawPipePair
{
    std::wstring name;
    HANDLE server = INVALID_HANDLE_VALUE;
    HANDLE client = INVALID_HANDLE_VALUE;

    explicit RawPipePair(bool overlappedClient = false, DWORD buffer = 1024)
    {
        name = L"\\\\.\\pipe\\" + testing_support::UniqueName(L"velomar-pipe-test");
        server = ::CreateNamedPipeW(name.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED, 0, 1, buffer, buffer, 1000,
                                    nullptr);
        client = ::CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                               overlappedClient ? FILE_FLAG_OVERLAPPED : 0, nullptr);
    }
    ~RawPipePair()
    {
        CloseClient();
        if (server != INVALID_HANDLE_VALUE)
            ::CloseHandle(server);
    }
    void CloseClient()
    {
        if (client != INVALID_HANDLE_VALUE)
            ::CloseHandle(std::exchange(client, INVALID_HANDLE_VALUE));
    }
    // Hands the server end to an owner that closes it.
    HANDLE TakeServer() { return std::exchange(server, INVALID_HANDLE_VALUE); }
};

using testing_support::OpenClient;
using testing_support::ReadAll;
using testing_support::WriteAll;

// One message of the echo protocol (32-bit length, payload) and its echo.
inline bool RoundTrip(HANDLE client, const std::vector<unsigned char>& payload)
{
    const uint32_t length = static_cast<uint32_t>(payload.size());
    std::vector<unsigned char> message(4 + payload.size());
    std::memcpy(message.data(), &length, 4);
    std::memcpy(message.data() + 4, payload.data(), payload.size());
    if (!WriteAll(client, message.data(), static_cast<DWORD>(message.size())))
        return false;
    std::vector<unsigned char> echo(message.size());
    return ReadAll(client, echo.data(), static_cast<DWORD>(echo.size())) && echo == message;
}

} // namespace pipe_tests
