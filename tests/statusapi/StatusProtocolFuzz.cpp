// Feeds arbitrary bytes to every decoder of the status pipe, on both ends: a stream of headers and
// payloads as the service interprets them after the hello, and each decoder directly. Whatever
// decodes must encode back to the same bytes.
#include "statusapi/StatusProtocol.h"

#include <cstddef>
#include <cstdint>
#include <algorithm>
#include <cstring>

namespace
{
void SameBytes(const std::vector<uint8_t>& encoded, const uint8_t* payload, size_t size)
{
    if (encoded.size() != size + agentpipe::kHeaderSize ||
        (size && std::memcmp(encoded.data() + agentpipe::kHeaderSize, payload, size) != 0))
        __builtin_trap();
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace statusapi;
    if (auto hello = DecodeHello(data, size))
    {
        SameBytes(EncodeHello(*hello), data, size);
        SidText(hello->sid);
    }
    if (auto answer = DecodeAnswer(data, size))
        SameBytes(EncodeAnswer(*answer), data, size);
    if (auto notification = DecodeNotification(data, size))
        SameBytes(EncodeNotification(*notification), data, size);
    if (auto counters = DecodeCountersAnswer(data, size))
    {
        SameBytes(EncodeCountersAnswer(*counters), data, size);
        for (const CountersEntry& entry : counters->entries)
        {
            (void)JsonCounters(entry.counters);
            (void)DescribeCounters(entry.counters);
        }
    }
    DecodeWelcome(data, size);
    DecodeClose(data, size);

    size_t offset = 0;
    while (size - offset >= agentpipe::kHeaderSize)
    {
        uint8_t raw[agentpipe::kHeaderSize];
        std::memcpy(raw, data + offset, sizeof(raw));
        offset += agentpipe::kHeaderSize;
        const agentpipe::MessageHeader header = agentpipe::DecodeHeader(raw);
        if (header.length > kMaxClientPayload)
            break; // the service closes here without reading on
        const size_t taken = std::min<size_t>(header.length, size - offset);
        const ClientPacket packet = InterpretClientPacket(header, data + offset, taken, kCountersVersion);
        if (packet.kind != ClientPacket::Kind::Malformed && packet.kind != ClientPacket::Kind::Close &&
            header.length != 8)
            __builtin_trap(); // a request is exactly its id and scope
        offset += taken;
    }
    return 0;
}
