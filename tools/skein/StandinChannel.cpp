// The connections of the stand-in library, the client side that answers behind each of
// them, and the threads that deliver connection events and session notifications.
#include "tools/skein/StandinState.h"

#include <cstring>

namespace standin
{

using UrlNet::ClientItem;

void QueueEvent(Library& lib, const std::shared_ptr<Connection>& c, DWORD event)
{
    lib.events.push_back({c, event});
    lib.cv.notify_all();
}

void MarkDead(Library& lib, Connection& c)
{
    if (c.counted)
    {
        auto s = lib.sessions.find(c.sessionId);
        if (s != lib.sessions.end() && s->second.stats.liveConnections > 0)
            --s->second.stats.liveConnections;
        c.counted = false;
    }
}

void Break(Library& lib, const std::shared_ptr<Connection>& c)
{
    if (c->broken || c->closed)
        return;
    c->broken = true;
    MarkDead(lib, *c);
    lib.cv.notify_all();
    QueueEvent(lib, c, SkApi::kEventBrokenConnection);
}

void PeerSend(Connection& c, const uint8_t* bytes, size_t size)
{
    c.inbound.insert(c.inbound.end(), bytes, bytes + size);
}

void PeerSendU32(Connection& c, uint32_t value)
{
    uint8_t item[4];
    UrlNet::PutU32(item, value);
    PeerSend(c, item, 4);
}

// The client side's answer to what the service wrote.
void PeerReceive(Library& lib, const std::shared_ptr<Connection>& c, const uint8_t* bytes, size_t size)
{
    auto sit = lib.sessions.find(c->sessionId);
    Session* session = sit == lib.sessions.end() ? nullptr : &sit->second;
    if (session)
        session->lastReceived.insert(session->lastReceived.end(), bytes, bytes + size);

    std::vector<ClientItem> items;
    const bool wellFormed = c->parser.Feed(bytes, size, items);
    const bool answers = c->peer.mode == PeerMode::Accept;
    for (const auto& item : items)
    {
        switch (item.kind)
        {
        case ClientItem::Kind::ServerVersion:
            if (answers)
                PeerSendU32(*c, c->peer.version);
            break;
        case ClientItem::Kind::ServerVersionStatus:
            if (answers)
                PeerSend(*c, &c->peer.versionStatus, 1);
            break;
        case ClientItem::Kind::ServerOptionsLength:
            if (answers)
                PeerSendU32(*c, c->peer.optionsLength);
            break;
        case ClientItem::Kind::ServerOptionsStatus:
            if (!answers)
                break;
            PeerSend(*c, &c->peer.optionsStatus, 1);
            if (c->peer.versionStatus == 0 && c->peer.optionsStatus == 0 && session)
                ++session->stats.handshakes;
            if (!c->peer.afterHandshake.empty())
                PeerSend(*c, c->peer.afterHandshake.data(), c->peer.afterHandshake.size());
            if (c->peer.closeAfterSend)
                Break(lib, c);
            break;
        case ClientItem::Kind::Message:
        {
            std::string_view url;
            if (item.header.command == UrlNet::eUrlNet_Submit &&
                UrlNet::ParseSubmitData(item.data.data(), item.data.size(), url))
            {
                ++c->submits;
                if (session)
                {
                    ++session->stats.submits;
                    session->urls.emplace_back(url);
                    if (!session->sink.empty())
                        AppendLine(session->sinkFile, session->sink, std::string(url));
                }
                if (c->peer.breakAfter != 0 && c->submits >= c->peer.breakAfter)
                    Break(lib, c);
            }
            else if (session)
            {
                ++session->stats.otherMessages;
            }
            break;
        }
        }
    }
    if (!wellFormed)
    {
        if (session)
            ++session->stats.malformed;
        Break(lib, c);
    }
    lib.cv.notify_all();
}

std::shared_ptr<Connection> Find(Library& lib, HANDLE handle)
{
    auto it = lib.connections.find(reinterpret_cast<uintptr_t>(handle));
    return it == lib.connections.end() ? nullptr : it->second;
}

void NotificationThread(void*)
{
    Library& lib = Lib();
    daxlib::unique_lock lock(lib.mu);
    for (;;)
    {
        lib.cv.wait(lock, [&]() TS_REQUIRES(lib.mu) { return lib.stopping || !lib.notifications.empty(); });
        if (lib.stopping)
            return;
        QueuedNotification n = lib.notifications.front();
        lib.notifications.pop_front();
        const auto callback = lib.sessionCallbacks[n.kind];
        void* context = lib.sessionContexts[n.kind];
        if (!callback)
            continue;
        lock.unlock();
        callback(n.kind, &n.record, context);
        lock.lock();
    }
}

void EventThread(void*)
{
    Library& lib = Lib();
    daxlib::unique_lock lock(lib.mu);
    lib.eventThreadId = ::GetCurrentThreadId();
    for (;;)
    {
        lib.cv.wait(lock, [&]() TS_REQUIRES(lib.mu) { return lib.stopping || !lib.events.empty(); });
        if (lib.stopping)
            return;
        QueuedEvent e = std::move(lib.events.front());
        lib.events.pop_front();
        Connection& c = *e.connection;
        if (c.closed || !c.callback || (c.mask & e.event) == 0)
            continue;
        if (e.event == SkApi::kEventConnected)
        {
            auto s = lib.sessions.find(c.sessionId);
            if (s != lib.sessions.end())
                ++s->second.stats.connections;
        }
        lib.dispatching = e.connection;
        const auto callback = c.callback;
        void* context = c.context;
        lock.unlock();
        callback(reinterpret_cast<HANDLE>(c.handle), e.event, context);
        lock.lock();
        lib.dispatching.reset();
        lib.cv.notify_all();
    }
}

void QueueNotification(Library& lib, DWORD kind, uint32_t id, const std::wstring& guidText,
                       const std::wstring& name, uint32_t type)
{
    QueuedNotification n{kind, {}};
    n.record.dwSessionType = type;
    ParseGuid(guidText, n.record.guidSession);
    wcsncpy(n.record.szName, name.c_str(), std::size(n.record.szName) - 1);
    n.record.dwSessionId = id;
    lib.notifications.push_back(n);
    lib.cv.notify_all();
}

} // namespace standin
