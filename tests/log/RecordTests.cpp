// Records read back from the file, built once with the queued writer and once writing in the
// logging thread (LOG_TEST_BUFFERED).
#include "log/BuildInfo.h"
#include "log/CvLogger.h"
#include "log/LogText.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

#include <cstring>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#ifndef LOG_TEST_BUFFERED
#define LOG_TEST_BUFFERED 1
#endif

using testing_support::FromUtf16Bytes;
using testing_support::ReadFileBytes;

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

std::wstring Widen(const char* text)
{
    return std::wstring(text, text + strlen(text));
}

class RecordTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_logger = CCvLogger::CreateLoggerInFolder(m_dir.Path().c_str(), nullptr, nullptr, L"rectest", nullptr, FALSE,
                                                   LOG_TEST_BUFFERED, 2);
        ASSERT_TRUE(m_logger);
        m_banner = m_logger->GetBanner();
    }

    // Ends the logger, so that everything queued has reached the file, and returns the text.
    std::wstring Finish()
    {
        m_logger.reset();
        const std::string bytes = ReadFileBytes(m_dir.File(L"rectest.txt"));
        EXPECT_EQ(bytes.size() % 2, 0u);
        if (bytes.size() >= 2)
        {
            EXPECT_FALSE(bytes[0] == '\xFF' && bytes[1] == '\xFE') << "no byte-order mark";
        }
        return FromUtf16Bytes(bytes);
    }

    // The lines after the banner; every line ends with CR LF and no bare CR or LF is left.
    std::vector<std::wstring> RecordLines()
    {
        const std::wstring text = Finish();
        EXPECT_EQ(text.compare(0, m_banner.size(), m_banner), 0);
        std::vector<std::wstring> lines = SplitLines(text.substr(m_banner.size()));
        EXPECT_TRUE(lines.back().empty()) << "text ends with CR LF";
        lines.pop_back();
        for (const auto& line : lines)
            EXPECT_EQ(line.find_first_of(L"\r\n"), std::wstring::npos);
        return lines;
    }

    static const std::wstring* Find(const std::vector<std::wstring>& lines, const std::wstring& fragment)
    {
        for (const auto& line : lines)
            if (line.find(fragment) != std::wstring::npos)
                return &line;
        return nullptr;
    }

    testing_support::TempDir m_dir{L"velomar-log"};
    std::shared_ptr<CCvLogger> m_logger;
    std::wstring m_banner;
};
} // namespace

TEST_F(RecordTest, BannerThenServiceRecordLayoutByteForByte)
{
    m_logger->Log(2, L"Service logger is working.");
    wchar_t version[4096];
    CCvLogger::GetWindowsVersionText(version, 4096);
    // The banner: an empty line, then the service line ending in the build date and version.
    const std::wstring tail = L"Build " + Widen(BuildDateText()) + L". " + version;
    const auto bannerLines = SplitLines(m_banner);
    ASSERT_GE(bannerLines.size(), 2u);
    EXPECT_TRUE(bannerLines[0].empty());
    EXPECT_NE(bannerLines[1].find(L"[SERVICE]: "), std::wstring::npos);
    ASSERT_GE(bannerLines[1].size(), tail.size());
    EXPECT_EQ(bannerLines[1].substr(bannerLines[1].size() - tail.size()), tail);
    const DWORD thread = ::GetCurrentThreadId();
    SYSTEMTIME local, utc;
    ::GetLocalTime(&local);
    ::GetSystemTime(&utc);
    const auto offset = cvlog::ComputeUtcOffset({local.wYear, local.wMonth, local.wDay, local.wHour, local.wMinute},
                                                {utc.wYear, utc.wMonth, utc.wDay, utc.wHour, utc.wMinute});

    const auto lines = RecordLines();
    ASSERT_EQ(lines.size(), 1u);
    std::wsmatch m;
    ASSERT_TRUE(std::regex_match(lines[0], m,
                                 std::wregex(L"(\\d{4})\\.(\\d{2})\\.(\\d{2}) (\\d{2}):(\\d{2}):(\\d{2})\\.(\\d{3}) "
                                             L"\\(([+-]\\d{2}):(\\d{2})\\) \\[(\\d+)\\] \\[(\\d+)\\] \\[INFO\\]: "
                                             L"( *)Service logger is working\\.")))
        << std::string(lines[0].begin(), lines[0].end());
    EXPECT_EQ(std::stoi(m[1].str()), local.wYear);
    EXPECT_EQ(std::stoi(m[8].str()), offset.hours);
    EXPECT_EQ(std::stoi(m[9].str()), offset.minutes);
    EXPECT_EQ(std::stoul(m[10].str()), ::GetCurrentProcessId());
    EXPECT_EQ(std::stoul(m[11].str()), thread);
    // The message starts at the widest header so far (the banner's "[SERVICE]" is wider).
    EXPECT_EQ(static_cast<size_t>(m.position(12) + m.length(12)), CCvLogger::HeaderWidth());
    EXPECT_GT(m.length(12), 0);
}

TEST_F(RecordTest, LevelFilterAndFreeCategory)
{
    EXPECT_TRUE(m_logger->IsLevelEnabled(2));
    EXPECT_FALSE(m_logger->IsLevelEnabled(3));
    m_logger->Log(3, L"debug-hidden");
    m_logger->Log(0, L"error-shown");
    m_logger->Log(1, L"warning-shown");
    m_logger->LogCategory(L"FREE", L"free-shown %d", 1);
    m_logger->SetLevel(0);
    m_logger->Log(1, L"warning-hidden");
    m_logger->LogCategory(L"FREE", L"free-shown %d", 2);

    const auto lines = RecordLines();
    EXPECT_EQ(Find(lines, L"hidden"), nullptr);
    ASSERT_NE(Find(lines, L"error-shown"), nullptr);
    EXPECT_NE(Find(lines, L"error-shown")->find(L"[ERROR]: "), std::wstring::npos);
    EXPECT_NE(Find(lines, L"warning-shown")->find(L"[WARNING]: "), std::wstring::npos);
    ASSERT_NE(Find(lines, L"free-shown 2"), nullptr);
    EXPECT_NE(Find(lines, L"free-shown 1")->find(L"[FREE]: "), std::wstring::npos);
    EXPECT_EQ(lines.size(), 4u);
}

TEST_F(RecordTest, TraceLevelLabelsAndDumpFormat)
{
    m_logger->SetLevel(7);
    m_logger->Log(7, L"trace-record");
    const unsigned char bytes[] = {0x00, 0x0A, 0xFF};
    m_logger->Dump(7, bytes, 3, L"trace-dump %d", 3);
    m_logger->Dump(2, bytes, 0, L"no-bytes");
    m_logger->Dump(8, bytes, 3, L"filtered-dump");

    const auto lines = RecordLines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_NE(lines[0].find(L"[LOGLEVEL:7 ]: "), std::wstring::npos);
    EXPECT_NE(lines[1].find(L"[LOGLEVEL:7]: "), std::wstring::npos);
    EXPECT_EQ(lines[1].substr(lines[1].size() - 21), L"trace-dump 3 00 0a ff");
    EXPECT_EQ(lines[2].substr(lines[2].size() - 8), L"no-bytes");
}

TEST_F(RecordTest, EmptyAndLongMessagesAndLastError)
{
    m_logger->Log(2, L"");
    m_logger->Log(2, L"%s", L"");
    m_logger->Log(2, L"%s", std::wstring(5000, L'z').c_str());
    ::SetLastError(1234);
    m_logger->Log(2, L"keeps");
    m_logger->LogCategory(L"C", L"keeps");
    EXPECT_EQ(::GetLastError(), 1234u);

    const unsigned char bytes[] = {1};
    m_logger->Dump(2, bytes, 1, L"fine");
    EXPECT_EQ(::GetLastError(), 1234u);
    m_logger->DumpToFile(9, 2, bytes, 1, L"no such file");
    EXPECT_EQ(::GetLastError(), 1168u);
    m_logger->Dump(2, bytes, 1, L"%s", std::wstring(5000, L'q').c_str());
    EXPECT_EQ(::GetLastError(), 87u);
    m_logger->Log(2, L"next");

    // Empty messages leave no line; a long one is cut to 4095 characters.
    const auto lines = RecordLines();
    ASSERT_EQ(lines.size(), 5u);
    ASSERT_NE(lines[0].find(L'z'), std::wstring::npos);
    EXPECT_EQ(lines[0].size() - lines[0].find(L'z'), 4095u);
    EXPECT_EQ(lines[3].substr(lines[3].size() - 7), L"fine 01");
    // The cut dump leaves its header without a line end, so the next record joins it.
    EXPECT_EQ(lines[4].find(L'q'), std::wstring::npos);
    EXPECT_NE(lines[4].find(L"[INFO]: "), lines[4].rfind(L"[INFO]: "));
    EXPECT_EQ(lines[4].substr(lines[4].size() - 4), L"next");
}

TEST_F(RecordTest, MessagesLineUpAndTheColumnOnlyMovesRight)
{
    m_logger->Log(2, L"first");
    const size_t before = CCvLogger::HeaderWidth();
    m_logger->LogCategory(L"A-CATEGORY-MUCH-WIDER-THAN-ANY-BEFORE-IT", L"wide");
    const size_t after = CCvLogger::HeaderWidth();
    EXPECT_GT(after, before);
    m_logger->Log(2, L"short");
    m_logger->SetHeaderFlags(0x8000);
    m_logger->Log(2, L"tiny");
    EXPECT_EQ(CCvLogger::HeaderWidth(), after);

    const auto lines = RecordLines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[1].find(L"wide"), after);
    EXPECT_EQ(lines[2].find(L"short"), after);
    EXPECT_EQ(lines[3].find(L"tiny"), after);
    EXPECT_EQ(lines[3].substr(0, 8), L"[INFO]: ");
}

TEST_F(RecordTest, ThreadsNeverInterleaveInsideALine)
{
    constexpr int kThreads = 4;
    constexpr int kPerThread = 300;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i)
                m_logger->Log(2, L"thread %d record %d %s", t, i, L"padding-text-to-make-lines-longer");
        });
    for (auto& thread : threads)
        thread.join();

    const auto lines = RecordLines();
    ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kPerThread));
    const std::wregex shape(L"\\d{4}\\.\\d{2}\\.\\d{2} [0-9:.]{12} \\([+-]\\d{2}:\\d{2}\\) \\[\\d+\\] \\[\\d+\\] "
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

TEST_F(RecordTest, EventLogWithoutSourceOnlyLogs)
{
    ::SetLastError(0);
    m_logger->InitEventLogging(nullptr);
    EXPECT_EQ(::GetLastError(), 13u);
    ::SetLastError(77);
    m_logger->EventLog(0, 1, nullptr, L"not sent %d", 1);
    EXPECT_EQ(::GetLastError(), 77u);

    const auto lines = RecordLines();
    ASSERT_NE(Find(lines, L"CCvLogger::InitEventLogging: (1458): Empty provider name"), nullptr);
    EXPECT_NE(Find(lines, L"Empty provider name")->find(L"[ERROR]"), std::wstring::npos);
    ASSERT_NE(Find(lines, L"CCvLogger::EventLog: (1484): Event logging disabled"), nullptr);
    EXPECT_NE(Find(lines, L"Event logging disabled")->find(L"[WARNING]"), std::wstring::npos);
}

TEST(CvLoggerStatic, FormatErrorKeepsLastError)
{
    wchar_t buffer[512] = L"junk";
    ::SetLastError(42);
    EXPECT_TRUE(CCvLogger::FormatError(0, buffer, 512));
    EXPECT_STREQ(buffer, L"");
    EXPECT_TRUE(CCvLogger::FormatError(5, buffer, 512));
    EXPECT_EQ(std::wstring(buffer).rfind(L"Error 5: ", 0), 0u);
    EXPECT_GT(wcslen(buffer), 9u);
    EXPECT_EQ(::GetLastError(), 42u);
}
