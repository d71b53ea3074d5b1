// The logger reads its settings from the policy key before the product key, and says which.
#include "log/CvLogger.h"
#include "log/LogSettingsKeys.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace
{

class LogSettingsKeysTest : public testing::Test
{
protected:
    void SetUp() override
    {
        for (const std::wstring* key : {&m_product, &m_policy})
            ASSERT_EQ(ERROR_SUCCESS, ::RegCreateKeyExW(HKEY_CURRENT_USER, key->c_str(), 0, nullptr, 0, KEY_ALL_ACCESS,
                                                       nullptr, daxlib::unique_hkey().put(), nullptr));
    }
    void TearDown() override
    {
        ::RegDeleteTreeW(HKEY_CURRENT_USER, m_product.c_str());
        ::RegDeleteKeyW(HKEY_CURRENT_USER, m_product.c_str());
        ::RegDeleteTreeW(HKEY_CURRENT_USER, m_policy.c_str());
        ::RegDeleteKeyW(HKEY_CURRENT_USER, m_policy.c_str());
    }
    static void SetDword(const std::wstring& key, const wchar_t* name, DWORD value)
    {
        ASSERT_EQ(ERROR_SUCCESS, ::RegSetKeyValueW(HKEY_CURRENT_USER, key.c_str(), name, REG_DWORD, &value, sizeof(value)));
    }

    const std::wstring m_name = testing_support::UniqueName(L"VelomarSettings");
    const std::wstring m_product = L"Software\\" + m_name;
    const std::wstring m_policy = L"Software\\Policies\\" + m_name;
    testing_support::TempDir m_dir{L"velomar-settings"};
};

} // namespace

TEST_F(LogSettingsKeysTest, LoggerTakesPolicyValuesOverProductValues)
{
    SetDword(m_product, L"LogLevel", 1);
    SetDword(m_policy, L"LogLevel", 3);
    SetDword(m_product, L"RotationLogFileNumber", 7);
    auto logger = CCvLogger::CreateLoggerInFolder(m_dir.Path().c_str(), HKEY_CURRENT_USER, m_product.c_str(), L"s",
                                                  nullptr, TRUE, FALSE, 0);
    ASSERT_TRUE(logger);
    uint32_t level = 0;
    logger->GetLevel(&level);
    EXPECT_EQ(3u, level);
    EXPECT_EQ(7u, logger->GetRotationCount());
}

TEST_F(LogSettingsKeysTest, DescriptionNamesTheKeyOfEachValue)
{
    SetDword(m_policy, L"LogLevel", 3);
    SetDword(m_product, L"RotationLogFileSizeMB", 5);
    const auto lines = cvlog::DescribeLogSettingSources(HKEY_CURRENT_USER, m_product);
    const auto has = [&](const std::wstring& line) { return std::find(lines.begin(), lines.end(), line) != lines.end(); };
    EXPECT_TRUE(has(L"LogSettings: LogLevel: from the policy key " + m_policy));
    EXPECT_TRUE(has(L"LogSettings: RotationLogFileSizeMB: from the settings key " + m_product));
    EXPECT_TRUE(has(L"LogSettings: OverrideLogMaxFiles: not set, default"));
    EXPECT_EQ(4u, lines.size());
}
