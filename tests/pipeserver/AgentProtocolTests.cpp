#include "pipeserver/AgentProtocol.h"

#include <gtest/gtest.h>

#include <vector>

using namespace agentpipe;

TEST(AgentProtocol, AnswersHaveTheirExactBytes)
{
    const std::vector<uint8_t> handshake = {0, 0, 0, 0, 16, 0, 0, 0, 0, 0, 0, 0,
                                            0, 0, 0, 0, 1,  0, 0, 0, 0, 0, 0, 0};
    const auto answer = EncodeHandshakeAnswer();
    EXPECT_EQ(handshake, std::vector<uint8_t>(answer.begin(), answer.end()));

    const auto failed = EncodeOpenUrlAnswer(kResultNotSent);
    EXPECT_EQ((std::vector<uint8_t>{1, 0, 0, 0, 4, 0, 0, 0, 1, 0, 0, 0}),
              std::vector<uint8_t>(failed.begin(), failed.end()));
}

TEST(AgentProtocol, AgentMessagesRoundTripAndAreInterpreted)
{
    const auto hello = EncodeHandshake({0xA1B2C3D4u, 0x0102030405060708ull});
    ASSERT_EQ(24u, hello.size());
    uint8_t header[kHeaderSize];
    std::copy(hello.begin(), hello.begin() + 8, header);
    EXPECT_EQ(kTypeHandshake, DecodeHeader(header).type);
    EXPECT_EQ(16u, DecodeHeader(header).length);
    const auto values = DecodeHandshake(hello.data() + 8, 16);
    ASSERT_TRUE(values);
    EXPECT_EQ(0xA1B2C3D4u, values->a);
    EXPECT_EQ(0x0102030405060708ull, values->b);
    EXPECT_FALSE(DecodeHandshake(hello.data() + 8, 15));
    EXPECT_FALSE(DecodeHandshake(hello.data() + 8, 17));

    const std::u16string url = u"https://example.test/\u00e9\U0001F600";
    const auto open = EncodeOpenUrl(url);
    std::copy(open.begin(), open.begin() + 8, header);
    EXPECT_EQ(kTypeOpenUrl, DecodeHeader(header).type);
    ASSERT_EQ(open.size() - 8, DecodeHeader(header).length);
    EXPECT_EQ(4u + 2 * (url.size() + 1), DecodeHeader(header).length);
    EXPECT_EQ(url, ExtractUrl(open.data() + 8, open.size() - 8));

    // Interpreted: the handshake's values are kept; a URL message with fewer bytes than announced
    // is not answered (the other unanswered messages go through a live pipe).
    const auto d = Interpret({kTypeHandshake, 16}, hello.data() + 8, 16);
    EXPECT_EQ(Decision::Kind::Handshake, d.kind);
    EXPECT_EQ(0xA1B2C3D4u, d.values.a);
    EXPECT_EQ(0x0102030405060708ull, d.values.b);
    const uint32_t length = static_cast<uint32_t>(open.size() - 8);
    EXPECT_EQ(Decision::Kind::OpenUrl, Interpret({kTypeOpenUrl, length}, open.data() + 8, length).kind);
    EXPECT_EQ(Decision::Kind::None, Interpret({kTypeOpenUrl, length}, open.data() + 8, length - 1).kind);
}

TEST(AgentProtocol, UrlStopsAtNulOrAtThePayloadEnd)
{
    // reserved word, "ab", NUL, "cd": the URL ends at the NUL.
    const std::vector<uint8_t> withNul = {9, 9, 9, 9, 'a', 0, 'b', 0, 0, 0, 'c', 0, 'd', 0};
    EXPECT_EQ(u"ab", ExtractUrl(withNul.data(), withNul.size()));
    // No NUL: the URL runs to the end of the payload, never past it; an odd last byte is dropped.
    const std::vector<uint8_t> noNul = {0, 0, 0, 0, 'x', 0, 'y', 0, 'z'};
    EXPECT_EQ(u"xy", ExtractUrl(noNul.data(), noNul.size()));
    // Payloads too short to hold a URL give an empty one.
    EXPECT_EQ(u"", ExtractUrl(noNul.data(), 4));
    EXPECT_EQ(u"", ExtractUrl(nullptr, 0));
}
