#include "rdpclient/UrlChannelClient.h"

#include <cstdio>

namespace RdpClient
{

namespace
{

std::string Hex32(uint32_t value)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%08x", value);
    return text;
}

} // namespace

UrlChannelClient::UrlChannelClient(UrlGate gate, Hooks hooks)
    : m_gate(std::move(gate)), m_hooks(std::move(hooks))
{
}

void UrlChannelClient::Log(LogLevel level, const std::string& text) const
{
    if (m_hooks.log)
        m_hooks.log(level, text);
}

void UrlChannelClient::End(LogLevel level, const std::string& why)
{
    if (m_state == State::Ended)
        return;
    m_state = State::Ended;
    Log(level, why);
}

void UrlChannelClient::Abandon(const std::string& why)
{
    End(LogLevel::Error, why + "; this connection takes no more URLs");
}

void UrlChannelClient::Send(std::vector<uint8_t> bytes)
{
    if (!m_hooks.send(std::move(bytes)))
        End(LogLevel::Error, "cannot write to the channel; this connection takes no more URLs");
}

void UrlChannelClient::SendU32(uint32_t value)
{
    std::vector<uint8_t> item(4);
    UrlNet::PutU32(item.data(), value);
    Send(std::move(item));
}

void UrlChannelClient::Receive(const uint8_t* bytes, size_t size)
{
    if (m_state == State::Ended)
        return;
    std::vector<UrlNet::ClientItem> items;
    const bool wellFormed = m_parser.Feed(bytes, size, items);
    for (const auto& item : items)
    {
        if (m_state == State::Ended)
            return;
        Take(item);
    }
    if (!wellFormed)
        End(LogLevel::Error, "the host announced more than " + std::to_string(kMaxMessageData) +
                                 " bytes at once; this connection takes no more URLs");
}

void UrlChannelClient::Take(const UrlNet::ClientItem& item)
{
    using Kind = UrlNet::ClientItem::Kind;
    switch (item.kind)
    {
    case Kind::ServerVersion:
        m_dwHostVersion = item.value;
        SendU32(UrlNet::LocalVersion);
        break;
    case Kind::ServerVersionStatus:
        if (item.value != UrlNet::kStatusAccepted)
        {
            End(LogLevel::Warning, "the host refused protocol version " + Hex32(UrlNet::LocalVersion));
            break;
        }
        if (!AcceptsHostVersion(m_dwHostVersion))
        {
            Send({1});
            End(LogLevel::Warning, "refused the host's protocol version " + Hex32(m_dwHostVersion) +
                                       ": this client speaks major version 1");
            break;
        }
        Send({UrlNet::kStatusAccepted});
        break;
    case Kind::ServerOptionsLength:
        // Option bytes the host announces are skipped by the parser; this side has none.
        SendU32(0);
        break;
    case Kind::ServerOptionsStatus:
        if (item.value != UrlNet::kStatusAccepted)
        {
            End(LogLevel::Warning, "the host refused this client's options");
            break;
        }
        Send({UrlNet::kStatusAccepted});
        if (m_state != State::Ended)
        {
            m_state = State::Ready;
            Log(LogLevel::Info, "channel ready, host protocol version " + Hex32(m_dwHostVersion));
        }
        break;
    case Kind::Message:
        if (item.header.command != UrlNet::eUrlNet_Submit)
        {
            Log(LogLevel::Info, std::string("ignored a message ") + UrlNet::CommandName(item.header.command) +
                                    "(" + std::to_string(item.header.command) + ") of " +
                                    std::to_string(item.header.cbData) + " bytes");
            break;
        }
        std::string_view url;
        if (!UrlNet::ParseSubmitData(item.data.data(), item.data.size(), url))
        {
            Log(LogLevel::Warning, "ignored a submit message too short to hold a URL");
            break;
        }
        Deliver(url);
        break;
    }
}

void UrlChannelClient::Deliver(std::string_view url)
{
    const UrlVerdict verdict = m_gate.Check(url);
    if (!verdict.allowed)
    {
        Log(LogLevel::Warning, "refused a URL from the host: " + verdict.reason);
        return;
    }
    Log(LogLevel::Info, "opening a " + verdict.scheme + " URL of " + std::to_string(url.size()) + " bytes");
    m_hooks.open(std::string(url));
}

} // namespace RdpClient
