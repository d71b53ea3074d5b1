// The policy decision: rules in order, host patterns and their wildcard match.
#include "pipeserver/UrlPolicy.h"

#include "pipeserver/UrlHost.h"
#include "pipeserver/UrlParts.h"

#include <algorithm>

namespace urlpolicy
{

using namespace detail;

namespace
{

// Glob match; iterative with one backtrack point, so linear in practice.
bool WildcardMatch(std::string_view pattern, std::string_view text)
{
    size_t p = 0, t = 0, starP = std::string_view::npos, starT = 0;
    while (t < text.size())
    {
        if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == text[t]))
            ++p, ++t;
        else if (p < pattern.size() && pattern[p] == '*')
            starP = p++, starT = t;
        else if (starP != std::string_view::npos)
            p = starP + 1, t = ++starT;
        else
            return false;
    }
    while (p < pattern.size() && pattern[p] == '*')
        ++p;
    return p == pattern.size();
}

} // namespace

const char* RuleName(Rule rule)
{
    switch (rule)
    {
    case Rule::Allowed:
        return "allowed";
    case Rule::Disabled:
        return "redirection switched off (Enabled)";
    case Rule::TooLong:
        return "longer than MaxUrlLength";
    case Rule::ControlCharacter:
        return "control character";
    case Rule::UnpairedSurrogate:
        return "unpaired surrogate";
    case Rule::NoScheme:
        return "no scheme";
    case Rule::Scheme:
        return "scheme not in AllowedSchemes";
    case Rule::BadHost:
        return "host unreadable";
    case Rule::HostNotAllowed:
        return "host not in AllowedHosts";
    case Rule::Exception:
        return "ExceptionHosts pattern";
    }
    return "unknown";
}

std::optional<Pattern> Pattern::Compile(std::u16string_view text)
{
    text = Trim(text);
    const size_t slash = text.find(u'/');
    const std::u16string_view hostPart = text.substr(0, slash);
    if (hostPart.empty())
        return std::nullopt;
    for (char16_t c : hostPart)
        if (c < 0x20 || c == 0x7F || c == u'%' || c == u'@' || c == u'\\' ||
            (c == u':' && hostPart[0] != u'['))
            return std::nullopt;
    const auto host = CanonicalHostImpl(hostPart, false, true);
    if (!host)
        return std::nullopt;
    Pattern pattern;
    pattern.m_strHost = *host;
    pattern.m_strText = *host;
    if (slash != std::u16string_view::npos)
    {
        for (char16_t c : text.substr(slash))
            if (c < 0x20 || c == 0x7F || c == u'#')
                return std::nullopt;
        pattern.m_bUsesPath = true;
        pattern.m_strPath = CanonicalPath(text.substr(slash));
        pattern.m_strText += pattern.m_strPath;
    }
    const size_t first = pattern.m_strHost.find_first_of("*?");
    pattern.m_bLiteral = first == std::string::npos;
    if (!pattern.m_bLiteral)
    {
        pattern.m_strPrefix = pattern.m_strHost.substr(0, first);
        pattern.m_strSuffix = pattern.m_strHost.substr(pattern.m_strHost.find_last_of("*?") + 1);
    }
    return pattern;
}

bool Pattern::Matches(std::string_view host, std::string_view path) const
{
    if (m_bLiteral)
    {
        if (host != m_strHost)
            return false;
    }
    else if (host.size() < m_strPrefix.size() + m_strSuffix.size() || !host.starts_with(m_strPrefix) ||
             !host.ends_with(m_strSuffix) || !WildcardMatch(m_strHost, host))
        return false;
    return !m_bUsesPath || WildcardMatch(m_strPath, path);
}

Verdict Evaluate(const Policy& policy, std::u16string_view url)
{
    Verdict verdict;
    const auto refuse = [&](Rule rule)
    {
        verdict.rule = rule;
        return verdict;
    };
    if (!policy.enabled)
        return refuse(Rule::Disabled);
    url = Trim(url);
    if (url.size() > policy.maxUrlLength)
        return refuse(Rule::TooLong);
    for (size_t i = 0; i < url.size(); ++i)
    {
        const char16_t c = url[i];
        if (c < 0x20 || c == 0x7F)
            return refuse(Rule::ControlCharacter);
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < url.size() && url[i + 1] >= 0xDC00 && url[i + 1] <= 0xDFFF)
            ++i;
        else if (c >= 0xD800 && c <= 0xDFFF)
            return refuse(Rule::UnpairedSurrogate);
    }
    const size_t colon = url.find(u':');
    const auto scheme = colon == std::u16string_view::npos ? std::nullopt : SchemeText(url.substr(0, colon));
    if (!scheme)
        return refuse(Rule::NoScheme);
    verdict.scheme = *scheme;
    const UrlParts parts = Split(url, colon, verdict.scheme);
    std::optional<std::string> host;
    if (parts.hasAuthority && !parts.ambiguous)
        host = CanonicalHost(parts.host, verdict.scheme == "file");
    if (host)
        verdict.host = *host;
    if (std::find(policy.schemes.begin(), policy.schemes.end(), verdict.scheme) == policy.schemes.end())
        return refuse(Rule::Scheme);
    // Host rules judge URLs with an authority; others (mailto:, news:) go by their scheme alone.
    const bool hostRules = !policy.allowedHosts.empty() || !policy.exceptionHosts.empty();
    if (!hostRules || !parts.hasAuthority)
        return verdict;
    if (!host)
        return refuse(Rule::BadHost);
    std::string path;
    const auto usesPath = [](const Pattern& p) { return p.UsesPath(); };
    if (std::any_of(policy.allowedHosts.begin(), policy.allowedHosts.end(), usesPath) ||
        std::any_of(policy.exceptionHosts.begin(), policy.exceptionHosts.end(), usesPath))
        path = CanonicalPath(parts.path);
    for (const Pattern& pattern : policy.exceptionHosts)
    {
        if (pattern.Matches(*host, path))
        {
            verdict.pattern = pattern.Text();
            return refuse(Rule::Exception);
        }
    }
    if (policy.allowedHosts.empty())
        return verdict;
    for (const Pattern& pattern : policy.allowedHosts)
        if (pattern.Matches(*host, path))
            return verdict;
    return refuse(Rule::HostNotAllowed);
}

} // namespace urlpolicy
