#include "pipeserver/AgentProtocol.h"

namespace agentpipe
{

void StoreU32(uint8_t* out, uint32_t value)
{
    for (int i = 0; i < 4; ++i)
        out[i] = static_cast<uint8_t>(value >> (8 * i));
}

void StoreU64(uint8_t* out, uint64_t value)
{
    for (int i = 0; i < 8; ++i)
        out[i] = static_cast<uint8_t>(value >> (8 * i));
}

uint32_t LoadU32(const uint8_t* in)
{
    uint32_t value = 0;
    for (int i = 3; i >= 0; --i)
        value = (value << 8) | in[i];
    return value;
}

uint64_t LoadU64(const uint8_t* in)
{
    uint64_t value = 0;
    for (int i = 7; i >= 0; --i)
        value = (value << 8) | in[i];
    return value;
}

MessageHeader DecodeHeader(const uint8_t (&bytes)[kHeaderSize])
{
    return {LoadU32(bytes), LoadU32(bytes + 4)};
}

std::array<uint8_t, kHeaderSize> EncodeHeader(const MessageHeader& header)
{
    std::array<uint8_t, kHeaderSize> bytes{};
    StoreU32(bytes.data(), header.type);
    StoreU32(bytes.data() + 4, header.length);
    return bytes;
}

std::array<uint8_t, 24> EncodeHandshakeAnswer()
{
    std::array<uint8_t, 24> bytes{};
    StoreU32(bytes.data(), kTypeHandshake);
    StoreU32(bytes.data() + 4, 16);
    StoreU32(bytes.data() + 8, 0);
    StoreU64(bytes.data() + 16, 1);
    return bytes;
}

std::array<uint8_t, 12> EncodeOpenUrlAnswer(uint32_t result)
{
    std::array<uint8_t, 12> bytes{};
    StoreU32(bytes.data(), kTypeOpenUrl);
    StoreU32(bytes.data() + 4, 4);
    StoreU32(bytes.data() + 8, result);
    return bytes;
}

std::optional<HandshakeValues> DecodeHandshake(const uint8_t* payload, size_t size)
{
    if (!payload || size != kHandshakePayloadSize)
        return std::nullopt;
    return HandshakeValues{LoadU32(payload), LoadU64(payload + 8)};
}

std::u16string ExtractUrl(const uint8_t* payload, size_t size)
{
    std::u16string url;
    if (!payload || size <= 4)
        return url;
    const size_t units = (size - 4) / 2;
    url.reserve(units);
    for (size_t i = 0; i < units; ++i)
    {
        const char16_t unit = static_cast<char16_t>(payload[4 + 2 * i] | (payload[5 + 2 * i] << 8));
        if (unit == u'\0')
            break;
        url.push_back(unit);
    }
    return url;
}

Decision Interpret(const MessageHeader& header, const uint8_t* payload, size_t size)
{
    Decision decision;
    // A payload that is not what the header announced, or an empty handshake or URL message,
    // gets no answer; reading goes on with the next header.
    if (size != header.length || header.length == 0)
        return decision;
    if (header.type == kTypeHandshake)
    {
        if (auto values = DecodeHandshake(payload, size))
        {
            decision.kind = Decision::Kind::Handshake;
            decision.values = *values;
        }
    }
    else if (header.type == kTypeOpenUrl)
    {
        decision.kind = Decision::Kind::OpenUrl;
        decision.url = ExtractUrl(payload, size);
    }
    return decision;
}

std::vector<uint8_t> EncodeHandshake(const HandshakeValues& values)
{
    std::vector<uint8_t> bytes(kHeaderSize + kHandshakePayloadSize, 0);
    StoreU32(bytes.data(), kTypeHandshake);
    StoreU32(bytes.data() + 4, static_cast<uint32_t>(kHandshakePayloadSize));
    StoreU32(bytes.data() + 8, values.a);
    StoreU64(bytes.data() + 16, values.b);
    return bytes;
}

std::vector<uint8_t> EncodeOpenUrl(std::u16string_view url)
{
    const size_t payload = 4 + 2 * (url.size() + 1);
    std::vector<uint8_t> bytes(kHeaderSize + payload, 0);
    StoreU32(bytes.data(), kTypeOpenUrl);
    StoreU32(bytes.data() + 4, static_cast<uint32_t>(payload));
    uint8_t* out = bytes.data() + kHeaderSize + 4;
    for (char16_t unit : url)
    {
        *out++ = static_cast<uint8_t>(unit & 0xFF);
        *out++ = static_cast<uint8_t>(unit >> 8);
    }
    return bytes; // the terminating NUL is already zero
}

} // namespace agentpipe
