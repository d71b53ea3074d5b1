#include "pipe/NamedPipeStream.h"

#include "common/DaxException.h"
#include "pipe/ThreadPool.h"

#include <cstring>
#include <exception>
#include <new>

using namespace pipe_states;

CNamedPipeStream::CNamedPipeStream(std::shared_ptr<ICvLogger> logger, SharedPipeHandle pipe, void* context)
    : CBaseLogger(logger), m_pPipe(std::move(pipe)), m_hPipe(m_pPipe ? m_pPipe->get() : INVALID_HANDLE_VALUE),
      m_pContext(context)
{
    Log(LogLevel::Debug, L"CNamedPipeStream::CNamedPipeStream: ", L"constructor start...");
    m_pIo = std::make_shared<PipeThreadPoolIo>(
        m_hPipe, L"NamedPipeParallel_IO", logger,
        MakeMemberCallback<PipeThreadPoolIo::Callback::result_type(
            unsigned long, PipeThreadPoolIo::Request&, unsigned long long, PipeThreadPoolIo*, void*)>(
            this, &CNamedPipeStream::IoAsyncCallback),
        context);
    if (!m_pIo->Start())
        daxlib::ThrowDaxException(L"NamedPipeStream", 60);
    Log(LogLevel::Debug, L"CNamedPipeStream::CNamedPipeStream: ", L"constructor end.");
}

CNamedPipeStream::~CNamedPipeStream()
{
    Log(LogLevel::Debug, L"CNamedPipeStream::~CNamedPipeStream: ", L"[~] destructor start...");
    WaitForIoCallbacks();
    Log(LogLevel::Debug, L"CNamedPipeStream::~CNamedPipeStream: ", L"[~] destructor end.");
}

uint32_t CNamedPipeStream::SetPipeConnectionState(uint32_t newState)
{
    std::lock_guard lock(m_stateMutex);
    const uint32_t current = m_state;
    if (IsTransitionAllowed(current, newState))
    {
        m_state = newState;
        Log(LogLevel::Debug, L"CNamedPipeStream::SetPipeConnectionState: (1197)",
            L"CurrentState: %d<%s>, NewState: %d<%s> - status updated", current, ConnectionStateName(current),
            newState, ConnectionStateName(newState));
    }
    else
    {
        Log(LogLevel::Debug, L"CNamedPipeStream::SetPipeConnectionState: (1200)",
            L"CurrentState: %d<%s>, NewState: %d<%s>", current, ConnectionStateName(current), newState,
            ConnectionStateName(newState));
    }
    return current;
}

uint32_t CNamedPipeStream::GetPipeConnectionState() const
{
    std::lock_guard lock(m_stateMutex);
    return m_state;
}

void CNamedPipeStream::ForceConnectionState(uint32_t state)
{
    std::lock_guard lock(m_stateMutex);
    m_state = state;
}

template <typename R, typename P>
BOOL CNamedPipeStream::SubmitSelf(R (CNamedPipeStream::*method)(P), P argument)
{
    auto pool = GetThreadPool();
    std::weak_ptr<CNamedPipeStream> weak = weak_from_this();
    if (!pool || weak.expired())
    {
        ::SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    // The task keeps the stream alive only while it runs; a stream already gone is skipped.
    auto task = MakeGlobalCallback<R(P)>(
        [weak, method](P value) -> R
        {
            if (auto self = weak.lock())
                return ((*self).*method)(value);
            if constexpr (!std::is_void_v<R>)
                return R{};
        });
    return pool->CreateTask<R, P>(task, argument);
}

BOOL CNamedPipeStream::BeginRead()
{
    {
        std::lock_guard lock(m_stateMutex);
        if (m_state != ePipeConnectionState_Connected)
        {
            Log(LogLevel::Trace, L"CNamedPipeStream::BeginRead: (158)",
                L"Disconnected - SKIP adding new read operation to thread pool I/O");
            ::SetLastError(ERROR_PIPE_NOT_CONNECTED);
            return FALSE;
        }
    }
    auto signal = std::make_shared<PipeTaskSignal>();
    signal->signal = ePipeTaskSignal_Read;
    signal->length = kReadBufferSize;
    signal->buffer.reset(new (std::nothrow) unsigned char[kReadBufferSize]);
    if (!signal->buffer)
    {
        ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        Log(LogLevel::Error, L"CNamedPipeStream::BeginRead: (166)",
            L"Failed to allocate BufLength = %d GLE=%d", static_cast<int>(kReadBufferSize),
            static_cast<int>(::GetLastError()));
        return FALSE;
    }
    auto request = std::make_shared<PipeRequestIo>(signal);
    if (!m_pIo->StartIo(request))
        return FALSE;
    void* buffer = signal->buffer.get();
    if (::ReadFile(m_hPipe, buffer, kReadBufferSize, nullptr, &request->overlapped))
    {
        Log(LogLevel::Trace, L"CNamedPipeStream::BeginRead: (176)",
            L"ReadFile(pBuff = 0x%p, BufLength = %d) return TRUE", buffer, static_cast<int>(kReadBufferSize));
        return TRUE;
    }
    const DWORD error = ::GetLastError();
    if (error == ERROR_IO_PENDING)
    {
        if (m_pIo->IsStopping())
        {
            Log(LogLevel::Debug, L"CNamedPipeStream::BeginRead: (184)",
                L"ReadFile(pBuff = 0x%p, BufLength = %d): ... ERROR_IO_PENDING. ThreadPoolIo stops... Cancel "
                L"request p: 0x%p",
                buffer, static_cast<int>(kReadBufferSize), static_cast<void*>(request.get()));
            m_pIo->Cancel(request, FALSE);
        }
        else
        {
            Log(LogLevel::Trace, L"CNamedPipeStream::BeginRead: (189)",
                L"ReadFile(pBuff = 0x%p, BufLength = %d): ... ERROR_IO_PENDING...", buffer,
                static_cast<int>(kReadBufferSize));
        }
        return TRUE;
    }
    if (error == ERROR_BROKEN_PIPE)
        Log(LogLevel::Warning, L"CNamedPipeStream::BeginRead: (194)",
            L"ReadFile(pBuff = 0x%p, BufLength = %d): ... ERROR_BROKEN_PIPE...", buffer,
            static_cast<int>(kReadBufferSize));
    else
        Log(LogLevel::Error, L"CNamedPipeStream::BeginRead: (197)",
            L"ReadFile(pBuff = 0x%p, BufLength = %d) return GLE=%d", buffer,
            static_cast<int>(kReadBufferSize), static_cast<int>(error));
    m_pIo->Cancel(request, TRUE);
    ::SetLastError(error);
    return FALSE;
}

int CNamedPipeStream::IoAsyncCallback(unsigned long ioResult, PipeThreadPoolIo::Request& request,
                                      unsigned long long bytes, PipeThreadPoolIo*, void*)
{
    const PipeTaskSignal* signal = request && request->signal ? request->signal.get() : nullptr;
    const uint32_t kind = signal ? signal->signal : 0xFFFFFFFFu;
    Log(LogLevel::Trace, L"CNamedPipeStream::IoAsyncCallback: (423)",
        L"[PipeIO signal \"%s\", ov: 0x%p] begin...", SignalName(kind),
        static_cast<void*>(request ? &request->overlapped : nullptr));
    if (ioResult != 0)
        Log(LogLevel::Error, L"CNamedPipeStream::IoAsyncCallback: (427)", L"PipeIO signal %s: failed err=%d",
            SignalName(kind), static_cast<int>(ioResult));
    try
    {
        switch (kind)
        {
        case ePipeTaskSignal_Connected:
            OnConnectCompleted(ioResult);
            if (ioResult == 0)
            {
                ForceConnectionState(ePipeConnectionState_Connected);
                OnClientConnected();
            }
            break;
        case ePipeTaskSignal_Read:
        {
            Log(LogLevel::Trace, L"CNamedPipeStream::IoAsyncCallback: (444)",
                L"Reader: recieved %d byte(s) from pipe server end. IoResult = %d", static_cast<int>(bytes),
                static_cast<int>(ioResult));
            if (ioResult == 0 && bytes > 0)
            {
                const uint32_t error = m_memStream.Write(signal->buffer.get(), static_cast<size_t>(bytes));
                if (error != 0)
                    Log(LogLevel::Error, L"CNamedPipeStream::IoAsyncCallback: (450)",
                        L"Reader: received %d byte(s) from pipe server end. Error writing to stream. GLE=%d",
                        static_cast<int>(bytes), static_cast<int>(error));
            }
            const bool more = ioResult == 0 && BeginRead();
            if (!more)
                m_readFinalError = ioResult != 0 ? static_cast<uint32_t>(ioResult) : ERROR_BROKEN_PIPE;
            if (!EndRead(ioResult))
                Log(LogLevel::Error, L"CNamedPipeStream::IoAsyncCallback: (455)", L"EndRead() failed");
            if (!more)
                OnReadLoopEnded();
            break;
        }
        case ePipeTaskSignal_Write:
        {
            const auto& pipeIo = signal->request;
            Log(LogLevel::Trace, L"CNamedPipeStream::IoAsyncCallback: (470)",
                L"Writer: written %d byte(s) to pipe server end. IoResult = %d, Pipe_IO: 0x%p, ov: "
                L"0x%p<ID=%I64d>",
                static_cast<int>(bytes), static_cast<int>(ioResult), static_cast<void*>(pipeIo.get()),
                static_cast<void*>(pipeIo ? pipeIo->ov : nullptr), pipeIo ? pipeIo->id : 0LL);
            if (!EndWrite(pipeIo, ioResult, static_cast<uint32_t>(bytes)))
                Log(LogLevel::Error, L"CNamedPipeStream::IoAsyncCallback: (476)",
                    L"EndWrite() failed. IoResult = %d, Pipe_IO: 0x%p", static_cast<int>(ioResult),
                    static_cast<void*>(pipeIo.get()));
            break;
        }
        default:
            Log(LogLevel::Error, L"CNamedPipeStream::IoAsyncCallback: (490)",
                L"signal %s not supported as IO completion signal", SignalName(kind));
            break;
        }
    }
    catch (const std::exception& e)
    {
        LogStdException(LogLevel::Error, L"CNamedPipeStream::IoAsyncCallback: (495)", e);
    }
    Log(LogLevel::Trace, L"CNamedPipeStream::IoAsyncCallback: (501)",
        L"[PipeIO signal \"%s\", ov: 0x%p] End.", SignalName(kind),
        static_cast<void*>(request ? &request->overlapped : nullptr));
    return 1;
}

BOOL CNamedPipeStream::EndRead(unsigned long ioResult)
{
    try
    {
        return SubmitSelf<void, unsigned long>(&CNamedPipeStream::ProcessQueueReadRequest, ioResult);
    }
    catch (const std::exception& e)
    {
        LogStdException(LogLevel::Error, L"CNamedPipeStream::EndRead: (880)", e);
        return FALSE;
    }
}

BOOL CNamedPipeStream::Read(uint32_t bytes, std::shared_ptr<PipeIoCallback> callback, PIPE_OVERLAPPED* record)
{
    try
    {
        if (!record || !callback)
        {
            ::SetLastError(ERROR_INVALID_PARAMETER);
            return FALSE;
        }
        if (GetPipeConnectionState() == ePipeConnectionState_ConnectionError ||
            (m_readFinalError.load() != 0 && m_memStream.Size() < bytes))
        {
            // Nothing more will arrive and what is queued is not enough.
            ::SetLastError(ERROR_PIPE_NOT_CONNECTED);
            return FALSE;
        }
        auto request = std::make_shared<PIPE_IO_REQUEST>();
        request->kind = PIPE_IO_REQUEST::eKindRead;
        request->id = m_nextRequestId++;
        request->length = bytes;
        // The buffer comes when the data is all there (ProcessQueueReadRequest): a peer that
        // announces a large message and trickles it holds only what it has sent.
        request->callback = std::move(callback);
        request->state = ePipeRequestState_Pending;
        {
            std::lock_guard lock(m_recordMutex);
            request->ov = record;
            record->m_pRequest = request;
        }
        {
            std::lock_guard lock(m_readQueueMutex);
            m_pendingReads.push_back(request);
        }
        // Data already received is handed over at once; the owner's callback still runs as a
        // pool task, never inside this call.
        ProcessQueueReadRequest(0);
        return TRUE;
    }
    catch (const std::exception& e)
    {
        LogStdException(LogLevel::Error, L"CNamedPipeStream::Read: (870)", e);
        ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return FALSE;
    }
}

void CNamedPipeStream::ProcessQueueReadRequest(unsigned long ioResult)
{
    try
    {
        std::lock_guard lock(m_readQueueMutex);
        while (!m_pendingReads.empty())
        {
            std::shared_ptr<PIPE_IO_REQUEST> request = m_pendingReads.front();
            if (request->state.load() == ePipeRequestState_Canceled)
            {
                Log(LogLevel::Trace, L"CNamedPipeStream::ProcessQueueReadRequest: (912)",
                    L"Pipe_IO: 0x%p canceled, cbData=%d, IoResult=%d", static_cast<void*>(request.get()),
                    static_cast<int>(request->length), static_cast<int>(ioResult));
                m_pendingReads.pop_front();
                continue;
            }
            if (m_memStream.Size() >= request->length)
            {
                request->buffer.reset(new unsigned char[request->length ? request->length : 1]);
                {
                    std::lock_guard recordLock(m_recordMutex);
                    if (request->ov)
                        request->ov->m_pData = request->buffer;
                }
                if (request->length > 0 && !m_memStream.Read(request->buffer.get(), request->length))
                {
                    Log(LogLevel::Error, L"CNamedPipeStream::ProcessQueueReadRequest: (925)",
                        L"Pipe_IO: 0x%p - Failed to read <%d byte(s)> from CMemStream. GLE=%d",
                        static_cast<void*>(request.get()), static_cast<int>(request->length),
                        static_cast<int>(::GetLastError()));
                    break;
                }
                request->transferred = request->length;
                Log(LogLevel::Trace, L"CNamedPipeStream::ProcessQueueReadRequest: (930)",
                    L"Pipe_IO: 0x%p, IoResult: %d - read % d byte(s)", static_cast<void*>(request.get()),
                    static_cast<int>(ioResult), static_cast<int>(request->length));
                m_pendingReads.pop_front();
                CompleteIoRequest(request, 0);
                continue;
            }
            const uint32_t finalError = m_readFinalError.load();
            if (finalError == 0)
                break; // wait for more data
            Log(LogLevel::Trace, L"CNamedPipeStream::ProcessQueueReadRequest: (940)",
                ioResult != 0 ? L"Pipe_IO: 0x%p - read failed. IoResult: %d"
                              : L"Pipe_IO: 0x%p -  - read failed. IoResult: %d",
                static_cast<void*>(request.get()), static_cast<int>(finalError));
            m_pendingReads.pop_front();
            CompleteIoRequest(request, finalError);
        }
    }
    catch (const std::exception& e)
    {
        LogStdException(LogLevel::Error, L"CNamedPipeStream::ProcessQueueReadRequest: (948)", e);
    }
}

std::shared_ptr<PIPE_IO_REQUEST> CNamedPipeStream::CreateWriteRequest(const void* data, uint32_t length,
                                                                      PIPE_OVERLAPPED* record)
{
    auto request = std::make_shared<PIPE_IO_REQUEST>();
    request->kind = PIPE_IO_REQUEST::eKindWrite;
    request->id = m_nextRequestId++;
    request->length = length;
    request->buffer.reset(new unsigned char[length ? length : 1]);
    if (length)
        std::memcpy(request->buffer.get(), data, length);
    std::lock_guard lock(m_recordMutex);
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
    std::lock_guard lock(m_recordMutex);
    m_pWriteCallback = std::move(callback);
}

BOOL CNamedPipeStream::AddWriteRequest(const std::shared_ptr<PIPE_IO_REQUEST>& request)
{
    try
    {
        if (!request)
        {
            ::SetLastError(ERROR_INVALID_PARAMETER);
            return FALSE;
        }
        request->transferred = 0;
        {
            std::lock_guard lock(m_writeListMutex);
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
            static_cast<void*>(request.get()), static_cast<void*>(request->ov), request->id);
        // Finished with the error, so that a blocked writer wakes.
        EndWrite(request, error ? error : ERROR_PIPE_NOT_CONNECTED, 0);
        ::SetLastError(error);
        return FALSE;
    }
    catch (const std::exception& e)
    {
        LogStdException(LogLevel::Error, L"CNamedPipeStream::AddWriteRequest: (232)", e);
        return FALSE;
    }
}

BOOL CNamedPipeStream::BeginWrite(const std::shared_ptr<PIPE_IO_REQUEST>& request)
{
    try
    {
        m_cntBeginWrite++;
        const uint32_t state = GetPipeConnectionState();
        if (state != ePipeConnectionState_Connected)
        {
            Log(LogLevel::Trace, L"CNamedPipeStream::BeginWrite: (245)",
                L"Pipe not connected (state: %d<%s>) - SKIP Pipe_IO: 0x%p, ov: 0x%p<ID=%I64d>", state,
                ConnectionStateName(state), static_cast<void*>(request.get()),
                static_cast<void*>(request->ov), request->id);
            ::SetLastError(ERROR_PIPE_NOT_CONNECTED);
            return FALSE;
        }
        auto signal = std::make_shared<PipeTaskSignal>();
        signal->signal = ePipeTaskSignal_Write;
        signal->request = request;
        auto io = std::make_shared<PipeRequestIo>(signal);
        {
            // Checked and published under the record lock, which CancelRequest takes too: a
            // cancel either sees the kernel-level request or stops the write from starting.
            std::lock_guard lock(m_recordMutex);
            const uint32_t requestState = request->state.load();
            if (requestState != ePipeRequestState_Created && requestState != ePipeRequestState_Pending)
            {
                Log(LogLevel::Trace, L"CNamedPipeStream::BeginWrite: (252)",
                    L"Request state: %d<%s> - SKIP Pipe_IO: 0x%p, ov: 0x%p<ID=%I64d>", requestState,
                    RequestStateName(requestState), static_cast<void*>(request.get()),
                    static_cast<void*>(request->ov), request->id);
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
            Log(LogLevel::Trace, L"CNamedPipeStream::BeginWrite: (280)",
                L"Pipe_IO: 0x%p - WriteFile(pBuff = 0x%p, BufLength = %d, ov: 0x%p) return TRUE. "
                L"lpNumberOfBytesWritten: %d byte(s)",
                static_cast<void*>(request.get()), buffer, length, static_cast<void*>(request->ov),
                static_cast<int>(written));
            return TRUE;
        }
        const DWORD error = ::GetLastError();
        if (error == ERROR_IO_PENDING)
        {
            if (m_pIo->IsStopping())
            {
                Log(LogLevel::Debug, L"CNamedPipeStream::BeginWrite: (292)",
                    L"Pipe_IO: 0x%p - WriteFile(pBuff = 0x%p, BufLength = %d, ov: 0x%p): ... "
                    L"ERROR_IO_PENDING. ThreadPoolIo stops... Cancel request p:0x%p",
                    static_cast<void*>(request.get()), buffer, length, static_cast<void*>(request->ov),
                    static_cast<void*>(io.get()));
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
                Log(LogLevel::Trace, L"CNamedPipeStream::BeginWrite: (299)",
                    L"Pipe_IO: 0x%p - WriteFile(pBuff = 0x%p, BufLength = %d, ov: 0x%p): ... "
                    L"ERROR_IO_PENDING...",
                    static_cast<void*>(request.get()), buffer, length, static_cast<void*>(request->ov));
            }
            return TRUE;
        }
        if (error == ERROR_BROKEN_PIPE)
            Log(LogLevel::Warning, L"CNamedPipeStream::BeginWrite: (310)",
                L"Pipe_IO: 0x%p - WriteFile(pBuff = 0x%p, BufLength = %d, ov: 0x%p): ... "
                L"ERROR_BROKEN_PIPE...",
                static_cast<void*>(request.get()), buffer, length, static_cast<void*>(request->ov));
        else
            Log(LogLevel::Error, L"CNamedPipeStream::BeginWrite: (318)",
                L"Pipe_IO: 0x%p - WriteFile(pBuff = 0x%p, BufLength = %d, ov: 0x%p) return GLE=%d",
                static_cast<void*>(request.get()), buffer, length, static_cast<void*>(request->ov),
                static_cast<int>(error));
        m_pIo->Cancel(io, TRUE);
        ::SetLastError(error);
        return FALSE;
    }
    catch (const std::exception& e)
    {
        LogStdException(LogLevel::Error, L"CNamedPipeStream::BeginWrite: (328)", e);
        return FALSE;
    }
}

BOOL CNamedPipeStream::EndWrite(const std::shared_ptr<PIPE_IO_REQUEST>& request, uint32_t ioResult,
                                uint32_t bytesWritten)
{
    try
    {
        if (!request)
        {
            ::SetLastError(ERROR_INVALID_PARAMETER);
            return FALSE;
        }
        const uint32_t count = ++m_cntWrite;
        Log(LogLevel::Debug, L"CNamedPipeStream::EndWrite: (356)",
            L"Pipe_IO: 0x%p, cntWrite = %d, cntBeginWrite = %d, bEndWrite = %d ",
            static_cast<void*>(request.get()), static_cast<int>(count),
            static_cast<int>(m_cntBeginWrite.load()), m_bEndWrite.load() ? 1 : 0);
        request->transferred = bytesWritten;
        if (ioResult == 0 && bytesWritten < request->length)
        {
            // Deliberately not written again: the caller sees the count in its record.
            Log(LogLevel::Debug, L"CNamedPipeStream::EndWrite: (370)",
                L"Pipe_IO: 0x%p - Not all data is written to the channel. Written=%d byte(s), "
                L"nNumberOfBytesToWrite=%d byte(s)",
                static_cast<void*>(request.get()), static_cast<int>(bytesWritten),
                static_cast<int>(request->length));
        }
        const uint32_t state = request->state.load();
        if (state == ePipeRequestState_Pending)
            Log(LogLevel::Trace, L"CNamedPipeStream::EndWrite: (380)", L"Pipe_IO: 0x%p, IoResult: %d",
                static_cast<void*>(request.get()), static_cast<int>(ioResult));
        else
            Log(LogLevel::Trace, L"CNamedPipeStream::EndWrite: (384)",
                L"Pipe_IO: 0x%p, IoResult: %d, State: %d<%s>", static_cast<void*>(request.get()),
                static_cast<int>(ioResult), state, RequestStateName(state));
        const BOOL result = CompleteIoRequest(request, ioResult);
        m_bEndWrite = true;
        return result;
    }
    catch (const std::exception& e)
    {
        LogStdException(LogLevel::Error, L"CNamedPipeStream::EndWrite: (408)", e);
        return FALSE;
    }
}

void CNamedPipeStream::CancelWriteRequest()
{
    std::list<std::shared_ptr<PIPE_IO_REQUEST>> writes;
    {
        std::lock_guard lock(m_writeListMutex);
        writes = m_writeRequests;
    }
    for (const auto& request : writes)
    {
        auto io = request->io.lock();
        if (io && m_pIo->Cancel(io, FALSE))
            Log(LogLevel::Trace, L"CNamedPipeStream::CancelWriteRequest: (752)",
                L"Pipe_IO: 0x%p cancel... success", static_cast<void*>(request.get()));
        else
            Log(LogLevel::Trace, L"CNamedPipeStream::CancelWriteRequest: (755)",
                L"Pipe_IO: 0x%p cancel... fail", static_cast<void*>(request.get()));
        Log(LogLevel::Trace, L"CNamedPipeStream::CancelWriteRequest: (760)",
            L"Pipe_IO: 0x%p. Set IoResult: %d ...", static_cast<void*>(request.get()),
            static_cast<int>(ERROR_OPERATION_ABORTED));
        if (!EndWrite(request, ERROR_OPERATION_ABORTED, 0))
            Log(LogLevel::Trace, L"CNamedPipeStream::CancelWriteRequest: (768)",
                L"EndWrite() failed. IoResult = %d, Pipe_IO: 0x%p", static_cast<int>(ERROR_OPERATION_ABORTED),
                static_cast<void*>(request.get()));
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
        std::lock_guard lock(m_recordMutex);
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
        std::lock_guard lock(m_readQueueMutex);
        for (auto it = m_pendingReads.begin(); it != m_pendingReads.end(); ++it)
            if (*it == request)
            {
                m_pendingReads.erase(it);
                break;
            }
        return TRUE;
    }
    if (io)
        m_pIo->Cancel(io, FALSE);
    return TRUE;
}

BOOL CNamedPipeStream::CompleteIoRequest(const std::shared_ptr<PIPE_IO_REQUEST>& request, uint32_t ioStatus)
{
    if (!request)
    {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (request->completed.load())
    {
        Log(LogLevel::Error, L"CNamedPipeStream::CompleteIoRequest: (615)",
            L"Re-completion of the request: Pipe_IO: 0x%p. State: %s, IoStatus: %d",
            static_cast<void*>(request.get()), RequestStateName(request->state.load()),
            static_cast<int>(ioStatus));
        return FALSE;
    }
    if (request->kind == PIPE_IO_REQUEST::eKindWrite)
    {
        bool found = false;
        {
            std::lock_guard lock(m_writeListMutex);
            for (auto it = m_writeRequests.begin(); it != m_writeRequests.end(); ++it)
                if (*it == request)
                {
                    m_writeRequests.erase(it);
                    found = true;
                    break;
                }
        }
        if (!found)
        {
            Log(LogLevel::Error, L"CNamedPipeStream::CompleteIoRequest: (630)",
                L"Pipe_IO: 0x%p not found in the list - Skip complete. State: %s, IoStatus: %d",
                static_cast<void*>(request.get()), RequestStateName(request->state.load()),
                static_cast<int>(ioStatus));
            return FALSE;
        }
    }
    std::unique_lock recordLock(m_recordMutex);
    PIPE_OVERLAPPED* record = request->ov;
    if (!record)
    {
        Log(LogLevel::Error, L"CNamedPipeStream::CompleteIoRequest: (640)",
            L"Pipe_IO: 0x%p [ov == NULL -> skip complete]. State: %s, IoStatus: %d",
            static_cast<void*>(request.get()), RequestStateName(request->state.load()),
            static_cast<int>(ioStatus));
        request->completed = true;
        return FALSE;
    }
    Log(LogLevel::Trace, L"CNamedPipeStream::CompleteIoRequest: (648)",
        L"Pipe_IO: 0x%p, ov: 0x%p<ID=%I64d>, state: %s, IoStatus: %d", static_cast<void*>(request.get()),
        static_cast<void*>(record), request->id, RequestStateName(request->state.load()),
        static_cast<int>(ioStatus));
    record->m_dwIoStatus = ioStatus;
    record->m_dwBytesTransferred = request->transferred;
    uint32_t state = request->state.load();
    if (state != ePipeRequestState_Pending && state != ePipeRequestState_Canceled)
    {
        Log(LogLevel::Error, L"CNamedPipeStream::CompleteIoRequest: (655)",
            L"Invalid state Pipe_IO: 0x%p, state: %s, IoStatus: %d", static_cast<void*>(request.get()),
            RequestStateName(state), static_cast<int>(ioStatus));
        return FALSE;
    }
    if (state == ePipeRequestState_Canceled && !request->hEvent)
    {
        Log(LogLevel::Trace, L"CNamedPipeStream::CompleteIoRequest: (661)",
            L"Pipe_IO: 0x%p canceled - Skip complete", static_cast<void*>(request.get()));
        request->completed = true;
        return TRUE;
    }
    request->state = ePipeRequestState_Complete;
    if (request->hEvent)
    {
        if (request->completed.exchange(true))
            return FALSE;
        Log(LogLevel::Trace, L"CNamedPipeStream::CompleteIoRequest: (672)",
            L"Pipe_IO: 0x%p set event to end wait ov: 0x%p. IoStatus: %d", static_cast<void*>(request.get()),
            static_cast<void*>(record), static_cast<int>(ioStatus));
        const HANDLE event = std::exchange(request->hEvent, nullptr);
        // The writer frees its record once woken; nothing here may touch it afterwards.
        request->ov = nullptr;
        ::SetEvent(event);
        return TRUE;
    }
    if (request->callback)
    {
        const bool read = request->kind == PIPE_IO_REQUEST::eKindRead;
        if (!read && GetPipeConnectionState() == ePipeConnectionState_Disconnected)
        {
            request->completed = true;
            ::SetLastError(ERROR_PIPE_NOT_CONNECTED);
            return FALSE;
        }
        if (request->completed.exchange(true))
            return FALSE;
        recordLock.unlock();
        Log(LogLevel::Trace, L"CNamedPipeStream::CompleteIoRequest: (690)",
            read ? L"add read callback: Pipe_IO: 0x%p, ov: 0x%p<ID=%I64d>"
                 : L"add write callback: Pipe_IO: 0x%p, ov: 0x%p<ID=%I64d>",
            static_cast<void*>(request.get()), static_cast<void*>(record), request->id);
        {
            std::lock_guard lock(read ? m_readMapMutex : m_writeMapMutex);
            (read ? m_readCallbacks : m_writeCallbacks)[request->id] = request;
        }
        const BOOL submitted = SubmitSelf<int, int64_t>(read ? &CNamedPipeStream::ProcessReadCallback
                                                             : &CNamedPipeStream::ProcessWriteCallback,
                                                        request->id);
        if (!submitted)
        {
            std::lock_guard lock(read ? m_readMapMutex : m_writeMapMutex);
            (read ? m_readCallbacks : m_writeCallbacks).erase(request->id);
        }
        return submitted;
    }
    request->completed = true;
    Log(LogLevel::Trace, L"CNamedPipeStream::CompleteIoRequest: (720)",
        L"Pipe_IO: 0x%p. Pipe request has no event and no callback", static_cast<void*>(request.get()));
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
    daxlib::srw_lock& mutex = read ? m_readMapMutex : m_writeMapMutex;
    auto& map = read ? m_readCallbacks : m_writeCallbacks;
    const wchar_t* origin = read ? L"CNamedPipeStream::ProcessReadCallback: (1032)"
                                 : L"CNamedPipeStream::ProcessWriteCallback: (1070)";
    std::shared_ptr<PIPE_IO_REQUEST> request;
    {
        std::lock_guard lock(mutex);
        auto it = map.find(requestId);
        if (it == map.end())
        {
            Log(LogLevel::Error, origin, L"RequestID: %I64d not found.", requestId);
            return 0;
        }
        if (it->second->state.load() != ePipeRequestState_Canceled)
        {
            request = it->second;
            Log(LogLevel::Trace, origin, L"Pipe_IO: 0x%p, ov: 0x%p, state: %s ",
                static_cast<void*>(request.get()), static_cast<void*>(request->ov),
                RequestStateName(request->state.load()));
            request->state = ePipeRequestState_DoCallback;
        }
    }
    if (request)
    {
        PIPE_OVERLAPPED* record = nullptr;
        uint32_t status = 0;
        {
            std::lock_guard lock(m_recordMutex);
            record = request->ov;
            if (record)
                status = record->m_dwIoStatus;
        }
        if (record && request->callback)
        {
            try
            {
                request->callback->Invoke(request->buffer, request->transferred, status, record);
            }
            catch (const std::exception& e)
            {
                LogStdException(LogLevel::Error, origin, e);
            }
        }
    }
    std::lock_guard lock(mutex);
    map.erase(requestId);
    return 1;
}

void CNamedPipeStream::WaitForIoCallbacks()
{
    Log(LogLevel::Trace, L"CNamedPipeStream::WaitForIoCallbacks: (132)", L"begin...");
    {
        std::lock_guard lock(m_stateMutex);
        if (m_state == ePipeConnectionState_Connected || m_state == ePipeConnectionState_Connecting)
            m_state = ePipeConnectionState_Disconnecting;
    }
    CancelWriteRequest();
    if (m_pIo)
        m_pIo->Stop();
    uint32_t expected = 0;
    m_readFinalError.compare_exchange_strong(expected, ERROR_OPERATION_ABORTED);
    // Readers still waiting learn that nothing more will come (skipped when the stream is being
    // destroyed: nobody is left to tell).
    SubmitSelf<void, unsigned long>(&CNamedPipeStream::ProcessQueueReadRequest, ERROR_OPERATION_ABORTED);
    Log(LogLevel::Trace, L"CNamedPipeStream::WaitForIoCallbacks: (138)", L"End.");
}

size_t CNamedPipeStream::PendingReadCount() const
{
    std::lock_guard lock(m_readQueueMutex);
    return m_pendingReads.size();
}

size_t CNamedPipeStream::OutstandingWriteCount() const
{
    std::lock_guard lock(m_writeListMutex);
    return m_writeRequests.size();
}
