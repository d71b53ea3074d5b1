#include "log/LogSettingsKeys.h"

namespace cvlog
{

namespace
{
std::wstring PolicyKeyOf(const std::wstring& productSubKey)
{
    const std::u16string key = PolicyKeyFor(std::u16string(productSubKey.begin(), productSubKey.end()));
    return std::wstring(key.begin(), key.end());
}
} // namespace

LogSettingsKeys::LogSettingsKeys(HKEY productKey, HKEY root, const std::wstring& productSubKey)
    : m_hProductKey(productKey)
{
    const std::wstring policyKey = PolicyKeyOf(productSubKey);
    if (root && !policyKey.empty())
        ::RegOpenKeyExW(root, policyKey.c_str(), 0, KEY_QUERY_VALUE, m_hPolicyKey.put());
}

LSTATUS LogSettingsKeys::Query(const wchar_t* name, DWORD* type, BYTE* data, DWORD* size,
                               SettingSource* source) const
{
    // The size is in and out: the product key must get the caller's capacity, not what the
    // policy key reported.
    const DWORD capacity = size ? *size : 0;
    const auto query = [&](HKEY key)
    {
        if (!key)
            return static_cast<LSTATUS>(ERROR_FILE_NOT_FOUND);
        if (size)
            *size = capacity;
        return ::RegQueryValueExW(key, name, nullptr, type, data, size);
    };
    const auto [status, from] = ReadWithPrecedence<LSTATUS>([&] { return query(m_hPolicyKey.get()); },
                                                           [&] { return query(m_hProductKey); },
                                                           ERROR_FILE_NOT_FOUND);
    if (source)
        *source = from;
    return status;
}

std::vector<std::wstring> DescribeLogSettingSources(HKEY root, const std::wstring& productSubKey)
{
    daxlib::unique_hkey product;
    ::RegOpenKeyExW(root, productSubKey.c_str(), 0, KEY_QUERY_VALUE, product.put());
    const LogSettingsKeys keys(product.get(), root, productSubKey);
    std::vector<std::wstring> lines;
    for (const wchar_t* name : kLogSettingNames)
    {
        SettingSource source = SettingSource::Unset;
        keys.Query(name, nullptr, nullptr, nullptr, &source);
        std::wstring line = L"LogSettings: ";
        line += name;
        switch (source)
        {
        case SettingSource::Policy:
            line += L": from the policy key " + PolicyKeyOf(productSubKey);
            break;
        case SettingSource::Product:
            line += L": from the settings key " + productSubKey;
            break;
        case SettingSource::Unset:
            line += L": not set, default";
            break;
        }
        lines.push_back(std::move(line));
    }
    return lines;
}

} // namespace cvlog
