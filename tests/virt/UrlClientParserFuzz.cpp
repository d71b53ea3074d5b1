// Feeds arbitrary service-side bytes, split at arbitrary points, to the client side's parser.
#include "virt/UrlClientParser.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    UrlNet::UrlClientParser parser(1u << 16);
    std::vector<UrlNet::ClientItem> items;
    const size_t split = data[0] % (size + 1);
    parser.Feed(data + 1, split > 0 ? split - 1 : 0, items);
    if (split > 0)
        parser.Feed(data + split, size - split, items);
    for (const auto& item : items)
    {
        std::string_view url;
        if (item.kind == UrlNet::ClientItem::Kind::Message)
            UrlNet::ParseSubmitData(item.data.data(), item.data.size(), url);
    }
    return 0;
}
