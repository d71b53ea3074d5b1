#pragma once
// A client of the status API pipe: open it, say hello, ask and listen, say goodbye. Every wait is
// bounded, and an interrupt event (Ctrl+C in velomar-status) ends any wait early. Used by
// velomar-status, the end-to-end tests and the benchmark.
#include "common/UniqueHandle.h"
#include "statusapi/PipeIo.h"
#include "statusapi/StatusProtocol.h"

#include <windows.h>

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

namespace statusclient
{

enum class Status
{
    Ok,
    Absent,      // no status pipe: the service is not running
    Busy,        // every pipe instance stayed taken until the time limit
    WrongServer, // the pipe's server is not the service's process: nothing was sent
    TimedOut,
    Interrupted,   // the interrupt event was set
    Closed,        // the service sent a close packet: CloseReason() says why
    Disconnected,  // the pipe ended without a close packet
    ProtocolError, // the service sent something that does not fit
    Failed,        // any other failure; Error() has the Windows error
};

std::wstring DescribeStatus(Status status, uint32_t closeReason, DWORD error);

class CStatusClient
{
public:
    // `pipeName` without the "\\.\pipe\" prefix.
    explicit CStatusClient(const std::wstring& pipeName = statusapi::kStatusPipeName);
    ~CStatusClient() = default;
    CStatusClient(const CStatusClient&) = delete;
    CStatusClient& operator=(const CStatusClient&) = delete;

    // Before Open: the pipe's server must be this service's process, or Open fails with
    // WrongServer before anything is written.
    void ExpectService(std::wstring serviceName) { m_strExpectedService = std::move(serviceName); }
    void SetInterrupt(HANDLE event) { m_hevInterrupt = event; }
    // The version the hello says (the newest by default); tests play older clients with it.
    void SetVersion(uint32_t version) { m_dwVersion = version; }

    // Opens the pipe only, waiting through "busy" up to the limit.
    Status Open(DWORD timeoutMs);
    // Open, then the hello (this process's own) and the service's welcome. A service older than
    // this client refuses the newest version; the client then says hello again in the oldest,
    // and Welcome().version tells what may be asked.
    Status Connect(DWORD timeoutMs);
    const statusapi::Welcome& Welcome() const { return m_welcome; }

    // Sends a GetStatus or Subscribe and waits for its answer; notifications that come first are
    // kept for NextNotification.
    Status Ask(uint32_t type, uint32_t scope, statusapi::Answer& answer, DWORD timeoutMs);
    Status NextNotification(statusapi::Notification& notification, DWORD timeoutMs);
    // Sends a GetCounters (the welcome's version must have it) and waits for its answer.
    Status AskCounters(uint32_t scope, statusapi::CountersAnswer& answer, DWORD timeoutMs);
    // Sends the close packet (kGoodbye) with a short bound, and closes.
    void Goodbye();
    void Close() { m_hPipe.reset(); }

    // Raw access for tests that misbehave on purpose.
    Status Write(const std::vector<uint8_t>& bytes, DWORD timeoutMs);
    // The next packet whatever it is; a close packet is returned as Ok like any other.
    Status ReadRaw(statusapi::Packet& packet, DWORD timeoutMs);
    HANDLE Handle() const { return m_hPipe.get(); }

    uint32_t CloseReason() const { return m_dwCloseReason; }
    DWORD Error() const { return m_dwError; }

private:
    Status Read(statusapi::Packet& packet, ULONGLONG deadline);
    // The next packet, which must be of this type and decode; ProtocolError (and closed) otherwise.
    template <typename T>
    Status ReadAs(uint32_t type, std::optional<T> (*decode)(const uint8_t*, size_t), T& value,
                  ULONGLONG deadline);
    Status FromOutcome(statusapi::IoOutcome outcome);
    Status Greet(uint32_t version, ULONGLONG deadline);
    // Writes a request and reads up to its answer of `answerType`, keeping notifications that
    // come first; anything else, or an answer to another request, is a protocol error.
    template <typename T>
    Status Request(uint32_t requestType, uint32_t answerType,
                   std::optional<T> (*decode)(const uint8_t*, size_t), uint32_t scope, T& answer,
                   DWORD timeoutMs);

    std::wstring m_strPipeName;
    std::wstring m_strExpectedService;
    HANDLE m_hevInterrupt = nullptr;
    daxlib::unique_hfile m_hPipe;
    statusapi::CPacketReader m_reader{statusapi::kMaxServicePayload};
    statusapi::Welcome m_welcome;
    std::deque<statusapi::Notification> m_notifications;
    uint32_t m_dwVersion = statusapi::kProtocolVersion;
    uint32_t m_dwNextRequest = 1;
    uint32_t m_dwCloseReason = statusapi::kGoodbye;
    DWORD m_dwError = 0;
};

} // namespace statusclient
