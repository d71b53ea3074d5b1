// A stand-in for the maker's channel library "cvskapi.dll". It exports the 40 names the
// service resolves and gives the 11 it calls the behaviour the service relies on: session
// notifications on a thread of their own, connections addressed by session GUID text, their
// events on another thread, whole and in-order reads and writes. Behind every connection it
// plays the client side of the URL channel, scripted per session (StandinChannel.cpp,
// StandinScript.cpp).
#include "tools/skein/StandinState.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

using namespace standin;

namespace
{

DWORD NotImplemented()
{
    ::SetLastError(ERROR_CALL_NOT_IMPLEMENTED);
    return 0;
}

// Whether the library may go with the module: nothing started and no thread left.
bool Unused(Library& lib)
{
    daxlib::lock_guard lock(lib.mu);
    return !lib.initialized && !lib.notificationThread.joinable() && !lib.eventThread.joinable() &&
           !lib.controlThread.joinable();
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
            daxlib::lock_guard lock(lib.mu);
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
            daxlib::lock_guard lock(lib.mu);
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
        daxlib::lock_guard lock(lib.mu);
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
        if (kind != SkApi::kEventSessionOpened && kind != SkApi::kEventSessionClosed)
        {
            ::SetLastError(ERROR_INVALID_PARAMETER);
            return FALSE;
        }
        Library& lib = Lib();
        daxlib::lock_guard lock(lib.mu);
        lib.sessionCallbacks[kind] = callback;
        lib.sessionContexts[kind] = context;
        return TRUE;
    }

    // Reports the sessions open now, then every open and close as it happens.
    BOOL WINAPI SkStartNotification()
    {
        Library& lib = Lib();
        daxlib::lock_guard lock(lib.mu);
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
                    QueueNotification(lib, SkApi::kEventSessionOpened, id, s.guidText, s.name, s.type);
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
        if (!address || address->port != UrlNet::kChannelPort)
        {
            ::SetLastError(ERROR_INVALID_PARAMETER);
            return nullptr;
        }
        Library& lib = Lib();
        daxlib::lock_guard lock(lib.mu);
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
            c->peer.mode = PeerMode::InvalidAddress;
            c->pendingEvent = SkApi::kEventInvalidAddress;
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
                c->pendingEvent = SkApi::kEventInvalidAddress;
                break;
            default:
                c->pendingEvent = SkApi::kEventConnected;
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

    BOOL WINAPI SkRegisterConnectionEventsCallback(HANDLE connection, DWORD mask,
                                                   SkApi::ConnectionCallback callback, void* context)
    {
        Library& lib = Lib();
        daxlib::lock_guard lock(lib.mu);
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
        daxlib::unique_lock lock(lib.mu);
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
        daxlib::lock_guard lock(lib.mu);
        auto c = Find(lib, connection);
        if (!c)
        {
            ::SetLastError(ERROR_INVALID_HANDLE);
            return FALSE;
        }
        if (c->broken || c->closed || c->peer.mode == PeerMode::Silent ||
            c->peer.mode == PeerMode::InvalidAddress)
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
        daxlib::unique_lock lock(lib.mu);
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
            lib.cv.wait(lock, [&]() TS_REQUIRES(lib.mu) { return lib.dispatching != c; });
        return TRUE;
    }

    // The rest of the table: resolved by the service, never called.
    DWORD WINAPI SkRegisterSessionNotification()
    {
        return NotImplemented();
    }
    DWORD WINAPI SkConnectToEx()
    {
        return NotImplemented();
    }
    DWORD WINAPI SkListenFromW()
    {
        return NotImplemented();
    }
    DWORD WINAPI SkGetSessionInfoW()
    {
        return NotImplemented();
    }
    DWORD WINAPI SkFlushData()
    {
        return NotImplemented();
    }
    DWORD WINAPI SkReadReceivedData()
    {
        return NotImplemented();
    }
    DWORD WINAPI SkGetConnectionState()
    {
        return NotImplemented();
    }
    DWORD WINAPI SkGetConnectionHandle()
    {
        return NotImplemented();
    }
    DWORD WINAPI SkGetTcpConnectionInfo()
    {
        return NotImplemented();
    }
    DWORD WINAPI SkSslEnable()
    {
        return NotImplemented();
    }
    DWORD WINAPI SkSslGetPeerCertificateCN()
    {
        return NotImplemented();
    }
    DWORD WINAPI SkSslGetVersion()
    {
        return NotImplemented();
    }
    DWORD WINAPI SkSslDisable()
    {
        return NotImplemented();
    }
    DWORD WINAPI SkSslCheckCertificate()
    {
        return NotImplemented();
    }
    DWORD WINAPI SkSslCheckPrivateKey()
    {
        return NotImplemented();
    }
    DWORD WINAPI SkSslCheckRevocationList()
    {
        return NotImplemented();
    }
    DWORD WINAPI SkGetSessionToken()
    {
        return NotImplemented();
    }
    DWORD WINAPI SkListenForTransitConnection()
    {
        return NotImplemented();
    }
    DWORD WINAPI SkListenForTransitConnectionEx()
    {
        return NotImplemented();
    }
    DWORD WINAPI SkForwardPortUPnP()
    {
        return NotImplemented();
    }
    DWORD WINAPI SkRemoveForwardedPortUPnP()
    {
        return NotImplemented();
    }
    DWORD WINAPI SkSetBandwidthLimit()
    {
        return NotImplemented();
    }
    DWORD WINAPI SkEnumerateSessions()
    {
        return NotImplemented();
    }
    DWORD WINAPI SkSetBandwidthLimitPerSession()
    {
        return NotImplemented();
    }
    DWORD WINAPI SkListenFromAddrW()
    {
        return NotImplemented();
    }
    DWORD WINAPI SkStartSessionEnum()
    {
        return NotImplemented();
    }
    DWORD WINAPI SkGetNextSession()
    {
        return NotImplemented();
    }
    DWORD WINAPI SkCloseEnumSession()
    {
        return NotImplemented();
    }
    DWORD WINAPI SkIsFirstConnectInSession()
    {
        return NotImplemented();
    }

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
        daxlib::lock_guard lock(lib.mu);
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
        daxlib::lock_guard lock(lib.mu);
        auto s = lib.sessions.find(sessionId);
        if (s == lib.sessions.end() || !stats)
            return FALSE;
        *stats = s->second.stats;
        return TRUE;
    }

    DWORD WINAPI StandinGetConnectTimes(DWORD sessionId, uint64_t* ticks, DWORD capacity)
    {
        Library& lib = Lib();
        daxlib::lock_guard lock(lib.mu);
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
        daxlib::lock_guard lock(lib.mu);
        lib.failNextInit = error;
    }

    BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved)
    {
        if (reason == DLL_PROCESS_ATTACH)
        {
            g_hSelf = instance;
            ::DisableThreadLibraryCalls(instance);
        }
        else if (reason == DLL_PROCESS_DETACH && reserved == nullptr && g_library && Unused(*g_library))
        {
            delete g_library;
            g_library = nullptr;
        }
        return TRUE;
    }

} // extern "C"
