#include "tools/status/StatusClient.h"

#include "common/ProcessSecurity.h"
#include "common/WideFormat.h"
#include "statusapi/PeerIdentity.h"
#include "tools/agent/AgentSession.h"

#include <algorithm>

using namespace statusapi;

namespace statusclient
{

namespace
{
constexpr DWORD kGoodbyeMs = 1000;
} // namespace

std::wstring DescribeStatus(Status status, uint32_t closeReason, DWORD error)
{
    switch (status)
    {
    case Status::Ok:
        return L"ok";
    case Status::Absent:
        return L"the velomard service is not running";
    case Status::Busy:
        return L"the velomard service is busy";
    case Status::WrongServer:
        return L"the status pipe is not served by the velomard service";
    case Status::TimedOut:
        return L"the velomard service did not answer in time";
    case Status::Interrupted:
        return L"interrupted";
    case Status::Closed:
    {
        const std::string word = CloseReasonWord(closeReason);
        return L"the velomard service closed the connection: " + std::wstring(word.begin(), word.end());
    }
    case Status::Disconnected:
        return L"the velomard service ended the connection";
    case Status::ProtocolError:
        return L"the velomard service gave an answer that does not fit";
    case Status::Failed:
        break;
    }
    return daxlib::Format(L"cannot reach the velomard service (error %u)", static_cast<unsigned>(error));
}

CStatusClient::CStatusClient(const std::wstring& pipeName) : m_strPipeName(daxlib::PipePath(pipeName)) {}

Status CStatusClient::Open(DWORD timeoutMs)
{
    const ULONGLONG deadline = DeadlineAfter(timeoutMs);
    for (;;)
    {
        m_hPipe.reset(::CreateFileW(m_strPipeName.c_str(), GENERIC_READ | FILE_WRITE_DATA, 0, nullptr,
                                    OPEN_EXISTING, FILE_FLAG_OVERLAPPED | daxlib::kPipeClientSecurityFlags,
                                    nullptr));
        if (m_hPipe)
            break;
        m_dwError = ::GetLastError();
        if (m_dwError == ERROR_FILE_NOT_FOUND || m_dwError == ERROR_PATH_NOT_FOUND)
            return Status::Absent;
        if (m_dwError != ERROR_PIPE_BUSY)
            return Status::Failed;
        if (Remaining(deadline) == 0)
            return Status::Busy;
        ::WaitNamedPipeW(m_strPipeName.c_str(),
                         std::max<DWORD>(1, std::min<DWORD>(Remaining(deadline), 250)));
    }
    if (!m_strExpectedService.empty())
    {
        ULONG server = 0;
        const DWORD expected = agent::ServiceProcessId(m_strExpectedService);
        if (!::GetNamedPipeServerProcessId(m_hPipe.get(), &server) || expected == 0 || server != expected)
        {
            Close();
            m_dwError = ERROR_ACCESS_DENIED;
            return Status::WrongServer;
        }
    }
    return Status::Ok;
}

Status CStatusClient::Connect(DWORD timeoutMs)
{
    const ULONGLONG deadline = DeadlineAfter(timeoutMs);
    Status status = Open(timeoutMs);
    if (status != Status::Ok)
        return status;
    status = Greet(m_dwVersion, deadline);
    if (status != Status::Closed || m_dwCloseReason != kVersionUnsupported ||
        m_dwVersion == kMinProtocolVersion)
        return status;
    status = Open(Remaining(deadline));
    return status == Status::Ok ? Greet(kMinProtocolVersion, deadline) : status;
}

Status CStatusClient::Greet(uint32_t version, ULONGLONG deadline)
{
    Hello hello;
    if (!OwnHello(hello))
    {
        m_dwError = ::GetLastError();
        Close();
        return Status::Failed;
    }
    hello.version = version;
    Status status = FromOutcome(WriteAll(m_hPipe.get(), EncodeHello(hello), deadline, m_hevInterrupt));
    return status == Status::Ok ? ReadAs(kWelcome, DecodeWelcome, m_welcome, deadline) : status;
}

template <typename T>
Status CStatusClient::ReadAs(uint32_t type, std::optional<T> (*decode)(const uint8_t*, size_t), T& value,
                             ULONGLONG deadline)
{
    Packet packet;
    const Status status = Read(packet, deadline);
    if (status != Status::Ok)
        return status;
    const auto decoded =
        packet.header.type == type ? decode(packet.payload.data(), packet.payload.size()) : std::nullopt;
    if (!decoded)
    {
        Close();
        return Status::ProtocolError;
    }
    value = *decoded;
    return Status::Ok;
}

template <typename T>
Status CStatusClient::Request(uint32_t requestType, uint32_t answerType,
                              std::optional<T> (*decode)(const uint8_t*, size_t), uint32_t scope, T& answer,
                              DWORD timeoutMs)
{
    const ULONGLONG deadline = DeadlineAfter(timeoutMs);
    const uint32_t id = m_dwNextRequest++;
    Status status = FromOutcome(
        WriteAll(m_hPipe.get(), EncodeRequest(requestType, {id, scope}), deadline, m_hevInterrupt));
    while (status == Status::Ok)
    {
        Packet packet;
        status = Read(packet, deadline);
        if (status != Status::Ok)
            break;
        if (packet.header.type == kNotification)
        {
            if (auto notification = DecodeNotification(packet.payload.data(), packet.payload.size()))
            {
                m_notifications.push_back(*notification);
                continue;
            }
        }
        const auto decoded = packet.header.type == answerType
                                 ? decode(packet.payload.data(), packet.payload.size())
                                 : std::nullopt;
        if (!decoded || decoded->requestId != id)
        {
            Close();
            return Status::ProtocolError;
        }
        answer = *decoded;
        return Status::Ok;
    }
    return status;
}

Status CStatusClient::Ask(uint32_t type, uint32_t scope, Answer& answer, DWORD timeoutMs)
{
    return Request(type, kAnswer, DecodeAnswer, scope, answer, timeoutMs);
}

Status CStatusClient::AskCounters(uint32_t scope, CountersAnswer& answer, DWORD timeoutMs)
{
    return Request(kGetCounters, kCountersAnswer, DecodeCountersAnswer, scope, answer, timeoutMs);
}

Status CStatusClient::NextNotification(Notification& notification, DWORD timeoutMs)
{
    if (!m_notifications.empty())
    {
        notification = m_notifications.front();
        m_notifications.pop_front();
        return Status::Ok;
    }
    return ReadAs(kNotification, DecodeNotification, notification, DeadlineAfter(timeoutMs));
}

void CStatusClient::Goodbye()
{
    if (m_hPipe)
        WriteAll(m_hPipe.get(), EncodeClose(kGoodbye), DeadlineAfter(kGoodbyeMs));
    Close();
}

Status CStatusClient::Write(const std::vector<uint8_t>& bytes, DWORD timeoutMs)
{
    return FromOutcome(WriteAll(m_hPipe.get(), bytes, DeadlineAfter(timeoutMs), m_hevInterrupt));
}

Status CStatusClient::ReadRaw(Packet& packet, DWORD timeoutMs)
{
    return FromOutcome(ReadPacket(m_hPipe.get(), m_reader, packet, DeadlineAfter(timeoutMs), m_hevInterrupt));
}

Status CStatusClient::Read(Packet& packet, ULONGLONG deadline)
{
    const Status status = FromOutcome(ReadPacket(m_hPipe.get(), m_reader, packet, deadline, m_hevInterrupt));
    if (status != Status::Ok || packet.header.type != kClose)
        return status;
    const auto reason = DecodeClose(packet.payload.data(), packet.payload.size());
    Close();
    if (!reason)
        return Status::ProtocolError;
    m_dwCloseReason = *reason;
    return Status::Closed;
}

Status CStatusClient::FromOutcome(IoOutcome outcome)
{
    if (!m_hPipe)
        return Status::Disconnected;
    switch (outcome)
    {
    case IoOutcome::Ok:
        return Status::Ok;
    case IoOutcome::Interrupted:
        // The pipe stays open for a goodbye.
        return Status::Interrupted;
    case IoOutcome::TimedOut:
        Close(); // what comes later could no longer be matched
        return Status::TimedOut;
    case IoOutcome::TooLarge:
        Close();
        return Status::ProtocolError;
    case IoOutcome::Broken:
        break;
    }
    m_dwError = ::GetLastError();
    Close();
    return Status::Disconnected;
}

} // namespace statusclient
