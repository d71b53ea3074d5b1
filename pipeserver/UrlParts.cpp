// Taking a URL apart, and the canonical path that path patterns are matched against.
#include "pipeserver/UrlParts.h"

#include "pipeserver/UrlPolicy.h"
#include "pipeserver/UrlText.h"

#include <algorithm>
#include <vector>

namespace urlpolicy
{

using namespace detail;

namespace
{

bool IsSchemeChar(char16_t c, bool first)
{
    if (first)
        return IsAsciiAlpha(c);
    return IsAsciiAlpha(c) || IsDigit(c) || c == u'+' || c == u'-' || c == u'.';
}

// Browsers take these schemes' authority after any number of slashes or backslashes, and a
// backslash ends it like a slash.
bool IsSpecialScheme(std::string_view scheme)
{
    for (std::string_view special : {"http", "https", "ws", "wss", "ftp", "file"})
        if (scheme == special)
            return true;
    return false;
}

bool IsUnreserved(int c)
{
    return IsAsciiAlpha(static_cast<char32_t>(c)) || IsDigit(static_cast<char32_t>(c)) || c == '-' ||
           c == '.' || c == '_' || c == '~';
}

} // namespace

namespace detail
{

std::optional<std::string> SchemeText(std::u16string_view text)
{
    if (text.empty())
        return std::nullopt;
    std::string scheme;
    for (size_t i = 0; i < text.size(); ++i)
    {
        if (!IsSchemeChar(text[i], i == 0))
            return std::nullopt;
        scheme += ToLowerAscii(static_cast<char>(text[i]));
    }
    return scheme;
}

UrlParts Split(std::u16string_view url, size_t colon, std::string_view scheme)
{
    UrlParts parts;
    parts.scheme = url.substr(0, colon);
    parts.special = IsSpecialScheme(scheme);
    std::u16string_view rest = url.substr(colon + 1);
    const auto isSlash = [&](char16_t c) { return c == u'/' || (parts.special && c == u'\\'); };
    if (parts.special)
    {
        while (!rest.empty() && isSlash(rest.front()))
            rest.remove_prefix(1);
        parts.hasAuthority = true;
    }
    else if (rest.substr(0, 2) == u"//")
    {
        rest.remove_prefix(2);
        parts.hasAuthority = true;
    }
    else
        return parts;
    size_t end = 0;
    while (end < rest.size() && !isSlash(rest[end]) && rest[end] != u'?' && rest[end] != u'#')
        ++end;
    std::u16string_view authority = rest.substr(0, end);
    const size_t pathEnd = rest.find_first_of(u"?#", end);
    parts.path = rest.substr(end, pathEnd == std::u16string_view::npos ? pathEnd : pathEnd - end);
    if (authority.find(u'\\') != std::u16string_view::npos)
        parts.ambiguous = true;
    if (const size_t at = authority.rfind(u'@'); at != std::u16string_view::npos)
        authority.remove_prefix(at + 1);
    size_t hostEnd = 0;
    if (!authority.empty() && authority.front() == u'[')
    {
        hostEnd = authority.find(u']');
        hostEnd = hostEnd == std::u16string_view::npos ? authority.size() : hostEnd + 1;
    }
    else
        hostEnd = std::min(authority.find(u':'), authority.size());
    parts.host = authority.substr(0, hostEnd);
    if (hostEnd < authority.size())
    {
        if (authority[hostEnd] != u':')
            parts.ambiguous = true;
        parts.port = authority.substr(hostEnd + 1);
        uint32_t port = 0;
        for (char16_t c : parts.port)
            port = IsDigit(c) && port <= 65535 ? port * 10 + (c - u'0') : 0x10000;
        if (port > 65535)
            parts.ambiguous = true;
    }
    // A drive letter in a file URL ("file:///C:/x", "file://C|/x") starts its path: no host.
    if (scheme == "file" && authority.size() == 2 && IsAsciiAlpha(authority[0]) &&
        (authority[1] == u':' || authority[1] == u'|'))
    {
        parts.host = {};
        parts.port = {};
        parts.ambiguous = false;
    }
    return parts;
}

} // namespace detail

std::u16string_view Trim(std::u16string_view url)
{
    while (!url.empty() && IsBlank(url.front()))
        url.remove_prefix(1);
    while (!url.empty() && IsBlank(url.back()))
        url.remove_suffix(1);
    return url;
}

std::optional<std::string> ParseScheme(std::u16string_view text)
{
    text = Trim(text);
    if (!text.empty() && text.back() == u':')
        text.remove_suffix(1);
    return SchemeText(text);
}

std::string CanonicalPath(std::u16string_view path)
{
    // Decoded to UTF-8 bytes first: an escape of an unreserved character is that character.
    std::string bytes;
    for (size_t i = 0; i < path.size(); ++i)
    {
        char32_t c = path[i];
        if (c == u'%' && i + 2 < path.size() && HexValue(path[i + 1]) >= 0 && HexValue(path[i + 2]) >= 0)
        {
            const int value = HexValue(path[i + 1]) * 16 + HexValue(path[i + 2]);
            i += 2;
            if (IsUnreserved(value))
                bytes += ToLowerAscii(static_cast<char>(value)); // paths compare without ASCII case
            else
            {
                static const char hex[] = "0123456789abcdef";
                bytes += '%';
                bytes += hex[value >> 4];
                bytes += hex[value & 0xF];
            }
            continue;
        }
        // A lone '%' is written as an escape of itself, so that the result reads the same when
        // it is canonicalised again ("%%32e" must not turn into a dot later).
        if (c == u'%')
        {
            bytes += "%25";
            continue;
        }
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < path.size() && path[i + 1] >= 0xDC00 &&
            path[i + 1] <= 0xDFFF)
            c = 0x10000 + ((c - 0xD800) << 10) + (path[++i] - 0xDC00);
        if (c == u'\\')
            c = u'/';
        if (c < 0x80)
            bytes += ToLowerAscii(static_cast<char>(c));
        else
        {
            std::string utf8;
            AppendUtf8(utf8, c);
            static const char hex[] = "0123456789abcdef";
            for (unsigned char b : utf8)
            {
                bytes += '%';
                bytes += hex[b >> 4];
                bytes += hex[b & 0xF];
            }
        }
    }
    // Dot segments resolved as a browser does before it sends the request.
    std::vector<std::string_view> segments;
    std::string_view rest(bytes);
    if (!rest.empty() && rest.front() == '/')
        rest.remove_prefix(1);
    bool trailingSlash = false;
    for (;;)
    {
        const size_t slash = rest.find('/');
        const std::string_view segment = rest.substr(0, slash);
        const bool last = slash == std::string_view::npos;
        if (segment == "..")
        {
            if (!segments.empty())
                segments.pop_back();
            trailingSlash = true;
        }
        else if (segment == ".")
            trailingSlash = true;
        else
        {
            segments.push_back(segment);
            trailingSlash = false;
        }
        if (last)
            break;
        rest.remove_prefix(slash + 1);
    }
    std::string out;
    for (const auto& segment : segments)
        out.append("/").append(segment);
    if (out.empty() || trailingSlash)
        out += '/';
    return out;
}

} // namespace urlpolicy
