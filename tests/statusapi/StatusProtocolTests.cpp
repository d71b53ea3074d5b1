// The status pipe's wire format and what velomar-status makes of it, on the build host.
#include "statusapi/StatusProtocol.h"
#include "tools/status/StatusOptions.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

using namespace statusapi;

namespace
{

const std::vector<uint8_t> kUserSid = {1, 5, 0, 0, 0, 0, 0, 5, 21, 0, 0,    0, 1, 0,
                                       0, 0, 2, 0, 0, 0, 3, 0, 0,  0, 0xE9, 3, 0, 0};

SessionEntry Entry(uint32_t session, uint32_t state)
{
    SessionEntry entry{session, {}};
    entry.record.dwLocalVersion = 0x00010001;
    entry.record.dwRemoteVersion = 0x00010002;
    entry.record.dwNegotiatedVersion = 0x00010001;
    entry.record.reserved[0] = 0xAB; // reserved bytes travel as they are
    entry.record.dwState = state;
    return entry;
}

bool Same(const SessionEntry& a, const SessionEntry& b)
{
    return a.sessionId == b.sessionId && std::memcmp(&a.record, &b.record, sizeof(a.record)) == 0;
}

} // namespace

TEST(StatusProtocol, HelloTravelsWithItsSidAndIsCheckedAgainstThePipe)
{
    const Hello hello{kProtocolVersion, 3, 4242, kUserSid};
    const auto bytes = EncodeHello(hello);
    ASSERT_EQ(8u + 16u + kUserSid.size(), bytes.size());
    EXPECT_EQ(kHello, agentpipe::LoadU32(bytes.data()));
    const auto decoded = DecodeHello(bytes.data() + 8, bytes.size() - 8);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(kUserSid, decoded->sid);
    EXPECT_EQ("S-1-5-21-1-2-3-1001", SidText(decoded->sid));

    const PeerFacts facts{3, 4242, kUserSid};
    EXPECT_EQ(kGoodbye, CheckHello(*decoded, facts));
    EXPECT_EQ(kSessionMismatch, CheckHello(*decoded, {4, 4242, kUserSid}));
    EXPECT_EQ(kProcessMismatch, CheckHello(*decoded, {3, 1, kUserSid}));
    EXPECT_EQ(kUserMismatch, CheckHello(*decoded, {3, 4242, {1, 1, 0, 0, 0, 0, 0, 5, 18, 0, 0, 0}}));
    EXPECT_EQ(kVersionUnsupported, CheckHello(Hello{2, 3, 4242, kUserSid}, facts, 1));
    EXPECT_EQ(kVersionUnsupported, CheckHello(Hello{0, 3, 4242, kUserSid}, facts, kCountersVersion));
    EXPECT_EQ(kVersionUnsupported, CheckHello(Hello{3, 3, 4242, kUserSid}, facts, kCountersVersion));
    EXPECT_EQ(kGoodbye, CheckHello(Hello{1, 3, 4242, kUserSid}, facts, kCountersVersion))
        << "a service that speaks version 2 still welcomes version 1";
}

TEST(StatusProtocol, MalformedHellosAreRefused)
{
    auto bytes = EncodeHello({kProtocolVersion, 1, 2, kUserSid});
    const auto decode = [](std::vector<uint8_t> b)
    { return DecodeHello(b.data() + 8, b.size() - 8).has_value(); };
    EXPECT_TRUE(decode(bytes));
    auto longer = bytes;
    longer.push_back(0);
    EXPECT_FALSE(decode(longer)) << "bytes after the SID";
    auto badCount = bytes;
    badCount[8 + 16 + 1] = 6; // six sub-authorities announced, five present
    EXPECT_FALSE(decode(badCount));
    auto badRevision = bytes;
    badRevision[8 + 16] = 2;
    EXPECT_FALSE(decode(badRevision));
    auto hugeSid = bytes;
    agentpipe::StoreU32(hugeSid.data() + 8 + 12, 0xFFFFFFF0u);
    EXPECT_FALSE(decode(hugeSid));
    EXPECT_FALSE(DecodeHello(bytes.data() + 8, 15));
}

TEST(StatusProtocol, AnswersAndNotificationsKeepEveryByteOfTheRecord)
{
    const Answer answer{7, kOk, {Entry(1, 50), Entry(2, 53)}};
    const auto bytes = EncodeAnswer(answer);
    ASSERT_EQ(8u + 12u + 2 * kEntrySize, bytes.size());
    const auto decoded = DecodeAnswer(bytes.data() + 8, bytes.size() - 8);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(7u, decoded->requestId);
    ASSERT_EQ(2u, decoded->entries.size());
    EXPECT_TRUE(Same(answer.entries[1], decoded->entries[1]));
    EXPECT_FALSE(DecodeAnswer(bytes.data() + 8, bytes.size() - 9)) << "a cut entry";
    auto lying = bytes;
    agentpipe::StoreU32(lying.data() + 16, 3); // three entries announced, two present
    EXPECT_FALSE(DecodeAnswer(lying.data() + 8, lying.size() - 8));

    const auto note = EncodeNotification({7, Entry(1, 52)});
    ASSERT_EQ(8u + 4u + kEntrySize, note.size());
    const auto back = DecodeNotification(note.data() + 8, note.size() - 8);
    ASSERT_TRUE(back);
    EXPECT_TRUE(Same(Entry(1, 52), back->entry));
    // The state sits at the record's own offset 780, after the session id.
    EXPECT_EQ(52u, agentpipe::LoadU32(note.data() + 8 + 4 + 4 + 780));
}

TEST(StatusProtocol, ClientPacketsAfterTheHello)
{
    const auto interpret = [](const std::vector<uint8_t>& b)
    {
        uint8_t raw[8];
        std::copy(b.begin(), b.begin() + 8, raw);
        return InterpretClientPacket(agentpipe::DecodeHeader(raw), b.data() + 8, b.size() - 8,
                                     kCountersVersion);
    };
    const auto subscribe = interpret(EncodeRequest(kSubscribe, {9, kAllSessions}));
    EXPECT_EQ(ClientPacket::Kind::Subscribe, subscribe.kind);
    EXPECT_EQ(9u, subscribe.request.id);
    EXPECT_EQ(kAllSessions, subscribe.request.scope);
    EXPECT_EQ(ClientPacket::Kind::Close, interpret(EncodeClose(kGoodbye)).kind);
    EXPECT_EQ(ClientPacket::Kind::Malformed, interpret(EncodeHello({1, 1, 1, kUserSid})).kind)
        << "a second hello";
    EXPECT_EQ(ClientPacket::Kind::Malformed, interpret({kGetStatus, 0, 0, 0, 4, 0, 0, 0, 1, 0, 0, 0}).kind);
    EXPECT_TRUE(Reaches(kOwnSession, 2, 2));
    EXPECT_FALSE(Reaches(kOwnSession, 2, 3));
    EXPECT_TRUE(Reaches(kAllSessions, 2, 3));
}

TEST(StatusProtocol, GetCountersIsMalformedOnAVersion1Connection)
{
    // Version 1 bytes as a version 1 client sent them: GetCounters did not exist, so its type is
    // an unknown one and closes the connection with 9, as the version 1 service did.
    const std::vector<uint8_t> bytes = {0x17, 0, 0, 0, 8, 0, 0, 0, 5, 0, 0, 0, 0, 0, 0, 0};
    uint8_t raw[8];
    std::copy(bytes.begin(), bytes.begin() + 8, raw);
    const auto header = agentpipe::DecodeHeader(raw);
    EXPECT_EQ(ClientPacket::Kind::Malformed, InterpretClientPacket(header, bytes.data() + 8, 8, 1).kind);
    const auto v2 = InterpretClientPacket(header, bytes.data() + 8, 8, kCountersVersion);
    EXPECT_EQ(ClientPacket::Kind::GetCounters, v2.kind);
    EXPECT_EQ(5u, v2.request.id);
    EXPECT_EQ(ClientPacket::Kind::Malformed,
              InterpretClientPacket(header, bytes.data() + 8, 4, kCountersVersion).kind);
    // A version 1 GetStatus is the same packet on either version.
    const auto getStatus = EncodeRequest(kGetStatus, {7, kOwnSession});
    std::copy(getStatus.begin(), getStatus.begin() + 8, raw);
    EXPECT_EQ(ClientPacket::Kind::GetStatus,
              InterpretClientPacket(agentpipe::DecodeHeader(raw), getStatus.data() + 8, 8, 1).kind);
}

TEST(StatusProtocol, CountersAnswerTravelsWholeAndRefusesWrongCounts)
{
    SessionCountersSnapshot c;
    c.urlsForwarded = 0x1'0000'0003; // above 32 bits: both halves travel
    c.urlsRefusedByPolicy = 1;
    c.urlsFailed = 2;
    c.handshakesCompleted = 4;
    c.handshakesRefused = 5;
    c.reconnects = 6;
    c.lastUrlTime = 134085336120000000ull;
    const CountersAnswer answer{11, kOk, {{1, c}, {2, {}}}};
    const auto bytes = EncodeCountersAnswer(answer);
    ASSERT_EQ(8 + 12 + 2 * kCountersEntrySize, bytes.size());
    EXPECT_EQ(kCountersAnswer, agentpipe::LoadU32(bytes.data()));
    // Field order on the wire: session, forwarded (low, high), refused by policy, ...
    EXPECT_EQ(1u, agentpipe::LoadU32(bytes.data() + 20));
    EXPECT_EQ(3u, agentpipe::LoadU32(bytes.data() + 24));
    EXPECT_EQ(1u, agentpipe::LoadU32(bytes.data() + 28));
    EXPECT_EQ(1u, agentpipe::LoadU32(bytes.data() + 32));
    const auto back = DecodeCountersAnswer(bytes.data() + 8, bytes.size() - 8);
    ASSERT_TRUE(back);
    EXPECT_EQ(11u, back->requestId);
    ASSERT_EQ(2u, back->entries.size());
    EXPECT_EQ(c, back->entries[0].counters);
    EXPECT_EQ(2u, back->entries[1].sessionId);
    EXPECT_FALSE(DecodeCountersAnswer(bytes.data() + 8, bytes.size() - 9));
    auto wrongCount = bytes;
    wrongCount[16] = 3;
    EXPECT_FALSE(DecodeCountersAnswer(wrongCount.data() + 8, wrongCount.size() - 8));
    EXPECT_FALSE(DecodeCountersAnswer(bytes.data() + 8, 11));
}

TEST(StatusTool, EachSessionsLineEndsWithItsCounters)
{
    SessionCountersSnapshot c;
    c.urlsForwarded = 12;
    c.urlsRefusedByPolicy = 1;
    c.handshakesCompleted = 2;
    c.reconnects = 1;
    c.lastUrlTime = 134085336120000000ull; // 2025-11-25 08:40:12 UTC
    // Session 1 has a channel; session 9 carried nothing yet; session 5 has counts but no channel now.
    const Answer answer{1, kOk, {Entry(1, 50), Entry(9, 49)}};
    const CountersAnswer counters{2, kOk, {{5, {}}, {1, c}}};
    const auto words = statustool::AnswerLines(answer, 1, false, &counters);
    ASSERT_EQ(3u, words.size());
    EXPECT_EQ("session 1: connected (versions: local 1.1, remote 1.2, negotiated 1.1); URLs 12 forwarded, 1 "
              "refused by policy, 0 failed; handshakes 2 completed, 0 refused; reconnects 1; last URL "
              "2025-11-25T08:40:12Z",
              words[0]);
    EXPECT_EQ(std::string::npos, words[1].find("URLs"));
    EXPECT_EQ(
        "session 5: no channel (the service has no remote channel for it); URLs 0 forwarded, 0 refused by "
        "policy, 0 failed; handshakes 0 completed, 0 refused; reconnects 0; last URL none",
        words[2]);
    const auto json = statustool::AnswerLines(answer, 1, true, &counters);
    ASSERT_EQ(3u, json.size());
    EXPECT_EQ(
        "{\"session\":1,\"state\":\"connected\",\"stateCode\":50,\"localVersion\":\"1.1\",\"remoteVersion\":"
        "\"1.2\",\"negotiatedVersion\":\"1.1\",\"counters\":{\"urlsForwarded\":12,\"urlsRefusedByPolicy\":1,"
        "\"urlsFailed\":0,\"handshakesCompleted\":2,\"handshakesRefused\":0,\"reconnects\":1,"
        "\"lastUrlTime\":\"2025-11-25T08:40:12Z\"}}",
        json[0]);
    EXPECT_NE(std::string::npos, json[2].find("\"state\":\"no channel\",\"counters\":{"));
    EXPECT_NE(std::string::npos, json[2].find("\"lastUrlTime\":null}}"));
    // The own session without a channel still shows what it carried.
    const Answer none{1, kNoChannel, {}};
    const CountersAnswer own{2, kOk, {{4, c}}};
    EXPECT_EQ(1u, statustool::AnswerLines(none, 4, false, &own).size());
    EXPECT_EQ("1601-01-01T00:00:01Z", Iso8601Utc(10000000));
    EXPECT_EQ("2000-02-29T00:00:00Z", Iso8601Utc(125962560000000000ull));
}

TEST(SessionCounters, EveryUrlOutcomeSetsTheLastUrlTimeAndOnlyLaterConnectionsAreReconnects)
{
    SessionCounters counters;
    counters.UrlForwarded(100);
    counters.UrlRefusedByPolicy(200);
    counters.UrlFailed(300);
    counters.HandshakeCompleted();
    counters.HandshakeRefused();
    counters.ChannelConnected();
    EXPECT_EQ((SessionCountersSnapshot{1, 1, 1, 1, 1, 0, 300}), counters.Snapshot());
    counters.ChannelConnected();
    counters.ChannelConnected();
    EXPECT_EQ(2u, counters.Snapshot().reconnects);
}

TEST(StatusTool, PrintsStatesInWordsAndJson)
{
    const Answer answer{1, kOk, {Entry(1, 50)}};
    EXPECT_EQ(
        std::vector<std::string>{"session 1: connected (versions: local 1.1, remote 1.2, negotiated 1.1)"},
        statustool::AnswerLines(answer, 1, false));
    EXPECT_EQ(
        std::vector<std::string>{"{\"session\":1,\"state\":\"connected\",\"stateCode\":50,\"localVersion\":"
                                 "\"1.1\",\"remoteVersion\":\"1.2\",\"negotiatedVersion\":\"1.1\"}"},
        statustool::AnswerLines(answer, 1, true));
    EXPECT_EQ(statustool::kExitConnected, statustool::ExitCodeOf(answer));
    const Answer none{1, kNoChannel, {}};
    EXPECT_EQ(std::vector<std::string>{"{\"session\":4,\"state\":\"no channel\"}"},
              statustool::AnswerLines(none, 4, true));
    EXPECT_EQ(statustool::kExitNotConnected, statustool::ExitCodeOf(none));
    EXPECT_EQ(statustool::kExitNotConnected, statustool::ExitCodeOf({1, kOk, {Entry(1, 50), Entry(2, 52)}}));
    EXPECT_EQ(statustool::kExitDenied, statustool::ExitCodeOf({1, kDenied, {}}));
    EXPECT_STREQ("invalid protocol", StateWord(53));
}

TEST(StatusTool, CommandLine)
{
    const auto parsed = statustool::ParseCommandLine({L"--watch", L"--json", L"--all", L"--timeout", L"250"});
    EXPECT_EQ(statustool::kExitConnected, parsed.exitCode);
    EXPECT_TRUE(parsed.options.watch && parsed.options.json && parsed.options.all);
    EXPECT_EQ(250u, parsed.options.timeoutMs);
    EXPECT_EQ(statustool::kExitUsage, statustool::ParseCommandLine({L"--timeout"}).exitCode);
    EXPECT_EQ(statustool::kExitUsage, statustool::ParseCommandLine({L"--bogus"}).exitCode);
}
