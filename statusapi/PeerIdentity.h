#pragma once
// Who a pipe client is, as its token says: the service asks through impersonation, a client
// asks its own process token for its hello. Never taken from what a client writes.
#include "statusapi/StatusProtocol.h"

#include <windows.h>

#include <cstdint>
#include <vector>

namespace statusapi
{

struct PeerIdentity
{
    std::vector<uint8_t> sid;   // the token user
    bool administrator = false; // LocalSystem, or a member of the local Administrators group
};

// Impersonates the pipe's client just long enough to read its token. False when the client
// cannot be impersonated or its token not read (the last error says why).
bool InspectPipeClient(HANDLE pipe, PeerIdentity& identity);

// The user SID of a token and whether it is LocalSystem or holds the Administrators group
// (CheckTokenMembership: an impersonation token, or null for the calling thread's own).
bool ReadTokenIdentity(HANDLE token, PeerIdentity& identity);

// This process's hello: protocol version, session, process id and token user.
bool OwnHello(Hello& hello);

} // namespace statusapi
