#pragma once
// The client side's view of the URL channel: splits the bytes the service sends into the four
// handshake items and then into messages. Used by the stand-in channel library and by tests.
#include "virt/UrlProtocol.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace UrlNet
{

struct ClientItem
{
    enum class Kind
    {
        ServerVersion,       // value: the service's protocol version
        ServerVersionStatus, // value: the service's verdict on our version
        ServerOptionsLength, // value: option bytes announced (skipped, never delivered)
        ServerOptionsStatus, // value: the service's verdict on our options
        Message,             // header and data
    };
    Kind kind = Kind::Message;
    uint32_t value = 0;
    UrlNetHeader header;
    std::vector<uint8_t> data;
};

class UrlClientParser
{
public:
    // Messages announcing more than maxData bytes make the stream malformed.
    explicit UrlClientParser(uint32_t maxData = 64u << 20) : m_dwMaxData(maxData) {}

    // Consumes bytes in any split; appends each completed item. Returns false once the
    // stream is malformed; later bytes are then ignored.
    bool Feed(const uint8_t* bytes, size_t size, std::vector<ClientItem>& out);

    bool HandshakeDone() const noexcept { return m_state >= State::Header; }
    bool Malformed() const noexcept { return m_state == State::Malformed; }
    // True when no item is partly received.
    bool AtBoundary() const noexcept { return m_pending.empty() && m_qwSkip == 0; }

private:
    enum class State
    {
        Version,
        VersionStatus,
        OptionsLength,
        OptionsStatus,
        Header,
        Data,
        Malformed,
    };
    size_t Wanted() const noexcept;
    void Complete(std::vector<ClientItem>& out);

    uint32_t m_dwMaxData;
    State m_state = State::Version;
    uint64_t m_qwSkip = 0; // option bytes still to skip
    UrlNetHeader m_header;
    std::vector<uint8_t> m_pending;
};

} // namespace UrlNet
