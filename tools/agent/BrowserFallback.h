#pragma once
// Opening a URL on this host when the service cannot send it: with a browser that is not
// velomar-open, since velomar-open is usually the user's default browser itself.
#include <windows.h>

#include <string>

namespace agent
{

// Machine settings of the agent, read under the policy key first and the product key second.
constexpr wchar_t kAgentPolicyKey[] = L"Software\\Policies\\Corvane\\Velomar (Server)";
constexpr wchar_t kAgentProductKey[] = L"Software\\Corvane\\Velomar (Server)";
constexpr wchar_t kFallbackBrowserValue[] = L"FallbackBrowser"; // REG_SZ or REG_EXPAND_SZ, with %1
constexpr wchar_t kNoticeValue[] = L"NotOpenedNotice";          // REG_DWORD; 0: no notice
// Per user (HKEY_CURRENT_USER): the open command of each scheme's default before --register.
constexpr wchar_t kPreviousBrowserKey[] = L"Software\\Corvane\\Velomar (Server)\\PreviousBrowser";
// When set, the notice is appended to this file as a line instead of being shown: the seam
// that lets tests (and unattended hosts' diagnostics) see it without a window.
constexpr wchar_t kNoticeFileVariable[] = L"VELOMAR_OPEN_NOTICE_FILE";

struct FallbackResult
{
    bool opened = false;
    std::wstring
        browser;     // which choice opened it: "FallbackBrowser", "previous default", or the client's name
    DWORD error = 0; // the last start that failed, when none opened it
};

// Starts, for an http, https or file URL, the first of: the administrator's FallbackBrowser, the
// user's default browser from before --register, the first other browser under
// StartMenuInternet (the user's, then the machine's). Commands naming velomar-open are skipped;
// the URL is one argument of a process started directly, never through a shell.
FallbackResult OpenWithFallbackBrowser(const std::wstring& url, const std::wstring& scheme);

// Keeps, for http and https, the current default's open command unless it is velomar-open.
void RememberPreviousBrowsers();
void ForgetPreviousBrowsers();

// Tells the user that `url` was opened nowhere: a line to the notice file when
// kNoticeFileVariable is set, else, when `window` is true, a message box. Nothing when the
// administrator set NotOpenedNotice to 0.
void RaiseNotOpenedNotice(const std::wstring& url, bool window);

} // namespace agent
