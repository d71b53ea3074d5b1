#pragma once
// The client machine's own say on each URL the host sends: only schemes on the allow-list, and
// only text that can be handed to the opener as one plain argument. A compromised host must not
// get the client to run file:, custom-scheme handlers or anything else it names.
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace RdpClient
{

// Under Linux's limit for one argument (128 KiB), with room to spare.
constexpr size_t kMaxUrlBytes = 64 * 1024;

struct UrlVerdict
{
    bool allowed = false;
    std::string scheme; // lower-case; empty when the URL has none
    std::string reason; // why it was refused; empty when allowed
};

// RFC 3986: a letter, then letters, digits, "+", "-" or ".".
bool IsSchemeName(std::string_view text) noexcept;
// Well-formed UTF-8 without overlong forms, surrogates or code points past U+10FFFF.
bool IsWellFormedUtf8(std::string_view text) noexcept;

class UrlGate
{
public:
    // Schemes are compared without regard to case.
    explicit UrlGate(std::vector<std::string> schemes);

    UrlVerdict Check(std::string_view url) const;
    const std::vector<std::string>& Schemes() const noexcept { return m_schemes; }

private:
    std::vector<std::string> m_schemes; // lower-case
};

} // namespace RdpClient
