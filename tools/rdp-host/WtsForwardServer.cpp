#include "tools/rdp-host/WtsForwardServer.h"

#include "tools/wts-forward/WtsForwardWire.h"

#include <winpr/synch.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <random>
#include <utility>

namespace
{

using namespace WtsForward;

// The logon time of the one session: fixed, so a client that reconnects finds its session again.
constexpr uint64_t kLogonTime = 0x01DB000000000000ull;

bool ReadAll(int socket, void* buffer, size_t size)
{
    auto* at = static_cast<uint8_t*>(buffer);
    while (size > 0)
    {
        const ssize_t got = ::recv(socket, at, size, 0);
        if (got <= 0)
            return false;
        at += got;
        size -= static_cast<size_t>(got);
    }
    return true;
}

bool WriteAll(int socket, const void* bytes, size_t size)
{
    const auto* at = static_cast<const uint8_t*>(bytes);
    while (size > 0)
    {
        const ssize_t sent = ::send(socket, at, size, MSG_NOSIGNAL);
        if (sent <= 0)
            return false;
        at += sent;
        size -= static_cast<size_t>(sent);
    }
    return true;
}

void PutU32(std::vector<uint8_t>& out, uint32_t value)
{
    for (int i = 0; i < 4; ++i)
        out.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

} // namespace

CWtsForwardServer::~CWtsForwardServer()
{
    Stop();
}

bool CWtsForwardServer::Start(uint16_t& port)
{
    m_listen = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_listen < 0)
        return false;
    std::random_device seed;
    port = static_cast<uint16_t>(std::uniform_int_distribution<int>(20000, 60000)(seed));
    for (int tries = 0; tries < 200; ++tries, ++port)
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(port);
        if (::bind(m_listen, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
            ::listen(m_listen, 16) == 0)
        {
            m_acceptor = std::thread([this] { AcceptLoop(); });
            return true;
        }
    }
    return false;
}

void CWtsForwardServer::Stop()
{
    if (m_stopping.exchange(true))
        return;
    if (m_listen >= 0)
        ::shutdown(m_listen, SHUT_RDWR);
    {
        std::lock_guard lock(m_lock);
        for (int socket : m_sockets)
            ::shutdown(socket, SHUT_RDWR);
        ++m_flushes;
    }
    m_changed.notify_all();
    if (m_acceptor.joinable())
        m_acceptor.join();
    for (auto& server : m_servers)
        server.join();
    for (int socket : m_sockets)
        ::close(socket);
    if (m_listen >= 0)
        ::close(m_listen);
    ClientGone();
}

void CWtsForwardServer::AcceptLoop()
{
    while (!m_stopping.load())
    {
        const int socket = ::accept4(m_listen, nullptr, nullptr, SOCK_CLOEXEC);
        if (socket < 0)
            break;
        const int on = 1;
        ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        std::lock_guard lock(m_lock);
        if (m_stopping.load())
        {
            ::close(socket);
            break;
        }
        m_sockets.push_back(socket);
        m_servers.emplace_back([this, socket] { Serve(socket); });
    }
}

void CWtsForwardServer::ClientConnected(HANDLE channel)
{
    auto peer = std::make_shared<PeerChannel>();
    peer->channel = channel;
    if (channel)
    {
        void* buffer = nullptr;
        DWORD size = 0;
        if (WTSVirtualChannelQuery(channel, WTSVirtualEventHandle, &buffer, &size) && buffer)
        {
            std::memcpy(&peer->readable, buffer, sizeof peer->readable);
            WTSFreeMemory(buffer);
        }
    }
    {
        std::lock_guard lock(m_lock);
        m_current = std::move(peer);
        m_connected = true;
        ++m_changes;
    }
    m_changed.notify_all();
}

void CWtsForwardServer::ClientGone()
{
    std::shared_ptr<PeerChannel> gone;
    {
        std::lock_guard lock(m_lock);
        gone = std::exchange(m_current, nullptr);
        if (m_connected)
            ++m_changes;
        m_connected = false;
    }
    m_changed.notify_all();
    if (!gone)
        return;
    gone->gone = true;
    std::unique_lock alone(gone->inUse); // waits for the reads and writes on it
    if (gone->channel)
        WTSVirtualChannelClose(gone->channel);
    gone->channel = nullptr;
}

std::shared_ptr<CWtsForwardServer::PeerChannel> CWtsForwardServer::Attached(uint32_t handle)
{
    std::lock_guard lock(m_lock);
    const auto found = m_handles.find(handle);
    return found == m_handles.end() ? nullptr : found->second;
}

bool CWtsForwardServer::Answer(int socket, uint32_t ok, uint32_t error, uint32_t value,
                               const std::vector<uint8_t>& payload)
{
    const WtsForward::Answer answer{ok, error, value, static_cast<uint32_t>(payload.size())};
    return WriteAll(socket, &answer, sizeof answer) && WriteAll(socket, payload.data(), payload.size());
}

void CWtsForwardServer::Serve(int socket)
{
    ServeCalls(socket);
    // The caller's thread has ended or sent what makes no sense: its connection goes now.
    std::lock_guard lock(m_lock);
    const auto found = std::find(m_sockets.begin(), m_sockets.end(), socket);
    if (found != m_sockets.end())
    {
        m_sockets.erase(found);
        ::close(socket);
    }
}

void CWtsForwardServer::ServeCalls(int socket)
{
    std::vector<uint8_t> payload;
    std::vector<uint8_t> out;
    for (;;)
    {
        Request request;
        if (!ReadAll(socket, &request, sizeof request) || request.payloadLength > kMaxPayload)
            return;
        payload.resize(request.payloadLength);
        if (!ReadAll(socket, payload.data(), payload.size()))
            return;
        out.clear();
        uint32_t ok = 1, error = 0, value = 0;
        switch (static_cast<Op>(request.op))
        {
        case Op::Enumerate:
        {
            std::lock_guard lock(m_lock);
            const std::u16string name = m_connected ? u"RDP-Tcp#1" : u"";
            PutU32(out, kSessionId);
            PutU32(out, m_connected ? WTSActive : WTSDisconnected);
            PutU32(out, static_cast<uint32_t>(name.size()));
            for (char16_t ch : name)
            {
                out.push_back(static_cast<uint8_t>(ch));
                out.push_back(static_cast<uint8_t>(ch >> 8));
            }
            break;
        }
        case Op::QueryLogon:
            if (request.a == kSessionId)
                for (int i = 0; i < 8; ++i)
                    out.push_back(static_cast<uint8_t>(kLogonTime >> (8 * i)));
            else
                ok = 0, error = ERROR_NOT_FOUND;
            break;
        case Op::WaitEvent:
        {
            std::unique_lock lock(m_lock);
            if (request.a & WTS_EVENT_FLUSH)
            {
                ++m_flushes;
                m_changed.notify_all();
                break;
            }
            const uint64_t changes = m_changes, flushes = m_flushes;
            m_changed.wait(lock, [&] { return m_changes != changes || m_flushes != flushes; });
            value = m_flushes != flushes ? WTS_EVENT_FLUSH
                                         : (m_connected ? WTS_EVENT_CONNECT : WTS_EVENT_DISCONNECT);
            break;
        }
        case Op::OpenEx:
        {
            std::lock_guard lock(m_lock);
            const std::string name(payload.begin(), payload.end());
            if (request.a != kSessionId || name != m_channelName || !m_current || !m_current->channel)
            {
                ok = 0, error = ERROR_NOT_FOUND;
                break;
            }
            value = ++m_nextHandle;
            m_handles[value] = m_current;
            break;
        }
        case Op::Read:
        case Op::Write:
        {
            const auto peer = Attached(request.a);
            if (!peer)
            {
                ok = 0, error = ERROR_INVALID_HANDLE;
                break;
            }
            std::shared_lock use(peer->inUse);
            if (peer->gone.load() || !peer->channel)
            {
                ok = 0, error = ERROR_NOT_CONNECTED;
                break;
            }
            if (static_cast<Op>(request.op) == Op::Write)
            {
                ULONG written = 0;
                ok = WTSVirtualChannelWrite(peer->channel, reinterpret_cast<PCHAR>(payload.data()),
                                            static_cast<ULONG>(payload.size()), &written);
                error = ok ? 0 : GetLastError();
                value = written;
            }
            else if (request.c == 0)
            {
                // A read into no room: waits for something to arrive, and takes nothing.
                const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(request.b);
                for (;;)
                {
                    if (peer->gone.load())
                    {
                        ok = 0, error = ERROR_NOT_CONNECTED;
                        break;
                    }
                    if (peer->readable && WaitForSingleObject(peer->readable, 20) == WAIT_OBJECT_0)
                    {
                        ok = 0, error = ERROR_INSUFFICIENT_BUFFER;
                        break;
                    }
                    if (!peer->readable)
                        usleep(20000);
                    if (std::chrono::steady_clock::now() >= deadline)
                        break;
                }
            }
            else
            {
                out.resize(std::min<uint32_t>(request.c, 64 * 1024));
                ULONG got = 0;
                ok = WTSVirtualChannelRead(peer->channel, 0, reinterpret_cast<PCHAR>(out.data()),
                                           static_cast<ULONG>(out.size()), &got);
                error = ok ? 0 : GetLastError();
                out.resize(ok ? got : 0);
            }
            break;
        }
        case Op::Close:
        {
            std::lock_guard lock(m_lock);
            m_handles.erase(request.a);
            break;
        }
        default:
            ok = 0, error = ERROR_INVALID_FUNCTION;
            break;
        }
        if (!Answer(socket, ok, error, value, out))
            return;
    }
}
