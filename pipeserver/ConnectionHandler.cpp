#include "pipeserver/ConnectionHandler.h"

#include "pipe/NamedPipeServer.h"
#include "pipe/PipeRequest.h"

#include <cstring>

CConnectionHandler::CConnectionHandler(std::shared_ptr<ICvLogger> logger,
                                       std::shared_ptr<CNamedPipeServerStream> stream,
                                       const ConnectionInformation& information, UrlSender sendUrl)
    : IBaseItem(logger), m_pStream(std::move(stream)), m_information(information),
      m_pRequest(std::make_unique<CPipeServerRequest>(m_pStream, logger)), m_sendUrl(std::move(sendUrl))
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

void CConnectionHandler::ProcessMessage(const unsigned char* buffer, unsigned long bytes)
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
        break;
    }
    case agentpipe::Decision::Kind::OpenUrl:
    {
        // The session is the one the pipe reports for the agent, never one named by the agent.
        const std::wstring url(decision.url.begin(), decision.url.end());
        const int sent = m_sendUrl ? m_sendUrl(m_information.dwClientSessionId, url) : 0;
        const auto answer =
            agentpipe::EncodeOpenUrlAnswer(sent ? agentpipe::kResultSent : agentpipe::kResultNotSent);
        SendReply(answer.data(), static_cast<uint32_t>(answer.size()));
        break;
    }
    case agentpipe::Decision::Kind::None:
        break;
    }
}

BOOL CConnectionHandler::SendReply(const void* buffer, uint32_t length)
{
    return m_pRequest->Write(buffer, length);
}
