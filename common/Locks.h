#pragma once
// Locks on the system's own primitives, and the scoped holders to take them with. Unlike
// std::mutex and std::recursive_mutex in MinGW's runtime, whose destructors do nothing, they give
// back what contention made the system allocate for them. The holders here, not the standard
// ones, tell clang's thread-safety analysis which lock a scope holds.
#include "common/ThreadSafety.h"

#include <windows.h>

#include <chrono>
#include <mutex>

namespace daxlib
{

// Recursive, like every critical section.
class TS_CAPABILITY("mutex") critical_section
{
public:
    critical_section() noexcept { ::InitializeCriticalSection(&m_cs); }
    // A lock held for a few copies at a time spins this often before it sleeps.
    explicit critical_section(DWORD spinCount) noexcept
    {
        ::InitializeCriticalSectionAndSpinCount(&m_cs, spinCount);
    }
    ~critical_section() { ::DeleteCriticalSection(&m_cs); }
    critical_section(const critical_section&) = delete;
    critical_section& operator=(const critical_section&) = delete;

    void lock() noexcept TS_ACQUIRE() { ::EnterCriticalSection(&m_cs); }
    bool try_lock() noexcept TS_TRY_ACQUIRE(true) { return ::TryEnterCriticalSection(&m_cs) != FALSE; }
    void unlock() noexcept TS_RELEASE() { ::LeaveCriticalSection(&m_cs); }

private:
    CRITICAL_SECTION m_cs{};
};

// Not recursive; exclusive or shared.
class TS_CAPABILITY("mutex") srw_lock
{
public:
    srw_lock() noexcept = default;
    srw_lock(const srw_lock&) = delete;
    srw_lock& operator=(const srw_lock&) = delete;

    void lock() noexcept TS_ACQUIRE() { ::AcquireSRWLockExclusive(&m_srw); }
    bool try_lock() noexcept TS_TRY_ACQUIRE(true) { return ::TryAcquireSRWLockExclusive(&m_srw) != FALSE; }
    void unlock() noexcept TS_RELEASE() { ::ReleaseSRWLockExclusive(&m_srw); }
    void lock_shared() noexcept TS_ACQUIRE_SHARED() { ::AcquireSRWLockShared(&m_srw); }
    bool try_lock_shared() noexcept TS_TRY_ACQUIRE_SHARED(true)
    {
        return ::TryAcquireSRWLockShared(&m_srw) != FALSE;
    }
    void unlock_shared() noexcept TS_RELEASE_SHARED() { ::ReleaseSRWLockShared(&m_srw); }
    PSRWLOCK native_handle() noexcept { return &m_srw; }

private:
    SRWLOCK m_srw = SRWLOCK_INIT;
};

// Holds `lock` exclusively for the scope.
template <class Lock> class TS_SCOPED_CAPABILITY lock_guard
{
public:
    explicit lock_guard(Lock& lock) TS_ACQUIRE(lock) : m_lock(lock) { m_lock.lock(); }
    ~lock_guard() TS_RELEASE() { m_lock.unlock(); }
    lock_guard(const lock_guard&) = delete;
    lock_guard& operator=(const lock_guard&) = delete;

private:
    Lock& m_lock;
};

// Holds `lock` shared for the scope.
template <class Lock> class TS_SCOPED_CAPABILITY shared_lock
{
public:
    explicit shared_lock(Lock& lock) TS_ACQUIRE_SHARED(lock) : m_lock(lock) { m_lock.lock_shared(); }
    ~shared_lock() TS_RELEASE() { m_lock.unlock_shared(); }
    shared_lock(const shared_lock&) = delete;
    shared_lock& operator=(const shared_lock&) = delete;

private:
    Lock& m_lock;
};

// Holds `lock` exclusively, may let it go and take it again within the scope, and is what a
// condition_variable waits with. Not movable: a lock that changes hands between scopes is one
// the analysis cannot follow.
template <class Lock> class TS_SCOPED_CAPABILITY unique_lock
{
public:
    explicit unique_lock(Lock& lock) TS_ACQUIRE(lock) : m_lock(lock) { lock.lock(); }
    ~unique_lock() TS_RELEASE()
    {
        if (m_bOwns)
            m_lock.unlock();
    }
    unique_lock(const unique_lock&) = delete;
    unique_lock& operator=(const unique_lock&) = delete;

    void lock() TS_ACQUIRE()
    {
        m_lock.lock();
        m_bOwns = true;
    }
    void unlock() TS_RELEASE()
    {
        m_bOwns = false;
        m_lock.unlock();
    }
    bool owns_lock() const noexcept { return m_bOwns; }
    Lock* mutex() const noexcept { return &m_lock; }

private:
    Lock& m_lock;
    bool m_bOwns = true;
};

// A condition variable for an srw_lock held exclusively; like the lock, it owns nothing that
// would need giving back. The analysis cannot see that a predicate runs with the lock held, so
// each predicate says so itself (`[&]() TS_REQUIRES(m_lock) { ... }`) and the wait, which lets
// the lock go and takes it back inside the system's call, is not analysed.
class condition_variable
{
public:
    condition_variable() noexcept = default;
    condition_variable(const condition_variable&) = delete;
    condition_variable& operator=(const condition_variable&) = delete;

    void notify_one() noexcept { ::WakeConditionVariable(&m_cv); }
    void notify_all() noexcept { ::WakeAllConditionVariable(&m_cv); }

    template <class Predicate> void wait(unique_lock<srw_lock>& lock, Predicate ready) TS_NO_ANALYSIS
    {
        while (!ready())
            ::SleepConditionVariableSRW(&m_cv, lock.mutex()->native_handle(), INFINITE, 0);
    }

    // Whether `ready` held before `limit` ran out.
    template <class Rep, class Period, class Predicate>
    bool wait_for(unique_lock<srw_lock>& lock, std::chrono::duration<Rep, Period> limit,
                  Predicate ready) TS_NO_ANALYSIS
    {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (!ready())
        {
            const auto left =
                std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
            if (left <= 0)
                return ready();
            const DWORD slice =
                left >= static_cast<long long>(INFINITE) ? INFINITE - 1 : static_cast<DWORD>(left);
            ::SleepConditionVariableSRW(&m_cv, lock.mutex()->native_handle(), slice, 0);
        }
        return true;
    }

private:
    CONDITION_VARIABLE m_cv = CONDITION_VARIABLE_INIT;
};

} // namespace daxlib
