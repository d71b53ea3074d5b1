// A test RDP host on FreeRDP's server library: listens on a loopback port, accepts one client,
// opens the URL channel when the client has joined it, runs the service's side of the handshake
// through the virtual-channel stream, then sends each line of its standard input as a URL. It
// reads and reports whatever the client side sends, and says on standard output, one line at a
// time, what happened, for tests to wait on.
//
// With --forward it plays the Remote Desktop host of the service under Wine instead: it accepts
// clients one after another, as session 1, and answers the WTS calls of the test-only
// wtsapi32.dll (tools/wts-forward) with the channel of the client connected at the time.
#include "virt/Handshake.h"
#include "virt/UrlProtocol.h"
#include "tools/rdp-host/WtsForwardServer.h"
#include "virt/rdp/VirtualChannelStream.h"

#include <freerdp/channels/channels.h>
#include <freerdp/channels/wtsvc.h>
#include <freerdp/listener.h>
#include <freerdp/peer.h>
#include <freerdp/settings.h>
#include <winpr/synch.h>
#include <winpr/wtsapi.h>

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>

namespace
{

struct Options
{
    std::string certDir;
    std::string channel = "velomar";
    unsigned lifetimeSeconds = 60;
    DWORD handshakeTimeoutMs = 10000;
    bool overrideVersion = false;
    bool forward = false;
    uint32_t announcedVersion = UrlNet::LocalVersion;
};

std::mutex g_sayLock;

// One line on standard output, flushed at once: the tests read it while the host runs.
void Say(const char* format, ...)
{
    std::lock_guard lock(g_sayLock);
    va_list args;
    va_start(args, format);
    std::vfprintf(stdout, format, args);
    va_end(args);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

const char* EndName(UrlNet::HandshakeEnd end)
{
    switch (end)
    {
    case UrlNet::HandshakeEnd::Accepted:
        return "Accepted";
    case UrlNet::HandshakeEnd::Broken:
        return "Broken";
    case UrlNet::HandshakeEnd::VersionRefused:
        return "VersionRefused";
    case UrlNet::HandshakeEnd::OptionsRefused:
        return "OptionsRefused";
    case UrlNet::HandshakeEnd::VersionTooLow:
        return "VersionTooLow";
    }
    return "?";
}

const char* ErrorName(DWORD error)
{
    switch (error)
    {
    case ERROR_NOT_CONNECTED:
        return "ERROR_NOT_CONNECTED";
    case ERROR_NOT_FOUND:
        return "ERROR_NOT_FOUND";
    case WAIT_TIMEOUT:
        return "WAIT_TIMEOUT";
    default:
        return "other";
    }
}

// The session id WinPR gave the connected client, which its channels are opened by.
DWORD PeerSessionId(HANDLE manager)
{
    DWORD sessionId = 0;
    LPSTR info = nullptr;
    DWORD size = 0;
    if (WTSQuerySessionInformationA(manager, WTS_CURRENT_SESSION, WTSSessionId, &info, &size) && info)
    {
        std::memcpy(&sessionId, info, sizeof sessionId);
        WTSFreeMemory(info);
    }
    return sessionId;
}

// A WinPR event, closed with its owner.
class Event
{
public:
    Event() : m_h(CreateEventA(nullptr, TRUE, FALSE, nullptr)) {}
    ~Event()
    {
        if (m_h)
            CloseHandle(m_h);
    }
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;
    HANDLE get() const { return m_h; }
    void Set() const { SetEvent(m_h); }

private:
    HANDLE m_h;
};

// The one client's connection: its channel, the protocol on it, and what the control input asks.
class Session
{
public:
    Session(const Options& options, HANDLE manager) : m_options(options), m_hManager(manager) {}
    ~Session() { Stop(); }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // The client has said which channels it joins; opening now keeps its first bytes from
    // arriving on a channel the host has not opened, which FreeRDP answers by dropping it.
    void OpenChannel()
    {
        const BOOL joined = WTSVirtualChannelManagerIsChannelJoined(m_hManager, m_options.channel.c_str());
        Say("client joined %s: %s", m_options.channel.c_str(), joined ? "yes" : "no");
        m_stream =
            CVirtualChannelStream::OpenEx(PeerSessionId(m_hManager), m_options.channel.c_str(),
                                          [this](HANDLE channel, DWORD ms) { return Wait(channel, ms); });
        if (!m_stream)
        {
            const DWORD error = GetLastError();
            Say("channel open failed error=%u (%s)", error, ErrorName(error));
            return;
        }
        Say("channel opened");
    }

    void StartProtocol()
    {
        if (!m_stream || m_protocol.joinable())
            return;
        m_protocol = std::thread([this] { RunProtocol(); });
    }

    void Send(const std::string& url)
    {
        std::lock_guard lock(m_sendLock);
        if (!m_bReady.load())
        {
            Say("not sent: the channel is not ready");
            return;
        }
        const std::vector<uint8_t> message = UrlNet::BuildSubmitMessage(url);
        if (message.empty())
        {
            Say("not sent: empty URL");
            return;
        }
        DWORD count = static_cast<DWORD>(message.size());
        if (!m_stream->Write(message.data(), &count))
        {
            const DWORD error = GetLastError();
            Say("send failed error=%u (%s)", error, ErrorName(error));
            return;
        }
        Say("sent %zu", url.size());
    }

    // The client has gone: every channel call fails from now on.
    void PeerGone() { m_evGone.Set(); }

    void Stop()
    {
        m_evGone.Set();
        if (m_stream)
            m_stream->Break();
        if (m_protocol.joinable())
            m_protocol.join();
        m_stream.reset();
    }

private:
    ChannelReadiness Wait(HANDLE channel, DWORD ms)
    {
        // WinPR signals a channel with data through an event of its own; reads never wait.
        if (!m_hReadable)
        {
            void* buffer = nullptr;
            DWORD size = 0;
            if (!WTSVirtualChannelQuery(channel, WTSVirtualEventHandle, &buffer, &size) || !buffer)
                return ChannelReadiness::Broken;
            std::memcpy(&m_hReadable, buffer, sizeof m_hReadable);
            WTSFreeMemory(buffer);
        }
        HANDLE handles[] = {m_evGone.get(), m_hReadable};
        switch (WaitForMultipleObjects(2, handles, FALSE, ms))
        {
        case WAIT_OBJECT_0 + 1:
            return ChannelReadiness::Readable;
        case WAIT_TIMEOUT:
            return ChannelReadiness::TimedOut;
        default:
            return ChannelReadiness::Broken;
        }
    }

    void RunProtocol()
    {
        bool first = true;
        UrlNet::HandshakeIo io;
        io.write = [&](const void* bytes, uint32_t size)
        {
            uint8_t announced[4];
            // Tests make the host claim another version, to see the client side refuse it.
            if (first && m_options.overrideVersion && size == 4)
            {
                UrlNet::PutU32(announced, m_options.announcedVersion);
                bytes = announced;
            }
            first = false;
            DWORD count = size;
            return m_stream->Write(bytes, &count) != FALSE;
        };
        io.read = [&](void* bytes, uint32_t size)
        {
            DWORD count = size;
            return m_stream->Read(bytes, &count, m_options.handshakeTimeoutMs) != FALSE;
        };
        const UrlNet::HandshakeResult result = UrlNet::RunHandshake(io);
        const DWORD error = result.end == UrlNet::HandshakeEnd::Broken ? GetLastError() : 0;
        Say("handshake %s remote=0x%08x step=%d error=%u", EndName(result.end), result.remoteVersion,
            static_cast<int>(result.lastStep), error);
        if (result.end != UrlNet::HandshakeEnd::Accepted)
        {
            // After a failed handshake nothing more is sent or read on the channel.
            m_stream->Break();
            Say("channel closed");
            return;
        }
        m_bReady.store(true);
        ReadUntilBroken();
    }

    // The service's reading: every message whole, then dropped.
    void ReadUntilBroken()
    {
        for (;;)
        {
            uint8_t header[UrlNet::kHeaderSize];
            DWORD count = sizeof header;
            if (!m_stream->Read(header, &count, INFINITE))
                break;
            const UrlNet::UrlNetHeader decoded = UrlNet::DecodeHeader(header);
            std::vector<uint8_t> data(decoded.cbData);
            count = decoded.cbData;
            if (count > 0 && !m_stream->Read(data.data(), &count, INFINITE))
                break;
            Say("received command=%u bytes=%u", decoded.command, decoded.cbData);
        }
        const DWORD error = GetLastError();
        m_bReady.store(false);
        Say("read failed error=%u (%s)", error, ErrorName(error));
    }

    const Options& m_options;
    HANDLE m_hManager;
    Event m_evGone;
    HANDLE m_hReadable = nullptr; // WinPR's, owned by the channel
    std::mutex m_sendLock;
    std::atomic<bool> m_bReady{false};
    std::unique_ptr<CVirtualChannelStream> m_stream;
    std::thread m_protocol;
};

struct HostContext
{
    rdpContext base; // first: FreeRDP allocates ContextSize bytes and hands out rdpContext*
    HANDLE manager;
    Session* session;
    CWtsForwardServer* forward;
};

// The client's channel for the forwarded calls, opened as soon as the client has said which
// channels it joins; null when it joined none of that name.
HANDLE OpenForwardedChannel(HANDLE manager, const std::string& name)
{
    const BOOL joined = WTSVirtualChannelManagerIsChannelJoined(manager, name.c_str());
    Say("client joined %s: %s", name.c_str(), joined ? "yes" : "no");
    std::string writable = name;
    return joined ? WTSVirtualChannelOpenEx(PeerSessionId(manager), writable.data(), 0) : nullptr;
}

BOOL ContextNew(freerdp_peer* peer, rdpContext* context)
{
    auto* host = reinterpret_cast<HostContext*>(context);
    host->manager = WTSOpenServerA(reinterpret_cast<LPSTR>(peer->context));
    host->session = nullptr;
    host->forward = nullptr;
    return host->manager != INVALID_HANDLE_VALUE && host->manager != nullptr;
}

void ContextFree(freerdp_peer*, rdpContext* context)
{
    auto* host = reinterpret_cast<HostContext*>(context);
    if (host && host->manager && host->manager != INVALID_HANDLE_VALUE)
        WTSCloseServer(host->manager);
}

BOOL PostConnect(freerdp_peer* peer)
{
    Say("client connected");
    auto* host = reinterpret_cast<HostContext*>(peer->context);
    if (host->forward)
        host->forward->ClientConnected(OpenForwardedChannel(host->manager, host->forward->ChannelName()));
    else
        host->session->OpenChannel();
    return TRUE;
}

BOOL Activate(freerdp_peer* peer)
{
    Say("client activated");
    auto* host = reinterpret_cast<HostContext*>(peer->context);
    if (host->session)
        host->session->StartProtocol();
    return TRUE;
}

std::atomic<freerdp_peer*> g_accepted{nullptr};

BOOL PeerAccepted(freerdp_listener*, freerdp_peer* peer)
{
    freerdp_peer* none = nullptr;
    return g_accepted.compare_exchange_strong(none, peer) ? TRUE : FALSE;
}

// Owns the peer from acceptance to the end: context, channel manager and connection.
class Peer
{
public:
    explicit Peer(freerdp_peer* peer) : m_peer(peer) {}
    ~Peer()
    {
        if (m_bContext)
        {
            m_peer->Disconnect(m_peer);
            freerdp_peer_context_free(m_peer);
        }
        freerdp_peer_free(m_peer);
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    bool Initialize(const Options& options)
    {
        m_peer->ContextSize = sizeof(HostContext);
        m_peer->ContextNew = ContextNew;
        m_peer->ContextFree = ContextFree;
        if (!freerdp_peer_context_new(m_peer))
            return false;
        m_bContext = true;
        rdpSettings* settings = m_peer->settings;
        const std::string crt = options.certDir + "/server.crt";
        const std::string key = options.certDir + "/server.key";
        if (!freerdp_settings_set_string(settings, FreeRDP_CertificateFile, crt.c_str()) ||
            !freerdp_settings_set_string(settings, FreeRDP_PrivateKeyFile, key.c_str()) ||
            !freerdp_settings_set_string(settings, FreeRDP_RdpKeyFile, key.c_str()) ||
            !freerdp_settings_set_bool(settings, FreeRDP_RdpSecurity, TRUE) ||
            !freerdp_settings_set_bool(settings, FreeRDP_TlsSecurity, TRUE) ||
            !freerdp_settings_set_bool(settings, FreeRDP_NlaSecurity, FALSE))
            return false;
        m_peer->PostConnect = PostConnect;
        m_peer->Activate = Activate;
        return m_peer->Initialize(m_peer) != FALSE;
    }
    HANDLE Manager() const { return reinterpret_cast<HostContext*>(m_peer->context)->manager; }
    void Attach(Session* session) { reinterpret_cast<HostContext*>(m_peer->context)->session = session; }
    void Attach(CWtsForwardServer* forward)
    {
        reinterpret_cast<HostContext*>(m_peer->context)->forward = forward;
    }

    // Drives the connection until the client goes (true) or `quit` is set (false).
    bool Run(HANDLE quit)
    {
        for (;;)
        {
            HANDLE handles[MAXIMUM_WAIT_OBJECTS];
            DWORD count = m_peer->GetEventHandles(m_peer, handles, MAXIMUM_WAIT_OBJECTS - 2);
            if (count == 0)
                return true;
            handles[count++] = WTSVirtualChannelManagerGetEventHandle(Manager());
            handles[count++] = quit;
            if (WaitForMultipleObjects(count, handles, FALSE, 1000) == WAIT_FAILED)
                return true;
            if (WaitForSingleObject(quit, 0) == WAIT_OBJECT_0)
                return false;
            if (!m_peer->CheckFileDescriptor(m_peer) ||
                !WTSVirtualChannelManagerCheckFileDescriptor(Manager()))
                return true;
        }
    }

private:
    freerdp_peer* m_peer;
    bool m_bContext = false;
};

// Waits for the next client; false when `quit` is set or the listener fails.
bool AcceptNext(freerdp_listener* listener, HANDLE quit)
{
    while (!g_accepted.load())
    {
        HANDLE handles[33];
        DWORD count = listener->GetEventHandles(listener, handles, 32);
        if (count == 0)
            return false;
        handles[count++] = quit;
        if (WaitForMultipleObjects(count, handles, FALSE, 1000) == WAIT_FAILED ||
            WaitForSingleObject(quit, 0) == WAIT_OBJECT_0 || !listener->CheckFileDescriptor(listener))
            return false;
    }
    return true;
}

// The forwarding host: clients one after another until standard input ends or says "quit".
int ServeForwarded(const Options& options, freerdp_listener* listener)
{
    CWtsForwardServer forward(options.channel);
    uint16_t port = 0;
    if (!forward.Start(port))
    {
        Say("cannot listen for forwarded calls");
        return 1;
    }
    Say("forwarding 127.0.0.1:%u", port);
    // Shared with the input thread, which may wait on standard input until the process ends.
    const auto quit = std::make_shared<Event>();
    std::thread(
        [quit]
        {
            std::string line;
            char ch;
            while (read(STDIN_FILENO, &ch, 1) == 1 && !(ch == '\n' && line == "quit"))
                line = ch == '\n' ? std::string() : line + ch;
            quit->Set();
        })
        .detach();
    while (AcceptNext(listener, quit->get()))
    {
        Peer peer(g_accepted.exchange(nullptr));
        if (!peer.Initialize(options))
        {
            Say("peer setup failed");
            continue;
        }
        peer.Attach(&forward);
        const bool gone = peer.Run(quit->get());
        forward.ClientGone();
        Say(gone ? "client disconnected" : "quit");
        if (!gone)
            break;
    }
    forward.Stop();
    Say("done");
    return 0;
}

bool ParseOptions(int argc, char** argv, Options& options)
{
    for (int i = 1; i < argc; ++i)
    {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--cert-dir" && hasValue)
            options.certDir = argv[++i];
        else if (arg == "--channel" && hasValue)
            options.channel = argv[++i];
        else if (arg == "--lifetime" && hasValue)
            options.lifetimeSeconds = static_cast<unsigned>(std::strtoul(argv[++i], nullptr, 10));
        else if (arg == "--forward")
            options.forward = true;
        else if (arg == "--announce-version" && hasValue)
        {
            options.overrideVersion = true;
            options.announcedVersion = static_cast<uint32_t>(std::strtoul(argv[++i], nullptr, 0));
        }
        else
            return false;
    }
    return !options.certDir.empty() && options.lifetimeSeconds > 0;
}

// Listens on 127.0.0.1 at the first free port of a random run, so that hosts of parallel tests
// do not meet.
bool Listen(freerdp_listener* listener, uint16_t& port)
{
    std::random_device seed;
    std::uniform_int_distribution<int> first(20000, 60000);
    port = static_cast<uint16_t>(first(seed));
    for (int tries = 0; tries < 200; ++tries, ++port)
    {
        if (listener->Open(listener, "127.0.0.1", port))
            return true;
    }
    return false;
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!ParseOptions(argc, argv, options))
    {
        std::fprintf(stderr,
                     "usage: velomar-rdp-host --cert-dir DIR [--channel NAME] [--lifetime SECONDS] "
                     "[--announce-version 0xVERSION] [--forward]\n"
                     "DIR holds server.crt and server.key (winpr-makecert -rdp -path DIR -n server);\n"
                     "each line of standard input is sent as a URL once the handshake is done.\n");
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    // Bounded whatever happens to the client or the test that runs the host.
    std::thread(
        [seconds = options.lifetimeSeconds]
        {
            std::this_thread::sleep_for(std::chrono::seconds(seconds));
            Say("lifetime over");
            _exit(3);
        })
        .detach();

    WTSRegisterWtsApiFunctionTable(FreeRDP_InitWtsApi());
    std::unique_ptr<freerdp_listener, decltype(&freerdp_listener_free)> listener(freerdp_listener_new(),
                                                                                 &freerdp_listener_free);
    if (!listener)
        return 1;
    listener->PeerAccepted = PeerAccepted;
    uint16_t port = 0;
    if (!Listen(listener.get(), port))
    {
        Say("cannot listen");
        return 1;
    }
    Say("listening 127.0.0.1:%u", port);
    if (options.forward)
        return ServeForwarded(options, listener.get());

    while (!g_accepted.load())
    {
        HANDLE handles[32];
        const DWORD count = listener->GetEventHandles(listener.get(), handles, 32);
        if (count == 0 || WaitForMultipleObjects(count, handles, FALSE, 1000) == WAIT_FAILED ||
            !listener->CheckFileDescriptor(listener.get()))
        {
            Say("listener failed");
            return 1;
        }
    }
    listener->Close(listener.get());

    Peer peer(g_accepted.load());
    if (!peer.Initialize(options))
    {
        Say("peer setup failed");
        return 1;
    }
    Session session(options, peer.Manager());
    peer.Attach(&session);

    // Standard input: one URL a line; its end, or "quit", ends the connection.
    Event quit;
    std::atomic<bool> stopInput{false};
    std::thread input(
        [&]
        {
            std::string pending;
            while (!stopInput.load())
            {
                pollfd fd{STDIN_FILENO, POLLIN, 0};
                if (poll(&fd, 1, 200) <= 0)
                    continue;
                char chunk[4096];
                const ssize_t got = read(STDIN_FILENO, chunk, sizeof chunk);
                if (got <= 0)
                    break;
                pending.append(chunk, static_cast<size_t>(got));
                size_t end;
                bool stop = false;
                while (!stop && (end = pending.find('\n')) != std::string::npos)
                {
                    const std::string line = pending.substr(0, end);
                    pending.erase(0, end + 1);
                    if (line == "quit")
                        stop = true;
                    else
                        session.Send(line);
                }
                if (stop)
                    break;
            }
            quit.Set();
        });

    Say(peer.Run(quit.get()) ? "client disconnected" : "quit");
    session.PeerGone();
    stopInput.store(true);
    input.join();
    session.Stop();
    Say("done");
    return 0;
}
