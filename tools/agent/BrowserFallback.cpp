#include "tools/agent/BrowserFallback.h"

#include "common/UniqueHandle.h"
#include "tools/agent/BrowserCommand.h"

#include <shlwapi.h>

#include <array>
#include <optional>
#include <vector>

namespace agent
{

namespace
{
// The schemes whose earlier default is kept at registration, and those a browser opens.
constexpr std::array<const wchar_t*, 2> kWebSchemes = {L"http", L"https"};
constexpr std::array<const wchar_t*, 3> kBrowserSchemes = {L"http", L"https", L"file"};
constexpr wchar_t kClients[] = L"Software\\Clients\\StartMenuInternet";

std::optional<std::wstring> ReadString(HKEY root, const std::wstring& path, const wchar_t* name)
{
    DWORD bytes = 0;
    const DWORD flags = RRF_RT_REG_SZ | RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND;
    if (::RegGetValueW(root, path.c_str(), name, flags, nullptr, nullptr, &bytes) != ERROR_SUCCESS)
        return std::nullopt;
    std::wstring value(bytes / sizeof(wchar_t) + 1, L'\0');
    bytes = static_cast<DWORD>(value.size() * sizeof(wchar_t));
    if (::RegGetValueW(root, path.c_str(), name, flags, nullptr, value.data(), &bytes) != ERROR_SUCCESS)
        return std::nullopt;
    value.resize(wcsnlen(value.c_str(), value.size()));
    return value;
}

// The policy key's value wins over the product key's, as for every other machine setting.
std::optional<std::wstring> ReadMachineString(const wchar_t* name)
{
    for (const wchar_t* key : {kAgentPolicyKey, kAgentProductKey})
    {
        if (auto value = ReadString(HKEY_LOCAL_MACHINE, key, name); value && !value->empty())
            return value;
    }
    return std::nullopt;
}

std::optional<DWORD> ReadMachineDword(const wchar_t* name)
{
    for (const wchar_t* key : {kAgentPolicyKey, kAgentProductKey})
    {
        DWORD value = 0;
        DWORD bytes = sizeof(value);
        if (::RegGetValueW(HKEY_LOCAL_MACHINE, key, name, RRF_RT_REG_DWORD, nullptr, &value, &bytes) ==
            ERROR_SUCCESS)
            return value;
    }
    return std::nullopt;
}

std::wstring ExpandEnvironment(const std::wstring& text)
{
    const DWORD size = ::ExpandEnvironmentStringsW(text.c_str(), nullptr, 0);
    if (size == 0)
        return text;
    std::wstring out(size, L'\0');
    if (::ExpandEnvironmentStringsW(text.c_str(), out.data(), size) == 0)
        return text;
    out.resize(wcsnlen(out.c_str(), out.size()));
    return out;
}

// The registered command's variables are expanded before the URL goes in, so that nothing in
// the URL is ever expanded.
DWORD Launch(const std::wstring& command, const std::wstring& url)
{
    const auto launch = ExpandBrowserCommand(ExpandEnvironment(command), url);
    if (!launch)
        return ERROR_BAD_PATHNAME;
    if (IsOwnProgram(launch->program))
        return ERROR_CIRCULAR_DEPENDENCY;
    std::wstring line = launch->commandLine;
    // A bare name is left to CreateProcess's search; a path is started as it stands.
    const bool hasPath = launch->program.find_first_of(L"\\/") != std::wstring::npos;
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION info{};
    if (!::CreateProcessW(hasPath ? launch->program.c_str() : nullptr, line.data(), nullptr, nullptr, FALSE,
                          0, nullptr, nullptr, &startup, &info))
        return ::GetLastError();
    daxlib::unique_handle process(info.hProcess);
    daxlib::unique_handle thread(info.hThread);
    return ERROR_SUCCESS;
}

// The user's browsers first, then the machine's, each in the order the registry lists them.
std::vector<std::pair<std::wstring, std::wstring>> OtherBrowsers()
{
    std::vector<std::pair<std::wstring, std::wstring>> browsers;
    for (HKEY root : {HKEY_CURRENT_USER, HKEY_LOCAL_MACHINE})
    {
        daxlib::unique_hkey clients;
        if (::RegOpenKeyExW(root, kClients, 0, KEY_READ, clients.put()) != ERROR_SUCCESS)
            continue;
        for (DWORD index = 0;; ++index)
        {
            wchar_t name[256];
            DWORD length = static_cast<DWORD>(std::size(name));
            if (::RegEnumKeyExW(clients.get(), index, name, &length, nullptr, nullptr, nullptr, nullptr) !=
                ERROR_SUCCESS)
                break;
            if (CompareStringOrdinal(name, -1, L"velomar-open", -1, TRUE) == CSTR_EQUAL)
                continue;
            if (auto command = ReadString(
                    root, std::wstring(kClients) + L"\\" + name + L"\\shell\\open\\command", nullptr))
                browsers.emplace_back(name, *command);
        }
    }
    return browsers;
}

bool IsBrowserScheme(const std::wstring& scheme)
{
    for (const wchar_t* web : kBrowserSchemes)
    {
        if (scheme == web)
            return true;
    }
    return false;
}
} // namespace

FallbackResult OpenWithFallbackBrowser(const std::wstring& url, const std::wstring& scheme)
{
    FallbackResult result;
    if (!IsBrowserScheme(scheme))
        return result;
    std::vector<std::pair<std::wstring, std::wstring>> choices;
    if (auto command = ReadMachineString(kFallbackBrowserValue))
        choices.emplace_back(kFallbackBrowserValue, *command);
    if (auto command = ReadString(HKEY_CURRENT_USER, kPreviousBrowserKey, scheme.c_str()))
        choices.emplace_back(L"previous default", *command);
    for (auto& browser : OtherBrowsers())
        choices.push_back(std::move(browser));
    for (const auto& [name, command] : choices)
    {
        const DWORD error = Launch(command, url);
        if (error == ERROR_SUCCESS)
        {
            result.opened = true;
            result.browser = name;
            return result;
        }
        result.error = error;
    }
    return result;
}

void RememberPreviousBrowsers()
{
    for (const wchar_t* scheme : kWebSchemes)
    {
        wchar_t command[2048];
        DWORD size = static_cast<DWORD>(std::size(command));
        if (FAILED(::AssocQueryStringW(ASSOCF_NONE, ASSOCSTR_COMMAND, scheme, L"open", command, &size)))
            continue;
        const auto launch = ExpandBrowserCommand(command, L"");
        if (!launch || IsOwnProgram(launch->program))
            continue; // registered before: what it replaced is already kept
        ::RegSetKeyValueW(HKEY_CURRENT_USER, kPreviousBrowserKey, scheme, REG_SZ, command,
                          static_cast<DWORD>((wcslen(command) + 1) * sizeof(wchar_t)));
    }
}

void ForgetPreviousBrowsers()
{
    ::RegDeleteTreeW(HKEY_CURRENT_USER, kPreviousBrowserKey);
    ::RegDeleteKeyW(HKEY_CURRENT_USER, kPreviousBrowserKey);
}

void RaiseNotOpenedNotice(const std::wstring& url, bool window)
{
    if (ReadMachineDword(kNoticeValue) == 0u)
        return;
    const std::wstring text =
        L"The link could not be opened on your computer, and no browser is available here.";
    wchar_t path[MAX_PATH];
    const DWORD length = ::GetEnvironmentVariableW(kNoticeFileVariable, path, MAX_PATH);
    if (length > 0 && length < MAX_PATH)
    {
        const std::wstring line = text + L" " + url + L"\r\n";
        const int size = ::WideCharToMultiByte(CP_UTF8, 0, line.c_str(), static_cast<int>(line.size()),
                                               nullptr, 0, nullptr, nullptr);
        std::string bytes(static_cast<size_t>(size > 0 ? size : 0), '\0');
        ::WideCharToMultiByte(CP_UTF8, 0, line.c_str(), static_cast<int>(line.size()), bytes.data(), size,
                              nullptr, nullptr);
        daxlib::unique_hfile file(::CreateFileW(path, FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                                nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
        DWORD written = 0;
        if (file)
            ::WriteFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
        return;
    }
    if (!window)
        return;
    // The link's own text stays short in the box; the caller that started us does not wait for it.
    const std::wstring shown = url.size() > 200 ? url.substr(0, 200) + L"\u2026" : url;
    ::MessageBoxW(nullptr, (text + L"\n\n" + shown).c_str(), L"Velomar",
                  MB_OK | MB_ICONINFORMATION | MB_SETFOREGROUND | MB_TOPMOST);
}

} // namespace agent
