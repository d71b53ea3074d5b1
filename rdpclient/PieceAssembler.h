#pragma once
// Puts a static channel's messages back together on the client side. FreeRDP delivers each
// message the host wrote in pieces of about 1600 bytes: the first carries CHANNEL_FLAG_FIRST,
// the last CHANNEL_FLAG_LAST (a short message is one piece with both), and every piece names the
// message's total length.
#include <cstddef>
#include <cstdint>
#include <vector>

namespace RdpClient
{

constexpr uint32_t kPieceFirst = 0x01;   // CHANNEL_FLAG_FIRST
constexpr uint32_t kPieceLast = 0x02;    // CHANNEL_FLAG_LAST
constexpr uint32_t kPieceSuspend = 0x20; // CHANNEL_FLAG_SUSPEND
constexpr uint32_t kPieceResume = 0x40;  // CHANNEL_FLAG_RESUME

class PieceAssembler
{
public:
    enum class Result
    {
        Idle,     // a notice between messages, nothing to do
        Partial,  // the message goes on
        Complete, // Message() holds a whole message until the next Add
        // Bytes were lost: a piece out of order, a length that does not add up, or a message
        // past the limit. The stream above is out of step from here on.
        Lost,
    };

    explicit PieceAssembler(size_t maxMessage) : m_cbMax(maxMessage) {}

    Result Add(const uint8_t* data, size_t size, uint32_t totalLength, uint32_t flags);
    const std::vector<uint8_t>& Message() const noexcept { return m_message; }
    void Reset();

private:
    size_t m_cbMax;
    bool m_bInMessage = false;
    bool m_bComplete = false;
    uint32_t m_cbTotal = 0;
    std::vector<uint8_t> m_message;
};

} // namespace RdpClient
