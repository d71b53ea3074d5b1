#pragma once
// The URL policy: which URLs from an agent may cross to the client side. One pure engine shared
// by the service, which enforces it, and the reference agent, which checks before it connects.
// Free of Windows headers: tested and fuzzed on the build host.
//
// A URL is judged on its text after trimming surrounding blanks. Hosts are compared in one
// canonical form (see CanonicalHost), so that every way of writing the same host meets the
// same patterns.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace urlpolicy
{

constexpr uint32_t kDefaultMaxUrlLength = 32768; // UTF-16 code units
// An open-URL payload holds at most 1 MiB, so no longer URL can arrive.
constexpr uint32_t kLargestMaxUrlLength = 1u << 19;

// Why a URL was refused, or Allowed.
enum class Rule
{
    Allowed,
    Disabled,          // the administrator switched the redirection off
    TooLong,           // longer than the policy's maximum
    ControlCharacter,  // a character below U+0020, or U+007F
    UnpairedSurrogate, // not valid UTF-16
    NoScheme,          // no "scheme:" at the start
    Scheme,            // the scheme is not on the allowed list
    BadHost,           // host rules apply and the host cannot be read unambiguously
    HostNotAllowed,    // host rules apply and no allowed pattern matches
    Exception,         // an exception pattern matches
};
const char* RuleName(Rule rule);

// A host pattern: `*` stands for any run of characters (dots included), `?` for one character.
// "host" matches the canonical host; "host/path" also matches the URL's canonical path.
class Pattern
{
public:
    // None when the text is no usable pattern.
    static std::optional<Pattern> Compile(std::u16string_view text);
    bool UsesPath() const { return m_bUsesPath; }
    bool Matches(std::string_view host, std::string_view path) const;
    // The pattern in its canonical form, for logs.
    const std::string& Text() const { return m_strText; }

private:
    std::string m_strText;
    std::string m_strHost;
    std::string m_strPath;
    bool m_bUsesPath = false;
    // Quick refusals before the wildcard match: the literal text before the first wildcard and
    // after the last one.
    std::string m_strPrefix;
    std::string m_strSuffix;
    bool m_bLiteral = false;
};

struct Policy
{
    bool enabled = true;
    std::vector<std::string> schemes{"http", "https", "mailto"}; // lower case
    std::vector<Pattern> allowedHosts;                           // empty: any host
    std::vector<Pattern> exceptionHosts;
    uint32_t maxUrlLength = kDefaultMaxUrlLength;
};

struct Verdict
{
    Rule rule = Rule::Allowed;
    std::string scheme;  // lower case; empty when there is none
    std::string host;    // canonical; empty when the URL has none or it cannot be read
    std::string pattern; // the exception pattern that refused it
    bool Allowed() const { return rule == Rule::Allowed; }
};

// Blanks (U+0020 and tabs) removed from both ends.
std::u16string_view Trim(std::u16string_view url);
Verdict Evaluate(const Policy& policy, std::u16string_view url);

// A scheme as an administrator writes it ("HTTPS", "ms-settings:"), in lower case without the
// colon; none when it is not a scheme.
std::optional<std::string> ParseScheme(std::u16string_view text);

// The canonical form of a host as it appears in a URL (userinfo and port already removed):
// percent-escapes decoded, ASCII in lower case, one trailing dot removed, IPv4 numbers in
// dotted decimal, IPv6 in its shortest form in brackets, and labels with other characters in
// their "xn--" form. None when the host is malformed or holds characters whose mapping by a
// browser this code does not reproduce exactly.
std::optional<std::string> CanonicalHost(std::u16string_view host, bool fileScheme = false);
// The canonical form of a path: backslashes as slashes, unreserved characters decoded, other
// non-ASCII characters as %XX, dot segments resolved, ASCII in lower case.
std::string CanonicalPath(std::u16string_view path);

} // namespace urlpolicy
