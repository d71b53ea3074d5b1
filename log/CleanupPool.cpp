#include "log/CleanupPool.h"

#include "common/Guarded.h"

#include <utility>

bool CLogCleanupPool::Create(std::function<void()> job)
{
    Close();
    m_pool.reset(::CreateThreadpool(nullptr));
    if (!m_pool)
        return false;
    ::SetThreadpoolThreadMaximum(m_pool.get(), 1);
    if (!::SetThreadpoolThreadMinimum(m_pool.get(), 1))
    {
        Close();
        return false;
    }
    ::InitializeThreadpoolEnvironment(&m_environment);
    m_bEnvironment = true;
    ::SetThreadpoolCallbackPool(&m_environment, m_pool.get());
    m_job = std::move(job);
    m_work.reset(::CreateThreadpoolWork(&CLogCleanupPool::Callback, this, &m_environment));
    if (!m_work)
    {
        Close();
        return false;
    }
    return true;
}

void CLogCleanupPool::Submit()
{
    if (m_work)
        ::SubmitThreadpoolWork(m_work.get());
}

void CLogCleanupPool::Wait()
{
    if (m_work)
        ::WaitForThreadpoolWorkCallbacks(m_work.get(), FALSE);
}

void CLogCleanupPool::Close()
{
    m_work.reset();
    m_pool.reset();
    if (m_bEnvironment)
        ::DestroyThreadpoolEnvironment(&m_environment);
    m_bEnvironment = false;
    m_job = nullptr;
}

void CALLBACK CLogCleanupPool::Callback(PTP_CALLBACK_INSTANCE, PVOID context, PTP_WORK)
{
    auto* self = static_cast<CLogCleanupPool*>(context);
    daxlib::GuardedCall(nullptr, L"CLogCleanupPool::Callback", [self] { self->m_job(); });
}
