// The handshake's step sequence against a client side in memory that reads the service's bytes
// with the parser the stand-in library uses and answers as scripted.
#include "virt/Handshake.h"
#include "virt/UrlClientParser.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <vector>

using namespace UrlNet;

namespace
{

struct ClientScript
{
    uint32_t version = LocalVersion;
    uint8_t versionStatus = kStatusAccepted;
    uint32_t optionsLength = 0; // announced, never sent
    uint8_t optionsStatus = kStatusAccepted;
};

class ClientSide
{
public:
    // failAt: the write or read call (counted from 0) that fails as on a broken connection.
    explicit ClientSide(ClientScript script, int failAt = -1) : m_script(script), m_failAt(failAt) {}

    HandshakeResult Run()
    {
        HandshakeIo io;
        io.write = [this](const void* bytes, uint32_t size)
        {
            if (Fails())
                return false;
            const size_t before = seen.size();
            EXPECT_TRUE(m_parser.Feed(static_cast<const uint8_t*>(bytes), size, seen));
            std::for_each(seen.begin() + static_cast<std::ptrdiff_t>(before), seen.end(),
                          [this](const ClientItem& item) { Answer(item); });
            return true;
        };
        io.read = [this](void* bytes, uint32_t size)
        {
            if (Fails() || m_inbound.size() < size)
                return false;
            std::copy_n(m_inbound.begin(), size, static_cast<uint8_t*>(bytes));
            m_inbound.erase(m_inbound.begin(), m_inbound.begin() + size);
            return true;
        };
        io.passed = [this](HandshakeStep step, const HandshakeResult&) { passed.push_back(step); };
        return RunHandshake(io);
    }

    std::vector<ClientItem> seen; // what the client side parsed
    std::vector<HandshakeStep> passed;
    int calls = 0;

private:
    bool Fails() { return calls++ == m_failAt; }
    void Answer(const ClientItem& item)
    {
        uint8_t word[4];
        const auto send = [this](const uint8_t* bytes, size_t size)
        { m_inbound.insert(m_inbound.end(), bytes, bytes + size); };
        if (item.kind == ClientItem::Kind::ServerVersion ||
            item.kind == ClientItem::Kind::ServerOptionsLength)
        {
            PutU32(word,
                   item.kind == ClientItem::Kind::ServerVersion ? m_script.version : m_script.optionsLength);
            send(word, 4);
        }
        else if (item.kind == ClientItem::Kind::ServerVersionStatus)
            send(&m_script.versionStatus, 1);
        else if (item.kind == ClientItem::Kind::ServerOptionsStatus)
            send(&m_script.optionsStatus, 1);
        else
            ADD_FAILURE() << "a message during the handshake";
    }

    ClientScript m_script;
    int m_failAt;
    UrlClientParser m_parser;
    std::deque<uint8_t> m_inbound;
};

} // namespace

// Announced options are never read: a client side that announces 12 bytes and sends none
// still gets through, because the read of bytes that never come would fail here.
TEST(Handshake, AcceptedAfterEightStepsWithoutReadingAnnouncedOptions)
{
    ClientSide client({.optionsLength = 12});
    const HandshakeResult result = client.Run();
    EXPECT_EQ(HandshakeEnd::Accepted, result.end);
    EXPECT_EQ(LocalVersion, result.localVersion);
    EXPECT_EQ(LocalVersion, result.remoteVersion);
    EXPECT_EQ(LocalVersion, result.negotiatedVersion);
    EXPECT_EQ(12u, result.remoteOptionsLength);
    EXPECT_EQ(static_cast<size_t>(HandshakeStepCount), client.passed.size());
    ASSERT_EQ(4u, client.seen.size());
    EXPECT_EQ(LocalVersion, client.seen[0].value);
    EXPECT_EQ(0u, client.seen[2].value); // the service announces no options of its own
    EXPECT_EQ(kStatusAccepted, client.seen[3].value);
}

struct Verdict
{
    const char* name;
    ClientScript script;
    HandshakeEnd end;
    size_t itemsSent; // what the service wrote before it stopped
};
using HandshakeVerdict = testing::TestWithParam<Verdict>;

TEST_P(HandshakeVerdict, EndsWhereTheClientSideDecides)
{
    const Verdict& v = GetParam();
    ClientSide client(v.script);
    const HandshakeResult result = client.Run();
    EXPECT_EQ(v.end, result.end);
    EXPECT_EQ(v.end != HandshakeEnd::Accepted, result.Refused());
    EXPECT_EQ(v.itemsSent, client.seen.size());
    EXPECT_EQ(v.script.version, result.remoteVersion);
    // The service told the client side it accepts its version, whatever the version.
    EXPECT_EQ(kStatusAccepted, client.seen[1].value);
}

const Verdict kVerdicts[] = {
    {"HigherVersion", {.version = 0x00020000}, HandshakeEnd::Accepted, 4},
    {"LowerVersion", {.version = 0x00010000}, HandshakeEnd::VersionTooLow, 4},
    {"VersionStatus", {.versionStatus = 1}, HandshakeEnd::VersionRefused, 2},
    {"OptionsStatus", {.optionsStatus = 0xFF}, HandshakeEnd::OptionsRefused, 4},
};
INSTANTIATE_TEST_SUITE_P(Handshake, HandshakeVerdict, testing::ValuesIn(kVerdicts),
                         [](const auto& info) { return std::string(info.param.name); });

using HandshakeBroken = testing::TestWithParam<int>;

TEST_P(HandshakeBroken, AtEachStepEndsThereWithoutAnotherCall)
{
    const int step = GetParam();
    ClientSide client({}, step);
    const HandshakeResult result = client.Run();
    EXPECT_EQ(HandshakeEnd::Broken, result.end);
    EXPECT_FALSE(result.Refused());
    EXPECT_EQ(static_cast<HandshakeStep>(step), result.lastStep);
    EXPECT_EQ(step + 1, client.calls);
    EXPECT_EQ(static_cast<size_t>(step), client.passed.size());
    EXPECT_EQ(step > 3 ? LocalVersion : 0u, result.negotiatedVersion);
}

INSTANTIATE_TEST_SUITE_P(Handshake, HandshakeBroken, testing::Range(0, HandshakeStepCount));
