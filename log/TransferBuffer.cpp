#include "log/TransferBuffer.h"

#include "common/DaxException.h"
#include "common/Guarded.h"

#include <cstring>
#include <mutex>
#include <vector>

CTransferBuffer::CTransferBuffer()
{
    m_pList = std::make_unique<CBuffersList>(kBlockSize, TRUE, 3, 100);
    m_hevData.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (!m_hevData)
        daxlib::ThrowDaxException(L"TransferBuffer", __LINE__);
    if (!m_writer.Start([this](HANDLE stop) { WriterLoop(stop); }))
        daxlib::ThrowDaxException(L"TransferBuffer", __LINE__);
}

CTransferBuffer::~CTransferBuffer()
{
    // Only a safety net: by now the derived part is gone, so nothing may reach Transfer().
    Close(TRUE);
}

BOOL CTransferBuffer::Write(const void* data, uint64_t size, BOOL /*last*/)
{
    if (m_bRefuseNow.load(std::memory_order_acquire) || m_bRefuseAfter.load(std::memory_order_acquire))
        return FALSE;
    bool wake = false;
    {
        std::lock_guard lock(m_srwQueue);
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

bool CTransferBuffer::Drained() const
{
    std::lock_guard lock(m_srwQueue);
    return !m_bBusy && m_pList->IsEmpty();
}

void CTransferBuffer::Close(BOOL immediate)
{
    if (!m_writer.IsRunning())
        return;
    if (immediate)
    {
        m_bRefuseNow.store(true, std::memory_order_release);
        std::lock_guard lock(m_srwQueue);
        m_pList->Clear();
        m_bDataSignalled = false;
        ::ResetEvent(m_hevData.get());
    }
    else
    {
        while (!Drained() && !m_writer.HasEnded(20))
        {
        }
    }
    m_bStop.store(true, std::memory_order_release);
    m_writer.Stop();
    m_bRefuseAfter.store(true, std::memory_order_release);
}

void CTransferBuffer::WriterLoop(HANDLE stop)
{
    std::vector<uint8_t> copy;
    try
    {
        copy.resize(8096);
    }
    catch (...)
    {
        m_bRefuseAfter.store(true, std::memory_order_release);
        return;
    }
    const HANDLE events[] = {stop, m_hevData.get()};
    for (;;)
    {
        if (::WaitForMultipleObjects(2, events, FALSE, INFINITE) != WAIT_OBJECT_0 + 1)
            return;
        // One wake-up drains the whole queue, so a burst costs one kernel wait, not one a piece.
        BOOL last = FALSE;
        while (!last)
        {
            if (m_bStop.load(std::memory_order_acquire))
                return;
            uint64_t size = 0;
            bool have = false;
            {
                std::lock_guard lock(m_srwQueue);
                const uint8_t* piece = m_pList->Take(&size, TRUE);
                if (piece)
                {
                    if (size > copy.size())
                    {
                        try
                        {
                            copy.resize(static_cast<size_t>(size));
                        }
                        catch (...)
                        {
                            // Without room for a piece this writer cannot go on; writes are
                            // refused from now on instead of piling up.
                            m_bRefuseAfter.store(true, std::memory_order_release);
                            return;
                        }
                    }
                    std::memcpy(copy.data(), piece, static_cast<size_t>(size));
                    have = true;
                    m_bBusy = true;
                }
                if (m_pList->IsEmpty())
                {
                    m_bDataSignalled = false;
                    ::ResetEvent(m_hevData.get());
                    last = TRUE;
                }
            }
            if (have && size > 0 && !m_bStop.load(std::memory_order_acquire))
            {
                daxlib::GuardedCall(nullptr, L"CTransferBuffer::WriterLoop",
                                    [&] { Transfer(copy.data(), size, last); });
            }
            if (have)
            {
                std::lock_guard lock(m_srwQueue);
                m_bBusy = false;
            }
        }
        ::Sleep(0);
    }
}
