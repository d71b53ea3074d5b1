#pragma once
// The registry entries that make velomar-open selectable as the current user's browser for
// http and https, and their removal.
#include <windows.h>

#include <string>

namespace agent
{

constexpr wchar_t kProgId[] = L"VelomarOpen.URL";
constexpr wchar_t kClientName[] = L"velomar-open";
constexpr wchar_t kApplicationName[] = L"Velomar";

// `softwareKey` is the key below `root` that holds Classes, Clients and RegisteredApplications
// ("Software" under HKEY_CURRENT_USER for real use). Returns ERROR_SUCCESS or the first error.
LSTATUS RegisterAsBrowser(HKEY root, const std::wstring& softwareKey, const std::wstring& exePath);
// Removes everything RegisterAsBrowser wrote; entries already gone are not an error.
LSTATUS UnregisterAsBrowser(HKEY root, const std::wstring& softwareKey);

// True when the command that opens `scheme` URLs for this user runs `exePath`: opening a URL
// "locally" would then hand it straight back to us.
bool DefaultHandlerIs(const std::wstring& scheme, const std::wstring& exePath);

} // namespace agent
