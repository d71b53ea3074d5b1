// Records read back from the file, built once with the queued writer and once writing in the
// logging thread (LOG_TEST_BUFFERED).
#include "log/BuildInfo.h"
#include "log/CvLogger.h"
#include "log/LogText.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#ifndef LOG_TEST_BUFFERED
#define LOG_TEST_BUFFERED 1
#endif

namespace
{
std::vector<std::wstring> SplitLines(const std::wstring& text)
{
    std::vector<std::wstring> lines;
    size_t start = 0;
    for (size_t end; (end = text.find(L"\r\n", start)) != std::wstring::npos; start = end + 2)
        lines.push_back(text.substr(start, end - start));
    lines.push_back(text.substr(start));
    return lines;
}

bool EndsWith(const std::wstring& text, const std::wstring& end)
{
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

class RecordTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_logger = CCvLogger::CreateLoggerInFolder(m_dir.Path().c_str(), nullptr, nullptr, L"rectest",
                                                   nullptr, FALSE, LOG_TEST_BUFFERED, 2);
        ASSERT_TRUE(m_logger);
        m_banner = m_logger->GetBanner();
    }

    // Ends the logger, so that everything queued has reached the file, and returns the lines
    // after the banner: UTF-16LE without a byte-order mark, every line ending in CR LF.
    std::vector<std::wstring> RecordLines()
    {
        m_logger.reset();
        const std::string bytes = testsupport::ReadFileBytes(m_dir.File(L"rectest.txt"));
        EXPECT_EQ(bytes.size() % 2, 0u);
        EXPECT_FALSE(bytes.size() >= 2 && bytes[0] == '\xFF' && bytes[1] == '\xFE') << "no byte-order mark";
        const std::wstring text = testsupport::FromUtf16Bytes(bytes);
        EXPECT_EQ(text.compare(0, m_banner.size(), m_banner), 0);
        std::vector<std::wstring> lines = SplitLines(text.substr(m_banner.size()));
        EXPECT_TRUE(lines.back().empty()) << "text ends with CR LF";
        lines.pop_back();
        for (const auto& line : lines)
            EXPECT_EQ(line.find_first_of(L"\r\n"), std::wstring::npos);
        return lines;
    }

    // Every record line has its label and ends in its text, in this order and no others.
    void ExpectLines(std::initializer_list<std::pair<const wchar_t*, const wchar_t*>> expected)
    {
        const auto lines = RecordLines();
        ASSERT_EQ(lines.size(), expected.size());
        for (size_t i = 0; i < lines.size(); ++i)
        {
            SCOPED_TRACE(std::string(lines[i].begin(), lines[i].end()));
            const auto [label, end] = expected.begin()[i];
            EXPECT_NE(lines[i].find(label), std::wstring::npos);
            EXPECT_TRUE(EndsWith(lines[i], end));
        }
    }

    static constexpr unsigned char kBytes[] = {0x00, 0x0A, 0xFF};
    testsupport::TempDir m_dir{L"velomar-log"};
    std::shared_ptr<CCvLogger> m_logger;
    std::wstring m_banner;
};
} // namespace

TEST_F(RecordTest, BannerIsAnEmptyLineThenTheServiceLineWithBuildDateAndWindowsVersion)
{
    wchar_t version[4096];
    CCvLogger::GetWindowsVersionText(version, 4096);
    const char* date = BuildDateText();
    const std::wstring tail = L"Build " + std::wstring(date, date + strlen(date)) + L". " + version;
    const auto lines = SplitLines(m_banner);
    ASSERT_GE(lines.size(), 2u);
    EXPECT_TRUE(lines[0].empty());
    EXPECT_NE(lines[1].find(L"[SERVICE]: "), std::wstring::npos);
    EXPECT_TRUE(EndsWith(lines[1], tail));
}

// The message starts at the widest header so far (the banner's "[SERVICE]" is wider).
TEST_F(RecordTest, HeaderHasTimeWithUtcOffsetProcessThreadAndLabel)
{
    SYSTEMTIME local, utc;
    ::GetLocalTime(&local);
    ::GetSystemTime(&utc);
    const auto offset =
        cvlog::ComputeUtcOffset({local.wYear, local.wMonth, local.wDay, local.wHour, local.wMinute},
                                {utc.wYear, utc.wMonth, utc.wDay, utc.wHour, utc.wMinute});
    m_logger->Log(2, L"Service logger is working.");
    const size_t column = CCvLogger::HeaderWidth();
    const auto lines = RecordLines();
    ASSERT_EQ(1u, lines.size());
    std::wsmatch m;
    ASSERT_TRUE(
        std::regex_match(lines[0], m,
                         std::wregex(L"\\d{4}\\.\\d{2}\\.\\d{2} \\d{2}:\\d{2}:\\d{2}\\.\\d{3} "
                                     L"\\(([+-]\\d{2}):(\\d{2})\\) \\[(\\d+)\\] \\[(\\d+)\\] \\[INFO\\]: "
                                     L"( *)Service logger is working\\.")));
    EXPECT_EQ(std::stoi(m[1].str()), offset.hours);
    EXPECT_EQ(std::stoi(m[2].str()), offset.minutes);
    EXPECT_EQ(std::stoul(m[3].str()), ::GetCurrentProcessId());
    EXPECT_EQ(std::stoul(m[4].str()), ::GetCurrentThreadId());
    EXPECT_GT(m.length(5), 0);
    EXPECT_EQ(static_cast<size_t>(m.position(5) + m.length(5)), column);
}

TEST_F(RecordTest, LevelFilterHidesRecordsAboveItButNeverCategories)
{
    EXPECT_TRUE(m_logger->IsLevelEnabled(2));
    EXPECT_FALSE(m_logger->IsLevelEnabled(3));
    m_logger->Log(3, L"debug-hidden");
    m_logger->Dump(3, kBytes, 1, L"dump-hidden");
    m_logger->Log(0, L"error-shown");
    m_logger->Log(1, L"warning-shown");
    m_logger->LogCategory(L"FREE", L"free-shown %d", 1);
    m_logger->SetLevel(0);
    m_logger->Log(1, L"warning-hidden");
    m_logger->LogCategory(L"FREE", L"free-shown %d", 2);
    ExpectLines({{L"[ERROR]: ", L"error-shown"},
                 {L"[WARNING]: ", L"warning-shown"},
                 {L"[FREE]: ", L"free-shown 1"},
                 {L"[FREE]: ", L"free-shown 2"}});
}

// The record's label has a blank before its bracket that the dump's has not: kept as it is.
TEST_F(RecordTest, LevelsWithoutANameAreLabelledByNumberAndDumpsEndInHexBytes)
{
    m_logger->SetLevel(7);
    m_logger->Log(7, L"trace-record");
    m_logger->Dump(7, kBytes, 3, L"trace-dump %d", 3);
    m_logger->Dump(2, kBytes, 0, L"no-bytes");
    ExpectLines({{L"[LOGLEVEL:7 ]: ", L"trace-record"},
                 {L"[LOGLEVEL:7]: ", L"trace-dump 3 00 0a ff"},
                 {L"[INFO]: ", L"no-bytes"}});
}

TEST_F(RecordTest, EmptyMessagesWriteNothingAndLongOnesAreCutTo4095Characters)
{
    m_logger->Log(2, L"");
    m_logger->Log(2, L"%s", L"");
    m_logger->Log(2, L"%s", std::wstring(5000, L'z').c_str());
    const auto lines = RecordLines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(lines[0].size() - lines[0].find(L'z'), 4095u);
}

// Its header stays without a line end, so the next record joins it.
TEST_F(RecordTest, DumpWithAnOverlongTextFailsAndLeavesOnlyItsHeader)
{
    m_logger->Dump(2, kBytes, 1, L"%s", std::wstring(5000, L'q').c_str());
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    m_logger->Log(2, L"next");
    const auto lines = RecordLines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(lines[0].find(L'q'), std::wstring::npos);
    EXPECT_NE(lines[0].find(L"[INFO]: "), lines[0].rfind(L"[INFO]: "));
    EXPECT_TRUE(EndsWith(lines[0], L"next"));
}

// A wider header moves every later message right, label-only headers included, and a
// narrower one never moves it back.
TEST_F(RecordTest, MessageColumnOnlyMovesRight)
{
    const size_t before = CCvLogger::HeaderWidth();
    m_logger->LogCategory(L"A-CATEGORY-MUCH-WIDER-THAN-ANY-BEFORE-IT", L"wide");
    const size_t column = CCvLogger::HeaderWidth();
    EXPECT_GT(column, before);
    m_logger->Log(2, L"after");
    m_logger->SetHeaderFlags(0x8000); // the label alone
    m_logger->Log(2, L"short");
    EXPECT_EQ(CCvLogger::HeaderWidth(), column);
    const auto lines = RecordLines();
    ASSERT_EQ(3u, lines.size());
    EXPECT_EQ(lines[0].find(L"wide"), column);
    EXPECT_EQ(lines[1].find(L"after"), column);
    EXPECT_EQ(lines[2].find(L"short"), column);
    EXPECT_EQ(lines[2].substr(0, 8), L"[INFO]: ");
}

// Only the calls that fail set it, to say why.
TEST_F(RecordTest, LoggingKeepsTheCallersLastError)
{
    ::SetLastError(ERROR_ACCESS_DENIED);
    m_logger->Log(2, L"record");
    m_logger->LogCategory(L"C", L"category");
    m_logger->Dump(2, kBytes, 1, L"dump");
    wchar_t text[512];
    EXPECT_TRUE(CCvLogger::FormatError(ERROR_FILE_NOT_FOUND, text, 512));
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    m_logger->DumpToFile(9, 2, kBytes, 1, L"no such file");
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_NOT_FOUND));
}

TEST_F(RecordTest, WithoutAnEventSourceEventsAreOnlyLogged)
{
    ::SetLastError(ERROR_SUCCESS);
    m_logger->InitEventLogging(nullptr);
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_INVALID_DATA));
    ::SetLastError(ERROR_ACCESS_DENIED);
    m_logger->EventLog(0, 1, nullptr, L"not sent %d", 1);
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    ExpectLines({{L"[ERROR]: ", L"Empty provider name"}, {L"[WARNING]: ", L"Event logging disabled"}});
}

TEST(RecordText, FormatErrorOfNoErrorIsEmptyAndOfOthersNamesTheCode)
{
    wchar_t text[512] = L"junk";
    EXPECT_TRUE(CCvLogger::FormatError(ERROR_SUCCESS, text, 512));
    EXPECT_STREQ(text, L"");
    EXPECT_TRUE(CCvLogger::FormatError(ERROR_ACCESS_DENIED, text, 512));
    EXPECT_EQ(std::wstring(text).rfind(L"Error 5: ", 0), 0u);
    EXPECT_GT(wcslen(text), 9u);
}

TEST_F(RecordTest, ThreadsNeverInterleaveInsideALine)
{
    constexpr int kThreads = 4;
    constexpr int kPerThread = 300;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back(
            [&, t]
            {
                for (int i = 0; i < kPerThread; ++i)
                    m_logger->Log(2, L"thread %d record %d %s", t, i, L"padding-text-to-make-lines-longer");
            });
    for (auto& thread : threads)
        thread.join();

    const auto lines = RecordLines();
    ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kPerThread));
    const std::wregex shape(
        L"\\d{4}\\.\\d{2}\\.\\d{2} [0-9:.]{12} \\([+-]\\d{2}:\\d{2}\\) \\[\\d+\\] \\[\\d+\\] "
        L"\\[INFO\\]: +thread (\\d) record (\\d+) padding-text-to-make-lines-longer");
    std::vector<int> next(kThreads, 0);
    for (const auto& line : lines)
    {
        std::wsmatch m;
        ASSERT_TRUE(std::regex_match(line, m, shape));
        const int t = std::stoi(m[1].str());
        EXPECT_EQ(std::stoi(m[2].str()), next[t]++);
    }
}
