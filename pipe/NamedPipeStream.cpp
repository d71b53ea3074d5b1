// The stream's life, its connection state and its reads: one overlapped read at a time feeds
// the received-data queue, and the owner's reads are served from it in order.
#include "pipe/NamedPipeStream.h"

#include "common/DaxException.h"
#include "common/Guarded.h"
#include "pipe/ReadStarter.h"
#include "pipe/ThreadPool.h"

#include <new>
#include <utility>
#include <vector>
#include <type_traits>

using namespace pipestates;

namespace
{
std::atomic<CNamedPipeStream::ReadFunction> g_pfnReadFile{nullptr};

// Runs a member of the stream as a pool task. The task keeps the stream alive only while it
// runs; a stream already gone is skipped.
template <typename R, typename P>
BOOL SubmitTo(const std::weak_ptr<CNamedPipeStream>& weak, R (CNamedPipeStream::*method)(P), P argument)
{
    auto pool = GetThreadPool();
    if (!pool || weak.expired())
    {
        ::SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
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
} // namespace

// The pool task of a stream that runs on this thread, with the callbacks it has made due.
struct CNamedPipeStream::TaskScope
{
    explicit TaskScope(CNamedPipeStream* stream) : m_pStream(stream), m_pOuter(s_pTaskScope)
    {
        s_pTaskScope = this;
    }
    ~TaskScope() { s_pTaskScope = m_pOuter; }
    TaskScope(const TaskScope&) = delete;
    TaskScope& operator=(const TaskScope&) = delete;

    // Runs the due callbacks in the order they fell due; each may make more due, and may drain
    // the rest itself before it waits (WaitFor). One that throws does not keep the others from
    // their owners, who wait for them.
    void Drain() noexcept
    {
        while (m_nNext < m_due.size())
        {
            const auto [id, read] = m_due[m_nNext++];
            daxlib::GuardedCall(m_pStream, L"CNamedPipeStream::TaskScope::Drain: ",
                                [&] { m_pStream->ProcessCallback(id, read); });
        }
    }

    CNamedPipeStream* m_pStream;
    TaskScope* m_pOuter;
    // Allocates nothing until a callback falls due, which most tasks never see.
    std::vector<std::pair<int64_t, bool>> m_due;
    size_t m_nNext = 0; // the first of m_due not yet run
};

template <typename Work> auto CNamedPipeStream::RunTask(Work work)
{
    TaskScope scope(this);
    // Drained on the way out, an exception of the work included.
    struct DrainOnExit
    {
        TaskScope& scope;
        ~DrainOnExit() { scope.Drain(); }
    } drain{scope};
    return work();
}

thread_local CNamedPipeStream::TaskScope* CNamedPipeStream::s_pTaskScope = nullptr;

BOOL CNamedPipeStream::SubmitQueueReadRequest(unsigned long ioResult)
{
    return SubmitTo<void, unsigned long>(weak_from_this(), &CNamedPipeStream::QueueReadTask, ioResult);
}

BOOL CNamedPipeStream::SubmitCallback(int64_t requestId, bool read)
{
    return SubmitTo<int, int64_t>(
        weak_from_this(), read ? &CNamedPipeStream::ReadCallbackTask : &CNamedPipeStream::WriteCallbackTask,
        requestId);
}

void CNamedPipeStream::QueueReadTask(unsigned long ioResult)
{
    RunTask(
        [&]
        {
            ProcessQueueReadRequest(ioResult);
            return 0;
        });
}

int CNamedPipeStream::ReadCallbackTask(int64_t requestId)
{
    return RunTask([&] { return ProcessReadCallback(requestId); });
}

int CNamedPipeStream::WriteCallbackTask(int64_t requestId)
{
    return RunTask([&] { return ProcessWriteCallback(requestId); });
}

DWORD CNamedPipeStream::WaitFor(HANDLE event, DWORD timeoutMs)
{
    // A callback that waits for another of this stream would otherwise wait for itself: the
    // other is due on this very thread, after it.
    TaskScope* scope = s_pTaskScope;
    if (scope && scope->m_pStream == this)
        scope->Drain();
    return ::WaitForSingleObject(event, timeoutMs);
}

bool CNamedPipeStream::DeferToRunningTask(int64_t requestId, bool read)
{
    TaskScope* scope = s_pTaskScope;
    if (!scope || scope->m_pStream != this)
        return false;
    try
    {
        scope->m_due.emplace_back(requestId, read);
    }
    catch (const std::bad_alloc&)
    {
        return false; // a task of its own, then
    }
    return true;
}

CNamedPipeStream::CNamedPipeStream(const std::shared_ptr<ICvLogger>& logger, SharedPipeHandle pipe,
                                   void* context)
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
    // The stream is a byte stream whatever the pipe's type: in message read mode a read shorter
    // than the message ends with ERROR_MORE_DATA, which is neither a success nor a failure and
    // whose completion the platforms report differently.
    DWORD readMode = PIPE_READMODE_BYTE;
    if (m_hPipe != INVALID_HANDLE_VALUE && !::SetNamedPipeHandleState(m_hPipe, &readMode, nullptr, nullptr))
        Log(LogLevel::Debug, L"CNamedPipeStream::CNamedPipeStream: ",
            L"SetNamedPipeHandleState(PIPE_READMODE_BYTE) failed. GLE=%d",
            static_cast<int>(::GetLastError()));
    // An operation that succeeds at once is finished by the thread that started it: no trip
    // through the completion port and no hand-off to another thread. Without the mode every
    // operation still completes through the binding.
    m_pIo->SkipCompletionOnSuccess();
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
    daxlib::lock_guard lock(m_srwState);
    const uint32_t current = m_dwState;
    if (IsTransitionAllowed(current, newState))
    {
        m_dwState = newState;
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
    daxlib::lock_guard lock(m_srwState);
    return m_dwState;
}

void CNamedPipeStream::ForceConnectionState(uint32_t state)
{
    daxlib::lock_guard lock(m_srwState);
    m_dwState = state;
}

BOOL CNamedPipeStream::BeginRead()
{
    if (!CheckReadable())
        return FALSE;
    StartReadLoop();
    return TRUE;
}

BOOL CNamedPipeStream::CheckReadable()
{
    if (!IsConnected())
    {
        Log(LogLevel::Trace, L"CNamedPipeStream::BeginRead: (158)",
            L"Disconnected - SKIP adding new read operation to thread pool I/O");
        ::SetLastError(ERROR_PIPE_NOT_CONNECTED);
        return FALSE;
    }
    // The read itself starts on another thread; a peer already gone is found here instead.
    DWORD available = 0;
    if (::PeekNamedPipe(m_hPipe, nullptr, 0, nullptr, &available, nullptr))
        return TRUE;
    const DWORD error = ::GetLastError();
    Log(error == ERROR_BROKEN_PIPE ? LogLevel::Warning : LogLevel::Error,
        L"CNamedPipeStream::BeginRead: (194)", L"PeekNamedPipe() failed: the pipe cannot be read. GLE=%d",
        static_cast<int>(error));
    ::SetLastError(error);
    return FALSE;
}

void CNamedPipeStream::StartReadLoop()
{
    if (!PostNextRead())
        ContinueReading();
}

void CNamedPipeStream::SetReadFunctionForTest(ReadFunction read)
{
    g_pfnReadFile = read;
}

bool CNamedPipeStream::PostNextRead(bool requeue)
{
    if (CReadStarter::OnStarterThread() && !requeue)
        return false;
    auto pool = GetThreadPool();
    CReadStarter* starter = pool ? pool->GetReadStarter() : nullptr;
    auto self = weak_from_this();
    // A stream that no shared_ptr owns could not be found again by the starter.
    return starter && !self.expired() && starter->Post(self);
}

void CNamedPipeStream::ContinueReading()
{
    InlineRead done;
    if (!StartRead(done))
        EndReadLoop(0);
    else if (done.signal)
        OnReadCompleted(0, done.signal, done.bytes);
}

bool CNamedPipeStream::KeepReading()
{
    if (m_reads.WantsMore(kReadAhead))
        return true;
    m_bReadPaused = true;
    return false;
}

bool CNamedPipeStream::IsReadPaused() const
{
    daxlib::lock_guard lock(m_srwReadQueue);
    return m_bReadPaused;
}

void CNamedPipeStream::EndPausedReadLoop()
{
    {
        daxlib::lock_guard lock(m_srwReadQueue);
        if (!std::exchange(m_bReadPaused, false))
            return;
    }
    EndReadLoop(ERROR_PIPE_NOT_CONNECTED);
}

void CNamedPipeStream::EndReadLoop(unsigned long ioResult)
{
    {
        daxlib::lock_guard lock(m_srwReadQueue);
        m_reads.Finish(ioResult != 0 ? static_cast<uint32_t>(ioResult) : ERROR_BROKEN_PIPE);
    }
    if (!EndRead(ioResult))
        Log(LogLevel::Error, L"CNamedPipeStream::IoAsyncCallback: (455)", L"EndRead() failed");
    OnReadLoopEnded();
}

BOOL CNamedPipeStream::StartRead(InlineRead& done)
{
    {
        daxlib::lock_guard lock(m_srwState);
        if (m_dwState != ePipeConnectionState_Connected)
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
    const ReadFunction readFile = g_pfnReadFile.load();
    if (readFile ? readFile(m_hPipe, buffer, kReadBufferSize, &request->overlapped)
                 : ::ReadFile(m_hPipe, buffer, kReadBufferSize, nullptr, &request->overlapped))
    {
        Log(LogLevel::Trace, L"CNamedPipeStream::BeginRead: (176)",
            L"ReadFile(pBuff = 0x%p, BufLength = %d) return TRUE", buffer, static_cast<int>(kReadBufferSize));
        if (m_pIo->SkipsCompletionOnSuccess())
        {
            m_pIo->CompletedInline(request);
            done.signal = std::move(signal);
            done.bytes = static_cast<unsigned long long>(request->overlapped.InternalHigh);
        }
        return TRUE;
    }
    const DWORD error = ::GetLastError();
    // A message longer than the buffer (message read mode) is no failure: the part read is
    // reported by a completion like a read that waited, since only full success skips it.
    if (error == ERROR_IO_PENDING || error == ERROR_MORE_DATA)
    {
        if (m_pIo->IsStopping())
        {
            Log(LogLevel::Debug, L"CNamedPipeStream::BeginRead: (184)",
                L"ReadFile(pBuff = 0x%p, BufLength = %d): ... ERROR_IO_PENDING. ThreadPoolIo stops... Cancel "
                L"request p: 0x%p",
                buffer, static_cast<int>(kReadBufferSize), daxlib::Addr(request.get()));
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

// One read has ended (through the binding or at once) and the next is asked for. On the read
// starter's thread, reads that end at once are taken in this loop rather than by recursion, so
// a peer that keeps the pipe full costs no stack.
void CNamedPipeStream::OnReadCompleted(unsigned long ioResult, std::shared_ptr<PipeTaskSignal> signal,
                                       unsigned long long bytes)
{
    if (ioResult == ERROR_MORE_DATA)
        ioResult = 0; // the rest of the message comes with the next read
    for (uint32_t taken = 1;; ++taken)
    {
        Log(LogLevel::Trace, L"CNamedPipeStream::IoAsyncCallback: (444)",
            L"Reader: recieved %d byte(s) from pipe server end. IoResult = %d", static_cast<int>(bytes),
            static_cast<int>(ioResult));
        bool more = true;
        if (ioResult == 0 && bytes > 0)
        {
            uint32_t error = 0;
            {
                daxlib::lock_guard lock(m_srwReadQueue);
                error = m_reads.Append(signal->buffer.get(), static_cast<size_t>(bytes));
                more = KeepReading();
            }
            if (error != 0)
                Log(LogLevel::Error, L"CNamedPipeStream::IoAsyncCallback: (450)",
                    L"Reader: received %d byte(s) from pipe server end. Error writing to stream. GLE=%d",
                    static_cast<int>(bytes), static_cast<int>(error));
        }
        if (ioResult != 0)
            return EndReadLoop(ioResult);
        if (!more)
        {
            // The owner's next Read starts the loop again.
            Log(LogLevel::Trace, L"CNamedPipeStream::IoAsyncCallback: (452)",
                L"Reader: %d byte(s) wait for the owner; reading paused", static_cast<int>(BufferedBytes()));
            if (!EndRead(0))
                Log(LogLevel::Error, L"CNamedPipeStream::IoAsyncCallback: (455)", L"EndRead() failed");
            return;
        }
        InlineRead next;
        if (!PostNextRead(taken >= kInlineReadsPerTurn) && !StartRead(next))
            return EndReadLoop(0);
        // With the next read already finished, its own hand-over covers this one's bytes too.
        if (!next.signal)
        {
            if (!EndRead(0))
                Log(LogLevel::Error, L"CNamedPipeStream::IoAsyncCallback: (455)", L"EndRead() failed");
            return;
        }
        signal = std::move(next.signal);
        bytes = next.bytes;
    }
}

int CNamedPipeStream::IoAsyncCallback(unsigned long ioResult, PipeThreadPoolIo::Request& request,
                                      unsigned long long bytes, PipeThreadPoolIo*, void*)
{
    const PipeTaskSignal* signal = request && request->signal ? request->signal.get() : nullptr;
    const uint32_t kind = signal ? signal->signal : 0xFFFFFFFFu;
    Log(LogLevel::Trace, L"CNamedPipeStream::IoAsyncCallback: (423)",
        L"[PipeIO signal \"%s\", ov: 0x%p] begin...", SignalName(kind),
        daxlib::Addr(request ? &request->overlapped : nullptr));
    if (ioResult != 0 && ioResult != ERROR_MORE_DATA)
        Log(LogLevel::Error, L"CNamedPipeStream::IoAsyncCallback: (427)", L"PipeIO signal %s: failed err=%d",
            SignalName(kind), static_cast<int>(ioResult));
    daxlib::GuardedCall(
        this, L"CNamedPipeStream::IoAsyncCallback: (495)",
        [&]
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
                OnReadCompleted(ioResult, request->signal, bytes);
                break;
            case ePipeTaskSignal_Write:
            {
                const auto& pipeIo = signal->request;
                Log(LogLevel::Trace, L"CNamedPipeStream::IoAsyncCallback: (470)",
                    L"Writer: written %d byte(s) to pipe server end. IoResult = %d, Pipe_IO: 0x%p, ov: "
                    L"0x%p<ID=%I64d>",
                    static_cast<int>(bytes), static_cast<int>(ioResult), daxlib::Addr(pipeIo.get()),
                    daxlib::Addr(pipeIo ? pipeIo->ov : nullptr), pipeIo ? pipeIo->id : 0LL);
                if (!EndWrite(pipeIo, ioResult, static_cast<uint32_t>(bytes)))
                    Log(LogLevel::Error, L"CNamedPipeStream::IoAsyncCallback: (476)",
                        L"EndWrite() failed. IoResult = %d, Pipe_IO: 0x%p", static_cast<int>(ioResult),
                        daxlib::Addr(pipeIo.get()));
                break;
            }
            default:
                Log(LogLevel::Error, L"CNamedPipeStream::IoAsyncCallback: (490)",
                    L"signal %s not supported as IO completion signal", SignalName(kind));
                break;
            }
        });
    Log(LogLevel::Trace, L"CNamedPipeStream::IoAsyncCallback: (501)",
        L"[PipeIO signal \"%s\", ov: 0x%p] End.", SignalName(kind),
        daxlib::Addr(request ? &request->overlapped : nullptr));
    return 1;
}

BOOL CNamedPipeStream::EndRead(unsigned long ioResult)
{
    return SubmitQueueReadRequest(ioResult);
}

BOOL CNamedPipeStream::Read(uint32_t bytes, std::shared_ptr<PipeIoCallback> callback, PIPE_OVERLAPPED* record)
{
    if (!record || !callback)
    {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    bool servable = false;
    {
        daxlib::lock_guard lock(m_srwReadQueue);
        servable = m_reads.CanServe(bytes);
    }
    if (GetPipeConnectionState() == ePipeConnectionState_ConnectionError || !servable)
    {
        // Nothing more will arrive and what is queued is not enough.
        ::SetLastError(ERROR_PIPE_NOT_CONNECTED);
        return FALSE;
    }
    const BOOL queued = daxlib::GuardedValue(this, L"CNamedPipeStream::Read: (870)", FALSE,
                                             [&]() -> BOOL
                                             {
                                                 auto request = std::make_shared<PIPE_IO_REQUEST>();
                                                 request->kind = PIPE_IO_REQUEST::eKindRead;
                                                 request->id = m_nNextRequestId++;
                                                 request->length = bytes;
                                                 // The buffer comes when the data is all there
                                                 // (ProcessQueueReadRequest): a peer that announces a large
                                                 // message and trickles it holds only what it has sent.
                                                 request->callback = std::move(callback);
                                                 request->state = ePipeRequestState_Pending;
                                                 {
                                                     daxlib::lock_guard lock(m_srwRecord);
                                                     request->ov = record;
                                                     record->m_pRequest = request;
                                                 }
                                                 {
                                                     daxlib::lock_guard lock(m_srwReadQueue);
                                                     m_reads.Push(request, bytes);
                                                 }
                                                 // Data already received is handed over at once; the owner's
                                                 // callback still runs on a pool task, never inside this
                                                 // call.
                                                 ProcessQueueReadRequest(0);
                                                 return TRUE;
                                             });
    if (!queued)
    {
        ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return FALSE;
    }
    bool resume = false;
    {
        daxlib::lock_guard lock(m_srwReadQueue);
        if (m_bReadPaused && m_reads.WantsMore(kReadAhead))
            resume = std::exchange(m_bReadPaused, false);
    }
    if (resume)
        StartReadLoop();
    return TRUE;
}

void CNamedPipeStream::ProcessQueueReadRequest(unsigned long ioResult)
{
    daxlib::GuardedCall(this, L"CNamedPipeStream::ProcessQueueReadRequest: (948)",
                        [&]
                        {
                            daxlib::lock_guard lock(m_srwReadQueue);
                            const auto dropped = [&](const Request& request)
                            {
                                if (request->state.load() != ePipeRequestState_Canceled)
                                    return false;
                                LogIo(LogLevel::Trace, L"CNamedPipeStream::ProcessQueueReadRequest: (912)",
                                      request, L"Pipe_IO: 0x%p canceled, cbData=%d, IoResult=%d",
                                      static_cast<int>(request->length), static_cast<int>(ioResult));
                                return true;
                            };
                            const auto deliver = [&](const Request& request,
                                                     std::shared_ptr<unsigned char[]> bytes, uint32_t error)
                            {
                                if (error != 0)
                                {
                                    LogIo(LogLevel::Trace,
                                          L"CNamedPipeStream::ProcessQueueReadRequest: (940)", request,
                                          ioResult != 0 ? L"Pipe_IO: 0x%p - read failed. IoResult: %d"
                                                        : L"Pipe_IO: 0x%p -  - read failed. IoResult: %d",
                                          static_cast<int>(error));
                                    CompleteIoRequest(request, error);
                                    return;
                                }
                                request->buffer = std::move(bytes);
                                {
                                    daxlib::lock_guard recordLock(m_srwRecord);
                                    if (request->ov)
                                        request->ov->m_pData = request->buffer;
                                }
                                request->transferred = request->length;
                                LogIo(LogLevel::Trace, L"CNamedPipeStream::ProcessQueueReadRequest: (930)",
                                      request, L"Pipe_IO: 0x%p, IoResult: %d - read % d byte(s)",
                                      static_cast<int>(ioResult), static_cast<int>(request->length));
                                CompleteIoRequest(request, 0);
                            };
                            m_reads.Serve(dropped, deliver);
                        });
}

void CNamedPipeStream::WaitForIoCallbacks()
{
    Log(LogLevel::Trace, L"CNamedPipeStream::WaitForIoCallbacks: (132)", L"begin...");
    {
        daxlib::lock_guard lock(m_srwState);
        if (m_dwState == ePipeConnectionState_Connected || m_dwState == ePipeConnectionState_Connecting)
            m_dwState = ePipeConnectionState_Disconnecting;
    }
    CancelWriteRequest();
    if (m_pIo)
        m_pIo->Stop();
    {
        daxlib::lock_guard lock(m_srwReadQueue);
        m_reads.Finish(ERROR_OPERATION_ABORTED);
    }
    // Readers still waiting learn that nothing more will come (skipped when the stream is being
    // destroyed: nobody is left to tell).
    SubmitQueueReadRequest(ERROR_OPERATION_ABORTED);
    Log(LogLevel::Trace, L"CNamedPipeStream::WaitForIoCallbacks: (138)", L"End.");
}

size_t CNamedPipeStream::PendingReadCount() const
{
    daxlib::lock_guard lock(m_srwReadQueue);
    return m_reads.Count();
}
