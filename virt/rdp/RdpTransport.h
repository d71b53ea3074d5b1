#pragma once
// The URL channel over plain Remote Desktop: sessions come from the host's own session list, and
// each session's channel is the static virtual channel "velomar" of its RDP connection, opened
// from the service. One handle per session at most: opening a static channel again while one is
// open can stall for seconds and disturb the open one, so a session's handle is closed, and no
// call is still using it, before the next one is opened.
#include "common/Locks.h"
#include "common/UniqueHandle.h"
#include "virt/ChannelTransport.h"
#include "virt/rdp/VirtualChannelStream.h"

#include <atomic>
#include <map>
#include <memory>
#include <set>
#include <string>

// The session calls the transport makes; tests replace them.
struct WtsSessionCalls
{
    decltype(&::WTSEnumerateSessionsW) enumerate;
    decltype(&::WTSFreeMemory) freeMemory;
    decltype(&::WTSQuerySessionInformationW) query;
    decltype(&::WTSWaitSystemEvent) waitEvent;
};
const WtsSessionCalls& SystemWtsSessionCalls() noexcept;

class CRdpTransport final : public IChannelTransport
{
public:
    static constexpr char kChannelName[] = "velomar";
    // How often the session list is read when the host cannot tell of changes.
    static constexpr DWORD kSessionPollMs = 2000;
    // The session events that make the list be read again.
    static constexpr DWORD kSessionEvents = WTS_EVENT_CREATE | WTS_EVENT_DELETE | WTS_EVENT_LOGON |
                                            WTS_EVENT_LOGOFF | WTS_EVENT_CONNECT | WTS_EVENT_DISCONNECT;

    explicit CRdpTransport(const WtsSessionCalls& sessions = SystemWtsSessionCalls(),
                           const WtsChannelCalls& channels = SystemWtsChannelCalls());
    ~CRdpTransport() override;
    CRdpTransport(const CRdpTransport&) = delete;
    CRdpTransport& operator=(const CRdpTransport&) = delete;

    std::wstring Describe() const override;
    bool Init(const Log& log) override;
    void Subscribe(SkApi::SessionCallback opened, SkApi::SessionCallback closed, void* context) override;
    bool StartNotification() override;
    void CleanUp() override;

    HANDLE Connect(const Log& log, const wchar_t* origin, const wchar_t* guidText,
                   uint32_t sessionId) override;
    bool WatchConnection(HANDLE connection, SkApi::ConnectionCallback callback, void* context) override;
    BOOL Read(HANDLE connection, void* buffer, DWORD* count, DWORD timeoutMs) override;
    BOOL Write(HANDLE connection, const void* bytes, DWORD* count, DWORD timeoutMs) override;
    void Close(HANDLE connection) override;

    // The GUID a session is known by: its id and its logon time, so that a new logon under an old
    // id is a new session.
    static GUID SessionGuid(uint32_t sessionId, uint64_t logonTime) noexcept;

private:
    struct Connection;
    struct KnownSession
    {
        uint64_t logonTime = 0;
        SkApi::SessionNotification notification{};
    };

    static unsigned __stdcall SessionThreadEntry(void* self);
    unsigned SessionThread();
    // Reads the session list and reports what opened and closed since the last reading.
    void Refresh();
    uint64_t LogonTimeOf(uint32_t sessionId);
    std::shared_ptr<Connection> Find(HANDLE connection) const;
    // Runs a read or write on the connection's stream, which Close cannot take away meanwhile.
    template <typename Call> BOOL Use(HANDLE connection, Call call);
    // Tells the connection's watcher it broke, once, unless it was closed on purpose.
    void ReportBroken(const std::shared_ptr<Connection>& connection);

    const WtsSessionCalls m_sessionCalls;
    const WtsChannelCalls m_channelCalls;
    const Log* m_pLog = nullptr; // from Init until CleanUp
    SkApi::SessionCallback m_opened = nullptr;
    SkApi::SessionCallback m_closed = nullptr;
    void* m_pContext = nullptr;
    daxlib::unique_handle m_hevStop;
    daxlib::unique_handle m_hSessionThread;
    // Only the session thread touches these once it runs.
    std::map<uint32_t, KnownSession> m_known;
    uint64_t m_generation = 0; // stands in for a logon time the host does not give

    mutable daxlib::srw_lock m_srwConnections;
    std::map<uintptr_t, std::shared_ptr<Connection>> m_connections TS_GUARDED_BY(m_srwConnections);
    std::map<uint32_t, DWORD> m_lastOpenError TS_GUARDED_BY(m_srwConnections); // by session
    // Sessions whose channel is open or being opened.
    std::set<uint32_t> m_sessionsWithChannel TS_GUARDED_BY(m_srwConnections);
    uintptr_t m_nextConnection TS_GUARDED_BY(m_srwConnections) = 0;
};
