#include "tools/agent/AgentOptions.h"

#include <gtest/gtest.h>

using namespace agent;

TEST(AgentCommandLine, AcceptsUrlsAndOptions)
{
    auto r = ParseCommandLine({L"https://example.test/a?b=c#d"});
    EXPECT_EQ(kExitSent, r.exitCode);
    EXPECT_EQ(Action::OpenUrl, r.options.action);
    EXPECT_TRUE(r.options.fallback);
    EXPECT_EQ(L"https://example.test/a?b=c#d", r.options.url);

    r = ParseCommandLine({L"--no-fallback", L"--timeout", L"250", L"mailto:someone@example.test"});
    EXPECT_EQ(kExitSent, r.exitCode);
    EXPECT_FALSE(r.options.fallback);
    EXPECT_EQ(250u, r.options.timeoutMs);

    // A page file, as the .htm/.html associations pass it; other paths stay refused (below).
    EXPECT_EQ(L"file:///C:/Users/A%20B/p%23%3F%25.HTML",
              ParseCommandLine({L"C:\\Users\\A B\\p#?%.HTML"}).options.url);
    EXPECT_EQ(L"file://srv/share/x.htm", ParseCommandLine({L"\\\\srv\\share\\x.htm"}).options.url);
    EXPECT_EQ(kExitBadUrl, ParseCommandLine({L"\\\\?\\C:\\x.htm"}).exitCode);

    EXPECT_EQ(Action::Register, ParseCommandLine({L"--register"}).options.action);
    EXPECT_EQ(Action::Unregister, ParseCommandLine({L"--unregister"}).options.action);
    // Help wins wherever it stands, even beside options that would be refused.
    EXPECT_EQ(Action::Help, ParseCommandLine({L"--bogus", L"--help"}).options.action);
}

TEST(AgentCommandLine, RefusesBadInputWithOneLineAndItsExitCode)
{
    struct Case
    {
        std::vector<std::wstring> args;
        int code;
    };
    const std::vector<Case> cases = {
        {{}, kExitUsage},
        {{L"--no-fallback"}, kExitUsage},
        {{L"https://a.test", L"https://b.test"}, kExitUsage},
        {{L"--frobnicate", L"https://a.test"}, kExitUsage},
        {{L"--timeout"}, kExitUsage},
        {{L"--timeout", L"soon", L"https://a.test"}, kExitUsage},
        {{L"--register", L"https://a.test"}, kExitUsage},
        {{L"--register", L"--unregister"}, kExitUsage},
        {{L"hello world"}, kExitBadUrl},
        {{L"https://a.test/trailing "}, kExitBadUrl},
        {{L"https://a.test/\ttab"}, kExitBadUrl},
        {{L"example.test/page"}, kExitBadUrl},
        {{L"C:\\Windows\\notepad.exe"}, kExitBadUrl},
        {{L"https:"}, kExitBadUrl},
        {{L"1http://a.test"}, kExitBadUrl},
        {{L"https://a.test/\x0001"}, kExitBadUrl},
        {{L"https://a.test/" + std::wstring(kMaxUrlLength, L'a')}, kExitBadUrl},
    };
    for (const auto& c : cases)
    {
        const ParseResult r = ParseCommandLine(c.args);
        EXPECT_EQ(c.code, r.exitCode)
            << (c.args.empty() ? "(none)" : std::string(c.args.back().begin(), c.args.back().end()));
        EXPECT_FALSE(r.error.empty());
        EXPECT_EQ(std::wstring::npos, r.error.find(L'\n'));
    }
    // The longest URL accepted.
    const std::wstring longest = L"https://a.test/" + std::wstring(kMaxUrlLength - 15, L'a');
    EXPECT_EQ(kExitSent, ParseCommandLine({longest}).exitCode);
}

TEST(AgentCommandLine, HelpListsEveryExitCode)
{
    const std::wstring help = HelpText();
    for (int code : {0, 1, 2, 64, 65, 70})
        EXPECT_NE(std::wstring::npos,
                  help.find(L"\n" + std::wstring(code < 10 ? L"   " : L"  ") + std::to_wstring(code) + L"  "))
            << code;
    EXPECT_EQ(L"https", UrlScheme(L"HTTPS://a.test"));
}
