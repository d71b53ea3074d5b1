#include "service/ServiceConfig.h"

#include "common/UniqueHandle.h"
#include "common/WideFormat.h"

#include <windows.h>

namespace service
{

bool CServiceConfig::ReadServiceLogSettings(std::wstring& fileName, uint32_t& level, uint32_t* maxSize) const
{
    wchar_t keyPath[1040];
    daxlib::FormatTruncated(keyPath, 1040, L"System\\CurrentControlSet\\Services\\%s",
                            m_strServiceName.c_str());
    daxlib::unique_hkey key;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, keyPath, 0, KEY_ALL_ACCESS, key.put()) != ERROR_SUCCESS)
        return false;

    DWORD value = 0;
    DWORD size = sizeof(value);
    level = ::RegQueryValueExW(key.get(), L"logLevel", nullptr, nullptr, reinterpret_cast<BYTE*>(&value),
                               &size) == ERROR_SUCCESS
                ? value
                : 0;

    wchar_t name[257] = {};
    DWORD nameSize = 512;
    if (::RegQueryValueExW(key.get(), L"logFileName", nullptr, nullptr, reinterpret_cast<BYTE*>(name),
                           &nameSize) == ERROR_SUCCESS)
        fileName.assign(name, wcsnlen(name, nameSize / sizeof(wchar_t)));
    else
        fileName = m_strServiceName + L".log";

    if (maxSize)
    {
        value = 0;
        size = sizeof(value);
        *maxSize = ::RegQueryValueExW(key.get(), L"logFileMaxSize", nullptr, nullptr,
                                      reinterpret_cast<BYTE*>(&value), &size) == ERROR_SUCCESS
                       ? value
                       : 0x6400000;
    }
    return true;
}

bool ParseChannelTransport(std::wstring_view text, ChannelTransportChoice& choice)
{
    const auto is = [&](std::wstring_view word)
    {
        return text.size() == word.size() &&
               ::CompareStringOrdinal(text.data(), static_cast<int>(text.size()), word.data(),
                                      static_cast<int>(word.size()), TRUE) == CSTR_EQUAL;
    };
    if (is(L"library"))
        choice = ChannelTransportChoice::Library;
    else if (is(L"rdp"))
        choice = ChannelTransportChoice::Rdp;
    else if (is(L"auto"))
        choice = ChannelTransportChoice::Automatic;
    else
        return false;
    return true;
}

const wchar_t* ChannelTransportName(ChannelTransportChoice choice) noexcept
{
    switch (choice)
    {
    case ChannelTransportChoice::Rdp:
        return L"rdp";
    case ChannelTransportChoice::Automatic:
        return L"auto";
    case ChannelTransportChoice::Library:
        break;
    }
    return L"library";
}

ChannelTransportSetting ReadChannelTransport(void* root, const wchar_t* policyKey, const wchar_t* productKey)
{
    const HKEY hive = root ? static_cast<HKEY>(root) : HKEY_LOCAL_MACHINE;
    ChannelTransportSetting setting;
    const std::pair<const wchar_t*, const wchar_t*> places[] = {{policyKey, L"policy"},
                                                                {productKey, L"product key"}};
    for (const auto& [key, from] : places)
    {
        wchar_t text[32] = {};
        DWORD size = sizeof(text);
        const LSTATUS status =
            ::RegGetValueW(hive, key, kChannelTransportValue, RRF_RT_REG_SZ, nullptr, text, &size);
        if (status == ERROR_FILE_NOT_FOUND || status == ERROR_PATH_NOT_FOUND)
            continue;
        // A value that is set but unusable still wins over the next place: the administrator
        // set it, and the default is the safe reading of it.
        setting.from = from;
        if (status != ERROR_SUCCESS)
            setting.problem =
                daxlib::Format(L"it is not a short text (error %u)", static_cast<unsigned>(status));
        else if (!ParseChannelTransport(text, setting.choice))
            setting.problem = daxlib::Format(L"\"%s\" is none of library, rdp, auto", text);
        return setting;
    }
    setting.from = L"default";
    return setting;
}

} // namespace service
