// The RDP transport against a host in memory: its session list, its session events and each
// session's static channel, with a client side that answers the handshake and keeps the URLs.
#include "tests/common/CapturingLogger.h"
#include "tests/common/EventRecorder.h"
#include "tests/common/TestSupport.h"
#include "virt/LibraryTransport.h"
#include "virt/SkApi.h"
#include "virt/UrlClientParser.h"
#include "virt/VirtServer.h"
#include "virt/rdp/RdpTransport.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace
{

using namespace std::chrono_literals;
using testsupport::Eventually;

struct FakeSession
{
    DWORD id;
    WTS_CONNECTSTATE_CLASS state;
    std::wstring name;
    uint64_t logonTime;
};

struct FakeChannel
{
    uint32_t sessionId = 0;
    std::deque<uint8_t> toService;
    UrlNet::UrlClientParser parser;
    bool broken = false;
};

// One host per test; the WTS calls are plain functions, so they find it here.
struct FakeHost
{
    std::mutex m;
    std::condition_variable cv;
    std::vector<FakeSession> sessions;
    bool eventsWork = true;
    int pendingEvents = 0;
    bool flushed = false;
    std::set<uint32_t> joined; // sessions whose client has joined the channel
    std::map<HANDLE, FakeChannel> channels;
    uintptr_t nextHandle = 0x100;
    int opens = 0;
    int mostLiveOfOneSession = 0;
    int callsOnClosedHandles = 0;
    std::map<uint32_t, std::vector<std::string>> urls;

    void Changed()
    {
        {
            std::lock_guard lock(m);
            ++pendingEvents;
        }
        cv.notify_all();
    }
};
FakeHost* g_host = nullptr;

BOOL WINAPI Enumerate(HANDLE, DWORD, DWORD, PWTS_SESSION_INFOW* out, DWORD* count)
{
    std::lock_guard lock(g_host->m);
    size_t bytes = sizeof(WTS_SESSION_INFOW) * g_host->sessions.size();
    for (const auto& s : g_host->sessions)
        bytes += (s.name.size() + 1) * sizeof(wchar_t);
    auto* block = static_cast<uint8_t*>(::HeapAlloc(::GetProcessHeap(), HEAP_ZERO_MEMORY, bytes + 1));
    auto* infos = reinterpret_cast<WTS_SESSION_INFOW*>(block);
    auto* names = reinterpret_cast<wchar_t*>(block + sizeof(WTS_SESSION_INFOW) * g_host->sessions.size());
    for (size_t i = 0; i < g_host->sessions.size(); ++i)
    {
        const auto& s = g_host->sessions[i];
        infos[i] = {s.id, names, s.state};
        wcscpy(names, s.name.c_str());
        names += s.name.size() + 1;
    }
    *out = infos;
    *count = static_cast<DWORD>(g_host->sessions.size());
    return TRUE;
}

void WINAPI FreeMemory(void* memory)
{
    ::HeapFree(::GetProcessHeap(), 0, memory);
}

BOOL WINAPI Query(HANDLE, DWORD id, WTS_INFO_CLASS what, LPWSTR* out, DWORD* size)
{
    std::lock_guard lock(g_host->m);
    for (const auto& s : g_host->sessions)
        if (s.id == id && what == WTSSessionInfo && s.logonTime != 0)
        {
            auto* info =
                static_cast<WTSINFOW*>(::HeapAlloc(::GetProcessHeap(), HEAP_ZERO_MEMORY, sizeof(WTSINFOW)));
            info->LogonTime.QuadPart = static_cast<LONGLONG>(s.logonTime);
            *out = reinterpret_cast<LPWSTR>(info);
            *size = sizeof(WTSINFOW);
            return TRUE;
        }
    ::SetLastError(ERROR_NOT_SUPPORTED);
    return FALSE;
}

BOOL WINAPI WaitEvent(HANDLE, DWORD mask, DWORD* flags)
{
    std::unique_lock lock(g_host->m);
    if (mask & WTS_EVENT_FLUSH)
    {
        g_host->flushed = true;
        g_host->cv.notify_all();
        return TRUE;
    }
    if (!g_host->eventsWork)
    {
        ::SetLastError(ERROR_CALL_NOT_IMPLEMENTED);
        return FALSE;
    }
    g_host->cv.wait(lock, [] { return g_host->pendingEvents > 0 || g_host->flushed; });
    *flags = g_host->flushed ? WTS_EVENT_FLUSH : WTS_EVENT_LOGON;
    g_host->flushed = false;
    g_host->pendingEvents = 0;
    return TRUE;
}

HANDLE WINAPI OpenEx(DWORD session, LPSTR name, DWORD flags)
{
    std::lock_guard lock(g_host->m);
    if (std::string(name) != "velomar" || flags != 0 || !g_host->joined.count(session))
    {
        ::SetLastError(ERROR_NOT_FOUND);
        return nullptr;
    }
    ++g_host->opens;
    const HANDLE handle = reinterpret_cast<HANDLE>(g_host->nextHandle += 4);
    g_host->channels[handle].sessionId = session;
    int live = 0;
    for (const auto& [h, channel] : g_host->channels)
        live += channel.sessionId == session ? 1 : 0;
    g_host->mostLiveOfOneSession = std::max(g_host->mostLiveOfOneSession, live);
    return handle;
}

HANDLE WINAPI Open(HANDLE, DWORD session, LPSTR name)
{
    return OpenEx(session, name, 0);
}

FakeChannel* Find(HANDLE handle)
{
    const auto found = g_host->channels.find(handle);
    if (found != g_host->channels.end())
        return &found->second;
    ++g_host->callsOnClosedHandles;
    return nullptr;
}

BOOL WINAPI Read(HANDLE handle, ULONG timeoutMs, PCHAR buffer, ULONG size, PULONG got)
{
    std::unique_lock lock(g_host->m);
    *got = 0;
    FakeChannel* channel = Find(handle);
    if (!channel || channel->broken)
    {
        ::SetLastError(ERROR_BROKEN_PIPE);
        return FALSE;
    }
    if (size == 0)
    {
        // Waits like the host's read into no room: "insufficient buffer" once something is there.
        g_host->cv.wait_for(
            lock, std::chrono::milliseconds(timeoutMs),
            [&] { return !(channel = Find(handle)) || channel->broken || !channel->toService.empty(); });
        if (!channel || channel->broken)
        {
            ::SetLastError(ERROR_BROKEN_PIPE);
            return FALSE;
        }
        if (channel->toService.empty())
            return TRUE;
        ::SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    while (*got < size && !channel->toService.empty())
    {
        buffer[(*got)++] = static_cast<char>(channel->toService.front());
        channel->toService.pop_front();
    }
    return TRUE;
}

void Answer(FakeChannel& channel, const void* bytes, size_t size)
{
    channel.toService.insert(channel.toService.end(), static_cast<const uint8_t*>(bytes),
                             static_cast<const uint8_t*>(bytes) + size);
}

BOOL WINAPI Write(HANDLE handle, PCHAR bytes, ULONG size, PULONG wrote)
{
    std::lock_guard lock(g_host->m);
    FakeChannel* channel = Find(handle);
    if (!channel || channel->broken)
    {
        ::SetLastError(ERROR_BROKEN_PIPE);
        return FALSE;
    }
    std::vector<UrlNet::ClientItem> items;
    channel->parser.Feed(reinterpret_cast<const uint8_t*>(bytes), size, items);
    for (const auto& item : items)
    {
        uint8_t u32[4];
        const uint8_t accepted = 0;
        switch (item.kind)
        {
        case UrlNet::ClientItem::Kind::ServerVersion:
            UrlNet::PutU32(u32, 0x00010001);
            Answer(*channel, u32, 4);
            break;
        case UrlNet::ClientItem::Kind::ServerOptionsLength:
            UrlNet::PutU32(u32, 0);
            Answer(*channel, u32, 4);
            break;
        case UrlNet::ClientItem::Kind::ServerVersionStatus:
        case UrlNet::ClientItem::Kind::ServerOptionsStatus:
            Answer(*channel, &accepted, 1);
            break;
        case UrlNet::ClientItem::Kind::Message:
        {
            std::string_view url;
            if (UrlNet::ParseSubmitData(item.data.data(), item.data.size(), url))
                g_host->urls[channel->sessionId].emplace_back(url);
            break;
        }
        }
    }
    *wrote = size;
    g_host->cv.notify_all();
    return TRUE;
}

BOOL WINAPI Close(HANDLE handle)
{
    {
        std::lock_guard lock(g_host->m);
        if (!g_host->channels.erase(handle))
            ++g_host->callsOnClosedHandles;
    }
    g_host->cv.notify_all();
    return TRUE;
}

const WtsSessionCalls kSessionCalls{&Enumerate, &FreeMemory, &Query, &WaitEvent};
const WtsChannelCalls kChannelCalls{&Open, &OpenEx, &Read, &Write, &Close};

class RdpTransportTest : public ::testing::Test
{
protected:
    void SetUp() override { g_host = &m_host; }
    void TearDown() override { g_host = nullptr; }

    void SetSessions(std::vector<FakeSession> sessions)
    {
        {
            std::lock_guard lock(m_host.m);
            m_host.sessions = std::move(sessions);
        }
        m_host.Changed();
    }
    template <typename F> auto Locked(F f)
    {
        std::lock_guard lock(m_host.m);
        return f();
    }

    FakeHost m_host;
    std::shared_ptr<testsupport::CapturingLogger> m_logger =
        std::make_shared<testsupport::CapturingLogger>(4);
};

struct Reported
{
    DWORD event;
    uint32_t id;
    std::wstring guid;
    std::wstring name;
};

struct SessionLog
{
    std::mutex m;
    std::vector<Reported> reported;
    static void WINAPI Callback(DWORD event, const SkApi::SessionNotification* n, void* context)
    {
        auto* self = static_cast<SessionLog*>(context);
        std::lock_guard lock(self->m);
        self->reported.push_back({event, n->dwSessionId, CVirtServer::GuidText(n->guidSession), n->szName});
    }
    size_t Size()
    {
        std::lock_guard lock(m);
        return reported.size();
    }
};

// Opens and closes follow the host's list: user sessions only, a new logon under an old id is a
// new session, and a host that cannot tell of changes is read again every few seconds.
TEST_F(RdpTransportTest, SessionsFollowTheHostsListWithOrWithoutItsEvents)
{
    SetSessions({{0, WTSDisconnected, L"Services", 0},
                 {2, WTSActive, L"RDP-Tcp#1", 1111},
                 {65536, WTSListen, L"RDP-Tcp", 0},
                 {5, WTSDisconnected, L"", 0}});
    CommonHelper::CvLogger::CBaseLogger log(m_logger);
    SessionLog sessions;
    {
        CRdpTransport transport(kSessionCalls, kChannelCalls);
        ASSERT_TRUE(transport.Init(log));
        transport.Subscribe(&SessionLog::Callback, &SessionLog::Callback, &sessions);
        ASSERT_TRUE(transport.StartNotification());
        ASSERT_TRUE(Eventually([&] { return sessions.Size() == 2; }));
        SetSessions({{2, WTSActive, L"RDP-Tcp#3", 2222}, {7, WTSConnected, L"RDP-Tcp#4", 3333}});
        ASSERT_TRUE(Eventually([&] { return sessions.Size() == 6; }));
        transport.CleanUp(); // returns although the transport waits for the host's next event
        SetSessions({});
        ::Sleep(200);
    }
    ASSERT_EQ(6u, sessions.reported.size()) << "nothing after clean-up";
    const auto& r = sessions.reported;
    EXPECT_EQ(SkApi::kEventSessionOpened, r[0].event);
    EXPECT_EQ(2u, r[0].id);
    EXPECT_EQ(L"RDP-Tcp#1", r[0].name);
    EXPECT_EQ(5u, r[1].id);
    EXPECT_EQ(0u, r[1].guid.rfind(L"00000005-", 0)) << r[1].guid;
    // Closes come first: 2 (its logon changed) and 5, then 2 anew and 7.
    EXPECT_EQ(SkApi::kEventSessionClosed, r[2].event);
    EXPECT_EQ(r[0].guid, r[2].guid);
    EXPECT_EQ(SkApi::kEventSessionClosed, r[3].event);
    EXPECT_EQ(r[1].guid, r[3].guid);
    EXPECT_EQ(SkApi::kEventSessionOpened, r[4].event);
    EXPECT_EQ(2u, r[4].id);
    EXPECT_NE(r[0].guid, r[4].guid);
    EXPECT_EQ(7u, r[5].id);

    // A host whose event wait fails: the list is read on a timer instead.
    {
        std::lock_guard lock(m_host.m);
        m_host.eventsWork = false;
    }
    SetSessions({});
    SessionLog polled;
    CRdpTransport transport(kSessionCalls, kChannelCalls);
    ASSERT_TRUE(transport.Init(log));
    transport.Subscribe(&SessionLog::Callback, &SessionLog::Callback, &polled);
    ASSERT_TRUE(transport.StartNotification());
    ASSERT_TRUE(m_logger->WaitFor(L"WTSWaitSystemEvent failed. LastError=120", 5s));
    SetSessions({{3, WTSActive, L"RDP-Tcp#5", 0}});
    ASSERT_TRUE(Eventually([&] { return polled.Size() == 1; }, 10s));
    transport.CleanUp();
}

// The service with "auto" on a host without the channel library: the RDP transport carries the
// URLs, retries a client side that has not joined the channel, survives a broken channel, and
// never has two channels of one session open or uses a closed one.
TEST_F(RdpTransportTest, AutoFallsBackToRdpAndCarriesUrlsAcrossABreak)
{
    testsupport::EventRecorder events;
    ::DeleteFileW(SkApi::LibraryPath().c_str());
    SetSessions({{2, WTSActive, L"RDP-Tcp#1", 1111}});
    auto server =
        std::make_shared<CVirtServer>(m_logger, std::make_shared<CLibraryTransport>(false),
                                      std::make_shared<CRdpTransport>(kSessionCalls, kChannelCalls));
    ASSERT_TRUE(server->Init());
    EXPECT_NE(std::wstring::npos, server->DescribeTransport().find(L"RDP"));
    EXPECT_TRUE(events.Of(events::kChannelLibraryUnavailable).empty())
        << "nothing to do for the administrator";
    ASSERT_TRUE(Eventually([&] { return server->FindSession(2) != nullptr; }));

    // No add-in yet: said once, although it is retried every 3 seconds.
    ASSERT_TRUE(m_logger->WaitFor(L"WTSVirtualChannelOpenEx(2, \"velomar\") failed. LastError=1168", 10s));
    EXPECT_EQ(0, server->SendURL(2, L"https://example.com/early"));
    ::Sleep(CSessionHandler::kReconnectPauseMs + 500);
    EXPECT_EQ(1u, m_logger->Count(L"WTSVirtualChannelOpenEx(2"));

    Locked([&] { return m_host.joined.insert(2); });
    const std::wstring url = L"https://example.com/p\u00e4th?q=\U0001F600";
    ASSERT_TRUE(Eventually([&] { return server->SendURL(2, url) == 1; }));
    EXPECT_EQ(std::vector<std::string>{"https://example.com/p\xc3\xa4th?q=\xf0\x9f\x98\x80"},
              Locked([&] { return m_host.urls[2]; }));

    // The client goes away and comes back: the broken channel is closed, then a new one opened.
    Locked(
        [&]
        {
            for (auto& [handle, channel] : m_host.channels)
                channel.broken = true;
            return 0;
        });
    m_host.cv.notify_all();
    ASSERT_TRUE(Eventually([&] { return server->FindSession(2)->Counters().Snapshot().reconnects == 1; }));
    ASSERT_TRUE(Eventually([&] { return server->SendURL(2, L"https://example.com/after") == 1; }));
    server->Free();

    const auto counts = server->CounterSnapshots().at(0).second;
    EXPECT_EQ(2u, counts.handshakesCompleted);
    EXPECT_EQ(2u, counts.urlsForwarded);
    Locked(
        [&]
        {
            EXPECT_EQ(2u, m_host.urls[2].size());
            EXPECT_EQ(2, m_host.opens);
            EXPECT_EQ(1, m_host.mostLiveOfOneSession);
            EXPECT_EQ(0, m_host.callsOnClosedHandles);
            EXPECT_TRUE(m_host.channels.empty()) << "every channel closed at the end";
            return 0;
        });
}

} // namespace
