// A stand-in for the maker's channel library "cvskapi.dll". It exports the 40 names the
// service resolves and gives the 11 it calls the behaviour the service relies on: session
// notifications on a thread of their own, connections addressed by session GUID text, their
// events on another thread, whole and in-order reads and writes. Behind every connection it
// plays the client side of the URL channel, scripted per session.
#include "tools/skein/Standin.h"

#include "virt/SkApiTypes.h"
#include "virt/UrlClientParser.h"
#include "virt/UrlProtocol.h"

#include <process.h>
#include <shlobj.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace
{

using UrlNet::ClientItem;

// The library's address record: the service writes the port at byte offset 524.
struct AddressRecord
{
    wchar_t address[260];
    uint32_t kind;
    uint32_t port;
};
static_assert(offsetof(AddressRecord, port) == SkApi::AddressPortOffset);

enum class PeerMode
{
    Accept,         // answers the handshake as scripted
    Absent,         // SkConnectTo fails
    Silent,         // connects, but CONNECTED never comes
    Mute,           // CONNECTED, then never answers
    InvalidAddress, // INVALIDADRESS instead of CONNECTED
};

struct PeerScript
{
    PeerMode mode = PeerMode::Accept;
    uint32_t version = UrlNet::LocalVersion;
    uint8_t versionStatus = 0;
    uint8_t optionsStatus = 0;
    uint32_t optionsLength = 0;
    uint32_t breakAfter = 0; // submits, 0 = never
    std::vector<uint8_t> afterHandshake;
    bool closeAfterSend = false;
};

struct Session
{
    uint32_t id = 0;
    std::wstring guidText;
    std::wstring name;
    uint32_t type = 1;
    bool open = false;
    PeerScript peer;
    StandinStats stats{};
    std::vector<uint64_t> connectTimes;
    std::vector<std::string> urls;
    std::vector<uint8_t> lastReceived;
    std::wstring sink; // file that collects received URLs, one per line
};

struct Connection
{
    uintptr_t handle = 0;
    uint32_t sessionId = 0;
    PeerScript peer;
    UrlNet::UrlClientParser parser;
    std::deque<uint8_t> inbound; // client side to service
    bool closed = false;         // closed by the service
    bool broken = false;
    bool counted = false;        // counted as live in the session's stats
    DWORD pendingEvent = 0;      // reported once a callback is registered
    SkApi::ConnectionCallback callback = nullptr;
    void* context = nullptr;
    DWORD mask = 0;
    uint32_t submits = 0;
};

struct QueuedNotification
{
    DWORD kind;
    SkApi::SessionNotification record;
};

struct QueuedEvent
{
    std::shared_ptr<Connection> connection;
    DWORD event;
};

// The library's own locks and threads are the system's, so that loading and unloading it
// costs nothing that outlives it.
class SrwMutex
{
public:
    void lock() noexcept { ::AcquireSRWLockExclusive(&m_lock); }
    void unlock() noexcept { ::ReleaseSRWLockExclusive(&m_lock); }
    bool try_lock() noexcept { return ::TryAcquireSRWLockExclusive(&m_lock) != FALSE; }
    PSRWLOCK native() noexcept { return &m_lock; }

private:
    SRWLOCK m_lock = SRWLOCK_INIT;
};

class CondVar
{
public:
    template <typename Pred> void wait(std::unique_lock<SrwMutex>& lock, Pred ready)
    {
        while (!ready())
            ::SleepConditionVariableSRW(&m_cv, lock.mutex()->native(), INFINITE, 0);
    }
    template <typename Pred> bool wait_for(std::unique_lock<SrwMutex>& lock, std::chrono::milliseconds limit, Pred ready)
    {
        const ULONGLONG end = ::GetTickCount64() + static_cast<ULONGLONG>(limit.count());
        while (!ready())
        {
            const ULONGLONG now = ::GetTickCount64();
            if (now >= end)
                return false;
            ::SleepConditionVariableSRW(&m_cv, lock.mutex()->native(), static_cast<DWORD>(end - now), 0);
        }
        return true;
    }
    void notify_all() noexcept { ::WakeAllConditionVariable(&m_cv); }

private:
    CONDITION_VARIABLE m_cv = CONDITION_VARIABLE_INIT;
};

class Thread
{
public:
    void start(void (*entry)(void*), void* argument)
    {
        m_entry = entry;
        m_argument = argument;
        m_handle = reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, &Run, this, 0, &m_id));
    }
    bool joinable() const noexcept { return m_handle != nullptr; }
    bool is_current() const noexcept { return m_handle && ::GetCurrentThreadId() == m_id; }
    // Waits unless called on the thread itself; closes the handle either way.
    void join() noexcept
    {
        if (!m_handle)
            return;
        if (!is_current())
            ::WaitForSingleObject(m_handle, INFINITE);
        ::CloseHandle(m_handle);
        m_handle = nullptr;
    }

private:
    static unsigned __stdcall Run(void* self)
    {
        auto* thread = static_cast<Thread*>(self);
        try
        {
            thread->m_entry(thread->m_argument);
        }
        catch (...)
        {
            // Nothing unwinds out of the library's threads.
        }
        return 0;
    }
    HANDLE m_handle = nullptr;
    unsigned m_id = 0;
    void (*m_entry)(void*) = nullptr;
    void* m_argument = nullptr;
};

struct Library
{
    SrwMutex mu;
    CondVar cv; // data, breaks, queue changes, finished dispatches
    bool initialized = false;
    bool notifying = false;
    bool stopping = false;
    DWORD failNextInit = 0;
    std::map<uint32_t, Session> sessions;
    std::map<uintptr_t, std::shared_ptr<Connection>> connections;
    uintptr_t nextHandle = 0x5c40;
    SkApi::SessionCallback sessionCallbacks[3] = {};
    void* sessionContexts[3] = {};
    std::deque<QueuedNotification> notifications;
    std::deque<QueuedEvent> events;
    std::shared_ptr<Connection> dispatching;
    Thread notificationThread;
    Thread eventThread;
    Thread controlThread;
    DWORD eventThreadId = 0;
    HANDLE controlStop = nullptr;
};

// Created on first use and deleted when the library is unloaded after a clean-up, never at
// process exit, where the library's threads may still run.
Library* g_library;

Library& Lib()
{
    static Library* library = g_library = new Library;
    return *library;
}

HMODULE g_hSelf;

// ---------------------------------------------------------------------------------------
// Text helpers

std::wstring Widen(const std::string& text)
{
    if (text.empty())
        return {};
    const int n = ::MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring wide(static_cast<size_t>(n), L'\0');
    ::MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), wide.data(), n);
    return wide;
}

std::string Narrow(const std::wstring& text)
{
    if (text.empty())
        return {};
    const int n = ::WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0,
                                        nullptr, nullptr);
    std::string narrow(static_cast<size_t>(n), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), narrow.data(), n, nullptr,
                          nullptr);
    return narrow;
}

std::wstring Lower(std::wstring text)
{
    for (auto& c : text)
        if (c >= L'A' && c <= L'Z')
            c = static_cast<wchar_t>(c - L'A' + L'a');
    return text;
}

bool ParseHex(const std::string& text, std::vector<uint8_t>& out)
{
    if (text.size() % 2 != 0)
        return false;
    out.clear();
    for (size_t i = 0; i < text.size(); i += 2)
    {
        unsigned value = 0;
        if (std::sscanf(text.substr(i, 2).c_str(), "%2x", &value) != 1)
            return false;
        out.push_back(static_cast<uint8_t>(value));
    }
    return true;
}

bool ParseGuid(const std::wstring& text, GUID& guid)
{
    unsigned d1 = 0, d2 = 0, d3 = 0, b[8] = {};
    wchar_t tail = 0;
    const int n = swscanf(text.c_str(), L"%8x-%4x-%4x-%2x%2x-%2x%2x%2x%2x%2x%2x%lc", &d1, &d2, &d3, &b[0], &b[1],
                          &b[2], &b[3], &b[4], &b[5], &b[6], &b[7], &tail);
    if (n != 11)
        return false;
    guid.Data1 = d1;
    guid.Data2 = static_cast<unsigned short>(d2);
    guid.Data3 = static_cast<unsigned short>(d3);
    for (int i = 0; i < 8; ++i)
        guid.Data4[i] = static_cast<unsigned char>(b[i]);
    return true;
}

std::wstring AutoGuid(uint32_t id)
{
    wchar_t text[64];
    _snwprintf(text, 64, L"%08x-5e1c-4a3b-9d2e-0000c0ffee%02x", id, id & 0xff);
    text[63] = 0;
    return text;
}

std::wstring DefaultSink()
{
    wchar_t folder[MAX_PATH] = {};
    if (FAILED(::SHGetFolderPathW(nullptr, CSIDL_COMMON_APPDATA, nullptr, 0, folder)))
        return {};
    return std::wstring(folder) + L"\\Corvane\\Skein Standin\\received.txt";
}

void AppendLine(const std::wstring& path, const std::string& line)
{
    const size_t slash = path.find_last_of(L'\\');
    if (slash != std::wstring::npos)
        ::SHCreateDirectoryExW(nullptr, path.substr(0, slash).c_str(), nullptr);
    HANDLE file = ::CreateFileW(path.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return;
    const std::string text = line + "\n";
    DWORD written = 0;
    ::WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
    ::CloseHandle(file);
}

// ---------------------------------------------------------------------------------------
// Connections (all with the library lock held)

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
    QueueEvent(lib, c, SkApi::EventBrokenConnection);
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
        case ClientItem::Kind::Message: {
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
                        AppendLine(session->sink, std::string(url));
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

// ---------------------------------------------------------------------------------------
// Threads of the library

void NotificationThread(void*)
{
    Library& lib = Lib();
    std::unique_lock lock(lib.mu);
    for (;;)
    {
        lib.cv.wait(lock, [&] { return lib.stopping || !lib.notifications.empty(); });
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
    std::unique_lock lock(lib.mu);
    lib.eventThreadId = ::GetCurrentThreadId();
    for (;;)
    {
        lib.cv.wait(lock, [&] { return lib.stopping || !lib.events.empty(); });
        if (lib.stopping)
            return;
        QueuedEvent e = std::move(lib.events.front());
        lib.events.pop_front();
        Connection& c = *e.connection;
        if (c.closed || !c.callback || (c.mask & e.event) == 0)
            continue;
        if (e.event == SkApi::EventConnected)
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

void QueueNotification(Library& lib, DWORD kind, uint32_t id, const std::wstring& guidText, const std::wstring& name,
                       uint32_t type)
{
    QueuedNotification n{kind, {}};
    n.record.dwSessionType = type;
    ParseGuid(guidText, n.record.guidSession);
    wcsncpy(n.record.szName, name.c_str(), std::size(n.record.szName) - 1);
    n.record.dwSessionId = id;
    lib.notifications.push_back(n);
    lib.cv.notify_all();
}

// ---------------------------------------------------------------------------------------
// Commands

bool ParsePeer(std::istringstream& in, PeerScript& peer, std::string& error)
{
    std::string word;
    while (in >> word)
    {
        const size_t eq = word.find('=');
        const std::string key = word.substr(0, eq);
        const std::string value = eq == std::string::npos ? std::string() : word.substr(eq + 1);
        if (key == "accept")
            peer = PeerScript{};
        else if (key == "absent")
            peer.mode = PeerMode::Absent;
        else if (key == "silent")
            peer.mode = PeerMode::Silent;
        else if (key == "mute")
            peer.mode = PeerMode::Mute;
        else if (key == "invalid-address")
            peer.mode = PeerMode::InvalidAddress;
        else if (key == "refuse-version")
            peer.versionStatus = 1;
        else if (key == "refuse-options")
            peer.optionsStatus = 1;
        else if (key == "version")
            peer.version = static_cast<uint32_t>(std::stoul(value, nullptr, 0));
        else if (key == "options")
            peer.optionsLength = static_cast<uint32_t>(std::stoul(value, nullptr, 0));
        else if (key == "break-after")
            peer.breakAfter = static_cast<uint32_t>(std::stoul(value, nullptr, 0));
        else if (key == "send")
        {
            if (!ParseHex(value, peer.afterHandshake))
                return error = "bad hex: " + value, false;
        }
        else if (key == "close-after-send")
            peer.closeAfterSend = true;
        else
            return error = "unknown behaviour: " + word, false;
    }
    return true;
}

std::string RestOfLine(std::istringstream& in)
{
    std::string rest;
    std::getline(in, rest);
    const size_t first = rest.find_first_not_of(" \t");
    return first == std::string::npos ? std::string() : rest.substr(first);
}

std::string RunCommand(const std::string& line)
{
    Library& lib = Lib();
    std::istringstream in(line);
    std::string verb;
    if (!(in >> verb) || verb[0] == '#')
        return "ok";
    try
    {
        std::lock_guard lock(lib.mu);
        if (verb == "sessions")
        {
            std::string reply = "ok";
            for (const auto& [id, s] : lib.sessions)
                if (s.open)
                    reply += "\n" + std::to_string(id) + " " + Narrow(s.guidText) + " " + Narrow(s.name);
            return reply;
        }
        uint32_t id = 0;
        if (!(in >> id))
            return "error: session id expected";
        Session& s = lib.sessions[id];
        s.id = id;
        if (verb == "open")
        {
            std::string guid, type;
            in >> guid >> type;
            s.guidText = (guid.empty() || guid == "auto") ? AutoGuid(id) : Lower(Widen(guid));
            GUID parsed{};
            if (!ParseGuid(s.guidText, parsed))
                return "error: bad GUID";
            s.type = type.empty() ? 1 : static_cast<uint32_t>(std::stoul(type, nullptr, 0));
            s.name = Widen(RestOfLine(in));
            s.open = true;
            if (lib.notifying)
                QueueNotification(lib, SkApi::EventSessionOpened, id, s.guidText, s.name, s.type);
            return "ok " + Narrow(s.guidText);
        }
        if (verb == "close")
        {
            s.open = false;
            for (auto& [h, c] : lib.connections)
                if (c->sessionId == id)
                    Break(lib, c);
            if (lib.notifying)
                QueueNotification(lib, SkApi::EventSessionClosed, id, s.guidText, s.name, s.type);
            return "ok";
        }
        if (verb == "notify")
        {
            std::string kind, guid;
            in >> kind >> guid;
            const DWORD event = kind == "open" ? SkApi::EventSessionOpened : SkApi::EventSessionClosed;
            QueueNotification(lib, event, id, guid.empty() ? s.guidText : Lower(Widen(guid)), Widen(RestOfLine(in)),
                              s.type);
            return "ok";
        }
        if (verb == "peer")
        {
            std::string error;
            PeerScript peer = s.peer;
            if (!ParsePeer(in, peer, error))
                return "error: " + error;
            s.peer = peer;
            return "ok";
        }
        if (verb == "break")
        {
            int n = 0;
            for (auto& [h, c] : lib.connections)
                if (c->sessionId == id && !c->broken)
                    Break(lib, c), ++n;
            return "ok " + std::to_string(n);
        }
        if (verb == "send")
        {
            std::vector<uint8_t> bytes;
            std::string hex;
            in >> hex;
            if (!ParseHex(hex, bytes))
                return "error: bad hex";
            int n = 0;
            for (auto& [h, c] : lib.connections)
                if (c->sessionId == id && !c->broken)
                    PeerSend(*c, bytes.data(), bytes.size()), ++n;
            lib.cv.notify_all();
            return "ok " + std::to_string(n);
        }
        if (verb == "sink")
        {
            const std::string path = RestOfLine(in);
            s.sink = path == "default" ? DefaultSink() : Widen(path);
            return "ok " + Narrow(s.sink);
        }
        if (verb == "urls")
        {
            std::string reply = "ok";
            for (const auto& url : s.urls)
                reply += "\n" + url;
            return reply;
        }
        if (verb == "stats")
        {
            const auto& t = s.stats;
            char text[256];
            std::snprintf(text, sizeof(text),
                          "ok attempts=%u connected=%u handshakes=%u submits=%u other=%u malformed=%u live=%u",
                          t.connectAttempts, t.connections, t.handshakes, t.submits, t.otherMessages, t.malformed,
                          t.liveConnections);
            return text;
        }
        return "error: unknown command " + verb;
    }
    catch (const std::exception& e)
    {
        return std::string("error: ") + e.what();
    }
}

std::wstring ModuleFolder()
{
    wchar_t path[MAX_PATH] = {};
    ::GetModuleFileNameW(g_hSelf, path, MAX_PATH);
    std::wstring folder(path);
    const size_t slash = folder.find_last_of(L'\\');
    return slash == std::wstring::npos ? std::wstring() : folder.substr(0, slash);
}

// A scenario file when one is named or lies next to the library; otherwise session 1 with an
// accepting client side that writes what it receives to the default file.
void RunScenario()
{
    wchar_t named[MAX_PATH] = {};
    const DWORD n = ::GetEnvironmentVariableW(L"CVSKAPI_STANDIN_SCENARIO", named, MAX_PATH);
    std::wstring path = (n > 0 && n < MAX_PATH) ? std::wstring(named) : ModuleFolder() + L"\\cvskapi.scenario";
    if (path == L"none")
        return;
    std::ifstream file(path.c_str());
    if (!file)
    {
        if (n > 0)
            return;
        RunCommand("open 1 auto 1 Standin default session");
        RunCommand("sink 1 default");
        return;
    }
    std::string line;
    while (std::getline(file, line))
    {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        RunCommand(line);
    }
}

// The control pipe: one command per connection, answered with one reply message.
void ControlThread(void* argument)
{
    const HANDLE stop = static_cast<HANDLE>(argument);
    wchar_t name[256] = {};
    if (!::GetEnvironmentVariableW(L"CVSKAPI_STANDIN_PIPE", name, 256))
        wcscpy(name, L"\\\\.\\pipe\\CorvaneSkeinStandin");
    if (wcscmp(name, L"none") == 0)
        return;
    HANDLE connected = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (!connected)
        return;
    for (;;)
    {
        HANDLE pipe = ::CreateNamedPipeW(name, PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                                         PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT |
                                             PIPE_REJECT_REMOTE_CLIENTS,
                                         1, 65536, 65536, 0, nullptr);
        if (pipe == INVALID_HANDLE_VALUE)
            break; // another process serves that name; scripting then goes through it
        OVERLAPPED ov{};
        ov.hEvent = connected;
        ::ResetEvent(connected);
        bool ready = ::ConnectNamedPipe(pipe, &ov) != FALSE;
        if (!ready)
        {
            const DWORD error = ::GetLastError();
            if (error == ERROR_PIPE_CONNECTED)
                ready = true;
            else if (error == ERROR_IO_PENDING)
            {
                const HANDLE wakers[] = {stop, connected};
                const DWORD w = ::WaitForMultipleObjects(2, wakers, FALSE, INFINITE);
                DWORD ignored = 0;
                if (w == WAIT_OBJECT_0 + 1)
                    ready = ::GetOverlappedResult(pipe, &ov, &ignored, FALSE) != FALSE;
                else
                {
                    ::CancelIoEx(pipe, &ov);
                    ::GetOverlappedResult(pipe, &ov, &ignored, TRUE);
                    ::CloseHandle(pipe);
                    break;
                }
            }
        }
        if (ready)
        {
            std::string request(65536, '\0');
            DWORD got = 0;
            ::ResetEvent(connected);
            OVERLAPPED rov{};
            rov.hEvent = connected;
            BOOL ok = ::ReadFile(pipe, request.data(), static_cast<DWORD>(request.size()), nullptr, &rov);
            if (ok || ::GetLastError() == ERROR_IO_PENDING)
            {
                const HANDLE wakers[] = {stop, connected};
                if (::WaitForMultipleObjects(2, wakers, FALSE, 10000) == WAIT_OBJECT_0 + 1 &&
                    ::GetOverlappedResult(pipe, &rov, &got, FALSE))
                {
                    request.resize(got);
                    const std::string reply = RunCommand(request);
                    ::ResetEvent(connected);
                    OVERLAPPED wov{};
                    wov.hEvent = connected;
                    DWORD written = 0;
                    if (::WriteFile(pipe, reply.data(), static_cast<DWORD>(reply.size()), nullptr, &wov) ||
                        ::GetLastError() == ERROR_IO_PENDING)
                        ::GetOverlappedResult(pipe, &wov, &written, TRUE);
                    ::FlushFileBuffers(pipe);
                }
                else
                {
                    ::CancelIoEx(pipe, &rov);
                    ::GetOverlappedResult(pipe, &rov, &got, TRUE);
                }
            }
            ::DisconnectNamedPipe(pipe);
        }
        ::CloseHandle(pipe);
        if (::WaitForSingleObject(stop, 0) == WAIT_OBJECT_0)
            break;
    }
    ::CloseHandle(connected);
}

DWORD NotImplemented()
{
    ::SetLastError(ERROR_CALL_NOT_IMPLEMENTED);
    return 0;
}

} // namespace

// ---------------------------------------------------------------------------------------
// The operations the service calls

extern "C"
{

DWORD WINAPI SkInit()
{
    Library& lib = Lib();
    {
        std::lock_guard lock(lib.mu);
        if (lib.failNextInit != 0)
            return std::exchange(lib.failNextInit, 0);
        if (lib.initialized)
            return 0;
        lib.initialized = true;
        lib.stopping = false;
        lib.controlStop = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
        lib.notificationThread.start(&NotificationThread, nullptr);
        lib.eventThread.start(&EventThread, nullptr);
        if (lib.controlStop)
            lib.controlThread.start(&ControlThread, lib.controlStop);
    }
    RunScenario();
    return 0;
}

DWORD WINAPI SkCleanUp()
{
    Library& lib = Lib();
    {
        std::lock_guard lock(lib.mu);
        if (!lib.initialized)
            return 0;
        lib.initialized = false;
        lib.notifying = false;
        lib.stopping = true;
        for (auto& [h, c] : lib.connections)
        {
            c->closed = true;
            MarkDead(lib, *c);
        }
        lib.connections.clear();
        lib.cv.notify_all();
        if (lib.controlStop)
            ::SetEvent(lib.controlStop);
    }
    for (Thread* t : {&lib.notificationThread, &lib.eventThread, &lib.controlThread})
        t->join();
    std::lock_guard lock(lib.mu);
    if (lib.controlStop)
        ::CloseHandle(lib.controlStop);
    lib.controlStop = nullptr;
    lib.sessions.clear();
    lib.notifications.clear();
    lib.events.clear();
    for (auto& cb : lib.sessionCallbacks)
        cb = nullptr;
    return 0;
}

DWORD WINAPI SkRegisterEventNotification(DWORD kind, SkApi::SessionCallback callback, void* context)
{
    if (kind != SkApi::EventSessionOpened && kind != SkApi::EventSessionClosed)
    {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    Library& lib = Lib();
    std::lock_guard lock(lib.mu);
    lib.sessionCallbacks[kind] = callback;
    lib.sessionContexts[kind] = context;
    return TRUE;
}

// Reports the sessions open now, then every open and close as it happens.
BOOL WINAPI SkStartNotification()
{
    Library& lib = Lib();
    std::lock_guard lock(lib.mu);
    if (!lib.initialized)
    {
        ::SetLastError(ERROR_NOT_READY);
        return FALSE;
    }
    if (!lib.notifying)
    {
        lib.notifying = true;
        for (const auto& [id, s] : lib.sessions)
            if (s.open)
                QueueNotification(lib, SkApi::EventSessionOpened, id, s.guidText, s.name, s.type);
    }
    return TRUE;
}

BOOLEAN WINAPI SkResolveAddressW(DWORD kind, const wchar_t* address, DWORD port, void** record)
{
    if (!address || !record || address[0] == L'\0' || wcslen(address) >= 260)
    {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    auto* resolved = new (std::nothrow) AddressRecord{};
    if (!resolved)
    {
        ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return FALSE;
    }
    wcscpy(resolved->address, address);
    resolved->kind = kind;
    resolved->port = port;
    *record = resolved;
    return TRUE;
}

void WINAPI SkFreeProtocolParameter(void* record)
{
    delete static_cast<AddressRecord*>(record);
}

HANDLE WINAPI SkConnectTo(void* record, DWORD /*mode*/, DWORD /*timeoutMs*/)
{
    const auto* address = static_cast<const AddressRecord*>(record);
    if (!address || address->port != UrlNet::ChannelPort)
    {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    Library& lib = Lib();
    std::lock_guard lock(lib.mu);
    if (!lib.initialized)
    {
        ::SetLastError(ERROR_NOT_READY);
        return nullptr;
    }
    const std::wstring wanted = Lower(address->address);
    Session* session = nullptr;
    for (auto& [id, s] : lib.sessions)
        if (s.open && s.guidText == wanted)
            session = &s;

    auto c = std::make_shared<Connection>();
    if (!session)
    {
        c->pendingEvent = SkApi::EventInvalidAddress;
    }
    else
    {
        ++session->stats.connectAttempts;
        session->connectTimes.push_back(::GetTickCount64());
        c->sessionId = session->id;
        c->peer = session->peer;
        switch (c->peer.mode)
        {
        case PeerMode::Absent:
            ::SetLastError(ERROR_CONNECTION_REFUSED);
            return nullptr;
        case PeerMode::Silent:
            break;
        case PeerMode::InvalidAddress:
            c->pendingEvent = SkApi::EventInvalidAddress;
            break;
        default:
            c->pendingEvent = SkApi::EventConnected;
            session->lastReceived.clear();
            c->counted = true;
            ++session->stats.liveConnections;
            break;
        }
    }
    lib.nextHandle += 4;
    c->handle = lib.nextHandle;
    lib.connections[c->handle] = c;
    return reinterpret_cast<HANDLE>(c->handle);
}

BOOL WINAPI SkRegisterConnectionEventsCallback(HANDLE connection, DWORD mask, SkApi::ConnectionCallback callback,
                                               void* context)
{
    Library& lib = Lib();
    std::lock_guard lock(lib.mu);
    auto c = Find(lib, connection);
    if (!c)
    {
        ::SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    c->callback = callback;
    c->context = context;
    c->mask = mask;
    if (c->pendingEvent)
        QueueEvent(lib, c, std::exchange(c->pendingEvent, 0));
    return TRUE;
}

BOOL WINAPI SkReadData(HANDLE connection, void* buffer, DWORD* count, DWORD timeoutMs)
{
    if (!buffer || !count)
    {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    Library& lib = Lib();
    std::unique_lock lock(lib.mu);
    auto c = Find(lib, connection);
    if (!c)
    {
        ::SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    const size_t wanted = *count;
    auto ready = [&] { return c->inbound.size() >= wanted || c->broken || c->closed; };
    if (timeoutMs == INFINITE)
        lib.cv.wait(lock, ready);
    else if (!lib.cv.wait_for(lock, std::chrono::milliseconds(timeoutMs), ready))
    {
        ::SetLastError(ERROR_TIMEOUT);
        return FALSE;
    }
    if (c->closed || c->inbound.size() < wanted)
    {
        *count = 0;
        ::SetLastError(ERROR_NOT_CONNECTED);
        return FALSE;
    }
    std::copy_n(c->inbound.begin(), wanted, static_cast<uint8_t*>(buffer));
    c->inbound.erase(c->inbound.begin(), c->inbound.begin() + static_cast<std::ptrdiff_t>(wanted));
    return TRUE;
}

BOOL WINAPI SkWriteData(HANDLE connection, const void* buffer, DWORD* count, DWORD /*timeoutMs*/)
{
    if (!buffer || !count)
    {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    Library& lib = Lib();
    std::lock_guard lock(lib.mu);
    auto c = Find(lib, connection);
    if (!c)
    {
        ::SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    if (c->broken || c->closed || c->peer.mode == PeerMode::Silent || c->peer.mode == PeerMode::InvalidAddress)
    {
        ::SetLastError(ERROR_NOT_CONNECTED);
        return FALSE;
    }
    PeerReceive(lib, c, static_cast<const uint8_t*>(buffer), *count);
    return TRUE;
}

// Tolerates handles closed before. Once it returns, no callback for the handle runs or will run
// (unless called from that very callback).
DWORD WINAPI SkCloseConnection(HANDLE connection)
{
    Library& lib = Lib();
    std::unique_lock lock(lib.mu);
    auto c = Find(lib, connection);
    if (!c)
    {
        ::SetLastError(ERROR_INVALID_HANDLE);
        return FALSE;
    }
    lib.connections.erase(c->handle);
    c->closed = true;
    MarkDead(lib, *c);
    lib.cv.notify_all();
    if (::GetCurrentThreadId() != lib.eventThreadId)
        lib.cv.wait(lock, [&] { return lib.dispatching != c; });
    return TRUE;
}

// The rest of the table: resolved by the service, never called.
DWORD WINAPI SkRegisterSessionNotification() { return NotImplemented(); }
DWORD WINAPI SkConnectToEx() { return NotImplemented(); }
DWORD WINAPI SkListenFromW() { return NotImplemented(); }
DWORD WINAPI SkGetSessionInfoW() { return NotImplemented(); }
DWORD WINAPI SkFlushData() { return NotImplemented(); }
DWORD WINAPI SkReadReceivedData() { return NotImplemented(); }
DWORD WINAPI SkGetConnectionState() { return NotImplemented(); }
DWORD WINAPI SkGetConnectionHandle() { return NotImplemented(); }
DWORD WINAPI SkGetTcpConnectionInfo() { return NotImplemented(); }
DWORD WINAPI SkSslEnable() { return NotImplemented(); }
DWORD WINAPI SkSslGetPeerCertificateCN() { return NotImplemented(); }
DWORD WINAPI SkSslGetVersion() { return NotImplemented(); }
DWORD WINAPI SkSslDisable() { return NotImplemented(); }
DWORD WINAPI SkSslCheckCertificate() { return NotImplemented(); }
DWORD WINAPI SkSslCheckPrivateKey() { return NotImplemented(); }
DWORD WINAPI SkSslCheckRevocationList() { return NotImplemented(); }
DWORD WINAPI SkGetSessionToken() { return NotImplemented(); }
DWORD WINAPI SkListenForTransitConnection() { return NotImplemented(); }
DWORD WINAPI SkListenForTransitConnectionEx() { return NotImplemented(); }
DWORD WINAPI SkForwardPortUPnP() { return NotImplemented(); }
DWORD WINAPI SkRemoveForwardedPortUPnP() { return NotImplemented(); }
DWORD WINAPI SkSetBandwidthLimit() { return NotImplemented(); }
DWORD WINAPI SkEnumerateSessions() { return NotImplemented(); }
DWORD WINAPI SkSetBandwidthLimitPerSession() { return NotImplemented(); }
DWORD WINAPI SkListenFromAddrW() { return NotImplemented(); }
DWORD WINAPI SkStartSessionEnum() { return NotImplemented(); }
DWORD WINAPI SkGetNextSession() { return NotImplemented(); }
DWORD WINAPI SkCloseEnumSession() { return NotImplemented(); }
DWORD WINAPI SkIsFirstConnectInSession() { return NotImplemented(); }

// ---------------------------------------------------------------------------------------
// Scripting

DWORD WINAPI StandinCommand(const char* command, char* reply, DWORD capacity)
{
    std::string answer;
    try
    {
        answer = RunCommand(command ? command : "");
    }
    catch (...)
    {
        answer = "error: internal";
    }
    if (reply && capacity > 0)
    {
        const size_t n = std::min<size_t>(answer.size(), capacity - 1);
        std::memcpy(reply, answer.data(), n);
        reply[n] = '\0';
    }
    return static_cast<DWORD>(answer.size());
}

DWORD WINAPI StandinGetReceived(DWORD sessionId, uint8_t* buffer, DWORD capacity)
{
    Library& lib = Lib();
    std::lock_guard lock(lib.mu);
    auto s = lib.sessions.find(sessionId);
    if (s == lib.sessions.end())
        return 0;
    const auto& bytes = s->second.lastReceived;
    if (buffer)
        std::memcpy(buffer, bytes.data(), std::min<size_t>(bytes.size(), capacity));
    return static_cast<DWORD>(bytes.size());
}

BOOL WINAPI StandinGetStats(DWORD sessionId, StandinStats* stats)
{
    Library& lib = Lib();
    std::lock_guard lock(lib.mu);
    auto s = lib.sessions.find(sessionId);
    if (s == lib.sessions.end() || !stats)
        return FALSE;
    *stats = s->second.stats;
    return TRUE;
}

DWORD WINAPI StandinGetConnectTimes(DWORD sessionId, uint64_t* ticks, DWORD capacity)
{
    Library& lib = Lib();
    std::lock_guard lock(lib.mu);
    auto s = lib.sessions.find(sessionId);
    if (s == lib.sessions.end())
        return 0;
    const auto& times = s->second.connectTimes;
    for (size_t i = 0; ticks && i < times.size() && i < capacity; ++i)
        ticks[i] = times[i];
    return static_cast<DWORD>(times.size());
}

void WINAPI StandinFailNextInit(DWORD error)
{
    Library& lib = Lib();
    std::lock_guard lock(lib.mu);
    lib.failNextInit = error;
}

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved)
{
    if (reason == DLL_PROCESS_ATTACH)
    {
        g_hSelf = instance;
        ::DisableThreadLibraryCalls(instance);
    }
    else if (reason == DLL_PROCESS_DETACH && reserved == nullptr && g_library && !g_library->initialized &&
             !g_library->notificationThread.joinable() && !g_library->eventThread.joinable() &&
             !g_library->controlThread.joinable())
    {
        delete g_library;
        g_library = nullptr;
    }
    return TRUE;
}

} // extern "C"
