#pragma once
// A mutex on a slim reader/writer lock. Logging threads contend for it on every record, and
// unlike a mutex built on kernel events it waits without a system round trip when contended
// briefly.
#include <windows.h>

class CSrwMutex
{
public:
    CSrwMutex() = default;
    CSrwMutex(const CSrwMutex&) = delete;
    CSrwMutex& operator=(const CSrwMutex&) = delete;
    void lock() noexcept { ::AcquireSRWLockExclusive(&m_lock); }
    void unlock() noexcept { ::ReleaseSRWLockExclusive(&m_lock); }
    bool try_lock() noexcept { return ::TryAcquireSRWLockExclusive(&m_lock) != FALSE; }

private:
    SRWLOCK m_lock = SRWLOCK_INIT;
};
