// Which key a log setting is read from: the policy key over the product key.
#include "log/SettingPrecedence.h"

#include <gtest/gtest.h>

namespace
{
constexpr int kNotFound = 2;
constexpr int kMoreData = 234;
} // namespace

TEST(PolicyKeyFor, InsertsPoliciesAfterSoftwareAndRefusesOtherKeys)
{
    EXPECT_EQ(u"Software\\Policies\\Corvane\\Velomar (Server)",
              cvlog::PolicyKeyFor(u"Software\\Corvane\\Velomar (Server)"));
    EXPECT_EQ(u"SOFTWARE\\Policies\\Corvane", cvlog::PolicyKeyFor(u"SOFTWARE\\Corvane"));
    EXPECT_EQ(u"", cvlog::PolicyKeyFor(u"System\\CurrentControlSet\\Services\\velomard"));
    EXPECT_EQ(u"", cvlog::PolicyKeyFor(u"Software\\policies\\Corvane"));
    EXPECT_EQ(u"", cvlog::PolicyKeyFor(u"Software\\"));
    EXPECT_EQ(u"", cvlog::PolicyKeyFor(u"Softwar"));
}

TEST(ReadWithPrecedence, PolicyValueWinsAndTheProductKeyIsNotAsked)
{
    bool productAsked = false;
    const auto [status, source] = cvlog::ReadWithPrecedence<int>([] { return 0; },
                                                                 [&]
                                                                 {
                                                                     productAsked = true;
                                                                     return 0;
                                                                 },
                                                                 kNotFound);
    EXPECT_EQ(0, status);
    EXPECT_EQ(cvlog::SettingSource::Policy, source);
    EXPECT_FALSE(productAsked);
}

TEST(ReadWithPrecedence, UnusablePolicyValueStillWinsOverTheProductKey)
{
    const auto [status, source] =
        cvlog::ReadWithPrecedence<int>([] { return kMoreData; }, [] { return 0; }, kNotFound);
    EXPECT_EQ(kMoreData, status);
    EXPECT_EQ(cvlog::SettingSource::Policy, source);
}

TEST(ReadWithPrecedence, ProductKeyAnswersWhenThePolicyLacksTheValue)
{
    EXPECT_EQ(std::make_pair(0, cvlog::SettingSource::Product),
              cvlog::ReadWithPrecedence<int>([] { return kNotFound; }, [] { return 0; }, kNotFound));
    EXPECT_EQ(std::make_pair(kNotFound, cvlog::SettingSource::Unset),
              cvlog::ReadWithPrecedence<int>([] { return kNotFound; }, [] { return kNotFound; }, kNotFound));
}
