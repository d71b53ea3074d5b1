#pragma once
// One small owner type per kind of Windows resource. reset() keeps the thread's last-error
// value, because callers usually log GetLastError() after cleaning up.
#include <windows.h>
#include <utility>

namespace daxlib
{

template <typename Traits> class unique_resource
{
public:
    using pointer = typename Traits::pointer;

    unique_resource() noexcept = default;
    explicit unique_resource(pointer value) noexcept : m_value(value) {}
    ~unique_resource() { reset(); }

    unique_resource(const unique_resource&) = delete;
    unique_resource& operator=(const unique_resource&) = delete;
    unique_resource(unique_resource&& other) noexcept : m_value(other.release()) {}
    unique_resource& operator=(unique_resource&& other) noexcept
    {
        if (this != &other)
            reset(other.release());
        return *this;
    }

    void reset(pointer value = Traits::invalid()) noexcept
    {
        pointer old = std::exchange(m_value, value);
        if (old != Traits::invalid())
        {
            const DWORD lastError = ::GetLastError();
            Traits::close(old);
            ::SetLastError(lastError);
        }
    }
    [[nodiscard]] pointer release() noexcept { return std::exchange(m_value, Traits::invalid()); }
    [[nodiscard]] pointer get() const noexcept { return m_value; }
    // For out-parameters: frees the current value first.
    [[nodiscard]] pointer* put() noexcept
    {
        reset();
        return &m_value;
    }
    [[nodiscard]] bool valid() const noexcept { return m_value != Traits::invalid(); }
    explicit operator bool() const noexcept { return valid(); }

private:
    pointer m_value = Traits::invalid();
};

namespace detail
{
template <typename T, auto Close> struct null_traits
{
    using pointer = T;
    static pointer invalid() noexcept { return nullptr; }
    static void close(pointer value) noexcept { Close(value); }
};
struct file_traits
{
    using pointer = HANDLE;
    static pointer invalid() noexcept { return INVALID_HANDLE_VALUE; }
    static void close(pointer value) noexcept { ::CloseHandle(value); }
};
inline void close_handle(HANDLE h) noexcept
{
    ::CloseHandle(h);
}
inline void close_key(HKEY h) noexcept
{
    ::RegCloseKey(h);
}
inline void close_service(SC_HANDLE h) noexcept
{
    ::CloseServiceHandle(h);
}
inline void free_local(HLOCAL h) noexcept
{
    ::LocalFree(h);
}
inline void free_module(HMODULE h) noexcept
{
    ::FreeLibrary(h);
}
inline void close_event_source(HANDLE h) noexcept
{
    ::DeregisterEventSource(h);
}
// Thread-pool objects wait for their running and queued callbacks before they close, so that no
// callback can reach its owner once the owner's handle is gone. Never reset one from its own
// callback, nor while holding a lock its callback takes.
inline void close_tp_io(PTP_IO h) noexcept
{
    ::WaitForThreadpoolIoCallbacks(h, FALSE);
    ::CloseThreadpoolIo(h);
}
inline void close_tp_work(PTP_WORK h) noexcept
{
    ::WaitForThreadpoolWorkCallbacks(h, FALSE);
    ::CloseThreadpoolWork(h);
}
inline void close_tp_timer(PTP_TIMER h) noexcept
{
    ::SetThreadpoolTimer(h, nullptr, 0, 0);
    ::WaitForThreadpoolTimerCallbacks(h, TRUE);
    ::CloseThreadpoolTimer(h);
}
inline void close_tp_pool(PTP_POOL h) noexcept
{
    ::CloseThreadpool(h);
}
inline void close_tp_cleanup_group(PTP_CLEANUP_GROUP h) noexcept
{
    ::CloseThreadpoolCleanupGroup(h);
}
inline void free_sid(PSID h) noexcept
{
    ::FreeSid(h);
}
} // namespace detail

// Events, threads, tokens, processes, semaphores, mutexes: empty is NULL.
using unique_handle = unique_resource<detail::null_traits<HANDLE, detail::close_handle>>;
// Files and pipe instances: empty is INVALID_HANDLE_VALUE.
using unique_hfile = unique_resource<detail::file_traits>;
using unique_hkey = unique_resource<detail::null_traits<HKEY, detail::close_key>>;
using unique_schandle = unique_resource<detail::null_traits<SC_HANDLE, detail::close_service>>;
using unique_hlocal = unique_resource<detail::null_traits<HLOCAL, detail::free_local>>;
using unique_hmodule = unique_resource<detail::null_traits<HMODULE, detail::free_module>>;
using unique_event_source = unique_resource<detail::null_traits<HANDLE, detail::close_event_source>>;
using unique_sid = unique_resource<detail::null_traits<PSID, detail::free_sid>>;
// Thread-pool objects: the owner still decides the order of cancel, wait and close.
using unique_tp_io = unique_resource<detail::null_traits<PTP_IO, detail::close_tp_io>>;
using unique_tp_work = unique_resource<detail::null_traits<PTP_WORK, detail::close_tp_work>>;
using unique_tp_timer = unique_resource<detail::null_traits<PTP_TIMER, detail::close_tp_timer>>;
using unique_tp_pool = unique_resource<detail::null_traits<PTP_POOL, detail::close_tp_pool>>;
using unique_tp_cleanup_group =
    unique_resource<detail::null_traits<PTP_CLEANUP_GROUP, detail::close_tp_cleanup_group>>;

// Keeps the thread's last-error value across a scope (logging must not change it).
class last_error_guard
{
public:
    last_error_guard() noexcept : m_dwError(::GetLastError()) {}
    ~last_error_guard() { ::SetLastError(m_dwError); }
    last_error_guard(const last_error_guard&) = delete;
    last_error_guard& operator=(const last_error_guard&) = delete;
    void set(DWORD error) noexcept { m_dwError = error; }

private:
    DWORD m_dwError;
};

} // namespace daxlib
