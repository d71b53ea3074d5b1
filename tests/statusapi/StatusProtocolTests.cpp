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
    EXPECT_EQ(kVersionUnsupported, CheckHello(Hello{2, 3, 4242, kUserSid}, facts));
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
        return InterpretClientPacket(agentpipe::DecodeHeader(raw), b.data() + 8, b.size() - 8);
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
