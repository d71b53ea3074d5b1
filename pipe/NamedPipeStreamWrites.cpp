// The stream's writes: a request per write, started at once (overlapped), listed until its
// completion, and cancelled one by one or all at shutdown.
#include "pipe/NamedPipeStream.h"

#include "common/Guarded.h"

#include <cstring>

using namespace pipestates;

std::shared_ptr<PIPE_IO_REQUEST> CNamedPipeStream::CreateWriteRequest(const void* data, uint32_t length,
                                                                      PIPE_OVERLAPPED* record)
{
    auto request = std::make_shared<PIPE_IO_REQUEST>();
    request->kind = PIPE_IO_REQUEST::eKindWrite;
    request->id = m_nNextRequestId++;
    request->length = length;
    request->buffer.reset(new unsigned char[length ? length : 1]);
    if (length)
        std::memcpy(request->buffer.get(), data, length);
    daxlib::lock_guard lock(m_srwRecord);
    request->ov = record;
    if (record)
    {
        request->hEvent = record->m_hEvent;
        record->m_pRequest = request;
        record->m_pData = request->buffer;
        if (record->m_bCanceled)
            request->state = ePipeRequestState_Canceled;
    }
    if (!request->hEvent)
        request->callback = m_pWriteCallback;
    return request;
}

void CNamedPipeStream::SetWriteCallback(std::shared_ptr<PipeIoCallback> callback)
{
    daxlib::lock_guard lock(m_srwRecord);
    m_pWriteCallback = std::move(callback);
}

BOOL CNamedPipeStream::AddWriteRequest(const std::shared_ptr<PIPE_IO_REQUEST>& request)
{
    return daxlib::GuardedValue(
        this, L"CNamedPipeStream::AddWriteRequest: (232)", FALSE,
        [&]() -> BOOL
        {
            if (!request)
            {
                ::SetLastError(ERROR_INVALID_PARAMETER);
                return FALSE;
            }
            request->transferred = 0;
            {
                daxlib::lock_guard lock(m_srwWriteList);
                // A request cancelled before it was queued stays cancelled: it is listed only so that
                // the failure below can finish it and wake its writer.
                uint32_t state = request->state.load();
                while (state != ePipeRequestState_Canceled &&
                       !request->state.compare_exchange_weak(state, ePipeRequestState_Pending))
                {
                }
                m_writeRequests.push_back(request);
            }
            if (BeginWrite(request))
                return TRUE;
            const DWORD error = ::GetLastError();
            Log(error == ERROR_OPERATION_ABORTED ? LogLevel::Debug : LogLevel::Error,
                L"CNamedPipeStream::AddWriteRequest: (226)",
                L"BeginWrite() failed: GLE=%d, Pipe_IO: 0x%p, ov: 0x%p<ID=%I64d>", static_cast<int>(error),
                daxlib::Addr(request.get()), daxlib::Addr(request->ov), request->id);
            // Finished with the error, so that a blocked writer wakes.
            EndWrite(request, error ? error : ERROR_PIPE_NOT_CONNECTED, 0);
            ::SetLastError(error);
            return FALSE;
        });
}

BOOL CNamedPipeStream::BeginWrite(const std::shared_ptr<PIPE_IO_REQUEST>& request)
{
    return daxlib::GuardedValue(
        this, L"CNamedPipeStream::BeginWrite: (328)", FALSE,
        [&]() -> BOOL
        {
            m_cntBeginWrite++;
            const uint32_t state = GetPipeConnectionState();
            if (state != ePipeConnectionState_Connected)
            {
                Log(LogLevel::Trace, L"CNamedPipeStream::BeginWrite: (245)",
                    L"Pipe not connected (state: %d<%s>) - SKIP Pipe_IO: 0x%p, ov: 0x%p<ID=%I64d>", state,
                    ConnectionStateName(state), daxlib::Addr(request.get()), daxlib::Addr(request->ov),
                    request->id);
                ::SetLastError(ERROR_PIPE_NOT_CONNECTED);
                return FALSE;
            }
            uint32_t idle = PIPE_IO_REQUEST::kIdle;
            if (!request->startPhase.compare_exchange_strong(idle, PIPE_IO_REQUEST::kStarting))
            {
                ::SetLastError(ERROR_OPERATION_ABORTED);
                return FALSE;
            }
            struct StartEnds
            {
                PIPE_IO_REQUEST& request;
                ~StartEnds() { request.startPhase = PIPE_IO_REQUEST::kIdle; }
            } startEnds{*request};
            auto signal = std::make_shared<PipeTaskSignal>();
            signal->signal = ePipeTaskSignal_Write;
            signal->request = request;
            auto io = std::make_shared<PipeRequestIo>(signal);
            {
                // Checked and published under the record lock, which CancelRequest takes too: a
                // cancel either sees the kernel-level request or stops the write from starting.
                daxlib::lock_guard lock(m_srwRecord);
                const uint32_t requestState = request->state.load();
                if (requestState != ePipeRequestState_Created && requestState != ePipeRequestState_Pending)
                {
                    Log(LogLevel::Trace, L"CNamedPipeStream::BeginWrite: (252)",
                        L"Request state: %d<%s> - SKIP Pipe_IO: 0x%p, ov: 0x%p<ID=%I64d>", requestState,
                        RequestStateName(requestState), daxlib::Addr(request.get()),
                        daxlib::Addr(request->ov), request->id);
                    ::SetLastError(requestState == ePipeRequestState_Canceled ? ERROR_OPERATION_ABORTED
                                                                              : ERROR_INVALID_STATE);
                    return FALSE;
                }
                request->io = io;
            }
            if (!m_pIo->StartIo(io))
                return FALSE;
            void* buffer = request->buffer.get();
            const int length = static_cast<int>(request->length);
            DWORD written = 0;
            if (::WriteFile(m_hPipe, buffer, request->length, &written, &io->overlapped))
            {
                LogIo(LogLevel::Trace, L"CNamedPipeStream::BeginWrite: (280)", request,
                      L"Pipe_IO: 0x%p - WriteFile(pBuff = 0x%p, BufLength = %d, ov: 0x%p) return TRUE. "
                      L"lpNumberOfBytesWritten: %d byte(s)",
                      buffer, length, daxlib::Addr(request->ov), static_cast<int>(written));
                if (m_pIo->SkipsCompletionOnSuccess())
                {
                    // No completion follows: the write ends here, on the writer's own thread.
                    request->inlineThread = ::GetCurrentThreadId();
                    m_pIo->CompletedInline(io);
                    if (!EndWrite(request, 0, written))
                        Log(LogLevel::Error, L"CNamedPipeStream::IoAsyncCallback: (476)",
                            L"EndWrite() failed. IoResult = %d, Pipe_IO: 0x%p", 0,
                            daxlib::Addr(request.get()));
                }
                return TRUE;
            }
            const DWORD error = ::GetLastError();
            if (error == ERROR_IO_PENDING)
            {
                if (m_pIo->IsStopping())
                {
                    LogIo(LogLevel::Debug, L"CNamedPipeStream::BeginWrite: (292)", request,
                          L"Pipe_IO: 0x%p - WriteFile(pBuff = 0x%p, BufLength = %d, ov: 0x%p): ... "
                          L"ERROR_IO_PENDING. ThreadPoolIo stops... Cancel request p:0x%p",
                          buffer, length, daxlib::Addr(request->ov), daxlib::Addr(io.get()));
                    m_pIo->Cancel(io, FALSE);
                }
                else if (request->state.load() == ePipeRequestState_Canceled)
                {
                    // Cancelled between the check above and WriteFile: that cancel may have found no
                    // I/O to stop yet, so the write is stopped here.
                    m_pIo->Cancel(io, FALSE);
                }
                else
                {
                    LogIo(LogLevel::Trace, L"CNamedPipeStream::BeginWrite: (299)", request,
                          L"Pipe_IO: 0x%p - WriteFile(pBuff = 0x%p, BufLength = %d, ov: 0x%p): ... "
                          L"ERROR_IO_PENDING...",
                          buffer, length, daxlib::Addr(request->ov));
                }
                return TRUE;
            }
            if (error == ERROR_BROKEN_PIPE)
                LogIo(LogLevel::Warning, L"CNamedPipeStream::BeginWrite: (310)", request,
                      L"Pipe_IO: 0x%p - WriteFile(pBuff = 0x%p, BufLength = %d, ov: 0x%p): ... "
                      L"ERROR_BROKEN_PIPE...",
                      buffer, length, daxlib::Addr(request->ov));
            else
                LogIo(LogLevel::Error, L"CNamedPipeStream::BeginWrite: (318)", request,
                      L"Pipe_IO: 0x%p - WriteFile(pBuff = 0x%p, BufLength = %d, ov: 0x%p) return GLE=%d",
                      buffer, length, daxlib::Addr(request->ov), static_cast<int>(error));
            m_pIo->Cancel(io, TRUE);
            ::SetLastError(error);
            return FALSE;
        });
}

BOOL CNamedPipeStream::EndWrite(const std::shared_ptr<PIPE_IO_REQUEST>& request, uint32_t ioResult,
                                uint32_t bytesWritten)
{
    return daxlib::GuardedValue(
        this, L"CNamedPipeStream::EndWrite: (408)", FALSE,
        [&]() -> BOOL
        {
            if (!request)
            {
                ::SetLastError(ERROR_INVALID_PARAMETER);
                return FALSE;
            }
            const uint32_t count = ++m_cntWrite;
            LogIo(LogLevel::Debug, L"CNamedPipeStream::EndWrite: (356)", request,
                  L"Pipe_IO: 0x%p, cntWrite = %d, cntBeginWrite = %d, bEndWrite = %d ",
                  static_cast<int>(count), static_cast<int>(m_cntBeginWrite.load()),
                  m_bEndWrite.load() ? 1 : 0);
            request->transferred = bytesWritten;
            if (ioResult == 0 && bytesWritten < request->length)
            {
                // Deliberately not written again: the caller sees the count in its record.
                LogIo(LogLevel::Debug, L"CNamedPipeStream::EndWrite: (370)", request,
                      L"Pipe_IO: 0x%p - Not all data is written to the channel. Written=%d byte(s), "
                      L"nNumberOfBytesToWrite=%d byte(s)",
                      static_cast<int>(bytesWritten), static_cast<int>(request->length));
            }
            const uint32_t state = request->state.load();
            if (state == ePipeRequestState_Pending)
                LogIo(LogLevel::Trace, L"CNamedPipeStream::EndWrite: (380)", request,
                      L"Pipe_IO: 0x%p, IoResult: %d", static_cast<int>(ioResult));
            else
                LogIo(LogLevel::Trace, L"CNamedPipeStream::EndWrite: (384)", request,
                      L"Pipe_IO: 0x%p, IoResult: %d, State: %d<%s>", static_cast<int>(ioResult), state,
                      RequestStateName(state));
            const BOOL result = CompleteIoRequest(request, ioResult);
            m_bEndWrite = true;
            return result;
        });
}

void CNamedPipeStream::CancelWriteRequest()
{
    std::list<std::shared_ptr<PIPE_IO_REQUEST>> writes;
    {
        daxlib::lock_guard lock(m_srwWriteList);
        writes = m_writeRequests;
    }
    for (const auto& request : writes)
    {
        // A write being started is finished by its writer: one that succeeded in place must not
        // be reported aborted, and one that waits is cancelled when the binding stops.
        uint32_t idle = PIPE_IO_REQUEST::kIdle;
        if (!request->startPhase.compare_exchange_strong(idle, PIPE_IO_REQUEST::kAbandoned) &&
            idle == PIPE_IO_REQUEST::kStarting)
            continue;
        // A write in the kernel's hands is finished by its completion, which says whether the
        // cancel came in time; the binding's stop brings that completion at the latest.
        if (auto io = request->io.lock())
        {
            if (m_pIo->Cancel(io, FALSE))
                LogIo(LogLevel::Trace, L"CNamedPipeStream::CancelWriteRequest: (752)", request,
                      L"Pipe_IO: 0x%p cancel... success");
            else
                LogIo(LogLevel::Trace, L"CNamedPipeStream::CancelWriteRequest: (755)", request,
                      L"Pipe_IO: 0x%p cancel... fail");
            continue;
        }
        LogIo(LogLevel::Trace, L"CNamedPipeStream::CancelWriteRequest: (760)", request,
              L"Pipe_IO: 0x%p. Set IoResult: %d ...", static_cast<int>(ERROR_OPERATION_ABORTED));
        if (!EndWrite(request, ERROR_OPERATION_ABORTED, 0))
            Log(LogLevel::Trace, L"CNamedPipeStream::CancelWriteRequest: (768)",
                L"EndWrite() failed. IoResult = %d, Pipe_IO: 0x%p", static_cast<int>(ERROR_OPERATION_ABORTED),
                daxlib::Addr(request.get()));
    }
}

BOOL CNamedPipeStream::CancelRequest(PIPE_OVERLAPPED* record)
{
    if (!record)
    {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    std::shared_ptr<PIPE_IO_REQUEST> request;
    std::shared_ptr<PipeRequestIo> io;
    {
        daxlib::lock_guard lock(m_srwRecord);
        request = record->m_pRequest;
        if (!request && record->m_hEvent)
            record->m_bCanceled = true; // a blocked write not handed over yet never starts
        if (!request || request->ov != record || request->completed.load())
        {
            ::SetLastError(ERROR_NOT_FOUND);
            return FALSE;
        }
        request->state = ePipeRequestState_Canceled;
        if (!request->hEvent)
        {
            request->ov = nullptr;
            record->m_pRequest.reset();
        }
        io = request->io.lock();
    }
    if (request->kind == PIPE_IO_REQUEST::eKindRead)
    {
        daxlib::lock_guard lock(m_srwReadQueue);
        m_reads.Remove(request);
        return TRUE;
    }
    if (io)
        m_pIo->Cancel(io, FALSE);
    return TRUE;
}

void CNamedPipeStream::DetachRecord(PIPE_OVERLAPPED* record)
{
    if (!record)
        return;
    daxlib::lock_guard lock(m_srwRecord);
    if (record->m_pRequest && record->m_pRequest->ov == record)
        record->m_pRequest->ov = nullptr;
    record->m_pRequest.reset();
}

size_t CNamedPipeStream::OutstandingWriteCount() const
{
    daxlib::lock_guard lock(m_srwWriteList);
    return m_writeRequests.size();
}
