#pragma once
// Compiled-in settings of the service and the one registry reader of this module.
#include "VelomarVersion.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace service
{

constexpr wchar_t kServiceName[] = L"velomard";
constexpr wchar_t kProductKey[] = L"Software\\Corvane\\Velomar (Server)";
constexpr wchar_t kCompanyFolder[] = L"Corvane";
constexpr wchar_t kProductFolder[] = L"Velomar (Server)";
constexpr wchar_t kLogBaseName[] = L"velomard";
constexpr uint32_t kEventError = 1; // VELOMARD_EVENT_ERROR in VelomardMessages.mc
constexpr int kLogShellFolder = 35; // the common application-data folder
// Major, minor and patch bytes (1.4.0 is 0x10400).
constexpr uint32_t kProgramVersion =
    (VELOMAR_VERSION_MAJOR << 16) | (VELOMAR_VERSION_MINOR << 8) | VELOMAR_VERSION_PATCH;
constexpr uint32_t kStopDelayMs = 500;
constexpr uint32_t kThreadPoolMaximum = 1000;
constexpr uint32_t kServiceLogHeaderFlags = 0x804F;

// Which transport carries the URL channel: the "ChannelTransport" string value under the policy
// key (which wins) or the product key: "library" (the default), "rdp", or "auto" (the library when
// it loads, else RDP), without regard to case.
enum class ChannelTransportChoice
{
    Library,
    Rdp,
    Automatic,
};
constexpr wchar_t kChannelTransportValue[] = L"ChannelTransport";
constexpr wchar_t kPolicyKey[] = L"Software\\Policies\\Corvane\\Velomar (Server)";

struct ChannelTransportSetting
{
    ChannelTransportChoice choice = ChannelTransportChoice::Library;
    std::wstring from;    // "policy", "product key" or "default"
    std::wstring problem; // why a value that is set was not used; empty when it was
};
// Text as an administrator writes it: "library", "rdp" or "auto"; nothing for anything else.
bool ParseChannelTransport(std::wstring_view text, ChannelTransportChoice& choice);
const wchar_t* ChannelTransportName(ChannelTransportChoice choice) noexcept;
ChannelTransportSetting ReadChannelTransport(void* root = nullptr, const wchar_t* policyKey = kPolicyKey,
                                             const wchar_t* productKey = kProductKey);

struct ServiceLogSettings
{
    std::wstring fileName;
    uint32_t level = 0;
    uint32_t maxSize = 0;
};

class CServiceConfig
{
public:
    explicit CServiceConfig(std::wstring serviceName = kServiceName)
        : m_strServiceName(std::move(serviceName))
    {
    }

    // Reads "logLevel", "logFileName" and (when maxSize is given) "logFileMaxSize" from the
    // service's own key. Missing values take their defaults; value types are not checked.
    // False only when the key cannot be opened.
    bool ReadServiceLogSettings(std::wstring& fileName, uint32_t& level, uint32_t* maxSize) const;

    const std::wstring& ServiceName() const noexcept { return m_strServiceName; }

private:
    std::wstring m_strServiceName;
};

} // namespace service
