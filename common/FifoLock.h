#pragma once
// A lock that is granted in the order it was asked for. Ownership passes straight from the
// holder to the longest waiter, so no thread can overtake another: under a long queue every
// waiter waits about as long as the others, instead of a few waiting many turns while luckier
// ones barge in. Each waiter sleeps on its own condition, so a release wakes one thread only.
#include "common/Locks.h"

#include <cstddef>
#include <mutex>

namespace daxlib
{

class TS_CAPABILITY("mutex") fifo_lock
{
public:
    fifo_lock() noexcept = default;
    fifo_lock(const fifo_lock&) = delete;
    fifo_lock& operator=(const fifo_lock&) = delete;

    void lock() TS_ACQUIRE()
    {
        daxlib::unique_lock guard(m_srwQueue);
        if (!m_bHeld)
        {
            m_bHeld = true;
            return;
        }
        Waiter self;
        if (m_pTail)
            m_pTail->next = &self;
        else
            m_pHead = &self;
        m_pTail = &self;
        self.turn.wait(guard, [&]() TS_REQUIRES(m_srwQueue) { return self.granted; });
    }

    void unlock() TS_RELEASE()
    {
        daxlib::lock_guard guard(m_srwQueue);
        Waiter* next = m_pHead;
        if (!next)
        {
            m_bHeld = false;
            return;
        }
        m_pHead = next->next;
        if (!m_pHead)
            m_pTail = nullptr;
        // Still held: it is the waiter's now.
        next->granted = true;
        next->turn.notify_one();
    }

    size_t Waiting()
    {
        daxlib::lock_guard guard(m_srwQueue);
        size_t count = 0;
        for (const Waiter* w = m_pHead; w; w = w->next)
            ++count;
        return count;
    }

private:
    struct Waiter
    {
        condition_variable turn;
        Waiter* next = nullptr;
        bool granted = false;
    };

    srw_lock m_srwQueue;
    bool m_bHeld TS_GUARDED_BY(m_srwQueue) = false;
    Waiter* m_pHead TS_GUARDED_BY(m_srwQueue) = nullptr;
    Waiter* m_pTail TS_GUARDED_BY(m_srwQueue) = nullptr;
};

} // namespace daxlib
