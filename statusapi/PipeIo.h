#pragma once
// Overlapped reads and writes of status API packets, for the service's connection threads and for
// clients alike. Each operation completes through its own event and never through a completion
// port the pipe handle may be bound to (the low bit of the event handle says so), so a connection
// thread of the service waits on its own events while the accept thread owns the port.
#include "common/UniqueHandle.h"
#include "pipeserver/AgentProtocol.h"

#include <windows.h>

#include <cstdint>
#include <vector>

namespace statusapi
{

// One overlapped read or write at a time.
class CPipeOperation
{
public:
    CPipeOperation();
    ~CPipeOperation() = default; // the owner cancels first: see Cancel
    CPipeOperation(const CPipeOperation&) = delete;
    CPipeOperation& operator=(const CPipeOperation&) = delete;

    bool Valid() const { return m_hevDone.valid(); }
    // Starts the operation; the event is set once it completes (at once or later). False with the
    // last error when it could not start; nothing is pending then.
    bool Start(HANDLE pipe, bool write, void* buffer, DWORD size);
    bool Pending() const { return m_bPending; }
    HANDLE Event() const { return m_hevDone.get(); }
    // After the event: the bytes moved, or false with the error in `error`.
    bool Complete(HANDLE pipe, DWORD& bytes, DWORD& error);
    // Cancels a pending operation and waits until it has ended, so that its buffer may go.
    void Cancel(HANDLE pipe);

private:
    OVERLAPPED m_overlapped{};
    daxlib::unique_handle m_hevDone;
    bool m_bPending = false;
};

struct Packet
{
    agentpipe::MessageHeader header;
    std::vector<uint8_t> payload;
};

// Reads one packet after another, across as many reads as the pipe needs.
class CPacketReader
{
public:
    explicit CPacketReader(uint32_t maxPayload) : m_dwMaxPayload(maxPayload) {}

    enum class Step
    {
        More,     // start again: the packet is not complete yet
        Complete, // Take() it
        TooLarge, // the header announced more than the limit; nothing more can be read
        Broken,   // the read failed (the error is in LastError())
    };

    bool Valid() const { return m_operation.Valid(); }
    bool Start(HANDLE pipe);
    bool Pending() const { return m_operation.Pending(); }
    HANDLE Event() const { return m_operation.Event(); }
    Step Continue(HANDLE pipe);
    Packet Take();
    // The header of the packet being read (once it is complete).
    agentpipe::MessageHeader Header() const { return agentpipe::DecodeHeader(m_header); }
    void Cancel(HANDLE pipe) { m_operation.Cancel(pipe); }
    DWORD LastError() const { return m_dwError; }

private:
    CPipeOperation m_operation;
    uint32_t m_dwMaxPayload;
    uint8_t m_header[agentpipe::kHeaderSize] = {};
    bool m_bHeaderDone = false;
    std::vector<uint8_t> m_payload;
    size_t m_nGot = 0;
    DWORD m_dwError = 0;
};

enum class IoOutcome
{
    Ok,
    TimedOut,
    Interrupted, // `interrupt` was set
    TooLarge,
    Broken, // the pipe failed or ended
};

// Blocking forms with a deadline (GetTickCount64) and an optional event that ends the wait early.
IoOutcome ReadPacket(HANDLE pipe, CPacketReader& reader, Packet& packet, ULONGLONG deadline,
                     HANDLE interrupt = nullptr);
IoOutcome WriteAll(HANDLE pipe, const std::vector<uint8_t>& bytes, ULONGLONG deadline,
                   HANDLE interrupt = nullptr);

ULONGLONG DeadlineAfter(DWORD timeoutMs);
DWORD Remaining(ULONGLONG deadline);

} // namespace statusapi
