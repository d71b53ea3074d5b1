#pragma once
// The client side of the URL channel: answers the host's handshake, then takes each submitted
// URL to the opener when the client machine's gate lets it through. Free of FreeRDP: the add-in
// feeds it the bytes of the channel and gives it a way to write and to open.
#include "rdpclient/ClientLog.h"
#include "rdpclient/UrlGate.h"
#include "virt/UrlClientParser.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace RdpClient
{

class UrlChannelClient
{
public:
    // No submit message needs more: a URL past kMaxUrlBytes is refused whole anyway.
    static constexpr uint32_t kMaxMessageData = 1u << 20;

    struct Hooks
    {
        std::function<bool(std::vector<uint8_t> bytes)> send; // false when the channel refused it
        std::function<void(std::string url)> open;            // must not block
        LogSink log;
    };

    enum class State
    {
        Handshake,
        Ready, // URLs are taken
        Ended, // refused, malformed or abandoned: nothing more is read
    };

    UrlChannelClient(UrlGate gate, Hooks hooks);

    // The host's bytes, in any split.
    void Receive(const uint8_t* bytes, size_t size);
    // Bytes were lost below the stream; nothing after them can be read in step.
    void Abandon(const std::string& why);

    State GetState() const noexcept { return m_state; }
    uint32_t HostVersion() const noexcept { return m_dwHostVersion; }

    // This side speaks major version 1; a host with another major version is refused.
    static bool AcceptsHostVersion(uint32_t version) noexcept { return (version >> 16) == 1; }

private:
    void Take(const UrlNet::ClientItem& item);
    void Send(std::vector<uint8_t> bytes);
    void SendU32(uint32_t value);
    void Deliver(std::string_view url);
    void End(LogLevel level, const std::string& why);
    void Log(LogLevel level, const std::string& text) const;

    UrlGate m_gate;
    Hooks m_hooks;
    UrlNet::UrlClientParser m_parser{kMaxMessageData};
    State m_state = State::Handshake;
    uint32_t m_dwHostVersion = 0;
};

} // namespace RdpClient
