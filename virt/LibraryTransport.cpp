#include "virt/LibraryTransport.h"

#include "common/ServiceEvents.h"
#include "common/WideFormat.h"
#include "virt/SkApi.h"
#include "virt/UrlProtocol.h"

#include <cstring>

namespace
{

// The log texts name the server's initialisation, as they always have.
constexpr wchar_t kLibraryInit[] = L"CVirtServer::Init";

bool ChannelFunctionsResolved() noexcept
{
    using namespace SkApi;
    return pfnSkResolveAddressW && pfnSkConnectTo && pfnSkFreeProtocolParameter &&
           pfnSkRegisterConnectionEventsCallback && pfnSkReadData && pfnSkWriteData && pfnSkCloseConnection;
}

BOOL NotResolved()
{
    ::SetLastError(ERROR_PROC_NOT_FOUND);
    return FALSE;
}

} // namespace

std::wstring CLibraryTransport::Describe() const
{
    const std::wstring library = L"the channel library " + SkApi::LibraryPath();
    return Loaded() ? library : library + L" (not loaded: no URL is forwarded)";
}

bool CLibraryTransport::Init(const Log& log)
{
    auto unavailable = [&](const std::wstring& what)
    {
        // Once per start: a failed Init leaves nothing to retry.
        if (m_bReportUnavailable && !m_bUnavailableReported.exchange(true))
            events::Report(events::Level::Error, events::kChannelLibraryUnavailable,
                           {SkApi::LibraryPath(), what});
        return false;
    };
    if (!SkApiLoadLib())
    {
        const DWORD error = ::GetLastError();
        log.Log(LogLevel::Error, kLibraryInit, L"SkApiLoadLib() failed. LastError=%u", error);
        return unavailable(daxlib::Format(L"it could not be loaded (error %u)", error));
    }
    if (const DWORD error = SkApi::pfnSkInit ? SkApi::pfnSkInit() : ERROR_PROC_NOT_FOUND; error != 0)
    {
        log.Log(LogLevel::Error, kLibraryInit, L"SkInit() failed. Error=%u", error);
        return unavailable(daxlib::Format(L"it loaded but did not initialise (error %u)", error));
    }
    m_bLoaded = true;
    return true;
}

void CLibraryTransport::Subscribe(SkApi::SessionCallback opened, SkApi::SessionCallback closed, void* context)
{
    if (!SkApi::pfnSkRegisterEventNotification)
        return;
    SkApi::pfnSkRegisterEventNotification(SkApi::kEventSessionOpened, opened, context);
    SkApi::pfnSkRegisterEventNotification(SkApi::kEventSessionClosed, closed, context);
}

bool CLibraryTransport::StartNotification()
{
    return SkApi::pfnSkStartNotification && SkApi::pfnSkStartNotification();
}

void CLibraryTransport::CleanUp()
{
    if (SkApi::pfnSkCleanUp)
        SkApi::pfnSkCleanUp();
}

HANDLE CLibraryTransport::Connect(const Log& log, const wchar_t* origin, const wchar_t* guidText, uint32_t)
{
    using namespace SkApi;
    if (!ChannelFunctionsResolved())
    {
        ::SetLastError(ERROR_PROC_NOT_FOUND);
        log.Log(LogLevel::Error, origin, L"SkResolveAddressW(\"%s\") failed", guidText);
        return nullptr;
    }
    void* address = nullptr;
    if (!pfnSkResolveAddressW(kAddressKindSession, guidText, UrlNet::kChannelPort, &address) || !address)
    {
        log.Log(LogLevel::Error, origin, L"SkResolveAddressW(\"%s\") failed", guidText);
        return nullptr;
    }
    const uint32_t port = UrlNet::kChannelPort;
    std::memcpy(static_cast<uint8_t*>(address) + kAddressPortOffset, &port, sizeof(port));
    HANDLE connection = pfnSkConnectTo(address, kConnectModeDefault, INFINITE);
    pfnSkFreeProtocolParameter(address);
    if (!connection)
        log.Log(LogLevel::Error, origin, L"SkConnectTo() failed");
    return connection;
}

bool CLibraryTransport::WatchConnection(HANDLE connection, SkApi::ConnectionCallback callback, void* context)
{
    constexpr DWORD kEventMask =
        SkApi::kEventConnected | SkApi::kEventBrokenConnection | SkApi::kEventInvalidAddress;
    return SkApi::pfnSkRegisterConnectionEventsCallback &&
           SkApi::pfnSkRegisterConnectionEventsCallback(connection, kEventMask, callback, context);
}

BOOL CLibraryTransport::Read(HANDLE connection, void* buffer, DWORD* count, DWORD timeoutMs)
{
    return SkApi::pfnSkReadData ? SkApi::pfnSkReadData(connection, buffer, count, timeoutMs) : NotResolved();
}

BOOL CLibraryTransport::Write(HANDLE connection, const void* bytes, DWORD* count, DWORD timeoutMs)
{
    return SkApi::pfnSkWriteData ? SkApi::pfnSkWriteData(connection, bytes, count, timeoutMs) : NotResolved();
}

void CLibraryTransport::Close(HANDLE connection)
{
    if (connection && SkApi::pfnSkCloseConnection)
        SkApi::pfnSkCloseConnection(connection);
}
