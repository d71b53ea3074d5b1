#pragma once
// The host's half of the forwarded WTS calls: a loopback TCP server that answers the test-only
// wtsapi32.dll of a Wine prefix as a Remote Desktop host would, with one session whose client
// comes and goes, and whose "velomar" channel is the real FreeRDP channel of the client connected
// now. A thread per calling connection; the DLL keeps one connection per calling thread.
#include <winpr/wtsapi.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

class CWtsForwardServer
{
public:
    // The session every client is, as Wine reports every pipe client in session 1.
    static constexpr uint32_t kSessionId = 1;

    explicit CWtsForwardServer(std::string channelName) : m_channelName(std::move(channelName)) {}
    ~CWtsForwardServer();
    CWtsForwardServer(const CWtsForwardServer&) = delete;
    CWtsForwardServer& operator=(const CWtsForwardServer&) = delete;

    const std::string& ChannelName() const noexcept { return m_channelName; }

    // Listens on 127.0.0.1 at a free port and starts accepting.
    bool Start(uint16_t& port);
    void Stop();

    // A client is connected; `channel` is its open channel (null when it did not join it).
    void ClientConnected(HANDLE channel);
    // The client has gone: its channel fails every call from now on and is closed here once no
    // call uses it.
    void ClientGone();

private:
    struct PeerChannel
    {
        HANDLE channel = nullptr;
        HANDLE readable = nullptr; // WinPR's, owned by the channel
        std::atomic<bool> gone{false};
        std::shared_mutex inUse;
    };

    void AcceptLoop();
    void Serve(int socket);
    void ServeCalls(int socket);
    bool Answer(int socket, uint32_t ok, uint32_t error, uint32_t value, const std::vector<uint8_t>& payload);
    std::shared_ptr<PeerChannel> Attached(uint32_t handle);

    const std::string m_channelName;
    int m_listen = -1;
    std::atomic<bool> m_stopping{false};
    std::thread m_acceptor;

    std::mutex m_lock;
    std::condition_variable m_changed;
    bool m_connected = false;
    uint64_t m_changes = 0; // session events so far
    uint64_t m_flushes = 0;
    std::shared_ptr<PeerChannel> m_current;                     // the connected client's channel
    std::map<uint32_t, std::shared_ptr<PeerChannel>> m_handles; // handed to the DLL
    uint32_t m_nextHandle = 0;
    std::vector<int> m_sockets;
    std::vector<std::thread> m_servers;
};
