#include "log/CleanupPool.h"

#include "common/Guarded.h"

#include <utility>

bool CLogCleanupPool::Create(std::function<void()> job)
{
    Close();
    m_ptpPool.reset(::CreateThreadpool(nullptr));
    if (!m_ptpPool)
        return false;
    ::SetThreadpoolThreadMaximum(m_ptpPool.get(), 1);
    if (!::SetThreadpoolThreadMinimum(m_ptpPool.get(), 1))
    {
        Close();
        return false;
    }
    ::InitializeThreadpoolEnvironment(&m_environment);
    m_bEnvironment = true;
    ::SetThreadpoolCallbackPool(&m_environment, m_ptpPool.get());
    m_job = std::move(job);
    m_ptpWork.reset(::CreateThreadpoolWork(&CLogCleanupPool::Callback, this, &m_environment));
    if (!m_ptpWork)
    {
        Close();
        return false;
    }
    return true;
}

void CLogCleanupPool::Submit()
{
    if (m_ptpWork)
        ::SubmitThreadpoolWork(m_ptpWork.get());
}

void CLogCleanupPool::Wait()
{
    if (m_ptpWork)
        ::WaitForThreadpoolWorkCallbacks(m_ptpWork.get(), FALSE);
}

void CLogCleanupPool::Close()
{
    m_ptpWork.reset();
    m_ptpPool.reset();
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
