#pragma once
// Locks on the system's own primitives. They can be used with std::lock_guard, std::unique_lock
// and std::shared_lock. Unlike std::mutex and std::recursive_mutex in MinGW's runtime, whose
// destructors do nothing, they give back what contention made the system allocate for them.
#include <windows.h>

namespace daxlib
{

// Recursive, like every critical section.
class critical_section
{
public:
    critical_section() noexcept { ::InitializeCriticalSection(&m_cs); }
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

    void lock() noexcept { ::AcquireSRWLockExclusive(&m_lock); }
    bool try_lock() noexcept { return ::TryAcquireSRWLockExclusive(&m_lock) != FALSE; }
    void unlock() noexcept { ::ReleaseSRWLockExclusive(&m_lock); }
    void lock_shared() noexcept { ::AcquireSRWLockShared(&m_lock); }
    bool try_lock_shared() noexcept { return ::TryAcquireSRWLockShared(&m_lock) != FALSE; }
    void unlock_shared() noexcept { ::ReleaseSRWLockShared(&m_lock); }

private:
    SRWLOCK m_lock = SRWLOCK_INIT;
};

} // namespace daxlib
