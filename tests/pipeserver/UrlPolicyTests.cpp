// The URL policy engine: what crosses under the default policy and under an administrator's
// patterns, and the canonical host every trick of writing one comes down to.
#include "pipeserver/UrlPolicy.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using urlpolicy::Rule;

namespace
{

std::vector<urlpolicy::Pattern> Patterns(std::initializer_list<const char16_t*> texts)
{
    std::vector<urlpolicy::Pattern> patterns;
    for (const char16_t* text : texts)
    {
        auto pattern = urlpolicy::Pattern::Compile(text);
        EXPECT_TRUE(pattern.has_value()) << std::u16string(text).size();
        if (pattern)
            patterns.push_back(*pattern);
    }
    return patterns;
}

std::string Narrow(std::u16string_view text)
{
    std::string out;
    for (char16_t c : text)
        out += c < 0x80 ? static_cast<char>(c) : '?';
    return out;
}

struct RuleCase
{
    std::u16string url;
    Rule rule;
    const char* scheme = nullptr; // checked when given
};

// Judges URLs by the policy in m_policy, the default one unless a case changes it.
class UrlPolicyTest : public ::testing::Test
{
protected:
    void Expect(std::initializer_list<RuleCase> cases) const
    {
        for (const auto& c : cases)
        {
            SCOPED_TRACE(Narrow(c.url).substr(0, 60));
            const urlpolicy::Verdict verdict = urlpolicy::Evaluate(m_policy, c.url);
            EXPECT_EQ(c.rule, verdict.rule) << urlpolicy::RuleName(verdict.rule);
            EXPECT_EQ(c.scheme ? c.scheme : verdict.scheme, verdict.scheme);
        }
    }
    urlpolicy::Policy m_policy;
};

} // namespace

TEST_F(UrlPolicyTest, DefaultPolicyAllowsWebAndMailSchemesOnly)
{
    Expect({{u"https://example.com/", Rule::Allowed, "https"},
            {u"  HtTp://Example.COM/x  ", Rule::Allowed, "http"},
            {u"MAILTO:someone@example.com", Rule::Allowed, "mailto"},
            {u"file://\\\\attacker\\share\\x.exe", Rule::Scheme, "file"},
            {u"ms-msdt:/id PCWDiagnostic", Rule::Scheme, "ms-msdt"},
            {u"JavaScript:alert(1)", Rule::Scheme, "javascript"}});
}

TEST_F(UrlPolicyTest, TextThatIsNoUrlIsRefusedByItsOwnRule)
{
    Expect({{u"example.com/path", Rule::NoScheme, ""},
            {u"://example.com", Rule::NoScheme, ""},
            {u"1http://example.com", Rule::NoScheme, ""},
            {u"ht tp://example.com", Rule::NoScheme, ""},
            {u"https://exa\tmple.com/", Rule::ControlCharacter},
            {u"https://example.com/\u007f", Rule::ControlCharacter},
            {u"https://example.com/\xD800x", Rule::UnpairedSurrogate},
            {u"https://example.com/\xDC00", Rule::UnpairedSurrogate},
            {u"https://example.com/\U0001F600", Rule::Allowed}});
}

TEST_F(UrlPolicyTest, LengthIsMeasuredAfterTrimmingAgainstThePolicysMaximum)
{
    const std::u16string longest = u"https://example.com/" + std::u16string(32768 - 20, u'a');
    Expect({{longest, Rule::Allowed},
            {longest + u"a", Rule::TooLong},
            {u"   " + longest + u"   ", Rule::Allowed}});
    m_policy.maxUrlLength = 20;
    Expect({{u"https://example.com/x", Rule::TooLong}});
}

TEST_F(UrlPolicyTest, SwitchedOffRefusesEvenAnAllowedUrl)
{
    m_policy.enabled = false;
    Expect({{u"https://example.com/", Rule::Disabled}});
}

// Every host is allowed, so that the verdict shows only whether the host could be read.
class UrlHost : public UrlPolicyTest
{
protected:
    void ExpectHosts(std::initializer_list<std::pair<std::u16string, const char*>> cases) const
    {
        for (const auto& [url, host] : cases)
        {
            SCOPED_TRACE(Narrow(url));
            const urlpolicy::Verdict verdict = urlpolicy::Evaluate(m_policy, url);
            EXPECT_EQ(host, verdict.host);
            const bool unreadable = std::string(host).empty() && url.rfind(u"file:", 0) != 0;
            EXPECT_EQ(unreadable ? Rule::BadHost : Rule::Allowed, verdict.rule)
                << urlpolicy::RuleName(verdict.rule);
        }
    }
    UrlHost()
    {
        m_policy.schemes = {"http", "https", "file", "ssh", "custom"};
        m_policy.allowedHosts = Patterns({u"*"});
    }
};

TEST_F(UrlHost, UserinfoPortsAndSlashTricksComeToTheRealHost)
{
    ExpectHosts({{u"http://allowed.example@evil.example/", "evil.example"},
                 {u"http://allowed.example:pw@evil.example:8080/", "evil.example"},
                 {u"http://a@b@evil.example/", "evil.example"},
                 {u"https://evil.example\\@allowed.example/", "evil.example"},
                 {u"http:evil.example", "evil.example"},
                 {u"https:///evil.example/", "evil.example"},
                 {u"ssh://User@Host.Example:22", "host.example"}});
}

TEST_F(UrlHost, EscapesCapitalsAndWideFormsComeToAscii)
{
    ExpectHosts({{u"https://EVIL.Example./", "evil.example"},
                 {u"https://%65vil.ex%41mple/", "evil.example"},
                 {u"https://evil%2Eexample/", "evil.example"},
                 {u"https://\uFF45\uFF56\uFF49\uFF4C\uFF0E\uFF45\uFF58\uFF41\uFF4D\uFF50\uFF4C\uFF45/",
                  "evil.example"},
                 {u"https://evil\u3002example/", "evil.example"}});
}

TEST_F(UrlHost, InternationalNamesComeToPunycode)
{
    ExpectHosts({{u"https://b\u00FCcher.example/", "xn--bcher-kva.example"},
                 {u"https://B\u00DCCHER.example/", "xn--bcher-kva.example"},
                 {u"https://b%C3%BCcher.example/", "xn--bcher-kva.example"},
                 {u"https://\u4F8B\u3048.jp/", "xn--r8jz45g.jp"},
                 {u"https://\u043F\u0440\u0438\u043C\u0435\u0440.\u0440\u0444/", "xn--e1afmkfd.xn--p1ai"}});
}

TEST_F(UrlHost, AddressesComeToDottedDecimalOrShortestIpv6)
{
    ExpectHosts({{u"http://2130706433/", "127.0.0.1"},
                 {u"http://0x7f.1/", "127.0.0.1"},
                 {u"http://0177.0.0.01/", "127.0.0.1"},
                 {u"http://[0:0:0:0:0:0:0:1]:80/", "[::1]"},
                 {u"http://[2001:DB8:0:0:1:0:0:1]/", "[2001:db8::1:0:0:1]"},
                 {u"http://[::ffff:192.168.0.1]/", "[::ffff:c0a8:1]"}});
}

TEST_F(UrlHost, FileUrlsHaveAHostOnlyWhenOneIsNamed)
{
    ExpectHosts({{u"file:///C:/Windows/x.exe", ""}, {u"file://server/share/x", "server"}});
}

TEST_F(UrlHost, WhatABrowserWouldReadOtherwiseIsBadHost)
{
    ExpectHosts({{u"https://\u212Aelvin.example/", ""}, // the Kelvin sign becomes "k"
                 {u"https://e\u0301vil.example/", ""},  // a combining accent composes
                 {u"https://\u2460.example/", ""},      // a circled digit becomes "1"
                 {u"https://%zz.example/", ""},
                 {u"https://%C3.example/", ""},
                 {u"https://evil..example/", ""},
                 {u"https://evil.example:99999/", ""},
                 {u"https://evil.example:8o/", ""},
                 {u"http://256.1.1.1/", ""},
                 {u"http://[::1/", ""},
                 {u"http://[1::2::3]/", ""},
                 {u"https:///", ""},
                 {u"custom://a.example\\@evil.example/", ""},
                 {u"https://ev*l.example/", ""}});
    // Without host rules the host does not matter: the default policy lets odd but web URLs by.
    EXPECT_EQ(Rule::Allowed, urlpolicy::Evaluate(urlpolicy::Policy(), u"https://evil..example/").rule);
}

class UrlPatterns : public UrlPolicyTest
{
protected:
    UrlPatterns()
    {
        m_policy.schemes = {"http", "https", "mailto", "custom"};
        m_policy.allowedHosts = Patterns({u"*.Corp.Example", u"intranet?.example", u"B\u00FCcher.example",
                                          u"10.1", u"[::1]", u"docs.example/public/*", u"app.example"});
        m_policy.exceptionHosts = Patterns({u"secret.corp.example", u"*.corp.example/admin*",
                                            u"app.example/private/*", u"app.example/%53ecret*"});
    }
};

TEST_F(UrlPatterns, WildcardsStandForWholeRunsOfTheCanonicalHost)
{
    Expect({{u"https://www.corp.example/a", Rule::Allowed},
            {u"https://a.b.corp.example/a", Rule::Allowed},
            {u"https://corp.example/", Rule::HostNotAllowed},
            {u"https://www.corp.example.evil.example/", Rule::HostNotAllowed},
            {u"https://intranet1.example/", Rule::Allowed},
            {u"https://intranet12.example/", Rule::HostNotAllowed},
            {u"https://xn--bcher-kva.example/", Rule::Allowed},
            {u"http://10.0.0.1:8080/", Rule::Allowed},
            {u"http://[0::1]/", Rule::Allowed}});
}

TEST_F(UrlPatterns, PathPatternsMatchTheResolvedPathOnly)
{
    Expect({{u"https://docs.example/public/a.pdf", Rule::Allowed},
            {u"https://docs.example/public/../private/a.pdf", Rule::HostNotAllowed},
            {u"https://docs.example/", Rule::HostNotAllowed},
            {u"https://app.example/public?/private/", Rule::Allowed}});
}

TEST_F(UrlPatterns, ExceptionsWinHoweverTheUrlIsWritten)
{
    Expect({
        {u"https://se%63ret.corp.example/", Rule::Exception},
        {u"https://www.corp.example/ADMIN/users", Rule::Exception},
        {u"https://www.corp.example/x/..\\admin", Rule::Exception},
        {u"https://www.corp.example/%61dmin", Rule::Exception},
        {u"https://app.example/private/x?y", Rule::Exception},
        {u"https://app.example/secret/x", Rule::Exception}, // an escaped capital in the pattern
    });
    EXPECT_EQ("secret.corp.example", urlpolicy::Evaluate(m_policy, u"https://secret.corp.example/").pattern);
}

TEST_F(UrlPatterns, OnlyUrlsWithAnAuthorityAreJudgedByTheirHost)
{
    Expect({{u"mailto:someone@evil.example", Rule::Allowed},
            {u"custom:opaque", Rule::Allowed},
            {u"custom://evil.example/", Rule::HostNotAllowed},
            {u"https://\u212Aelvin.corp.example/", Rule::BadHost}});
}

TEST(UrlPolicy, AdministratorTextIsReadOrRefused)
{
    EXPECT_EQ("ms-settings", urlpolicy::ParseScheme(u" MS-Settings: "));
    EXPECT_EQ("https", urlpolicy::ParseScheme(u"HTTPS"));
    for (const char16_t* bad : {u"", u":", u"1abc", u"ht tp", u"http/", u"*"})
        EXPECT_FALSE(urlpolicy::ParseScheme(bad).has_value()) << Narrow(bad);

    const struct
    {
        const char16_t* text;
        const char* canonical; // nullptr: unusable
    } patterns[] = {
        {u" *.Example.COM. ", "*.example.com"},
        {u"M\u00DCNCHEN.example", "xn--mnchen-3ya.example"},
        {u"host.example/Path/../x*", "host.example/x*"},
        {u"[0:0::1]", "[::1]"},
        {u"", nullptr},
        {u"/path", nullptr},
        {u"a..example", nullptr},
        {u"user@host.example", nullptr},
        {u"host.example:80", nullptr},
        {u"b\u00FC*.example", nullptr},
        {u"%41.example", nullptr},
        {u"\u2460.example", nullptr},
    };
    for (const auto& p : patterns)
    {
        SCOPED_TRACE(Narrow(p.text));
        const auto pattern = urlpolicy::Pattern::Compile(p.text);
        ASSERT_EQ(p.canonical != nullptr, pattern.has_value());
        if (pattern)
        {
            EXPECT_EQ(p.canonical, pattern->Text());
        }
    }
}
