#pragma once
// The agent pipe: agents in the users' sessions connect to it, hand over URLs one message at a
// time and get one status word per URL. Each URL goes to the client side of the agent's own
// session, as the system reports it for the pipe connection.
#include "common/BaseItem.h"
#include "common/Locks.h"
#include "common/PipeNames.h"
#include "common/ProcessSecurity.h"
#include "common/WorkerThread.h"
#include "pipeserver/ConnectionHandler.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

class CNamedPipeServer;
class CNamedPipeServerStream;
struct PIPE_OVERLAPPED;
template <typename T> class CSignalQueueThread;

using daxlib::kAgentPipeName;
// A payload longer than this is no URL: the connection is closed instead of buffering it.
constexpr uint32_t kMaxAgentPayload = 1u << 20;

// Who may open the agent pipe with which rights, and how many agents may be connected at once.
// A connection over either bound is closed as soon as it arrives, so that one session's flood
// can neither exhaust the service nor crowd out the agents of other sessions.
struct AgentPipeSettings
{
    static constexpr uint32_t kDefaultMaxPerSession = 64;
    static constexpr uint32_t kDefaultMaxTotal = 1024;
    static constexpr uint32_t kDefaultReplyTimeoutMs = 5000;

    bool legacyClientAccess = false; // agents that open with GENERIC_WRITE
    uint32_t maxConnectionsPerSession = kDefaultMaxPerSession;
    uint32_t maxConnections = kDefaultMaxTotal;
    // An answer the agent has not taken within this time ends its connection.
    uint32_t replyTimeoutMs = kDefaultReplyTimeoutMs;
};

// The session a new connection counts against: (client process id, session the pipe reports).
// daxlib::kUnknownSession refuses the connection.
using SessionResolver = std::function<uint32_t(uint32_t processId, uint32_t reportedSession)>;

class CPipeServer : public IBaseItem
{
public:
    struct NewConnectData
    {
        void* h = nullptr;
        uint64_t channelId = 0;
    };

    explicit CPipeServer(std::shared_ptr<ICvLogger> logger, std::wstring pipeName = kAgentPipeName);
    ~CPipeServer() override;
    CPipeServer(const CPipeServer&) = delete;
    CPipeServer& operator=(const CPipeServer&) = delete;

    // Where URLs go; without it every URL is answered as not sent.
    void SetUrlSender(UrlSender sender);
    // The URL policy each new connection applies; without it, the default policy.
    void SetUrlPolicy(UrlPolicySource policy);
    // Told of every URL the policy refuses, by the agent's session. May be left empty.
    void SetRefusalCounter(UrlRefusalCounter counter);
    // Both before Start. The resolver replaces the pipe's own session report: tests use it to
    // play several sessions, which Wine cannot report.
    void SetSettings(const AgentPipeSettings& settings) { m_settings = settings; }
    void SetSessionResolver(SessionResolver resolver) { m_resolveSession = std::move(resolver); }

    int Start() override;
    int Stop() override;

    void OnConnectedChannel(void* h, unsigned long long, void*);
    void OnDisconnectedChannel(void* h, unsigned long long channelId, void*);
    int InitConnectionHandler(NewConnectData& data);
    uint64_t GetNextChannelID();
    int GetProcessFile(uint32_t pid, std::wstring& path);

    size_t ConnectionCount() const;
    std::shared_ptr<CConnectionHandler> FindHandler(uint64_t channelId) const;

    // For tests of the counter's wrap: sets the next id to be handed out.
    static void SetNextChannelIDForTest(uint64_t next);

private:
    void ReadHeader(const std::shared_ptr<CConnectionHandler>& handler, uint64_t channelId);
    void ReadBody(const std::shared_ptr<CConnectionHandler>& handler, uint64_t channelId, uint32_t length);
    void OnHeaderRead(const std::shared_ptr<unsigned char[]>& buffer, unsigned long bytes,
                      unsigned long error, PIPE_OVERLAPPED* overlapped, uint64_t channelId);
    void OnBodyRead(const std::shared_ptr<unsigned char[]>& buffer, unsigned long bytes, unsigned long error,
                    PIPE_OVERLAPPED* overlapped, uint64_t channelId);
    void OnReplyWritten(const std::shared_ptr<unsigned char[]>& buffer, unsigned long bytes,
                        unsigned long error, PIPE_OVERLAPPED* overlapped, uint64_t channelId);
    // The watch's round: connections whose answer is overdue are closed, one warning a burst.
    void EndOverdueReplies();
    void RemoveChannel(uint64_t channelId);
    // Enters the handler when its session and the server are under their bounds.
    bool Admit(uint64_t channelId, const std::shared_ptr<CConnectionHandler>& handler);

    std::wstring m_strPipeName;
    std::shared_ptr<CNamedPipeServer> m_pNamedPipeServer;
    std::shared_ptr<CSignalQueueThread<NewConnectData>> m_pConnectQueue;
    AgentPipeSettings m_settings;
    SessionResolver m_resolveSession;
    // Guards the connection table, the per-session counts and the refusal burst.
    mutable daxlib::srw_lock m_srwTable;
    std::map<uint64_t, std::shared_ptr<CConnectionHandler>> m_connections TS_GUARDED_BY(m_srwTable);
    std::map<uint32_t, uint32_t> m_sessionConnections TS_GUARDED_BY(m_srwTable);
    uint32_t m_dwRefusedInBurst TS_GUARDED_BY(m_srwTable) =
        0; // connections refused since the last one admitted
    // Connections without a known session since the last one admitted (connect-queue thread).
    std::atomic<uint32_t> m_dwUnknownSessionBurst{0};
    daxlib::srw_lock m_srwSender;
    UrlSender m_sendUrl TS_GUARDED_BY(m_srwSender);
    UrlPolicySource m_policy TS_GUARDED_BY(m_srwSender);
    UrlRefusalCounter m_countRefusal TS_GUARDED_BY(m_srwSender);
    uint32_t m_dwOverdueInBurst = 0;    // the watch's own
    daxlib::CWorkerThread m_replyWatch; // last: joined before the rest goes
};
