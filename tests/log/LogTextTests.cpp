#include "log/LogText.h"

#include <gtest/gtest.h>

#include <string>

using namespace cvlog;

namespace
{
std::string N(const std::u16string& text)
{
    std::string out;
    for (char16_t c : text)
        out.push_back(c < 0x80 ? static_cast<char>(c) : '?');
    return out;
}

HeaderFields ServiceFields(const char16_t* category)
{
    HeaderFields f;
    f.flags = HeaderFlag::Service;
    f.local = {2025, 6, 6, 14, 3, 7, 123};
    f.utc = {2025, 6, 6, 12, 3, 7, 123};
    f.processId = 1234;
    f.threadId = 5678;
    f.sessionId = 3;
    if (category)
        f.category = category;
    return f;
}
} // namespace

TEST(RecordHeader, FieldsInTableOrderAndSeparatorOnlyWhenSomethingIsWritten)
{
    EXPECT_EQ(N(FormatHeaderFields(ServiceFields(u"INFO"))),
              "2025.06.06 14:03:07.123 (+02:00) [1234] [5678] [INFO]: ");
    // Every field: session and user come after the thread id, whatever the bit values say.
    HeaderFields f = ServiceFields(u"SERVICE");
    f.flags = 0x807F;
    const char* const byUserState[] = {"[3] [svc] ", "[3] [] ", "[3] "};
    const UserNameState states[] = {UserNameState::Known, UserNameState::Unavailable, UserNameState::Failed};
    f.user = u"svc";
    for (int i = 0; i < 3; ++i)
    {
        f.userState = states[i];
        EXPECT_EQ(N(FormatHeaderFields(f)), std::string("2025.06.06 14:03:07.123 (+02:00) [1234] [5678] ") +
                                                byUserState[i] + "[SERVICE]: ");
    }
    f = ServiceFields(nullptr);
    const std::pair<uint32_t, const char*> alone[] = {
        {HeaderFlag::Category, ""}, {0, ""}, {HeaderFlag::ProcessId, "[1234] : "}};
    for (const auto& [flags, text] : alone)
    {
        f.flags = flags;
        EXPECT_EQ(N(FormatHeaderFields(f)), text) << flags;
    }
    f.flags = HeaderFlag::Category;
    f.category = u"X";
    EXPECT_EQ(N(FormatHeaderFields(f)), "[X]: ");
}

TEST(UtcOffsetRule, HoursFromTheLaterDateAndAbsoluteMinutes)
{
    struct Case
    {
        TimeParts local, utc;
        const char* text;
    } cases[] = {
        {{2025, 6, 6, 14, 3}, {2025, 6, 6, 12, 3}, "(+02:00) "},
        {{2025, 6, 7, 0, 30}, {2025, 6, 6, 22, 30}, "(+02:00) "},  // local date a day ahead
        {{2025, 7, 1, 0, 30}, {2025, 6, 30, 22, 30}, "(+02:00) "}, // across a month
        {{2025, 1, 1, 1, 0}, {2024, 12, 31, 23, 0}, "(+02:00) "},  // across a year
        {{2025, 6, 6, 20, 30}, {2025, 6, 6, 23, 0}, "(-03:30) "},  // hours -3, minutes |30 - 0|
        {{2025, 6, 6, 21, 0}, {2025, 6, 7, 0, 30}, "(-03:30) "},   // UTC date a day ahead
        {{2025, 6, 6, 12, 0}, {2025, 6, 6, 12, 0}, "(+00:00) "},
        {{2025, 6, 6, 18, 45}, {2025, 6, 6, 13, 0}, "(+05:45) "},
    };
    for (const auto& c : cases)
    {
        HeaderFields f;
        f.flags = HeaderFlag::UtcOffset;
        f.local = c.local;
        f.utc = c.utc;
        EXPECT_EQ(N(FormatHeaderFields(f)), std::string(c.text) + ": ") << c.text;
    }
}

TEST(LevelLabels, NamesAndTraceLevelsWithAndWithoutBlank)
{
    EXPECT_EQ(N(LevelLabel(3, false)), "DEBUG");
    EXPECT_EQ(N(LevelLabel(5, false)), "LOGLEVEL:5 ");
    EXPECT_EQ(N(LevelLabel(5, true)), "LOGLEVEL:5");
    EXPECT_EQ(N(LevelLabel(4294967295u, false)), "LOGLEVEL:4294967295 ");
}

TEST(WindowsVersion, TextForATableOfVersions)
{
    struct Case
    {
        WindowsVersionInfo info;
        const char* text;
    } cases[] = {
        {{true, 2, 6, 3, 9600, u"", 0x100, 1, Arch::X64, 0}, " (build 9600), 64-bit"},
        {{true, 2, 5, 2, 3790, u"", 0x100, 1, Arch::X64, 0},
         "Windows XP Professional x64 Edition (build 3790)"},
        {{true, 2, 10, 0, 19045, u"", 0x100, 1, Arch::X64, 0}, "Windows version 10.0  (build 19045), 64-bit"},
        {{true, 2, 10, 0, 20348, u"", 0x110, 3, Arch::X64, 0},
         "Windows version 10.0 Server  (build 20348), 64-bit"},
        {{true, 2, 6, 1, 7601, u"Service Pack 1", 0x100, 1, Arch::X86, 0},
         "Windows 7  Service Pack 1 (build 7601), 32-bit"},
        {{true, 2, 6, 2, 9200, u"", 0x110, 3, 12 /*ARM64*/, 0}, "Windows Server 2012  (build 9200)"},
        {{true, 2, 5, 2, 3790, u"Service Pack 2", 0x2, 3, Arch::X64, 0},
         "Windows Server 2003, Enterprise x64 Edition Service Pack 2 (build 3790)"},
        {{true, 2, 5, 2, 3790, u"", 0x0, 3, Arch::X86, 1},
         "Windows Server 2003 R2, Standard Edition (build 3790)"},
        {{true, 2, 5, 1, 2600, u"Service Pack 3", 0x200, 1, Arch::X86, 0},
         "Windows XP Home Edition Service Pack 3 (build 2600)"},
        {{true, 2, 5, 0, 2195, u"", 0x2, 3, Arch::X86, 0}, "Windows 2000 Advanced Server (build 2195)"},
        {{false, 2, 10, 0, 1, u"", 0, 1, Arch::X64, 0}, "GetVersionEx failed."},
        {{true, 1, 4, 10, 1998, u"", 0, 1, Arch::X86, 0}, ""},
        {{true, 2, 4, 0, 1381, u"", 0, 1, Arch::X86, 0}, ""},
    };
    for (const auto& c : cases)
        EXPECT_EQ(N(WindowsVersionText(c.info)), c.text);
}

TEST(FileNaming, RotatedAndPerProcessNames)
{
    EXPECT_EQ(N(RotatedFileName(u"velomard", 99)), "velomard(99).txt");
    EXPECT_EQ(N(PerProcessFileStem(u"C:\\logs\\alice-", u"velomard", 2, 4711, {2025, 6, 6, 9, 3, 7, 0})),
              "C:\\logs\\alice-velomard-2-4711_2025-06-06-090307");
}

TEST(FileNaming, CompactionDropsTheOldestAndRenumbers)
{
    // The plan as text: deletions, renames, and how many rotated files remain.
    const auto plan = [](std::vector<std::u16string> names, uint32_t count)
    {
        const CompactionPlan p = PlanCompaction(names, u"v", count);
        std::string text;
        for (const auto& name : p.deletes)
            text += "-" + N(name) + " ";
        for (const auto& [from, to] : p.renames)
            text += N(from) + ">" + N(to) + " ";
        return text + std::to_string(p.remaining);
    };
    EXPECT_EQ(plan({u"v(01).txt", u"v(02).txt", u"v(03).txt"}, 3),
              "-v(01).txt v(02).txt>v(01).txt v(03).txt>v(02).txt 2");
    // Gaps close up; nothing to delete while fewer than the count exist.
    EXPECT_EQ(plan({u"v(01).txt", u"v(05).txt"}, 3), "v(05).txt>v(02).txt 2");
    // A count of 1 keeps no rotated file at all.
    EXPECT_EQ(plan({u"v(01).txt"}, 1), "-v(01).txt 0");
    EXPECT_EQ(plan({}, 0), "0");
}

// The listings pick rotated files by "stem(*).txt" and per-process files by "*-base-*.txt".
TEST(FileNaming, WildcardsMatchAsTheListingsNeed)
{
    EXPECT_TRUE(cvlog::MatchesWildcard(u"velomard(03).txt", u"velomard(*).txt"));
    EXPECT_TRUE(cvlog::MatchesWildcard(u"VELOMARD(03).TXT", u"velomard(*).txt"));
    EXPECT_TRUE(cvlog::MatchesWildcard(u"bob-pp-1-2_2020(01).txt", u"*-pp-*.txt"));
    EXPECT_TRUE(cvlog::MatchesWildcard(u"a-b", u"a?b"));
    EXPECT_FALSE(cvlog::MatchesWildcard(u"velomard.txt", u"velomard(*).txt"));
    EXPECT_FALSE(cvlog::MatchesWildcard(u"pp.txt", u"*-pp-*.txt"));
    EXPECT_FALSE(cvlog::MatchesWildcard(u"velomard(03).txt.lnk", u"velomard(*).txt"));
    EXPECT_FALSE(cvlog::MatchesWildcard(u"ab", u"a?b"));
}

TEST(OldFiles, CountLimitDeletesOldestUntilFewerThanLimitRemain)
{
    std::vector<FileStamp> files = {
        {u"a-svc-1-1.txt", 50}, {u"b-svc-1-2.txt", 10}, {u"c-svc-1-3.txt", 10},
        {u"d-svc-1-4.txt", 40}, {u"other-x.txt", 1}, // does not name the base name
    };
    auto doomed = SelectOverLimit(files, 3, u"svc");
    ASSERT_EQ(doomed.size(), 2u);
    EXPECT_EQ(N(doomed[0]), "b-svc-1-2.txt"); // same time: the one listed first goes first
    EXPECT_EQ(N(doomed[1]), "c-svc-1-3.txt");
    EXPECT_TRUE(SelectOverLimit(files, 0, u"svc").empty());
    EXPECT_EQ(SelectOverLimit(files, 1, u"svc").size(), 4u);

    constexpr uint64_t day = 864000000000ULL;
    EXPECT_TRUE(IsExpired(100 * day, 191 * day));
    EXPECT_FALSE(IsExpired(100 * day, 189 * day));
    EXPECT_FALSE(IsExpired(0, 10 * day));
}

// The limits themselves are checked through the registry in the file tests.
TEST(RegistryLimits, LevelAsDecimalText)
{
    EXPECT_EQ(ParseDecimalLevel(u"3"), 3u);
    EXPECT_EQ(ParseDecimalLevel(u" 12 "), 12u);
    for (const char16_t* bad : {u"", u"abc", u"4x", u"-1", u"99999999999"})
        EXPECT_EQ(ParseDecimalLevel(bad), std::nullopt);
}
