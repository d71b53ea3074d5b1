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
    const std::wstring m_name = testsupport::UniqueName(L"VelomarSettings");
    const testsupport::TempKey m_product{L"Software\\" + m_name};
    const testsupport::TempKey m_policy{L"Software\\Policies\\" + m_name};
    testsupport::TempDir m_dir{L"velomar-settings"};
};

} // namespace

TEST_F(LogSettingsKeysTest, LoggerTakesPolicyValuesOverProductValues)
{
    ASSERT_TRUE(m_product.SetDword(L"LogLevel", 1) && m_policy.SetDword(L"LogLevel", 3) &&
                m_product.SetDword(L"RotationLogFileNumber", 7));
    auto logger = CCvLogger::CreateLoggerInFolder(m_dir.Path().c_str(), HKEY_CURRENT_USER,
                                                  m_product.Path().c_str(), L"s", nullptr, TRUE, FALSE, 0);
    ASSERT_TRUE(logger);
    uint32_t level = 0;
    logger->GetLevel(&level);
    EXPECT_EQ(3u, level);
    EXPECT_EQ(7u, logger->GetRotationCount());

    // A policy change alone is followed live, like a change of the product key.
    ASSERT_TRUE(m_policy.SetDword(L"RotationLogFileNumber", 4));
    EXPECT_TRUE(testsupport::Eventually([&] { return logger->GetRotationCount() == 4u; }));
}

TEST_F(LogSettingsKeysTest, DescriptionNamesTheKeyOfEachValue)
{
    ASSERT_TRUE(m_policy.SetDword(L"LogLevel", 3) && m_product.SetDword(L"RotationLogFileSizeMB", 5));
    const auto lines = cvlog::DescribeLogSettingSources(HKEY_CURRENT_USER, m_product.Path());
    const auto has = [&](const std::wstring& line)
    { return std::find(lines.begin(), lines.end(), line) != lines.end(); };
    EXPECT_TRUE(has(L"LogSettings: LogLevel: from the policy key " + m_policy.Path()));
    EXPECT_TRUE(has(L"LogSettings: RotationLogFileSizeMB: from the settings key " + m_product.Path()));
    EXPECT_TRUE(has(L"LogSettings: OverrideLogMaxFiles: not set, default"));
    EXPECT_EQ(4u, lines.size());
}
