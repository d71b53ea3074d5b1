#pragma once
// One connection of an agent to the agent pipe: open it, send the handshake and URLs, and read
// each answer. Every wait is bounded, so that an absent, busy or stuck service never holds an
// agent up. Built on the transport's named-pipe client; it needs the process's CThreadPool
// (SetThreadPool) while it is connected.
#include "common/BaseLogger.h"
#include "common/PipeNames.h"
#include "pipeserver/AgentProtocol.h"

#include <windows.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

class CNamedPipeClient;
class CNamedPipeStream;

namespace agent
{

// The service's agent pipe, without the "\\.\pipe\" prefix.
using daxlib::kAgentPipeName;
// A full pipe name ("\\.\pipe\name") in this variable replaces the service's pipe: for tests and
// for trying an agent against a private server.
constexpr wchar_t kPipeNameVariable[] = L"VELOMAR_AGENT_PIPE";
// The service whose process must serve the pipe: "velomard". With kPipeNameVariable set there is
// no such check unless this variable names a service.
constexpr wchar_t kServiceNameVariable[] = L"VELOMAR_AGENT_SERVICE";
constexpr wchar_t kServiceName[] = L"velomard";

// The service the pipe's server must be; empty: any server (a private pipe for tests).
std::wstring ExpectedServiceName();

// The process id the service control manager reports for a running service; 0 when it is not
// installed, not running, or cannot be asked. A pipe's server is the service's when
// GetNamedPipeServerProcessId gives this.
DWORD ServiceProcessId(const std::wstring& serviceName);

// The agent pipe to use: kPipeNameVariable when set, else kAgentPipeName; without the prefix.
std::wstring AgentPipeName();

// The handshake values of this agent: A is the layout of B (1: B is the agent's process id).
agentpipe::HandshakeValues OwnHandshakeValues();

enum class SessionStatus
{
    Ok,            // connected, the bytes went out, or the handshake was answered
    Sent,          // the service answered 0 to a URL: the client side opens it
    NotSent,       // the service answered 1: no remote channel for this session
    Refused,       // the service answered 2: the host's URL policy refuses the URL
    WrongServer,   // the pipe's server is not the service's process: nothing was handed over
    Absent,        // there is no agent pipe: the service is not running
    Busy,          // every pipe instance stayed taken until the time limit
    TimedOut,      // the time limit passed before the operation completed
    Disconnected,  // the service closed the connection, or there is none
    ProtocolError, // the service's answer does not fit the message it answers
    Failed,        // any other failure; GetError() has the Windows error
};

// One line (no full stop) that tells a user what happened, such as "the service is not running".
std::wstring DescribeStatus(SessionStatus status, DWORD error);

// Not for use by several threads at once. A session whose exchange timed out or got a wrong
// answer is closed: what the service sends later could no longer be matched to its message.
class CAgentSession : public CommonHelper::CvLogger::CBaseLogger
{
public:
    explicit CAgentSession(std::wstring pipeName = AgentPipeName(),
                           std::shared_ptr<ICvLogger> logger = nullptr);
    ~CAgentSession() override;
    CAgentSession(const CAgentSession&) = delete;
    CAgentSession& operator=(const CAgentSession&) = delete;

    // Before Connect: the pipe's server must be this service's process, or Connect closes the
    // pipe again and fails with WrongServer before anything is written. Another process can hold
    // a pipe of the same name; it must not receive the URL.
    void ExpectService(std::wstring serviceName) { m_strExpectedService = std::move(serviceName); }

    // Opens the pipe. No pipe at all fails at once (Absent); when every instance is taken it
    // waits for a free one at most `timeoutMs`.
    SessionStatus Connect(DWORD timeoutMs);
    // Sends a handshake and checks its answer.
    SessionStatus Handshake(const agentpipe::HandshakeValues& values, DWORD timeoutMs);
    // Sends one URL; Sent or NotSent as the service answered.
    SessionStatus OpenUrl(std::u16string_view url, DWORD timeoutMs);
    // Connect, handshake and URL in one time limit, then Close.
    SessionStatus SendUrl(const std::wstring& url, const agentpipe::HandshakeValues& values, DWORD timeoutMs);

    // Raw access for callers that test the service with messages of their own.
    SessionStatus Write(const void* data, uint32_t length, DWORD timeoutMs);
    SessionStatus Read(uint32_t length, std::vector<uint8_t>& data, DWORD timeoutMs);

    void Close();
    bool IsConnected() const { return m_pStream != nullptr; }
    // The Windows error behind the last status other than Ok, Sent and NotSent (0 when none).
    DWORD GetError() const { return m_dwError; }
    const std::wstring& GetPipeName() const { return m_strPipeName; }

private:
    struct PendingRead;

    SessionStatus Exchange(const std::vector<uint8_t>& message, uint32_t answerType, uint32_t answerLength,
                           std::vector<uint8_t>& payload, ULONGLONG deadline);
    SessionStatus WriteUntil(const void* data, uint32_t length, ULONGLONG deadline);
    SessionStatus ReadUntil(uint32_t length, std::vector<uint8_t>& data, ULONGLONG deadline);
    SessionStatus Fail(SessionStatus status, DWORD error);

    std::wstring m_strPipeName;
    std::wstring m_strExpectedService;
    std::shared_ptr<CNamedPipeClient> m_pClient;
    std::shared_ptr<CNamedPipeStream> m_pStream;
    DWORD m_dwError = 0;
};

} // namespace agent
