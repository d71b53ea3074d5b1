#pragma once
// One asynchronous pipe instance: its connection state, overlapped reads and writes through a
// thread-pool I/O binding, and the hand-over of completions to the owner's callbacks, which run
// as tasks on the process's CThreadPool.
#include "common/BaseLogger.h"
#include "common/Locks.h"
#include "common/UniqueHandle.h"
#include "pipe/CallbackHolder.h"
#include "pipe/PendingReads.h"
#include "pipe/PipeStates.h"
#include "pipe/ThreadPoolIo.h"

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>

struct PIPE_IO_REQUEST;

// The caller's completion record of one read or write. The request object (CPipeRequest) that
// created it deletes it; the stream only borrows it while the operation runs.
struct PIPE_OVERLAPPED
{
    virtual ~PIPE_OVERLAPPED() = default;

    // Only for a blocked write, set before the record is listed and never changed: borrowed from
    // the writer, who closes or keeps it.
    HANDLE m_hEvent = nullptr;
    uint32_t m_dwIoStatus = 0; // 0 or the Windows error of the completion
    uint32_t m_dwBytesTransferred = 0;
    std::shared_ptr<PIPE_IO_REQUEST> m_pRequest; // set when the stream accepts the operation
    std::shared_ptr<unsigned char[]> m_pData;
    // A cancel that came before the stream took the operation: the write it is for never starts.
    // Guarded by the stream's record lock.
    bool m_bCanceled = false;
    // A blocked writer that looks at m_bEndedInline before it waits sets m_bChecksInline: a
    // write that ends on the writer's own thread, before AddWriteRequest returns, then leaves
    // the event alone and sets m_bEndedInline instead. Without it the event is always set.
    bool m_bChecksInline = false;
    bool m_bEndedInline = false;
};

// The owner's read or write callback: (data, its length, I/O status, completion record).
using PipeIoCallback =
    CCallbackHolder<void(std::shared_ptr<unsigned char[]>, unsigned long, unsigned long, PIPE_OVERLAPPED*)>;

struct PipeTaskSignal;
using PipeRequestIo = CRequestIo<std::shared_ptr<PipeTaskSignal>>;
using PipeThreadPoolIo = CThreadPoolIo<std::shared_ptr<PipeTaskSignal>>;

// One read or write at the stream's level ("Pipe_IO" in messages).
struct PIPE_IO_REQUEST
{
    enum : uint32_t
    {
        eKindRead = 0,
        eKindWrite = 1,
    };

    uint32_t kind = eKindRead;
    std::atomic<uint32_t> state{ePipeRequestState_Created};
    std::atomic<bool> completed{false};
    int64_t id = 0;
    std::shared_ptr<unsigned char[]> buffer;
    uint32_t length = 0;
    uint32_t transferred = 0;
    PIPE_OVERLAPPED* ov = nullptr; // guarded by the stream's record lock; null once detached
    HANDLE hEvent = nullptr;       // borrowed from the record of a blocked write
    std::shared_ptr<PipeIoCallback> callback;
    std::weak_ptr<PipeRequestIo> io; // the kernel-level request while a write is in flight
    // The thread that finishes a write it has just started, if any: a cancel racing with it
    // may finish it from another thread instead.
    std::atomic<DWORD> inlineThread{0};
    // A write's start and a cancel-all meet here: while its writer starts it (kStarting), the
    // writer finishes it, with what WriteFile said; once a cancel-all has claimed it
    // (kAbandoned), it never starts.
    enum : uint32_t
    {
        kIdle = 0,
        kStarting = 1,
        kAbandoned = 2,
    };
    std::atomic<uint32_t> startPhase{kIdle};
};

// What an overlapped operation was, carried by its kernel-level request.
struct PipeTaskSignal
{
    uint32_t signal = ePipeTaskSignal_Read;
    std::shared_ptr<PIPE_IO_REQUEST> request; // writes
    std::shared_ptr<unsigned char[]> buffer;  // reads
    uint32_t length = 0;
};

using SharedPipeHandle = std::shared_ptr<daxlib::unique_hfile>;

// Streams are always owned through std::shared_ptr: the tasks a stream submits hold it weakly.
class CNamedPipeStream : public CommonHelper::CvLogger::CBaseLogger,
                         public std::enable_shared_from_this<CNamedPipeStream>
{
public:
    static constexpr uint32_t kReadBufferSize = 2048;
    // Bytes received beyond what the owner's reads ask for before the stream stops reading: the
    // peer's further writes then wait in the pipe, on its side, until the owner reads again.
    static constexpr size_t kReadAhead = size_t{4} * 1024;
    // Reads that end at once taken in one go on the read starter's thread before the stream goes
    // to the back of its queue: a peer that keeps the pipe full must not hold the one thread that
    // starts every stream's reads.
    static constexpr uint32_t kInlineReadsPerTurn = 8;

    // Stands in for ReadFile in tests, to make reads end at once as Windows does when data is
    // waiting (Wine lets such a read wait for its completion instead). Null for ReadFile.
    using ReadFunction = BOOL (*)(HANDLE pipe, void* buffer, DWORD length, OVERLAPPED* overlapped);
    static void SetReadFunctionForTest(ReadFunction read);

    // Throws CDaxException when the I/O binding cannot be created.
    CNamedPipeStream(const std::shared_ptr<ICvLogger>& logger, SharedPipeHandle pipe, void* context);
    ~CNamedPipeStream() override;
    CNamedPipeStream(const CNamedPipeStream&) = delete;
    CNamedPipeStream& operator=(const CNamedPipeStream&) = delete;

    HANDLE GetHandle() const { return m_hPipe; }
    void* GetContext() const { return m_pContext; }

    // Returns the previous state; changes it only along the allowed transitions.
    uint32_t SetPipeConnectionState(uint32_t newState);
    uint32_t GetPipeConnectionState() const;
    bool IsConnected() const { return GetPipeConnectionState() == ePipeConnectionState_Connected; }

    // Starts the read loop, which keeps one overlapped read into the received-data queue until
    // the connection ends. FALSE when the first read could not start (the stream is not
    // connected, or the peer has gone); a read that fails later ends the loop as the
    // connection's end (OnReadLoopEnded).
    BOOL BeginRead();
    // Asks for the next `bytes` bytes of received data; the callback gets them, or the error
    // that ended the connection. FALSE when the stream did not keep the record.
    BOOL Read(uint32_t bytes, std::shared_ptr<PipeIoCallback> callback, PIPE_OVERLAPPED* record);

    // Writes: a request made by CreateWriteRequest is queued with AddWriteRequest. FALSE when
    // the write could not be started; the request has then been finished with the error.
    std::shared_ptr<PIPE_IO_REQUEST> CreateWriteRequest(const void* data, uint32_t length,
                                                        PIPE_OVERLAPPED* record);
    BOOL AddWriteRequest(const std::shared_ptr<PIPE_IO_REQUEST>& request);
    BOOL BeginWrite(const std::shared_ptr<PIPE_IO_REQUEST>& request);
    BOOL EndWrite(const std::shared_ptr<PIPE_IO_REQUEST>& request, uint32_t ioResult, uint32_t bytesWritten);
    void CancelWriteRequest();
    // The callback of writes started with a record but no event.
    void SetWriteCallback(std::shared_ptr<PipeIoCallback> callback);

    // WaitForSingleObject for a thread that may be running one of this stream's callbacks: the
    // callbacks already due on it run first. A callback that waits for another callback of
    // the same stream must wait through this.
    DWORD WaitFor(HANDLE event, DWORD timeoutMs);

    // Cancels the operation a record belongs to and detaches the record from it (a blocked
    // write keeps its record so that the completion can wake the writer).
    BOOL CancelRequest(PIPE_OVERLAPPED* record);
    // Before a record is freed: an operation that has ended but whose callback has not run yet
    // then runs none, instead of handing the freed record to its owner.
    void DetachRecord(PIPE_OVERLAPPED* record);

    // The single place where a request is finished; a second completion is refused.
    BOOL CompleteIoRequest(const std::shared_ptr<PIPE_IO_REQUEST>& request, uint32_t ioStatus);

    // Stops the instance's I/O and waits for its completions to finish.
    void WaitForIoCallbacks();

    size_t PendingReadCount() const;
    // Whether the stream has stopped reading because its owner has not asked for what came.
    bool IsReadPaused() const;
    size_t OutstandingWriteCount() const;
    // The queue's byte count is safe from any thread, lock or not (see CPendingReads).
    size_t BufferedBytes() const TS_NO_ANALYSIS { return m_reads.BufferedBytes(); }

protected:
    // BeginRead in two steps, for an end that must report something between the check and
    // anything the loop may bring (even the end of the connection): FALSE when the stream is not
    // connected or the peer has gone; then the loop, whose reads the read starter starts.
    BOOL CheckReadable();
    void StartReadLoop();
    void OnReadCompleted(unsigned long ioResult, std::shared_ptr<PipeTaskSignal> signal,
                         unsigned long long bytes);
    int IoAsyncCallback(unsigned long ioResult, PipeThreadPoolIo::Request& request, unsigned long long bytes,
                        PipeThreadPoolIo* io, void* context);
    const std::shared_ptr<PipeThreadPoolIo>& GetIo() const { return m_pIo; }
    // Sets the state without the transition rules (a completed connect).
    void ForceConnectionState(uint32_t state);
    // A disconnect while reading is paused has no read to fail: the loop's end is reported here.
    void EndPausedReadLoop();

    // Hooks of the two ends.
    virtual void OnConnectCompleted(unsigned long /*ioResult*/) {}
    virtual int OnClientConnected() { return 0; }
    virtual void OnReadLoopEnded() {}

private:
    using Request = std::shared_ptr<PIPE_IO_REQUEST>;
    friend class CReadStarter;

    // A read that ended as soon as it was started, when the handle skips the completion.
    struct InlineRead
    {
        std::shared_ptr<PipeTaskSignal> signal;
        unsigned long long bytes = 0;
    };
    // Hands the next read to the read starter's thread (CReadStarter); false when this is that
    // thread (unless `requeue`: then to the back of its queue) or the process has none, and the
    // read is to be started here.
    bool PostNextRead(bool requeue = false);
    // The starter's job: starts the next read and takes in what a read that ended at once brought.
    void ContinueReading();
    BOOL StartRead(InlineRead& done);
    // No read follows: readers learn the end, and the stream's end hears of it.
    void EndReadLoop(unsigned long ioResult);
    // With m_srwReadQueue held: false, and the stream paused, when enough has come for now.
    bool KeepReading() TS_REQUIRES(m_srwReadQueue);
    BOOL EndRead(unsigned long ioResult);
    int ProcessReadCallback(int64_t requestId);
    int ProcessWriteCallback(int64_t requestId);
    void ProcessQueueReadRequest(unsigned long ioResult);
    int ProcessCallback(int64_t requestId, bool read);
    BOOL SubmitQueueReadRequest(unsigned long ioResult);
    BOOL SubmitCallback(int64_t requestId, bool read);

    // The pool tasks of the stream. A callback that falls due while one of them runs (the
    // data was already there, or the owner's callback asked for bytes already received) runs
    // after it on the same thread, in order, instead of costing a hand-off to another thread.
    struct TaskScope;
    void QueueReadTask(unsigned long ioResult);
    int ReadCallbackTask(int64_t requestId);
    int WriteCallbackTask(int64_t requestId);
    bool DeferToRunningTask(int64_t requestId, bool read);
    template <typename Work> auto RunTask(Work work);
    static thread_local TaskScope* s_pTaskScope;

    // The kinds of completion, each the only way out for its kind and each marking the request
    // completed (CompleteIoRequest).
    bool ClaimCompletion(const Request& request);
    BOOL FinishDetached(const Request& request, uint32_t ioStatus);
    BOOL FinishInInvalidState(const Request& request, uint32_t state, uint32_t ioStatus);
    BOOL FinishCanceled(const Request& request);
    BOOL WakeBlockedWriter(const Request& request, PIPE_OVERLAPPED* record, uint32_t ioStatus);
    bool ClaimCallback(const Request& request) TS_REQUIRES(m_srwRecord);
    BOOL HandToCallback(const Request& request, PIPE_OVERLAPPED* record) TS_EXCLUDES(m_srwRecord);
    BOOL FinishUnobserved(const Request& request);

    // A record about a request: the format's first conversion is the request's address
    // ("Pipe_IO: 0x%p").
    template <class... Args>
    void LogIo(uint32_t level, const wchar_t* origin, const Request& request, const wchar_t* format,
               Args... args) const
    {
        Log(level, origin, format, static_cast<const void*>(request.get()), args...);
    }

    std::shared_ptr<PipeThreadPoolIo> m_pIo;
    SharedPipeHandle m_pPipe;
    HANDLE m_hPipe;
    void* m_pContext;

    // Lock order: m_srwReadQueue, then m_srwRecord, then m_srwState or one of the callback
    // maps' locks. m_srwWriteList is taken alone. Nothing else is held while the owner's
    // callbacks run or while a thread-pool I/O is waited for.
    mutable daxlib::srw_lock m_srwState TS_ACQUIRED_AFTER(m_srwRecord);
    uint32_t m_dwState TS_GUARDED_BY(m_srwState) = ePipeConnectionState_WaitConnection;

    mutable daxlib::srw_lock m_srwWriteList;
    std::list<Request> m_writeRequests TS_GUARDED_BY(m_srwWriteList);
    // Requests whose owner's callback is due, by id, for the task that runs it.
    struct CallbackMap
    {
        daxlib::srw_lock lock;
        std::map<int64_t, Request> requests TS_GUARDED_BY(lock);
    };
    CallbackMap m_writeCallbacks;
    CallbackMap m_readCallbacks;

    mutable daxlib::srw_lock m_srwReadQueue TS_ACQUIRED_BEFORE(m_srwRecord);
    CPendingReads<Request> m_reads TS_GUARDED_BY(m_srwReadQueue);
    bool m_bReadPaused TS_GUARDED_BY(m_srwReadQueue) = false; // no read is outstanding while set

    // Guards the records (PIPE_OVERLAPPED) against a cancel that detaches them.
    daxlib::srw_lock m_srwRecord;
    std::shared_ptr<PipeIoCallback> m_pWriteCallback;

    std::atomic<int64_t> m_nNextRequestId{1};
    std::atomic<uint32_t> m_cntWrite{0};
    std::atomic<uint32_t> m_cntBeginWrite{0};
    std::atomic<bool> m_bEndWrite{false};
};
