#pragma once
// Worker threads: IBaseThread is the interface, CJoinableThread<int> runs one task on a thread
// of its own and can be stopped and joined.
#include "common/BaseLogger.h"
#include "common/DaxException.h"
#include "common/UniqueHandle.h"
#include "common/WideFormat.h"
#include "pipe/CallbackHolder.h"

#include <windows.h>
#include <process.h>

#include <atomic>
#include <exception>
#include <memory>
#include <string>

class IBaseThread : public CommonHelper::CvLogger::CBaseLogger
{
public:
    IBaseThread(std::wstring name, std::shared_ptr<ICvLogger> logger)
        : CBaseLogger(std::move(logger)), m_strName(std::move(name))
    {
    }
    ~IBaseThread() override = default;

    virtual std::wstring Describe() const
    {
        return daxlib::Format(L"[object: 0x%p <%s> %s]", static_cast<const void*>(this), m_strName.c_str(),
                              m_strDescription.c_str());
    }
    virtual bool IsRunning() const = 0;
    virtual int Start() = 0;
    virtual int Stop() = 0;

    const std::wstring& GetName() const { return m_strName; }
    void SetDescription(std::wstring description) { m_strDescription = std::move(description); }

protected:
    std::wstring m_strName;
    std::wstring m_strDescription;
};

template <typename R> class CJoinableThread;

template <> class CJoinableThread<int> : public virtual IBaseThread
{
public:
    enum : uint32_t
    {
        eStateStopping = 1,
        eStateStarting = 2,
        eStateRunning = 3,
        eStateStopped = 4,
        eStateReserved = 5, // accepted by Stop like running; nothing sets it
    };

    CJoinableThread(std::shared_ptr<CCallbackHolder<int(void*)>> task, void* parameter,
                    std::shared_ptr<ICvLogger> logger, std::wstring name = L"CJoinableThread")
        : IBaseThread(std::move(name), std::move(logger)), m_pTask(std::move(task)), m_pParameter(parameter)
    {
        if (!m_pTask)
        {
            ::SetLastError(ERROR_INVALID_PARAMETER);
            daxlib::ThrowDaxException(m_strName.c_str(), 86,
                                      L"Invalid parameter 'task': it is required, but NULL");
        }
    }

    // The task is called with (stop event, parameter) and should end when the event is set.
    CJoinableThread(std::shared_ptr<CCallbackHolder<int(void*, void*)>> stopAwareTask, void* parameter,
                    std::shared_ptr<ICvLogger> logger, std::wstring name = L"CJoinableThread")
        : IBaseThread(std::move(name), std::move(logger)), m_pStopAwareTask(std::move(stopAwareTask)),
          m_pParameter(parameter)
    {
        if (!m_pStopAwareTask)
        {
            ::SetLastError(ERROR_INVALID_PARAMETER);
            daxlib::ThrowDaxException(m_strName.c_str(), 86,
                                      L"Invalid parameter 'task': it is required, but NULL");
        }
    }

    ~CJoinableThread() override
    {
        if (m_dwState.load() == eStateRunning)
            CJoinableThread::Stop();
        Wait();
    }

    CJoinableThread(const CJoinableThread&) = delete;
    CJoinableThread& operator=(const CJoinableThread&) = delete;

    bool IsRunning() const override
    {
        return m_dwState.load() == eStateRunning && m_hThread.load() != nullptr;
    }

    int Start() override
    {
        uint32_t expected = eStateStopped;
        if (!m_dwState.compare_exchange_strong(expected, eStateStarting))
            return 0;
        if (m_pStopAwareTask && !m_hevStop)
        {
            m_hevStop.reset(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
            if (!m_hevStop)
            {
                Log(LogLevel::Error, L"CJoinableThread<int>::Start: (114)",
                    L"Failed to create 'stop' event: GLE = %d", static_cast<int>(::GetLastError()));
                m_dwState = eStateStopped;
                return 0;
            }
        }
        m_bRunning = true;
        unsigned threadId = 0;
        const uintptr_t thread =
            ::_beginthreadex(nullptr, 0, &CJoinableThread::WorkingThread, this, 0, &threadId);
        if (thread == 0)
        {
            Log(LogLevel::Error, L"CJoinableThread<int>::Start: (123)",
                L"Unable to create thread: _beginthreadex() failed. GLE = %d",
                static_cast<int>(::GetLastError()));
            m_bRunning = false;
            m_dwState = eStateStopped;
            return 0;
        }
        m_dwThreadId = threadId;
        m_hThread = reinterpret_cast<HANDLE>(thread);
        Log(LogLevel::Trace, L"CJoinableThread<int>::Start: (130)", L"New thread has been created. TID: %d",
            static_cast<int>(threadId));
        m_dwState = eStateRunning;
        return 1;
    }

    int Stop() override
    {
        uint32_t expected = eStateRunning;
        if (m_dwState.load() != eStateReserved &&
            !m_dwState.compare_exchange_strong(expected, eStateStopping))
            return 0;
        Wait();
        expected = eStateStopping;
        m_dwState.compare_exchange_strong(expected, eStateStopped);
        if (m_dwState.load() == eStateReserved)
            m_dwState = eStateStopped;
        return 1;
    }

    // Joins the thread; a second call finds nothing to join and returns at once.
    void Wait()
    {
        const HANDLE thread = m_hThread.exchange(nullptr);
        if (!thread)
            return;
        daxlib::unique_handle owned(thread);
        m_bRunning = false;
        if (m_hevStop)
            ::SetEvent(m_hevStop.get());
        ::WaitForSingleObject(thread, INFINITE);
        Log(LogLevel::Debug, L"CJoinableThread<int>::Wait: (201)", L"The thread ended. TID: %d",
            static_cast<int>(m_dwThreadId.load()));
        m_dwThreadId = 0;
        owned.reset();
        m_hevStop.reset();
    }

    int GetResult() const { return m_nResult.load(); }
    uint32_t GetState() const { return m_dwState.load(); }
    DWORD GetThreadId() const { return m_dwThreadId.load(); }

protected:
    bool IsRunningFlag() const { return m_bRunning.load(); }

private:
    static unsigned __stdcall WorkingThread(void* argument)
    {
        auto* self = static_cast<CJoinableThread*>(argument);
        try
        {
            if (self->m_pTask)
                self->m_nResult = self->m_pTask->Invoke(self->m_pParameter);
            else if (self->m_pStopAwareTask)
                self->m_nResult = self->m_pStopAwareTask->Invoke(self->m_hevStop.get(), self->m_pParameter);
        }
        catch (daxlib::CDaxException* raw)
        {
            daxlib::DaxExceptionPtr e(raw);
            self->Log(LogLevel::Error, L"CJoinableThread<int>::WorkingThread: ",
                      L"Exception: Error(%u), Module(\"%s\"), Line(%u), Desc(\"%s\")", e->ErrorCode(),
                      e->Module().c_str(), e->Line(), e->Description().c_str());
        }
        catch (const std::exception& e)
        {
            self->Log(LogLevel::Error, L"CJoinableThread<int>::WorkingThread: ",
                      L"Exception: Error(%u) Desc(\"%S\")", static_cast<unsigned>(::GetLastError()),
                      e.what());
        }
        catch (...)
        {
            // Nothing may escape into the C runtime's thread start.
            self->Log(LogLevel::Error, L"CJoinableThread<int>::WorkingThread: ", L"Exception: unknown");
        }
        return 0;
    }

    std::shared_ptr<CCallbackHolder<int(void*)>> m_pTask;
    std::shared_ptr<CCallbackHolder<int(void*, void*)>> m_pStopAwareTask;
    void* m_pParameter = nullptr;
    daxlib::unique_handle m_hevStop;
    std::atomic<HANDLE> m_hThread{nullptr};
    std::atomic<DWORD> m_dwThreadId{0};
    std::atomic<int> m_nResult{0};
    std::atomic<bool> m_bRunning{false};
    std::atomic<uint32_t> m_dwState{eStateStopped};
};
