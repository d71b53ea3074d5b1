#include "log/TransferBuffer.h"

#include "common/DaxException.h"

#include <process.h>

#include <cstring>
#include <vector>

CTransferBuffer::CTransferBuffer()
{
    m_pList = std::make_unique<CBuffersList>(kBlockSize, TRUE, 3, 100);
    for (auto* event : {&m_hevData, &m_hevStop, &m_hevRefuseNow, &m_hevRefuseAfter})
    {
        event->reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
        if (!*event)
            daxlib::ThrowDaxException(L"TransferBuffer", __LINE__);
    }
    m_hThread.reset(reinterpret_cast<HANDLE>(
        ::_beginthreadex(nullptr, 0, &CTransferBuffer::WriterThread, this, CREATE_SUSPENDED, nullptr)));
    if (!m_hThread)
        daxlib::ThrowDaxException(L"TransferBuffer", __LINE__);
    ::ResumeThread(m_hThread.get());
}

CTransferBuffer::~CTransferBuffer()
{
    // Only a safety net: by now the derived part is gone, so nothing may reach Transfer().
    Close(TRUE);
}

BOOL CTransferBuffer::Write(const void* data, uint64_t size, BOOL /*last*/)
{
    if (::WaitForSingleObject(m_hevRefuseNow.get(), 0) == WAIT_OBJECT_0 ||
        ::WaitForSingleObject(m_hevRefuseAfter.get(), 0) == WAIT_OBJECT_0)
        return FALSE;
    {
        std::lock_guard lock(m_mutex);
        try
        {
            m_pList->Append(size, data);
        }
        catch (daxlib::CDaxException* e)
        {
            delete e;
            return FALSE;
        }
        catch (...)
        {
            return FALSE;
        }
        ::SetEvent(m_hevData.get());
    }
    ::Sleep(0);
    return TRUE;
}

bool CTransferBuffer::Drained() const
{
    std::lock_guard lock(m_mutex);
    return !m_bBusy && m_pList->IsEmpty();
}

void CTransferBuffer::Close(BOOL immediate)
{
    if (!m_hThread)
        return;
    if (immediate)
    {
        ::SetEvent(m_hevRefuseNow.get());
        std::lock_guard lock(m_mutex);
        m_pList->Clear();
        ::ResetEvent(m_hevData.get());
    }
    else
    {
        while (!Drained() && ::WaitForSingleObject(m_hThread.get(), 20) == WAIT_TIMEOUT)
        {
        }
    }
    ::SetEvent(m_hevStop.get());
    ::WaitForSingleObject(m_hThread.get(), INFINITE);
    m_hThread.reset();
    ::SetEvent(m_hevRefuseAfter.get());
}

unsigned __stdcall CTransferBuffer::WriterThread(void* context)
{
    try
    {
        return static_cast<CTransferBuffer*>(context)->WriterLoop();
    }
    catch (daxlib::CDaxException* e)
    {
        delete e;
    }
    catch (...)
    {
    }
    return 1;
}

unsigned CTransferBuffer::WriterLoop()
{
    std::vector<uint8_t> copy;
    try
    {
        copy.resize(8096);
    }
    catch (...)
    {
        ::SetEvent(m_hevRefuseAfter.get());
        return 1;
    }
    const HANDLE events[] = {m_hevStop.get(), m_hevData.get()};
    for (;;)
    {
        if (::WaitForMultipleObjects(2, events, FALSE, INFINITE) != WAIT_OBJECT_0 + 1)
            return 0;
        uint64_t size = 0;
        BOOL last = FALSE;
        bool have = false;
        {
            std::lock_guard lock(m_mutex);
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
                        // Without room for a piece this writer cannot go on; writes are refused
                        // from now on instead of piling up.
                        ::SetEvent(m_hevRefuseAfter.get());
                        return 1;
                    }
                }
                std::memcpy(copy.data(), piece, static_cast<size_t>(size));
                have = true;
                m_bBusy = true;
            }
            if (m_pList->IsEmpty())
            {
                ::ResetEvent(m_hevData.get());
                last = TRUE;
            }
        }
        ::Sleep(0);
        if (have && size > 0 && ::WaitForSingleObject(m_hevStop.get(), 0) != WAIT_OBJECT_0)
        {
            try
            {
                Transfer(copy.data(), size, last);
            }
            catch (daxlib::CDaxException* e)
            {
                delete e;
            }
            catch (...)
            {
            }
        }
        if (have)
        {
            std::lock_guard lock(m_mutex);
            m_bBusy = false;
        }
    }
}
