#pragma once
// A byte queue made of fixed-size blocks. Each piece is stored as an 8-byte length and its
// bytes, and may run over several blocks; a length never starts in the last 7 bytes of a
// block. Read blocks go back to a free pool, which a background thread tops up before it runs
// dry, so steady use allocates nothing.
#include "common/UniqueHandle.h"
#include "common/WorkerThread.h"
#include "common/Locks.h"

#include <cstdint>
#include <deque>
#include <vector>

class CBuffersList
{
public:
    // Throws daxlib::CDaxException* when an event, the allocation thread or a block cannot be had.
    CBuffersList(uint64_t blockSize, BOOL backgroundAllocation, uint32_t refillCount, uint32_t freePoolLimit);
    ~CBuffersList();
    CBuffersList(const CBuffersList&) = delete;
    CBuffersList& operator=(const CBuffersList&) = delete;

    // Throws daxlib::CDaxException* when a block cannot be allocated.
    void Append(uint64_t size, const void* data);
    // Moves the oldest pieces, in order, into `run` (their bytes back to back) and their sizes
    // into `sizes`: as many as keep the bytes within `cap` and the count within the capacity
    // reserved in `sizes`, but always the first, for which `run` grows when it is too small.
    // Empty pieces are skipped; a piece that `run` cannot grow for is dropped rather than left
    // to block the queue. Returns the number of pieces taken.
    size_t TakeRun(std::vector<uint8_t>& run, std::vector<uint64_t>& sizes, uint64_t cap);
    bool IsEmpty() const;
    void Clear();

    // For tests and statistics.
    size_t UsedBlockCount() const;
    size_t FreeBlockCount() const;
    uint64_t WritePosition() const;

private:
    void AllocateNewBuffersThread(HANDLE stop);
    void Refill() TS_EXCLUDES(m_srwLists);
    void RefillLocked() TS_REQUIRES(m_srwLists);
    uint8_t* NewBlock() const;
    void PushFree(uint8_t* block) TS_REQUIRES(m_srwLists);
    void TakeNewBlock() TS_REQUIRES(m_srwLists);
    void WakeAllocator() TS_EXCLUDES(m_srwLists);
    void AppendLocked(uint64_t size, const void* data) TS_EXCLUDES(m_srwLists);
    void ReleaseBlock(uint8_t* block) TS_REQUIRES(m_srwLists);
    // Read positions: a block index into m_used and an offset in it.
    bool AtEnd(size_t block, uint64_t pos) const TS_REQUIRES(m_srwLists);
    uint64_t ReadLength(size_t& block, uint64_t& pos) const TS_REQUIRES(m_srwLists);
    void ReadBytes(size_t& block, uint64_t& pos, uint64_t length, uint8_t* out) const TS_REQUIRES(m_srwLists);
    void ConsumeTo(size_t block, uint64_t pos) TS_REQUIRES(m_srwLists);
    static constexpr uint64_t kLengthSize = sizeof(uint64_t);

    const uint64_t m_qwBlockSize;
    const BOOL m_bBackground;
    const uint32_t m_dwRefill;
    const uint32_t m_dwFreeLimit;

    std::deque<uint8_t*> m_used TS_GUARDED_BY(m_srwLists);
    std::vector<uint8_t*> m_free TS_GUARDED_BY(m_srwLists);
    uint64_t m_qwReadPos TS_GUARDED_BY(m_srwLists) = 0;
    uint64_t m_qwWritePos TS_GUARDED_BY(m_srwLists) = 0;

    mutable daxlib::srw_lock m_srwLists;
    // The allocation thread is asked once until it has run, and asked after the mutex is
    // released, so that taking a block never pays for a kernel call under the lock.
    bool m_bNeedRequested TS_GUARDED_BY(m_srwLists) = false;
    bool m_bNeedPending TS_GUARDED_BY(m_srwLists) = false;
    daxlib::unique_handle m_hevNeedBlocks;
    daxlib::CWorkerThread m_allocator; // last: ends before the lists it fills
};
