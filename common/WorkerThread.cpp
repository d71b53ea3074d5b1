#include "common/WorkerThread.h"

#include "common/Guarded.h"

#include <process.h>

#include <cassert>
#include <utility>

namespace daxlib
{

CWorkerThread::~CWorkerThread()
{
    assert(!m_thread && "a worker thread outlived its owner's Stop()");
    Stop();
}

bool CWorkerThread::Start(Body body, unsigned stackSize)
{
    if (m_thread)
        return false;
    if (!m_stop)
        m_stop.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (!m_stop)
        return false;
    ::ResetEvent(m_stop.get());
    m_body = std::move(body);
    m_thread.reset(reinterpret_cast<HANDLE>(
        ::_beginthreadex(nullptr, stackSize, &CWorkerThread::Run, this, 0, nullptr)));
    if (!m_thread)
    {
        const last_error_guard keep;
        m_body = nullptr;
        return false;
    }
    return true;
}

void CWorkerThread::Stop() noexcept
{
    if (!m_thread)
        return;
    ::SetEvent(m_stop.get());
    Join();
}

void CWorkerThread::Join() noexcept
{
    if (!m_thread)
        return;
    ::WaitForSingleObject(m_thread.get(), INFINITE);
    m_thread.reset();
    m_body = nullptr;
}

unsigned __stdcall CWorkerThread::Run(void* self)
{
    auto* worker = static_cast<CWorkerThread*>(self);
    return GuardedCall(nullptr, L"CWorkerThread::Run", [worker] { worker->m_body(worker->m_stop.get()); })
               ? 0
               : 1;
}

} // namespace daxlib
