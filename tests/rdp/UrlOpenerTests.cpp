// The opener starts real programs: the test recorder, and ones that fail.
#include "rdpclient/UrlOpener.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

namespace
{

using namespace RdpClient;
using namespace std::chrono_literals;

class UrlOpenerTest : public testing::Test
{
protected:
    UrlOpenerTest()
    {
        char pattern[] = "/tmp/velomar-opener-XXXXXX";
        folder = mkdtemp(pattern);
        record = folder / "record.txt";
        setenv("VELOMAR_RECORDER_FILE", record.c_str(), 1);
    }
    ~UrlOpenerTest() override
    {
        unsetenv("VELOMAR_RECORDER_FILE");
        std::filesystem::remove_all(folder);
    }

    LogSink Sink()
    {
        return [this](LogLevel level, const std::string& text)
        {
            std::lock_guard guard(lock);
            logged.push_back({level, text});
        };
    }
    // The recorder's lines, once `count` are there or after a few seconds.
    std::vector<std::string> Records(size_t count)
    {
        std::vector<std::string> lines;
        for (auto until = std::chrono::steady_clock::now() + 5s; std::chrono::steady_clock::now() < until;
             std::this_thread::sleep_for(10ms))
        {
            lines.clear();
            std::ifstream in(record);
            for (std::string line; std::getline(in, line);)
                lines.push_back(line);
            if (lines.size() >= count)
                break;
        }
        return lines;
    }
    bool WaitLogged(LogLevel level, const std::string& part)
    {
        for (auto until = std::chrono::steady_clock::now() + 5s; std::chrono::steady_clock::now() < until;
             std::this_thread::sleep_for(10ms))
        {
            std::lock_guard guard(lock);
            for (const auto& [l, text] : logged)
                if (l == level && text.find(part) != std::string::npos)
                    return true;
        }
        return false;
    }
    static std::string Hex(const std::string& text)
    {
        std::ostringstream out;
        for (unsigned char c : text)
            out << std::hex << (c < 16 ? "0" : "") << static_cast<int>(c);
        return out.str();
    }

    std::filesystem::path folder;
    std::filesystem::path record;
    std::mutex lock;
    std::vector<std::pair<LogLevel, std::string>> logged;
};

TEST_F(UrlOpenerTest, GivesTheProgramTheUrlAsItsOnlyArgumentUntouched)
{
    const std::string tricky = "https://example.com/a b;$(touch x)`id`'\"|&<>*?~\\";
    {
        UrlOpener opener(VELOMAR_RECORDER, Sink());
        opener.Open(tricky);
        opener.Open("https://example.com/2");
        ASSERT_EQ(Records(2).size(), 2u);
    }
    EXPECT_EQ(Records(2),
              (std::vector<std::string>{"1 " + Hex(tricky), "1 " + Hex("https://example.com/2")}));
    EXPECT_FALSE(std::filesystem::exists(folder / "x"));
}

TEST_F(UrlOpenerTest, AProgramThatCannotStartIsReported)
{
    UrlOpener opener((folder / "missing").string(), Sink());
    opener.Open("https://example.com/");
    EXPECT_TRUE(WaitLogged(LogLevel::Error, "cannot start"));
}

TEST_F(UrlOpenerTest, AProgramThatFailsIsReportedWhenReaped)
{
    UrlOpener opener("false", Sink());
    opener.Open("https://example.com/");
    EXPECT_TRUE(WaitLogged(LogLevel::Warning, "false exited with status 1"));
}

} // namespace
