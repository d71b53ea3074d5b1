#pragma once
// The process's virtual-channel server: readies the channel transport, follows its session
// notifications with one CSessionHandler per open remote session, and routes each URL to the
// handler of the agent's session.
#include "common/BaseItem.h"
#include "common/Locks.h"
#include "virt/ChannelStatus.h"
#include "virt/ChannelTransport.h"
#include "virt/SessionHandler.h"
#include "virt/SkApiTypes.h"

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

class CVirtServer : public IBaseItem
{
public:
    // `transport` null: the channel library. `fallback`: used when `transport` cannot be readied.
    explicit CVirtServer(std::shared_ptr<ICvLogger> logger,
                         std::shared_ptr<IChannelTransport> transport = nullptr,
                         std::shared_ptr<IChannelTransport> fallback = nullptr);
    ~CVirtServer() override;
    CVirtServer(const CVirtServer&) = delete;
    CVirtServer& operator=(const CVirtServer&) = delete;

    int Start() override { return Init() ? 1 : 0; }
    int Stop() override
    {
        Free();
        return 1;
    }

    // Readies the transport (or else the fallback) and subscribes to its session notifications.
    bool Init();
    void Free();
    // Nonzero when the URL was written to that session's channel.
    int SendURL(uint32_t sessionId, std::wstring url);

    // A URL of the session that the URL policy refused before it came here.
    void CountRefusedByPolicy(uint32_t sessionId);
    // The counters of every session seen since the process started, by session id.
    std::vector<std::pair<uint32_t, SessionCountersSnapshot>> CounterSnapshots() const;

    // Every status change of every session; set it before Init. May be left empty.
    void SetStatusListener(ChannelStatusListener listener);

    void OnSessionOpened(uint32_t type, const SkApi::SessionNotification& notification);
    void OnSessionClosed(uint32_t type, const SkApi::SessionNotification& notification);

    bool IsInitialized() const noexcept { return m_bInitialized; }
    // The transport in use (the first one before Init), for the log and the start event.
    std::wstring DescribeTransport() const;
    // The handler of a session, empty when there is none (for status queries and tests).
    std::shared_ptr<CSessionHandler> FindSession(uint32_t sessionId) const;
    // The sessions that have a handler now. Takes only the session table's lock, never a handler's.
    std::vector<uint32_t> SessionIds() const;

    // "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x", lower-case, no braces.
    static std::wstring GuidText(const GUID& guid);

private:
    static void WINAPI SessionOpenedTrampoline(DWORD event, const SkApi::SessionNotification* notification,
                                               void* context);
    static void WINAPI SessionClosedTrampoline(DWORD event, const SkApi::SessionNotification* notification,
                                               void* context);
    void Publish(const ChannelStatusRecord& record, uint32_t sessionId) const;
    // The session's counters, made on first use; they outlive its handlers and Free.
    std::shared_ptr<SessionCounters> CountersOf(uint32_t sessionId);

    std::atomic<bool> m_bInitialized{false};
    // Chosen by Init, before any session exists; fixed from then on.
    std::shared_ptr<IChannelTransport> m_pTransport;
    std::shared_ptr<IChannelTransport> m_pFallback;
    mutable daxlib::srw_lock m_srwSessions;
    std::map<uint32_t, std::shared_ptr<CSessionHandler>> m_sessions TS_GUARDED_BY(m_srwSessions);
    // Never held while another lock is taken.
    mutable daxlib::srw_lock m_srwCounters;
    std::map<uint32_t, std::shared_ptr<SessionCounters>> m_counters TS_GUARDED_BY(m_srwCounters);
    mutable daxlib::critical_section m_csListener;
    ChannelStatusListener m_listener TS_GUARDED_BY(m_csListener);
};
