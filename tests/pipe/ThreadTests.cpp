#include "pipe/SignalQueueThread.h"
#include "tests/pipe/PipeTestSupport.h"

#include <stdexcept>
#include <thread>
#include <vector>

using namespace pipe_tests;
using testing_support::CapturingLogger;

namespace
{
struct Item
{
    int value;
};

class ThreadTest : public ::testing::Test
{
protected:
    std::shared_ptr<CapturingLogger> m_log = std::make_shared<CapturingLogger>(LogLevel::Trace);
};

// A task that runs until its stop event is set.
int WaitForStop(void* stopEvent, void*)
{
    return ::WaitForSingleObject(static_cast<HANDLE>(stopEvent), INFINITE) == WAIT_OBJECT_0 ? 7 : -1;
}
} // namespace

TEST_F(ThreadTest, StartTwiceAndStopBeforeStart)
{
    CJoinableThread<int> thread(MakeGlobalCallback<int(void*, void*)>(&WaitForStop), nullptr, m_log);
    EXPECT_EQ(0, thread.Stop()); // never started
    EXPECT_FALSE(thread.IsRunning());
    ASSERT_EQ(1, thread.Start());
    EXPECT_TRUE(thread.IsRunning());
    EXPECT_EQ(0, thread.Start());
    EXPECT_EQ(1u, m_log->Count(L"New thread has been created.")); // the second Start created nothing
    EXPECT_EQ(1, thread.Stop());
    EXPECT_EQ(7, thread.GetResult());
    EXPECT_FALSE(thread.IsRunning());
    thread.Wait(); // a second join does nothing
    // A stopped thread can be started again.
    ASSERT_EQ(1, thread.Start());
    EXPECT_EQ(1, thread.Stop());
    EXPECT_EQ(2u, m_log->Count(L"The thread ended. TID:"));
}

TEST_F(ThreadTest, EmptyTaskThrows)
{
    try
    {
        CJoinableThread<int> thread(std::shared_ptr<CCallbackHolder<int(void*)>>(), nullptr, m_log);
        FAIL() << "no exception";
    }
    catch (daxlib::CDaxException* raw)
    {
        daxlib::DaxExceptionPtr e(raw);
        EXPECT_EQ(86u, e->Line());
        EXPECT_EQ(L"CJoinableThread", e->Module());
        EXPECT_EQ(L"Invalid parameter 'task': it is required, but NULL", e->Description());
    }
}

TEST_F(ThreadTest, ExceptionsInTasksAndHandlersAreLoggedAndEndTheThread)
{
    CJoinableThread<int> dax(MakeGlobalCallback<int(void*)>([](void*) -> int {
                                 ::SetLastError(5);
                                 daxlib::ThrowDaxException(L"Worker", 12, L"bad");
                             }),
                             nullptr, m_log);
    ASSERT_EQ(1, dax.Start());
    dax.Wait();
    EXPECT_TRUE(m_log->Contains(L"Exception: Error(5), Module(\"Worker\"), Line(12), Desc(\"bad\")"));

    CJoinableThread<int> std(MakeGlobalCallback<int(void*)>([](void*) -> int { throw std::runtime_error("boom"); }),
                             nullptr, m_log);
    ASSERT_EQ(1, std.Start());
    std.Wait();
    EXPECT_TRUE(m_log->Contains(L"Desc(\"boom\")"));

    // A queue handler's exception ends the queue thread the same way.
    CSignalQueueThread<Item> queue(
        MakeGlobalCallback<int(Item&)>([](Item&) -> int { throw std::logic_error("handler failed"); }), m_log);
    ASSERT_EQ(1, queue.Start());
    ASSERT_EQ(1, queue.Push(Item{1}));
    EXPECT_TRUE(m_log->WaitFor(L"Desc(\"handler failed\")", kLimit));
    EXPECT_EQ(1, queue.Stop());
}

TEST_F(ThreadTest, QueueHandsOutEverythingPushedBeforeStopInOrder)
{
    std::vector<int> seen;
    std::mutex seenLock;
    auto handler = MakeGlobalCallback<int(Item&)>([&](Item& item) {
        std::lock_guard lock(seenLock);
        seen.push_back(item.value);
        return 0;
    });
    CSignalQueueThread<Item> queue(handler, m_log);
    EXPECT_EQ(0, queue.Push(Item{-1})); // not running yet
    ASSERT_EQ(1, queue.Start());
    EXPECT_EQ(0, queue.Start());
    // Pushers on several threads; each one's items must stay in its own order.
    std::vector<std::thread> pushers;
    for (int p = 0; p < 4; ++p)
        pushers.emplace_back([&, p] {
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
        const int p = value / 1000;
        EXPECT_GT(value % 1000, last[p]);
        last[p] = value % 1000;
    }
    EXPECT_TRUE(m_log->Contains(L"Stop on exit event. Exit..."));
    EXPECT_TRUE(m_log->Contains(L"Item>::SignalHandler: (125)"));
    EXPECT_TRUE(m_log->Contains(L"CSignalQueueThread<struct "));
}

TEST_F(ThreadTest, StopForceDropsTheQueue)
{
    HANDLE gate = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    Counter handled;
    auto handler = MakeGlobalCallback<int(Item&)>([&](Item&) {
        handled.Add();
        ::WaitForSingleObject(gate, INFINITE);
        return 0;
    });
    CSignalQueueThread<Item> queue(handler, m_log);
    ASSERT_EQ(1, queue.Start());
    ASSERT_EQ(1, queue.Push(Item{0}));
    ASSERT_TRUE(handled.WaitAtLeast(1)); // the handler holds the first item
    for (int i = 1; i <= 10; ++i)
        ASSERT_EQ(1, queue.Push(Item{i}));
    std::thread stopper([&] { queue.StopForce(); });
    EXPECT_TRUE(Eventually([&] { return queue.GetState() == CJoinableThread<int>::eStateStopping; }));
    ::SetEvent(gate);
    stopper.join();
    EXPECT_EQ(1, handled.Get());
    EXPECT_FALSE(queue.IsRunning());
    ::CloseHandle(gate);
}
