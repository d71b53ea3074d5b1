// Channel pieces of any size, length and flag pattern through the add-in's reassembly and on
// into its client side, as a hostile host or a confused channel could deliver them. Each piece
// is read from the input as flags (1 byte), total length (2 bytes), piece size (1 byte), bytes.
#include "rdpclient/PieceAssembler.h"
#include "rdpclient/UrlChannelClient.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace RdpClient;
    const UrlGate gate({"http", "https", "mailto"});
    UrlChannelClient client(gate, {[](std::vector<uint8_t>) { return true; },
                                   [&gate](std::string url)
                                   {
                                       if (!gate.Check(url).allowed)
                                           std::abort();
                                   },
                                   {}});
    PieceAssembler assembler(4096);
    while (size >= 4)
    {
        const uint32_t flags = data[0];
        const uint32_t total = static_cast<uint32_t>(data[1] | (data[2] << 8));
        const size_t piece = std::min<size_t>(data[3], size - 4);
        data += 4;
        size -= 4;
        switch (assembler.Add(data, piece, total, flags))
        {
        case PieceAssembler::Result::Complete:
            if (assembler.Message().size() != total)
                std::abort();
            client.Receive(assembler.Message().data(), assembler.Message().size());
            break;
        case PieceAssembler::Result::Lost:
            client.Abandon("lost");
            break;
        default:
            break;
        }
        data += piece;
        size -= piece;
    }
    return 0;
}
