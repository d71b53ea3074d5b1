#pragma once
// The transport's private thread pool: runs bound tasks as work items, optionally returning the
// task's integer result through a future. The process keeps one, reached through GetThreadPool.
#include "common/BaseLogger.h"
#include "common/DaxException.h"
#include "common/Locks.h"
#include "common/UniqueHandle.h"
#include "pipe/CallbackHolder.h"

#include <windows.h>

#include <cstdint>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>

class CReadStarter;

// Counts the completions of a group of tasks. Nothing in the transport builds one; a caller that
// wants to wait for several tasks registers them with CThreadPool::CreateGroupTask.
class CGroupTask
{
public:
    struct Entry
    {
        int32_t result = -1; // -1 until the task ends, then 1 (success) or 0
    };

    void Add(PTP_WORK work);
    void Notify(PTP_WORK work, int32_t result, const CommonHelper::CvLogger::CBaseLogger* log);
    // Waits until `count` tasks have ended; false when the limit passed first.
    bool WaitCompleted(uint32_t count, DWORD limitMs);
    uint32_t Completed();

private:
    daxlib::srw_lock m_srwTasks;
    uint32_t m_dwCompleted TS_GUARDED_BY(m_srwTasks) = 0;
    std::map<PTP_WORK, Entry> m_tasks TS_GUARDED_BY(m_srwTasks);
    daxlib::condition_variable m_cvChanged;
};

class CThreadPool : public CommonHelper::CvLogger::CBaseLogger
{
public:
    CThreadPool(uint32_t maxThreads, std::shared_ptr<ICvLogger> logger);
    ~CThreadPool() override;
    CThreadPool(const CThreadPool&) = delete;
    CThreadPool& operator=(const CThreadPool&) = delete;

    std::wstring GetLogTag() const override;

    bool Create();
    // Waits for every pending and running task (cancels none), then frees the pool.
    void Close();

    // Submits invoke(argument); its result (or exception) arrives in `result`.
    template <typename P>
    BOOL CreateTask(std::future<int>& result, const std::shared_ptr<CCallbackHolder<int(P)>>& task,
                    P argument)
    {
        auto context = std::make_unique<WorkTaskContext>();
        result = context->promise.get_future();
        if (!task)
        {
            context->promise.set_value(0);
            ::SetLastError(ERROR_INVALID_PARAMETER);
            return FALSE;
        }
        context->argument =
            std::make_shared<typename CCallbackArgumentHolder<int>::template CParamHolder<P>>(task, argument);
        context->invokeInt = [holder = context->argument]() { return holder->Call(); };
        context->pool = this;
        return Submit(std::move(context), true, 110);
    }

    // Submits invoke(argument) and ignores its result.
    template <typename R, typename P>
    BOOL CreateTask(const std::shared_ptr<CCallbackHolder<R(P)>>& task, P argument)
    {
        return CreateGroupTask<R, P>(nullptr, std::move(task), std::move(argument));
    }

    // As above; the task's end is also counted in `group`.
    template <typename R, typename P>
    BOOL CreateGroupTask(std::shared_ptr<CGroupTask> group,
                         const std::shared_ptr<CCallbackHolder<R(P)>>& task, P argument)
    {
        if (!task)
        {
            ::SetLastError(ERROR_INVALID_PARAMETER);
            return FALSE;
        }
        auto context = std::make_unique<WorkTaskContext>();
        auto holder =
            std::make_shared<typename CCallbackArgumentHolder<R>::template CParamHolder<P>>(task, argument);
        context->invokeVoid = [holder]() { holder->Call(); };
        context->group = std::move(group);
        context->pool = this;
        return Submit(std::move(context), false, 191);
    }

    uint32_t GetMaxThreads() const { return m_dwMaxThreads; }
    // For thread-pool objects (timers) that should run on this pool.
    PTP_CALLBACK_ENVIRON GetEnvironment() { return &m_environment; }
    // The pool's one thread that never retires: it starts the pipe streams' reads.
    CReadStarter* GetReadStarter() const { return m_pReadStarter.get(); }

private:
    struct WorkTaskContext
    {
        std::shared_ptr<CCallbackArgumentHolder<int>::CParamHolderBase> argument;
        std::function<int()> invokeInt;
        std::function<void()> invokeVoid;
        std::promise<int> promise;
        std::shared_ptr<CGroupTask> group;
        CThreadPool* pool = nullptr;
    };

    BOOL Submit(std::unique_ptr<WorkTaskContext> context, bool withFuture, int line);
    static void CALLBACK WorkCallback(PTP_CALLBACK_INSTANCE instance, PVOID context, PTP_WORK work);
    static void CALLBACK WorkCallbackVoid(PTP_CALLBACK_INSTANCE instance, PVOID context, PTP_WORK work);
    static void CALLBACK CleanupCancel(PVOID objectContext, PVOID cleanupContext);

    daxlib::unique_tp_pool m_ptpPool;
    TP_CALLBACK_ENVIRON m_environment;
    daxlib::unique_tp_cleanup_group m_ptpCleanupGroup;
    uint32_t m_dwMaxThreads;
    std::unique_ptr<CReadStarter> m_pReadStarter;
};

// The process's pool. The service's start-up composition stores one (1000 threads); tests set
// their own. Pipe objects take it at the moment they submit work.
std::shared_ptr<CThreadPool> GetThreadPool();
void SetThreadPool(std::shared_ptr<CThreadPool> pool);
