#pragma once
// One client of the status API pipe on a thread of its own: the hello within its deadline, then
// requests and answers, and the notifications of a subscription from a bounded queue. A client
// that lets the queue overflow is dropped with a close packet that says so.
#include "common/BaseLogger.h"
#include "common/Locks.h"
#include "common/UniqueHandle.h"
#include "common/WorkerThread.h"
#include "statusapi/StatusProtocol.h"

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

class CStatusServer;

class CStatusConnection : public CommonHelper::CvLogger::CBaseLogger
{
public:
    CStatusConnection(CStatusServer& server, std::shared_ptr<ICvLogger> logger, uint64_t id,
                      daxlib::unique_hfile pipe, uint32_t processId, uint32_t sessionId);
    ~CStatusConnection() override;
    CStatusConnection(const CStatusConnection&) = delete;
    CStatusConnection& operator=(const CStatusConnection&) = delete;

    bool Start();
    // Asks the thread to say goodbye and end, without waiting for it.
    void RequestStop();

    uint64_t Id() const { return m_qwId; }
    uint32_t SessionId() const { return m_dwSessionId; }
    // Known once the hello held; read on the connection's own thread only.
    bool IsAdministrator() const { return m_bAdministrator; }

    // Both under the server's state lock. False when the connection subscribed already.
    bool Subscribe(uint32_t requestId, uint32_t scope);
    // Queues a change for the subscriber, or marks it overflowed; never waits.
    void Offer(uint32_t sessionId, const ChannelStatusRecord& record);

private:
    enum class Greeting
    {
        Welcomed,
        Refused, // close with the reason
        Gone,    // the client left or failed; nothing more to say to it
    };

    void Run();
    Greeting Greet(uint32_t& reason);
    void Serve();
    // The queued notifications as packets, appended to `out`.
    void TakeQueued(std::vector<uint8_t>& out);
    bool Overflowed();
    // How long a client closed for this reason has to read what it was sent, the close last.
    DWORD DrainMs(uint32_t reason) const;

    CStatusServer& m_server;
    const uint64_t m_qwId;
    daxlib::unique_hfile m_hPipe;
    const uint32_t m_dwProcessId;
    const uint32_t m_dwSessionId;
    bool m_bAdministrator = false;
    uint32_t m_dwVersion = statusapi::kMinProtocolVersion; // the one the client's hello said
    // Auto-reset: the queue has news, or a stop was asked for (the thread waits for nothing else).
    daxlib::unique_handle m_hevWake;
    std::atomic<bool> m_bStopRequested{false};
    // Guards the subscription and its queue.
    daxlib::srw_lock m_srwQueue;
    bool m_bSubscribed TS_GUARDED_BY(m_srwQueue) = false;
    uint32_t m_dwSubscription TS_GUARDED_BY(m_srwQueue) = 0; // the Subscribe's request id
    uint32_t m_dwScope TS_GUARDED_BY(m_srwQueue) = statusapi::kOwnSession;
    std::deque<statusapi::SessionEntry> m_queue TS_GUARDED_BY(m_srwQueue);
    bool m_bOverflowed TS_GUARDED_BY(m_srwQueue) = false;
    // Declared last: joined before anything it uses goes.
    daxlib::CWorkerThread m_thread;
};
