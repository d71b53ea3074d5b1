#pragma once
// The canonical form of a host (urlpolicy::CanonicalHost), shared with host patterns.
#include <optional>
#include <string>
#include <string_view>

namespace urlpolicy::detail
{

// CanonicalHost; `wildcards` lets '*' and '?' through for patterns, whose labels with
// wildcards must be ASCII.
std::optional<std::string> CanonicalHostImpl(std::u16string_view raw, bool fileScheme, bool wildcards);

} // namespace urlpolicy::detail
