#include "pipe/PipeRequest.h"

#include "common/UniqueHandle.h"

#include <utility>
#include <vector>

namespace
{
// Blocking writes of one connection rarely overlap; a few spare events cover them.
constexpr size_t kSpareEvents = 4;
} // namespace

CPipeRequest::CPipeRequest(std::shared_ptr<CNamedPipeStream> stream, std::shared_ptr<ICvLogger> logger,
                           const wchar_t* className)
    : CBaseLogger(std::move(logger)), m_szClass(className), m_pStream(std::move(stream))
{
}

CPipeRequest::~CPipeRequest()
{
    Log(LogLevel::Debug, At(L"~CPipeRequest: ").c_str(), L"[~] destructor start...");
    // The connection has stopped its stream's callbacks by now, so every record still listed can
    // be detached from its operation and freed.
    std::list<PIPE_OVERLAPPED*> left;
    {
        daxlib::lock_guard lock(m_srwLock);
        left.swap(m_records);
    }
    for (PIPE_OVERLAPPED* record : left)
    {
        if (m_pStream)
            m_pStream->CancelRequest(record);
        EndAsync(record);
    }
    Log(LogLevel::Debug, At(L"~CPipeRequest: ").c_str(), L"[~] destructor end.");
}

std::wstring CPipeRequest::At(const wchar_t* method) const
{
    return std::wstring(m_szClass) + L"::" + method;
}

BOOL CPipeRequest::Write(const void* data, uint32_t length)
{
    if (!m_pStream)
    {
        ::SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    auto owned = std::make_unique<PIPE_OVERLAPPED>();
    // The record borrows the event; a normal end gives it back to the spares.
    daxlib::unique_handle event;
    {
        daxlib::lock_guard lock(m_srwLock);
        if (!m_spareEvents.empty())
        {
            event = std::move(m_spareEvents.back());
            m_spareEvents.pop_back();
        }
    }
    if (!event)
        event.reset(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
    if (!event)
        return FALSE;
    owned->m_hEvent = event.get();
    owned->m_bChecksInline = true;
    PIPE_OVERLAPPED* record = owned.get();
    {
        daxlib::lock_guard lock(m_srwLock);
        Log(LogLevel::Trace, At(m_bServer ? L"Write: (98)" : L"Write: (105)").c_str(),
            L"new \"blocked write\" ov = 0x%p", daxlib::Addr(record));
        m_records.push_back(owned.release());
    }
    BOOL result = FALSE;
    DWORD error = 0;
    try
    {
        auto request = m_pStream->CreateWriteRequest(data, length, record);
        if (!m_pStream->AddWriteRequest(request))
        {
            error = ::GetLastError();
            Log(LogLevel::Error, At(m_bServer ? L"Write: (106)" : L"Write: (113)").c_str(),
                L"Unable to write %d byte(s). GLE=%d, ov = 0x%p", static_cast<int>(length),
                static_cast<int>(error), daxlib::Addr(record));
        }
        else
        {
            // No time limit: the write ends by completion, cancellation or the stream's
            // shutdown, and each of them sets the event.
            const DWORD wait =
                record->m_bEndedInline ? WAIT_OBJECT_0 : ::WaitForSingleObject(record->m_hEvent, INFINITE);
            if (wait != WAIT_OBJECT_0)
            {
                error = ::GetLastError();
                Log(LogLevel::Error, At(m_bServer ? L"Write: (112)" : L"Write: (119)").c_str(),
                    L"WaitForSingleObject() failed. GLE=%d, Reason = %d, ov = 0x%p", static_cast<int>(error),
                    static_cast<int>(wait), daxlib::Addr(record));
            }
            else if (record->m_dwIoStatus != 0)
            {
                error = record->m_dwIoStatus;
                Log(LogLevel::Error, At(m_bServer ? L"Write: (117)" : L"Write: (124)").c_str(),
                    L"Failed to write %d byte(s). GLE=%d, Written = %d byte(s), \"blocked write\" ov = 0x%p",
                    static_cast<int>(length), static_cast<int>(record->m_dwIoStatus),
                    static_cast<int>(record->m_dwBytesTransferred), daxlib::Addr(record));
            }
            else
            {
                Log(LogLevel::Trace, At(m_bServer ? L"Write: (121)" : L"Write: (128)").c_str(),
                    L"Written = %d byte(s), \"blocked write\" ov = 0x%p",
                    static_cast<int>(record->m_dwBytesTransferred), daxlib::Addr(record));
                result = TRUE;
            }
            // The wait consumed the only signal this write gives, so the event can serve the next.
            if (wait == WAIT_OBJECT_0)
            {
                daxlib::lock_guard lock(m_srwLock);
                if (m_spareEvents.size() < kSpareEvents)
                    m_spareEvents.push_back(std::move(event));
            }
        }
    }
    catch (const std::exception& e)
    {
        error = ERROR_NOT_ENOUGH_MEMORY;
        LogStdException(LogLevel::Error, At(L"Write: ").c_str(), e);
    }
    // The event is this function's to keep or close; the record keeps the value to the end, as
    // the mark by which a cancel-all leaves the record to this writer. Cleared here, a cancel-all
    // still walking the list would take the record for one of its own and free it under us.
    EndAsync(record);
    if (!result)
        ::SetLastError(error ? error : ERROR_WRITE_FAULT);
    return result;
}

BOOL CPipeRequest::WriteAsync(const void* data, uint32_t length, PIPE_OVERLAPPED* record)
{
    if (!m_pStream || !record)
    {
        ::SetLastError(m_pStream ? ERROR_INVALID_PARAMETER : ERROR_INVALID_HANDLE);
        return FALSE;
    }
    {
        daxlib::lock_guard lock(m_srwLock);
        Log(LogLevel::Trace, At(m_bServer ? L"WriteAsync: (167)" : L"WriteAsync: (174)").c_str(),
            L"new \"write\" ov = 0x%p", daxlib::Addr(record));
        m_records.push_back(record);
    }
    try
    {
        auto request = m_pStream->CreateWriteRequest(data, length, record);
        if (m_pStream->AddWriteRequest(request))
            return TRUE;
    }
    catch (const std::exception& e)
    {
        LogStdException(LogLevel::Error, At(L"WriteAsync: ").c_str(), e);
        ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    }
    // A write that failed to start has been finished already; its callback may still be on its
    // way, so the record stays listed and is retired by the owner or by this object's end.
    Log(LogLevel::Trace, At(m_bServer ? L"WriteAsync: (172)" : L"WriteAsync: (179)").c_str(),
        L"write [ov: 0x%p] failed", daxlib::Addr(record));
    return FALSE;
}

BOOL CPipeRequest::ReadAsync(uint32_t bytes, std::shared_ptr<PipeIoCallback> callback,
                             PIPE_OVERLAPPED* record)
{
    if (!m_pStream || !record)
    {
        ::SetLastError(m_pStream ? ERROR_INVALID_PARAMETER : ERROR_INVALID_HANDLE);
        return FALSE;
    }
    {
        daxlib::lock_guard lock(m_srwLock);
        if (m_bServer)
            Log(LogLevel::Trace, At(L"ReadAsync: (140)").c_str(),
                L"new \"read\" ov = 0x%p, NumberOfBytesToRead = %d byte(s)", daxlib::Addr(record),
                static_cast<int>(bytes));
        else
            Log(LogLevel::Trace, At(L"ReadAsync: (147)").c_str(), L"new \"read\" ov = 0x%p",
                daxlib::Addr(record));
        m_records.push_back(record);
    }
    if (m_pStream->Read(bytes, std::move(callback), record))
        return TRUE;
    const DWORD error = ::GetLastError();
    if (m_bServer)
        Log(LogLevel::Trace, At(L"ReadAsync: (145)").c_str(), L"read [ov: 0x%p] failed. GLE=%d",
            daxlib::Addr(record), static_cast<int>(error));
    else
        Log(LogLevel::Trace, At(L"ReadAsync: (152)").c_str(), L"read [ov: 0x%p] failed",
            daxlib::Addr(record));
    // The stream did not keep the record.
    EndAsync(record);
    ::SetLastError(error);
    return FALSE;
}

void CPipeRequest::CancelAll()
{
    if (!m_pStream)
        return;
    daxlib::lock_guard lock(m_srwLock);
    for (auto it = m_records.begin(); it != m_records.end();)
    {
        PIPE_OVERLAPPED* record = *it;
        Log(LogLevel::Trace, At(m_bServer ? L"CancelAll: (42)" : L"CancelAll: (41)").c_str(),
            L"cancel ov = 0x%p ...", daxlib::Addr(record));
        if (m_pStream->CancelRequest(record))
        {
            Log(LogLevel::Trace, At(m_bServer ? L"CancelAll: (46)" : L"CancelAll: (45)").c_str(),
                L"cancel ov = 0x%p ... success.", daxlib::Addr(record));
            if (record->m_hEvent)
            {
                // Its writer is waiting and retires it after the wait.
                ++it;
                continue;
            }
            Log(LogLevel::Trace, At(m_bServer ? L"CancelAll: (50)" : L"CancelAll: (49)").c_str(),
                L"remove ov : 0x%p", daxlib::Addr(record));
        }
        else
        {
            Log(LogLevel::Trace, At(m_bServer ? L"CancelAll: (53)" : L"CancelAll: (52)").c_str(),
                L"cancel ov = 0x%p ... failed: GLE = %d. Remove ov.", daxlib::Addr(record),
                static_cast<int>(::GetLastError()));
            if (record->m_hEvent)
            {
                ++it;
                continue;
            }
            // Its completion is on its way; the completion path retires it.
            it = m_records.erase(it);
            continue;
        }
        // Detached from its operation and never reported to the owner: freed here.
        it = m_records.erase(it);
        delete record;
    }
}

void CPipeRequest::EndAsync(PIPE_OVERLAPPED* record)
{
    if (!record)
        return;
    {
        daxlib::lock_guard lock(m_srwLock);
        for (auto it = m_records.begin(); it != m_records.end(); ++it)
            if (*it == record)
            {
                Log(LogLevel::Trace, At(L"EndAsync: (49)").c_str(), L"remove ov = 0x%p",
                    daxlib::Addr(record));
                m_records.erase(it);
                break;
            }
    }
    if (m_pStream)
        m_pStream->DetachRecord(record);
    Log(LogLevel::Trace, At(L"EndAsync: (57)").c_str(), L"delete ov = 0x%p", daxlib::Addr(record));
    delete record;
}

size_t CPipeRequest::OutstandingCount() const
{
    daxlib::lock_guard lock(m_srwLock);
    return m_records.size();
}

CPipeServerRequest::CPipeServerRequest(std::shared_ptr<CNamedPipeStream> stream,
                                       std::shared_ptr<ICvLogger> logger)
    : CPipeRequest(std::move(stream), std::move(logger), L"CPipeServerRequest")
{
    m_bServer = true;
    Log(LogLevel::Debug, L"CPipeServerRequest::CPipeServerRequest: ", L"constructor start...");
    Log(LogLevel::Debug, L"CPipeServerRequest::CPipeServerRequest: ", L"constructor end.");
}

CPipeClientRequest::CPipeClientRequest(std::shared_ptr<CNamedPipeStream> stream,
                                       std::shared_ptr<ICvLogger> logger)
    : CPipeRequest(std::move(stream), std::move(logger), L"CPipeClientRequest")
{
    m_bServer = false;
    Log(LogLevel::Debug, L"CPipeClientRequest::CPipeClientRequest: ", L"constructor start...");
    Log(LogLevel::Debug, L"CPipeClientRequest::CPipeClientRequest: ", L"constructor end.");
}
