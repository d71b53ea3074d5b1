#pragma once
// A pool of one thread for the logger's clean-up of old files: submitting while a clean-up runs
// queues one more, and closing waits for what is running and queued.
#include "common/UniqueHandle.h"

#include <windows.h>

#include <functional>

class CLogCleanupPool
{
public:
    CLogCleanupPool() = default;
    ~CLogCleanupPool() { Close(); }
    CLogCleanupPool(const CLogCleanupPool&) = delete;
    CLogCleanupPool& operator=(const CLogCleanupPool&) = delete;

    // False when the pool or its work item cannot be had; nothing is kept then.
    bool Create(std::function<void()> job);
    void Submit();
    void Wait();
    void Close();

private:
    static void CALLBACK Callback(PTP_CALLBACK_INSTANCE, PVOID context, PTP_WORK);

    std::function<void()> m_job;
    daxlib::unique_tp_pool m_ptpPool;
    TP_CALLBACK_ENVIRON m_environment{};
    bool m_bEnvironment = false;
    // Closed first: closing waits for its callbacks, which need the pool.
    daxlib::unique_tp_work m_ptpWork;
};
