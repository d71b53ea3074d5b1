#include "log/TransferBuffer.h"

#include "common/DaxException.h"
#include "common/Guarded.h"

#include <mutex>
#include <vector>

CTransferBuffer::CTransferBuffer()
{
    m_pList = std::make_unique<CBuffersList>(kBlockSize, TRUE, 3, 100);
    try
    {
        m_run.resize(kRunCap);
        m_runSizes.reserve(kRunPieces);
    }
    catch (...)
    {
        daxlib::ThrowDaxException(L"TransferBuffer", __LINE__);
    }
    m_hevData.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (!m_hevData)
        daxlib::ThrowDaxException(L"TransferBuffer", __LINE__);
    if (!m_writer.Start([this](HANDLE stop) { WriterLoop(stop); }))
        daxlib::ThrowDaxException(L"TransferBuffer", __LINE__);
}

CTransferBuffer::~CTransferBuffer()
{
    // Only a safety net: by now the derived part is gone, so nothing may reach TransferRun().
    Close(TRUE);
}

BOOL CTransferBuffer::Write(const void* data, uint64_t size, BOOL /*last*/)
{
    if (m_bRefuseNow.load(std::memory_order_acquire) || m_bRefuseAfter.load(std::memory_order_acquire))
        return FALSE;
    bool wake = false;
    {
        daxlib::lock_guard lock(m_srwQueue);
        if (!daxlib::GuardedCall(nullptr, L"CTransferBuffer::Write", [&] { m_pList->Append(size, data); }))
            return FALSE;
        wake = !m_bDataSignalled;
        m_bDataSignalled = true;
    }
    // No yield after the append: on a busy machine giving up the processor costs the caller a
    // whole time slice, which is exactly the wait the queue exists to avoid.
    if (wake)
        ::SetEvent(m_hevData.get());
    return TRUE;
}

void CTransferBuffer::Close(BOOL immediate)
{
    if (!m_writer.IsRunning())
        return;
    if (immediate)
    {
        m_bRefuseNow.store(true, std::memory_order_release);
        {
            daxlib::lock_guard lock(m_srwQueue);
            m_pList->Clear();
            m_bDataSignalled = false;
            ::ResetEvent(m_hevData.get());
        }
        m_bStop.store(true, std::memory_order_release);
        m_writer.Stop();
    }
    else
    {
        // The writer ends by itself once it finds the queue empty.
        m_bDrain.store(true, std::memory_order_release);
        ::SetEvent(m_hevData.get());
        m_writer.Join();
    }
    m_bRefuseAfter.store(true, std::memory_order_release);
}

BOOL CTransferBuffer::TransferRun(const uint8_t* data, const uint64_t* sizes, size_t count, BOOL last)
{
    BOOL all = TRUE;
    for (size_t i = 0; i < count; ++i)
    {
        if (!Transfer(data, sizes[i], last && i + 1 == count))
            all = FALSE;
        data += sizes[i];
    }
    return all;
}

void CTransferBuffer::WriterLoop(HANDLE stop)
{
    const HANDLE events[] = {stop, m_hevData.get()};
    bool emptied = false; // the last run took everything that was queued
    for (;;)
    {
        if (::WaitForMultipleObjects(2, events, FALSE, INFINITE) != WAIT_OBJECT_0 + 1)
            return;
        // One wake-up drains the queue a run at a time. Once a run has emptied it, the writer
        // pauses before looking again and stays signalled meanwhile: the next record then joins
        // the next run instead of making its caller pay for waking the writer.
        for (;;)
        {
            const bool drain = m_bDrain.load(std::memory_order_acquire);
            if (emptied && !drain && ::WaitForSingleObject(stop, kGatherMs) == WAIT_OBJECT_0)
                return;
            if (m_bStop.load(std::memory_order_acquire))
                return;
            size_t count = 0;
            {
                daxlib::lock_guard lock(m_srwQueue);
                count = m_pList->TakeRun(m_run, m_runSizes, kRunCap);
                emptied = m_pList->IsEmpty();
                if (count == 0)
                {
                    m_bDataSignalled = false;
                    ::ResetEvent(m_hevData.get());
                }
            }
            // Read after the reset, so that a drain asked for meanwhile is not missed.
            if (count == 0 && m_bDrain.load())
                return;
            if (count == 0)
                break;
            if (!m_bStop.load(std::memory_order_acquire))
            {
                daxlib::GuardedCall(nullptr, L"CTransferBuffer::WriterLoop",
                                    [&] { TransferRun(m_run.data(), m_runSizes.data(), count, emptied); });
            }
        }
    }
}
