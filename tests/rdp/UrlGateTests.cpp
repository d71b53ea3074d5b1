// What the client machine lets through to its opener, and how the add-in's options set it.
#include "rdpclient/ClientOptions.h"
#include "rdpclient/UrlGate.h"

#include <gtest/gtest.h>

#include <string>

namespace
{

using namespace RdpClient;

struct GateCase
{
    const char* name;
    std::string url;
    bool allowed;
    const char* reasonPart; // in the refusal's sentence
};

class UrlGateDefault : public testing::TestWithParam<GateCase>
{
};

TEST_P(UrlGateDefault, Decides)
{
    const UrlGate gate(ClientOptions{}.schemes);
    const UrlVerdict verdict = gate.Check(GetParam().url);
    EXPECT_EQ(verdict.allowed, GetParam().allowed) << verdict.reason;
    if (!GetParam().allowed)
    {
        EXPECT_NE(verdict.reason.find(GetParam().reasonPart), std::string::npos) << verdict.reason;
    }
}

const GateCase kGateCases[] = {
    {"Https", "https://example.com/a?b=c#d", true, ""},
    {"SchemeInCapitals", "HTTP://example.com/", true, ""},
    {"Mailto", "mailto:someone@example.com", true, ""},
    {"BmpAndBeyond", "https://\xe4\xbe\x8b.jp/\xf0\x9f\x98\x80", true, ""},
    {"ShellCharacters", "https://example.com/a b;$(id)`id`'\"|&<>", true, ""},
    {"File", "file:///etc/passwd", false, "\"file\" is not allowed"},
    {"Javascript", "javascript:alert(1)", false, "\"javascript\" is not allowed"},
    {"CustomScheme", "x-handler://run", false, "\"x-handler\" is not allowed"},
    {"OptionLookalike", "-oProxyCommand=touch /tmp/x", false, "no scheme"},
    {"Empty", "", false, "empty"},
    {"NoScheme", "example.com/https:", false, "no scheme"},
    {"Newline", "https://example.com/\nrm", false, "control characters"},
    {"Nul", std::string("https://a\0b", 11), false, "control characters"},
    {"InvalidUtf8", "https://example.com/\xff", false, "UTF-8"},
    {"OverlongSlash", "https://example.com/\xc0\xaf", false, "UTF-8"},
    {"Surrogate", "https://example.com/\xed\xa0\x80", false, "UTF-8"},
    {"TruncatedSequence", "https://example.com/\xf0\x9f\x98", false, "UTF-8"},
    {"TooLong", "https://example.com/" + std::string(kMaxUrlBytes, 'a'), false, "longer than"},
};
INSTANTIATE_TEST_SUITE_P(UrlGate, UrlGateDefault, testing::ValuesIn(kGateCases),
                         [](const testing::TestParamInfo<GateCase>& info)
                         { return std::string(info.param.name); });

TEST(UrlGate, AnAllowListOfItsOwnReplacesTheDefault)
{
    const UrlGate gate({"FTP", "ssh+git"});
    EXPECT_TRUE(gate.Check("ftp://example.com/").allowed);
    EXPECT_TRUE(gate.Check("ssh+git://example.com/").allowed);
    EXPECT_FALSE(gate.Check("https://example.com/").allowed);
}

TEST(ClientOptions, DefaultsAndChoicesAreTaken)
{
    ClientOptions options;
    std::string error;
    ASSERT_TRUE(ParseClientOptions({"velomar"}, options, error));
    EXPECT_EQ(options.opener, "xdg-open");
    EXPECT_EQ(options.schemes, (std::vector<std::string>{"http", "https", "mailto"}));
    ASSERT_TRUE(
        ParseClientOptions({"velomar", "opener:/usr/bin/firefox", "schemes:https:ftp"}, options, error));
    EXPECT_EQ(options.opener, "/usr/bin/firefox");
    EXPECT_EQ(options.schemes, (std::vector<std::string>{"https", "ftp"}));
}

TEST(ClientOptions, MistakesAreRefusedWithTheirReason)
{
    for (const auto& [word, reason] :
         std::vector<std::pair<std::string, std::string>>{{"scheme:https", "unknown option"},
                                                          {"verbose", "unknown option"},
                                                          {"opener:", "needs a program"},
                                                          {"schemes:", "not a scheme name"},
                                                          {"schemes:https::ftp", "not a scheme name"},
                                                          {"schemes:https;ftp", "not a scheme name"},
                                                          {"opener:/a,opener:/b", "given twice"}})
    {
        std::vector<std::string> words = {"velomar", word};
        if (const size_t comma = word.find(','); comma != std::string::npos)
            words = {"velomar", word.substr(0, comma), word.substr(comma + 1)};
        ClientOptions options;
        std::string error;
        EXPECT_FALSE(ParseClientOptions(words, options, error)) << word;
        EXPECT_NE(error.find(reason), std::string::npos) << error;
    }
}

} // namespace
