#include "virt/VirtServer.h"

#include "common/DaxException.h"
#include "common/Guarded.h"
#include "common/ServiceEvents.h"
#include "common/WideFormat.h"
#include "virt/LibraryTransport.h"

#include <exception>
#include <mutex>
#include <shared_mutex>
#include <vector>

namespace
{

constexpr wchar_t kInit[] = L"CVirtServer::Init";
constexpr wchar_t kFree[] = L"CVirtServer::Free";
constexpr wchar_t kOnSessionOpened[] = L"CVirtServer::OnSessionOpened";
constexpr wchar_t kOnSessionClosed[] = L"CVirtServer::OnSessionClosed";
constexpr wchar_t kSendURL[] = L"CVirtServer::SendURL";

// The name text of a notification, bounded by its field even when the library forgot the zero.
std::wstring NameOf(const SkApi::SessionNotification& notification)
{
    const wchar_t* name = notification.szName;
    size_t length = 0;
    while (length < std::size(notification.szName) && name[length] != L'\0')
        ++length;
    return std::wstring(name, length);
}

} // namespace

CVirtServer::CVirtServer(std::shared_ptr<ICvLogger> logger, std::shared_ptr<IChannelTransport> transport,
                         std::shared_ptr<IChannelTransport> fallback)
    : IBaseItem(std::move(logger)),
      m_pTransport(transport ? std::move(transport) : std::make_shared<CLibraryTransport>()),
      m_pFallback(std::move(fallback))
{
}

std::wstring CVirtServer::DescribeTransport() const
{
    return m_pTransport->Describe();
}

CVirtServer::~CVirtServer()
{
    // No session callback may reach a server being destroyed; after Free there is none already.
    if (m_bInitialized)
        m_pTransport->CleanUp();
    // The handlers go first, while the listener they publish to still exists.
    std::map<uint32_t, std::shared_ptr<CSessionHandler>> released;
    {
        daxlib::unique_lock lock(m_srwSessions);
        released.swap(m_sessions);
    }
}

void CVirtServer::SetStatusListener(ChannelStatusListener listener)
{
    daxlib::lock_guard lock(m_csListener);
    m_listener = std::move(listener);
}

void CVirtServer::Publish(const ChannelStatusRecord& record, uint32_t sessionId) const
{
    ChannelStatusListener listener;
    {
        daxlib::lock_guard lock(m_csListener);
        listener = m_listener;
    }
    if (!listener)
        return;
    try
    {
        listener(record, sessionId);
    }
    catch (...)
    {
        // The listener's troubles stay with the listener.
    }
}

std::wstring CVirtServer::GuidText(const GUID& g)
{
    wchar_t text[CSessionHandler::kGuidTextLength] = {};
    daxlib::FormatTruncated(text, std::size(text), L"%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x",
                            static_cast<unsigned>(g.Data1), g.Data2, g.Data3, g.Data4[0], g.Data4[1],
                            g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
    return text;
}

bool CVirtServer::Init()
{
    if (m_bInitialized)
        return true;
    bool ready = m_pTransport->Init(*this);
    if (!ready && m_pFallback)
    {
        Log(LogLevel::Info, kInit, L"Falling back from %s to %s", m_pTransport->Describe().c_str(),
            m_pFallback->Describe().c_str());
        m_pTransport = std::exchange(m_pFallback, nullptr);
        ready = m_pTransport->Init(*this);
    }
    if (ready)
    {
        m_pTransport->Subscribe(&SessionOpenedTrampoline, &SessionClosedTrampoline, this);
        if (!m_pTransport->StartNotification())
            Log(LogLevel::Warning, kInit, L"SkStartNotification() failed. LastError=%u", ::GetLastError());
        m_bInitialized = true;
        Log(LogLevel::Info, kInit, L"Success");
    }
    if (!m_bInitialized)
        Free();
    return m_bInitialized;
}

void CVirtServer::Free()
{
    std::map<uint32_t, std::shared_ptr<CSessionHandler>> released;
    {
        daxlib::unique_lock lock(m_srwSessions);
        released.swap(m_sessions);
        released.clear();
    }
    // Outside the lock: the transport's notification thread may be waiting for it, and clean-up
    // waits for that thread.
    m_pTransport->CleanUp();
    {
        // A session that opened while the library was being cleaned up.
        daxlib::unique_lock lock(m_srwSessions);
        released.swap(m_sessions);
        released.clear();
    }
    m_bInitialized = false;
    Log(LogLevel::Info, kFree, L"Success");
}

void WINAPI CVirtServer::SessionOpenedTrampoline(DWORD, const SkApi::SessionNotification* notification,
                                                 void* context)
{
    if (!context || !notification)
        return;
    auto* server = static_cast<CVirtServer*>(context);
    daxlib::GuardedCall(server, kOnSessionOpened,
                        [&] { server->OnSessionOpened(notification->dwSessionType, *notification); });
}

void WINAPI CVirtServer::SessionClosedTrampoline(DWORD, const SkApi::SessionNotification* notification,
                                                 void* context)
{
    if (!context || !notification)
        return;
    auto* server = static_cast<CVirtServer*>(context);
    daxlib::GuardedCall(server, kOnSessionClosed,
                        [&] { server->OnSessionClosed(notification->dwSessionType, *notification); });
}

void CVirtServer::OnSessionOpened(uint32_t type, const SkApi::SessionNotification& notification)
{
    const std::wstring guid = GuidText(notification.guidSession);
    const uint32_t sessionId = notification.dwSessionId;
    // "old GUID" although it is the new session's: the text is kept as it always was.
    Log(LogLevel::Info, kOnSessionOpened, L"Session %d (type %u), old GUID=%s", static_cast<int>(sessionId),
        type, guid.c_str());

    ChannelStatusListener forward = [this](const ChannelStatusRecord& record, uint32_t id)
    { Publish(record, id); };
    auto handler =
        std::make_shared<CSessionHandler>(m_pLogger, m_pTransport, guid.c_str(), sessionId,
                                          NameOf(notification), std::move(forward), CountersOf(sessionId));
    std::shared_ptr<CSessionHandler> replaced;
    daxlib::unique_lock lock(m_srwSessions);
    auto& slot = m_sessions[sessionId];
    replaced = std::exchange(slot, handler);
    // The replaced handler's threads are stopped here, under the lock, before the new one starts.
    replaced.reset();
    handler->Start();
}

void CVirtServer::OnSessionClosed(uint32_t type, const SkApi::SessionNotification& notification)
{
    const std::wstring guid = GuidText(notification.guidSession);
    const uint32_t sessionId = notification.dwSessionId;
    Log(LogLevel::Info, kOnSessionClosed, L"Session %d (type %u), GUID=%s", static_cast<int>(sessionId), type,
        guid.c_str());

    ChannelStatusRecord record{};
    {
        std::shared_ptr<CSessionHandler> closed;
        daxlib::unique_lock lock(m_srwSessions);
        const auto found = m_sessions.find(sessionId);
        if (found != m_sessions.end())
        {
            // Guards against a late close of an earlier session that had the same id.
            if (guid != found->second->GetSessionGUID())
            {
                Log(LogLevel::Info, kOnSessionClosed, L"Session mismatch");
                return;
            }
            closed = std::move(found->second);
            m_sessions.erase(found);
            // Closed before its state is read: a handshake holds the state lock until its
            // connection is closed.
            closed->CloseConnection();
            closed->GetChannelStatus(record);
        }
        closed.reset(); // its threads have stopped while the lock is held
    }
    record.dwState = eCvUrlApiEvent_RdpNotConnected;
    Publish(record, sessionId);
}

int CVirtServer::SendURL(uint32_t sessionId, std::wstring url)
{
    Log(LogLevel::Debug, kSendURL, L" %s to session %d", url.c_str(), static_cast<int>(sessionId));
    std::shared_ptr<CSessionHandler> handler;
    {
        daxlib::shared_lock lock(m_srwSessions);
        const auto found = m_sessions.find(sessionId);
        if (found != m_sessions.end())
            handler = found->second;
    }
    if (!handler)
    {
        CountersOf(sessionId)->UrlFailed(FileTimeNow());
        return 0;
    }
    return handler->SendURL(std::move(url)) ? 1 : 0;
}

void CVirtServer::CountRefusedByPolicy(uint32_t sessionId)
{
    CountersOf(sessionId)->UrlRefusedByPolicy(FileTimeNow());
}

std::shared_ptr<SessionCounters> CVirtServer::CountersOf(uint32_t sessionId)
{
    {
        daxlib::shared_lock lock(m_srwCounters);
        const auto found = m_counters.find(sessionId);
        if (found != m_counters.end())
            return found->second;
    }
    // One entry per session id the host has had: bounded by the host's sessions, not by agents.
    daxlib::unique_lock lock(m_srwCounters);
    auto& slot = m_counters[sessionId];
    if (!slot)
        slot = std::make_shared<SessionCounters>();
    return slot;
}

std::vector<std::pair<uint32_t, SessionCountersSnapshot>> CVirtServer::CounterSnapshots() const
{
    daxlib::shared_lock lock(m_srwCounters);
    std::vector<std::pair<uint32_t, SessionCountersSnapshot>> snapshots;
    snapshots.reserve(m_counters.size());
    for (const auto& [id, counters] : m_counters)
        snapshots.emplace_back(id, counters->Snapshot());
    return snapshots;
}

std::shared_ptr<CSessionHandler> CVirtServer::FindSession(uint32_t sessionId) const
{
    daxlib::shared_lock lock(m_srwSessions);
    const auto found = m_sessions.find(sessionId);
    return found == m_sessions.end() ? nullptr : found->second;
}

std::vector<uint32_t> CVirtServer::SessionIds() const
{
    daxlib::shared_lock lock(m_srwSessions);
    std::vector<uint32_t> ids;
    ids.reserve(m_sessions.size());
    for (const auto& [id, handler] : m_sessions)
        ids.push_back(id);
    return ids;
}
