#include "pipe/SignalQueueThread.h"
#include "pipe/ThreadPoolIo.h"
#include "tests/pipe/PipeTestSupport.h"

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

using namespace pipetests;

namespace
{
struct Item
{
    int value;
};

using ThreadTest = PoolTest;

int WaitForStop(void* stopEvent, void*)
{
    return ::WaitForSingleObject(static_cast<HANDLE>(stopEvent), INFINITE) == WAIT_OBJECT_0 ? 7 : -1;
}

using TestIo = CThreadPoolIo<int>;

// Counts the I/O's completions and keeps the last result.
std::shared_ptr<TestIo> MakeIo(HANDLE h, std::shared_ptr<ICvLogger> log, Counter& completions,
                               std::atomic<unsigned long>& result)
{
    return std::make_shared<TestIo>(
        h, L"test", log,
        MakeGlobalCallback<int(unsigned long, TestIo::Request&, unsigned long long, TestIo*, void*)>(
            [&](unsigned long r, TestIo::Request&, unsigned long long, TestIo*, void*)
            {
                result = r;
                completions.Add();
                return 1;
            }));
}
} // namespace

TEST_F(ThreadTest, StartTwiceStopBeforeStartAndEmptyTask)
{
    CJoinableThread<int> thread(MakeGlobalCallback<int(void*, void*)>(&WaitForStop), nullptr, m_log);
    EXPECT_EQ(0, thread.Stop()); // never started
    ASSERT_EQ(1, thread.Start());
    EXPECT_TRUE(thread.IsRunning());
    EXPECT_EQ(0, thread.Start());
    EXPECT_EQ(1u, m_log->Count(L"New thread has been created.")); // the second Start created nothing
    EXPECT_EQ(1, thread.Stop());
    EXPECT_EQ(7, thread.GetResult());
    EXPECT_FALSE(thread.IsRunning());
    thread.Wait();                // a second join does nothing
    ASSERT_EQ(1, thread.Start()); // a stopped thread can be started again
    EXPECT_EQ(1, thread.Stop());

    try
    {
        CJoinableThread<int> empty(std::shared_ptr<CCallbackHolder<int(void*)>>(), nullptr, m_log);
        ADD_FAILURE() << "an empty task was accepted";
    }
    catch (daxlib::CDaxException* raw)
    {
        EXPECT_EQ(L"CJoinableThread", daxlib::DaxExceptionPtr(raw)->Module());
    }
}

TEST_F(ThreadTest, ExceptionsInTasksAndHandlersAreLoggedAndEndTheThread)
{
    const std::pair<std::shared_ptr<CCallbackHolder<int(void*)>>, const wchar_t*> tasks[] = {
        {MakeGlobalCallback<int(void*)>(
             [](void*) -> int
             {
                 ::SetLastError(ERROR_ACCESS_DENIED);
                 daxlib::ThrowDaxException(L"Worker", 12, L"bad");
             }),
         L"Exception: Error(5), Module(\"Worker\"), Line(12), Desc(\"bad\")"},
        {MakeGlobalCallback<int(void*)>([](void*) -> int { throw std::runtime_error("boom"); }),
         L"Desc(\"boom\")"}};
    for (const auto& [task, logged] : tasks)
    {
        CJoinableThread<int> thread(task, nullptr, m_log);
        ASSERT_EQ(1, thread.Start());
        thread.Wait();
        EXPECT_TRUE(m_log->Contains(logged));
    }
    CSignalQueueThread<Item> queue(
        MakeGlobalCallback<int(Item&)>([](Item&) -> int { throw std::logic_error("handler failed"); }),
        m_log);
    ASSERT_EQ(1, queue.Start());
    ASSERT_EQ(1, queue.Push(Item{1}));
    EXPECT_TRUE(m_log->WaitFor(L"Desc(\"handler failed\")", kLimit));
    EXPECT_EQ(1, queue.Stop());
}

TEST_F(ThreadTest, QueueHandsOutEverythingPushedBeforeStopInOrder)
{
    std::vector<int> seen;
    std::mutex seenLock;
    CSignalQueueThread<Item> queue(MakeGlobalCallback<int(Item&)>(
                                       [&](Item& item)
                                       {
                                           std::lock_guard lock(seenLock);
                                           seen.push_back(item.value);
                                           return 0;
                                       }),
                                   m_log);
    EXPECT_EQ(0, queue.Push(Item{-1})); // not running yet
    ASSERT_EQ(1, queue.Start());
    EXPECT_EQ(0, queue.Start());
    // Pushers on several threads; each one's items must stay in its own order.
    std::vector<std::thread> pushers;
    for (int p = 0; p < 4; ++p)
        pushers.emplace_back(
            [&, p]
            {
                for (int i = 0; i < 500; ++i)
                    EXPECT_EQ(1, queue.Push(Item{p * 1000 + i}));
            });
    for (auto& t : pushers)
        t.join();
    EXPECT_EQ(1, queue.Stop());
    EXPECT_EQ(0, queue.Push(Item{99999}));
    ASSERT_EQ(2000u, seen.size());
    int last[4] = {-1, -1, -1, -1};
    for (int value : seen)
    {
        EXPECT_GT(value % 1000, last[value / 1000]);
        last[value / 1000] = value % 1000;
    }
}

TEST_F(ThreadTest, StopForceDropsTheQueue)
{
    daxlib::unique_handle gate(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    Counter handled;
    CSignalQueueThread<Item> queue(MakeGlobalCallback<int(Item&)>(
                                       [&](Item&)
                                       {
                                           handled.Add();
                                           ::WaitForSingleObject(gate.get(), INFINITE);
                                           return 0;
                                       }),
                                   m_log);
    ASSERT_EQ(1, queue.Start());
    ASSERT_EQ(1, queue.Push(Item{0}));
    ASSERT_TRUE(handled.WaitAtLeast(1)); // the handler holds the first item
    for (int i = 1; i <= 10; ++i)
        ASSERT_EQ(1, queue.Push(Item{i}));
    std::thread stopper([&] { queue.StopForce(); });
    EXPECT_TRUE(Eventually([&] { return queue.GetState() == CJoinableThread<int>::eStateStopping; }));
    ::SetEvent(gate.get());
    stopper.join();
    EXPECT_EQ(1, handled.Get());
    EXPECT_FALSE(queue.IsRunning());
}

TEST_F(ThreadTest, PoolFuturesCarryResultsAndExceptions)
{
    std::future<int> value;
    ASSERT_TRUE(
        m_pool->CreateTask<int>(value, MakeGlobalCallback<int(int)>([](int x) { return x * 3; }), 14));
    EXPECT_EQ(42, value.get());
    std::future<int> failed;
    ASSERT_TRUE(m_pool->CreateTask<int>(
        failed, MakeGlobalCallback<int(int)>([](int) -> int { throw std::out_of_range("range"); }), 0));
    EXPECT_THROW(failed.get(), std::out_of_range);
    std::future<int> dax;
    ASSERT_TRUE(m_pool->CreateTask<int>(
        dax,
        MakeGlobalCallback<int(int)>([](int) -> int { daxlib::ThrowDaxException(L"Task", 9, L"in task"); }),
        0));
    EXPECT_THROW(dax.get(), std::runtime_error); // not the raw exception pointer
}

TEST_F(ThreadTest, PoolRefusesAnEmptyCallbackWithInvalidParameter)
{
    std::future<int> refused;
    ::SetLastError(0);
    EXPECT_FALSE(m_pool->CreateTask<int>(refused, std::shared_ptr<CCallbackHolder<int(int)>>(), 1));
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_PARAMETER), ::GetLastError());
    EXPECT_EQ(0, refused.get());
    ::SetLastError(0);
    EXPECT_FALSE((m_pool->CreateTask<void, int>(std::shared_ptr<CCallbackHolder<void(int)>>(), 1)));
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_PARAMETER), ::GetLastError());
}

// Void tasks have no future: their exceptions are logged, and the group still counts them.
TEST_F(ThreadTest, PoolLogsExceptionsOfVoidTasksAndCountsThemDone)
{
    auto group = std::make_shared<CGroupTask>();
    const auto throwOnOdd = MakeGlobalCallback<void(int)>(
        [](int n)
        {
            if (n % 2)
                daxlib::ThrowDaxException(L"Odd", 3, L"odd");
        });
    for (int i = 0; i < 5; ++i)
        ASSERT_TRUE((m_pool->CreateGroupTask<void, int>(group, throwOnOdd, i)));
    ASSERT_TRUE(group->WaitCompleted(5, 20000));
    EXPECT_EQ(2u, m_poolLog->Count(L"CThreadPool::WorkCallbackVoid: (360)"));
    m_pool.reset(); // Close waits for everything; nothing escaped
    SetThreadPool(nullptr);
}

namespace
{
// An I/O object on the server end of a connected raw pair.
class PoolIoTest : public ThreadTest
{
protected:
    void TearDown() override
    {
        m_io.reset(); // before the pool goes
        ThreadTest::TearDown();
    }
    // Starts a read that waits for data, or fails at once when the client has gone.
    BOOL StartRead(int id)
    {
        m_last = std::make_shared<CRequestIo<int>>(id);
        EXPECT_TRUE(m_io->StartIo(m_last));
        return ::ReadFile(m_pair.server.get(), m_data, sizeof(m_data), nullptr, &m_last->overlapped);
    }

    RawPipePair m_pair;
    Counter m_completions;
    std::atomic<unsigned long> m_result{0xFFFFFFFF};
    std::shared_ptr<TestIo> m_io = MakeIo(m_pair.server.get(), m_log, m_completions, m_result);
    std::shared_ptr<CRequestIo<int>> m_last;
    char m_data[16] = "hello";
};
} // namespace

TEST_F(PoolIoTest, CancelAfterCompletionFindsNothingToCancel)
{
    EXPECT_TRUE(m_io->Stop()); // never started
    ASSERT_TRUE(m_io->Start());
    auto request = std::make_shared<CRequestIo<int>>(1);
    ASSERT_TRUE(m_io->StartIo(request));
    const BOOL ok = ::WriteFile(m_pair.server.get(), m_data, sizeof(m_data), nullptr, &request->overlapped);
    ASSERT_TRUE(ok || ::GetLastError() == ERROR_IO_PENDING);
    ASSERT_TRUE(m_completions.WaitAtLeast(1));
    EXPECT_EQ(0u, m_result.load());
    EXPECT_FALSE(m_io->Cancel(request, FALSE)); // completed: no longer listed
    EXPECT_FALSE(m_io->Cancel(nullptr, FALSE));
}

// A pending read is cancelled by Stop and completes through the callback; Stop returns.
TEST_F(PoolIoTest, StopCancelsAPendingReadAndRefusesLaterStarts)
{
    ASSERT_TRUE(m_io->Start());
    ASSERT_FALSE(StartRead(2));
    ASSERT_EQ(static_cast<DWORD>(ERROR_IO_PENDING), ::GetLastError());
    EXPECT_TRUE(m_io->Stop());
    EXPECT_FALSE(m_io->StartIo(std::make_shared<CRequestIo<int>>(3)));
    EXPECT_EQ(0u, m_io->OutstandingCount());
}

// Reads failing at once are balanced by Cancel, or Stop would wait for them for ever.
TEST_F(PoolIoTest, SynchronousFailuresAreBalancedByCancel)
{
    m_pair.client.reset();
    ASSERT_TRUE(m_io->Start());
    for (int i = 0; i < 3; ++i)
    {
        ASSERT_FALSE(StartRead(i));
        ASSERT_NE(static_cast<DWORD>(ERROR_IO_PENDING), ::GetLastError());
        m_io->Cancel(m_last, TRUE);
    }
    EXPECT_EQ(0u, m_io->OutstandingCount());
    EXPECT_TRUE(m_io->Stop());
    EXPECT_EQ(0, m_completions.Get());
}
