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

} // namespace

TEST(UrlPolicy, DefaultPolicyAllowsWebAndMailOnlyAndRefusesMalformedText)
{
    const urlpolicy::Policy policy;
    const struct
    {
        std::u16string url;
        Rule rule;
        const char* scheme;
    } cases[] = {
        {u"https://example.com/", Rule::Allowed, "https"},
        {u"  HtTp://Example.COM/x  ", Rule::Allowed, "http"},
        {u"MAILTO:someone@example.com", Rule::Allowed, "mailto"},
        {u"file://\\\\attacker\\share\\x.exe", Rule::Scheme, "file"},
        {u"ms-msdt:/id PCWDiagnostic", Rule::Scheme, "ms-msdt"},
        {u"JavaScript:alert(1)", Rule::Scheme, "javascript"},
        {u"search-ms:query=x", Rule::Scheme, "search-ms"},
        {u"example.com/path", Rule::NoScheme, ""},
        {u"://example.com", Rule::NoScheme, ""},
        {u"1http://example.com", Rule::NoScheme, ""},
        {u"ht tp://example.com", Rule::NoScheme, ""},
        {u"https://exa\tmple.com/", Rule::ControlCharacter, ""},
        {u"https://example.com/\u007f", Rule::ControlCharacter, ""},
        {u"https://example.com/\n", Rule::ControlCharacter, ""},
        {u"https://example.com/\xD800x", Rule::UnpairedSurrogate, ""},
        {u"https://example.com/\xDC00", Rule::UnpairedSurrogate, ""},
        {u"https://example.com/\U0001F600", Rule::Allowed, "https"},
        {u"https://example.com/" + std::u16string(32768 - 20, u'a'), Rule::Allowed, "https"},
        {u"https://example.com/" + std::u16string(32768 - 19, u'a'), Rule::TooLong, ""},
        {u"   https://example.com/" + std::u16string(32768 - 20, u'a') + u"   ", Rule::Allowed, "https"},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(Narrow(c.url).substr(0, 60));
        const urlpolicy::Verdict verdict = urlpolicy::Evaluate(policy, c.url);
        EXPECT_EQ(c.rule, verdict.rule) << urlpolicy::RuleName(verdict.rule);
        EXPECT_EQ(c.scheme, verdict.scheme);
    }
    urlpolicy::Policy off;
    off.enabled = false;
    EXPECT_EQ(Rule::Disabled, urlpolicy::Evaluate(off, u"https://example.com/").rule);
    urlpolicy::Policy shorter;
    shorter.maxUrlLength = 20;
    EXPECT_EQ(Rule::TooLong, urlpolicy::Evaluate(shorter, u"https://example.com/x").rule);
}

TEST(UrlPolicy, EveryWayOfWritingAHostComesToOneCanonicalForm)
{
    const struct
    {
        std::u16string url;
        const char* host; // "" with BadHost: unreadable
    } cases[] = {
        {u"http://allowed.example@evil.example/", "evil.example"},
        {u"http://allowed.example:pw@evil.example:8080/", "evil.example"},
        {u"http://a@b@evil.example/", "evil.example"},
        {u"https://evil.example\\@allowed.example/", "evil.example"},
        {u"http:\\\\evil.example\\x", "evil.example"},
        {u"http:evil.example", "evil.example"},
        {u"https:///evil.example/", "evil.example"},
        {u"https://EVIL.Example./", "evil.example"},
        {u"https://evil.example:443/", "evil.example"},
        {u"https://%65vil.ex%41mple/", "evil.example"},
        {u"https://evil%2Eexample/", "evil.example"},
        {u"https://\uFF45\uFF56\uFF49\uFF4C\uFF0E\uFF45\uFF58\uFF41\uFF4D\uFF50\uFF4C\uFF45/",
         "evil.example"},
        {u"https://evil\u3002example/", "evil.example"},
        {u"https://b\u00FCcher.example/", "xn--bcher-kva.example"},
        {u"https://B\u00DCCHER.example/", "xn--bcher-kva.example"},
        {u"https://b%C3%BCcher.example/", "xn--bcher-kva.example"},
        {u"https://\u4F8B\u3048.jp/", "xn--r8jz45g.jp"},
        {u"https://\u043F\u0440\u0438\u043C\u0435\u0440.\u0440\u0444/", "xn--e1afmkfd.xn--p1ai"},
        {u"http://2130706433/", "127.0.0.1"},
        {u"http://0x7f.1/", "127.0.0.1"},
        {u"http://0177.0.0.01/", "127.0.0.1"},
        {u"http://[0:0:0:0:0:0:0:1]:80/", "[::1]"},
        {u"http://[2001:DB8:0:0:1:0:0:1]/", "[2001:db8::1:0:0:1]"},
        {u"http://[::ffff:192.168.0.1]/", "[::ffff:c0a8:1]"},
        {u"file:///C:/Windows/x.exe", ""},
        {u"file://server/share/x", "server"},
        {u"ssh://User@Host.Example:22", "host.example"},
        // Unreadable: what a browser would map further, or a malformed authority.
        {u"https://\u212Aelvin.example/", ""}, // the Kelvin sign becomes "k"
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
        {u"https://ev*l.example/", ""},
    };
    urlpolicy::Policy policy;
    policy.schemes = {"http", "https", "file", "ssh", "custom"};
    policy.allowedHosts = Patterns({u"*"});
    for (const auto& c : cases)
    {
        SCOPED_TRACE(Narrow(c.url));
        const urlpolicy::Verdict verdict = urlpolicy::Evaluate(policy, c.url);
        EXPECT_EQ(c.host, verdict.host);
        const bool unreadable = std::string(c.host).empty() && c.url.rfind(u"file:", 0) != 0;
        EXPECT_EQ(unreadable ? Rule::BadHost : Rule::Allowed, verdict.rule)
            << urlpolicy::RuleName(verdict.rule);
    }
    // Without host rules the host does not matter: the default policy lets odd but web URLs by.
    EXPECT_EQ(Rule::Allowed, urlpolicy::Evaluate(urlpolicy::Policy(), u"https://evil..example/").rule);
}

TEST(UrlPolicy, HostPatternsWithWildcardsAndExceptionsOverAllows)
{
    urlpolicy::Policy policy;
    policy.schemes = {"http", "https", "mailto", "custom"};
    policy.allowedHosts = Patterns({u"*.Corp.Example", u"intranet?.example", u"B\u00FCcher.example", u"10.1",
                                    u"[::1]", u"docs.example/public/*", u"app.example"});
    policy.exceptionHosts =
        Patterns({u"secret.corp.example", u"*.corp.example/admin*", u"app.example/private/*", u"app.example/%53ecret*"});
    const struct
    {
        std::u16string url;
        Rule rule;
    } cases[] = {
        {u"https://www.corp.example/a", Rule::Allowed},
        {u"https://a.b.corp.example/a", Rule::Allowed},
        {u"https://corp.example/", Rule::HostNotAllowed},
        {u"https://www.corp.example.evil.example/", Rule::HostNotAllowed},
        {u"https://www.corp.example@evil.example/", Rule::HostNotAllowed},
        {u"https://intranet1.example/", Rule::Allowed},
        {u"https://intranet12.example/", Rule::HostNotAllowed},
        {u"https://xn--bcher-kva.example/", Rule::Allowed},
        {u"http://10.0.0.1:8080/", Rule::Allowed},
        {u"http://[0::1]/", Rule::Allowed},
        {u"https://docs.example/public/a.pdf", Rule::Allowed},
        {u"https://docs.example/public/../private/a.pdf", Rule::HostNotAllowed},
        {u"https://docs.example/%70ublic/a.pdf", Rule::Allowed},
        {u"https://docs.example/", Rule::HostNotAllowed},
        {u"https://SECRET.corp.example./", Rule::Exception},
        {u"https://secret.corp.example%2e/", Rule::Exception},
        {u"https://www.corp.example/ADMIN/users", Rule::Exception},
        {u"https://www.corp.example/x/..\\admin", Rule::Exception},
        {u"https://www.corp.example/%61dmin", Rule::Exception},
        {u"https://app.example/private/x?y", Rule::Exception},
        {u"https://app.example/./private/x", Rule::Exception},
        {u"https://app.example/public?/private/", Rule::Allowed},
        {u"https://app.example/secret/x", Rule::Exception}, // an escaped capital in the pattern
        {u"https://se%63ret.corp.example/", Rule::Exception},
        {u"https://\u212Aelvin.corp.example/", Rule::BadHost},
        {u"mailto:someone@evil.example", Rule::Allowed}, // no authority: judged by its scheme
        {u"custom:opaque", Rule::Allowed},
        {u"custom://evil.example/", Rule::HostNotAllowed},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(Narrow(c.url));
        const urlpolicy::Verdict verdict = urlpolicy::Evaluate(policy, c.url);
        EXPECT_EQ(c.rule, verdict.rule) << urlpolicy::RuleName(verdict.rule);
    }
    EXPECT_EQ("secret.corp.example", urlpolicy::Evaluate(policy, u"https://secret.corp.example/").pattern);
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
