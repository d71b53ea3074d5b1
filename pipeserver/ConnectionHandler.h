#pragma once
// One connected agent: the stream to answer on, the header of the message being read, the
// client's process and session, and the values of the agent's last handshake.
#include "common/BaseItem.h"

#include <windows.h>
#include "pipeserver/AgentProtocol.h"
#include "pipeserver/UrlPolicy.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

class CNamedPipeServerStream;
class CPipeServerRequest;

// Sends a URL to the client side of a session; nonzero when it was written to its channel.
using UrlSender = std::function<int(uint32_t sessionId, const std::wstring& url)>;
// The URL policy in force; null stands for the default policy.
using UrlPolicySource = std::function<std::shared_ptr<const urlpolicy::Policy>()>;
// Told of each URL of a session that the policy refused; it never reaches the sender.
using UrlRefusalCounter = std::function<void(uint32_t sessionId)>;

// What the service knows of a new connection. The texts and the shared reference stay empty.
struct ConnectionInformation
{
    uint32_t dwClientProcessId = 0;
    uint32_t dwClientSessionId = 0; // the only session the agent's URLs go to
    std::wstring strText;
    std::shared_ptr<void> pShared;
    std::wstring strText2;
    std::wstring strText3;
};

class CConnectionHandler : public IBaseItem
{
public:
    CConnectionHandler(const std::shared_ptr<ICvLogger>& logger,
                       std::shared_ptr<CNamedPipeServerStream> stream,
                       const ConnectionInformation& information, UrlSender sendUrl,
                       UrlPolicySource policy = nullptr, UrlRefusalCounter countRefusal = nullptr);
    ~CConnectionHandler() override;
    CConnectionHandler(const CConnectionHandler&) = delete;
    CConnectionHandler& operator=(const CConnectionHandler&) = delete;

    int Start() override { return 1; }
    int Stop() override { return 1; }

    // Takes the 8 bytes as the current header; anything else keeps the old one.
    bool SetHeader(const unsigned char* buffer, unsigned long bytes);
    const agentpipe::MessageHeader& Header() const noexcept { return m_header; }
    // Handles one message whose header was set before; answers through SendReply. True when it
    // was answered: the next message is read once the answer has been written.
    bool ProcessMessage(const unsigned char* buffer, unsigned long bytes);
    // Starts the write of one answer; its end comes through the stream's write callback, which
    // calls ReplyEnded. Failures are logged by the transport.
    BOOL SendReply(const void* buffer, uint32_t length);
    void ReplyEnded() noexcept { m_qwReplySince = 0; }
    // When the answer being written was started (GetTickCount64), or 0 when none is.
    uint64_t ReplyPendingSince() const noexcept { return m_qwReplySince.load(); }

    const std::shared_ptr<CNamedPipeServerStream>& Stream() const noexcept { return m_pStream; }
    CPipeServerRequest& Request() noexcept { return *m_pRequest; }
    const ConnectionInformation& Information() const noexcept { return m_information; }
    uint32_t AgentValueA() const noexcept { return m_dwAgentValueA; }
    uint64_t AgentValueB() const noexcept { return m_qwAgentValueB; }

private:
    agentpipe::MessageHeader m_header;
    std::shared_ptr<CNamedPipeServerStream> m_pStream;
    ConnectionInformation m_information;
    uint64_t m_qwAgentValueB = 0;
    uint32_t m_dwAgentValueA = 0;
    // Reads and writes of this connection; it outlives every operation it started.
    std::unique_ptr<CPipeServerRequest> m_pRequest;
    UrlSender m_sendUrl;
    UrlPolicySource m_policy;
    UrlRefusalCounter m_countRefusal;
    std::atomic<uint64_t> m_qwReplySince{0};
};
