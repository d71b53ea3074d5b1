#pragma once
// What one session's channel has carried, refused or failed since the service started. The
// channel server keeps one per session id for the life of the process, so that the counts outlive
// the session handlers that come and go with the remote session; the handler and the agent pipe
// bump it on the URL path. Plain relaxed atomics: counting takes no lock and orders nothing. A reader (the
// status API) takes a snapshot whose fields are each exact but not taken at one instant, which is all a
// monitoring figure needs.
#include <atomic>
#include <cstdint>

struct SessionCountersSnapshot
{
    uint64_t urlsForwarded = 0;
    uint64_t urlsRefusedByPolicy = 0;
    uint64_t urlsFailed = 0; // no channel, or the write on it failed
    uint64_t handshakesCompleted = 0;
    uint64_t handshakesRefused = 0; // by the client side: its version or options
    uint64_t reconnects = 0;
    uint64_t lastUrlTime = 0; // FILETIME units (100 ns since 1601, UTC); 0: no URL yet

    bool operator==(const SessionCountersSnapshot&) const = default;
};

class SessionCounters
{
public:
    void UrlForwarded(uint64_t now) { Bump(m_urlsForwarded, now); }
    void UrlRefusedByPolicy(uint64_t now) { Bump(m_urlsRefusedByPolicy, now); }
    void UrlFailed(uint64_t now) { Bump(m_urlsFailed, now); }
    void HandshakeCompleted() { m_handshakesCompleted.fetch_add(1, std::memory_order_relaxed); }
    void HandshakeRefused() { m_handshakesRefused.fetch_add(1, std::memory_order_relaxed); }
    // The channel came up; every time after the first is a reconnect, whichever handler made it.
    void ChannelConnected()
    {
        if (m_everConnected.exchange(true, std::memory_order_relaxed))
            m_reconnects.fetch_add(1, std::memory_order_relaxed);
    }

    SessionCountersSnapshot Snapshot() const
    {
        SessionCountersSnapshot s;
        s.urlsForwarded = m_urlsForwarded.load(std::memory_order_relaxed);
        s.urlsRefusedByPolicy = m_urlsRefusedByPolicy.load(std::memory_order_relaxed);
        s.urlsFailed = m_urlsFailed.load(std::memory_order_relaxed);
        s.handshakesCompleted = m_handshakesCompleted.load(std::memory_order_relaxed);
        s.handshakesRefused = m_handshakesRefused.load(std::memory_order_relaxed);
        s.reconnects = m_reconnects.load(std::memory_order_relaxed);
        s.lastUrlTime = m_lastUrlTime.load(std::memory_order_relaxed);
        return s;
    }

private:
    // Every URL, whatever became of it, is "the last URL" an administrator asks about.
    void Bump(std::atomic<uint64_t>& counter, uint64_t now)
    {
        counter.fetch_add(1, std::memory_order_relaxed);
        m_lastUrlTime.store(now, std::memory_order_relaxed);
    }

    std::atomic<uint64_t> m_urlsForwarded{0};
    std::atomic<uint64_t> m_urlsRefusedByPolicy{0};
    std::atomic<uint64_t> m_urlsFailed{0};
    std::atomic<uint64_t> m_handshakesCompleted{0};
    std::atomic<uint64_t> m_handshakesRefused{0};
    std::atomic<uint64_t> m_reconnects{0};
    std::atomic<uint64_t> m_lastUrlTime{0};
    std::atomic<bool> m_everConnected{false};
};
