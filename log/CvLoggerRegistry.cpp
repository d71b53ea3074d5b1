// The logger's registry settings: read at start, written back where the key allows, and
// followed live by the watch thread, which also closes idle files.
#include "log/CvLogger.h"

#include "common/RegistryKeys.h"
#include "log/CvLoggerBuffer.h"
#include "log/LogSettingsKeys.h"
#include "log/LogText.h"

#include <cstring>
#include <mutex>
#include <optional>

namespace
{
constexpr DWORD kWatchTimeoutMs = 4000;
constexpr DWORD kIdleCloseMs = 2000;

std::optional<DWORD> ReadDword(const cvlog::CLogSettingsKeys& keys, const wchar_t* name,
                               bool* missing = nullptr)
{
    DWORD type = 0;
    DWORD value = 0;
    DWORD size = sizeof value;
    const LONG rc = keys.Query(name, &type, reinterpret_cast<BYTE*>(&value), &size);
    if (missing)
        *missing = rc == ERROR_FILE_NOT_FOUND;
    if (rc != ERROR_SUCCESS || type != REG_DWORD || size != sizeof value)
        return std::nullopt;
    return value;
}
} // namespace

BOOL CCvLogger::OpenRegistry(HKEY hRoot, const wchar_t* szSubKey, BOOL startWatch, BOOL create)
{
    if (!hRoot || !szSubKey)
    {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    const REGSAM access = KEY_QUERY_VALUE | KEY_SET_VALUE;
    daxlib::unique_hkey key;
    LONG rc = create ? ::RegCreateKeyExW(hRoot, szSubKey, 0, nullptr, 0, access, nullptr, key.put(), nullptr)
                     : ::RegOpenKeyExW(hRoot, szSubKey, 0, access, key.put());
    bool writable = true;
    if (rc == ERROR_ACCESS_DENIED)
    {
        rc = ::RegOpenKeyExW(hRoot, szSubKey, 0, KEY_QUERY_VALUE, key.put());
        writable = false;
    }
    if (rc != ERROR_SUCCESS)
    {
        ::SetLastError(static_cast<DWORD>(rc));
        return FALSE;
    }
    {
        daxlib::lock_guard lock(m_cs);
        m_hRootKey = hRoot;
        m_strSubKey = szSubKey;
        m_bKeyWritable = writable;
    }
    LoadSettings(key.get(), create && writable);
    if (startWatch && !m_watch.IsRunning())
        m_watch.Start([this](HANDLE stop) { WatchLoop(stop); });
    return TRUE;
}

void CCvLogger::LoadSettings(HKEY hKey, BOOL writeBack)
{
    daxlib::unique_lock keyLock(m_cs);
    const cvlog::CLogSettingsKeys keys(hKey, m_hRootKey, m_strSubKey);
    keyLock.unlock();
    DWORD type = 0;
    wchar_t raw[64] = {};
    DWORD size = sizeof raw - sizeof(wchar_t);
    const LONG rc = keys.Query(L"LogLevel", &type, reinterpret_cast<BYTE*>(raw), &size);
    if (rc == ERROR_SUCCESS)
    {
        if (type == REG_DWORD && size == sizeof(DWORD))
        {
            DWORD level = 0;
            std::memcpy(&level, raw, sizeof level);
            ApplyLevel(level);
        }
        else if (type == REG_SZ)
        {
            std::u16string text(reinterpret_cast<const char16_t*>(raw), size / sizeof(wchar_t));
            while (!text.empty() && text.back() == u'\0')
                text.pop_back();
            if (const auto level = cvlog::ParseDecimalLevel(text))
                ApplyLevel(*level);
        }
    }
    else if (rc == ERROR_FILE_NOT_FOUND && writeBack)
    {
        const DWORD level = m_dwLevel.load();
        ::RegSetValueExW(hKey, L"LogLevel", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&level),
                         sizeof level);
    }

    bool missing = false;
    if (const auto count = ReadDword(keys, L"RotationLogFileNumber", &missing))
        m_dwRotationCount.store(cvlog::ClampRotationCount(*count));
    else if (missing)
        m_dwRotationCount.store(cvlog::ClampRotationCount(std::nullopt));
    if (const auto megabytes = ReadDword(keys, L"RotationLogFileSizeMB"))
        m_dwMaxFileSize.store(cvlog::MaxFileSizeFromMegabytes(*megabytes));
    if (const auto limit = ReadDword(keys, L"OverrideLogMaxFiles"))
        m_dwOldFileLimit.store(*limit);
    PropagateFileSettings();
}

std::pair<HKEY, std::wstring> CCvLogger::RegistryKey() const
{
    daxlib::lock_guard lock(m_cs);
    return {m_hRootKey, m_strSubKey};
}

uint32_t CCvLogger::GetOldFileLimit(uint32_t fallback)
{
    const auto [root, subKey] = RegistryKey();
    daxlib::unique_hkey key;
    if (root && ::RegOpenKeyExW(root, subKey.c_str(), 0, KEY_QUERY_VALUE, key.put()) == ERROR_SUCCESS)
    {
        if (const auto limit =
                ReadDword(cvlog::CLogSettingsKeys(key.get(), root, subKey), L"OverrideLogMaxFiles"))
        {
            m_dwOldFileLimit.store(*limit);
            return *limit;
        }
    }
    m_dwOldFileLimit.store(fallback);
    return fallback;
}

void CCvLogger::WatchLoop(HANDLE stop)
{
    const auto location = RegistryKey();
    const HKEY root = location.first;
    const std::wstring& subKey = location.second;
    daxlib::unique_hkey key;
    if (::RegOpenKeyExW(root, subKey.c_str(), 0, KEY_QUERY_VALUE | KEY_NOTIFY, key.put()) != ERROR_SUCCESS)
        return;
    daxlib::unique_handle changed(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (!changed)
        return;
    // The policy key wins over the product key, so its changes count too; it may not exist yet,
    // so the nearest key on its way is watched and opened afresh each round.
    const std::wstring policySubKey = cvlog::PolicySubKeyOf(subKey);
    daxlib::unique_hkey policy;
    const auto arm = [&]
    {
        if (!policySubKey.empty())
        {
            policy = daxlib::OpenNearestKey(root, policySubKey, KEY_NOTIFY);
            if (policy)
                ::RegNotifyChangeKeyValue(policy.get(), TRUE,
                                          REG_NOTIFY_CHANGE_NAME | REG_NOTIFY_CHANGE_LAST_SET, changed.get(),
                                          TRUE);
        }
        return ::RegNotifyChangeKeyValue(key.get(), TRUE, REG_NOTIFY_CHANGE_LAST_SET, changed.get(), TRUE) ==
               ERROR_SUCCESS;
    };
    if (!arm())
        return;
    // A value changed between the first read and the arming would otherwise go unnoticed.
    LoadSettings(key.get(), FALSE);
    const HANDLE events[] = {stop, changed.get()};
    for (;;)
    {
        const DWORD wait = ::WaitForMultipleObjects(2, events, FALSE, kWatchTimeoutMs);
        if (wait == WAIT_OBJECT_0 + 1)
        {
            ::ResetEvent(changed.get());
            if (!arm())
                return;
            LoadSettings(key.get(), FALSE);
        }
        else if (wait == WAIT_TIMEOUT)
            CloseIdleFiles();
        else
            return;
    }
}

void CCvLogger::CloseIdleFiles()
{
    daxlib::lock_guard lock(m_cs);
    const DWORD now = ::GetTickCount();
    for (auto& [index, file] : m_files)
        file->CloseIfIdle(now, kIdleCloseMs);
}
