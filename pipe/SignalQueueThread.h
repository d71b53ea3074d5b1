#pragma once
// A joinable thread that sleeps on a signal event, drains a queue of T items and hands each to a
// handler, in push order, one at a time.
#include "common/Locks.h"
#include "pipe/JoinableThread.h"

#include <deque>
#include <mutex>
#include <string>
#include <type_traits>
#include <typeinfo>
#if defined(__GNUC__)
#include <cxxabi.h>
#include <cstdlib>
#endif

// The item type's name as it appears in the queue thread's log origins. Specialise it for a type
// whose compiler-given name is not the one to log.
template <typename T> struct QueueItemTypeName
{
    static std::wstring Get()
    {
        std::string name = typeid(T).name();
#if defined(__GNUC__)
        int status = 0;
        char* demangled = abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status);
        if (demangled && status == 0)
        {
            name = std::string(std::is_class_v<T> ? "struct " : "") + demangled;
        }
        std::free(demangled);
#endif
        return std::wstring(name.begin(), name.end());
    }
};

template <typename T> class CSignalQueueThread : public CJoinableThread<int>
{
public:
    CSignalQueueThread(const std::shared_ptr<CCallbackHolder<int(T&)>>& handler,
                       const std::shared_ptr<ICvLogger>& logger)
        : IBaseThread(L"CSignalQueueThread", logger),
          CJoinableThread<int>(MakeMemberCallback<int(void*)>(this, &CSignalQueueThread::SignalHandler),
                               nullptr, logger, L"CSignalQueueThread"),
          m_strOrigin(L"CSignalQueueThread<" + QueueItemTypeName<T>::Get() + L">::")
    {
        Log(LogLevel::Debug, Origin(L"CSignalQueueThread: (37)").c_str(), L"constructor start...");
        if (handler)
            m_pHandler = handler->Clone();
        m_hevSignal.reset(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
        if (!m_hevSignal)
            daxlib::ThrowDaxException(m_strName.c_str(), 43);
        Log(LogLevel::Debug, Origin(L"CSignalQueueThread: (45)").c_str(), L"constructor end.");
    }

    ~CSignalQueueThread() override
    {
        // A queue thread destroyed while running drops what is still queued.
        StopForce();
    }

    // 1 when queued; 0 when the thread is not running (the item is dropped).
    int Push(const T& item)
    {
        {
            // Checked under the lock that Stop takes, so an accepted item is always handled.
            daxlib::lock_guard lock(m_srwQueue);
            if (!IsRunning() || m_bStopping)
                return 0;
            m_queue.push_back(item);
        }
        ::SetEvent(m_hevSignal.get());
        return 1;
    }

    int Start() override
    {
        if (IsRunning())
            return 0;
        m_bStopping = false;
        m_bStopForce = false;
        return CJoinableThread<int>::Start();
    }

    int Stop() override
    {
        {
            daxlib::lock_guard lock(m_srwQueue);
            m_bStopping = true;
        }
        ::SetEvent(m_hevSignal.get());
        return CJoinableThread<int>::Stop();
    }

    void StopForce()
    {
        m_bStopForce = true;
        Stop();
    }

    size_t QueuedCount() const
    {
        daxlib::lock_guard lock(m_srwQueue);
        return m_queue.size();
    }

private:
    std::wstring Origin(const wchar_t* method) const { return m_strOrigin + method; }

    int SignalHandler(void*)
    {
        int result = 1;
        Log(LogLevel::Debug, Origin(L"SignalHandler: (92)").c_str(), L"begin...");
        for (;;)
        {
            const DWORD wait = ::WaitForSingleObject(m_hevSignal.get(), INFINITE);
            if (wait == WAIT_FAILED)
            {
                result = 0;
                Log(LogLevel::Error, Origin(L"SignalHandler: (100)").c_str(),
                    L"Failed to wait for signal event. GLE=%d, dwWait = %d",
                    static_cast<int>(::GetLastError()), static_cast<int>(wait));
                break;
            }
            if (m_bStopForce.load())
            {
                Log(LogLevel::Trace, Origin(L"SignalHandler: (105)").c_str(), L"Stop force. Exit...");
                break;
            }
            Drain();
            if (!IsRunningFlag() || m_bStopping.load())
            {
                // Items pushed between the drain and the stop are still owed to the handler.
                Drain();
                Log(LogLevel::Trace, Origin(L"SignalHandler: (121)").c_str(), L"Stop on exit event. Exit...");
                break;
            }
        }
        Log(LogLevel::Debug, Origin(L"SignalHandler: (125)").c_str(), L"End. Result = %d", result);
        return result;
    }

    void Drain()
    {
        std::deque<T> local;
        {
            daxlib::lock_guard lock(m_srwQueue);
            local.swap(m_queue);
        }
        while (!local.empty() && !m_bStopForce.load())
        {
            T item = std::move(local.front());
            local.pop_front();
            if (m_pHandler)
                m_pHandler->Invoke(item);
        }
    }

    std::wstring m_strOrigin;
    std::shared_ptr<CCallbackHolder<int(T&)>> m_pHandler;
    std::atomic<bool> m_bStopForce{false};
    std::atomic<bool> m_bStopping{false};
    std::deque<T> m_queue TS_GUARDED_BY(m_srwQueue);
    mutable daxlib::srw_lock m_srwQueue;
    daxlib::unique_handle m_hevSignal;
};
