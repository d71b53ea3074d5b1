#include "virt/rdp/RdpTransport.h"

#include "common/WideFormat.h"

#include <process.h>

#include <cstring>
#include <vector>

namespace
{

constexpr wchar_t kSessions[] = L"CRdpTransport::SessionThread";

// Sessions that may have, or get again, an RDP connection; session 0 holds the services.
bool IsUserSession(const WTS_SESSION_INFOW& session) noexcept
{
    if (session.SessionId == 0)
        return false;
    switch (session.State)
    {
    case WTSActive:
    case WTSConnected:
    case WTSDisconnected:
    case WTSShadow:
    case WTSIdle:
        return true;
    default:
        return false;
    }
}

} // namespace

const WtsSessionCalls& SystemWtsSessionCalls() noexcept
{
    static const WtsSessionCalls calls{&::WTSEnumerateSessionsW, &::WTSFreeMemory,
                                       &::WTSQuerySessionInformationW, &::WTSWaitSystemEvent};
    return calls;
}

struct CRdpTransport::Connection
{
    uint32_t sessionId = 0;
    HANDLE handle = nullptr; // what the handler knows it by
    std::unique_ptr<CVirtualChannelStream> stream;
    // Shared by the calls that use the stream; Close takes it alone, so the handle is never
    // closed under a read or a write.
    daxlib::srw_lock inUse;
    std::atomic<SkApi::ConnectionCallback> callback{nullptr};
    std::atomic<void*> context{nullptr};
    std::atomic<bool> closed{false};
    std::atomic<bool> brokenReported{false};
};

CRdpTransport::CRdpTransport(const WtsSessionCalls& sessions, const WtsChannelCalls& channels)
    : m_sessionCalls(sessions), m_channelCalls(channels)
{
}

CRdpTransport::~CRdpTransport()
{
    CleanUp();
}

std::wstring CRdpTransport::Describe() const
{
    return L"the RDP static virtual channel \"velomar\"";
}

GUID CRdpTransport::SessionGuid(uint32_t sessionId, uint64_t logonTime) noexcept
{
    GUID guid{};
    guid.Data1 = sessionId;
    guid.Data2 = 0x7664; // marks the GUIDs made here, which the channel library never hands out
    guid.Data3 = 0x7264;
    for (int i = 0; i < 8; ++i)
        guid.Data4[i] = static_cast<unsigned char>(logonTime >> (8 * (7 - i)));
    return guid;
}

bool CRdpTransport::Init(const Log& log)
{
    m_pLog = &log;
    if (!m_hevStop)
        m_hevStop.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (!m_hevStop)
    {
        log.Log(LogLevel::Error, L"CVirtServer::Init", L"CreateEventW(m_hevStop) failed. LastError=%u",
                ::GetLastError());
        return false;
    }
    return true;
}

void CRdpTransport::Subscribe(SkApi::SessionCallback opened, SkApi::SessionCallback closed, void* context)
{
    m_opened = opened;
    m_closed = closed;
    m_pContext = context;
}

bool CRdpTransport::StartNotification()
{
    if (!m_hevStop || m_hSessionThread)
        return false;
    ::ResetEvent(m_hevStop.get());
    m_hSessionThread.reset(
        reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, &SessionThreadEntry, this, 0, nullptr)));
    return static_cast<bool>(m_hSessionThread);
}

void CRdpTransport::CleanUp()
{
    if (m_hSessionThread)
    {
        ::SetEvent(m_hevStop.get());
        // A wait for session events ends only by an event or a flush; the flush is repeated in
        // case the thread had not started waiting yet when the first one went out.
        do
        {
            DWORD flags = 0;
            m_sessionCalls.waitEvent(WTS_CURRENT_SERVER_HANDLE, WTS_EVENT_FLUSH, &flags);
        } while (::WaitForSingleObject(m_hSessionThread.get(), 100) == WAIT_TIMEOUT);
        m_hSessionThread.reset();
    }
    m_known.clear();
    m_pLog = nullptr;
}

unsigned __stdcall CRdpTransport::SessionThreadEntry(void* self)
{
    try
    {
        return static_cast<CRdpTransport*>(self)->SessionThread();
    }
    catch (...)
    {
        return 1; // nothing may leave a thread; a broken session list ends the notifications only
    }
}

unsigned CRdpTransport::SessionThread()
{
    bool eventsWork = true;
    while (::WaitForSingleObject(m_hevStop.get(), 0) == WAIT_TIMEOUT)
    {
        Refresh();
        DWORD flags = 0;
        if (eventsWork && !m_sessionCalls.waitEvent(WTS_CURRENT_SERVER_HANDLE, kSessionEvents, &flags))
        {
            eventsWork = false;
            if (m_pLog)
                m_pLog->Log(LogLevel::Warning, kSessions,
                            L"WTSWaitSystemEvent failed. LastError=%u; the session list is read every %u ms",
                            ::GetLastError(), static_cast<unsigned>(kSessionPollMs));
        }
        if (!eventsWork && ::WaitForSingleObject(m_hevStop.get(), kSessionPollMs) != WAIT_TIMEOUT)
            break;
    }
    return 0;
}

uint64_t CRdpTransport::LogonTimeOf(uint32_t sessionId)
{
    LPWSTR buffer = nullptr;
    DWORD size = 0;
    uint64_t logonTime = 0;
    if (m_sessionCalls.query(WTS_CURRENT_SERVER_HANDLE, sessionId, WTSSessionInfo, &buffer, &size) && buffer)
    {
        if (size >= sizeof(WTSINFOW))
            logonTime = static_cast<uint64_t>(reinterpret_cast<const WTSINFOW*>(buffer)->LogonTime.QuadPart);
        m_sessionCalls.freeMemory(buffer);
    }
    return logonTime;
}

void CRdpTransport::Refresh()
{
    PWTS_SESSION_INFOW sessions = nullptr;
    DWORD count = 0;
    if (!m_sessionCalls.enumerate(WTS_CURRENT_SERVER_HANDLE, 0, 1, &sessions, &count))
    {
        if (m_pLog)
            m_pLog->Log(LogLevel::Error, kSessions, L"WTSEnumerateSessionsW failed. LastError=%u",
                        ::GetLastError());
        return; // the sessions known stay as they are until a reading works
    }
    std::map<uint32_t, KnownSession> now;
    for (DWORD i = 0; sessions && i < count; ++i)
    {
        const WTS_SESSION_INFOW& session = sessions[i];
        if (!IsUserSession(session))
            continue;
        KnownSession known;
        known.logonTime = LogonTimeOf(session.SessionId);
        const auto before = m_known.find(session.SessionId);
        if (known.logonTime == 0)
        {
            // Without a logon time, a session keeps the identity it had while it stays listed.
            known.logonTime = before != m_known.end() ? before->second.logonTime : ++m_generation;
        }
        known.notification.dwSessionId = session.SessionId;
        known.notification.dwSessionType = static_cast<uint32_t>(session.State);
        known.notification.guidSession = SessionGuid(session.SessionId, known.logonTime);
        if (session.pWinStationName)
            wcsncpy(known.notification.szName, session.pWinStationName,
                    std::size(known.notification.szName) - 1);
        now[session.SessionId] = known;
    }
    if (sessions)
        m_sessionCalls.freeMemory(sessions);

    // Closes first, so that a new logon under an old id replaces the old session's handler.
    for (const auto& [id, known] : m_known)
    {
        const auto after = now.find(id);
        if ((after == now.end() || after->second.logonTime != known.logonTime) && m_closed)
            m_closed(SkApi::kEventSessionClosed, &known.notification, m_pContext);
    }
    for (const auto& [id, known] : now)
    {
        const auto before = m_known.find(id);
        if ((before == m_known.end() || before->second.logonTime != known.logonTime) && m_opened)
            m_opened(SkApi::kEventSessionOpened, &known.notification, m_pContext);
    }
    m_known = std::move(now);
}

HANDLE CRdpTransport::Connect(const Log& log, const wchar_t* origin, const wchar_t* guidText,
                              uint32_t sessionId)
{
    {
        // Held from before the open until the handle is closed, so that two handlers of one
        // session (an old one still held by a sender, and its replacement) never open it side by
        // side.
        daxlib::unique_lock lock(m_srwConnections);
        if (!m_sessionsWithChannel.insert(sessionId).second)
        {
            log.Log(LogLevel::Error, origin, L"Session %u (%s) still has a channel open", sessionId,
                    guidText);
            ::SetLastError(ERROR_BUSY);
            return nullptr;
        }
    }
    const WtsChannelCalls calls = m_channelCalls;
    // Waits by asking for nothing: a read into no room returns once something has arrived (with
    // "insufficient buffer") or the time is up, and takes no bytes.
    ChannelReadableWait wait = [calls](HANDLE channel, DWORD timeoutMs)
    {
        const ULONGLONG started = ::GetTickCount64();
        char none = 0;
        ULONG got = 0;
        const BOOL ok = calls.read(channel, timeoutMs, &none, 0, &got);
        const DWORD error = ok ? ERROR_SUCCESS : ::GetLastError();
        if (!ok && (error == ERROR_INSUFFICIENT_BUFFER || error == ERROR_MORE_DATA))
            return ChannelReadiness::Readable;
        if (!ok && !IsNothingArrivedYet(error))
            return ChannelReadiness::Broken;
        // A read that came back before its time (should the system not wait on an empty read) is
        // made up for here, so that an idle session's reader never spins.
        const ULONGLONG waited = ::GetTickCount64() - started;
        if (waited < timeoutMs)
            ::Sleep(static_cast<DWORD>(timeoutMs - waited));
        return ChannelReadiness::TimedOut;
    };
    auto stream = CVirtualChannelStream::OpenEx(sessionId, kChannelName, std::move(wait), calls);
    const DWORD error = stream ? ERROR_SUCCESS : ::GetLastError();
    daxlib::unique_lock lock(m_srwConnections);
    DWORD& lastError = m_lastOpenError[sessionId];
    if (!stream)
    {
        m_sessionsWithChannel.erase(sessionId);
        // Retried every few seconds while the client side has not joined the channel: said once,
        // and again only when the reason changes.
        if (error != lastError)
            log.Log(LogLevel::Info, origin,
                    L"WTSVirtualChannelOpenEx(%u, \"velomar\") failed. LastError=%u (said again only when it "
                    L"changes)",
                    sessionId, error);
        lastError = error;
        ::SetLastError(error);
        return nullptr;
    }
    lastError = ERROR_SUCCESS;
    auto connection = std::make_shared<Connection>();
    connection->sessionId = sessionId;
    connection->stream = std::move(stream);
    const uintptr_t id = ++m_nextConnection;
    connection->handle = reinterpret_cast<HANDLE>(id);
    m_connections.emplace(id, connection);
    return connection->handle;
}

std::shared_ptr<CRdpTransport::Connection> CRdpTransport::Find(HANDLE connection) const
{
    daxlib::shared_lock lock(m_srwConnections);
    const auto found = m_connections.find(reinterpret_cast<uintptr_t>(connection));
    return found == m_connections.end() ? nullptr : found->second;
}

bool CRdpTransport::WatchConnection(HANDLE handle, SkApi::ConnectionCallback callback, void* context)
{
    const auto connection = Find(handle);
    if (!connection)
    {
        ::SetLastError(ERROR_INVALID_HANDLE);
        return false;
    }
    connection->context = context;
    connection->callback = callback;
    // The channel is usable as soon as it is open.
    if (callback)
        callback(handle, SkApi::kEventConnected, context);
    return true;
}

void CRdpTransport::ReportBroken(const std::shared_ptr<Connection>& connection)
{
    if (connection->closed.load() || connection->brokenReported.exchange(true))
        return;
    if (const auto callback = connection->callback.load())
        callback(connection->handle, SkApi::kEventBrokenConnection, connection->context.load());
}

template <typename Call> BOOL CRdpTransport::Use(HANDLE handle, Call call)
{
    const auto connection = Find(handle);
    if (!connection)
    {
        ::SetLastError(ERROR_NOT_CONNECTED);
        return FALSE;
    }
    BOOL ok = FALSE;
    DWORD error = ERROR_NOT_CONNECTED;
    {
        daxlib::shared_lock use(connection->inUse);
        if (connection->stream)
        {
            ok = call(*connection->stream);
            error = ::GetLastError();
        }
    }
    if (!ok && error == ERROR_NOT_CONNECTED)
        ReportBroken(connection);
    ::SetLastError(error);
    return ok;
}

BOOL CRdpTransport::Read(HANDLE handle, void* buffer, DWORD* count, DWORD timeoutMs)
{
    return Use(handle, [&](CVirtualChannelStream& stream) { return stream.Read(buffer, count, timeoutMs); });
}

BOOL CRdpTransport::Write(HANDLE handle, const void* bytes, DWORD* count, DWORD)
{
    return Use(handle, [&](CVirtualChannelStream& stream) { return stream.Write(bytes, count); });
}

void CRdpTransport::Close(HANDLE handle)
{
    std::shared_ptr<Connection> connection;
    {
        daxlib::unique_lock lock(m_srwConnections);
        const auto found = m_connections.find(reinterpret_cast<uintptr_t>(handle));
        if (found == m_connections.end())
            return;
        connection = std::move(found->second);
        m_connections.erase(found);
    }
    connection->closed = true;
    if (connection->stream)
        connection->stream->Break(); // a waiting read gives up within one wait slice
    // Once no call uses it, the channel handle is closed here, before Close returns: the
    // session's next channel is never opened beside this one.
    {
        daxlib::unique_lock alone(connection->inUse);
        connection->stream.reset();
    }
    daxlib::unique_lock lock(m_srwConnections);
    m_sessionsWithChannel.erase(connection->sessionId);
}
