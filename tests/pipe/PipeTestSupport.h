#pragma once
// Shared pieces of the transport's tests: a private CThreadPool per test, a capturing logger,
// raw pipe pairs and a waitable counter.
#include "common/UniqueHandle.h"
#include "pipe/NamedPipeStream.h"
#include "pipe/PipeRequest.h"
#include "pipe/ThreadPool.h"
#include "tests/common/CapturingLogger.h"
#include "tests/common/RawPipeClient.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <vector>

namespace pipetests
{

using namespace std::chrono_literals;
using testsupport::Eventually;
using testsupport::OpenClient;
using testsupport::ReadAll;
using testsupport::WriteAll;
constexpr auto kLimit = 20s; // generous: Wine on two shared cores

using ReadSignature = void(std::shared_ptr<unsigned char[]>, unsigned long, unsigned long, PIPE_OVERLAPPED*);

// A counter that tests wait on.
class Counter
{
public:
    void Add()
    {
        std::lock_guard lock(m_mutex);
        ++m_value;
        m_changed.notify_all();
    }
    int Get() const
    {
        std::lock_guard lock(m_mutex);
        return m_value;
    }
    bool WaitAtLeast(int value) const
    {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, kLimit, [&] { return m_value >= value; });
    }

private:
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    int m_value = 0;
};

// Expects the process's handle and thread counts to come back to `handles`/`threads` within the
// slack: under Wine each pool thread that first takes a lock gets an event and a thread handle
// from the threading runtime, and which pool thread runs a task is not ours to choose.
inline void ExpectCountsBack(long long handles, long long threads, long long slack = 2)
{
    EXPECT_TRUE(Eventually([&] { return testsupport::CountProcessHandles() <= handles + slack; }, 30s))
        << "handles " << handles << " -> " << testsupport::CountProcessHandles();
    EXPECT_TRUE(Eventually([&] { return testsupport::CountProcessThreads() <= threads + slack; }, 30s))
        << "threads " << threads << " -> " << testsupport::CountProcessThreads();
}

// Runs a scenario until the pools have grown to their working size, then `runs` more times: a
// leak of one handle per connection or per run exceeds the slack; more runs allow a larger one.
inline void ExpectNoLeaks(const std::function<void()>& scenario, int warmUps = 2, int runs = 3,
                          long long slack = 2)
{
    for (int i = 0; i < warmUps; ++i)
        scenario();
    const long long handles = testsupport::CountProcessHandles();
    const long long threads = testsupport::CountProcessThreads();
    for (int i = 0; i < runs; ++i)
        scenario();
    ExpectCountsBack(handles, threads, slack);
}

// A server instance (overlapped) and a connected synchronous client end.
struct RawPipePair
{
    RawPipePair() = default;
    explicit RawPipePair(DWORD pipeMode) : mode(pipeMode) {}

    DWORD mode = 0; // byte mode unless told
    std::wstring name = L"\\\\.\\pipe\\" + testsupport::UniqueName(L"velomar-pipe-test");
    daxlib::unique_hfile server{::CreateNamedPipeW(name.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                                                   mode, 1, 1024, 1024, 1000, nullptr)};
    daxlib::unique_hfile client{
        ::CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr)};
};

class PoolTest : public ::testing::Test
{
protected:
    void SetUp() override { SetThreadPool(m_pool); }
    void TearDown() override
    {
        SetThreadPool(nullptr);
        m_pool.reset();
    }
    // A stream on the pair's server end, in the given state.
    std::shared_ptr<CNamedPipeStream> MakeStream(RawPipePair& pair,
                                                 uint32_t state = ePipeConnectionState_Connected)
    {
        auto stream = std::make_shared<CNamedPipeStream>(
            m_log, std::make_shared<daxlib::unique_hfile>(pair.server.release()), nullptr);
        if (state != ePipeConnectionState_WaitConnection)
            stream->SetPipeConnectionState(state);
        return stream;
    }

    std::shared_ptr<testsupport::CapturingLogger> m_log =
        std::make_shared<testsupport::CapturingLogger>(LogLevel::Trace);
    std::shared_ptr<testsupport::CapturingLogger> m_poolLog =
        std::make_shared<testsupport::CapturingLogger>(LogLevel::Error);
    std::shared_ptr<CThreadPool> m_pool = std::make_shared<CThreadPool>(64, m_poolLog);
};

// Records what each completion brought.
struct Completions
{
    Counter calls;
    unsigned long lastStatus = 0xFFFFFFFF;
    std::vector<unsigned char> lastData;
    CPipeRequest* retire = nullptr; // the request whose records the callbacks end
    void On(std::shared_ptr<unsigned char[]> data, unsigned long bytes, unsigned long status,
            PIPE_OVERLAPPED* record)
    {
        lastStatus = status;
        lastData.assign(data.get(), data.get() + (status == 0 && data ? bytes : 0));
        if (retire)
            retire->EndAsync(record);
        calls.Add();
    }
    std::shared_ptr<CCallbackHolder<ReadSignature>> Callback()
    {
        return MakeMemberCallback<ReadSignature>(this, &Completions::On);
    }
};

// One read of `bytes` through a request object of its own, waited for; `reads` keeps what it
// brought and its status.
inline bool ReadOnce(const std::shared_ptr<CNamedPipeStream>& stream, std::shared_ptr<ICvLogger> log,
                     uint32_t bytes, Completions& reads)
{
    CPipeClientRequest request(stream, std::move(log));
    reads.retire = &request;
    const bool done = request.ReadAsync(bytes, reads.Callback(), new PIPE_OVERLAPPED()) &&
                      reads.calls.WaitAtLeast(reads.calls.Get() + 1);
    reads.retire = nullptr;
    return done;
}

// A message of the echo protocol: a 32-bit length and the payload.
inline std::vector<unsigned char> EchoMessage(const std::vector<unsigned char>& payload)
{
    const uint32_t length = static_cast<uint32_t>(payload.size());
    std::vector<unsigned char> message(4 + payload.size());
    std::memcpy(message.data(), &length, 4);
    std::copy(payload.begin(), payload.end(), message.begin() + 4);
    return message;
}

// One message of the echo protocol and its echo.
inline bool RoundTrip(HANDLE client, const std::vector<unsigned char>& payload)
{
    const auto message = EchoMessage(payload);
    std::vector<unsigned char> echo(message.size());
    return WriteAll(client, message.data(), static_cast<DWORD>(message.size())) &&
           ReadAll(client, echo.data(), static_cast<DWORD>(echo.size())) && echo == message;
}

} // namespace pipetests
