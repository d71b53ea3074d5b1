#pragma once
// Run-time binding of the channel library "cvskapi.dll" from the maker's folder under the
// common program-files folder. The 40 exports are resolved by name; the service calls 11.
#include "virt/SkApiTypes.h"

#include <string>

namespace SkApi
{

constexpr size_t kExportCount = 40;
// The exports in the order they are resolved.
extern const char* const ExportNames[kExportCount];

// Set by SkApiLoadLib, cleared by SkApiFreeLib; null when unresolved.
extern PFN_SkRegisterEventNotification pfnSkRegisterEventNotification;
extern PFN_SkResolveAddressW pfnSkResolveAddressW;
extern PFN_SkConnectTo pfnSkConnectTo;
extern PFN_SkRegisterConnectionEventsCallback pfnSkRegisterConnectionEventsCallback;
extern PFN_SkStartNotification pfnSkStartNotification;
extern PFN_SkCloseConnection pfnSkCloseConnection;
extern PFN_SkReadData pfnSkReadData;
extern PFN_SkWriteData pfnSkWriteData;
extern PFN_SkFreeProtocolParameter pfnSkFreeProtocolParameter;
extern PFN_SkInit pfnSkInit;
extern PFN_SkCleanUp pfnSkCleanUp;

HMODULE LoadedModule() noexcept;
// The full path the library is loaded from; empty when the folder lookup fails.
std::wstring LibraryPath();

} // namespace SkApi

// True when every export resolved. A second call after an incomplete resolution returns true
// because only the module handle is looked at; this is how the loader has always behaved.
bool SkApiLoadLib();
void SkApiFreeLib();
