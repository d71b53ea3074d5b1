#pragma once
// The status API pipe's wire format (docs/status-protocol.md). Every packet is the agent pipe's
// 8-byte header (type, payload length; little-endian) followed by exactly that many payload bytes.
// Free of Windows headers: the service, velomar-status and the tests share it, and it is tested
// and fuzzed on the build host.
#include "common/PipeNames.h"
#include "pipeserver/AgentProtocol.h"
#include "virt/ChannelStatus.h"
#include "virt/SessionCounters.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace statusapi
{

using daxlib::kStatusPipeName;
// The highest version the service welcomes; it answers every older version's requests exactly
// as that version did, and welcomes each client with the version the client said.
// Version 2 adds GetCounters and CountersAnswer.
constexpr uint32_t kProtocolVersion = 2;
constexpr uint32_t kMinProtocolVersion = 1;
constexpr uint32_t kCountersVersion = 2; // the first version with GetCounters

enum PacketType : uint32_t
{
    kHello = 0x10,          // client, first packet: who the client says it is
    kWelcome = 0x11,        // service: the hello holds; what the client may ask
    kClose = 0x12,          // either side, last packet: why the connection ends
    kGetStatus = 0x13,      // client: the record(s) now
    kSubscribe = 0x14,      // client: the record(s) now, then every change
    kAnswer = 0x15,         // service: to one GetStatus or Subscribe, by request id
    kNotification = 0x16,   // service: one change, to a subscriber
    kGetCounters = 0x17,    // client, version 2: the session(s)' counters now
    kCountersAnswer = 0x18, // service: to one GetCounters, by request id
};

enum CloseReason : uint32_t
{
    kGoodbye = 0, // the sender is done; nothing is wrong
    kServiceStopping = 1,
    kHelloTimeout = 2,   // no complete hello within the service's deadline
    kHelloMalformed = 3, // the first packet is no hello, or not a well-formed one
    kVersionUnsupported = 4,
    kSessionMismatch = 5,    // the hello's session is not the one the pipe reports
    kUserMismatch = 6,       // the hello's user is not the client's token user
    kProcessMismatch = 7,    // the hello's process is not the one the pipe reports
    kTooManyConnections = 8, // over the per-session or the total bound
    kPacketMalformed = 9,    // an unknown type, or a length that does not fit the type
    kPacketTooLarge = 10,    // a header announcing more than kMaxClientPayload
    kReaderTooSlow = 11,     // a subscriber left more than its queue of changes unread
    kServiceError = 12,      // the service could not check the client (its own trouble)
};

enum Scope : uint32_t
{
    kOwnSession = 0,
    kAllSessions = 1, // LocalSystem and local administrators only
};

enum Result : uint32_t
{
    kOk = 0,
    kNoChannel = 1,         // own session: the service has no channel for it (no entry follows)
    kDenied = 2,            // all sessions, asked by a client that is no administrator
    kAlreadySubscribed = 3, // one subscription per connection
    kBadScope = 4,
};

// Welcome flags.
constexpr uint32_t kMayAskAllSessions = 1;

// The largest payload a client may announce; every client packet is far smaller.
constexpr uint32_t kMaxClientPayload = 1024;
// The largest payload a client should accept (an answer for all sessions grows with them).
constexpr uint32_t kMaxServicePayload = 16u << 20;
// A binary SID: revision 1, at most 15 sub-authorities.
constexpr size_t kMinSidSize = 8;
constexpr size_t kMaxSidSize = 68;
constexpr size_t kRecordSize = sizeof(ChannelStatusRecord);
constexpr size_t kEntrySize = 4 + kRecordSize;   // session id, record
constexpr size_t kCountersEntrySize = 4 + 7 * 8; // session id, seven 64-bit counters

struct Hello
{
    uint32_t version = kProtocolVersion;
    uint32_t sessionId = 0;
    uint32_t processId = 0;
    std::vector<uint8_t> sid; // the token user, as the system stores a SID
};

struct Welcome
{
    uint32_t version = kProtocolVersion;
    uint32_t sessionId = 0; // the session the service counts the client in
    uint32_t flags = 0;
};

struct Request
{
    uint32_t id = 0;
    uint32_t scope = kOwnSession;
};

struct SessionEntry
{
    uint32_t sessionId = 0;
    ChannelStatusRecord record{};
};

struct Answer
{
    uint32_t requestId = 0;
    uint32_t result = kOk;
    std::vector<SessionEntry> entries;
};

struct CountersEntry
{
    uint32_t sessionId = 0;
    SessionCountersSnapshot counters;
};

struct CountersAnswer
{
    uint32_t requestId = 0;
    uint32_t result = kOk;
    std::vector<CountersEntry> entries;
};

struct Notification
{
    uint32_t requestId = 0; // of the Subscribe
    SessionEntry entry;
};

// A well-formed binary SID of exactly `size` bytes.
bool IsValidSid(const uint8_t* sid, size_t size);
// "S-1-5-21-..." of a valid SID; empty otherwise.
std::string SidText(const std::vector<uint8_t>& sid);

// Whole packets, header included.
std::vector<uint8_t> EncodeHello(const Hello& hello);
std::vector<uint8_t> EncodeWelcome(const Welcome& welcome);
std::vector<uint8_t> EncodeClose(uint32_t reason);
std::vector<uint8_t> EncodeRequest(uint32_t type, const Request& request);
std::vector<uint8_t> EncodeAnswer(const Answer& answer);
std::vector<uint8_t> EncodeNotification(const Notification& notification);
std::vector<uint8_t> EncodeCountersAnswer(const CountersAnswer& answer);

// Payload decoders: none unless the payload is exactly what the type needs.
std::optional<Hello> DecodeHello(const uint8_t* payload, size_t size);
std::optional<Welcome> DecodeWelcome(const uint8_t* payload, size_t size);
std::optional<uint32_t> DecodeClose(const uint8_t* payload, size_t size);
std::optional<Request> DecodeRequest(const uint8_t* payload, size_t size);
std::optional<Answer> DecodeAnswer(const uint8_t* payload, size_t size);
std::optional<Notification> DecodeNotification(const uint8_t* payload, size_t size);
std::optional<CountersAnswer> DecodeCountersAnswer(const uint8_t* payload, size_t size);

// What the pipe itself says about a client, against which its hello is checked.
struct PeerFacts
{
    uint32_t sessionId = 0;
    uint32_t processId = 0;
    std::vector<uint8_t> sid;
};
// kGoodbye when the hello holds, else the reason to close with. Any version from
// kMinProtocolVersion to `served` holds; the connection then speaks the hello's version.
uint32_t CheckHello(const Hello& hello, const PeerFacts& facts, uint32_t served = kProtocolVersion);

// What the service makes of one complete packet from a client that has been welcomed.
struct ClientPacket
{
    enum class Kind
    {
        GetStatus,
        Subscribe,
        GetCounters, // version 2 on
        Close,       // the client is leaving; answer nothing
        Malformed,   // close with kPacketMalformed
    };
    Kind kind = Kind::Malformed;
    Request request;
};
// `version` is the one the connection speaks: a packet type that version does not know is
// malformed, as it was for that version's service.
ClientPacket InterpretClientPacket(const agentpipe::MessageHeader& header, const uint8_t* payload,
                                   size_t size, uint32_t version);

// Whether a change of `session` reaches a subscriber of `ownSession` with that scope.
bool Reaches(uint32_t scope, uint32_t ownSession, uint32_t session);

// For people and scripts.
const char* StateWord(uint32_t state); // "connected", "not connected", ... or "unknown"
const char* CloseReasonWord(uint32_t reason);
std::string VersionText(uint32_t version); // "1.1" for 0x00010001
// One line: "session 1: connected (versions: local 1.1, remote 1.1, negotiated 1.1)".
std::string DescribeEntry(const SessionEntry& entry);
// One JSON object, no line end: {"session":1,"state":"connected","stateCode":50,...}.
std::string JsonEntry(const SessionEntry& entry);
// "URLs 12 forwarded, 1 refused by policy, 0 failed; handshakes 2 completed, 0 refused;
// reconnects 1; last URL 2026-11-25T08:40:12Z" ("none" before the first URL).
std::string DescribeCounters(const SessionCountersSnapshot& counters);
// {"urlsForwarded":12,...,"lastUrlTime":"2026-11-25T08:40:12Z"} (null: no URL yet).
std::string JsonCounters(const SessionCountersSnapshot& counters);
// FILETIME units as "YYYY-MM-DDTHH:MM:SSZ"; empty for 0.
std::string Iso8601Utc(uint64_t fileTime);

} // namespace statusapi
