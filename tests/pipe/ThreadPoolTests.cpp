#include "pipe/ThreadPoolIo.h"
#include "tests/pipe/PipeTestSupport.h"

#include <stdexcept>

using namespace pipe_tests;

namespace
{
using TestIo = CThreadPoolIo<int>;

struct IoProbe
{
    Counter completions;
    unsigned long lastResult = 0xFFFFFFFF;
    int Callback(unsigned long result, TestIo::Request&, unsigned long long, TestIo*, void*)
    {
        lastResult = result;
        completions.Add();
        return 1;
    }
};

std::shared_ptr<TestIo> MakeIo(HANDLE h, IoProbe& probe, std::shared_ptr<ICvLogger> log)
{
    return std::make_shared<TestIo>(h, L"test", log,
                                    MakeMemberCallback<int(unsigned long, TestIo::Request&, unsigned long long, TestIo*, void*)>(
                                        &probe, &IoProbe::Callback));
}
} // namespace

using ThreadPoolTest = PoolTest;

TEST_F(ThreadPoolTest, FuturesCarryResultsAndExceptionsAndEmptyCallbacksAreRefused)
{
    std::future<int> value;
    ASSERT_TRUE(m_pool->CreateTask<int>(value, MakeGlobalCallback<int(int)>([](int x) { return x * 3; }), 14));
    EXPECT_EQ(42, value.get());

    std::future<int> failed;
    ASSERT_TRUE(m_pool->CreateTask<int>(
        failed, MakeGlobalCallback<int(int)>([](int) -> int { throw std::out_of_range("range"); }), 0));
    EXPECT_THROW(failed.get(), std::out_of_range);

    std::future<int> dax;
    ASSERT_TRUE(m_pool->CreateTask<int>(dax, MakeGlobalCallback<int(int)>([](int) -> int {
                                            daxlib::ThrowDaxException(L"Task", 9, L"in task");
                                        }),
                                        0));
    try
    {
        dax.get();
        FAIL() << "no exception";
    }
    catch (const std::runtime_error& e)
    {
        EXPECT_STREQ("daxlib exception", e.what());
    }

    // An empty callback is refused with 87.
    std::future<int> refused;
    ::SetLastError(0);
    EXPECT_FALSE(m_pool->CreateTask<int>(refused, std::shared_ptr<CCallbackHolder<int(int)>>(), 1));
    EXPECT_EQ(87u, ::GetLastError());
    EXPECT_EQ(0, refused.get());
    ::SetLastError(0);
    EXPECT_FALSE((m_pool->CreateTask<void, int>(std::shared_ptr<CCallbackHolder<void(int)>>(), 1)));
    EXPECT_EQ(87u, ::GetLastError());
}

TEST_F(ThreadPoolTest, VoidTaskExceptionsAreLoggedAndGroupsCount)
{
    auto log = std::make_shared<testing_support::CapturingLogger>();
    auto pool = std::make_shared<CThreadPool>(8, log);
    auto group = std::make_shared<CGroupTask>();
    for (int i = 0; i < 5; ++i)
        ASSERT_TRUE((pool->CreateGroupTask<void, int>(group, MakeGlobalCallback<void(int)>([](int n) {
                                                          if (n % 2)
                                                              daxlib::ThrowDaxException(L"Odd", 3, L"odd");
                                                      }),
                                                      i)));
    ASSERT_TRUE(group->WaitCompleted(5, 20000));
    EXPECT_EQ(2u, log->Count(L"CThreadPool::WorkCallbackVoid: (360)"));
    EXPECT_EQ(2u, log->Count(L"Exception => Descr: \"daxlib exception\""));
    pool.reset(); // Close waits for everything; nothing escaped
    EXPECT_TRUE(log->Contains(L"Close threadpool: wait callbacks... Success"));
}

TEST_F(ThreadPoolTest, IoCancelOfCompletedRequestAndStartAfterStop)
{
    RawPipePair pair;
    ASSERT_NE(INVALID_HANDLE_VALUE, pair.client);
    IoProbe probe;
    auto io = MakeIo(pair.server, probe, m_log);
    EXPECT_TRUE(io->Stop()); // never started
    ASSERT_TRUE(io->Start());

    auto request = std::make_shared<CRequestIo<int>>(1);
    ASSERT_TRUE(io->StartIo(request));
    char data[16] = "hello";
    DWORD written = 0;
    const BOOL ok = ::WriteFile(pair.server, data, sizeof(data), &written, &request->overlapped);
    ASSERT_TRUE(ok || ::GetLastError() == ERROR_IO_PENDING);
    ASSERT_TRUE(probe.completions.WaitAtLeast(1));
    EXPECT_EQ(0u, probe.lastResult);
    EXPECT_FALSE(io->Cancel(request, FALSE)); // completed: no longer listed
    EXPECT_FALSE(io->Cancel(nullptr, FALSE));

    EXPECT_TRUE(io->Stop());
    EXPECT_FALSE(io->StartIo(std::make_shared<CRequestIo<int>>(2)));
    EXPECT_EQ(0u, io->OutstandingCount());
}

TEST_F(ThreadPoolTest, SynchronousFailureBalancedByCancel)
{
    RawPipePair pair;
    pair.CloseClient();
    IoProbe probe;
    auto io = MakeIo(pair.server, probe, m_log);
    ASSERT_TRUE(io->Start());
    for (int i = 0; i < 3; ++i)
    {
        auto request = std::make_shared<CRequestIo<int>>(i);
        ASSERT_TRUE(io->StartIo(request));
        char buffer[8];
        ASSERT_FALSE(::ReadFile(pair.server, buffer, sizeof(buffer), nullptr, &request->overlapped));
        ASSERT_NE(static_cast<DWORD>(ERROR_IO_PENDING), ::GetLastError());
        io->Cancel(request, TRUE);
    }
    EXPECT_EQ(0u, io->OutstandingCount());
    // A pending read that is cancelled by Stop completes through the callback.
    RawPipePair live;
    IoProbe liveProbe;
    auto liveIo = MakeIo(live.server, liveProbe, m_log);
    ASSERT_TRUE(liveIo->Start());
    auto pending = std::make_shared<CRequestIo<int>>(9);
    ASSERT_TRUE(liveIo->StartIo(pending));
    char buffer[8];
    ASSERT_FALSE(::ReadFile(live.server, buffer, sizeof(buffer), nullptr, &pending->overlapped));
    ASSERT_EQ(static_cast<DWORD>(ERROR_IO_PENDING), ::GetLastError());
    EXPECT_TRUE(liveIo->Stop()); // returns: nothing left pending on the pool
    EXPECT_EQ(0u, liveIo->OutstandingCount());
    EXPECT_TRUE(io->Stop());
    EXPECT_EQ(0, probe.completions.Get());
}
