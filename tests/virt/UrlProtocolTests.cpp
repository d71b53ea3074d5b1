// The URL channel's bytes: the submit message, the header, and the client side's parser.
#include "virt/UrlClientParser.h"
#include "virt/UrlProtocol.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace UrlNet;
using Bytes = std::vector<uint8_t>;

namespace
{
Bytes Concat(std::initializer_list<Bytes> parts)
{
    Bytes all;
    for (const auto& p : parts)
        all.insert(all.end(), p.begin(), p.end());
    return all;
}
Bytes Of(std::string_view text)
{
    return Bytes(text.begin(), text.end());
}
} // namespace

TEST(SubmitMessage, HeaderReservedWordAndUtf8TextWithoutTerminator)
{
    const Bytes expected = Concat({{0x01, 0, 0, 0, 0x17, 0, 0, 0, 0, 0, 0, 0}, Of("https://example.org")});
    EXPECT_EQ(expected, BuildSubmitMessage("https://example.org"));
    EXPECT_TRUE(BuildSubmitMessage("").empty());

    // The length counts UTF-8 bytes: "é" (2), "€" (3) and U+1F600 (4) after "h/".
    const std::string url = "h/\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";
    const Bytes message = BuildSubmitMessage(url);
    ASSERT_EQ(12u + 11u, message.size());
    EXPECT_EQ(11u + 4u, GetU32(message.data() + 4));
    EXPECT_EQ(Of(url), Bytes(message.begin() + 12, message.end()));
}

namespace
{
// What the service writes for a handshake followed by two messages.
Bytes ServiceStream()
{
    return Concat({{0x01, 0x00, 0x01, 0x00},
                   {0x00},
                   {0, 0, 0, 0},
                   {0x00},
                   BuildSubmitMessage("a"),
                   {0x07, 0, 0, 0, 0, 0, 0, 0},
                   BuildSubmitMessage("https://x")});
}
} // namespace

TEST(ClientParser, SameItemsWhateverTheSplit)
{
    const Bytes stream = ServiceStream();
    for (size_t chunk = 1; chunk <= stream.size(); ++chunk)
    {
        UrlClientParser parser;
        std::vector<ClientItem> items;
        for (size_t at = 0; at < stream.size(); at += chunk)
            ASSERT_TRUE(parser.Feed(stream.data() + at, std::min(chunk, stream.size() - at), items));
        ASSERT_EQ(7u, items.size()) << "chunk " << chunk;
        EXPECT_EQ(ClientItem::Kind::ServerVersion, items[0].kind);
        EXPECT_EQ(LocalVersion, items[0].value);
        EXPECT_EQ(ClientItem::Kind::ServerVersionStatus, items[1].kind);
        EXPECT_EQ(ClientItem::Kind::ServerOptionsLength, items[2].kind);
        EXPECT_EQ(ClientItem::Kind::ServerOptionsStatus, items[3].kind);
        std::string_view url;
        ASSERT_TRUE(ParseSubmitData(items[4].data.data(), items[4].data.size(), url));
        EXPECT_EQ("a", url);
        EXPECT_EQ(7u, items[5].header.command); // cbData 0: no data, next header read at once
        EXPECT_TRUE(items[5].data.empty());
        ASSERT_TRUE(ParseSubmitData(items[6].data.data(), items[6].data.size(), url));
        EXPECT_EQ("https://x", url);
        EXPECT_TRUE(parser.AtBoundary());
    }
}

TEST(ClientParser, SkipsAnnouncedOptionBytesAndRefusesOversizedMessages)
{
    UrlClientParser parser(16);
    std::vector<ClientItem> items;
    const Bytes withOptions = Concat({{1, 0, 1, 0}, {0}, {3, 0, 0, 0}, {0xAA, 0xBB, 0xCC}, {0}});
    ASSERT_TRUE(parser.Feed(withOptions.data(), withOptions.size(), items));
    ASSERT_EQ(4u, items.size());
    EXPECT_EQ(3u, items[2].value);
    EXPECT_TRUE(parser.HandshakeDone());

    const Bytes huge = {1, 0, 0, 0, 0xF0, 0xFF, 0xFF, 0xFF};
    EXPECT_FALSE(parser.Feed(huge.data(), huge.size(), items));
    EXPECT_TRUE(parser.Malformed());
    EXPECT_EQ(4u, items.size());

    std::string_view url;
    const uint8_t shortData[3] = {0, 0, 0};
    EXPECT_FALSE(ParseSubmitData(shortData, 3, url));
}
