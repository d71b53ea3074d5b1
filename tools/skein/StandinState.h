#pragma once
// The state of the stand-in channel library, shared by its parts: the sessions and their
// scripted client sides, the connections, and the library's threads.
#include "tools/skein/Standin.h"
#include "virt/SkApiTypes.h"
#include "virt/UrlClientParser.h"
#include "virt/UrlProtocol.h"

#include "common/Locks.h"
#include "common/UniqueHandle.h"

#include <windows.h>

#include <process.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace standin
{

// The library's address record: the service writes the port at byte offset 524.
struct AddressRecord
{
    wchar_t address[260];
    uint32_t kind;
    uint32_t port;
};
static_assert(offsetof(AddressRecord, port) == SkApi::kAddressPortOffset);

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

// The sink file, kept open while its path stays the same: the append runs inside the channel
// write, for every URL, where an open and a close per line would dominate its cost.
struct SinkFile
{
    std::wstring path;
    daxlib::unique_hfile file;
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
    SinkFile sinkFile;
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
    bool counted = false;   // counted as live in the session's stats
    DWORD pendingEvent = 0; // reported once a callback is registered
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
using SrwMutex = daxlib::srw_lock;
using CondVar = daxlib::condition_variable;

class Thread
{
public:
    void start(void (*entry)(void*), void* argument)
    {
        m_pfnEntry = entry;
        m_pArgument = argument;
        m_hThread = reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, &Run, this, 0, &m_uId));
    }
    bool joinable() const noexcept { return m_hThread != nullptr; }
    bool is_current() const noexcept { return m_hThread && ::GetCurrentThreadId() == m_uId; }
    // Waits unless called on the thread itself; closes the handle either way.
    void join() noexcept
    {
        if (!m_hThread)
            return;
        if (!is_current())
            ::WaitForSingleObject(m_hThread, INFINITE);
        ::CloseHandle(m_hThread);
        m_hThread = nullptr;
    }

private:
    static unsigned __stdcall Run(void* self)
    {
        auto* thread = static_cast<Thread*>(self);
        try
        {
            thread->m_pfnEntry(thread->m_pArgument);
        }
        catch (...)
        {
            // Nothing unwinds out of the library's threads.
        }
        return 0;
    }
    HANDLE m_hThread = nullptr;
    unsigned m_uId = 0;
    void (*m_pfnEntry)(void*) = nullptr;
    void* m_pArgument = nullptr;
};

struct Library
{
    SrwMutex mu;
    CondVar cv; // data, breaks, queue changes, finished dispatches
    bool initialized TS_GUARDED_BY(mu) = false;
    bool notifying TS_GUARDED_BY(mu) = false;
    bool stopping TS_GUARDED_BY(mu) = false;
    DWORD failNextInit TS_GUARDED_BY(mu) = 0;
    std::map<uint32_t, Session> sessions TS_GUARDED_BY(mu);
    std::map<uintptr_t, std::shared_ptr<Connection>> connections TS_GUARDED_BY(mu);
    uintptr_t nextHandle TS_GUARDED_BY(mu) = 0x5c40;
    SkApi::SessionCallback sessionCallbacks[3] = {};
    void* sessionContexts[3] = {};
    std::deque<QueuedNotification> notifications TS_GUARDED_BY(mu);
    std::deque<QueuedEvent> events TS_GUARDED_BY(mu);
    std::shared_ptr<Connection> dispatching TS_GUARDED_BY(mu);
    Thread notificationThread;
    Thread eventThread;
    Thread controlThread;
    DWORD eventThreadId = 0;
    HANDLE controlStop = nullptr;
};

// Created on first use; deleted when the library is unloaded after a clean-up.
extern Library* g_library;
extern HMODULE g_hSelf;
Library& Lib();

// Text
std::wstring Widen(const std::string& text);
std::string Narrow(const std::wstring& text);
std::wstring Lower(std::wstring text);
bool ParseHex(const std::string& text, std::vector<uint8_t>& out);
bool ParseGuid(const std::wstring& text, GUID& guid);
std::wstring AutoGuid(uint32_t id);
std::wstring DefaultSink();
void AppendLine(SinkFile& sink, const std::wstring& path, const std::string& line);

// Connections and notifications, all with the library lock held
void QueueEvent(Library& lib, const std::shared_ptr<Connection>& c, DWORD event) TS_REQUIRES(lib.mu);
void MarkDead(Library& lib, Connection& c) TS_REQUIRES(lib.mu);
void Break(Library& lib, const std::shared_ptr<Connection>& c) TS_REQUIRES(lib.mu);
void PeerSend(Connection& c, const uint8_t* bytes, size_t size);
void PeerReceive(Library& lib, const std::shared_ptr<Connection>& c, const uint8_t* bytes, size_t size)
    TS_REQUIRES(lib.mu);
std::shared_ptr<Connection> Find(Library& lib, HANDLE handle) TS_REQUIRES(lib.mu);
void QueueNotification(Library& lib, DWORD kind, uint32_t id, const std::wstring& guidText,
                       const std::wstring& name, uint32_t type) TS_REQUIRES(lib.mu);

// The library's threads
void NotificationThread(void*);
void EventThread(void*);
void ControlThread(void* stopEvent);

// Scripting
std::string RunCommand(const std::string& line);
void RunScenario();

} // namespace standin
