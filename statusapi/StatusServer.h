#pragma once
// The status API pipe: local programs learn the channel status of their own session (all
// sessions, for administrators), now or at every change. Its own completion port takes the
// connects; each admitted client gets a thread of its own (CStatusConnection) until it leaves.
// Status changes come from the session handlers' threads through OnStatusChanged, which only
// records them and queues them for the subscribers: it never waits on a client.
#include "common/BaseItem.h"
#include "common/Locks.h"
#include "common/ProcessSecurity.h"
#include "common/WorkerThread.h"
#include "pipe/PipeInstance.h"
#include "statusapi/PeerIdentity.h"
#include "statusapi/StatusProtocol.h"
#include "virt/ChannelStatus.h"

#include <windows.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

class CDaxSecattr;
class CStatusConnection;

// Bounds of the status API. Each connection holds a thread, so they are lower than the agent
// pipe's; velomar-status connects only for as long as it runs.
struct StatusApiSettings
{
    static constexpr uint32_t kDefaultMaxPerSession = 16;
    static constexpr uint32_t kDefaultMaxTotal = 256;

    uint32_t maxConnectionsPerSession = kDefaultMaxPerSession;
    uint32_t maxConnections = kDefaultMaxTotal;
    DWORD helloTimeoutMs = 5000;
    // Changes a subscriber may leave unread once the pipe's own buffer is full; one more drops it.
    uint32_t queueDepth = 32;
    // How long a dropped or refused client has to read what was already written to it, its close
    // packet last, before the pipe is closed under it.
    DWORD drainTimeoutMs = 5000;
    // How long a client may leave an answer or a change unread once the pipe's own buffer is
    // full, before its connection is closed under it.
    DWORD answerTimeoutMs = 5000;
};

class CStatusServer : public IBaseItem
{
public:
    // The session a client counts in: (client process id, session the pipe reports). Tests use it
    // to play several sessions, which Wine cannot report; daxlib::kUnknownSession refuses the client.
    using SessionResolver = std::function<uint32_t(uint32_t processId, uint32_t reportedSession)>;
    // The sessions that have a channel now.
    using SessionList = std::function<std::vector<uint32_t>()>;
    // The counters of every session seen since the service started.
    using CounterList = std::function<std::vector<std::pair<uint32_t, SessionCountersSnapshot>>()>;
    // Who the client of a pipe is; tests play other users and non-administrators with it.
    using PeerInspector = std::function<bool(HANDLE pipe, statusapi::PeerIdentity& identity)>;

    static constexpr uint32_t kAccepts = 2;        // instances waiting for clients at once
    static constexpr DWORD kPipeBufferSize = 4096; // about five notifications
    static constexpr DWORD kRefusalWriteMs = 1000; // a refused client's close packet fits the empty buffer

    explicit CStatusServer(std::shared_ptr<ICvLogger> logger,
                           const std::wstring& pipeName = daxlib::kStatusPipeName);
    ~CStatusServer() override;
    CStatusServer(const CStatusServer&) = delete;
    CStatusServer& operator=(const CStatusServer&) = delete;

    // All before Start.
    void SetSettings(const StatusApiSettings& settings) { m_settings = settings; }
    void SetSessionList(SessionList sessions) { m_sessions = std::move(sessions); }
    void SetCounterList(CounterList counters) { m_counters = std::move(counters); }
    void SetSessionResolver(SessionResolver resolver) { m_resolveSession = std::move(resolver); }
    void SetPeerInspector(PeerInspector inspector) { m_inspectPeer = std::move(inspector); }
    void SetInstanceCreator(PipeInstanceCreator creator) { m_createInstance = std::move(creator); }

    int Start() override;
    int Stop() override;

    // The status listener: keeps the session's latest record and queues it for its subscribers.
    void OnStatusChanged(const ChannelStatusRecord& record, uint32_t sessionId);
    ChannelStatusListener Listener()
    {
        return [this](const ChannelStatusRecord& record, uint32_t sessionId)
        { OnStatusChanged(record, sessionId); };
    }

    size_t ConnectionCount() const;

    // For the connections.
    const StatusApiSettings& Settings() const { return m_settings; }
    bool InspectPeer(HANDLE pipe, statusapi::PeerIdentity& identity) const;
    // Answers a request of a welcomed client; a subscription starts with the answer's records, so
    // that no change falls between them.
    statusapi::Answer Respond(CStatusConnection& connection, const statusapi::Request& request,
                              bool subscribe);
    // Answers a GetCounters. A client's own session always has an entry, of zeros before the
    // session's first URL or channel.
    statusapi::CountersAnswer RespondCounters(const CStatusConnection& connection,
                                              const statusapi::Request& request) const;
    // The connection's thread is about to end; the accept thread joins and frees it.
    void ConnectionEnded(uint64_t id);

private:
    struct Waiting;

    void AcceptThread();
    // Keeps kAccepts instances waiting (as far as they can be made).
    void Refill();
    bool Listen(ULONG_PTR key);
    // Cancels the instances still waiting and waits for their completions (accept thread stopped).
    void CancelWaiting();
    void OnConnected(daxlib::unique_hfile pipe);
    void Refuse(daxlib::unique_hfile pipe, uint32_t sessionId, uint32_t processId, bool overTotal);
    void Reap(uint64_t id);

    std::wstring m_strPipeName;
    StatusApiSettings m_settings;
    SessionList m_sessions;
    CounterList m_counters;
    SessionResolver m_resolveSession;
    PeerInspector m_inspectPeer;
    PipeInstanceCreator m_createInstance;
    std::shared_ptr<CDaxSecattr> m_pAttributes;
    daxlib::unique_handle m_hPort;
    // The accept thread's alone once it runs (Start makes the first instances before it starts).
    std::map<ULONG_PTR, std::unique_ptr<Waiting>> m_waiting;
    ULONG_PTR m_nNextKey;
    uint64_t m_qwNextConnection = 1;
    uint32_t m_dwUnknownSessionBurst = 0; // clients without a known session since one was admitted
    bool m_bNameTaken = false;
    // Guards the records, the connection table, the per-session counts and the refusal burst.
    // Taken by OnStatusChanged on the session handlers' threads with their state lock held; under
    // it only a connection's queue lock is taken, never anything that waits.
    mutable daxlib::srw_lock m_srwState;
    std::map<uint32_t, ChannelStatusRecord> m_records TS_GUARDED_BY(m_srwState);
    std::map<uint64_t, std::shared_ptr<CStatusConnection>> m_connections TS_GUARDED_BY(m_srwState);
    std::map<uint32_t, uint32_t> m_sessionConnections TS_GUARDED_BY(m_srwState);
    uint32_t m_dwRefusedInBurst TS_GUARDED_BY(m_srwState) = 0;
    // Declared last: it stops first.
    daxlib::CWorkerThread m_acceptThread;
};
