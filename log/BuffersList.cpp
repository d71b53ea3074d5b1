#include "log/BuffersList.h"

#include "common/DaxException.h"
#include "common/Guarded.h"

#include <algorithm>
#include <mutex>
#include <cstring>
#include <new>
#include <utility>

CBuffersList::CBuffersList(uint64_t blockSize, BOOL backgroundAllocation, uint32_t refillCount,
                           uint32_t freePoolLimit)
    : m_qwBlockSize(std::max<uint64_t>(blockSize, 2 * kLengthSize)), m_bBackground(backgroundAllocation),
      m_dwRefill(std::max<uint32_t>(refillCount, 1)), m_dwFreeLimit(freePoolLimit)
{
    m_hevNeedBlocks.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (!m_hevNeedBlocks)
        daxlib::ThrowDaxException(L"BuffersList", __LINE__);
    if (m_bBackground && !m_allocator.Start([this](HANDLE stop) { AllocateNewBuffersThread(stop); }, 16384))
        daxlib::ThrowDaxException(L"BuffersList", __LINE__, L"error creating of AllocateNewBuffersThread()");
}

CBuffersList::~CBuffersList()
{
    m_allocator.Stop();
    for (uint8_t* block : m_used)
        delete[] block;
    for (uint8_t* block : m_free)
        delete[] block;
}

void CBuffersList::AllocateNewBuffersThread(HANDLE stop)
{
    const HANDLE events[] = {stop, m_hevNeedBlocks.get()};
    for (;;)
    {
        const DWORD wait = ::WaitForMultipleObjects(2, events, FALSE, INFINITE);
        if (wait != WAIT_OBJECT_0 + 1 || ::WaitForSingleObject(stop, 0) == WAIT_OBJECT_0)
            return;
        ::ResetEvent(m_hevNeedBlocks.get());
        {
            daxlib::lock_guard lock(m_srwLists);
            m_bNeedRequested = false;
        }
        // On failure the next block taken in a logging thread tries again.
        daxlib::GuardedCall(nullptr, L"CBuffersList::AllocateNewBuffersThread", [this] { Refill(); });
        ::Sleep(0);
    }
}

// With oneAtATime the mutex is taken for each block (background thread); otherwise the
// caller already holds it.
void CBuffersList::Refill()
{
    // One block per lock: a taker waits for one push at most, never for an allocation.
    for (uint32_t i = 0; i < m_dwRefill; ++i)
    {
        uint8_t* block = NewBlock();
        daxlib::lock_guard lock(m_srwLists);
        PushFree(block);
    }
}

void CBuffersList::RefillLocked()
{
    for (uint32_t i = 0; i < m_dwRefill; ++i)
        PushFree(NewBlock());
}

uint8_t* CBuffersList::NewBlock() const
{
    uint8_t* block = new (std::nothrow) uint8_t[static_cast<size_t>(m_qwBlockSize)];
    if (!block)
        daxlib::ThrowDaxException(L"BuffersList", __LINE__);
    return block;
}

void CBuffersList::PushFree(uint8_t* block)
{
    try
    {
        m_free.push_back(block);
    }
    catch (...)
    {
        delete[] block;
        daxlib::ThrowDaxException(L"BuffersList", __LINE__);
    }
}

void CBuffersList::TakeNewBlock()
{
    if (m_free.empty())
        RefillLocked();
    m_used.push_back(m_free.back());
    m_free.pop_back();
    m_qwWritePos = 0;
    if (m_bBackground && m_free.size() < m_dwRefill && !m_bNeedRequested)
    {
        m_bNeedRequested = true;
        m_bNeedPending = true;
    }
}

void CBuffersList::WakeAllocator()
{
    bool wake = false;
    {
        daxlib::lock_guard lock(m_srwLists);
        wake = std::exchange(m_bNeedPending, false);
    }
    if (wake)
        ::SetEvent(m_hevNeedBlocks.get());
}

void CBuffersList::ReleaseBlock(uint8_t* block)
{
    if (m_free.size() < m_dwFreeLimit)
    {
        try
        {
            m_free.push_back(block);
            return;
        }
        catch (...)
        {
        }
    }
    delete[] block;
}

void CBuffersList::Append(uint64_t size, const void* data)
{
    AppendLocked(size, data);
    if (m_bBackground)
        WakeAllocator();
}

void CBuffersList::AppendLocked(uint64_t size, const void* data)
{
    daxlib::lock_guard lock(m_srwLists);
    // Reserve every block the piece needs first, so a failed allocation leaves no half piece.
    uint64_t needed = 0;
    uint64_t pos = m_qwWritePos;
    if (m_used.empty() || m_qwBlockSize - pos < kLengthSize)
    {
        ++needed;
        pos = 0;
    }
    pos += kLengthSize;
    const uint64_t spill = size > m_qwBlockSize - pos ? size - (m_qwBlockSize - pos) : 0;
    needed += (spill + m_qwBlockSize - 1) / m_qwBlockSize;
    while (m_free.size() < needed)
        RefillLocked();

    if (m_used.empty() || m_qwBlockSize - m_qwWritePos < kLengthSize)
        TakeNewBlock();
    std::memcpy(m_used.back() + m_qwWritePos, &size, kLengthSize);
    m_qwWritePos += kLengthSize;
    const auto* source = static_cast<const uint8_t*>(data);
    uint64_t left = size;
    while (left > 0)
    {
        if (m_qwWritePos == m_qwBlockSize)
            TakeNewBlock();
        const uint64_t n = std::min(left, m_qwBlockSize - m_qwWritePos);
        std::memcpy(m_used.back() + m_qwWritePos, source, static_cast<size_t>(n));
        m_qwWritePos += n;
        source += n;
        left -= n;
    }
}

bool CBuffersList::AtEnd(size_t block, uint64_t pos) const
{
    return m_used.empty() || (block + 1 >= m_used.size() && pos == m_qwWritePos);
}

uint64_t CBuffersList::ReadLength(size_t& block, uint64_t& pos) const
{
    if (m_qwBlockSize - pos < kLengthSize)
    {
        ++block;
        pos = 0;
    }
    uint64_t length = 0;
    std::memcpy(&length, m_used[block] + pos, kLengthSize);
    pos += kLengthSize;
    return length;
}

// With a null `out` the bytes are only stepped over.
void CBuffersList::ReadBytes(size_t& block, uint64_t& pos, uint64_t length, uint8_t* out) const
{
    uint64_t copied = 0;
    while (copied < length)
    {
        if (pos == m_qwBlockSize)
        {
            ++block;
            pos = 0;
        }
        const uint64_t n = std::min(length - copied, m_qwBlockSize - pos);
        if (out)
            std::memcpy(out + copied, m_used[block] + pos, static_cast<size_t>(n));
        pos += n;
        copied += n;
    }
    if (pos == m_qwBlockSize && block + 1 < m_used.size())
    {
        ++block;
        pos = 0;
    }
}

void CBuffersList::ConsumeTo(size_t block, uint64_t pos)
{
    for (size_t i = 0; i < block; ++i)
    {
        ReleaseBlock(m_used.front());
        m_used.pop_front();
    }
    m_qwReadPos = pos;
    // An emptied queue starts its only block afresh, so idle periods keep one block.
    if (m_used.size() == 1 && m_qwReadPos == m_qwWritePos)
        m_qwReadPos = m_qwWritePos = 0;
}

size_t CBuffersList::TakeRun(std::vector<uint8_t>& run, std::vector<uint64_t>& sizes, uint64_t cap)
{
    sizes.clear();
    const size_t maxPieces = std::max<size_t>(sizes.capacity(), 1); // nothing allocated under the lock
    daxlib::lock_guard lock(m_srwLists);
    size_t block = 0;
    uint64_t pos = m_qwReadPos;
    uint64_t used = 0;
    while (sizes.size() < maxPieces && !AtEnd(block, pos))
    {
        size_t next = block;
        uint64_t nextPos = pos;
        const uint64_t length = ReadLength(next, nextPos);
        if (!sizes.empty() && used + length > cap)
            break;
        bool room = used + length <= run.size();
        if (!room)
        {
            try
            {
                run.resize(static_cast<size_t>(used + length));
                room = true;
            }
            catch (...)
            {
            }
        }
        ReadBytes(next, nextPos, length, room ? run.data() + used : nullptr);
        block = next;
        pos = nextPos;
        if (room && length > 0)
        {
            sizes.push_back(length);
            used += length;
        }
    }
    ConsumeTo(block, pos);
    return sizes.size();
}

bool CBuffersList::IsEmpty() const
{
    daxlib::lock_guard lock(m_srwLists);
    return m_used.empty() || (m_used.size() == 1 && m_qwReadPos == m_qwWritePos);
}

void CBuffersList::Clear()
{
    daxlib::lock_guard lock(m_srwLists);
    while (!m_used.empty())
    {
        ReleaseBlock(m_used.front());
        m_used.pop_front();
    }
    m_qwReadPos = m_qwWritePos = 0;
}

size_t CBuffersList::UsedBlockCount() const
{
    daxlib::lock_guard lock(m_srwLists);
    return m_used.size();
}

size_t CBuffersList::FreeBlockCount() const
{
    daxlib::lock_guard lock(m_srwLists);
    return m_free.size();
}

uint64_t CBuffersList::WritePosition() const
{
    daxlib::lock_guard lock(m_srwLists);
    return m_qwWritePos;
}
