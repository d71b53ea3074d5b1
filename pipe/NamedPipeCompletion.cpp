// Where every read and write ends: exactly one completer gets past ClaimCompletion, fills in the
// caller's record and finishes the request in the one way its kind allows: the record is gone,
// the request is in no state to finish, it was cancelled, a blocked writer waits for it, or the
// owner's callback gets it as a pool task.
#include "pipe/NamedPipeStream.h"

#include "common/Guarded.h"

#include <algorithm>
#include <utility>

using namespace pipestates;

BOOL CNamedPipeStream::CompleteIoRequest(const std::shared_ptr<PIPE_IO_REQUEST>& request, uint32_t ioStatus)
{
    if (!request)
    {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (request->completed.load())
    {
        LogIo(LogLevel::Error, L"CNamedPipeStream::CompleteIoRequest: (615)", request,
              L"Re-completion of the request: Pipe_IO: 0x%p. State: %s, IoStatus: %d",
              RequestStateName(request->state.load()), static_cast<int>(ioStatus));
        return FALSE;
    }
    if (!ClaimCompletion(request))
    {
        // The other completer (a cancel-all or the real completion) finishes it.
        LogIo(LogLevel::Error, L"CNamedPipeStream::CompleteIoRequest: (630)", request,
              L"Pipe_IO: 0x%p not found in the list - Skip complete. State: %s, IoStatus: %d",
              RequestStateName(request->state.load()), static_cast<int>(ioStatus));
        return FALSE;
    }
    daxlib::unique_lock recordLock(m_srwRecord);
    PIPE_OVERLAPPED* record = request->ov;
    if (!record)
        return FinishDetached(request, ioStatus);
    LogIo(LogLevel::Trace, L"CNamedPipeStream::CompleteIoRequest: (648)", request,
          L"Pipe_IO: 0x%p, ov: 0x%p<ID=%I64d>, state: %s, IoStatus: %d", daxlib::Addr(record), request->id,
          RequestStateName(request->state.load()), static_cast<int>(ioStatus));
    record->m_dwIoStatus = ioStatus;
    record->m_dwBytesTransferred = request->transferred;
    const uint32_t state = request->state.load();
    if (state != ePipeRequestState_Pending && state != ePipeRequestState_Canceled)
        return FinishInInvalidState(request, state, ioStatus);
    if (state == ePipeRequestState_Canceled && !request->hEvent)
        return FinishCanceled(request);
    request->state = ePipeRequestState_Complete;
    if (request->hEvent)
        return WakeBlockedWriter(request, record, ioStatus);
    if (request->callback)
    {
        if (!ClaimCallback(request))
            return FALSE;
        recordLock.unlock();
        return HandToCallback(request, record);
    }
    return FinishUnobserved(request);
}

// A write is claimed by taking it off the write list, for which its real completion and a
// cancel-all race; a read was claimed when it was taken off the pending reads.
bool CNamedPipeStream::ClaimCompletion(const Request& request)
{
    if (request->kind != PIPE_IO_REQUEST::eKindWrite)
        return true;
    daxlib::lock_guard lock(m_srwWriteList);
    const auto it = std::find(m_writeRequests.begin(), m_writeRequests.end(), request);
    if (it == m_writeRequests.end())
        return false;
    m_writeRequests.erase(it);
    return true;
}

// The caller cancelled and took its record back: nobody is told.
BOOL CNamedPipeStream::FinishDetached(const Request& request, uint32_t ioStatus)
{
    LogIo(LogLevel::Error, L"CNamedPipeStream::CompleteIoRequest: (640)", request,
          L"Pipe_IO: 0x%p [ov == NULL -> skip complete]. State: %s, IoStatus: %d",
          RequestStateName(request->state.load()), static_cast<int>(ioStatus));
    request->completed = true;
    return FALSE;
}

BOOL CNamedPipeStream::FinishInInvalidState(const Request& request, uint32_t state, uint32_t ioStatus)
{
    LogIo(LogLevel::Error, L"CNamedPipeStream::CompleteIoRequest: (655)", request,
          L"Invalid state Pipe_IO: 0x%p, state: %s, IoStatus: %d", RequestStateName(state),
          static_cast<int>(ioStatus));
    request->completed = true;
    return FALSE;
}

BOOL CNamedPipeStream::FinishCanceled(const Request& request)
{
    LogIo(LogLevel::Trace, L"CNamedPipeStream::CompleteIoRequest: (661)", request,
          L"Pipe_IO: 0x%p canceled - Skip complete");
    request->completed = true;
    return TRUE;
}

// The writer frees its record once woken; nothing here may touch the record afterwards.
BOOL CNamedPipeStream::WakeBlockedWriter(const Request& request, PIPE_OVERLAPPED* record, uint32_t ioStatus)
{
    if (request->completed.exchange(true))
        return FALSE;
    LogIo(LogLevel::Trace, L"CNamedPipeStream::CompleteIoRequest: (672)", request,
          L"Pipe_IO: 0x%p set event to end wait ov: 0x%p. IoStatus: %d", daxlib::Addr(record),
          static_cast<int>(ioStatus));
    const HANDLE event = std::exchange(request->hEvent, nullptr);
    request->ov = nullptr;
    // The writer's own thread finishing its write needs no wake-up, and setting the event would
    // cost it a wait as well.
    if (record->m_bChecksInline && request->inlineThread.load() == ::GetCurrentThreadId())
        record->m_bEndedInline = true;
    else
        ::SetEvent(event);
    return TRUE;
}

// With the record lock held: whether the owner's callback is still to be handed over. A write
// whose stream has been disconnected ends here instead (last error ERROR_PIPE_NOT_CONNECTED).
bool CNamedPipeStream::ClaimCallback(const Request& request)
{
    if (request->kind != PIPE_IO_REQUEST::eKindRead &&
        GetPipeConnectionState() == ePipeConnectionState_Disconnected)
    {
        request->completed = true;
        ::SetLastError(ERROR_PIPE_NOT_CONNECTED);
        return false;
    }
    return !request->completed.exchange(true);
}

// The owner's callback runs on a pool task, outside every lock of the stream: after the stream's
// task that runs on this thread, if there is one, or as a task of its own.
BOOL CNamedPipeStream::HandToCallback(const Request& request, PIPE_OVERLAPPED* record)
{
    const bool read = request->kind == PIPE_IO_REQUEST::eKindRead;
    LogIo(LogLevel::Trace, L"CNamedPipeStream::CompleteIoRequest: (690)", request,
          read ? L"add read callback: Pipe_IO: 0x%p, ov: 0x%p<ID=%I64d>"
               : L"add write callback: Pipe_IO: 0x%p, ov: 0x%p<ID=%I64d>",
          daxlib::Addr(record), request->id);
    CallbackMap& due = read ? m_readCallbacks : m_writeCallbacks;
    {
        daxlib::lock_guard lock(due.lock);
        due.requests[request->id] = request;
    }
    const BOOL submitted = DeferToRunningTask(request->id, read) ? TRUE : SubmitCallback(request->id, read);
    if (!submitted)
    {
        daxlib::lock_guard lock(due.lock);
        due.requests.erase(request->id);
    }
    return submitted;
}

BOOL CNamedPipeStream::FinishUnobserved(const Request& request)
{
    request->completed = true;
    LogIo(LogLevel::Trace, L"CNamedPipeStream::CompleteIoRequest: (720)", request,
          L"Pipe_IO: 0x%p. Pipe request has no event and no callback");
    return TRUE;
}

int CNamedPipeStream::ProcessReadCallback(int64_t requestId)
{
    return ProcessCallback(requestId, true);
}

int CNamedPipeStream::ProcessWriteCallback(int64_t requestId)
{
    return ProcessCallback(requestId, false);
}

int CNamedPipeStream::ProcessCallback(int64_t requestId, bool read)
{
    CallbackMap& due = read ? m_readCallbacks : m_writeCallbacks;
    const wchar_t* origin = read ? L"CNamedPipeStream::ProcessReadCallback: (1032)"
                                 : L"CNamedPipeStream::ProcessWriteCallback: (1070)";
    std::shared_ptr<PIPE_IO_REQUEST> request;
    {
        daxlib::lock_guard lock(due.lock);
        auto it = due.requests.find(requestId);
        if (it == due.requests.end())
        {
            Log(LogLevel::Error, origin, L"RequestID: %I64d not found.", requestId);
            return 0;
        }
        if (it->second->state.load() != ePipeRequestState_Canceled)
        {
            request = it->second;
            LogIo(LogLevel::Trace, origin, request, L"Pipe_IO: 0x%p, ov: 0x%p, state: %s ",
                  daxlib::Addr(request->ov), RequestStateName(request->state.load()));
            request->state = ePipeRequestState_DoCallback;
        }
    }
    if (request)
    {
        PIPE_OVERLAPPED* record = nullptr;
        uint32_t status = 0;
        {
            daxlib::lock_guard lock(m_srwRecord);
            record = request->ov;
            if (record)
                status = record->m_dwIoStatus;
        }
        if (record && request->callback)
        {
            daxlib::GuardedCall(
                this, origin,
                [&] { request->callback->Invoke(request->buffer, request->transferred, status, record); });
        }
    }
    daxlib::lock_guard lock(due.lock);
    due.requests.erase(requestId);
    return 1;
}
