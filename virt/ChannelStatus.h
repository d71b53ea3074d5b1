#pragma once
// The status of one session's channel, handed whole to the status listener at every change.
#include <cstddef>
#include <cstdint>
#include <functional>

enum eCvUrlApiEvent : uint32_t
{
    eCvUrlApiEvent_RdpConnected = 50,
    eCvUrlApiEvent_RdpNotConnected = 51,
    eCvUrlApiEvent_RdpConnectionBroken = 52,
    eCvUrlApiEvent_RdpInvalidProtocol = 53,
};

struct ChannelStatusRecord
{
    uint32_t dwLocalVersion;
    uint32_t dwRemoteVersion;
    uint32_t dwNegotiatedVersion;
    uint8_t reserved[768]; // always zero here; the record's size is part of the status API
    uint32_t dwState;
};
static_assert(sizeof(ChannelStatusRecord) == 784);
static_assert(offsetof(ChannelStatusRecord, dwState) == 780);

// Receives every change of a session's record with the session id. It is called on the
// channel's own threads with the handler's state lock held, so it must return quickly and
// must not call back into the session handler.
using ChannelStatusListener = std::function<void(const ChannelStatusRecord&, uint32_t sessionId)>;
