// Feeds arbitrary bytes to the service's reading of the agent pipe: a stream of headers and
// payloads, each interpreted as the connection handler does.
#include "pipeserver/AgentProtocol.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    size_t offset = 0;
    while (size - offset >= agentpipe::kHeaderSize)
    {
        uint8_t raw[agentpipe::kHeaderSize];
        for (size_t i = 0; i < agentpipe::kHeaderSize; ++i)
            raw[i] = data[offset + i];
        offset += agentpipe::kHeaderSize;
        const agentpipe::MessageHeader header = agentpipe::DecodeHeader(raw);
        const size_t available = size - offset;
        const size_t taken = header.length < available ? header.length : available;
        const agentpipe::Decision decision = agentpipe::Interpret(header, data + offset, taken);
        if (decision.kind == agentpipe::Decision::Kind::OpenUrl &&
            decision.url.size() * 2 > (taken > 4 ? taken - 4 : 0))
            __builtin_trap(); // the URL may never reach past its payload
        offset += taken;
    }
    return 0;
}
