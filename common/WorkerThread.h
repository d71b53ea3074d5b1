#pragma once
// A thread of its own that runs one body until its stop event is set, and is joined. An owner
// declares it as its last member, so that it is destroyed (and the thread joined) before anything
// the body uses, and stops it in its own destructor; a worker still running when destroyed is a
// forgotten stop, which debug builds report.
#include "common/UniqueHandle.h"

#include <windows.h>

#include <functional>

namespace daxlib
{

class CWorkerThread
{
public:
    // The body gets the manual-reset stop event and should return soon after it is set.
    using Body = std::function<void(HANDLE stop)>;

    CWorkerThread() = default;
    ~CWorkerThread();
    CWorkerThread(const CWorkerThread&) = delete;
    CWorkerThread& operator=(const CWorkerThread&) = delete;

    // False, with the last error kept, when the event or the thread cannot be had; a running
    // worker is not started twice. The body's exceptions are swallowed at the thread's start.
    bool Start(Body body, unsigned stackSize = 0);
    // Sets the stop event and joins. Returns at once when not running. Never from the body.
    void Stop() noexcept;

    bool IsRunning() const noexcept { return static_cast<bool>(m_hThread); }
    HANDLE StopEvent() const noexcept { return m_hevStop.get(); }
    // Joins without asking the body to stop (a body that ends by itself).
    void Join() noexcept;
    // Whether the body has returned, waiting at most `ms` for it.
    bool HasEnded(DWORD ms) const noexcept
    {
        return !m_hThread || ::WaitForSingleObject(m_hThread.get(), ms) == WAIT_OBJECT_0;
    }

private:
    static unsigned __stdcall Run(void* self);

    Body m_body;
    unique_handle m_hevStop;
    unique_handle m_hThread;
};

} // namespace daxlib
