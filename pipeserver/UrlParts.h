#pragma once
// A URL taken apart as browsers take it apart: scheme, authority, host, port and path.
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace urlpolicy::detail
{

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

// The scheme in lower case; none when the text is not one.
std::optional<std::string> SchemeText(std::u16string_view text);
// `colon` ends the scheme, `scheme` is its SchemeText.
UrlParts Split(std::u16string_view url, size_t colon, std::string_view scheme);

} // namespace urlpolicy::detail
