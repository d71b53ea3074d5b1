#pragma once
// Shared pieces of the transport's tests: a private CThreadPool per test, a capturing logger,
// raw pipe pairs and a waitable counter.
#include "pipe/ThreadPool.h"
#include "tests/common/CapturingLogger.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
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

// Polls a condition until it holds or the limit passes (for state that has no event of its own).
inline bool Eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit = kLimit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition())
    {
        if (std::chrono::steady_clock::now() > end)
            return false;
        ::Sleep(5);
    }
    return true;
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

// Blocking helpers on a synchronous client handle.
inline bool WriteAll(HANDLE h, const void* data, DWORD length)
{
    DWORD done = 0;
    return ::WriteFile(h, data, length, &done, nullptr) && done == length;
}
inline bool ReadAll(HANDLE h, void* data, DWORD length)
{
    auto* p = static_cast<unsigned char*>(data);
    while (length > 0)
    {
        DWORD got = 0;
        if (!::ReadFile(h, p, length, &got, nullptr) || got == 0)
            return false;
        p += got;
        length -= got;
    }
    return true;
}

} // namespace pipe_tests
