// Reading the URL policy from the registry: each value of the right type takes effect, and each
// broken one is reported by name and left at its default while the others still apply.
#include "pipeserver/UrlPolicyRegistry.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

// A key of its own under HKEY_CURRENT_USER per case, removed at the end.
class UrlPolicyRegistry : public ::testing::Test
{
protected:
    ~UrlPolicyRegistry() override
    {
        ::RegDeleteTreeW(HKEY_CURRENT_USER, m_path.c_str());
        ::RegDeleteKeyW(HKEY_CURRENT_USER, m_path.c_str());
    }
    void Set(const wchar_t* name, DWORD type, const void* data, DWORD size) const
    {
        ASSERT_EQ(ERROR_SUCCESS,
                  ::RegSetKeyValueW(HKEY_CURRENT_USER, m_path.c_str(), name, type, data, size));
    }
    void Strings(const wchar_t* name, std::wstring_view joined) const // '|' separates the strings
    {
        std::wstring data(joined);
        for (wchar_t& c : data)
            c = c == L'|' ? L'\0' : c;
        data.append(2, L'\0');
        Set(name, REG_MULTI_SZ, data.c_str(), static_cast<DWORD>(data.size() * sizeof(wchar_t)));
    }
    void Dword(const wchar_t* name, DWORD value) const { Set(name, REG_DWORD, &value, sizeof(value)); }
    UrlPolicyLoad Read() const { return ReadUrlPolicy(HKEY_CURRENT_USER, m_path.c_str()); }

    const std::wstring m_path = L"Software\\" + testing_support::UniqueName(L"velomar-url-policy");
};

TEST_F(UrlPolicyRegistry, MissingKeyIsReportedAsAbsent)
{
    EXPECT_FALSE(Read().keyPresent);
}

TEST_F(UrlPolicyRegistry, ValuesOfTheRightTypeApply)
{
    Dword(L"Enabled", 0);
    Dword(L"MaxUrlLength", 100);
    Strings(L"AllowedSchemes", L"HTTPS|ms-teams:||");
    Strings(L"AllowedHosts", L"*.corp.example|b\u00FCcher.example");
    Strings(L"ExceptionHosts", L"secret.corp.example");
    const UrlPolicyLoad load = Read();
    EXPECT_TRUE(load.keyPresent);
    EXPECT_TRUE(load.problems.empty());
    EXPECT_FALSE(load.policy.enabled);
    EXPECT_EQ(100u, load.policy.maxUrlLength);
    EXPECT_EQ((std::vector<std::string>{"https", "ms-teams"}), load.policy.schemes);
    ASSERT_EQ(2u, load.policy.allowedHosts.size());
    EXPECT_EQ("xn--bcher-kva.example", load.policy.allowedHosts[1].Text());
    EXPECT_EQ(1u, load.policy.exceptionHosts.size());
}

TEST_F(UrlPolicyRegistry, EachBrokenValueIsNamedOnceAndLeftAtItsDefault)
{
    Set(L"Enabled", REG_SZ, L"0", sizeof(L"0"));
    Dword(L"MaxUrlLength", 0);
    Strings(L"AllowedSchemes", L"https|not a scheme");
    Strings(L"AllowedHosts", L"*.corp.example|user@host");
    Set(L"ExceptionHosts", REG_SZ, L"x.example", sizeof(L"x.example"));
    const UrlPolicyLoad load = Read();
    const urlpolicy::Policy defaults;
    EXPECT_EQ(defaults.enabled, load.policy.enabled);
    EXPECT_EQ(defaults.maxUrlLength, load.policy.maxUrlLength);
    EXPECT_EQ(defaults.schemes, load.policy.schemes);
    EXPECT_TRUE(load.policy.allowedHosts.empty());
    EXPECT_TRUE(load.policy.exceptionHosts.empty());
    ASSERT_EQ(5u, load.problems.size());
    for (const wchar_t* name : {L"\"Enabled\"", L"\"MaxUrlLength\"", L"\"AllowedSchemes\"",
                                L"\"AllowedHosts\"", L"\"ExceptionHosts\""})
    {
        const auto mentions =
            std::count_if(load.problems.begin(), load.problems.end(),
                          [&](const std::wstring& p) { return p.find(name) != std::wstring::npos; });
        EXPECT_EQ(1, mentions) << std::string(name, name + wcslen(name));
    }
}
