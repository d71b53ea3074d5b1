#include "pipeserver/ConnectionHandler.h"

#include "pipe/NamedPipeServer.h"
#include "pipe/PipeRequest.h"

#include <cstring>

CConnectionHandler::CConnectionHandler(const std::shared_ptr<ICvLogger>& logger,
                                       std::shared_ptr<CNamedPipeServerStream> stream,
                                       const ConnectionInformation& information, UrlSender sendUrl,
                                       UrlPolicySource policy, UrlRefusalCounter countRefusal)
    : IBaseItem(logger), m_pStream(std::move(stream)), m_information(information),
      m_pRequest(std::make_unique<CPipeServerRequest>(m_pStream, logger)), m_sendUrl(std::move(sendUrl)),
      m_policy(std::move(policy)), m_countRefusal(std::move(countRefusal))
{
}

CConnectionHandler::~CConnectionHandler()
{
    Stop();
}

bool CConnectionHandler::SetHeader(const unsigned char* buffer, unsigned long bytes)
{
    if (bytes != agentpipe::kHeaderSize || !buffer)
        return false;
    uint8_t raw[agentpipe::kHeaderSize];
    std::memcpy(raw, buffer, sizeof(raw));
    m_header = agentpipe::DecodeHeader(raw);
    return true;
}

bool CConnectionHandler::ProcessMessage(const unsigned char* buffer, unsigned long bytes)
{
    const agentpipe::Decision decision = agentpipe::Interpret(m_header, buffer, bytes);
    switch (decision.kind)
    {
    case agentpipe::Decision::Kind::Handshake:
    {
        m_dwAgentValueA = decision.values.a;
        m_qwAgentValueB = decision.values.b;
        const auto answer = agentpipe::EncodeHandshakeAnswer();
        SendReply(answer.data(), static_cast<uint32_t>(answer.size()));
        return true;
    }
    case agentpipe::Decision::Kind::OpenUrl:
    {
        // This is the trust boundary: a URL the policy refuses never reaches the channel.
        static const urlpolicy::Policy defaultPolicy;
        const auto policy = m_policy ? m_policy() : nullptr;
        const urlpolicy::Verdict verdict =
            urlpolicy::Evaluate(policy ? *policy : defaultPolicy, decision.url);
        uint32_t result = agentpipe::kResultRefused;
        if (verdict.Allowed())
        {
            // The text judged is the text sent. The session is the one the pipe reports for
            // the agent, never one named by the agent.
            const std::u16string_view trimmed = urlpolicy::Trim(decision.url);
            const std::wstring url(trimmed.begin(), trimmed.end());
            const int sent = m_sendUrl ? m_sendUrl(m_information.dwClientSessionId, url) : 0;
            result = sent ? agentpipe::kResultSent : agentpipe::kResultNotSent;
        }
        else
        {
            // Scheme, host and rule only: paths and queries carry tokens.
            Log(LogLevel::Warning, L"CConnectionHandler::ProcessMessage: (66)",
                L"URL refused by the URL policy: scheme <%S>, host <%S>, rule: %S%S%S, pid %u",
                verdict.scheme.substr(0, 64).c_str(), verdict.host.c_str(), urlpolicy::RuleName(verdict.rule),
                verdict.pattern.empty() ? "" : " ", verdict.pattern.c_str(),
                static_cast<unsigned>(m_information.dwClientProcessId));
            if (m_countRefusal)
                m_countRefusal(m_information.dwClientSessionId);
        }
        const auto answer = agentpipe::EncodeOpenUrlAnswer(result);
        SendReply(answer.data(), static_cast<uint32_t>(answer.size()));
        return true;
    }
    case agentpipe::Decision::Kind::None:
        break;
    }
    return false;
}

BOOL CConnectionHandler::SendReply(const void* buffer, uint32_t length)
{
    // No thread waits for the agent to take its answer: an agent that never reads holds one
    // small record, and the server's watch ends it when the answer is overdue.
    // An answer that failed to start stays overdue too, in case no callback reports it.
    m_qwReplySince = ::GetTickCount64();
    return m_pRequest->WriteAsync(buffer, length, new PIPE_OVERLAPPED());
}
