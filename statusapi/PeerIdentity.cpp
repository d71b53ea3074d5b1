#include "statusapi/PeerIdentity.h"

#include "common/UniqueHandle.h"

namespace statusapi
{

namespace
{

// Ends an impersonation on every path: a connection thread must never go on as its client.
class RevertGuard
{
public:
    RevertGuard() = default;
    ~RevertGuard() { ::RevertToSelf(); }
    RevertGuard(const RevertGuard&) = delete;
    RevertGuard& operator=(const RevertGuard&) = delete;
};

bool ReadTokenUser(HANDLE token, std::vector<uint8_t>& sid)
{
    DWORD size = 0;
    ::GetTokenInformation(token, ::TokenUser, nullptr, 0, &size);
    if (size == 0)
        return false;
    std::vector<uint8_t> buffer(size);
    if (!::GetTokenInformation(token, ::TokenUser, buffer.data(), size, &size))
        return false;
    const PSID user = reinterpret_cast<const TOKEN_USER*>(buffer.data())->User.Sid;
    if (!::IsValidSid(user))
        return false;
    const auto* bytes = static_cast<const uint8_t*>(user);
    sid.assign(bytes, bytes + ::GetLengthSid(user));
    return true;
}

bool IsWellKnown(const std::vector<uint8_t>& sid, WELL_KNOWN_SID_TYPE type)
{
    BYTE known[SECURITY_MAX_SID_SIZE];
    DWORD size = sizeof(known);
    return ::CreateWellKnownSid(type, nullptr, known, &size) && sid.size() == ::GetLengthSid(known) &&
           ::EqualSid(const_cast<uint8_t*>(sid.data()), known);
}

} // namespace

bool ReadTokenIdentity(HANDLE token, PeerIdentity& identity)
{
    if (!ReadTokenUser(token, identity.sid))
        return false;
    BYTE administrators[SECURITY_MAX_SID_SIZE];
    DWORD size = sizeof(administrators);
    BOOL member = FALSE;
    if (!::CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, administrators, &size) ||
        !::CheckTokenMembership(token, administrators, &member))
        member = FALSE;
    identity.administrator = member || IsWellKnown(identity.sid, WinLocalSystemSid);
    return true;
}

bool InspectPipeClient(HANDLE pipe, PeerIdentity& identity)
{
    daxlib::unique_handle token;
    {
        if (!::ImpersonateNamedPipeClient(pipe))
            return false;
        RevertGuard revert;
        // As self: the service's own rights open the token, not the client's.
        if (!::OpenThreadToken(::GetCurrentThread(), TOKEN_QUERY, TRUE, token.put()))
            return false;
    }
    return ReadTokenIdentity(token.get(), identity);
}

bool OwnHello(Hello& hello)
{
    daxlib::unique_handle token;
    if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, token.put()))
        return false;
    DWORD session = 0;
    if (!ReadTokenUser(token.get(), hello.sid) || !::ProcessIdToSessionId(::GetCurrentProcessId(), &session))
        return false;
    hello.version = kProtocolVersion;
    hello.sessionId = session;
    hello.processId = ::GetCurrentProcessId();
    return true;
}

} // namespace statusapi
