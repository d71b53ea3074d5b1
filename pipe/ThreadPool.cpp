#include "pipe/ThreadPool.h"

#include "common/WideFormat.h"
#include "pipe/ReadStarter.h"

#include <chrono>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

namespace
{
daxlib::srw_lock g_poolLock;
std::shared_ptr<CThreadPool> g_pool;
} // namespace

std::shared_ptr<CThreadPool> GetThreadPool()
{
    daxlib::lock_guard lock(g_poolLock);
    return g_pool;
}

void SetThreadPool(std::shared_ptr<CThreadPool> pool)
{
    std::shared_ptr<CThreadPool> old;
    {
        daxlib::lock_guard lock(g_poolLock);
        old = std::exchange(g_pool, std::move(pool));
    }
    // The old pool (if this was its last owner) closes here, outside the lock.
}

void CGroupTask::Add(PTP_WORK work)
{
    daxlib::lock_guard lock(m_srwTasks);
    m_tasks[work] = Entry{};
}

void CGroupTask::Notify(PTP_WORK work, int32_t result, const CommonHelper::CvLogger::CBaseLogger* log)
{
    {
        daxlib::lock_guard lock(m_srwTasks);
        auto it = m_tasks.find(work);
        if (it != m_tasks.end())
            it->second.result = result;
        ++m_dwCompleted;
        if (log)
            log->Log(LogLevel::Debug, L"CGroupTask::Notify: (480)",
                     L"obj: 0x%p. Task <0x%p> end. CountTask = %d, completed = %d", daxlib::Addr(this),
                     daxlib::Addr(work), static_cast<int>(m_tasks.size()), static_cast<int>(m_dwCompleted));
    }
    m_cvChanged.notify_all();
}

bool CGroupTask::WaitCompleted(uint32_t count, DWORD limitMs)
{
    daxlib::unique_lock lock(m_srwTasks);
    return m_cvChanged.wait_for(lock, std::chrono::milliseconds(limitMs),
                                [&]() TS_REQUIRES(m_srwTasks) { return m_dwCompleted >= count; });
}

uint32_t CGroupTask::Completed()
{
    daxlib::lock_guard lock(m_srwTasks);
    return m_dwCompleted;
}

CThreadPool::CThreadPool(uint32_t maxThreads, std::shared_ptr<ICvLogger> logger)
    : CBaseLogger(std::move(logger)), m_environment{}, m_dwMaxThreads(maxThreads)
{
    if (!Create())
        daxlib::ThrowDaxException(L"ThreadPool", 58);
    m_pReadStarter = std::make_unique<CReadStarter>(GetLogger());
}

CThreadPool::~CThreadPool()
{
    Close();
}

std::wstring CThreadPool::GetLogTag() const
{
    return daxlib::Format(L"[object: 0x%p]", static_cast<const void*>(this));
}

void CALLBACK CThreadPool::CleanupCancel(PVOID, PVOID)
{
    // Close never cancels pending work, so there is nothing to undo here.
}

bool CThreadPool::Create()
{
    m_ptpCleanupGroup.reset(::CreateThreadpoolCleanupGroup());
    if (!m_ptpCleanupGroup)
    {
        Log(LogLevel::Error, L"CThreadPool::Create: (252)",
            L"[obj: 0x%p] CreateThreadpoolCleanupGroup() failed. GLE=%d", daxlib::Addr(this),
            static_cast<int>(::GetLastError()));
        return false;
    }
    m_ptpPool.reset(::CreateThreadpool(nullptr));
    if (!m_ptpPool)
    {
        Log(LogLevel::Error, L"CThreadPool::Create: (258)", L"[obj: 0x%p] CreateThreadpool() failed. GLE=%d",
            daxlib::Addr(this), static_cast<int>(::GetLastError()));
        m_ptpCleanupGroup.reset();
        return false;
    }
    ::InitializeThreadpoolEnvironment(&m_environment);
    ::SetThreadpoolCallbackPool(&m_environment, m_ptpPool.get());
    ::SetThreadpoolCallbackCleanupGroup(&m_environment, m_ptpCleanupGroup.get(), &CThreadPool::CleanupCancel);
    ::SetThreadpoolThreadMaximum(m_ptpPool.get(), m_dwMaxThreads);
    if (!::SetThreadpoolThreadMinimum(m_ptpPool.get(), 4))
    {
        m_ptpCleanupGroup.reset();
        m_ptpPool.reset();
        return false;
    }
    return true;
}

void CThreadPool::Close()
{
    if (!m_ptpCleanupGroup && !m_ptpPool)
        return;
    // Kept until the pool's end, stopped: a stream that finds it stopped starts its reads itself.
    if (m_pReadStarter && m_pReadStarter->IsCurrentThread())
    {
        // The pool's last owner let go on the starter's own thread (a stream's read start held
        // the pool while it was swapped out), which cannot join itself: the starter is ended by
        // a thread of its own once this start returns.
        CReadStarter* ending = m_pReadStarter.release();
        try
        {
            std::thread([ending] { delete ending; }).detach();
        }
        catch (const std::system_error&)
        {
            // Left running: a starter that idles for ever is better than one joining itself.
        }
    }
    else if (m_pReadStarter)
        m_pReadStarter->Stop();
    if (m_ptpCleanupGroup)
    {
        Log(LogLevel::Info, L"CThreadPool::Close: (289)", L"[obj: 0x%p] Close threadpool: wait callbacks...",
            daxlib::Addr(this));
        ::CloseThreadpoolCleanupGroupMembers(m_ptpCleanupGroup.get(), FALSE, nullptr);
        Log(LogLevel::Info, L"CThreadPool::Close: (291)",
            L"[obj: 0x%p] Close threadpool: wait callbacks... Success", daxlib::Addr(this));
    }
    ::DestroyThreadpoolEnvironment(&m_environment);
    m_ptpCleanupGroup.reset();
    m_ptpPool.reset();
}

BOOL CThreadPool::Submit(std::unique_ptr<WorkTaskContext> context, bool withFuture, int line)
{
    PTP_WORK work =
        ::CreateThreadpoolWork(withFuture ? &CThreadPool::WorkCallback : &CThreadPool::WorkCallbackVoid,
                               context.get(), &m_environment);
    if (!work)
    {
        Log(LogLevel::Error,
            line == 110 ? L"CThreadPool::CreateTask: (110)" : L"CThreadPool::CreateTask: (191)",
            L"[obj: 0x%p] CreateThreadpoolWork() failed. GLE=%d", daxlib::Addr(this),
            static_cast<int>(::GetLastError()));
        daxlib::last_error_guard keep;
        if (withFuture)
            context->promise.set_value(0);
        return FALSE;
    }
    if (context->group)
        context->group->Add(work);
    // The work callback owns the context from here on.
    static_cast<void>(context.release());
    ::SubmitThreadpoolWork(work);
    return TRUE;
}

void CALLBACK CThreadPool::WorkCallback(PTP_CALLBACK_INSTANCE, PVOID raw, PTP_WORK work)
{
    std::unique_ptr<WorkTaskContext> context(static_cast<WorkTaskContext*>(raw));
    int success = 1;
    try
    {
        try
        {
            context->promise.set_value(context->invokeInt());
        }
        catch (daxlib::CDaxException* e)
        {
            daxlib::DaxExceptionPtr owned(e);
            context->pool->LogDaxException(LogLevel::Error, L"CThreadPool::WorkCallback: (318)", *owned);
            throw std::runtime_error("daxlib exception");
        }
    }
    catch (const std::exception& e)
    {
        context->pool->LogStdException(LogLevel::Error, L"CThreadPool::WorkCallback: (327)", e);
        success = 0;
        try
        {
            context->promise.set_exception(std::current_exception());
        }
        catch (...)
        {
            // The promise was satisfied already; nothing more to report.
        }
    }
    catch (...)
    {
        success = 0;
        try
        {
            context->promise.set_exception(std::current_exception());
        }
        catch (...)
        {
        }
    }
    std::shared_ptr<CGroupTask> group = std::move(context->group);
    CThreadPool* pool = context->pool;
    context.reset();
    if (group)
        group->Notify(work, success, pool);
    ::CloseThreadpoolWork(work);
}

void CALLBACK CThreadPool::WorkCallbackVoid(PTP_CALLBACK_INSTANCE, PVOID raw, PTP_WORK work)
{
    std::unique_ptr<WorkTaskContext> context(static_cast<WorkTaskContext*>(raw));
    int success = 1;
    try
    {
        try
        {
            context->invokeVoid();
        }
        catch (daxlib::CDaxException* e)
        {
            daxlib::DaxExceptionPtr owned(e);
            context->pool->LogDaxException(LogLevel::Error, L"CThreadPool::WorkCallbackVoid: (360)", *owned);
            throw std::runtime_error("daxlib exception");
        }
    }
    catch (const std::exception& e)
    {
        context->pool->LogStdException(LogLevel::Error, L"CThreadPool::WorkCallbackVoid: (369)", e);
        success = 0;
    }
    catch (...)
    {
        success = 0;
    }
    std::shared_ptr<CGroupTask> group = std::move(context->group);
    CThreadPool* pool = context->pool;
    context.reset();
    if (group)
        group->Notify(work, success, pool);
    ::CloseThreadpoolWork(work);
}
