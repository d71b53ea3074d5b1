// Files, rotation, registry settings, the watch thread and bad input, on
// real files in a temporary folder and real keys under HKEY_CURRENT_USER.
#include "log/CvLogger.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <regex>
#include <string>

using testsupport::Eventually;
using testsupport::PathExists;
using testsupport::ReadUtf16File;
using testsupport::TempDir;
using testsupport::TempKey;

namespace
{
bool Contains(const std::wstring& text, const std::wstring& fragment)
{
    return text.find(fragment) != std::wstring::npos;
}

bool StartsWith(const std::wstring& text, const std::wstring& start)
{
    return text.compare(0, start.size(), start) == 0;
}

bool EndsWith(const std::wstring& text, const std::wstring& end)
{
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

uint32_t LevelOf(CCvLogger& logger)
{
    uint32_t level = 0;
    logger.GetLevel(&level);
    return level;
}

std::shared_ptr<CCvLogger> MakeLogger(const TempDir& dir, const wchar_t* base, BOOL buffered,
                                      const TempKey* key = nullptr)
{
    return CCvLogger::CreateLoggerInFolder(dir.Path().c_str(), key ? HKEY_CURRENT_USER : nullptr,
                                           key ? key->Path().c_str() : nullptr, base, nullptr, TRUE, buffered,
                                           2);
}

uint64_t NowFileTime()
{
    FILETIME now;
    ::GetSystemTimeAsFileTime(&now);
    return (static_cast<uint64_t>(now.dwHighDateTime) << 32) | now.dwLowDateTime;
}

void SetLastWrite(const std::wstring& path, uint64_t fileTime = NowFileTime())
{
    daxlib::unique_hfile file(::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                            FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD written = 0;
    ::WriteFile(file.get(), "x\0", 2, &written, nullptr);
    FILETIME time{static_cast<DWORD>(fileTime), static_cast<DWORD>(fileTime >> 32)};
    ::SetFileTime(file.get(), nullptr, nullptr, &time);
}

} // namespace

class Rotation : public ::testing::TestWithParam<BOOL>
{
};

// The queued writer writes whole runs at once; rotation must still fall at the same piece.
TEST_P(Rotation, CountThreeKeepsThreeRotatedFilesAndARecreateStartsAfresh)
{
    TempDir dir(L"velomar-rot");
    auto logger = MakeLogger(dir, L"rot", GetParam());
    ASSERT_TRUE(logger);
    const std::wstring banner = logger->GetBanner();
    logger->SetRotationCount(3);
    logger->SetMaxFileSize(2000);
    // The size is checked on the first write and then every 5000 pieces (three per record):
    // rotations fall at record 1666's line end, 3333's message, 5000's header and 6666's line end.
    for (int i = 0; i < 6700; ++i)
        logger->Log(2, L"rec-%05d", i);
    logger->SetLogFileSecurity(FALSE, FALSE); // drains the queue
    // The live file is started again on request; an unknown file index is refused.
    EXPECT_TRUE(logger->RequestRecreate(0));
    logger->Log(2, L"after-recreate");
    ::SetLastError(ERROR_SUCCESS);
    EXPECT_FALSE(logger->RequestRecreate(5));
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_NOT_FOUND));
    logger.reset();

    const std::wstring live = ReadUtf16File(dir.File(L"rot.txt"));
    const std::wstring r1 = ReadUtf16File(dir.File(L"rot(01).txt"));
    const std::wstring r2 = ReadUtf16File(dir.File(L"rot(02).txt"));
    const std::wstring r3 = ReadUtf16File(dir.File(L"rot(03).txt"));
    EXPECT_FALSE(PathExists(dir.File(L"rot(04).txt")));
    // The first file went with the fourth rotation; the others moved down one number.
    EXPECT_TRUE(StartsWith(r1, banner + L"\r\n"));
    EXPECT_TRUE(StartsWith(r2, banner + L"rec-03333\r\n"));
    EXPECT_TRUE(EndsWith(r2, L"rec-04999\r\n"));
    EXPECT_TRUE(EndsWith(r3, L"rec-06666"));
    EXPECT_FALSE(Contains(live, L"rec-06699"));
    EXPECT_TRUE(StartsWith(live, banner));
    EXPECT_TRUE(Contains(live, L"after-recreate"));
}

INSTANTIATE_TEST_SUITE_P(Writers, Rotation, ::testing::Values(TRUE, FALSE),
                         [](const auto& info) { return info.param ? "Queued" : "Direct"; });

// A logger with a key of its own; Load() reads the key as the watch thread does on a change.
class RegistrySettings : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_logger = MakeLogger(m_dir, L"reg", TRUE, &m_key);
        ASSERT_TRUE(m_logger);
    }
    void Load() { m_logger->LoadSettings(m_key.Get(), FALSE); }

    TempDir m_dir{L"velomar-reg"};
    TempKey m_key;
    std::shared_ptr<CCvLogger> m_logger;
};

TEST_F(RegistrySettings, IdleFileIsClosedAndReopenedWithoutASecondBanner)
{
    m_logger->Log(2, L"first-record");
    const std::wstring path = m_dir.File(L"reg.txt");
    ASSERT_TRUE(Eventually([&] { return PathExists(path); }));
    EXPECT_TRUE(Eventually(
        [&]
        {
            daxlib::unique_hfile file(::CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING,
                                                    FILE_ATTRIBUTE_NORMAL, nullptr));
            return file.valid();
        }))
        << "the idle handle was never closed";
    m_logger->Log(1, L"second-record");
    const std::wstring banner = m_logger->GetBanner();
    m_logger.reset();
    const std::wstring text = ReadUtf16File(path);
    EXPECT_TRUE(Contains(text, L"first-record"));
    EXPECT_TRUE(Contains(text, L"second-record"));
    EXPECT_EQ(text.find(banner, 1), std::wstring::npos) << "an existing file gets no second banner";
}

// A missing count goes back to its default; a missing size stays as it was.
TEST_F(RegistrySettings, RotationValuesAreHeldWithinTheirRanges)
{
    const std::pair<DWORD, uint32_t> counts[] = {{0, 1}, {150, 99}, {5, 5}};
    for (const auto& [value, expected] : counts)
    {
        m_key.SetDword(L"RotationLogFileNumber", value);
        Load();
        EXPECT_EQ(m_logger->GetRotationCount(), expected) << value;
    }
    ::RegDeleteValueW(m_key.Get(), L"RotationLogFileNumber");
    Load();
    EXPECT_EQ(m_logger->GetRotationCount(), 10u);
    const std::pair<DWORD, uint32_t> sizes[] = {{0, 1000u << 20}, {5000, 1000u << 20}, {1, 1u << 20}};
    for (const auto& [value, expected] : sizes)
    {
        m_key.SetDword(L"RotationLogFileSizeMB", value);
        Load();
        EXPECT_EQ(m_logger->GetMaxFileSize(), expected) << value;
    }
    ::RegDeleteValueW(m_key.Get(), L"RotationLogFileSizeMB");
    Load();
    EXPECT_EQ(m_logger->GetMaxFileSize(), 1u << 20);
    m_key.SetDword(L"OverrideLogMaxFiles", 0);
    Load();
    EXPECT_EQ(m_logger->GetOldFileLimit(), 0u);
}

TEST_F(RegistrySettings, WrongTypesAndSizesAreIgnoredButALevelInDecimalTextIsTaken)
{
    m_key.SetDword(L"LogLevel", 3);
    m_key.SetDword(L"RotationLogFileNumber", 4);
    m_key.SetDword(L"RotationLogFileSizeMB", 1);
    Load();
    const uint64_t seven = 7;
    m_key.SetText(L"RotationLogFileNumber", L"6");
    m_key.Set(L"RotationLogFileSizeMB", REG_BINARY, &seven, sizeof seven);
    m_key.Set(L"LogLevel", REG_DWORD, &seven, 2);
    Load();
    m_key.SetText(L"LogLevel", L"junk");
    Load();
    m_key.Set(L"LogLevel", REG_BINARY, &seven, 4);
    Load();
    EXPECT_EQ(m_logger->GetRotationCount(), 4u);
    EXPECT_EQ(m_logger->GetMaxFileSize(), 1u << 20);
    EXPECT_EQ(LevelOf(*m_logger), 3u);
    m_key.SetText(L"LogLevel", L"4");
    Load();
    EXPECT_EQ(LevelOf(*m_logger), 4u);
}

// Missing at creation, it is written back; set in code, it goes to the key with its file size.
TEST_F(RegistrySettings, KeyHoldsTheLoggersLevel)
{
    EXPECT_EQ(m_key.GetDword(L"LogLevel"), 2u);
    m_logger->SetLevelFileSizes({{5, 4096}});
    EXPECT_EQ(m_logger->SetLevel(5), 0u);
    EXPECT_EQ(m_key.GetDword(L"LogLevel"), 5u);
    EXPECT_EQ(m_logger->GetMaxFileSize(), 4096u);
}

TEST_F(RegistrySettings, WatchThreadPicksUpEditsOfTheKey)
{
    m_key.SetDword(L"LogLevel", 1);
    EXPECT_TRUE(Eventually([&] { return LevelOf(*m_logger) == 1; }));
}

class BadInput : public ::testing::TestWithParam<BOOL>
{
};

TEST_P(BadInput, UnusableFolderDropsRecords)
{
    TempDir dir(L"velomar-bad");
    SetLastWrite(dir.File(L"blocker")); // a file where the folder should be
    const std::wstring folder = dir.File(L"blocker") + L"\\logs\\";
    auto logger = CCvLogger::CreateLoggerInFolder(folder.c_str(), nullptr, nullptr, L"bad", nullptr, FALSE,
                                                  GetParam(), 2);
    ASSERT_TRUE(logger);
    const unsigned char bytes[64] = {};
    for (int i = 0; i < 200; ++i)
    {
        logger->Log(2, L"dropped %d", i);
        logger->Dump(2, bytes, sizeof bytes, L"dropped dump");
    }
    logger.reset();
    EXPECT_FALSE(PathExists(folder + L"bad.txt"));
}

// Wine runs the tests as root and does not enforce byte-range locks on writes, so neither a
// read-only file nor a locked region makes a write fail there; a file held open exclusively
// makes the open fail, which takes the same drop-and-retry path.
TEST_P(BadInput, LockedFileDropsAndRetriesAndStrictModeWritesUnderTheRestrictedToken)
{
    TempDir dir(L"velomar-bad");
    const std::wstring path = dir.File(L"locked.txt");
    auto logger = MakeLogger(dir, L"locked", GetParam());
    ASSERT_TRUE(logger);
    {
        daxlib::unique_hfile lock(::CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, CREATE_NEW,
                                                FILE_ATTRIBUTE_NORMAL, nullptr));
        ASSERT_TRUE(lock.valid());
        logger->Log(2, L"dropped-while-locked");
        // The queued writer gives no completion signal; re-opening the main file drains it.
        logger->SetLogFileSecurity(FALSE, FALSE);
    }
    logger->Log(2, L"written-after-unlock");
    logger->SetLogFileSecurity(TRUE, TRUE);
    logger->Log(2, L"strict-record");
    daxlib::unique_handle token;
    EXPECT_FALSE(::OpenThreadToken(::GetCurrentThread(), TOKEN_QUERY, TRUE, token.put()));
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_NO_TOKEN))
        << "the logging thread must not keep a token";
    logger->SetLogFileSecurity(TRUE, FALSE);
    logger->Log(2, L"restricted-record");
    const std::wstring banner = logger->GetBanner();
    logger.reset();

    const std::wstring text = ReadUtf16File(path);
    EXPECT_TRUE(StartsWith(text, banner));
    EXPECT_FALSE(Contains(text, L"dropped-while-locked"));
    for (const wchar_t* record : {L"written-after-unlock", L"strict-record", L"restricted-record"})
        EXPECT_TRUE(Contains(text, record)) << record;
}

INSTANTIATE_TEST_SUITE_P(Writers, BadInput, ::testing::Values(TRUE, FALSE),
                         [](const auto& info) { return info.param ? "Queued" : "Direct"; });

// Adding a per-process file first clears out expired and surplus ones of the same base name.
TEST(ExtraFiles, AddingOneClearsExpiredAndSurplusFilesOfItsBaseName)
{
    TempDir dir(L"velomar-extra");
    const uint64_t now = NowFileTime();
    constexpr uint64_t hour = 36000000000ULL;
    SetLastWrite(dir.File(L"x-pp-1-1_2020-01-01-000000(01).txt"), now - 100 * 24 * hour);
    const wchar_t* recent[] = {L"b-pp-1-2.txt", L"c-pp-1-3.txt", L"d-pp-1-4.txt", L"e-pp-1-5.txt",
                               L"f-pp-1-6.txt"};
    for (int i = 0; i < 5; ++i)
        SetLastWrite(dir.File(recent[i]), now - (6 - i) * hour);
    SetLastWrite(dir.File(L"pp.txt"), now - 200 * 24 * hour);
    SetLastWrite(dir.File(L"unrelated.txt"), now - 200 * 24 * hour);
    auto logger = MakeLogger(dir, L"pp", FALSE);
    ASSERT_TRUE(logger);
    EXPECT_EQ(logger->GetOldFileLimit(3), 3u);
    ASSERT_EQ(logger->AddLogFile(L"bob", FALSE), 1);
    logger->WaitForCleanup();
    EXPECT_FALSE(PathExists(dir.File(L"x-pp-1-1_2020-01-01-000000(01).txt")));
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(PathExists(dir.File(recent[i])), i >= 3) << i;
    EXPECT_TRUE(PathExists(dir.File(L"pp.txt")));
    EXPECT_TRUE(PathExists(dir.File(L"unrelated.txt")));
}

// A logger with the per-process file "bob" as file 1 beside its main file "pp.txt".
class ExtraFile : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_logger = MakeLogger(m_dir, L"pp", FALSE);
        ASSERT_TRUE(m_logger);
        ASSERT_EQ(m_logger->AddLogFile(L"bob", FALSE), 1);
        ASSERT_TRUE(m_logger->GetLogFilePath(1, m_bobPath));
        m_logger->LogToFile(1, 2, L"to-bob");
        m_logger->Log(2, L"to-main");
    }
    // Ends the logger and returns bob's text.
    std::wstring Bob()
    {
        m_logger.reset();
        return ReadUtf16File(m_bobPath);
    }

    TempDir m_dir{L"velomar-extra"};
    std::shared_ptr<CCvLogger> m_logger;
    wchar_t m_bobPath[MAX_PATH] = {};
};

TEST_F(ExtraFile, IsNamedPerProcessAndHoldsOnlyItsOwnRecords)
{
    const std::wstring name = std::wstring(m_bobPath).substr(m_dir.Path().size() + 1);
    EXPECT_TRUE(std::regex_match(name, std::wregex(L"bob-pp-\\d+-\\d+_\\d{4}-\\d{2}-\\d{2}-\\d{6}\\.txt")))
        << std::string(name.begin(), name.end());
    const std::wstring bob = Bob();
    EXPECT_TRUE(Contains(bob, L"to-bob"));
    EXPECT_FALSE(Contains(bob, L"to-main"));
    EXPECT_TRUE(Contains(ReadUtf16File(m_dir.File(L"pp.txt")), L"to-main"));
}

TEST_F(ExtraFile, RemovedOnceAndThenDropsItsRecords)
{
    EXPECT_TRUE(m_logger->RemoveLogFile(1));
    ::SetLastError(ERROR_SUCCESS);
    EXPECT_FALSE(m_logger->RemoveLogFile(1));
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_NOT_FOUND));
    m_logger->LogToFile(1, 2, L"after-removal");
    wchar_t path[MAX_PATH];
    EXPECT_FALSE(m_logger->GetLogFilePath(1, path));
    EXPECT_FALSE(Contains(Bob(), L"after-removal"));
}

// Within the hour the same process continues its file.
TEST_F(ExtraFile, AddedAgainAsTheMainFileContinuesTheSameFile)
{
    EXPECT_TRUE(m_logger->RemoveLogFile(1));
    EXPECT_EQ(m_logger->AddLogFile(L"bob", TRUE), 0);
    wchar_t mainPath[MAX_PATH];
    ASSERT_TRUE(m_logger->GetLogFilePath(0, mainPath));
    EXPECT_STREQ(mainPath, m_bobPath);
    m_logger->Log(2, L"bob-as-main");
    const std::wstring bob = Bob();
    EXPECT_TRUE(Contains(bob, L"to-bob"));
    EXPECT_TRUE(Contains(bob, L"bob-as-main"));
}

TEST(EventLog, SourceIsRegisteredForTheRunningProgram)
{
    TempDir dir(L"velomar-event");
    auto logger = MakeLogger(dir, L"ev", FALSE);
    const std::wstring provider = testsupport::UniqueName(L"VelomarLogTest");
    const std::wstring keyPath = L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\" + provider;
    logger->InitEventLogging(provider.c_str());
    ::SetLastError(ERROR_ACCESS_DENIED);
    logger->EventLog(1, 100, nullptr, L"event %d", 1);
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    logger.reset();

    wchar_t module[MAX_PATH];
    ::GetModuleFileNameW(nullptr, module, MAX_PATH);
    EXPECT_EQ(testsupport::ReadRegString(HKEY_LOCAL_MACHINE, keyPath, L"EventMessageFile"), module);
    EXPECT_EQ(testsupport::ReadRegDword(HKEY_LOCAL_MACHINE, keyPath, L"TypesSupported"), 7u);
    ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, keyPath.c_str());
    ::RegDeleteKeyW(HKEY_LOCAL_MACHINE, keyPath.c_str());
    EXPECT_FALSE(Contains(ReadUtf16File(dir.File(L"ev.txt")), L"Event logging disabled"));
}

TEST(Lifecycle, LoggersWithWatchThreadsLeaveNoThreadsOrHandles)
{
    TempDir dir(L"velomar-life");
    TempKey key;
    MakeLogger(dir, L"warm", TRUE, &key)->Log(2, L"warm-up");
    const long long threads = testsupport::CountProcessThreads();
    const long long handles = testsupport::CountProcessHandles();
    for (int i = 0; i < 10; ++i)
    {
        auto logger = MakeLogger(dir, L"life", i % 2 == 0, &key);
        ASSERT_TRUE(logger);
        logger->Log(2, L"record %d", i);
        logger->AddLogFile(L"extra", FALSE);
        logger->LogToFile(1, 2, L"extra %d", i);
    }
    EXPECT_TRUE(Eventually([&] { return testsupport::CountProcessThreads() <= threads; }))
        << testsupport::CountProcessThreads() << " threads, " << threads << " before";
    if (handles >= 0)
    {
        EXPECT_LE(testsupport::CountProcessHandles(), handles + 4);
    }
}
