// Host canonicalisation: percent-escapes, the mappings browsers apply, Punycode, and IPv4 and
// IPv6 numbers in their one written form.
#include "pipeserver/UrlHost.h"

#include "pipeserver/UrlPolicy.h"
#include "pipeserver/UrlText.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

namespace urlpolicy
{

using namespace detail;

namespace
{

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
        else if ((wildcards && label.find_first_of(U"*?") != std::u32string::npos) ||
                 !Punycode(label, encoded))
            return std::nullopt;
        else
            encoded.insert(0, "xn--");
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

} // namespace

namespace detail
{

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

} // namespace detail

std::optional<std::string> CanonicalHost(std::u16string_view host, bool fileScheme)
{
    return CanonicalHostImpl(host, fileScheme, false);
}

} // namespace urlpolicy
