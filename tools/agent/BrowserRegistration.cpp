#include "tools/agent/BrowserRegistration.h"

#include "common/UniqueHandle.h"
#include "tools/agent/BrowserCommand.h"

#include <shlwapi.h>

#include <algorithm>
#include <cwctype>

namespace agent
{

namespace
{
LSTATUS SetString(HKEY root, const std::wstring& path, const wchar_t* name, const std::wstring& value)
{
    daxlib::unique_hkey key;
    LSTATUS status =
        ::RegCreateKeyExW(root, path.c_str(), 0, nullptr, 0, KEY_SET_VALUE, nullptr, key.put(), nullptr);
    if (status != ERROR_SUCCESS)
        return status;
    return ::RegSetValueExW(key.get(), name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                            static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
}

LSTATUS DeleteTree(HKEY root, const std::wstring& path)
{
    const LSTATUS status = ::RegDeleteTreeW(root, path.c_str());
    if (status == ERROR_FILE_NOT_FOUND)
        return ERROR_SUCCESS;
    if (status != ERROR_SUCCESS)
        return status;
    return ::RegDeleteKeyW(root, path.c_str()) == ERROR_ACCESS_DENIED ? ERROR_ACCESS_DENIED : ERROR_SUCCESS;
}

std::wstring Lower(std::wstring text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](wchar_t c) { return static_cast<wchar_t>(std::towlower(c)); });
    return text;
}
} // namespace

LSTATUS RegisterAsBrowser(HKEY root, const std::wstring& softwareKey, const std::wstring& exePath)
{
    const std::wstring command = L"\"" + exePath + L"\" \"%1\"";
    const std::wstring progId = softwareKey + L"\\Classes\\" + kProgId;
    const std::wstring client = softwareKey + L"\\Clients\\StartMenuInternet\\" + kClientName;
    const std::wstring capabilities = client + L"\\Capabilities";
    const struct
    {
        std::wstring path;
        const wchar_t* name;
        std::wstring value;
    } entries[] = {
        {progId, nullptr, L"Velomar URL"},
        {progId, L"URL Protocol", L""},
        {progId + L"\\DefaultIcon", nullptr, L"\"" + exePath + L"\",0"},
        {progId + L"\\shell\\open\\command", nullptr, command},
        {client, nullptr, kApplicationName},
        {client + L"\\DefaultIcon", nullptr, L"\"" + exePath + L"\",0"},
        {client + L"\\shell\\open\\command", nullptr, L"\"" + exePath + L"\""},
        {capabilities, L"ApplicationName", kApplicationName},
        {capabilities, L"ApplicationDescription",
         L"Opens web addresses on the client side of the remote session"},
        {capabilities + L"\\URLAssociations", L"http", kProgId},
        {capabilities + L"\\URLAssociations", L"https", kProgId},
        // Windows lists the application among default apps through this pointer to its capabilities.
        {softwareKey + L"\\RegisteredApplications", kApplicationName, capabilities},
    };
    for (const auto& entry : entries)
    {
        const LSTATUS status = SetString(root, entry.path, entry.name, entry.value);
        if (status != ERROR_SUCCESS)
            return status;
    }
    return ERROR_SUCCESS;
}

LSTATUS UnregisterAsBrowser(HKEY root, const std::wstring& softwareKey)
{
    LSTATUS first = ERROR_SUCCESS;
    auto keep = [&first](LSTATUS status)
    {
        if (first == ERROR_SUCCESS && status != ERROR_SUCCESS)
            first = status;
    };
    keep(DeleteTree(root, softwareKey + L"\\Classes\\" + kProgId));
    keep(DeleteTree(root, softwareKey + L"\\Clients\\StartMenuInternet\\" + kClientName));
    daxlib::unique_hkey apps;
    if (::RegOpenKeyExW(root, (softwareKey + L"\\RegisteredApplications").c_str(), 0, KEY_SET_VALUE,
                        apps.put()) == ERROR_SUCCESS)
    {
        const LSTATUS status = ::RegDeleteValueW(apps.get(), kApplicationName);
        keep(status == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : status);
    }
    return first;
}

bool DefaultHandlerIs(const std::wstring& scheme, const std::wstring& exePath)
{
    wchar_t command[2048];
    DWORD size = static_cast<DWORD>(std::size(command));
    if (FAILED(::AssocQueryStringW(ASSOCF_NONE, ASSOCSTR_COMMAND, scheme.c_str(), L"open", command, &size)))
        return false;
    const auto launch = ExpandBrowserCommand(command, L"");
    return (launch && IsOwnProgram(launch->program)) ||
           Lower(command).find(Lower(exePath)) != std::wstring::npos;
}

} // namespace agent
