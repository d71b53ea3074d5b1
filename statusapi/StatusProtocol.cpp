#include "statusapi/StatusProtocol.h"

#include <cstdio>
#include <iterator>

namespace statusapi
{

using agentpipe::LoadU32;
using agentpipe::StoreU32;

namespace
{

constexpr size_t kHelloFixed = 16;  // version, session, process, SID length
constexpr size_t kRequestSize = 8;  // id, scope
constexpr size_t kAnswerFixed = 12; // request id, result, count
constexpr size_t kNotificationSize = 4 + kEntrySize;

// A packet of `payload` bytes with its header filled in and the payload zeroed.
std::vector<uint8_t> Packet(uint32_t type, size_t payload)
{
    std::vector<uint8_t> bytes(agentpipe::kHeaderSize + payload, 0);
    StoreU32(bytes.data(), type);
    StoreU32(bytes.data() + 4, static_cast<uint32_t>(payload));
    return bytes;
}

// The record field by field, so that the layout on the wire never depends on the compiler's.
void StoreEntry(uint8_t* out, const SessionEntry& entry)
{
    StoreU32(out, entry.sessionId);
    StoreU32(out + 4, entry.record.dwLocalVersion);
    StoreU32(out + 8, entry.record.dwRemoteVersion);
    StoreU32(out + 12, entry.record.dwNegotiatedVersion);
    for (size_t i = 0; i < sizeof(entry.record.reserved); ++i)
        out[16 + i] = entry.record.reserved[i];
    StoreU32(out + 4 + offsetof(ChannelStatusRecord, dwState), entry.record.dwState);
}

void StoreU64(uint8_t* out, uint64_t value)
{
    StoreU32(out, static_cast<uint32_t>(value));
    StoreU32(out + 4, static_cast<uint32_t>(value >> 32));
}

uint64_t LoadU64(const uint8_t* in)
{
    return LoadU32(in) | (uint64_t{LoadU32(in + 4)} << 32);
}

// The wire order of the counters, shared by the encoder and the decoder.
constexpr uint64_t SessionCountersSnapshot::*kCounterFields[] = {
    &SessionCountersSnapshot::urlsForwarded,     &SessionCountersSnapshot::urlsRefusedByPolicy,
    &SessionCountersSnapshot::urlsFailed,        &SessionCountersSnapshot::handshakesCompleted,
    &SessionCountersSnapshot::handshakesRefused, &SessionCountersSnapshot::reconnects,
    &SessionCountersSnapshot::lastUrlTime,
};
static_assert(kCountersEntrySize == 4 + 8 * std::size(kCounterFields));

// The entry count of an answer whose count agrees with its size; none otherwise.
std::optional<uint32_t> AnswerCount(const uint8_t* payload, size_t size, size_t entrySize)
{
    if (!payload || size < kAnswerFixed)
        return std::nullopt;
    const uint32_t count = LoadU32(payload + 8);
    if ((size - kAnswerFixed) % entrySize != 0 || (size - kAnswerFixed) / entrySize != count)
        return std::nullopt;
    return count;
}

SessionEntry LoadEntry(const uint8_t* in)
{
    SessionEntry entry;
    entry.sessionId = LoadU32(in);
    entry.record.dwLocalVersion = LoadU32(in + 4);
    entry.record.dwRemoteVersion = LoadU32(in + 8);
    entry.record.dwNegotiatedVersion = LoadU32(in + 12);
    for (size_t i = 0; i < sizeof(entry.record.reserved); ++i)
        entry.record.reserved[i] = in[16 + i];
    entry.record.dwState = LoadU32(in + 4 + offsetof(ChannelStatusRecord, dwState));
    return entry;
}

} // namespace

bool IsValidSid(const uint8_t* sid, size_t size)
{
    if (!sid || size < kMinSidSize || size > kMaxSidSize)
        return false;
    return sid[0] == 1 && size == kMinSidSize + size_t{4} * sid[1];
}

std::string SidText(const std::vector<uint8_t>& sid)
{
    if (!IsValidSid(sid.data(), sid.size()))
        return {};
    uint64_t authority = 0;
    for (size_t i = 2; i < 8; ++i) // big-endian, unlike the sub-authorities
        authority = (authority << 8) | sid[i];
    std::string text = "S-1-" + std::to_string(authority);
    for (size_t i = 8; i < sid.size(); i += 4)
        text += "-" + std::to_string(LoadU32(sid.data() + i));
    return text;
}

std::vector<uint8_t> EncodeHello(const Hello& hello)
{
    auto bytes = Packet(kHello, kHelloFixed + hello.sid.size());
    uint8_t* out = bytes.data() + agentpipe::kHeaderSize;
    StoreU32(out, hello.version);
    StoreU32(out + 4, hello.sessionId);
    StoreU32(out + 8, hello.processId);
    StoreU32(out + 12, static_cast<uint32_t>(hello.sid.size()));
    for (size_t i = 0; i < hello.sid.size(); ++i)
        out[kHelloFixed + i] = hello.sid[i];
    return bytes;
}

std::optional<Hello> DecodeHello(const uint8_t* payload, size_t size)
{
    if (!payload || size < kHelloFixed)
        return std::nullopt;
    const uint32_t sidSize = LoadU32(payload + 12);
    if (size != kHelloFixed + sidSize || !IsValidSid(payload + kHelloFixed, sidSize))
        return std::nullopt;
    Hello hello;
    hello.version = LoadU32(payload);
    hello.sessionId = LoadU32(payload + 4);
    hello.processId = LoadU32(payload + 8);
    hello.sid.assign(payload + kHelloFixed, payload + size);
    return hello;
}

std::vector<uint8_t> EncodeWelcome(const Welcome& welcome)
{
    auto bytes = Packet(kWelcome, 12);
    StoreU32(bytes.data() + 8, welcome.version);
    StoreU32(bytes.data() + 12, welcome.sessionId);
    StoreU32(bytes.data() + 16, welcome.flags);
    return bytes;
}

std::optional<Welcome> DecodeWelcome(const uint8_t* payload, size_t size)
{
    if (!payload || size != 12)
        return std::nullopt;
    return Welcome{LoadU32(payload), LoadU32(payload + 4), LoadU32(payload + 8)};
}

std::vector<uint8_t> EncodeClose(uint32_t reason)
{
    auto bytes = Packet(kClose, 4);
    StoreU32(bytes.data() + 8, reason);
    return bytes;
}

std::optional<uint32_t> DecodeClose(const uint8_t* payload, size_t size)
{
    if (!payload || size != 4)
        return std::nullopt;
    return LoadU32(payload);
}

std::vector<uint8_t> EncodeRequest(uint32_t type, const Request& request)
{
    auto bytes = Packet(type, kRequestSize);
    StoreU32(bytes.data() + 8, request.id);
    StoreU32(bytes.data() + 12, request.scope);
    return bytes;
}

std::optional<Request> DecodeRequest(const uint8_t* payload, size_t size)
{
    if (!payload || size != kRequestSize)
        return std::nullopt;
    return Request{LoadU32(payload), LoadU32(payload + 4)};
}

std::vector<uint8_t> EncodeAnswer(const Answer& answer)
{
    auto bytes = Packet(kAnswer, kAnswerFixed + kEntrySize * answer.entries.size());
    uint8_t* out = bytes.data() + agentpipe::kHeaderSize;
    StoreU32(out, answer.requestId);
    StoreU32(out + 4, answer.result);
    StoreU32(out + 8, static_cast<uint32_t>(answer.entries.size()));
    for (size_t i = 0; i < answer.entries.size(); ++i)
        StoreEntry(out + kAnswerFixed + i * kEntrySize, answer.entries[i]);
    return bytes;
}

std::optional<Answer> DecodeAnswer(const uint8_t* payload, size_t size)
{
    const auto entries = AnswerCount(payload, size, kEntrySize);
    if (!entries)
        return std::nullopt;
    const uint32_t count = *entries;
    Answer answer;
    answer.requestId = LoadU32(payload);
    answer.result = LoadU32(payload + 4);
    answer.entries.reserve(count);
    for (uint32_t i = 0; i < count; ++i)
        answer.entries.push_back(LoadEntry(payload + kAnswerFixed + i * kEntrySize));
    return answer;
}

std::vector<uint8_t> EncodeNotification(const Notification& notification)
{
    auto bytes = Packet(kNotification, kNotificationSize);
    StoreU32(bytes.data() + 8, notification.requestId);
    StoreEntry(bytes.data() + 12, notification.entry);
    return bytes;
}

std::optional<Notification> DecodeNotification(const uint8_t* payload, size_t size)
{
    if (!payload || size != kNotificationSize)
        return std::nullopt;
    return Notification{LoadU32(payload), LoadEntry(payload + 4)};
}

std::vector<uint8_t> EncodeCountersAnswer(const CountersAnswer& answer)
{
    auto bytes = Packet(kCountersAnswer, kAnswerFixed + kCountersEntrySize * answer.entries.size());
    uint8_t* out = bytes.data() + agentpipe::kHeaderSize;
    StoreU32(out, answer.requestId);
    StoreU32(out + 4, answer.result);
    StoreU32(out + 8, static_cast<uint32_t>(answer.entries.size()));
    out += kAnswerFixed;
    for (const CountersEntry& entry : answer.entries)
    {
        StoreU32(out, entry.sessionId);
        out += 4;
        for (auto field : kCounterFields)
        {
            StoreU64(out, entry.counters.*field);
            out += 8;
        }
    }
    return bytes;
}

std::optional<CountersAnswer> DecodeCountersAnswer(const uint8_t* payload, size_t size)
{
    const auto count = AnswerCount(payload, size, kCountersEntrySize);
    if (!count)
        return std::nullopt;
    CountersAnswer answer;
    answer.requestId = LoadU32(payload);
    answer.result = LoadU32(payload + 4);
    answer.entries.resize(*count);
    const uint8_t* in = payload + kAnswerFixed;
    for (CountersEntry& entry : answer.entries)
    {
        entry.sessionId = LoadU32(in);
        in += 4;
        for (auto field : kCounterFields)
        {
            entry.counters.*field = LoadU64(in);
            in += 8;
        }
    }
    return answer;
}

uint32_t CheckHello(const Hello& hello, const PeerFacts& facts, uint32_t served)
{
    if (hello.version < kMinProtocolVersion || hello.version > served)
        return kVersionUnsupported;
    if (hello.sessionId != facts.sessionId)
        return kSessionMismatch;
    if (hello.processId != facts.processId)
        return kProcessMismatch;
    if (hello.sid != facts.sid)
        return kUserMismatch;
    return kGoodbye;
}

ClientPacket InterpretClientPacket(const agentpipe::MessageHeader& header, const uint8_t* payload,
                                   size_t size, uint32_t version)
{
    ClientPacket packet;
    if (size != header.length)
        return packet;
    switch (header.type)
    {
    case kGetStatus:
    case kSubscribe:
        if (auto request = DecodeRequest(payload, size))
        {
            packet.kind =
                header.type == kGetStatus ? ClientPacket::Kind::GetStatus : ClientPacket::Kind::Subscribe;
            packet.request = *request;
        }
        break;
    case kGetCounters:
        if (version < kCountersVersion)
            break;
        if (auto request = DecodeRequest(payload, size))
        {
            packet.kind = ClientPacket::Kind::GetCounters;
            packet.request = *request;
        }
        break;
    case kClose:
        // Whatever reason a leaving client gives, it is leaving.
        packet.kind = ClientPacket::Kind::Close;
        break;
    default:
        break;
    }
    return packet;
}

bool Reaches(uint32_t scope, uint32_t ownSession, uint32_t session)
{
    return scope == kAllSessions || session == ownSession;
}

const char* StateWord(uint32_t state)
{
    switch (state)
    {
    case eCvUrlApiEvent_RdpConnected:
        return "connected";
    case eCvUrlApiEvent_RdpNotConnected:
        return "not connected";
    case eCvUrlApiEvent_RdpConnectionBroken:
        return "connection broken";
    case eCvUrlApiEvent_RdpInvalidProtocol:
        return "invalid protocol";
    default:
        return "unknown";
    }
}

const char* CloseReasonWord(uint32_t reason)
{
    static const char* const words[] = {
        "goodbye",          "service stopping",    "hello timeout",
        "hello malformed",  "version unsupported", "session mismatch",
        "user mismatch",    "process mismatch",    "too many connections",
        "packet malformed", "packet too large",    "reader too slow",
        "service error",
    };
    return reason < std::size(words) ? words[reason] : "unknown";
}

std::string VersionText(uint32_t version)
{
    return std::to_string(version >> 16) + "." + std::to_string(version & 0xFFFF);
}

std::string DescribeEntry(const SessionEntry& entry)
{
    const ChannelStatusRecord& r = entry.record;
    return "session " + std::to_string(entry.sessionId) + ": " + StateWord(r.dwState) + " (versions: local " +
           VersionText(r.dwLocalVersion) + ", remote " + VersionText(r.dwRemoteVersion) + ", negotiated " +
           VersionText(r.dwNegotiatedVersion) + ")";
}

std::string JsonEntry(const SessionEntry& entry)
{
    const ChannelStatusRecord& r = entry.record;
    // Every value is a number or one of the fixed words above: nothing needs escaping.
    return "{\"session\":" + std::to_string(entry.sessionId) + ",\"state\":\"" + StateWord(r.dwState) +
           "\",\"stateCode\":" + std::to_string(r.dwState) + ",\"localVersion\":\"" +
           VersionText(r.dwLocalVersion) + "\",\"remoteVersion\":\"" + VersionText(r.dwRemoteVersion) +
           "\",\"negotiatedVersion\":\"" + VersionText(r.dwNegotiatedVersion) + "\"}";
}

std::string Iso8601Utc(uint64_t fileTime)
{
    if (fileTime == 0)
        return {};
    // Whole seconds first, unsigned, so that no value can overflow; then days to a civil date
    // (proleptic Gregorian) counted from the Unix epoch.
    constexpr int64_t kUnixEpochSeconds = 11644473600; // 1970-01-01 in seconds since 1601
    const int64_t seconds = static_cast<int64_t>(fileTime / 10000000) - kUnixEpochSeconds;
    int64_t days = seconds / 86400;
    int64_t rest = seconds % 86400;
    if (rest < 0)
    {
        rest += 86400;
        --days;
    }
    days += 719468;
    const int64_t era = (days >= 0 ? days : days - 146096) / 146097;
    const int64_t dayOfEra = days - era * 146097;
    const int64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const int64_t mp = (5 * dayOfYear + 2) / 153;
    const int64_t day = dayOfYear - (153 * mp + 2) / 5 + 1;
    const int64_t month = mp < 10 ? mp + 3 : mp - 9;
    const int64_t year = yearOfEra + era * 400 + (month <= 2 ? 1 : 0);
    char text[128]; // room for any int64 in each field, so the compiler sees no truncation
    std::snprintf(text, sizeof(text), "%04lld-%02lld-%02lldT%02lld:%02lld:%02lldZ",
                  static_cast<long long>(year), static_cast<long long>(month), static_cast<long long>(day),
                  static_cast<long long>(rest / 3600), static_cast<long long>(rest / 60 % 60),
                  static_cast<long long>(rest % 60));
    return text;
}

std::string DescribeCounters(const SessionCountersSnapshot& c)
{
    const std::string last = c.lastUrlTime ? Iso8601Utc(c.lastUrlTime) : std::string("none");
    return "URLs " + std::to_string(c.urlsForwarded) + " forwarded, " +
           std::to_string(c.urlsRefusedByPolicy) + " refused by policy, " + std::to_string(c.urlsFailed) +
           " failed; handshakes " + std::to_string(c.handshakesCompleted) + " completed, " +
           std::to_string(c.handshakesRefused) + " refused; reconnects " + std::to_string(c.reconnects) +
           "; last URL " + last;
}

std::string JsonCounters(const SessionCountersSnapshot& c)
{
    const std::string last = c.lastUrlTime ? "\"" + Iso8601Utc(c.lastUrlTime) + "\"" : std::string("null");
    return "{\"urlsForwarded\":" + std::to_string(c.urlsForwarded) +
           ",\"urlsRefusedByPolicy\":" + std::to_string(c.urlsRefusedByPolicy) +
           ",\"urlsFailed\":" + std::to_string(c.urlsFailed) +
           ",\"handshakesCompleted\":" + std::to_string(c.handshakesCompleted) +
           ",\"handshakesRefused\":" + std::to_string(c.handshakesRefused) +
           ",\"reconnects\":" + std::to_string(c.reconnects) + ",\"lastUrlTime\":" + last + "}";
}

} // namespace statusapi
