// Reading the URL policy from the registry: each value of the right type takes effect, and each
// broken one is reported by name and left at its default while the others still apply.
#include "pipeserver/UrlPolicyRegistry.h"
#include "tests/common/CapturingLogger.h"
#include "tests/common/EventRecorder.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

// A key of its own under HKEY_CURRENT_USER per case.
class UrlPolicyRegistry : public ::testing::Test
{
protected:
    UrlPolicyLoad Read() const { return ReadUrlPolicy(HKEY_CURRENT_USER, m_key.Path().c_str()); }

    const testsupport::TempKey m_key;
};

TEST_F(UrlPolicyRegistry, MissingKeyIsReportedAsAbsent)
{
    EXPECT_FALSE(ReadUrlPolicy(HKEY_CURRENT_USER, (m_key.Path() + L"\\absent").c_str()).keyPresent);
}

TEST_F(UrlPolicyRegistry, ValuesOfTheRightTypeApply)
{
    ASSERT_TRUE(m_key.SetDword(L"Enabled", 0) && m_key.SetDword(L"MaxUrlLength", 100) &&
                m_key.SetStrings(L"AllowedSchemes", {L"HTTPS", L"ms-teams:", L""}) &&
                m_key.SetStrings(L"AllowedHosts", {L"*.corp.example", L"b\u00FCcher.example"}) &&
                m_key.SetStrings(L"ExceptionHosts", {L"secret.corp.example"}));
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
    ASSERT_TRUE(m_key.SetText(L"Enabled", L"0") && m_key.SetDword(L"MaxUrlLength", 0) &&
                m_key.SetStrings(L"AllowedSchemes", {L"https", L"not a scheme"}) &&
                m_key.SetStrings(L"AllowedHosts", {L"*.corp.example", L"user@host"}) &&
                m_key.SetText(L"ExceptionHosts", L"x.example"));
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

// The watch tells the administrator of each broken value once, when it is first read broken:
// changes elsewhere under the key leave it unreported, a new broken value is reported.
TEST_F(UrlPolicyRegistry, WatchReportsEachBrokenValueOnceAsItAppears)
{
    testsupport::EventRecorder events;
    ASSERT_TRUE(m_key.SetText(L"Enabled", L"0"));
    CUrlPolicyWatch watch(std::make_shared<testsupport::CapturingLogger>(), HKEY_CURRENT_USER, m_key.Path());
    ASSERT_EQ(1, watch.Start());
    ASSERT_EQ(1u, events.Of(events::kUrlPolicyValueBroken).size());
    ASSERT_TRUE(m_key.SetDword(L"MaxUrlLength", 100));
    ASSERT_TRUE(testsupport::Eventually([&] { return watch.Current()->maxUrlLength == 100; }));
    EXPECT_EQ(1u, events.Of(events::kUrlPolicyValueBroken).size()) << "the same broken value again";
    ASSERT_TRUE(m_key.SetText(L"ExceptionHosts", L"x.example"));
    ASSERT_TRUE(
        testsupport::Eventually([&] { return events.Of(events::kUrlPolicyValueBroken).size() == 2; }));
    const auto reported = events.Of(events::kUrlPolicyValueBroken);
    EXPECT_EQ(events::Level::Warning, reported[1].level);
    ASSERT_EQ(2u, reported[1].strings.size());
    EXPECT_EQ(L"HKCU\\" + m_key.Path(), reported[1].strings[0]);
    EXPECT_NE(std::wstring::npos, reported[1].strings[1].find(L"\"ExceptionHosts\""))
        << reported[1].strings[1];
    watch.Stop();
}
