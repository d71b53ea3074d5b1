#pragma once
// A byte queue with one writer thread: callers append pieces and return at once; the writer
// thread takes whatever is queued, up to kRunCap bytes, in one go and hands that run, in order,
// to TransferRun() of the derived class.
#include "common/UniqueHandle.h"
#include "common/WorkerThread.h"
#include "log/BuffersList.h"
#include "common/Locks.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

class CTransferBuffer
{
public:
    static constexpr uint64_t kBlockSize = 32767;
    // Bytes and pieces the writer takes at most at once; a larger piece goes alone.
    static constexpr uint64_t kRunCap = uint64_t{256} * 1024;
    static constexpr size_t kRunPieces = 8192;
    // How long the writer lets records gather after a run that emptied the queue.
    static constexpr DWORD kGatherMs = 1;

    // Throws daxlib::CDaxException* when the event, the list or the writer thread cannot be had.
    CTransferBuffer();
    // A derived class must call Close() in its own destructor, while Transfer() still works.
    virtual ~CTransferBuffer();
    CTransferBuffer(const CTransferBuffer&) = delete;
    CTransferBuffer& operator=(const CTransferBuffer&) = delete;

    // Consumes one piece; `last` tells that the queue was empty when it was taken.
    virtual BOOL Transfer(const void* data, uint64_t size, BOOL last) = 0;
    // Consumes `count` pieces stored back to back in `data`; `last` tells that the queue was
    // empty when they were taken. By default each piece goes to Transfer() in turn.
    virtual BOOL TransferRun(const uint8_t* data, const uint64_t* sizes, size_t count, BOOL last);
    // Queues one piece; 0 when writes are refused or the piece cannot be stored.
    virtual BOOL Write(const void* data, uint64_t size, BOOL last);

    // Without `immediate` everything queued reaches TransferRun() first; with it, queued pieces
    // are discarded (a run already taken still goes out). Either way the writer thread has
    // ended on return, and later writes are refused.
    void Close(BOOL immediate);

private:
    void WriterLoop(HANDLE stop);

    std::unique_ptr<CBuffersList> m_pList;
    // Guards the list and m_bDataSignalled; taken before the list's own lock.
    daxlib::srw_lock m_srwQueue;
    bool m_bDataSignalled TS_GUARDED_BY(m_srwQueue) =
        false; // data-available is set; set once per burst, not per piece
    daxlib::unique_handle m_hevData;
    // The refusals and the stop request are also kept as flags: a write must not pay for a
    // kernel wait just to learn that nothing has changed.
    std::atomic<bool> m_bRefuseNow{false};   // Close(immediate)
    std::atomic<bool> m_bRefuseAfter{false}; // the writer thread has ended
    std::atomic<bool> m_bStop{false};
    std::atomic<bool> m_bDrain{false}; // Close(FALSE): the writer ends once the queue is empty
    // The writer thread's alone: reused for every run, so steady logging allocates nothing.
    std::vector<uint8_t> m_run;
    std::vector<uint64_t> m_runSizes;
    daxlib::CWorkerThread m_writer; // last: ends before the queue it drains
};
