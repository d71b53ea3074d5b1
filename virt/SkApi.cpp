#include "virt/SkApi.h"

#include "common/ProcessSecurity.h"

#include <shlobj.h>

namespace SkApi
{

const char* const ExportNames[kExportCount] = {
    "SkRegisterEventNotification",
    "SkRegisterSessionNotification",
    "SkResolveAddressW",
    "SkConnectTo",
    "SkConnectToEx",
    "SkListenFromW",
    "SkGetSessionInfoW",
    "SkRegisterConnectionEventsCallback",
    "SkStartNotification",
    "SkCloseConnection",
    "SkFlushData",
    "SkReadData",
    "SkReadReceivedData",
    "SkWriteData",
    "SkFreeProtocolParameter",
    "SkGetConnectionState",
    "SkGetConnectionHandle",
    "SkGetTcpConnectionInfo",
    "SkInit",
    "SkCleanUp",
    "SkSslEnable",
    "SkSslGetPeerCertificateCN",
    "SkSslGetVersion",
    "SkSslDisable",
    "SkSslCheckCertificate",
    "SkSslCheckPrivateKey",
    "SkSslCheckRevocationList",
    "SkGetSessionToken",
    "SkListenForTransitConnection",
    "SkListenForTransitConnectionEx",
    "SkForwardPortUPnP",
    "SkRemoveForwardedPortUPnP",
    "SkSetBandwidthLimit",
    "SkEnumerateSessions",
    "SkSetBandwidthLimitPerSession",
    "SkListenFromAddrW",
    "SkStartSessionEnum",
    "SkGetNextSession",
    "SkCloseEnumSession",
    "SkIsFirstConnectInSession",
};

PFN_SkRegisterEventNotification pfnSkRegisterEventNotification;
PFN_SkResolveAddressW pfnSkResolveAddressW;
PFN_SkConnectTo pfnSkConnectTo;
PFN_SkRegisterConnectionEventsCallback pfnSkRegisterConnectionEventsCallback;
PFN_SkStartNotification pfnSkStartNotification;
PFN_SkCloseConnection pfnSkCloseConnection;
PFN_SkReadData pfnSkReadData;
PFN_SkWriteData pfnSkWriteData;
PFN_SkFreeProtocolParameter pfnSkFreeProtocolParameter;
PFN_SkInit pfnSkInit;
PFN_SkCleanUp pfnSkCleanUp;

namespace
{

HMODULE g_hModule;
// The exports the service resolves but never calls are kept untyped.
FARPROC g_unusedProcs[kExportCount];

// Where each export of the table is stored: a typed pointer for the ones the service calls.
void StoreProc(size_t index, FARPROC proc)
{
    // Through void(*)() so that the compiler accepts the change of function type.
    const auto generic = reinterpret_cast<void (*)()>(proc);
    switch (index)
    {
    case 0:
        pfnSkRegisterEventNotification = reinterpret_cast<PFN_SkRegisterEventNotification>(generic);
        break;
    case 2:
        pfnSkResolveAddressW = reinterpret_cast<PFN_SkResolveAddressW>(generic);
        break;
    case 3:
        pfnSkConnectTo = reinterpret_cast<PFN_SkConnectTo>(generic);
        break;
    case 7:
        pfnSkRegisterConnectionEventsCallback =
            reinterpret_cast<PFN_SkRegisterConnectionEventsCallback>(generic);
        break;
    case 8:
        pfnSkStartNotification = reinterpret_cast<PFN_SkStartNotification>(generic);
        break;
    case 9:
        pfnSkCloseConnection = reinterpret_cast<PFN_SkCloseConnection>(generic);
        break;
    case 11:
        pfnSkReadData = reinterpret_cast<PFN_SkReadData>(generic);
        break;
    case 13:
        pfnSkWriteData = reinterpret_cast<PFN_SkWriteData>(generic);
        break;
    case 14:
        pfnSkFreeProtocolParameter = reinterpret_cast<PFN_SkFreeProtocolParameter>(generic);
        break;
    case 18:
        pfnSkInit = reinterpret_cast<PFN_SkInit>(generic);
        break;
    case 19:
        pfnSkCleanUp = reinterpret_cast<PFN_SkCleanUp>(generic);
        break;
    default:
        g_unusedProcs[index] = proc;
        break;
    }
}

} // namespace

HMODULE LoadedModule() noexcept
{
    return g_hModule;
}

std::wstring LibraryPath()
{
    wchar_t folder[MAX_PATH] = {};
    if (!::SHGetSpecialFolderPathW(nullptr, folder, CSIDL_PROGRAM_FILES_COMMON, FALSE))
        return {};
    return std::wstring(folder) + L"\\Corvane\\Skein 3\\" + L"cvskapi.dll";
}

} // namespace SkApi

bool SkApiLoadLib()
{
    using namespace SkApi;
    if (g_hModule)
        return true;
    const std::wstring path = LibraryPath();
    if (path.empty())
        return false;
    // By full path only, and its own imports only from its folder or System32.
    g_hModule = daxlib::LoadLibraryByFullPath(path);
    if (!g_hModule)
        return false;

    bool complete = true;
    DWORD firstError = ERROR_SUCCESS;
    for (size_t i = 0; i < kExportCount; ++i)
    {
        FARPROC proc = ::GetProcAddress(g_hModule, ExportNames[i]);
        if (!proc && complete)
        {
            complete = false;
            firstError = ::GetLastError();
        }
        StoreProc(i, proc);
    }
    if (!complete)
        ::SetLastError(firstError);
    return complete;
}

void SkApiFreeLib()
{
    using namespace SkApi;
    for (size_t i = 0; i < kExportCount; ++i)
        StoreProc(i, nullptr);
    if (g_hModule)
        ::FreeLibrary(g_hModule);
    g_hModule = nullptr;
}
