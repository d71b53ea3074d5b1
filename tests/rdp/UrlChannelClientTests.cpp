// The add-in's client side against the service's own handshake code and submit messages, in
// memory: what it answers, what it opens, and where it stops.
#include "rdpclient/UrlChannelClient.h"
#include "virt/Handshake.h"
#include "virt/UrlProtocol.h"

#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <vector>

namespace
{

using namespace RdpClient;
using UrlNet::HandshakeEnd;

class UrlChannelClientTest : public testing::Test
{
protected:
    UrlChannelClientTest()
        : client(UrlGate({"http", "https", "mailto"}),
                 UrlChannelClient::Hooks{[this](std::vector<uint8_t> bytes)
                                         {
                                             replies.insert(replies.end(), bytes.begin(), bytes.end());
                                             return sendWorks;
                                         },
                                         [this](std::string url) { opened.push_back(std::move(url)); },
                                         [this](LogLevel level, const std::string& text) {
                                             logged.push_back({level, text});
                                         }})
    {
    }

    // The service's side of the handshake, with the client side answering in between.
    UrlNet::HandshakeResult Handshake(uint32_t announcedVersion = UrlNet::LocalVersion)
    {
        bool first = true;
        UrlNet::HandshakeIo io;
        io.write = [&](const void* bytes, uint32_t size)
        {
            uint8_t version[4];
            if (first)
            {
                UrlNet::PutU32(version, announcedVersion);
                bytes = version;
                first = false;
            }
            client.Receive(static_cast<const uint8_t*>(bytes), size);
            return true;
        };
        io.read = [&](void* bytes, uint32_t size)
        {
            if (replies.size() < size)
                return false;
            std::copy_n(replies.begin(), size, static_cast<uint8_t*>(bytes));
            replies.erase(replies.begin(), replies.begin() + size);
            return true;
        };
        return UrlNet::RunHandshake(io);
    }
    void Submit(std::string_view url, size_t pieceSize = SIZE_MAX)
    {
        const std::vector<uint8_t> message = UrlNet::BuildSubmitMessage(url);
        for (size_t at = 0; at < message.size(); at += pieceSize)
            client.Receive(message.data() + at, std::min(pieceSize, message.size() - at));
    }
    bool Logged(LogLevel level, const std::string& part) const
    {
        for (const auto& [l, text] : logged)
            if (l == level && text.find(part) != std::string::npos)
                return true;
        return false;
    }

    bool sendWorks = true;
    std::deque<uint8_t> replies;
    std::vector<std::string> opened;
    std::vector<std::pair<LogLevel, std::string>> logged;
    UrlChannelClient client;
};

TEST_F(UrlChannelClientTest, CompletesTheServicesHandshakeAsVersion1_1WithoutOptions)
{
    const UrlNet::HandshakeResult result = Handshake();
    EXPECT_EQ(result.end, HandshakeEnd::Accepted);
    EXPECT_EQ(result.remoteVersion, UrlNet::LocalVersion);
    EXPECT_EQ(result.remoteOptionsLength, 0u);
    EXPECT_TRUE(replies.empty()) << "answered more than the service reads";
    EXPECT_EQ(client.GetState(), UrlChannelClient::State::Ready);
}

// Refused URLs, other commands and short submits are dropped whole: what follows still opens.
TEST_F(UrlChannelClientTest, OpensWhatTheGateAllowsAndStaysInStep)
{
    ASSERT_EQ(Handshake().end, HandshakeEnd::Accepted);
    const std::string unicode = "https://\xe4\xbe\x8b.jp/\xf0\x9f\x98\x80";
    Submit("file:///etc/passwd");
    Submit(unicode, 1);
    const uint8_t other[] = {7, 0, 0, 0, 2, 0, 0, 0, 0xab, 0xcd, 1, 0, 0, 0, 3, 0, 0, 0, 1, 2, 3};
    client.Receive(other, sizeof other);
    Submit("mailto:a@example.com", 5);
    EXPECT_EQ(opened, (std::vector<std::string>{unicode, "mailto:a@example.com"}));
    EXPECT_TRUE(Logged(LogLevel::Warning, "refused a URL from the host: the scheme \"file\" is not allowed"));
    EXPECT_TRUE(Logged(LogLevel::Info, "undefined command(7)"));
}

TEST_F(UrlChannelClientTest, RefusesAHostOfAnotherMajorVersion)
{
    const UrlNet::HandshakeResult result = Handshake(0x00020000);
    EXPECT_EQ(result.end, HandshakeEnd::VersionRefused);
    EXPECT_EQ(client.GetState(), UrlChannelClient::State::Ended);
    EXPECT_TRUE(Logged(LogLevel::Warning, "refused the host's protocol version 0x00020000"));
    Submit("https://example.com/");
    EXPECT_TRUE(opened.empty());
}

TEST_F(UrlChannelClientTest, StopsWhenTheHostRefusesItsVersion)
{
    const uint8_t version[] = {1, 0, 1, 0};
    client.Receive(version, 4);
    const uint8_t refused = 1;
    client.Receive(&refused, 1);
    EXPECT_EQ(client.GetState(), UrlChannelClient::State::Ended);
    EXPECT_EQ(replies.size(), 4u) << "answered after the refusal";
    EXPECT_TRUE(Logged(LogLevel::Warning, "the host refused protocol version"));
}

TEST_F(UrlChannelClientTest, TakesNoMoreUrlsAfterAnOversizedAnnouncementOrAnAbandon)
{
    ASSERT_EQ(Handshake().end, HandshakeEnd::Accepted);
    const auto header = UrlNet::EncodeHeader({UrlNet::eUrlNet_Submit, UrlChannelClient::kMaxMessageData + 1});
    client.Receive(header.data(), header.size());
    EXPECT_EQ(client.GetState(), UrlChannelClient::State::Ended);
    Submit("https://example.com/");
    EXPECT_TRUE(opened.empty());

    UrlChannelClient abandoned(
        UrlGate({"https"}),
        {[](std::vector<uint8_t>) { return true; }, [this](std::string url) { opened.push_back(url); }, {}});
    abandoned.Abandon("pieces were lost");
    const auto message = UrlNet::BuildSubmitMessage("https://example.com/");
    abandoned.Receive(message.data(), message.size());
    EXPECT_TRUE(opened.empty());
}

TEST_F(UrlChannelClientTest, AConnectionItCannotWriteToEnds)
{
    sendWorks = false;
    EXPECT_EQ(Handshake().end, HandshakeEnd::Broken);
    EXPECT_EQ(client.GetState(), UrlChannelClient::State::Ended);
    EXPECT_TRUE(Logged(LogLevel::Error, "cannot write to the channel"));
}

} // namespace
