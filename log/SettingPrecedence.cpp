#include "log/SettingPrecedence.h"

namespace cvlog
{

namespace
{
constexpr std::u16string_view kSoftware = u"Software\\";
constexpr std::u16string_view kPolicies = u"Policies\\";

bool StartsWithNoCase(std::u16string_view text, std::u16string_view prefix)
{
    if (text.size() < prefix.size())
        return false;
    for (size_t i = 0; i < prefix.size(); ++i)
    {
        const auto lower = [](char16_t c)
        { return c >= u'A' && c <= u'Z' ? static_cast<char16_t>(c + 32) : c; };
        if (lower(text[i]) != lower(prefix[i]))
            return false;
    }
    return true;
}
} // namespace

std::u16string PolicyKeyFor(std::u16string_view productSubKey)
{
    if (!StartsWithNoCase(productSubKey, kSoftware))
        return {};
    const std::u16string_view rest = productSubKey.substr(kSoftware.size());
    if (rest.empty() || StartsWithNoCase(rest, kPolicies))
        return {};
    std::u16string key(productSubKey.substr(0, kSoftware.size()));
    key += kPolicies;
    key += rest;
    return key;
}

} // namespace cvlog
