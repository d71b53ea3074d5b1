// Browser command lines from the registry, expanded for one URL: the URL must reach the browser
// as one unchanged argument whatever it holds.
#include "tools/agent/BrowserCommand.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using agent::ExpandBrowserCommand;
using agent::QuoteArgument;
using agent::SplitArguments;

namespace
{
// URLs that a careless quoting would split, shorten or let a shell read.
const std::vector<std::wstring> kHardUrls = {
    L"https://a.example/path with spaces?q=a b",
    L"https://a.example/\"quoted\"?x=\"",
    L"https://a.example/%1%L%20%%?p=%PATH%",
    L"https://a.example/^caret^&amp&&x=1|y<z>",
    L"https://a.example/trailing\\",
    L"https://a.example/\\\"\\\\\"end\\\\",
    L"https://a.example/\U0001F600\u00e4\u20ac",
    L"https://a.example/tab\tinside",
    L"",
};
} // namespace

TEST(BrowserCommandTest, QuotedArgumentsReadBackUnchanged)
{
    for (const std::wstring& url : kHardUrls)
    {
        const std::vector<std::wstring> args = SplitArguments(L"prog " + QuoteArgument(url) + L" next");
        ASSERT_EQ(2u, args.size()) << QuoteArgument(url);
        EXPECT_EQ(url, args[0]);
        EXPECT_EQ(L"next", args[1]);
    }
    EXPECT_EQ(L"plain", QuoteArgument(L"plain"));
    EXPECT_EQ(L"\"a\\\\b c\\\\\\\\\"", QuoteArgument(L"a\\\\b c\\\\")); // only trailing ones double
    EXPECT_EQ(L"\"\\\"\"", QuoteArgument(L"\""));
}

TEST(BrowserCommandTest, ReadsArgumentsAsTheRuntimeDoes)
{
    EXPECT_EQ(
        (std::vector<std::wstring>{L"a\\\\b", L"c\"d", L"e f", L"g\\\"h", L"", L"i\"j"}),
        SplitArguments(L"\"C:\\Program Files\\x.exe\" a\\\\b c\\\"d \"e f\" g\\\\\\\"h \"\" \"i\"\"j\""));
    EXPECT_TRUE(SplitArguments(L"\"C:\\x y\\z.exe\"").empty());
}

TEST(BrowserCommandTest, PlaceholderBecomesTheUrlAsOneArgument)
{
    for (const std::wstring& url : kHardUrls)
    {
        for (const std::wstring& command : {std::wstring(L"\"C:\\Program Files\\B\\b.exe\" --single \"%1\""),
                                            std::wstring(L"\"C:\\Program Files\\B\\b.exe\" --single %1"),
                                            std::wstring(L"C:\\B\\b.exe -osint -url %L"),
                                            std::wstring(L"\"C:\\Program Files\\B\\b.exe\" --single")})
        {
            const auto launch = ExpandBrowserCommand(command, url);
            ASSERT_TRUE(launch);
            const std::vector<std::wstring> args = SplitArguments(launch->commandLine);
            ASSERT_FALSE(args.empty()) << launch->commandLine;
            EXPECT_EQ(url, args.back()) << command << L" -> " << launch->commandLine;
            EXPECT_EQ(command.find(L"-osint") != std::wstring::npos ? 3u : 2u, args.size())
                << launch->commandLine;
        }
    }
    const auto launch = ExpandBrowserCommand(L"\"C:\\Program Files\\B\\b.exe\" \"--url=%1\" x", L"u v");
    ASSERT_TRUE(launch);
    EXPECT_EQ(L"C:\\Program Files\\B\\b.exe", launch->program);
    EXPECT_EQ(L"\"C:\\Program Files\\B\\b.exe\" \"--url=u v\" x", launch->commandLine);
    EXPECT_FALSE(ExpandBrowserCommand(L"   ", L"u"));
    EXPECT_FALSE(ExpandBrowserCommand(L"\"\" %1", L"u"));
}

TEST(BrowserCommandTest, RecognisesItsOwnPrograms)
{
    EXPECT_TRUE(agent::IsOwnProgram(L"C:\\Program Files\\Corvane\\Velomar\\VELOMAR-OPEN.EXE"));
    EXPECT_TRUE(agent::IsOwnProgram(L"D:/x/velomar-open-cli.exe"));
    EXPECT_FALSE(agent::IsOwnProgram(L"C:\\Browsers\\velomar-open.exe.bak"));
    EXPECT_FALSE(agent::IsOwnProgram(L"C:\\velomar-open\\firefox.exe"));
}
