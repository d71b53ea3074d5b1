#include "tools/agent/AgentSession.h"

#include "common/DaxException.h"
#include "common/Locks.h"
#include "common/UniqueHandle.h"
#include "common/WideFormat.h"
#include "pipe/NamedPipeClient.h"
#include "pipe/ThreadPool.h"

#include <algorithm>
#include <cwctype>
#include <exception>
#include <iterator>
#include <mutex>
#include <new>

namespace agent
{

namespace
{
using daxlib::kPipePrefix;
// A cancelled operation completes promptly; this only guards against a transport that never
// reports it.
constexpr DWORD kSettleLimitMs = 5000;

ULONGLONG DeadlineAfter(DWORD timeoutMs)
{
    return ::GetTickCount64() + timeoutMs;
}

DWORD Remaining(ULONGLONG deadline)
{
    const ULONGLONG now = ::GetTickCount64();
    return now >= deadline ? 0 : static_cast<DWORD>(deadline - now);
}

bool StartsWithNoCase(const std::wstring& text, const wchar_t* prefix)
{
    for (size_t i = 0; prefix[i]; ++i)
    {
        if (i >= text.size() || std::towlower(text[i]) != std::towlower(prefix[i]))
            return false;
    }
    return true;
}

bool IsConnectionGone(DWORD error)
{
    return error == ERROR_BROKEN_PIPE || error == ERROR_NO_DATA || error == ERROR_PIPE_NOT_CONNECTED ||
           error == ERROR_OPERATION_ABORTED;
}
} // namespace

std::wstring AgentPipeName()
{
    wchar_t value[512];
    const DWORD length =
        ::GetEnvironmentVariableW(kPipeNameVariable, value, static_cast<DWORD>(std::size(value)));
    if (length == 0 || length >= std::size(value))
        return kAgentPipeName;
    std::wstring name(value, length);
    const size_t prefixLength = std::size(kPipePrefix) - 1;
    if (StartsWithNoCase(name, kPipePrefix) && name.size() > prefixLength)
        return name.substr(prefixLength);
    return name;
}

std::wstring ExpectedServiceName()
{
    wchar_t value[257];
    const DWORD length =
        ::GetEnvironmentVariableW(kServiceNameVariable, value, static_cast<DWORD>(std::size(value)));
    if (length > 0 && length < std::size(value))
        return std::wstring(value, length);
    return ::GetEnvironmentVariableW(kPipeNameVariable, nullptr, 0) ? std::wstring() : kServiceName;
}

DWORD ServiceProcessId(const std::wstring& serviceName)
{
    daxlib::unique_schandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    daxlib::unique_schandle service(
        manager ? ::OpenServiceW(manager.get(), serviceName.c_str(), SERVICE_QUERY_STATUS) : nullptr);
    SERVICE_STATUS_PROCESS status{};
    DWORD needed = 0;
    if (!service || !::QueryServiceStatusEx(service.get(), SC_STATUS_PROCESS_INFO,
                                            reinterpret_cast<BYTE*>(&status), sizeof(status), &needed))
        return 0;
    return status.dwCurrentState == SERVICE_RUNNING ? status.dwProcessId : 0;
}

agentpipe::HandshakeValues OwnHandshakeValues()
{
    agentpipe::HandshakeValues values;
    values.a = 1;
    values.b = ::GetCurrentProcessId();
    return values;
}

std::wstring DescribeStatus(SessionStatus status, DWORD error)
{
    switch (status)
    {
    case SessionStatus::Ok:
    case SessionStatus::Sent:
        return L"sent to the client side of this session";
    case SessionStatus::NotSent:
        return L"the service could not send it to the client side (no remote channel for this session)";
    case SessionStatus::Refused:
        return L"refused by the host's URL policy";
    case SessionStatus::WrongServer:
        return L"the agent pipe is not served by the velomard service; nothing was handed over";
    case SessionStatus::Absent:
        return L"the velomard service is not running";
    case SessionStatus::Busy:
        return L"the velomard service is busy";
    case SessionStatus::TimedOut:
        return L"the velomard service did not answer in time";
    case SessionStatus::Disconnected:
        return L"the velomard service closed the connection";
    case SessionStatus::ProtocolError:
        return L"the velomard service gave an answer that does not fit";
    case SessionStatus::Failed:
        break;
    }
    return daxlib::Format(L"cannot reach the velomard service (error %u)", static_cast<unsigned>(error));
}

// The state one read shares with its completion. The record belongs to the session until it
// gives up waiting; from then on the completion, when it still comes, frees it.
struct CAgentSession::PendingRead
{
    daxlib::srw_lock lock;
    daxlib::unique_handle done;
    bool finished = false;
    bool abandoned = false;
    DWORD status = 0;
    std::vector<uint8_t> data;
};

CAgentSession::CAgentSession(std::wstring pipeName, std::shared_ptr<ICvLogger> logger)
    : CBaseLogger(std::move(logger)), m_strPipeName(std::move(pipeName))
{
}

CAgentSession::~CAgentSession()
{
    Close();
}

SessionStatus CAgentSession::Fail(SessionStatus status, DWORD error)
{
    m_dwError = error;
    return status;
}

SessionStatus CAgentSession::Connect(DWORD timeoutMs)
{
    if (m_pStream)
        return SessionStatus::Ok;
    m_dwError = 0;
    if (!GetThreadPool())
    {
        Log(LogLevel::Error, L"CAgentSession::Connect: ", L"no thread pool: call SetThreadPool first");
        return Fail(SessionStatus::Failed, ERROR_INVALID_STATE);
    }
    const ULONGLONG deadline = DeadlineAfter(timeoutMs);
    try
    {
        m_pClient = std::make_shared<CNamedPipeClient>(m_strPipeName, nullptr, m_pLogger);
        // A first attempt without waiting: no pipe at all means no service, and waiting for one
        // to appear would only delay the fallback.
        BOOL opened = m_pClient->Connect(0);
        DWORD error = opened ? 0 : ::GetLastError();
        if (!opened && error == ERROR_SEM_TIMEOUT && Remaining(deadline) > 0)
        {
            opened = m_pClient->Connect(Remaining(deadline));
            error = opened ? 0 : ::GetLastError();
        }
        if (opened)
            m_pStream = m_pClient->GetStream();
        if (m_pStream && !m_strExpectedService.empty())
        {
            ULONG server = 0;
            const DWORD expected = ServiceProcessId(m_strExpectedService);
            if (!::GetNamedPipeServerProcessId(m_pStream->GetHandle(), &server) || expected == 0 ||
                server != expected)
            {
                Log(LogLevel::Error, L"CAgentSession::Connect: ",
                    L"%s is served by process %lu, the service %s runs as process %lu: not used",
                    m_strPipeName.c_str(), server, m_strExpectedService.c_str(),
                    static_cast<unsigned long>(expected));
                Close();
                return Fail(SessionStatus::WrongServer, ERROR_ACCESS_DENIED);
            }
        }
        if (m_pStream)
        {
            Log(LogLevel::Debug, L"CAgentSession::Connect: ", L"connected to %s", m_strPipeName.c_str());
            return SessionStatus::Ok;
        }
        Close();
        Log(LogLevel::Debug, L"CAgentSession::Connect: ", L"cannot open %s. GLE=%d", m_strPipeName.c_str(),
            static_cast<int>(error));
        switch (error)
        {
        case ERROR_FILE_NOT_FOUND:
        case ERROR_PATH_NOT_FOUND:
            return Fail(SessionStatus::Absent, error);
        case ERROR_SEM_TIMEOUT:
        case ERROR_PIPE_BUSY:
            return Fail(SessionStatus::Busy, error);
        case 0:
            // Opened, but the server hung up before the stream could start.
            return Fail(SessionStatus::Disconnected, ERROR_PIPE_NOT_CONNECTED);
        default:
            return Fail(IsConnectionGone(error) ? SessionStatus::Disconnected : SessionStatus::Failed, error);
        }
    }
    catch (daxlib::CDaxException* raw)
    {
        daxlib::DaxExceptionPtr e(raw);
        LogDaxException(LogLevel::Error, L"CAgentSession::Connect: ", *e);
    }
    catch (const std::exception& e)
    {
        LogStdException(LogLevel::Error, L"CAgentSession::Connect: ", e);
    }
    Close();
    return Fail(SessionStatus::Failed, ERROR_NOT_ENOUGH_MEMORY);
}

SessionStatus CAgentSession::Handshake(const agentpipe::HandshakeValues& values, DWORD timeoutMs)
{
    std::vector<uint8_t> payload;
    const SessionStatus status =
        Exchange(agentpipe::EncodeHandshake(values), agentpipe::kTypeHandshake,
                 agentpipe::kHandshakePayloadSize, payload, DeadlineAfter(timeoutMs));
    if (status != SessionStatus::Ok)
        return status;
    // The service always answers 0 and 1; anything else is not the service we know.
    if (agentpipe::LoadU32(payload.data()) != 0 || agentpipe::LoadU64(payload.data() + 8) != 1)
    {
        Close();
        return Fail(SessionStatus::ProtocolError, ERROR_INVALID_DATA);
    }
    return SessionStatus::Ok;
}

SessionStatus CAgentSession::OpenUrl(std::u16string_view url, DWORD timeoutMs)
{
    std::vector<uint8_t> payload;
    const SessionStatus status = Exchange(agentpipe::EncodeOpenUrl(url), agentpipe::kTypeOpenUrl, 4, payload,
                                          DeadlineAfter(timeoutMs));
    if (status != SessionStatus::Ok)
        return status;
    switch (agentpipe::LoadU32(payload.data()))
    {
    case agentpipe::kResultSent:
        return SessionStatus::Sent;
    case agentpipe::kResultNotSent:
        return SessionStatus::NotSent;
    case agentpipe::kResultRefused:
        return SessionStatus::Refused;
    default:
        Close();
        return Fail(SessionStatus::ProtocolError, ERROR_INVALID_DATA);
    }
}

SessionStatus CAgentSession::SendUrl(const std::wstring& url, const agentpipe::HandshakeValues& values,
                                     DWORD timeoutMs)
{
    const ULONGLONG deadline = DeadlineAfter(timeoutMs);
    SessionStatus status = Connect(Remaining(deadline));
    if (status == SessionStatus::Ok)
        status = Handshake(values, Remaining(deadline));
    if (status == SessionStatus::Ok)
    {
        // wchar_t holds UTF-16 code units on Windows.
        const std::u16string text(url.begin(), url.end());
        status = OpenUrl(text, Remaining(deadline));
    }
    Close();
    return status;
}

SessionStatus CAgentSession::Write(const void* data, uint32_t length, DWORD timeoutMs)
{
    return WriteUntil(data, length, DeadlineAfter(timeoutMs));
}

SessionStatus CAgentSession::Read(uint32_t length, std::vector<uint8_t>& data, DWORD timeoutMs)
{
    return ReadUntil(length, data, DeadlineAfter(timeoutMs));
}

SessionStatus CAgentSession::Exchange(const std::vector<uint8_t>& message, uint32_t answerType,
                                      uint32_t answerLength, std::vector<uint8_t>& payload,
                                      ULONGLONG deadline)
{
    SessionStatus status = WriteUntil(message.data(), static_cast<uint32_t>(message.size()), deadline);
    if (status != SessionStatus::Ok)
        return status;
    std::vector<uint8_t> headerBytes;
    status = ReadUntil(agentpipe::kHeaderSize, headerBytes, deadline);
    if (status != SessionStatus::Ok)
        return status;
    uint8_t raw[agentpipe::kHeaderSize];
    std::copy(headerBytes.begin(), headerBytes.end(), raw);
    const agentpipe::MessageHeader header = agentpipe::DecodeHeader(raw);
    if (header.type != answerType || header.length != answerLength)
    {
        Log(LogLevel::Error, L"CAgentSession::Exchange: ",
            L"unexpected answer: type %u, length %u (expected %u, %u)", header.type, header.length,
            answerType, answerLength);
        Close();
        return Fail(SessionStatus::ProtocolError, ERROR_INVALID_DATA);
    }
    return ReadUntil(header.length, payload, deadline);
}

SessionStatus CAgentSession::WriteUntil(const void* data, uint32_t length, ULONGLONG deadline)
{
    if (!m_pStream)
        return Fail(SessionStatus::Disconnected, ERROR_PIPE_NOT_CONNECTED);
    try
    {
        daxlib::unique_handle done(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
        if (!done)
            return Fail(SessionStatus::Failed, ::GetLastError());
        auto record = std::make_unique<PIPE_OVERLAPPED>();
        record->m_hEvent = done.get();
        auto request = m_pStream->CreateWriteRequest(data, length, record.get());
        if (!m_pStream->AddWriteRequest(request))
        {
            // The request was finished before AddWriteRequest returned: nothing refers to the
            // record any more.
            const DWORD error = ::GetLastError();
            Close();
            return Fail(IsConnectionGone(error) ? SessionStatus::Disconnected : SessionStatus::Failed, error);
        }
        DWORD wait = ::WaitForSingleObject(done.get(), Remaining(deadline));
        const bool late = wait == WAIT_TIMEOUT;
        if (late)
        {
            // A cancelled write still completes, and that completion sets the event; until then
            // the stream holds the record.
            m_pStream->CancelRequest(record.get());
            wait = ::WaitForSingleObject(done.get(), kSettleLimitMs);
        }
        if (wait != WAIT_OBJECT_0)
        {
            Log(LogLevel::Error, L"CAgentSession::WriteUntil: ",
                L"a cancelled write did not complete; its record is left");
            // A completion could still come: leaving the record and event is the safe choice.
            static_cast<void>(record.release());
            static_cast<void>(done.release());
            Close();
            return Fail(SessionStatus::TimedOut, ERROR_TIMEOUT);
        }
        const DWORD status = record->m_dwIoStatus;
        const uint32_t written = record->m_dwBytesTransferred;
        if (late)
        {
            Close();
            return Fail(SessionStatus::TimedOut, ERROR_TIMEOUT);
        }
        if (status != 0 || written != length)
        {
            Close();
            const DWORD error = status != 0 ? status : ERROR_WRITE_FAULT;
            return Fail(IsConnectionGone(error) ? SessionStatus::Disconnected : SessionStatus::Failed, error);
        }
        return SessionStatus::Ok;
    }
    catch (const std::exception& e)
    {
        LogStdException(LogLevel::Error, L"CAgentSession::WriteUntil: ", e);
    }
    Close();
    return Fail(SessionStatus::Failed, ERROR_NOT_ENOUGH_MEMORY);
}

SessionStatus CAgentSession::ReadUntil(uint32_t length, std::vector<uint8_t>& data, ULONGLONG deadline)
{
    if (!m_pStream)
        return Fail(SessionStatus::Disconnected, ERROR_PIPE_NOT_CONNECTED);
    try
    {
        auto pending = std::make_shared<PendingRead>();
        pending->done.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
        if (!pending->done)
            return Fail(SessionStatus::Failed, ::GetLastError());
        auto record = std::make_unique<PIPE_OVERLAPPED>();
        auto callback = MakeGlobalCallback<void(std::shared_ptr<unsigned char[]>, unsigned long,
                                                unsigned long, PIPE_OVERLAPPED*)>(
            [pending](const std::shared_ptr<unsigned char[]>& bytes, unsigned long count,
                      unsigned long status, PIPE_OVERLAPPED* completed)
            {
                bool abandoned = false;
                {
                    daxlib::lock_guard guard(pending->lock);
                    abandoned = pending->abandoned;
                    if (!abandoned)
                    {
                        pending->status = status;
                        try
                        {
                            if (status == 0 && bytes)
                                pending->data.assign(bytes.get(), bytes.get() + count);
                        }
                        catch (const std::bad_alloc&)
                        {
                            pending->status = ERROR_NOT_ENOUGH_MEMORY;
                        }
                        pending->finished = true;
                    }
                }
                if (abandoned)
                    delete completed;
                else
                    ::SetEvent(pending->done.get());
            });
        if (!m_pStream->Read(length, callback, record.get()))
        {
            // Refused: the stream did not keep the record.
            const DWORD error = ::GetLastError();
            Close();
            return Fail(IsConnectionGone(error) ? SessionStatus::Disconnected : SessionStatus::Failed, error);
        }
        const DWORD wait = m_pStream->WaitFor(pending->done.get(), Remaining(deadline));
        if (wait != WAIT_OBJECT_0)
        {
            if (m_pStream->CancelRequest(record.get()))
            {
                // Detached before it completed: no callback will come.
                record.reset();
            }
            else
            {
                // Completed already; its callback is on its way or has just run. It runs on the
                // stream, so it is waited for before the stream goes; should it not come, it
                // frees the record whenever it does.
                m_pStream->WaitFor(pending->done.get(), kSettleLimitMs);
                daxlib::lock_guard guard(pending->lock);
                if (!pending->finished)
                {
                    pending->abandoned = true;
                    static_cast<void>(record.release());
                }
            }
            Close();
            return Fail(SessionStatus::TimedOut, ERROR_TIMEOUT);
        }
        daxlib::lock_guard guard(pending->lock);
        if (pending->status != 0)
        {
            const DWORD error = pending->status;
            Close();
            return Fail(IsConnectionGone(error) ? SessionStatus::Disconnected : SessionStatus::Failed, error);
        }
        data = std::move(pending->data);
        return SessionStatus::Ok;
    }
    catch (const std::exception& e)
    {
        LogStdException(LogLevel::Error, L"CAgentSession::ReadUntil: ", e);
    }
    Close();
    return Fail(SessionStatus::Failed, ERROR_NOT_ENOUGH_MEMORY);
}

void CAgentSession::Close()
{
    m_pStream.reset();
    if (m_pClient)
    {
        m_pClient->Close();
        m_pClient.reset();
    }
}

} // namespace agent
