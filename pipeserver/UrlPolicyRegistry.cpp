#include "pipeserver/UrlPolicyRegistry.h"

#include "common/RegistryKeys.h"
#include "common/ServiceEvents.h"

#include "common/WideFormat.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <utility>

namespace
{

// Policy values are short lists; anything larger is not one.
constexpr DWORD kMaxValueBytes = 1u << 20;

struct RawValue
{
    DWORD type = REG_NONE;
    std::vector<uint8_t> bytes;
};

std::optional<RawValue> QueryValue(HKEY key, const wchar_t* name)
{
    RawValue value;
    DWORD size = 0;
    if (::RegQueryValueExW(key, name, nullptr, &value.type, nullptr, &size) != ERROR_SUCCESS)
        return std::nullopt;
    for (int attempt = 0; attempt < 3; ++attempt)
    {
        value.bytes.resize(std::min(size, kMaxValueBytes));
        size = static_cast<DWORD>(value.bytes.size());
        const LSTATUS rc = ::RegQueryValueExW(key, name, nullptr, &value.type, value.bytes.data(), &size);
        if (rc == ERROR_SUCCESS)
        {
            value.bytes.resize(size);
            return value;
        }
        if (rc != ERROR_MORE_DATA || size > kMaxValueBytes)
            break;
    }
    // Too large or changing under us: present but unreadable.
    value.type = REG_NONE;
    value.bytes.clear();
    return value;
}

// The strings of a REG_MULTI_SZ, empty ones left out.
std::vector<std::u16string> MultiStrings(const std::vector<uint8_t>& bytes)
{
    std::vector<std::u16string> strings;
    std::u16string current;
    for (size_t i = 0; i + 1 < bytes.size(); i += 2)
    {
        const auto c = static_cast<char16_t>(bytes[i] | (bytes[i + 1] << 8));
        if (c != u'\0')
            current += c;
        else if (!current.empty())
            strings.push_back(std::exchange(current, {}));
    }
    if (!current.empty())
        strings.push_back(current);
    return strings;
}

std::wstring Shown(const std::u16string& text)
{
    std::wstring shown(text.begin(),
                       text.begin() + static_cast<std::ptrdiff_t>(std::min<size_t>(text.size(), 80)));
    for (wchar_t& c : shown)
        if (c < L' ' || c == 0x7F)
            c = L'?';
    return shown;
}

std::optional<DWORD> DwordOf(const RawValue& value)
{
    if (value.type != REG_DWORD || value.bytes.size() != sizeof(DWORD))
        return std::nullopt;
    DWORD result = 0;
    std::memcpy(&result, value.bytes.data(), sizeof result);
    return result;
}

} // namespace

UrlPolicyLoad ReadUrlPolicy(HKEY root, const wchar_t* subKey)
{
    UrlPolicyLoad load;
    daxlib::unique_hkey key;
    if (::RegOpenKeyExW(root, subKey, 0, KEY_QUERY_VALUE, key.put()) != ERROR_SUCCESS)
        return load;
    load.keyPresent = true;
    const auto problem = [&](const wchar_t* name, const std::wstring& what)
    { load.problems.push_back(daxlib::Format(L"value \"%s\" ignored: %s", name, what.c_str())); };

    if (const auto value = QueryValue(key.get(), L"Enabled"))
    {
        if (const auto enabled = DwordOf(*value))
            load.policy.enabled = *enabled != 0;
        else
            problem(L"Enabled", L"not a REG_DWORD");
    }
    if (const auto value = QueryValue(key.get(), L"MaxUrlLength"))
    {
        const auto length = DwordOf(*value);
        if (!length)
            problem(L"MaxUrlLength", L"not a REG_DWORD");
        else if (*length == 0 || *length > urlpolicy::kLargestMaxUrlLength)
            problem(L"MaxUrlLength",
                    daxlib::Format(L"%u is not between 1 and %u", static_cast<unsigned>(*length),
                                   static_cast<unsigned>(urlpolicy::kLargestMaxUrlLength)));
        else
            load.policy.maxUrlLength = *length;
    }
    if (const auto value = QueryValue(key.get(), L"AllowedSchemes"))
    {
        std::vector<std::string> schemes;
        bool broken = value->type != REG_MULTI_SZ;
        if (broken)
            problem(L"AllowedSchemes", L"not a REG_MULTI_SZ");
        for (const auto& text : broken ? std::vector<std::u16string>() : MultiStrings(value->bytes))
        {
            if (auto scheme = urlpolicy::ParseScheme(text))
                schemes.push_back(std::move(*scheme));
            else if (!broken)
            {
                broken = true;
                problem(L"AllowedSchemes", L"\"" + Shown(text) + L"\" is not a scheme");
            }
        }
        if (!broken)
            load.policy.schemes = std::move(schemes);
    }
    for (const auto& [name, patterns] : {std::pair{L"AllowedHosts", &load.policy.allowedHosts},
                                         std::pair{L"ExceptionHosts", &load.policy.exceptionHosts}})
    {
        const auto value = QueryValue(key.get(), name);
        if (!value)
            continue;
        if (value->type != REG_MULTI_SZ)
        {
            problem(name, L"not a REG_MULTI_SZ");
            continue;
        }
        std::vector<urlpolicy::Pattern> compiled;
        bool broken = false;
        for (const auto& text : MultiStrings(value->bytes))
        {
            auto pattern = urlpolicy::Pattern::Compile(text);
            if (!pattern)
            {
                broken = true;
                problem(name, L"\"" + Shown(text) + L"\" is not a host pattern");
                break;
            }
            compiled.push_back(std::move(*pattern));
        }
        if (!broken)
            *patterns = std::move(compiled);
    }
    return load;
}

CUrlPolicyWatch::CUrlPolicyWatch(std::shared_ptr<ICvLogger> logger, HKEY root, std::wstring subKey)
    : IBaseItem(std::move(logger)), m_hRoot(root), m_strSubKey(std::move(subKey)),
      m_pPolicy(std::make_shared<const urlpolicy::Policy>())
{
}

CUrlPolicyWatch::~CUrlPolicyWatch()
{
    Stop();
}

int CUrlPolicyWatch::Start()
{
    Load();
    if (m_watch.IsRunning())
        return 1;
    if (!m_watch.Start([this](HANDLE stop) { WatchLoop(stop); }))
    {
        Log(LogLevel::Error, L"CUrlPolicyWatch::Start: (187)",
            L"cannot watch the URL policy, error %u; changes apply after a restart",
            static_cast<unsigned>(::GetLastError()));
        return 0;
    }
    return 1;
}

int CUrlPolicyWatch::Stop()
{
    m_watch.Stop();
    return 1;
}

std::shared_ptr<const urlpolicy::Policy> CUrlPolicyWatch::Current() const
{
    daxlib::shared_lock lock(m_srwLock);
    return m_pPolicy;
}

void CUrlPolicyWatch::Load()
{
    UrlPolicyLoad load = ReadUrlPolicy(m_hRoot, m_strSubKey.c_str());
    std::set<std::wstring> problems(load.problems.begin(), load.problems.end());
    for (const std::wstring& problem : problems)
        if (!m_reported.count(problem))
        {
            Log(LogLevel::Warning, L"CUrlPolicyWatch::Load: (220)", L"URL policy %s", problem.c_str());
            events::Report(events::Level::Warning, events::kUrlPolicyValueBroken,
                           {(m_hRoot == HKEY_LOCAL_MACHINE ? L"HKLM\\" : L"HKCU\\") + m_strSubKey, problem});
        }
    m_reported = std::move(problems);
    const urlpolicy::Policy& policy = load.policy;
    std::wstring schemes;
    for (const std::string& scheme : policy.schemes)
        schemes += (schemes.empty() ? L"" : L" ") + std::wstring(scheme.begin(), scheme.end());
    std::wstring summary = daxlib::Format(
        L"URL policy %s: redirection %s, schemes <%s>, %u allowed host pattern(s), %u exception(s), "
        L"at most %u characters",
        load.keyPresent ? L"read" : L"not configured, default", policy.enabled ? L"on" : L"off",
        schemes.c_str(), static_cast<unsigned>(policy.allowedHosts.size()),
        static_cast<unsigned>(policy.exceptionHosts.size()), static_cast<unsigned>(policy.maxUrlLength));
    // Every change under the watched key wakes the watch; only a different policy is news.
    if (summary != m_strSummary)
        Log(LogLevel::Info, L"CUrlPolicyWatch::Load: (227)", L"%s", summary.c_str());
    m_strSummary = std::move(summary);
    auto current = std::make_shared<const urlpolicy::Policy>(std::move(load.policy));
    daxlib::lock_guard lock(m_srwLock);
    m_pPolicy = std::move(current);
}

void CUrlPolicyWatch::WatchLoop(HANDLE stop)
{
    daxlib::unique_handle changed(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (!changed)
        return;
    const HANDLE events[] = {stop, changed.get()};
    for (;;)
    {
        // Opened afresh each round: the key watched last time may have been deleted, or the
        // policy key created below it.
        daxlib::unique_hkey key = daxlib::OpenNearestKey(m_hRoot, m_strSubKey, KEY_NOTIFY);
        if (!key ||
            ::RegNotifyChangeKeyValue(key.get(), TRUE, REG_NOTIFY_CHANGE_NAME | REG_NOTIFY_CHANGE_LAST_SET,
                                      changed.get(), TRUE) != ERROR_SUCCESS)
        {
            Log(LogLevel::Error, L"CUrlPolicyWatch::WatchLoop: (282)",
                L"cannot watch the URL policy; changes apply after a restart");
            return;
        }
        // A change between the last reading and the arming would otherwise go unnoticed.
        Load();
        if (::WaitForMultipleObjects(2, events, FALSE, INFINITE) != WAIT_OBJECT_0 + 1)
            return;
        ::ResetEvent(changed.get());
    }
}
