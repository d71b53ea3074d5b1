#pragma once
// What carries a session's URL channel: what reports remote sessions opening and closing, and
// what opens, reads, writes and closes the channel to a session's client side. The session
// handling above it (handshake, reconnect cadence, counters, status) is the same for every
// transport. Two exist: the channel library (the default) and plain RDP static virtual channels.
#include "common/BaseLogger.h"
#include "virt/SkApiTypes.h"

#include <cstdint>
#include <string>

class IChannelTransport
{
public:
    using Log = CommonHelper::CvLogger::CBaseLogger;

    virtual ~IChannelTransport() = default;

    // How the log and the start event name the transport, with where it comes from.
    virtual std::wstring Describe() const = 0;

    // Readies the transport; a failure is logged through `log` (and reported where an
    // administrator must act) before false comes back.
    virtual bool Init(const Log& log) = 0;
    // Where opens and closes of sessions go; set before StartNotification.
    virtual void Subscribe(SkApi::SessionCallback opened, SkApi::SessionCallback closed, void* context) = 0;
    virtual bool StartNotification() = 0;
    // Ends the notifications: no session callback runs once it has returned.
    virtual void CleanUp() = 0;

    // A new connection to the client side of the session, or null after logging why under
    // `origin`. The handle is the transport's own and goes back through Close.
    virtual HANDLE Connect(const Log& log, const wchar_t* origin, const wchar_t* guidText,
                           uint32_t sessionId) = 0;
    // Connected, broken and invalid-address events of the connection go to the callback, from
    // any thread; a connection that is usable at once reports connected before this returns.
    virtual bool WatchConnection(HANDLE connection, SkApi::ConnectionCallback callback, void* context) = 0;
    // Exactly *count bytes or FALSE; ERROR_NOT_CONNECTED once the connection is gone.
    virtual BOOL Read(HANDLE connection, void* buffer, DWORD* count, DWORD timeoutMs) = 0;
    virtual BOOL Write(HANDLE connection, const void* bytes, DWORD* count, DWORD timeoutMs) = 0;
    // From any thread, also while a Read of it waits: that Read fails and the handle is gone.
    virtual void Close(HANDLE connection) = 0;
};
