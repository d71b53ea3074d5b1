// The calls of the service's RDP transport, each sent over loopback TCP to the test RDP host,
// which performs it against its real FreeRDP channel. The host's address is the string value
// "Address" ("127.0.0.1:PORT") of HKLM\Software\Corvane\Velomar Test\WtsForward. Each calling
// thread has a connection of its own, so that a thread waiting for session events holds up no
// other; a broken connection is made anew once per call.
#include "tools/wts-forward/WtsForwardWire.h"

#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include <wtsapi32.h>

#include <cstring>
#include <string>
#include <vector>

namespace
{

using namespace WtsForward;

constexpr wchar_t kAddressKey[] = L"Software\\Corvane\\Velomar Test\\WtsForward";

bool g_started = false;

SOCKET Connect()
{
    wchar_t text[64] = {};
    DWORD size = sizeof(text);
    if (::RegGetValueW(HKEY_LOCAL_MACHINE, kAddressKey, L"Address", RRF_RT_REG_SZ, nullptr, text, &size) !=
        ERROR_SUCCESS)
        return INVALID_SOCKET;
    const wchar_t* colon = wcsrchr(text, L':');
    if (!colon)
        return INVALID_SOCKET;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<u_short>(_wtoi(colon + 1)));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    SOCKET s = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    if (s == INVALID_SOCKET)
        return s;
    const BOOL on = TRUE;
    ::setsockopt(s, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on), sizeof on);
    if (::connect(s, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
    {
        ::closesocket(s);
        return INVALID_SOCKET;
    }
    return s;
}

// The calling thread's connection, closed when the thread ends.
struct ThreadConnection
{
    SOCKET s = INVALID_SOCKET;
    ~ThreadConnection() { Drop(); }
    void Drop()
    {
        if (s != INVALID_SOCKET)
            ::closesocket(s);
        s = INVALID_SOCKET;
    }
};
thread_local ThreadConnection t_connection;

bool SendAll(SOCKET s, const void* bytes, size_t size)
{
    const char* at = static_cast<const char*>(bytes);
    while (size > 0)
    {
        const int sent = ::send(s, at, static_cast<int>(size), 0);
        if (sent <= 0)
            return false;
        at += sent;
        size -= static_cast<size_t>(sent);
    }
    return true;
}

bool ReceiveAll(SOCKET s, void* buffer, size_t size)
{
    char* at = static_cast<char*>(buffer);
    while (size > 0)
    {
        const int got = ::recv(s, at, static_cast<int>(size), 0);
        if (got <= 0)
            return false;
        at += got;
        size -= static_cast<size_t>(got);
    }
    return true;
}

// One call to the host. FALSE with the host's error, or ERROR_NOT_CONNECTED without a host.
BOOL Call(Op op, uint32_t a, uint32_t b, uint32_t c, const void* payload, uint32_t length, uint32_t* value,
          std::vector<uint8_t>* out)
{
    if (!g_started)
    {
        WSADATA data;
        g_started = ::WSAStartup(MAKEWORD(2, 2), &data) == 0;
    }
    if (length > kMaxPayload)
    {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    const Request request{static_cast<uint32_t>(op), a, b, c, length};
    for (int attempt = 0; attempt < 2; ++attempt)
    {
        if (t_connection.s == INVALID_SOCKET)
            t_connection.s = Connect();
        Answer answer;
        std::vector<uint8_t> received;
        if (t_connection.s != INVALID_SOCKET && SendAll(t_connection.s, &request, sizeof request) &&
            SendAll(t_connection.s, payload, length) && ReceiveAll(t_connection.s, &answer, sizeof answer) &&
            answer.payloadLength <= kMaxPayload &&
            (received.resize(answer.payloadLength),
             ReceiveAll(t_connection.s, received.data(), received.size())))
        {
            if (value)
                *value = answer.value;
            if (out)
                *out = std::move(received);
            ::SetLastError(answer.error);
            return answer.ok ? TRUE : FALSE;
        }
        t_connection.Drop();
    }
    ::SetLastError(ERROR_NOT_CONNECTED);
    return FALSE;
}

uint32_t U32(const uint8_t* at)
{
    uint32_t value;
    std::memcpy(&value, at, 4);
    return value;
}

} // namespace

extern "C"
{

    BOOL WINAPI WTSEnumerateSessionsW(HANDLE, DWORD, DWORD, PWTS_SESSION_INFOW* sessions, DWORD* count)
    {
        std::vector<uint8_t> list;
        if (!sessions || !count || !Call(Op::Enumerate, 0, 0, 0, nullptr, 0, nullptr, &list))
            return FALSE;
        // First pass: how many and how long; then one block holding the records and their names.
        std::vector<WTS_SESSION_INFOW> infos;
        std::vector<std::wstring> names;
        for (size_t at = 0; at + 12 <= list.size();)
        {
            const uint32_t length = U32(&list[at + 8]);
            if (list.size() - at - 12 < size_t{length} * 2)
                break;
            infos.push_back(
                {U32(&list[at]), nullptr, static_cast<WTS_CONNECTSTATE_CLASS>(U32(&list[at + 4]))});
            names.emplace_back(reinterpret_cast<const wchar_t*>(&list[at + 12]), length);
            at += 12 + size_t{length} * 2;
        }
        size_t bytes = infos.size() * sizeof(WTS_SESSION_INFOW);
        for (const auto& name : names)
            bytes += (name.size() + 1) * sizeof(wchar_t);
        auto* block = static_cast<uint8_t*>(::HeapAlloc(::GetProcessHeap(), HEAP_ZERO_MEMORY, bytes + 1));
        if (!block)
        {
            ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
            return FALSE;
        }
        auto* records = reinterpret_cast<WTS_SESSION_INFOW*>(block);
        auto* text = reinterpret_cast<wchar_t*>(block + infos.size() * sizeof(WTS_SESSION_INFOW));
        for (size_t i = 0; i < infos.size(); ++i)
        {
            records[i] = infos[i];
            records[i].pWinStationName = text;
            std::memcpy(text, names[i].c_str(), (names[i].size() + 1) * sizeof(wchar_t));
            text += names[i].size() + 1;
        }
        *sessions = records;
        *count = static_cast<DWORD>(infos.size());
        return TRUE;
    }

    void WINAPI WTSFreeMemory(PVOID memory)
    {
        if (memory)
            ::HeapFree(::GetProcessHeap(), 0, memory);
    }

    BOOL WINAPI WTSQuerySessionInformationW(HANDLE, DWORD session, WTS_INFO_CLASS what, LPWSTR* buffer,
                                            DWORD* size)
    {
        std::vector<uint8_t> logon;
        if (what != WTSSessionInfo || !buffer || !size)
        {
            ::SetLastError(ERROR_NOT_SUPPORTED);
            return FALSE;
        }
        if (!Call(Op::QueryLogon, session, 0, 0, nullptr, 0, nullptr, &logon) || logon.size() != 8)
            return FALSE;
        auto* info =
            static_cast<WTSINFOW*>(::HeapAlloc(::GetProcessHeap(), HEAP_ZERO_MEMORY, sizeof(WTSINFOW)));
        if (!info)
            return FALSE;
        info->SessionId = session;
        std::memcpy(&info->LogonTime.QuadPart, logon.data(), 8);
        *buffer = reinterpret_cast<LPWSTR>(info);
        *size = sizeof(WTSINFOW);
        return TRUE;
    }

    BOOL WINAPI WTSWaitSystemEvent(HANDLE, DWORD mask, DWORD* flags)
    {
        uint32_t value = 0;
        const BOOL ok = Call(Op::WaitEvent, mask, 0, 0, nullptr, 0, &value, nullptr);
        if (ok && flags)
            *flags = value;
        return ok;
    }

    HANDLE WINAPI WTSVirtualChannelOpenEx(DWORD session, LPSTR name, DWORD flags)
    {
        uint32_t handle = 0;
        const uint32_t length = name ? static_cast<uint32_t>(strlen(name)) : 0;
        if (!Call(Op::OpenEx, session, flags, 0, name, length, &handle, nullptr))
            return nullptr;
        return reinterpret_cast<HANDLE>(static_cast<uintptr_t>(handle));
    }

    HANDLE WINAPI WTSVirtualChannelOpen(HANDLE, DWORD session, LPSTR name)
    {
        return WTSVirtualChannelOpenEx(session, name, 0);
    }

    BOOL WINAPI WTSVirtualChannelRead(HANDLE channel, ULONG timeoutMs, PCHAR buffer, ULONG size, PULONG got)
    {
        std::vector<uint8_t> bytes;
        if (got)
            *got = 0;
        const auto handle = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(channel));
        if (!Call(Op::Read, handle, timeoutMs, size, nullptr, 0, nullptr, &bytes))
            return FALSE;
        const size_t taken = bytes.size() < size ? bytes.size() : size;
        if (taken > 0)
            std::memcpy(buffer, bytes.data(), taken);
        if (got)
            *got = static_cast<ULONG>(taken);
        return TRUE;
    }

    BOOL WINAPI WTSVirtualChannelWrite(HANDLE channel, PCHAR bytes, ULONG size, PULONG written)
    {
        uint32_t value = 0;
        const auto handle = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(channel));
        const BOOL ok = Call(Op::Write, handle, 0, 0, bytes, size, &value, nullptr);
        if (written)
            *written = ok ? value : 0;
        return ok;
    }

    BOOL WINAPI WTSVirtualChannelClose(HANDLE channel)
    {
        const auto handle = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(channel));
        return Call(Op::Close, handle, 0, 0, nullptr, 0, nullptr, nullptr);
    }

} // extern "C"
