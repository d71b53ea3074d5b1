#pragma once
// Binds one file handle (a pipe instance) to thread-pool I/O completion and keeps the list of its
// outstanding overlapped requests. Completions run on the process's default pool, not on
// CThreadPool: that split is deliberate.
#include "common/BaseLogger.h"
#include "common/Locks.h"
#include "common/UniqueHandle.h"
#include "pipe/CallbackHolder.h"

#include <windows.h>

#include <chrono>
#include <exception>
#include <list>
#include <memory>
#include <mutex>
#include <string>

// One overlapped operation. The OVERLAPPED comes first: a completion is matched to its request
// by the OVERLAPPED's address.
template <typename T> struct CRequestIo
{
    OVERLAPPED overlapped{};
    T signal{};

    explicit CRequestIo(T value = T{}) : signal(std::move(value)) {}
    CRequestIo(const CRequestIo&) = delete;
    CRequestIo& operator=(const CRequestIo&) = delete;
};

template <typename T> class CThreadPoolIo : public virtual CommonHelper::CvLogger::CBaseLogger
{
public:
    using Request = std::shared_ptr<CRequestIo<T>>;
    using Callback =
        CCallbackHolder<int(unsigned long, Request&, unsigned long long, CThreadPoolIo<T>*, void*)>;

    CThreadPoolIo(HANDLE file, std::wstring name, std::shared_ptr<ICvLogger> logger,
                  std::shared_ptr<Callback> callback, void* context = nullptr)
        : CBaseLogger(std::move(logger)), m_hFile(file), m_strName(std::move(name)),
          m_pCallback(std::move(callback)), m_pContext(context)
    {
    }
    ~CThreadPoolIo() override { Stop(); }
    CThreadPoolIo(const CThreadPoolIo&) = delete;
    CThreadPoolIo& operator=(const CThreadPoolIo&) = delete;

    bool Start()
    {
        Log(LogLevel::Info, Origin(L"Start: (84)").c_str(),
            L": ... create IoCompletionCallback (FileHandle = 0x%p, this = 0x%p)...", m_hFile,
            daxlib::Addr(this));
        daxlib::lock_guard lock(m_srwLock);
        if (m_ptpIo)
            return true;
        m_ptpIo.reset(::CreateThreadpoolIo(m_hFile, &CThreadPoolIo::IoCompletionCallback, this, nullptr));
        if (!m_ptpIo)
        {
            Log(LogLevel::Error, Origin(L"Start: (89)").c_str(),
                L": Unable to create a new I/O completion object. CreateThreadpoolIo() failed: FileHandle = "
                L"0x%p GLE = %d",
                m_hFile, static_cast<int>(::GetLastError()));
            return false;
        }
        m_bStop = 0;
        return true;
    }

    // Called before every overlapped call on the handle.
    BOOL StartIo(const Request& request)
    {
        daxlib::lock_guard lock(m_srwLock);
        if (m_bStop || !m_ptpIo)
        {
            ::SetLastError(ERROR_OPERATION_ABORTED);
            return FALSE;
        }
        m_requests.push_back(request);
        ::StartThreadpoolIo(m_ptpIo.get());
        return TRUE;
    }

    // With bCancelFailedOperations, a request whose call never reached the kernel (it failed
    // synchronously) also gives back its pending-I/O count and leaves the list.
    BOOL Cancel(const Request& request, BOOL bCancelFailedOperations)
    {
        if (!request)
            return FALSE;
        Log(LogLevel::Trace, Origin(L"Cancel: (170)").c_str(),
            L": this = 0x%p, m_ptpIo = 0x%p, overlapped = 0x%p, bCancelFailedOperations = %d ...",
            daxlib::Addr(this), daxlib::Addr(m_ptpIo.get()), daxlib::Addr(&request->overlapped),
            bCancelFailedOperations);
        daxlib::lock_guard lock(m_srwLock);
        auto it = Find(&request->overlapped);
        if (it == m_requests.end())
        {
            ::SetLastError(ERROR_NOT_FOUND);
            return FALSE;
        }
        const BOOL result = ::CancelIoEx(m_hFile, &request->overlapped);
        const DWORD error = ::GetLastError();
        Log(LogLevel::Trace, Origin(L"Cancel: (178)").c_str(),
            L": this = 0x%p, m_ptpIo = 0x%p, overlapped = 0x%p. CancelIoEx() -> result: %d, GLE=%d ",
            daxlib::Addr(this), daxlib::Addr(m_ptpIo.get()), daxlib::Addr(&request->overlapped), result,
            static_cast<int>(error));
        if (bCancelFailedOperations && !result && error == ERROR_NOT_FOUND)
        {
            if (m_ptpIo)
                ::CancelThreadpoolIo(m_ptpIo.get());
            m_requests.erase(it);
            if (m_requests.empty())
                m_cvEmptied.notify_all();
        }
        ::SetLastError(error);
        return result;
    }

    BOOL Stop()
    {
        PTP_IO io = nullptr;
        {
            daxlib::lock_guard lock(m_srwLock);
            io = m_ptpIo.get();
            if (!io)
                return TRUE;
            Log(LogLevel::Debug, Origin(L"Stop: (115)").c_str(), L": ... (this = 0x%p)...",
                daxlib::Addr(this));
            m_bStop = 1;
            ::CancelIoEx(m_hFile, nullptr);
        }
        ::WaitForThreadpoolIoCallbacks(io, FALSE);
        BOOL result = TRUE;
        daxlib::unique_lock lock(m_srwLock);
        for (const Request& request : m_requests)
        {
            // ERROR_NOT_FOUND: it has ended already and its completion is queued.
            if (!::CancelIoEx(m_hFile, &request->overlapped) && ::GetLastError() != ERROR_NOT_FOUND)
                result = FALSE;
        }
        // Every listed request has ended or been cancelled, so its completion is on its way and
        // the callback takes it off the list. Closing before that would let a late completion
        // reach a freed object.
        if (!m_cvEmptied.wait_for(lock, std::chrono::seconds(30),
                                  [this]() TS_REQUIRES(m_srwLock) { return m_requests.empty(); }))
            Log(LogLevel::Error, Origin(L"Stop: (140)").c_str(),
                L": %d request(s) never completed (this = 0x%p)", static_cast<int>(m_requests.size()),
                daxlib::Addr(this));
        // Closed outside the lock: closing waits for callbacks, which take it.
        daxlib::unique_tp_io closing = std::move(m_ptpIo);
        lock.unlock();
        closing.reset();
        Log(LogLevel::Debug, Origin(L"Stop: (147)").c_str(), L": ... (this = 0x%p)... end.",
            daxlib::Addr(this));
        return result;
    }

    // Asks that an operation on the handle that succeeds at once queue no completion; the caller
    // then finishes it itself and reports it with CompletedInline. False when the handle keeps
    // the usual completion for every operation.
    bool SkipCompletionOnSuccess()
    {
        m_bSkipOnSuccess =
            ::SetFileCompletionNotificationModes(m_hFile, FILE_SKIP_COMPLETION_PORT_ON_SUCCESS) != FALSE;
        return m_bSkipOnSuccess;
    }
    bool SkipsCompletionOnSuccess() const { return m_bSkipOnSuccess; }

    // An operation that succeeded at once on a handle that skips the completion: the request
    // leaves the list and gives back the pending-I/O count that StartIo took.
    void CompletedInline(const Request& request)
    {
        daxlib::lock_guard lock(m_srwLock);
        auto it = Find(&request->overlapped);
        if (it == m_requests.end())
            return;
        m_requests.erase(it);
        if (m_ptpIo)
            ::CancelThreadpoolIo(m_ptpIo.get());
        if (m_requests.empty())
            m_cvEmptied.notify_all();
    }

    bool IsStopping() const
    {
        daxlib::lock_guard lock(m_srwLock);
        return m_bStop != 0;
    }
    size_t OutstandingCount() const
    {
        daxlib::lock_guard lock(m_srwLock);
        return m_requests.size();
    }
    HANDLE FileHandle() const { return m_hFile; }

    Request ExtractRequest(const OVERLAPPED* overlapped)
    {
        daxlib::lock_guard lock(m_srwLock);
        auto it = Find(overlapped);
        if (it == m_requests.end())
            return nullptr;
        Request request = *it;
        m_requests.erase(it);
        if (m_requests.empty())
            m_cvEmptied.notify_all();
        return request;
    }

private:
    std::wstring Origin(const wchar_t* method) const { return L"CThreadPoolIo::" + std::wstring(method); }

    typename std::list<Request>::iterator Find(const OVERLAPPED* overlapped) TS_REQUIRES(m_srwLock)
    {
        for (auto it = m_requests.begin(); it != m_requests.end(); ++it)
            if (&(*it)->overlapped == overlapped)
                return it;
        return m_requests.end();
    }

    static void CALLBACK IoCompletionCallback(PTP_CALLBACK_INSTANCE, PVOID context, PVOID overlapped,
                                              ULONG ioResult, ULONG_PTR bytesTransferred, PTP_IO)
    {
        if (!context)
            return;
        auto* self = static_cast<CThreadPoolIo*>(context);
        try
        {
            Request request = self->ExtractRequest(static_cast<OVERLAPPED*>(overlapped));
            self->Log(LogLevel::Trace, L"CThreadPoolIo::IoCompletionCallback: (208)",
                      L": IoCompletionCallback (this = 0x%p, m_ptpIo = 0x%p, overlapped = 0x%p)...",
                      daxlib::Addr(self), daxlib::Addr(self->m_ptpIo.get()), overlapped);
            if (!request)
            {
                self->Log(LogLevel::Error, L"CThreadPoolIo::IoCompletionCallback: (213)",
                          L"Request: 0x%p not found in the list", overlapped);
                return;
            }
            if (self->m_pCallback)
                self->m_pCallback->Invoke(ioResult, request, bytesTransferred, self, self->m_pContext);
        }
        catch (const std::exception& e)
        {
            self->LogStdException(LogLevel::Error, L"CThreadPoolIo::IoCompletionCallback: ", e);
        }
        catch (...)
        {
            // Nothing may escape into the thread pool.
        }
    }

    HANDLE m_hFile;
    std::wstring m_strName;
    daxlib::unique_tp_io m_ptpIo;
    std::shared_ptr<Callback> m_pCallback;
    void* m_pContext;
    mutable daxlib::srw_lock m_srwLock;
    daxlib::condition_variable m_cvEmptied;
    std::list<Request> m_requests TS_GUARDED_BY(m_srwLock);
    uint32_t m_bStop TS_GUARDED_BY(m_srwLock) = 0;
    bool m_bSkipOnSuccess = false;
};
