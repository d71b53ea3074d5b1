#include "common/WorkerThread.h"

#include "common/Guarded.h"

#include <process.h>

#include <cassert>
#include <utility>

namespace daxlib
{

CWorkerThread::~CWorkerThread()
{
    assert(!m_hThread && "a worker thread outlived its owner's Stop()");
    Stop();
}

bool CWorkerThread::Start(Body body, unsigned stackSize)
{
    if (m_hThread)
        return false;
    if (!m_hevStop)
        m_hevStop.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (!m_hevStop)
        return false;
    ::ResetEvent(m_hevStop.get());
    m_body = std::move(body);
    m_hThread.reset(reinterpret_cast<HANDLE>(
        ::_beginthreadex(nullptr, stackSize, &CWorkerThread::Run, this, 0, nullptr)));
    if (!m_hThread)
    {
        const last_error_guard keep;
        m_body = nullptr;
        return false;
    }
    return true;
}

void CWorkerThread::Stop() noexcept
{
    if (!m_hThread)
        return;
    ::SetEvent(m_hevStop.get());
    Join();
}

void CWorkerThread::Join() noexcept
{
    if (!m_hThread)
        return;
    ::WaitForSingleObject(m_hThread.get(), INFINITE);
    m_hThread.reset();
    m_body = nullptr;
}

unsigned __stdcall CWorkerThread::Run(void* self)
{
    auto* worker = static_cast<CWorkerThread*>(self);
    return GuardedCall(nullptr, L"CWorkerThread::Run", [worker] { worker->m_body(worker->m_hevStop.get()); })
               ? 0
               : 1;
}

} // namespace daxlib
