#include "statusapi/PipeIo.h"

#include <algorithm>
#include <functional>

namespace statusapi
{

CPipeOperation::CPipeOperation() : m_hevDone(::CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}

bool CPipeOperation::Start(HANDLE pipe, bool write, void* buffer, DWORD size)
{
    m_overlapped = OVERLAPPED{};
    ::ResetEvent(m_hevDone.get());
    // The low bit keeps the completion off the port the pipe may be bound to.
    m_overlapped.hEvent = reinterpret_cast<HANDLE>(reinterpret_cast<ULONG_PTR>(m_hevDone.get()) | 1);
    const BOOL done = write ? ::WriteFile(pipe, buffer, size, nullptr, &m_overlapped)
                            : ::ReadFile(pipe, buffer, size, nullptr, &m_overlapped);
    if (!done && ::GetLastError() != ERROR_IO_PENDING)
        return false;
    m_bPending = true;
    return true;
}

bool CPipeOperation::Complete(HANDLE pipe, DWORD& bytes, DWORD& error)
{
    bytes = 0;
    error = 0;
    m_bPending = false;
    if (::GetOverlappedResult(pipe, &m_overlapped, &bytes, FALSE))
        return true;
    error = ::GetLastError();
    return false;
}

void CPipeOperation::Cancel(HANDLE pipe)
{
    if (!m_bPending)
        return;
    ::CancelIoEx(pipe, &m_overlapped); // ERROR_NOT_FOUND: it completed meanwhile, which is as good
    // A cancelled pipe operation completes at once; its record and buffer must outlive it.
    ::WaitForSingleObject(m_hevDone.get(), INFINITE);
    DWORD bytes = 0;
    DWORD error = 0;
    Complete(pipe, bytes, error);
}

bool CPacketReader::Start(HANDLE pipe)
{
    uint8_t* at = m_bHeaderDone ? m_payload.data() + m_nGot : m_header + m_nGot;
    const size_t need = (m_bHeaderDone ? m_payload.size() : sizeof(m_header)) - m_nGot;
    if (!m_operation.Start(pipe, false, at, static_cast<DWORD>(need)))
    {
        m_dwError = ::GetLastError();
        return false;
    }
    return true;
}

CPacketReader::Step CPacketReader::Continue(HANDLE pipe)
{
    DWORD bytes = 0;
    if (!m_operation.Complete(pipe, bytes, m_dwError))
        return Step::Broken;
    if (bytes == 0)
    {
        m_dwError = ERROR_BROKEN_PIPE; // an end of stream
        return Step::Broken;
    }
    m_nGot += bytes;
    if (!m_bHeaderDone)
    {
        if (m_nGot < sizeof(m_header))
            return Step::More;
        const agentpipe::MessageHeader header = agentpipe::DecodeHeader(m_header);
        if (header.length > m_dwMaxPayload)
            return Step::TooLarge;
        // Made only now that the length is known to be within bounds.
        m_payload.assign(header.length, 0);
        m_bHeaderDone = true;
        m_nGot = 0;
    }
    return m_nGot < m_payload.size() ? Step::More : Step::Complete;
}

Packet CPacketReader::Take()
{
    Packet packet{Header(), std::move(m_payload)};
    m_payload.clear();
    m_bHeaderDone = false;
    m_nGot = 0;
    return packet;
}

ULONGLONG DeadlineAfter(DWORD timeoutMs)
{
    return ::GetTickCount64() + timeoutMs;
}

DWORD Remaining(ULONGLONG deadline)
{
    const ULONGLONG now = ::GetTickCount64();
    return now >= deadline ? 0 : static_cast<DWORD>(std::min<ULONGLONG>(deadline - now, INFINITE - 1));
}

namespace
{
// Waits for a started operation; on a timeout or the interrupt it is cancelled.
IoOutcome Await(HANDLE done, ULONGLONG deadline, HANDLE interrupt, const std::function<void()>& cancel)
{
    const HANDLE handles[2] = {done, interrupt};
    const DWORD wait = ::WaitForMultipleObjects(interrupt ? 2 : 1, handles, FALSE, Remaining(deadline));
    if (wait == WAIT_OBJECT_0)
        return IoOutcome::Ok;
    cancel();
    return wait == WAIT_OBJECT_0 + 1 ? IoOutcome::Interrupted : IoOutcome::TimedOut;
}
} // namespace

IoOutcome ReadPacket(HANDLE pipe, CPacketReader& reader, Packet& packet, ULONGLONG deadline, HANDLE interrupt)
{
    for (;;)
    {
        if (!reader.Start(pipe))
            return IoOutcome::Broken;
        const IoOutcome waited = Await(reader.Event(), deadline, interrupt, [&] { reader.Cancel(pipe); });
        if (waited != IoOutcome::Ok)
            return waited;
        switch (reader.Continue(pipe))
        {
        case CPacketReader::Step::More:
            continue;
        case CPacketReader::Step::Complete:
            packet = reader.Take();
            return IoOutcome::Ok;
        case CPacketReader::Step::TooLarge:
            return IoOutcome::TooLarge;
        case CPacketReader::Step::Broken:
            return IoOutcome::Broken;
        }
    }
}

IoOutcome WriteAll(HANDLE pipe, const std::vector<uint8_t>& bytes, ULONGLONG deadline, HANDLE interrupt)
{
    CPipeOperation operation;
    size_t done = 0;
    while (done < bytes.size())
    {
        // WriteFile only reads the buffer; the operation takes one pointer type for both directions.
        if (!operation.Valid() || !operation.Start(pipe, true, const_cast<uint8_t*>(bytes.data()) + done,
                                                   static_cast<DWORD>(bytes.size() - done)))
            return IoOutcome::Broken;
        const IoOutcome waited =
            Await(operation.Event(), deadline, interrupt, [&] { operation.Cancel(pipe); });
        if (waited != IoOutcome::Ok)
            return waited;
        DWORD written = 0;
        DWORD error = 0;
        if (!operation.Complete(pipe, written, error) || written == 0)
            return IoOutcome::Broken;
        done += written;
    }
    return IoOutcome::Ok;
}

} // namespace statusapi
