// Plays the client side's answers of the handshake from arbitrary bytes; a read past them fails
// as a broken connection would.
#include "virt/Handshake.h"
#include "virt/UrlProtocol.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    UrlNet::HandshakeIo io;
    io.write = [](const void*, uint32_t) { return true; };
    io.read = [&](void* bytes, uint32_t count)
    {
        if (count > size)
            return false;
        std::memcpy(bytes, data, count);
        data += count;
        size -= count;
        return true;
    };
    const UrlNet::HandshakeResult result = UrlNet::RunHandshake(io);
    if (result.end == UrlNet::HandshakeEnd::Accepted && result.negotiatedVersion != UrlNet::LocalVersion)
        std::abort();
    return 0;
}
