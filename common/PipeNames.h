#pragma once
// The names of the service's pipes, shared by the service, its tools and their tests. A name
// here is without the "\\.\pipe\" prefix; PipePath gives the full path.
#include <string>

namespace daxlib
{
constexpr wchar_t kPipePrefix[] = L"\\\\.\\pipe\\";
// Where agents hand over URLs.
constexpr wchar_t kAgentPipeName[] = L"9FEA9DA6-BEA1-479B-9819-F9031E0B69EE";
// Where local programs learn each session's channel status (docs/status-protocol.md).
constexpr wchar_t kStatusPipeName[] = L"DAC925CB-51DC-45D2-821E-1ACD58245344";

// The stand-in channel library's control pipe, unless CVSKAPI_STANDIN_PIPE names another.
constexpr wchar_t kStandinControlPipe[] = L"\\\\.\\pipe\\CorvaneSkeinStandin";

inline std::wstring PipePath(const std::wstring& name)
{
    return kPipePrefix + name;
}
} // namespace daxlib
