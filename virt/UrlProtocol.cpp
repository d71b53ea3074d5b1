#include "virt/UrlProtocol.h"

#include <algorithm>
#include <limits>

namespace UrlNet
{

const char* CommandName(uint32_t command) noexcept
{
    switch (command)
    {
    case eUrlNet_Handshake:
        return "eUrlNet_Handshake";
    case eUrlNet_Submit:
        return "eUrlNet_Submit";
    default:
        return "undefined command";
    }
}

void PutU32(uint8_t* out, uint32_t value) noexcept
{
    out[0] = static_cast<uint8_t>(value);
    out[1] = static_cast<uint8_t>(value >> 8);
    out[2] = static_cast<uint8_t>(value >> 16);
    out[3] = static_cast<uint8_t>(value >> 24);
}

uint32_t GetU32(const uint8_t* in) noexcept
{
    return static_cast<uint32_t>(in[0]) | (static_cast<uint32_t>(in[1]) << 8) |
           (static_cast<uint32_t>(in[2]) << 16) | (static_cast<uint32_t>(in[3]) << 24);
}

std::array<uint8_t, kHeaderSize> EncodeHeader(const UrlNetHeader& header) noexcept
{
    std::array<uint8_t, kHeaderSize> bytes{};
    PutU32(bytes.data(), header.command);
    PutU32(bytes.data() + 4, header.cbData);
    return bytes;
}

UrlNetHeader DecodeHeader(const uint8_t* bytes) noexcept
{
    return UrlNetHeader{GetU32(bytes), GetU32(bytes + 4)};
}

std::vector<uint8_t> BuildSubmitMessage(std::string_view utf8Url)
{
    if (utf8Url.empty() ||
        utf8Url.size() > std::numeric_limits<uint32_t>::max() - kHeaderSize - kSubmitReservedSize)
        return {};
    const auto n = static_cast<uint32_t>(utf8Url.size());
    std::vector<uint8_t> message(kHeaderSize + kSubmitReservedSize + n);
    const auto header = EncodeHeader({eUrlNet_Submit, n + static_cast<uint32_t>(kSubmitReservedSize)});
    std::copy(header.begin(), header.end(), message.begin());
    PutU32(message.data() + kHeaderSize, 0);
    std::copy(utf8Url.begin(), utf8Url.end(), message.begin() + kHeaderSize + kSubmitReservedSize);
    return message;
}

bool ParseSubmitData(const uint8_t* data, size_t size, std::string_view& url) noexcept
{
    if (size < kSubmitReservedSize)
        return false;
    url = std::string_view(reinterpret_cast<const char*>(data) + kSubmitReservedSize,
                           size - kSubmitReservedSize);
    return true;
}

} // namespace UrlNet
