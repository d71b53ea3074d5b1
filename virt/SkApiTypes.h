#pragma once
// The calling contract of the channel library's operations that the service uses, shared by
// the loader and by the stand-in library in tools/skein.
#include <windows.h>

#include <cstddef>
#include <cstdint>

namespace SkApi
{

constexpr DWORD kEventSessionOpened = 1;
constexpr DWORD kEventSessionClosed = 2;

constexpr DWORD kAddressKindSession = 1;
constexpr DWORD kConnectModeDefault = 1;

// Connection events: bits of the mask and values handed to the connection callback.
constexpr DWORD kEventConnected = 1;
constexpr DWORD kEventBrokenConnection = 4;
constexpr DWORD kEventInvalidAddress = 8;

// The record the library hands to the session callbacks; only these fields are read.
struct SessionNotification
{
    uint32_t dwSessionType;
    uint32_t dwReserved;
    GUID guidSession;
    wchar_t szName[274]; // zero-terminated
    uint32_t dwSessionId;
};
static_assert(offsetof(SessionNotification, guidSession) == 8);
static_assert(offsetof(SessionNotification, szName) == 24);
static_assert(offsetof(SessionNotification, dwSessionId) == 572);

// The library owns the resolved address record; the service writes only the port.
constexpr size_t kAddressPortOffset = 524;

using SessionCallback = void(WINAPI*)(DWORD event, const SessionNotification* notification, void* context);
using ConnectionCallback = void(WINAPI*)(HANDLE connection, DWORD event, void* context);

using PFN_SkInit = DWORD(WINAPI*)();
using PFN_SkCleanUp = DWORD(WINAPI*)();
using PFN_SkRegisterEventNotification = DWORD(WINAPI*)(DWORD kind, SessionCallback callback, void* context);
using PFN_SkStartNotification = BOOL(WINAPI*)();
using PFN_SkResolveAddressW = BOOLEAN(WINAPI*)(DWORD kind, const wchar_t* address, DWORD port, void** record);
using PFN_SkConnectTo = HANDLE(WINAPI*)(void* record, DWORD mode, DWORD timeoutMs);
using PFN_SkFreeProtocolParameter = void(WINAPI*)(void* record);
using PFN_SkRegisterConnectionEventsCallback = BOOL(WINAPI*)(HANDLE connection, DWORD mask,
                                                             ConnectionCallback callback, void* context);
using PFN_SkReadData = BOOL(WINAPI*)(HANDLE connection, void* buffer, DWORD* count, DWORD timeoutMs);
using PFN_SkWriteData = BOOL(WINAPI*)(HANDLE connection, const void* buffer, DWORD* count, DWORD timeoutMs);
using PFN_SkCloseConnection = DWORD(WINAPI*)(HANDLE connection);

} // namespace SkApi
