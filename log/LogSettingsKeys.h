#pragma once
// The two registry keys the logger's settings are read from: the policy key, whose values win,
// and the product key. The logger reads through this instead of the product key alone.
#include "common/UniqueHandle.h"
#include "log/SettingPrecedence.h"

#include <windows.h>

#include <string>
#include <vector>

namespace cvlog
{

constexpr const wchar_t* kLogSettingNames[] = {L"LogLevel", L"RotationLogFileNumber", L"RotationLogFileSizeMB",
                                               L"OverrideLogMaxFiles"};

class LogSettingsKeys
{
public:
    // `productKey` stays owned by the caller; the policy key of `root`\`productSubKey` is opened
    // read-only when it exists.
    LogSettingsKeys(HKEY productKey, HKEY root, const std::wstring& productSubKey);

    // RegQueryValueExW against the policy key, or against the product key when the policy key
    // lacks the value. `source` (optional) tells which one answered.
    LSTATUS Query(const wchar_t* name, DWORD* type, BYTE* data, DWORD* size, SettingSource* source = nullptr) const;

private:
    HKEY m_hProductKey;
    daxlib::unique_hkey m_hPolicyKey;
};

// One line per log setting naming the key it is read from, for the start of the service's log.
std::vector<std::wstring> DescribeLogSettingSources(HKEY root, const std::wstring& productSubKey);

} // namespace cvlog
