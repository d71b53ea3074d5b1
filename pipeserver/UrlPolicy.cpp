#include "pipeserver/UrlPolicy.h"

#include <algorithm>
#include <array>

namespace urlpolicy
{

namespace
{

bool IsBlank(char16_t c)
{
    return c == u' ' || c == u'\t';
}

bool IsAsciiAlpha(char32_t c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool IsDigit(char32_t c)
{
    return c >= '0' && c <= '9';
}

char ToLowerAscii(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

int HexValue(char32_t c)
{
    if (IsDigit(c))
        return static_cast<int>(c - '0');
    if (c >= 'a' && c <= 'f')
        return static_cast<int>(c - 'a' + 10);
    if (c >= 'A' && c <= 'F')
        return static_cast<int>(c - 'A' + 10);
    return -1;
}

bool IsSchemeChar(char16_t c, bool first)
{
    if (first)
        return IsAsciiAlpha(c);
    return IsAsciiAlpha(c) || IsDigit(c) || c == u'+' || c == u'-' || c == u'.';
}

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

// Browsers take these schemes' authority after any number of slashes or backslashes, and a
// backslash ends it like a slash.
bool IsSpecialScheme(std::string_view scheme)
{
    for (std::string_view special : {"http", "https", "ws", "wss", "ftp", "file"})
        if (scheme == special)
            return true;
    return false;
}

void AppendUtf8(std::string& out, char32_t c)
{
    if (c < 0x80)
        out += static_cast<char>(c);
    else if (c < 0x800)
    {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
    else if (c < 0x10000)
    {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
    else
    {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

// Strict UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
bool DecodeUtf8(const std::string& bytes, std::u32string& out)
{
    for (size_t i = 0; i < bytes.size();)
    {
        const auto b0 = static_cast<unsigned char>(bytes[i]);
        size_t extra = 0;
        char32_t c = 0;
        char32_t minimum = 0;
        if (b0 < 0x80)
            c = b0;
        else if ((b0 & 0xE0) == 0xC0)
            extra = 1, c = b0 & 0x1F, minimum = 0x80;
        else if ((b0 & 0xF0) == 0xE0)
            extra = 2, c = b0 & 0x0F, minimum = 0x800;
        else if ((b0 & 0xF8) == 0xF0)
            extra = 3, c = b0 & 0x07, minimum = 0x10000;
        else
            return false;
        if (bytes.size() - i <= extra)
            return false;
        for (size_t k = 1; k <= extra; ++k)
        {
            const auto b = static_cast<unsigned char>(bytes[i + k]);
            if ((b & 0xC0) != 0x80)
                return false;
            c = (c << 6) | (b & 0x3F);
        }
        if (c < minimum || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF))
            return false;
        out += c;
        i += extra + 1;
    }
    return true;
}

// UTF-16 (already checked for unpaired surrogates) with percent-escapes taken as UTF-8 bytes.
bool DecodeHostText(std::u16string_view text, std::u32string& out)
{
    std::string bytes;
    for (size_t i = 0; i < text.size(); ++i)
    {
        char32_t c = text[i];
        if (c == u'%')
        {
            if (i + 2 >= text.size())
                return false;
            const int high = HexValue(text[i + 1]);
            const int low = HexValue(text[i + 2]);
            if (high < 0 || low < 0)
                return false;
            bytes += static_cast<char>(high * 16 + low);
            i += 2;
            continue;
        }
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
            text[i + 1] <= 0xDFFF)
        {
            c = 0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00);
            ++i;
        }
        else if (c >= 0xD800 && c <= 0xDFFF)
            return false;
        AppendUtf8(bytes, c);
    }
    return DecodeUtf8(bytes, out);
}

// What a browser's host mapping does to characters this code lets through: full stops of other
// scripts become dots, full-width ASCII becomes ASCII, and capitals of the scripts below become
// small letters.
char32_t MapHostChar(char32_t c)
{
    if (c == 0x3002 || c == 0xFF0E || c == 0xFF61)
        return '.';
    if (c >= 0xFF01 && c <= 0xFF5E)
        c -= 0xFEE0;
    if (c >= 'A' && c <= 'Z')
        return c + 0x20;
    if ((c >= 0xC0 && c <= 0xDE && c != 0xD7) || (c >= 0x391 && c <= 0x3A9 && c != 0x3A2) ||
        (c >= 0x410 && c <= 0x42F))
        return c + 0x20;
    if (c >= 0x400 && c <= 0x40F)
        return c + 0x50;
    if (c == 0x386)
        return 0x3AC;
    if (c >= 0x388 && c <= 0x38A)
        return c + 0x25;
    if (c == 0x38C)
        return 0x3CC;
    if (c == 0x38E || c == 0x38F)
        return c + 0x3F;
    return c;
}

// Characters other than ASCII that a host may hold: small letters of a few scripts that no
// browser maps further (no compatibility forms, no combining marks, no deviation characters).
// Everything else is refused rather than guessed at.
bool IsPlainNonAscii(char32_t c)
{
    return (c >= 0xE0 && c <= 0xFF && c != 0xF7) || (c >= 0x3AC && c <= 0x3CE && c != 0x3C2) ||
           (c >= 0x430 && c <= 0x45F) || (c >= 0x5D0 && c <= 0x5EA) || (c >= 0x621 && c <= 0x63A) ||
           (c >= 0x641 && c <= 0x64A) || (c >= 0x3041 && c <= 0x3096) || (c >= 0x30A1 && c <= 0x30FA) ||
           (c >= 0x4E00 && c <= 0x9FFF) || (c >= 0xAC00 && c <= 0xD7A3);
}

bool IsHostAscii(char32_t c)
{
    return (c >= 'a' && c <= 'z') || IsDigit(c) || c == '-' || c == '_';
}

// Punycode of one label's code points, without the "xn--" prefix.
bool Punycode(const std::u32string& input, std::string& out)
{
    constexpr uint32_t base = 36, tmin = 1, tmax = 26, skew = 38, damp = 700;
    const auto digit = [](uint32_t d) { return static_cast<char>(d < 26 ? 'a' + d : '0' + (d - 26)); };
    const auto adapt = [&](uint32_t delta, uint32_t points, bool first)
    {
        delta = first ? delta / damp : delta / 2;
        delta += delta / points;
        uint32_t k = 0;
        while (delta > ((base - tmin) * tmax) / 2)
        {
            delta /= base - tmin;
            k += base;
        }
        return k + (base - tmin + 1) * delta / (delta + skew);
    };
    uint32_t n = 0x80, delta = 0, bias = 72;
    size_t handled = 0;
    for (char32_t c : input)
        if (c < 0x80)
            out += static_cast<char>(c), ++handled;
    const size_t basic = handled;
    if (basic > 0)
        out += '-';
    while (handled < input.size())
    {
        uint32_t m = 0xFFFFFFFF;
        for (char32_t c : input)
            if (c >= n && c < m)
                m = c;
        if ((m - n) > (0xFFFFFFFF - delta) / (handled + 1))
            return false;
        delta += (m - n) * static_cast<uint32_t>(handled + 1);
        n = m;
        for (char32_t c : input)
        {
            if (c < n && ++delta == 0)
                return false;
            if (c != n)
                continue;
            uint32_t q = delta;
            for (uint32_t k = base;; k += base)
            {
                const uint32_t t = k <= bias ? tmin : k >= bias + tmax ? tmax : k - bias;
                if (q < t)
                    break;
                out += digit(t + (q - t) % (base - t));
                q = (q - t) / (base - t);
            }
            out += digit(q);
            bias = adapt(delta, static_cast<uint32_t>(handled + 1), handled == basic);
            delta = 0;
            ++handled;
        }
        ++delta;
        ++n;
    }
    return true;
}

// One IPv4 part as browsers read it: 0x hex, leading-zero octal, or decimal.
std::optional<uint64_t> ParseIpv4Part(std::string_view part)
{
    if (part.empty())
        return std::nullopt;
    uint32_t radix = 10;
    if (part.size() >= 2 && part[0] == '0' && (part[1] == 'x' || part[1] == 'X'))
        radix = 16, part.remove_prefix(2);
    else if (part.size() >= 2 && part[0] == '0')
        radix = 8, part.remove_prefix(1);
    uint64_t value = 0;
    for (char c : part)
    {
        const int d = HexValue(static_cast<unsigned char>(c));
        if (d < 0 || static_cast<uint32_t>(d) >= radix)
            return std::nullopt;
        value = value * radix + static_cast<uint32_t>(d);
        if (value > 0xFFFFFFFFull)
            return std::nullopt;
    }
    return value;
}

bool EndsInNumber(std::string_view host)
{
    const size_t dot = host.rfind('.');
    const std::string_view last = dot == std::string_view::npos ? host : host.substr(dot + 1);
    if (last.empty())
        return false;
    if (std::all_of(last.begin(), last.end(), [](char c) { return IsDigit(static_cast<unsigned char>(c)); }))
        return true;
    return last.size() >= 2 && last[0] == '0' && last[1] == 'x' &&
           std::all_of(last.begin() + 2, last.end(),
                       [](char c) { return HexValue(static_cast<unsigned char>(c)) >= 0; });
}

std::optional<std::string> CanonicalIpv4(std::string_view host)
{
    std::vector<uint64_t> parts;
    for (size_t start = 0;;)
    {
        const size_t dot = host.find('.', start);
        const auto part =
            ParseIpv4Part(host.substr(start, dot == std::string_view::npos ? dot : dot - start));
        if (!part || parts.size() == 4)
            return std::nullopt;
        parts.push_back(*part);
        if (dot == std::string_view::npos)
            break;
        start = dot + 1;
    }
    uint64_t address = 0;
    for (size_t i = 0; i + 1 < parts.size(); ++i)
    {
        if (parts[i] > 255)
            return std::nullopt;
        address |= parts[i] << (8 * (3 - i));
    }
    if (parts.back() >= (1ull << (8 * (5 - parts.size()))))
        return std::nullopt;
    address |= parts.back();
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8)
        text += std::to_string((address >> shift) & 0xFF) + (shift ? "." : "");
    return text;
}

// The text between the brackets; the result with its brackets, in the shortest form.
std::optional<std::string> CanonicalIpv6(std::string_view text)
{
    std::array<uint16_t, 8> groups{};
    size_t count = 0;
    std::optional<size_t> compress;
    size_t i = 0;
    if (text.substr(0, 2) == "::")
    {
        compress = 0;
        i = 2;
    }
    else if (!text.empty() && text[0] == ':')
        return std::nullopt;
    while (i < text.size())
    {
        if (count == 8)
            return std::nullopt;
        if (text[i] == ':')
        {
            if (compress)
                return std::nullopt;
            compress = count;
            ++i;
            continue;
        }
        uint32_t value = 0;
        size_t digits = 0;
        while (i < text.size() && digits < 4 && HexValue(static_cast<unsigned char>(text[i])) >= 0)
            value = value * 16 + static_cast<uint32_t>(HexValue(static_cast<unsigned char>(text[i++]))),
            ++digits;
        if (digits == 0)
            return std::nullopt;
        if (i < text.size() && text[i] == '.')
        {
            // An IPv4 address in the last 32 bits.
            if (count > 6)
                return std::nullopt;
            const auto v4 = CanonicalIpv4(text.substr(i - digits));
            if (!v4 ||
                std::count(text.begin() + static_cast<std::ptrdiff_t>(i - digits), text.end(), '.') != 3)
                return std::nullopt;
            uint32_t address = 0;
            for (size_t start = 0; start < v4->size();)
            {
                const size_t dot = std::min(v4->find('.', start), v4->size());
                address = address * 256 + static_cast<uint32_t>(std::stoul(v4->substr(start, dot - start)));
                start = dot + 1;
            }
            groups[count++] = static_cast<uint16_t>(address >> 16);
            groups[count++] = static_cast<uint16_t>(address & 0xFFFF);
            i = text.size();
            break;
        }
        groups[count++] = static_cast<uint16_t>(value);
        if (i == text.size())
            break;
        if (text[i] != ':' || i + 1 == text.size())
            return std::nullopt;
        ++i;
    }
    if (compress)
    {
        const size_t moved = count - *compress;
        std::array<uint16_t, 8> spread{};
        std::copy_n(groups.begin(), *compress, spread.begin());
        std::copy_n(groups.begin() + static_cast<std::ptrdiff_t>(*compress), moved,
                    spread.begin() + static_cast<std::ptrdiff_t>(8 - moved));
        groups = spread;
    }
    else if (count != 8)
        return std::nullopt;
    // The longest run of two or more zero groups (the first of equal ones) becomes "::".
    size_t bestStart = 8, bestLength = 1;
    for (size_t s = 0; s < 8;)
    {
        size_t e = s;
        while (e < 8 && groups[e] == 0)
            ++e;
        if (e - s > bestLength)
            bestStart = s, bestLength = e - s;
        s = e == s ? s + 1 : e;
    }
    static const char hex[] = "0123456789abcdef";
    std::string out = "[";
    for (size_t g = 0; g < 8; ++g)
    {
        if (g == bestStart)
        {
            out += g == 0 ? "::" : ":";
            g += bestLength - 1;
            continue;
        }
        std::string group;
        for (int shift = 12; shift >= 0; shift -= 4)
            if (!group.empty() || ((groups[g] >> shift) & 0xF) || shift == 0)
                group += hex[(groups[g] >> shift) & 0xF];
        out += group;
        if (g != 7)
            out += ':';
    }
    return out + "]";
}

// Host labels from mapped code points; `wildcards` lets '*' and '?' through for patterns, whose
// labels with wildcards must be ASCII.
std::optional<std::string> CanonicalName(const std::u32string& mapped, bool wildcards)
{
    std::string out;
    size_t start = 0;
    while (start <= mapped.size())
    {
        size_t end = mapped.find(U'.', start);
        if (end == std::u32string::npos)
            end = mapped.size();
        const std::u32string label = mapped.substr(start, end - start);
        if (label.empty())
            return std::nullopt;
        bool ascii = true;
        for (char32_t c : label)
        {
            if (IsHostAscii(c) || (wildcards && (c == '*' || c == '?')))
                continue;
            if (!IsPlainNonAscii(c))
                return std::nullopt;
            ascii = false;
        }
        std::string encoded;
        if (ascii)
            for (char32_t c : label)
                encoded += static_cast<char>(c);
        else if (wildcards && label.find_first_of(U"*?") != std::u32string::npos)
            return std::nullopt;
        else if (!Punycode(label, encoded))
            return std::nullopt;
        else
            encoded = "xn--" + encoded;
        if (encoded.size() > 63)
            return std::nullopt;
        if (!out.empty())
            out += '.';
        out += encoded;
        start = end + 1;
    }
    if (out.size() > 253)
        return std::nullopt;
    return out;
}

std::optional<std::string> CanonicalHostImpl(std::u16string_view raw, bool fileScheme, bool wildcards)
{
    std::u32string decoded;
    if (!DecodeHostText(raw, decoded))
        return std::nullopt;
    if (!decoded.empty() && decoded.front() == '[')
    {
        if (decoded.size() < 2 || decoded.back() != ']')
            return std::nullopt;
        std::string inner;
        for (size_t i = 1; i + 1 < decoded.size(); ++i)
        {
            if (decoded[i] >= 0x80)
                return std::nullopt;
            inner += static_cast<char>(decoded[i]);
        }
        return CanonicalIpv6(inner);
    }
    std::u32string mapped;
    for (char32_t c : decoded)
        mapped += MapHostChar(c);
    if (!mapped.empty() && mapped.back() == '.')
        mapped.pop_back();
    if (mapped.empty())
        return fileScheme ? std::optional<std::string>(std::string()) : std::nullopt;
    auto name = CanonicalName(mapped, wildcards);
    if (!name)
        return std::nullopt;
    if (fileScheme && *name == "localhost")
        return std::string();
    if (EndsInNumber(*name))
        return wildcards && name->find_first_of("*?") != std::string::npos ? name : CanonicalIpv4(*name);
    return name;
}

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

bool IsUnreserved(int c)
{
    return IsAsciiAlpha(static_cast<char32_t>(c)) || IsDigit(static_cast<char32_t>(c)) || c == '-' ||
           c == '.' || c == '_' || c == '~';
}

struct UrlParts
{
    std::u16string_view scheme;
    bool hasAuthority = false;
    bool special = false;
    std::u16string_view host;
    std::u16string_view port;
    std::u16string_view path;
    bool ambiguous = false; // an authority that different readers could split differently
};

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

std::optional<std::string> CanonicalHost(std::u16string_view host, bool fileScheme)
{
    return CanonicalHostImpl(host, fileScheme, false);
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
    pattern.m_host = *host;
    pattern.m_text = *host;
    if (slash != std::u16string_view::npos)
    {
        for (char16_t c : text.substr(slash))
            if (c < 0x20 || c == 0x7F || c == u'#')
                return std::nullopt;
        pattern.m_usesPath = true;
        pattern.m_path = CanonicalPath(text.substr(slash));
        pattern.m_text += pattern.m_path;
    }
    const size_t first = pattern.m_host.find_first_of("*?");
    pattern.m_literal = first == std::string::npos;
    if (!pattern.m_literal)
    {
        pattern.m_prefix = pattern.m_host.substr(0, first);
        pattern.m_suffix = pattern.m_host.substr(pattern.m_host.find_last_of("*?") + 1);
    }
    return pattern;
}

bool Pattern::Matches(std::string_view host, std::string_view path) const
{
    if (m_literal)
    {
        if (host != m_host)
            return false;
    }
    else if (host.size() < m_prefix.size() + m_suffix.size() || !host.starts_with(m_prefix) ||
             !host.ends_with(m_suffix) || !WildcardMatch(m_host, host))
        return false;
    return !m_usesPath || WildcardMatch(m_path, path);
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
