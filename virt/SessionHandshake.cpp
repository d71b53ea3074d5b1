// CSessionHandler's side of the handshake: the channel library's calls under the state lock,
// the log lines of each step, and the status record the outcome publishes. The exchange itself
// is UrlNet::RunHandshake.
#include "common/ServiceEvents.h"
#include "virt/Handshake.h"
#include "virt/SessionHandler.h"
#include "virt/UrlProtocol.h"

namespace
{

constexpr wchar_t kDoHandshake[] = L"CSessionHandler::DoHandshake";

// What a failed step logs. Reads name the item they waited for; writes are whole formats. The
// words "for incompatible version" stand in the status writes although the status is 0: kept.
const wchar_t* FailureText(UrlNet::HandshakeStep step)
{
    using Step = UrlNet::HandshakeStep;
    switch (step)
    {
    case Step::WriteLocalVersion:
        return L"SkWriteData(LocalVersion) failed. Error=%u";
    case Step::ReadRemoteVersion:
        return L"First SkReadData(RemoteVersion)";
    case Step::WriteVersionStatus:
        return L"SkWriteData(bVersionStatus) failed for incompatible version. Error=%u";
    case Step::ReadVersionStatus:
        return L"First SkReadData(bVersionStatus)";
    case Step::WriteLocalOptions:
        return L"SkWriteData(cbLocalOptions) failed. Error=%u";
    case Step::ReadRemoteOptions:
        return L"SkReadData(cbRemoteOptions)";
    case Step::WriteOptionsStatus:
        return L"SkWriteData(bOptionsStatus) failed for incompatible version. Error=%u";
    case Step::ReadOptionsStatus:
        return L"First SkReadData(bOptionsStatus)";
    }
    return L"";
}

} // namespace

void CSessionHandler::ReportRefusal(bool version, uint32_t localVersion, uint32_t remoteVersion)
{
    // Once per session: a refused handshake is never retried by the session's handler.
    const auto text = [](uint32_t v)
    { return std::to_wstring(v >> 16) + L"." + std::to_wstring(v & 0xFFFF); };
    events::Report(events::Level::Warning, events::kChannelRefused,
                   {std::to_wstring(m_dwSessionId), version ? L"version" : L"options", text(localVersion),
                    text(remoteVersion)});
}

CSessionHandler::HandshakeOutcome CSessionHandler::DoHandshake()
{
    using UrlNet::HandshakeEnd;
    using UrlNet::HandshakeStep;
    {
        daxlib::lock_guard lock(m_csState);
        m_status = ChannelStatusRecord{};
    }
    DWORD error = ERROR_SUCCESS;
    // Each exchange holds the state lock on its own, never the whole handshake.
    const auto locked = [&](auto call)
    {
        daxlib::lock_guard lock(m_csState);
        const bool ok = call(GetConnection()) != FALSE;
        error = ok ? ERROR_SUCCESS : ::GetLastError();
        return ok;
    };
    UrlNet::HandshakeIo io;
    io.write = [&](const void* bytes, uint32_t size)
    {
        DWORD count = size;
        return locked([&](HANDLE c) { return m_pTransport->Write(c, bytes, &count, INFINITE); });
    };
    io.read = [&](void* bytes, uint32_t size)
    {
        DWORD count = size;
        return locked([&](HANDLE c) { return m_pTransport->Read(c, bytes, &count, INFINITE); });
    };
    io.passed = [this](HandshakeStep step, const UrlNet::HandshakeResult& sofar)
    {
        if (step == HandshakeStep::WriteLocalVersion)
            Log(LogLevel::Info, kDoHandshake, L"LocalVersion=%#.8x", sofar.localVersion);
        else if (step == HandshakeStep::ReadRemoteVersion)
            Log(LogLevel::Info, kDoHandshake, L"RemoteVersion=%#.8x", sofar.remoteVersion);
        else if (step == HandshakeStep::ReadVersionStatus)
            Log(LogLevel::Info, kDoHandshake, L"Negotiations about the version are successful. Version=%#.8x",
                sofar.negotiatedVersion);
        else if (step == HandshakeStep::ReadRemoteOptions)
            Log(LogLevel::Info, kDoHandshake, L"cbRemoteOptions=%u", sofar.remoteOptionsLength);
    };
    const UrlNet::HandshakeResult result = UrlNet::RunHandshake(io);

    if (result.end == HandshakeEnd::Broken)
    {
        const wchar_t* text = FailureText(result.lastStep);
        if (!UrlNet::IsReadStep(result.lastStep))
            Log(LogLevel::Error, kDoHandshake, text, error);
        else if (error == ERROR_NOT_CONNECTED)
            Log(LogLevel::Info, kDoHandshake, L"%s failed. Error=ERROR_NOT_CONNECTED(2250)", text);
        else
            Log(LogLevel::Error, kDoHandshake, L"%s failed. Error=%u", text, error);
        // A blip in the middle of the exchange is no verdict on the protocol: the session is
        // reported broken and the connection thread tries again after its pause.
        daxlib::lock_guard lock(m_csState);
        m_status = ChannelStatusRecord{};
        m_status.dwState = eCvUrlApiEvent_RdpConnectionBroken;
        Publish(m_status);
        return HandshakeOutcome::Broken;
    }
    if (result.end == HandshakeEnd::VersionRefused)
        Log(LogLevel::Warning, kDoHandshake, L"Remote side is not compatible with local protocol version");
    else if (result.end == HandshakeEnd::OptionsRefused)
        Log(LogLevel::Warning, kDoHandshake, L"Remote side is not compatible with local protocol options");
    if (result.end == HandshakeEnd::VersionRefused || result.end == HandshakeEnd::OptionsRefused)
        ReportRefusal(result.end == HandshakeEnd::VersionRefused, result.localVersion, result.remoteVersion);

    const bool ok = result.end == HandshakeEnd::Accepted;
    // Whoever learns of state 50 may send at once, so reading and sending are allowed first.
    if (ok)
        AllowSending(true);
    daxlib::lock_guard lock(m_csState);
    m_status = ChannelStatusRecord{};
    m_status.dwLocalVersion = result.localVersion;
    m_status.dwRemoteVersion = result.remoteVersion;
    m_status.dwNegotiatedVersion = result.negotiatedVersion;
    m_status.dwState = ok ? eCvUrlApiEvent_RdpConnected : eCvUrlApiEvent_RdpInvalidProtocol;
    Publish(m_status);
    return ok ? HandshakeOutcome::Accepted : HandshakeOutcome::Refused;
}
