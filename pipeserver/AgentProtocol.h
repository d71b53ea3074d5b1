#pragma once
// The agent pipe's wire format. Every message in either direction is an 8-byte header (type,
// payload length; little-endian) followed by exactly that many payload bytes.
// Free of Windows headers: the service and the reference agent share it, and it is tested
// and fuzzed on the build host.
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace agentpipe
{

constexpr size_t kHeaderSize = 8;
constexpr uint32_t kTypeHandshake = 0;
constexpr uint32_t kTypeOpenUrl = 1;
constexpr size_t kHandshakePayloadSize = 16;
constexpr uint32_t kResultSent = 0;
constexpr uint32_t kResultNotSent = 1;
constexpr uint32_t kResultRefused = 2; // refused by the host's URL policy; never written to the channel

struct MessageHeader
{
    uint32_t type = 0;
    uint32_t length = 0;
};

// The values an agent sends in its handshake; the service keeps them without interpreting them.
struct HandshakeValues
{
    uint32_t a = 0; // payload bytes 0-3
    uint64_t b = 0; // payload bytes 8-15
};

void StoreU32(uint8_t* out, uint32_t value);
void StoreU64(uint8_t* out, uint64_t value);
uint32_t LoadU32(const uint8_t* in);
uint64_t LoadU64(const uint8_t* in);

MessageHeader DecodeHeader(const uint8_t (&bytes)[kHeaderSize]);
std::array<uint8_t, kHeaderSize> EncodeHeader(const MessageHeader& header);

// Service side.
// The 24-byte answer to a handshake: type 0, length 16, 0 at offset 0 and 1 at offset 8.
std::array<uint8_t, 24> EncodeHandshakeAnswer();
// The 12-byte answer to an open-URL message: type 1, length 4, the result.
std::array<uint8_t, 12> EncodeOpenUrlAnswer(uint32_t result);
// Values of a handshake payload; none unless it holds 16 bytes.
std::optional<HandshakeValues> DecodeHandshake(const uint8_t* payload, size_t size);
// The URL of an open-URL payload: UTF-16 code units from offset 4 up to the first NUL, or up
// to the end of the payload when it holds none (an odd last byte is ignored).
std::u16string ExtractUrl(const uint8_t* payload, size_t size);

// What the service does with one complete message (header plus the payload bytes read for it).
struct Decision
{
    enum class Kind
    {
        None,      // no answer: a short payload, an unknown type, or an empty message
        Handshake, // keep `values`, answer with EncodeHandshakeAnswer()
        OpenUrl,   // send `url` to the agent's session, answer with EncodeOpenUrlAnswer()
    };
    Kind kind = Kind::None;
    HandshakeValues values;
    std::u16string url;
};
Decision Interpret(const MessageHeader& header, const uint8_t* payload, size_t size);

// Agent side.
std::vector<uint8_t> EncodeHandshake(const HandshakeValues& values);
// Header, a reserved zero word, the URL and its terminating NUL.
std::vector<uint8_t> EncodeOpenUrl(std::u16string_view url);

} // namespace agentpipe
