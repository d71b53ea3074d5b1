#pragma once
// A byte queue with one writer thread: callers append pieces and return at once; the writer
// thread hands the pieces, in order, to Transfer() of the derived class.
#include "common/UniqueHandle.h"
#include "common/WorkerThread.h"
#include "log/BuffersList.h"
#include "common/Locks.h"

#include <atomic>
#include <cstdint>
#include <memory>

class CTransferBuffer
{
public:
    static constexpr uint64_t kBlockSize = 32767;

    // Throws daxlib::CDaxException* when the event, the list or the writer thread cannot be had.
    CTransferBuffer();
    // A derived class must call Close() in its own destructor, while Transfer() still works.
    virtual ~CTransferBuffer();
    CTransferBuffer(const CTransferBuffer&) = delete;
    CTransferBuffer& operator=(const CTransferBuffer&) = delete;

    // Consumes one piece; `last` tells that the queue was empty when it was taken.
    virtual BOOL Transfer(const void* data, uint64_t size, BOOL last) = 0;
    // Queues one piece; 0 when writes are refused or the piece cannot be stored.
    virtual BOOL Write(const void* data, uint64_t size, BOOL last);

    // Without `immediate` everything queued reaches Transfer() first; with it, queued pieces are
    // discarded. Either way the writer thread has ended on return, and later writes are refused.
    void Close(BOOL immediate);

private:
    void WriterLoop(HANDLE stop);
    bool Drained() const;

    std::unique_ptr<CBuffersList> m_pList;
    mutable daxlib::srw_lock m_srwQueue;
    bool m_bBusy = false;          // the writer holds a piece that has not reached Transfer() yet
    bool m_bDataSignalled = false; // data-available is set; set once per burst, not per piece
    daxlib::unique_handle m_hevData;
    // The refusals and the stop request are also kept as flags: a write must not pay for a
    // kernel wait just to learn that nothing has changed.
    std::atomic<bool> m_bRefuseNow{false};   // Close(immediate)
    std::atomic<bool> m_bRefuseAfter{false}; // the writer thread has ended
    std::atomic<bool> m_bStop{false};
    daxlib::CWorkerThread m_writer; // last: ends before the queue it drains
};
