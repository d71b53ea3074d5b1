#pragma once
// The URL channel between the service and the client side of one remote session: handshake
// items, the message header and the submit message. Every integer is little-endian. Free of
// Windows headers so that the wire format is tested natively and shared with the stand-in
// channel library.
#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace UrlNet
{

constexpr uint32_t LocalVersion = 0x00010001; // major 1, minor 1
constexpr uint32_t kLowestRemoteVersion = 0x00010001;
constexpr uint32_t kLocalOptionsLength = 0; // the service never sends option bytes
constexpr uint8_t kStatusAccepted = 0;
constexpr uint32_t kChannelPort = 54531;
constexpr size_t kHeaderSize = 8;
constexpr size_t kSubmitReservedSize = 4; // the word between header and URL

enum UrlNetCommand : uint32_t
{
    eUrlNet_Handshake = 0, // named only: the handshake itself is not framed
    eUrlNet_Submit = 1,
};

// The display name used in log lines; "undefined command" for anything else.
const char* CommandName(uint32_t command) noexcept;

struct UrlNetHeader
{
    uint32_t command = 0;
    uint32_t cbData = 0; // bytes that follow the header
};

void PutU32(uint8_t* out, uint32_t value) noexcept;
uint32_t GetU32(const uint8_t* in) noexcept;

std::array<uint8_t, kHeaderSize> EncodeHeader(const UrlNetHeader& header) noexcept;
UrlNetHeader DecodeHeader(const uint8_t* bytes) noexcept; // reads kHeaderSize bytes

// One submit message for a URL already converted to UTF-8: header (1, n + 4), a zero word,
// then the n bytes, no terminator. Empty when the URL is empty (an empty URL is never sent)
// or too long for the 32-bit length field.
std::vector<uint8_t> BuildSubmitMessage(std::string_view utf8Url);

// The URL of a received submit message's data (everything after the reserved word); false
// when the data cannot hold the reserved word.
bool ParseSubmitData(const uint8_t* data, size_t size, std::string_view& url) noexcept;

} // namespace UrlNet
