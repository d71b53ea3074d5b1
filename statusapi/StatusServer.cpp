#include "statusapi/StatusServer.h"

#include "common/Guarded.h"
#include "common/ServiceEvents.h"
#include "pipe/NamedPipeServer.h"
#include "pipe/attributes.h"
#include "statusapi/PipeIo.h"
#include "statusapi/StatusConnection.h"

#include <mutex>
#include <shared_mutex>
#include <utility>

using namespace statusapi;

namespace
{
constexpr wchar_t kPurpose[] = L"the status pipe, where programs learn the channel's state";
// Completion keys of the server's own packets; pipe instances count up from kFirstInstanceKey.
constexpr ULONG_PTR kStopKey = 1;
constexpr ULONG_PTR kEndedKey = 2; // the overlapped pointer carries the connection's id
constexpr ULONG_PTR kFirstInstanceKey = 16;
// A cancelled connect completes at once; this only bounds a stop against a transport that never
// reports it.
constexpr DWORD kCancelSettleMs = 5000;
} // namespace

struct CStatusServer::Waiting
{
    daxlib::unique_hfile pipe;
    OVERLAPPED overlapped{};
};

CStatusServer::CStatusServer(std::shared_ptr<ICvLogger> logger, const std::wstring& pipeName)
    : IBaseItem(std::move(logger)), m_strPipeName(daxlib::PipePath(pipeName)), m_nNextKey(kFirstInstanceKey)
{
}

CStatusServer::~CStatusServer()
{
    Stop();
}

int CStatusServer::Start()
{
    if (m_acceptThread.IsRunning())
        return 1;
    return daxlib::GuardedValue(
        this, L"CStatusServer::Start: ", 0,
        [&]
        {
            // The agent pipe's access: local users read and write, nobody but SYSTEM creates instances.
            m_pAttributes = std::make_shared<CDaxSecattrLocalLI>(CDaxSecattr::DefaultVersionQuery(),
                                                                 ClientAccess::Narrow);
            m_hPort.reset(::CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 1));
            if (!m_hPort)
            {
                Log(LogLevel::Error, L"CStatusServer::Start: ", L"CreateIoCompletionPort failed. GLE=%d",
                    static_cast<int>(::GetLastError()));
                return 0;
            }
            // The first instances exist when Start returns: a client may connect at once.
            Refill();
            // It ends on the port's stop packet, not on its stop event.
            if (!m_acceptThread.Start([this](HANDLE) { AcceptThread(); }))
            {
                Log(LogLevel::Error, L"CStatusServer::Start: ", L"the accept thread cannot start. GLE=%d",
                    static_cast<int>(::GetLastError()));
                return 0;
            }
            Log(LogLevel::Info, L"CStatusServer::Start: ",
                L"waiting for status clients on %s (at most %u a session, %u in all)", m_strPipeName.c_str(),
                m_settings.maxConnectionsPerSession, m_settings.maxConnections);
            return 1;
        });
}

int CStatusServer::Stop()
{
    // Written out: the accept thread first (no new clients, no more reaping), the instances still
    // waiting, then every connection told at once and joined, then the port they post their ends to.
    if (m_acceptThread.IsRunning())
    {
        ::PostQueuedCompletionStatus(m_hPort.get(), 0, kStopKey, nullptr);
        m_acceptThread.Stop();
    }
    CancelWaiting(); // also those a failed Start left
    std::map<uint64_t, std::shared_ptr<CStatusConnection>> connections;
    {
        daxlib::lock_guard lock(m_srwState);
        connections.swap(m_connections);
        m_sessionConnections.clear();
    }
    for (auto& [id, connection] : connections)
        connection->RequestStop();
    connections.clear();
    m_hPort.reset();
    return 1;
}

void CStatusServer::Refill()
{
    while (m_waiting.size() < kAccepts && Listen(m_nNextKey++))
    {
    }
}

void CStatusServer::AcceptThread()
{
    auto& waiting = m_waiting; // the accept thread's alone while it runs
    for (;;)
    {
        DWORD bytes = 0;
        ULONG_PTR key = 0;
        OVERLAPPED* overlapped = nullptr;
        const BOOL ok = ::GetQueuedCompletionStatus(m_hPort.get(), &bytes, &key, &overlapped,
                                                    waiting.size() < kAccepts ? CNamedPipeServer::kNameRetryMs
                                                                              : INFINITE);
        if (!ok && !overlapped)
        {
            if (::GetLastError() == WAIT_TIMEOUT)
            {
                Refill();
                continue;
            }
            Log(LogLevel::Error, L"CStatusServer::AcceptThread: ",
                L"GetQueuedCompletionStatus failed. GLE=%d", static_cast<int>(::GetLastError()));
            break;
        }
        if (key == kStopKey)
            break;
        if (key == kEndedKey)
        {
            Reap(reinterpret_cast<uintptr_t>(overlapped));
            continue;
        }
        const auto found = waiting.find(key);
        if (found == waiting.end())
            continue; // a completion of no waiting instance: nothing of it is kept here
        std::unique_ptr<Waiting> instance = std::move(found->second);
        waiting.erase(found);
        if (ok)
            OnConnected(std::move(instance->pipe));
        Refill();
    }
}

void CStatusServer::CancelWaiting()
{
    for (auto& [key, instance] : m_waiting)
        ::CancelIoEx(instance->pipe.get(), &instance->overlapped);
    // Each record must outlive its cancelled connect; ends of connections are of no interest now.
    while (!m_waiting.empty())
    {
        DWORD bytes = 0;
        ULONG_PTR key = 0;
        OVERLAPPED* overlapped = nullptr;
        if (!::GetQueuedCompletionStatus(m_hPort.get(), &bytes, &key, &overlapped, kCancelSettleMs) &&
            !overlapped)
            break;
        m_waiting.erase(key);
    }
    for (auto& [key, instance] : m_waiting)
        static_cast<void>(instance.release()); // never completed: its record stays where the system may write
    m_waiting.clear();
}

bool CStatusServer::Listen(ULONG_PTR key)
{
    bool first = false;
    {
        daxlib::shared_lock lock(m_srwState);
        first = m_waiting.empty() && m_connections.empty();
    }
    auto instance = std::make_unique<Waiting>();
    instance->pipe.reset(pipeinstance::Create(
        m_createInstance, m_strPipeName, first,
        {PIPE_UNLIMITED_INSTANCES, kPipeBufferSize, kPipeBufferSize, CNamedPipeServer::kDefaultTimeoutMs},
        CDaxSecattr::Get(m_pAttributes.get())));
    const DWORD createError = instance->pipe ? ERROR_SUCCESS : ::GetLastError();
    if (pipeinstance::NameTaken(first, createError))
    {
        if (!std::exchange(m_bNameTaken, true))
        {
            Log(LogLevel::Error, L"CStatusServer::Listen: ",
                L"The pipe %s exists already and was not created by this server: not serving it; trying "
                L"again "
                L"every %u ms. GLE = %d",
                m_strPipeName.c_str(), static_cast<unsigned>(CNamedPipeServer::kNameRetryMs),
                static_cast<int>(createError));
            events::Report(events::Level::Warning, events::kPipeNameTaken,
                           {m_strPipeName, kPurpose, std::to_wstring(CNamedPipeServer::kNameRetryMs)});
        }
        return false;
    }
    if (!instance->pipe)
    {
        Log(LogLevel::Error, L"CStatusServer::Listen: ", L"Unable to create a pipe instance. GLE = %d",
            static_cast<int>(createError));
        return false;
    }
    if (std::exchange(m_bNameTaken, false))
    {
        Log(LogLevel::Info, L"CStatusServer::Listen: ", L"The pipe %s is this server's now: serving it",
            m_strPipeName.c_str());
        events::Report(events::Level::Information, events::kPipeNameFreed, {m_strPipeName, kPurpose});
    }
    if (!::CreateIoCompletionPort(instance->pipe.get(), m_hPort.get(), key, 0))
    {
        Log(LogLevel::Error, L"CStatusServer::Listen: ", L"CreateIoCompletionPort failed. GLE = %d",
            static_cast<int>(::GetLastError()));
        return false;
    }
    if (::ConnectNamedPipe(instance->pipe.get(), &instance->overlapped) ||
        ::GetLastError() == ERROR_IO_PENDING)
    {
        m_waiting[key] = std::move(instance);
        return true;
    }
    if (::GetLastError() == ERROR_PIPE_CONNECTED)
    {
        // A client came between creation and connect: no completion follows.
        OnConnected(std::move(instance->pipe));
        return true;
    }
    Log(LogLevel::Error, L"CStatusServer::Listen: ", L"ConnectNamedPipe failed. GLE = %d",
        static_cast<int>(::GetLastError()));
    return false;
}

void CStatusServer::OnConnected(daxlib::unique_hfile pipe)
{
    ULONG processId = 0;
    ULONG sessionId = 0;
    if (!::GetNamedPipeClientProcessId(pipe.get(), &processId) ||
        !::GetNamedPipeClientSessionId(pipe.get(), &sessionId))
        sessionId = daxlib::kUnknownSession;
    else if (m_resolveSession)
        sessionId = m_resolveSession(processId, sessionId);
    if (sessionId == daxlib::kUnknownSession)
    {
        // One line per burst: a flood must not flood the log as well.
        if (m_dwUnknownSessionBurst++ == 0)
            Log(LogLevel::Error, L"CStatusServer::OnConnected: ",
                L"the session of the client in process %u cannot be determined: refused, and further ones "
                L"like it until one is admitted again. GLE=%d",
                processId, static_cast<int>(::GetLastError()));
        WriteAll(pipe.get(), EncodeClose(kServiceError), DeadlineAfter(kRefusalWriteMs));
        return;
    }
    const uint64_t id = m_qwNextConnection++;
    std::shared_ptr<CStatusConnection> connection;
    bool overTotal = false;
    uint32_t refusedBefore = 0;
    {
        daxlib::lock_guard lock(m_srwState);
        uint32_t& inSession = m_sessionConnections[sessionId];
        overTotal = m_connections.size() >= m_settings.maxConnections;
        if (!overTotal && inSession < m_settings.maxConnectionsPerSession)
        {
            connection = std::make_shared<CStatusConnection>(*this, m_pLogger, id, std::move(pipe), processId,
                                                             sessionId);
            m_connections[id] = connection;
            ++inSession;
            refusedBefore = std::exchange(m_dwRefusedInBurst, 0);
            m_dwUnknownSessionBurst = 0;
        }
        else if (inSession == 0)
        {
            m_sessionConnections.erase(sessionId);
        }
    }
    if (!connection)
        // Moved above only when the connection was made.
        return Refuse(std::move(pipe), sessionId, processId, overTotal); // NOLINT(bugprone-use-after-move)
    if (refusedBefore > 1)
        Log(LogLevel::Warning, L"CStatusServer::OnConnected: ",
            L"%u status connection(s) were refused over the limits", refusedBefore);
    if (!connection->Start())
        Reap(id);
}

void CStatusServer::Refuse(daxlib::unique_hfile pipe, uint32_t sessionId, uint32_t processId, bool overTotal)
{
    bool first = false;
    {
        daxlib::lock_guard lock(m_srwState);
        first = m_dwRefusedInBurst++ == 0;
    }
    // One line per burst: a flood must not flood the log as well.
    if (first)
        Log(LogLevel::Warning, L"CStatusServer::Refuse: ",
            L"%u status connection(s) open %s, the limit: client of session %u (process %u) refused, and "
            L"further "
            L"ones until one is admitted again",
            overTotal ? m_settings.maxConnections : m_settings.maxConnectionsPerSession,
            overTotal ? L"in all" : L"in this session", sessionId, processId);
    // The close packet fits the new pipe's empty buffer; the refusal costs no thread.
    WriteAll(pipe.get(), EncodeClose(kTooManyConnections), DeadlineAfter(kRefusalWriteMs));
}

void CStatusServer::ConnectionEnded(uint64_t id)
{
    ::PostQueuedCompletionStatus(m_hPort.get(), 0, kEndedKey,
                                 reinterpret_cast<OVERLAPPED*>(static_cast<uintptr_t>(id)));
}

void CStatusServer::Reap(uint64_t id)
{
    std::shared_ptr<CStatusConnection> ended;
    {
        daxlib::lock_guard lock(m_srwState);
        const auto found = m_connections.find(id);
        if (found == m_connections.end())
            return;
        ended = std::move(found->second);
        m_connections.erase(found);
        const auto count = m_sessionConnections.find(ended->SessionId());
        if (count != m_sessionConnections.end() && --count->second == 0)
            m_sessionConnections.erase(count);
    }
    // Joined here, outside the lock.
}

size_t CStatusServer::ConnectionCount() const
{
    daxlib::shared_lock lock(m_srwState);
    return m_connections.size();
}

bool CStatusServer::InspectPeer(HANDLE pipe, PeerIdentity& identity) const
{
    return m_inspectPeer ? m_inspectPeer(pipe, identity) : InspectPipeClient(pipe, identity);
}

void CStatusServer::OnStatusChanged(const ChannelStatusRecord& record, uint32_t sessionId)
{
    daxlib::lock_guard lock(m_srwState);
    m_records[sessionId] = record;
    for (auto& [id, connection] : m_connections)
        connection->Offer(sessionId, record);
}

namespace
{
// kOk when the connection may ask with that scope, else the answer's result.
uint32_t ScopeResult(const CStatusConnection& connection, uint32_t scope)
{
    if (scope != kOwnSession && scope != kAllSessions)
        return kBadScope;
    if (scope == kAllSessions && !connection.IsAdministrator())
        return kDenied;
    return kOk;
}
} // namespace

Answer CStatusServer::Respond(CStatusConnection& connection, const Request& request, bool subscribe)
{
    Answer answer;
    answer.requestId = request.id;
    answer.result = ScopeResult(connection, request.scope);
    if (answer.result != kOk)
        return answer;
    // Asked before the lock: the session list is another object's, and OnStatusChanged may be
    // waiting for the lock with a session handler's lock held.
    const std::vector<uint32_t> open = m_sessions ? m_sessions() : std::vector<uint32_t>();
    daxlib::lock_guard lock(m_srwState);
    if (subscribe && !connection.Subscribe(request.id, request.scope))
    {
        answer.result = kAlreadySubscribed;
        return answer;
    }
    for (uint32_t session : open)
    {
        if (!Reaches(request.scope, connection.SessionId(), session))
            continue;
        SessionEntry entry{session, {}};
        const auto known = m_records.find(session);
        if (known != m_records.end())
            entry.record = known->second;
        else
            entry.record.dwState = eCvUrlApiEvent_RdpNotConnected; // a new handler's record
        answer.entries.push_back(entry);
    }
    if (request.scope == kOwnSession && answer.entries.empty())
        answer.result = kNoChannel;
    return answer;
}

CountersAnswer CStatusServer::RespondCounters(const CStatusConnection& connection,
                                              const Request& request) const
{
    CountersAnswer answer;
    answer.requestId = request.id;
    answer.result = ScopeResult(connection, request.scope);
    if (answer.result != kOk)
        return answer;
    // The counters are another object's, read without the state lock: a snapshot of relaxed atomics.
    const auto all = m_counters ? m_counters() : std::vector<std::pair<uint32_t, SessionCountersSnapshot>>();
    for (const auto& [session, counters] : all)
        if (Reaches(request.scope, connection.SessionId(), session))
            answer.entries.push_back({session, counters});
    if (request.scope == kOwnSession && answer.entries.empty())
        answer.entries.push_back({connection.SessionId(), {}});
    return answer;
}
