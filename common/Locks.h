#pragma once
// Locks on the system's own primitives. They can be used with std::lock_guard, std::unique_lock
// and std::shared_lock. Unlike std::mutex and std::recursive_mutex in MinGW's runtime, whose
// destructors do nothing, they give back what contention made the system allocate for them.
#include <windows.h>

#include <chrono>
#include <mutex>

namespace daxlib
{

// Recursive, like every critical section.
class critical_section
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

    void lock() noexcept { ::EnterCriticalSection(&m_cs); }
    bool try_lock() noexcept { return ::TryEnterCriticalSection(&m_cs) != FALSE; }
    void unlock() noexcept { ::LeaveCriticalSection(&m_cs); }

private:
    CRITICAL_SECTION m_cs;
};

// Not recursive; exclusive or shared.
class srw_lock
{
public:
    srw_lock() noexcept = default;
    srw_lock(const srw_lock&) = delete;
    srw_lock& operator=(const srw_lock&) = delete;

    void lock() noexcept { ::AcquireSRWLockExclusive(&m_srw); }
    bool try_lock() noexcept { return ::TryAcquireSRWLockExclusive(&m_srw) != FALSE; }
    void unlock() noexcept { ::ReleaseSRWLockExclusive(&m_srw); }
    void lock_shared() noexcept { ::AcquireSRWLockShared(&m_srw); }
    bool try_lock_shared() noexcept { return ::TryAcquireSRWLockShared(&m_srw) != FALSE; }
    void unlock_shared() noexcept { ::ReleaseSRWLockShared(&m_srw); }
    PSRWLOCK native_handle() noexcept { return &m_srw; }

private:
    SRWLOCK m_srw = SRWLOCK_INIT;
};

// A condition variable for an srw_lock held exclusively; like the lock, it owns nothing that
// would need giving back.
class condition_variable
{
public:
    condition_variable() noexcept = default;
    condition_variable(const condition_variable&) = delete;
    condition_variable& operator=(const condition_variable&) = delete;

    void notify_one() noexcept { ::WakeConditionVariable(&m_cv); }
    void notify_all() noexcept { ::WakeAllConditionVariable(&m_cv); }

    template <class Predicate> void wait(std::unique_lock<srw_lock>& lock, Predicate ready)
    {
        while (!ready())
            ::SleepConditionVariableSRW(&m_cv, lock.mutex()->native_handle(), INFINITE, 0);
    }

    // Whether `ready` held before `limit` ran out.
    template <class Rep, class Period, class Predicate>
    bool wait_for(std::unique_lock<srw_lock>& lock, std::chrono::duration<Rep, Period> limit, Predicate ready)
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
