#include "rdpclient/UrlGate.h"

#include <algorithm>
#include <cstdint>

namespace RdpClient
{

namespace
{

bool IsAsciiLetter(char c) noexcept
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

std::string Lower(std::string_view text)
{
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return out;
}

// The scheme as written in a log line: only scheme characters can be in it, but it is cut short
// so that a hostile host cannot fill the client's log through it.
std::string Printable(std::string_view scheme)
{
    constexpr size_t kShown = 32;
    return scheme.size() <= kShown ? std::string(scheme) : std::string(scheme.substr(0, kShown)) + "...";
}

} // namespace

bool IsSchemeName(std::string_view text) noexcept
{
    if (text.empty() || !IsAsciiLetter(text[0]))
        return false;
    return std::all_of(text.begin() + 1, text.end(),
                       [](char c) {
                           return IsAsciiLetter(c) || (c >= '0' && c <= '9') || c == '+' || c == '-' ||
                                  c == '.';
                       });
}

bool IsWellFormedUtf8(std::string_view text) noexcept
{
    size_t i = 0;
    while (i < text.size())
    {
        const auto lead = static_cast<uint8_t>(text[i]);
        if (lead < 0x80)
        {
            ++i;
            continue;
        }
        size_t length = 0;
        uint32_t point = 0;
        if ((lead & 0xE0) == 0xC0)
        {
            length = 2;
            point = lead & 0x1F;
        }
        else if ((lead & 0xF0) == 0xE0)
        {
            length = 3;
            point = lead & 0x0F;
        }
        else if ((lead & 0xF8) == 0xF0)
        {
            length = 4;
            point = lead & 0x07;
        }
        else
            return false;
        if (text.size() - i < length)
            return false;
        for (size_t k = 1; k < length; ++k)
        {
            const auto next = static_cast<uint8_t>(text[i + k]);
            if ((next & 0xC0) != 0x80)
                return false;
            point = (point << 6) | (next & 0x3F);
        }
        constexpr uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
        if (point < kLeast[length] || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF))
            return false;
        i += length;
    }
    return true;
}

UrlGate::UrlGate(std::vector<std::string> schemes)
{
    for (const auto& scheme : schemes)
        m_schemes.push_back(Lower(scheme));
}

UrlVerdict UrlGate::Check(std::string_view url) const
{
    UrlVerdict verdict;
    const size_t colon = url.find(':');
    if (colon != std::string_view::npos && IsSchemeName(url.substr(0, colon)))
        verdict.scheme = Lower(url.substr(0, colon));

    if (url.empty())
        verdict.reason = "the URL is empty";
    else if (url.size() > kMaxUrlBytes)
        verdict.reason = "the URL is longer than " + std::to_string(kMaxUrlBytes) + " bytes";
    else if (verdict.scheme.empty())
        verdict.reason = "the URL has no scheme";
    else if (std::find(m_schemes.begin(), m_schemes.end(), verdict.scheme) == m_schemes.end())
        verdict.reason = "the scheme \"" + Printable(verdict.scheme) + "\" is not allowed";
    // A URL never holds control characters; refusing them keeps the opener's argument one line
    // of text whatever program receives it.
    else if (std::any_of(url.begin(), url.end(),
                         [](char c) { return static_cast<uint8_t>(c) < 0x20 || c == 0x7F; }))
        verdict.reason = "the URL holds control characters";
    else if (!IsWellFormedUtf8(url))
        verdict.reason = "the URL is not well-formed UTF-8";
    else
        verdict.allowed = true;
    return verdict;
}

} // namespace RdpClient
