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

} // namespace service
