#include "log/CvLogger.h"

#include "common/DaxException.h"
#include "common/WideFormat.h"
#include "log/BuildInfo.h"
#include "log/CvLoggerBuffer.h"
#include "log/FileSearch.h"
#include "log/LogSettingsKeys.h"
#include "log/LogText.h"
#include "log/RestrictedToken.h"

#include <process.h>
#include <shlobj.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <optional>
#include <mutex>

namespace
{
static_assert(sizeof(wchar_t) == sizeof(char16_t), "the Windows build keeps UTF-16 in wchar_t");

constexpr DWORD kWatchTimeoutMs = 4000;
constexpr DWORD kIdleCloseMs = 2000;
constexpr uint32_t kNotFound = ERROR_NOT_FOUND;             // 1168
constexpr uint32_t kBadParameter = ERROR_INVALID_PARAMETER; // 87
const wchar_t kSddlOpen[] = L"D:(A;;GA;;;WD)";
const wchar_t kSddlRestricted[] = L"D:(A;;GRGWSD;;;SY)(A;;GRGWSD;;;BA)(A;;GWSD;;;AU)";
const wchar_t kSddlStrict[] = L"D:(A;;GRGWSD;;;SY)(A;;GRGWSD;;;BA)";
const wchar_t kEventLogKey[] = L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\";

std::u16string ToU16(const wchar_t* text)
{
    const std::wstring_view view = text ? std::wstring_view(text) : std::wstring_view();
    return std::u16string(view.begin(), view.end());
}
std::wstring FromU16(const std::u16string& text)
{
    return std::wstring(text.begin(), text.end());
}
cvlog::TimeParts ToParts(const SYSTEMTIME& t)
{
    return {t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute, t.wSecond, t.wMilliseconds};
}
cvlog::HeaderAlignment& ProcessAlignment()
{
    static cvlog::HeaderAlignment alignment;
    return alignment;
}
std::wstring WithoutTrailingSlash(std::wstring path)
{
    while (path.size() > 3 && (path.back() == L'\\' || path.back() == L'/'))
        path.pop_back();
    return path;
}
uint64_t FileTimeValue(const FILETIME& t)
{
    return (static_cast<uint64_t>(t.dwHighDateTime) << 32) | t.dwLowDateTime;
}
std::optional<DWORD> ReadDword(const cvlog::LogSettingsKeys& keys, const wchar_t* name, bool* missing = nullptr)
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

// ---- creation and destruction ----------------------------------------------------------------

std::shared_ptr<CCvLogger> CCvLogger::CreateLogger(HKEY hRoot, const wchar_t* szSubKey,
                                                   const wchar_t* szCompany, const wchar_t* szProduct,
                                                   const wchar_t* szBaseName, const wchar_t* szPrefix,
                                                   int nFolderId, BOOL bCreateKey, BOOL bBuffered,
                                                   uint32_t dwLevel)
{
    daxlib::unique_handle token;
    ::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY | TOKEN_IMPERSONATE, token.put());
    wchar_t shellFolder[MAX_PATH] = {};
    if (FAILED(::SHGetFolderPathW(nullptr, nFolderId, token.get(), 0, shellFolder)))
        return nullptr;
    std::wstring folder = shellFolder;
    folder += L"\\";
    folder += szCompany ? szCompany : L"";
    folder += L"\\";
    folder += szProduct ? szProduct : L"";
    folder += L"\\";
    return CreateLoggerInFolder(folder.c_str(), hRoot, szSubKey, szBaseName, szPrefix, bCreateKey, bBuffered,
                                dwLevel);
}

std::shared_ptr<CCvLogger> CCvLogger::CreateLoggerInFolder(const wchar_t* szFolder, HKEY hRoot,
                                                           const wchar_t* szSubKey, const wchar_t* szBaseName,
                                                           const wchar_t* szPrefix, BOOL bCreateKey,
                                                           BOOL bBuffered, uint32_t dwLevel,
                                                           JunctionCheck junctionCheck)
{
    if (!szFolder || !*szFolder || !szBaseName || !*szBaseName)
    {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    try
    {
        auto logger = std::make_shared<CCvLogger>(szFolder, dwLevel, cvlog::kDefaultMaxFileSize);
        if (junctionCheck)
            logger->m_pfnJunctionCheck = junctionCheck;
        if (!logger->CreateCleanupPool())
            return nullptr;
        logger->SetBuffered(bBuffered);
        logger->SetHeaderFlags(cvlog::HeaderFlag::Service);
        logger->BuildBanner();
        if (!logger->OpenMainFile(szBaseName, szPrefix))
            return nullptr;
        if (hRoot && szSubKey)
            logger->OpenRegistry(hRoot, szSubKey, TRUE, bCreateKey);
        return logger;
    }
    catch (daxlib::CDaxException* e)
    {
        delete e;
    }
    catch (...)
    {
    }
    return nullptr;
}

CCvLogger::CCvLogger(const wchar_t* szFolder, uint32_t dwLevel, uint32_t dwMaxFileSize)
    : m_dwLevel(dwLevel), m_dwProcessId(::GetCurrentProcessId()), m_strFolder(szFolder ? szFolder : L""),
      m_dwRotationCount(cvlog::kDefaultRotationCount), m_dwMaxFileSize(dwMaxFileSize),
      m_dwOldFileLimit(cvlog::kDefaultOldFileLimit)
{
    if (!m_strFolder.empty() && m_strFolder.back() != L'\\')
        m_strFolder += L'\\';
    DWORD session = 0xFFFFFFFF;
    if (::ProcessIdToSessionId(m_dwProcessId, &session))
        m_dwSessionId = session;
    m_hevStop.reset(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
    if (!m_hevStop)
        daxlib::ThrowDaxException(L"CvLogger", __LINE__);
    m_hAdvapi.reset(::LoadLibraryW(L"Advapi32"));
    if (m_hAdvapi)
        m_pfnGetUserName = reinterpret_cast<GetUserNameFn>(
            reinterpret_cast<void*>(::GetProcAddress(m_hAdvapi.get(), "GetUserNameW")));
}

CCvLogger::~CCvLogger()
{
    ::SetEvent(m_hevStop.get());
    if (m_hWatchThread)
    {
        ::WaitForSingleObject(m_hWatchThread.get(), INFINITE);
        m_hWatchThread.reset();
    }
    CloseCleanupPool();
    std::lock_guard lock(m_cs);
    m_files.clear();
    m_nFileCount = 0;
}

// ---- records ---------------------------------------------------------------------------------

void CCvLogger::LogV(uint32_t level, const wchar_t* format, va_list args)
{
    LogToFileV(0, level, format, args);
}

void CCvLogger::LogToFile(uint32_t fileIndex, uint32_t level, const wchar_t* format, ...)
{
    va_list args;
    va_start(args, format);
    LogToFileV(fileIndex, level, format, args);
    va_end(args);
}

void CCvLogger::LogToFileV(uint32_t fileIndex, uint32_t level, const wchar_t* format, va_list args)
{
    if (m_dwLevel.load() < level)
        return;
    daxlib::last_error_guard keep;
    wchar_t message[cvlog::kTextCapacity];
    const int length = daxlib::FormatTruncatedV(message, cvlog::kTextCapacity, format, args);
    if (length <= 0)
        return;
    wchar_t label[260];
    cvlog::LevelLabelInto(level, false, label, 260);
    WriteRecord(fileIndex, label, message, static_cast<size_t>(length));
}

void CCvLogger::LogCategoryV(const wchar_t* category, const wchar_t* format, va_list args)
{
    daxlib::last_error_guard keep;
    wchar_t message[cvlog::kTextCapacity];
    const int length = daxlib::FormatTruncatedV(message, cvlog::kTextCapacity, format, args);
    if (length <= 0)
        return;
    WriteRecord(0, category, message, static_cast<size_t>(length));
}

void CCvLogger::WriteRecord(uint32_t fileIndex, const wchar_t* category, const wchar_t* message,
                            size_t length)
{
    daxlib::last_error_guard keep;
    std::lock_guard lock(m_cs);
    const auto it = m_files.find(fileIndex);
    if (it == m_files.end())
        return;
    wchar_t header[cvlog::kTextCapacity];
    const size_t headerLength = BuildHeader(category, header);
    it->second->Append(header, headerLength * sizeof(wchar_t));
    it->second->Append(message, length * sizeof(wchar_t));
    it->second->Append(L"\r\n", 2 * sizeof(wchar_t));
    if (m_bEchoDebugger)
    {
        ::OutputDebugStringW(message);
        ::OutputDebugStringW(L"\r\n");
    }
    if (m_bEchoConsole)
    {
        // The message is the format here, so a '%' in it is interpreted; an old habit kept.
        std::wprintf(message);
        std::wprintf(L"\r\n");
    }
}

void CCvLogger::DumpV(uint32_t level, const void* bytes, uint32_t count, const wchar_t* format, va_list args)
{
    DumpToFileV(0, level, bytes, count, format, args);
}

void CCvLogger::DumpToFile(uint32_t fileIndex, uint32_t level, const void* bytes, uint32_t count,
                           const wchar_t* format, ...)
{
    va_list args;
    va_start(args, format);
    DumpToFileV(fileIndex, level, bytes, count, format, args);
    va_end(args);
}

void CCvLogger::DumpToFileV(uint32_t fileIndex, uint32_t level, const void* bytes, uint32_t count,
                            const wchar_t* format, va_list args)
{
    if (m_dwLevel.load() < level)
        return;
    wchar_t label[260];
    cvlog::LevelLabelInto(level, true, label, 260);
    daxlib::last_error_guard keep;
    std::lock_guard lock(m_cs);
    const auto it = m_files.find(fileIndex);
    if (it == m_files.end())
    {
        keep.set(kNotFound);
        return;
    }
    CCvLoggerBuffer& file = *it->second;
    wchar_t header[cvlog::kTextCapacity];
    const size_t headerLength = BuildHeader(label, header);
    file.Append(header, headerLength * sizeof(wchar_t));
    wchar_t message[cvlog::kTextCapacity];
    bool truncated = false;
    const int length = daxlib::FormatTruncatedV(message, cvlog::kTextCapacity, format, args, &truncated);
    if (length < 1 || truncated)
    {
        // The header stays in the file without a line end; an old behaviour, kept on purpose.
        keep.set(kBadParameter);
        return;
    }
    file.Append(message, static_cast<uint64_t>(length) * sizeof(wchar_t));
    if (count != 0 && bytes)
    {
        const size_t needed = static_cast<size_t>(count) * 3 + 1;
        bool ready = true;
        if (m_dumpBuffer.size() < needed)
        {
            try
            {
                std::vector<wchar_t>().swap(m_dumpBuffer);
                m_dumpBuffer.resize(needed);
            }
            catch (...)
            {
                ready = false;
            }
        }
        if (ready)
        {
            cvlog::WriteDumpText(bytes, count, m_dumpBuffer.data());
            file.Append(m_dumpBuffer.data(), static_cast<uint64_t>(count) * 3 * sizeof(wchar_t));
        }
    }
    file.Append(L"\r\n", 2 * sizeof(wchar_t));
}

bool CCvLogger::IsLevelEnabled(uint32_t level) const
{
    return m_dwLevel.load() >= level && m_nFileCount.load() > 0;
}

size_t CCvLogger::BuildHeader(const wchar_t* category, wchar_t* out) const
{
    cvlog::BasicHeaderFields<wchar_t> fields;
    fields.flags = m_dwHeaderFlags.load();
    if (fields.flags & (cvlog::HeaderFlag::Date | cvlog::HeaderFlag::Time | cvlog::HeaderFlag::UtcOffset))
    {
        SYSTEMTIME local;
        SYSTEMTIME utc;
        ::GetLocalTime(&local);
        ::GetSystemTime(&utc);
        fields.local = ToParts(local);
        fields.utc = ToParts(utc);
    }
    fields.processId = m_dwProcessId;
    fields.threadId = ::GetCurrentThreadId();
    fields.sessionId = m_dwSessionId;
    wchar_t user[260] = {};
    if (fields.flags & cvlog::HeaderFlag::User)
    {
        DWORD size = 260;
        if (!m_pfnGetUserName)
            fields.userState = cvlog::UserNameState::Unavailable;
        else if (m_pfnGetUserName(user, &size))
        {
            fields.userState = cvlog::UserNameState::Known;
            fields.user = user;
        }
    }
    if (category)
        fields.category = std::wstring_view(category);
    const size_t length = cvlog::FormatHeaderInto(fields, out, cvlog::kTextCapacity);
    return ProcessAlignment().Pad(out, length, cvlog::kTextCapacity);
}

size_t CCvLogger::HeaderWidth()
{
    return ProcessAlignment().Width();
}

// ---- settings --------------------------------------------------------------------------------

void CCvLogger::ApplyLevel(uint32_t level)
{
    m_dwLevel.store(level);
    std::lock_guard lock(m_cs);
    const auto it = m_levelFileSizes.find(level);
    if (it != m_levelFileSizes.end())
    {
        m_dwMaxFileSize.store(it->second);
        PropagateFileSettings();
    }
}

uint32_t CCvLogger::SetLevel(uint32_t level)
{
    ApplyLevel(level);
    HKEY root = nullptr;
    std::wstring subKey;
    {
        std::lock_guard lock(m_cs);
        if (!m_bKeyWritable)
            return ERROR_SUCCESS;
        root = m_hRootKey;
        subKey = m_strSubKey;
    }
    daxlib::unique_hkey key;
    LONG rc =
        ::RegCreateKeyExW(root, subKey.c_str(), 0, nullptr, 0, KEY_SET_VALUE, nullptr, key.put(), nullptr);
    if (rc == ERROR_SUCCESS)
    {
        const DWORD value = level;
        rc = ::RegSetValueExW(key.get(), L"LogLevel", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value),
                              sizeof value);
    }
    return static_cast<uint32_t>(rc);
}

void CCvLogger::GetLevel(uint32_t* level) const
{
    if (level)
        *level = m_dwLevel.load();
}

void CCvLogger::SetEcho(BOOL toConsole, BOOL toDebugger)
{
    std::lock_guard lock(m_cs);
    m_bEchoConsole = toConsole;
    m_bEchoDebugger = toDebugger;
}

void CCvLogger::SetLevelFileSizes(std::map<uint32_t, uint32_t> sizes)
{
    std::lock_guard lock(m_cs);
    m_levelFileSizes = std::move(sizes);
}

void CCvLogger::SetRotationCount(uint32_t count)
{
    m_dwRotationCount.store(count);
    PropagateFileSettings();
}

void CCvLogger::SetMaxFileSize(uint32_t bytes)
{
    m_dwMaxFileSize.store(bytes);
    PropagateFileSettings();
}

void CCvLogger::PropagateFileSettings()
{
    std::lock_guard lock(m_cs);
    for (auto& [index, file] : m_files)
    {
        file->SetRotationCount(std::max<uint32_t>(m_dwRotationCount.load(), 1));
        file->SetMaxSize(m_dwMaxFileSize.load());
    }
}

bool CCvLogger::FormatError(uint32_t code, wchar_t* buffer, size_t capacity)
{
    daxlib::last_error_guard keep;
    if (!buffer || capacity == 0)
        return false;
    buffer[0] = L'\0';
    if (code == 0)
        return true;
    wchar_t* text = nullptr;
    const DWORD length =
        ::FormatMessageW(0x11FF, nullptr, code, 0x400, reinterpret_cast<LPWSTR>(&text), 0, nullptr);
    daxlib::unique_hlocal owned(text);
    if (length == 0 || !text)
        return false;
    daxlib::FormatTruncated(buffer, capacity, L"Error %u: %s", code, text);
    return true;
}

// ---- registry --------------------------------------------------------------------------------

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
        std::lock_guard lock(m_cs);
        m_hRootKey = hRoot;
        m_strSubKey = szSubKey;
        m_bKeyWritable = writable;
    }
    LoadSettings(key.get(), create && writable);
    if (startWatch && !m_hWatchThread)
        m_hWatchThread.reset(reinterpret_cast<HANDLE>(
            ::_beginthreadex(nullptr, 0, &CCvLogger::WatchThread, this, 0, nullptr)));
    return TRUE;
}

void CCvLogger::LoadSettings(HKEY hKey, BOOL writeBack)
{
    std::unique_lock keyLock(m_cs);
    const cvlog::LogSettingsKeys keys(hKey, m_hRootKey, m_strSubKey);
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

uint32_t CCvLogger::GetOldFileLimit(uint32_t fallback)
{
    HKEY root = nullptr;
    std::wstring subKey;
    {
        std::lock_guard lock(m_cs);
        root = m_hRootKey;
        subKey = m_strSubKey;
    }
    daxlib::unique_hkey key;
    if (root && ::RegOpenKeyExW(root, subKey.c_str(), 0, KEY_QUERY_VALUE, key.put()) == ERROR_SUCCESS)
    {
        if (const auto limit = ReadDword(cvlog::LogSettingsKeys(key.get(), root, subKey), L"OverrideLogMaxFiles"))
        {
            m_dwOldFileLimit.store(*limit);
            return *limit;
        }
    }
    m_dwOldFileLimit.store(fallback);
    return fallback;
}

unsigned __stdcall CCvLogger::WatchThread(void* context)
{
    try
    {
        static_cast<CCvLogger*>(context)->WatchLoop();
    }
    catch (daxlib::CDaxException* e)
    {
        delete e;
    }
    catch (...)
    {
    }
    return 0;
}

void CCvLogger::WatchLoop()
{
    HKEY root = nullptr;
    std::wstring subKey;
    {
        std::lock_guard lock(m_cs);
        root = m_hRootKey;
        subKey = m_strSubKey;
    }
    daxlib::unique_hkey key;
    if (::RegOpenKeyExW(root, subKey.c_str(), 0, KEY_QUERY_VALUE | KEY_NOTIFY, key.put()) != ERROR_SUCCESS)
        return;
    daxlib::unique_handle changed(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (!changed)
        return;
    const auto arm = [&]
    {
        return ::RegNotifyChangeKeyValue(key.get(), TRUE, REG_NOTIFY_CHANGE_LAST_SET, changed.get(), TRUE) ==
               ERROR_SUCCESS;
    };
    if (!arm())
        return;
    // A value changed between the first read and the arming would otherwise go unnoticed.
    LoadSettings(key.get(), FALSE);
    const HANDLE events[] = {m_hevStop.get(), changed.get()};
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
    std::lock_guard lock(m_cs);
    const DWORD now = ::GetTickCount();
    for (auto& [index, file] : m_files)
        file->CloseIfIdle(now, kIdleCloseMs);
}

// ---- files -----------------------------------------------------------------------------------

std::unique_ptr<CCvLoggerBuffer> CCvLogger::MakeFile(const std::wstring& stem)
{
    CCvLoggerBuffer::Options options;
    options.folder = m_strFolder;
    options.fileStem = stem;
    options.sddl = m_strSddl;
    options.maxSize = m_dwMaxFileSize.load();
    options.rotationCount = std::max<uint32_t>(m_dwRotationCount.load(), 1);
    options.buffered = m_bBuffered;
    options.dropAdministrators = m_bStrict;
    options.banner = m_strBanner;
    return std::make_unique<CCvLoggerBuffer>(this, std::move(options));
}

BOOL CCvLogger::OpenMainFile(const wchar_t* szBaseName, const wchar_t* szPrefix)
{
    std::lock_guard lock(m_cs);
    m_strBaseName = szBaseName ? szBaseName : L"";
    m_strPrefix = szPrefix ? szPrefix : L"";
    ::SHCreateDirectoryExW(nullptr, WithoutTrailingSlash(m_strFolder).c_str(), nullptr);
    std::wstring stem = m_strFolder;
    if (!m_strPrefix.empty())
        stem += m_strPrefix + L"-";
    stem += m_strBaseName;
    m_files[m_dwNextIndex++] = MakeFile(stem);
    m_nFileCount = m_files.size();
    return TRUE;
}

std::wstring CCvLogger::PerProcessStem(const wchar_t* name) const
{
    std::wstring text = m_strFolder;
    if (!m_strPrefix.empty())
        text += m_strPrefix + L"-";
    text += name;
    text += L"-";
    const std::wstring pattern =
        daxlib::Format(L"%s%s-%d-%d*.txt", text.c_str(), m_strBaseName.c_str(),
                       static_cast<int>(m_dwSessionId), static_cast<int>(m_dwProcessId));

    // A file of this process written within the last hour is continued.
    FILETIME nowUtc;
    ::GetSystemTimeAsFileTime(&nowUtc);
    const uint64_t hourAgo = FileTimeValue(nowUtc) - 3600ULL * 10000000ULL;
    std::wstring latest;
    uint64_t latestTime = 0;
    cvlog::ForEachFile(pattern,
                       [&](const WIN32_FIND_DATAW& data)
                       {
                           const uint64_t written = FileTimeValue(data.ftLastWriteTime);
                           if (latest.empty() || written > latestTime)
                           {
                               latest = data.cFileName;
                               latestTime = written;
                           }
                       });
    if (!latest.empty() && latestTime > hourAgo && latest.size() > 4)
        return m_strFolder + latest.substr(0, latest.size() - 4);

    SYSTEMTIME local;
    ::GetLocalTime(&local);
    return FromU16(cvlog::PerProcessFileStem(ToU16(text.c_str()), ToU16(m_strBaseName.c_str()), m_dwSessionId,
                                             m_dwProcessId, ToParts(local)));
}

int CCvLogger::AddLogFile(const wchar_t* name, BOOL replaceMain)
{
    if (!name || !*name)
    {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return -1;
    }
    if (m_pCleanupWork)
        ::SubmitThreadpoolWork(m_pCleanupWork.get());
    try
    {
        std::lock_guard lock(m_cs);
        auto file = MakeFile(PerProcessStem(name));
        if (replaceMain)
        {
            m_files[0] = std::move(file);
            m_dwNextIndex = std::max<uint32_t>(m_dwNextIndex, 1);
            m_nFileCount = m_files.size();
            return 0;
        }
        const uint32_t index = m_dwNextIndex++;
        m_files[index] = std::move(file);
        m_nFileCount = m_files.size();
        return static_cast<int>(index);
    }
    catch (daxlib::CDaxException* e)
    {
        delete e;
    }
    catch (...)
    {
    }
    return -1;
}

int CCvLogger::AddUserLogFile()
{
    wchar_t user[258] = {};
    DWORD size = 257;
    if (!m_pfnGetUserName || !m_pfnGetUserName(user, &size))
        return -1;
    return AddLogFile(user, TRUE);
}

int CCvLogger::AddProcessLogFile()
{
    wchar_t path[MAX_PATH] = {};
    const DWORD length = ::GetModuleFileNameW(nullptr, path, MAX_PATH);
    if (length == 0 || length >= MAX_PATH)
        return -1;
    std::wstring name(path, length);
    name = name.substr(name.find_last_of(L"\\/") + 1);
    const size_t dot = name.find_last_of(L'.');
    if (dot != std::wstring::npos && dot > 0)
        name.resize(dot);
    return AddLogFile(name.c_str(), TRUE);
}

BOOL CCvLogger::RemoveLogFile(uint32_t fileIndex)
{
    std::unique_ptr<CCvLoggerBuffer> doomed;
    std::lock_guard lock(m_cs);
    const auto it = m_files.find(fileIndex);
    if (it == m_files.end())
    {
        ::SetLastError(kNotFound);
        return FALSE;
    }
    doomed = std::move(it->second);
    m_files.erase(it);
    m_nFileCount = m_files.size();
    doomed.reset();
    return TRUE;
}

BOOL CCvLogger::RequestRecreate(uint32_t fileIndex)
{
    std::lock_guard lock(m_cs);
    const auto it = m_files.find(fileIndex);
    if (it == m_files.end())
    {
        ::SetLastError(kNotFound);
        return FALSE;
    }
    it->second->RequestRecreate();
    return TRUE;
}

BOOL CCvLogger::GetLogFilePath(uint32_t fileIndex, wchar_t* buffer)
{
    if (!buffer)
        return FALSE;
    buffer[0] = L'\0';
    std::lock_guard lock(m_cs);
    const auto it = m_files.find(fileIndex);
    if (it == m_files.end())
        return FALSE;
    const DWORD length = ::GetFullPathNameW(it->second->FileName().c_str(), MAX_PATH, buffer, nullptr);
    return length > 0 && length < MAX_PATH;
}

void CCvLogger::SetLogFileSecurity(BOOL restrict, BOOL strict)
{
    std::lock_guard lock(m_cs);
    m_strSddl = restrict ? (strict ? kSddlStrict : kSddlRestricted) : kSddlOpen;
    m_bStrict = strict;
    m_files.clear();
    m_nFileCount = 0;
    m_dwNextIndex = 0;
    try
    {
        OpenMainFile(m_strBaseName.c_str(), m_strPrefix.c_str());
    }
    catch (daxlib::CDaxException* e)
    {
        delete e;
    }
}

bool CCvLogger::IsJunction(const std::wstring& folder) const
{
    return m_pfnJunctionCheck && m_pfnJunctionCheck(folder);
}

bool CCvLogger::IsMountPoint(const std::wstring& folder)
{
    const std::wstring path = WithoutTrailingSlash(folder);
    const DWORD attributes = ::GetFileAttributesW(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || !(attributes & FILE_ATTRIBUTE_REPARSE_POINT))
        return false;
    WIN32_FIND_DATAW data;
    cvlog::unique_find find(::FindFirstFileW(path.c_str(), &data));
    return find && data.dwReserved0 == IO_REPARSE_TAG_MOUNT_POINT;
}

// ---- clean-up pool ---------------------------------------------------------------------------

BOOL CCvLogger::CreateCleanupPool()
{
    m_pCleanupPool.reset(::CreateThreadpool(nullptr));
    if (!m_pCleanupPool)
        return FALSE;
    ::SetThreadpoolThreadMaximum(m_pCleanupPool.get(), 1);
    if (!::SetThreadpoolThreadMinimum(m_pCleanupPool.get(), 1))
    {
        m_pCleanupPool.reset();
        return FALSE;
    }
    m_pCleanupGroup.reset(::CreateThreadpoolCleanupGroup());
    if (!m_pCleanupGroup)
    {
        m_pCleanupPool.reset();
        return FALSE;
    }
    ::InitializeThreadpoolEnvironment(&m_cleanupEnvironment);
    ::SetThreadpoolCallbackPool(&m_cleanupEnvironment, m_pCleanupPool.get());
    ::SetThreadpoolCallbackCleanupGroup(&m_cleanupEnvironment, m_pCleanupGroup.get(), nullptr);
    m_pCleanupWork.reset(::CreateThreadpoolWork(&CCvLogger::CleanupCallback, this, &m_cleanupEnvironment));
    if (!m_pCleanupWork)
    {
        CloseCleanupPool();
        return FALSE;
    }
    return TRUE;
}

void CCvLogger::WaitForCleanup()
{
    if (m_pCleanupWork)
        ::WaitForThreadpoolWorkCallbacks(m_pCleanupWork.get(), FALSE);
}

void CCvLogger::CloseCleanupPool()
{
    if (!m_pCleanupGroup)
        return;
    // Waits for a running clean-up and closes the work item with the group.
    ::CloseThreadpoolCleanupGroupMembers(m_pCleanupGroup.get(), FALSE, nullptr);
    (void)m_pCleanupWork.release();
    m_pCleanupGroup.reset();
    m_pCleanupPool.reset();
    ::DestroyThreadpoolEnvironment(&m_cleanupEnvironment);
}

void CALLBACK CCvLogger::CleanupCallback(PTP_CALLBACK_INSTANCE, PVOID context, PTP_WORK)
{
    try
    {
        static_cast<CCvLogger*>(context)->Cleanup();
    }
    catch (daxlib::CDaxException* e)
    {
        delete e;
    }
    catch (...)
    {
    }
}

void CCvLogger::Cleanup()
{
    std::optional<cvlog::ScopedRestrictedImpersonation> restricted;
    std::wstring folder;
    std::wstring base;
    {
        std::lock_guard lock(m_cs);
        if (m_bStrict)
            restricted.emplace();
        folder = WithoutTrailingSlash(m_strFolder);
        base = m_strBaseName;
    }

    const auto list = [&](const std::wstring& pattern)
    {
        std::vector<cvlog::FileStamp> files;
        cvlog::ForEachFile(pattern,
                           [&](const WIN32_FIND_DATAW& data) {
                               files.push_back({ToU16(data.cFileName), FileTimeValue(data.ftLastWriteTime)});
                           });
        return files;
    };

    // The age limit compares with local time taken as file time; kept as the old code did it.
    SYSTEMTIME local;
    ::GetLocalTime(&local);
    FILETIME now{};
    ::SystemTimeToFileTime(&local, &now);
    for (const auto& file : list(daxlib::Format(L"%s\\*-%s-*).txt", folder.c_str(), base.c_str())))
        if (cvlog::IsExpired(file.lastWrite, FileTimeValue(now)))
            ::DeleteFileW((folder + L"\\" + FromU16(file.name)).c_str());

    const uint32_t limit = m_dwOldFileLimit.load();
    if (limit == 0)
        return;
    const auto doomed = cvlog::SelectOverLimit(
        list(daxlib::Format(L"%s\\*-%s-*.txt", folder.c_str(), base.c_str())), limit, ToU16(base.c_str()));
    for (const auto& name : doomed)
        ::DeleteFileW((folder + L"\\" + FromU16(name)).c_str());
}

// ---- banner and event log --------------------------------------------------------------------

void CCvLogger::BuildBanner()
{
    wchar_t version[cvlog::kTextCapacity];
    GetWindowsVersionText(version, cvlog::kTextCapacity);
    wchar_t header[cvlog::kTextCapacity];
    BuildHeader(L"SERVICE", header);
    const std::wstring build = daxlib::Format(L"Build %S. ", BuildDateText());
    std::wstring banner = daxlib::Format(L"\r\n%s%s%s\r\n", header, build.c_str(), version);
    std::lock_guard lock(m_cs);
    m_strBanner = std::move(banner);
}

void CCvLogger::GetWindowsVersionText(wchar_t* buffer, size_t capacity)
{
    if (!buffer || capacity == 0)
        return;
    buffer[0] = L'\0';
    OSVERSIONINFOEXW os{};
    os.dwOSVersionInfoSize = sizeof os;
    cvlog::WindowsVersionInfo info;
#ifdef _MSC_VER
#pragma warning(suppress : 4996)
#endif
    info.queryOk = ::GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(&os)) != FALSE;
    if (info.queryOk)
    {
        info.platformId = os.dwPlatformId;
        info.major = os.dwMajorVersion;
        info.minor = os.dwMinorVersion;
        info.build = os.dwBuildNumber;
        info.servicePack = ToU16(os.szCSDVersion);
        info.suiteMask = os.wSuiteMask;
        info.productType = os.wProductType;
        SYSTEM_INFO system{};
        using NativeInfoFn = void(WINAPI*)(LPSYSTEM_INFO);
        const auto native = reinterpret_cast<NativeInfoFn>(reinterpret_cast<void*>(
            ::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "GetNativeSystemInfo")));
        if (native)
            native(&system);
        else
            ::GetSystemInfo(&system);
        info.processorArchitecture = system.wProcessorArchitecture;
        info.serverR2 = ::GetSystemMetrics(SM_SERVERR2);
    }
    const std::u16string text = cvlog::WindowsVersionText(info);
    const size_t n = std::min(text.size(), capacity - 1);
    std::copy_n(text.begin(), n, buffer);
    buffer[n] = L'\0';
}

uint32_t CCvLogger::RegisterEventSourceKey(const wchar_t* provider)
{
    const std::wstring path = std::wstring(kEventLogKey) + (provider ? provider : L"");
    daxlib::unique_hkey key;
    LONG rc = ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr,
                                key.put(), nullptr);
    if (rc != ERROR_SUCCESS)
        return static_cast<uint32_t>(rc);
    wchar_t module[MAX_PATH] = {};
    const DWORD length = ::GetModuleFileNameW(nullptr, module, MAX_PATH);
    rc = ::RegSetValueExW(key.get(), L"EventMessageFile", 0, REG_SZ, reinterpret_cast<const BYTE*>(module),
                          (length + 1) * sizeof(wchar_t));
    if (rc != ERROR_SUCCESS)
        return static_cast<uint32_t>(rc);
    const DWORD types = EVENTLOG_ERROR_TYPE | EVENTLOG_WARNING_TYPE | EVENTLOG_INFORMATION_TYPE;
    rc = ::RegSetValueExW(key.get(), L"TypesSupported", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&types),
                          sizeof types);
    return static_cast<uint32_t>(rc);
}

void CCvLogger::InitEventLogging(const wchar_t* provider)
{
    if (!provider || !*provider)
    {
        Log(0, L"CCvLogger::InitEventLogging: (1458): Empty provider name");
        ::SetLastError(ERROR_INVALID_DATA);
        return;
    }
    const uint32_t rc = RegisterEventSourceKey(provider);
    if (rc != ERROR_SUCCESS)
    {
        Log(0, L"CCvLogger::InitEventLogging: (1466): Event source provider not installed");
        ::SetLastError(rc);
        return;
    }
    HANDLE source = ::RegisterEventSourceW(nullptr, provider);
    if (!source)
    {
        const DWORD error = ::GetLastError();
        Log(0, L"CCvLogger::InitEventLogging: (1473): RegisterEventSource GLE=%d", static_cast<int>(error));
        ::SetLastError(error);
        return;
    }
    m_hEventSource.reset(source);
}

void CCvLogger::EventLog(uint32_t level, uint32_t eventId, PSID userSid, const wchar_t* format, ...)
{
    daxlib::last_error_guard keep;
    if (!m_hEventSource)
    {
        Log(1, L"CCvLogger::EventLog: (1484): Event logging disabled");
        return;
    }
    wchar_t message[cvlog::kTextCapacity];
    va_list args;
    va_start(args, format);
    const int length = daxlib::FormatTruncatedV(message, cvlog::kTextCapacity, format, args);
    va_end(args);
    if (length < 0)
    {
        Log(0, L"CCvLogger::EventLog: (1499): _vsnwprintf_s() failed");
        return;
    }
    const WORD type = level == 0   ? EVENTLOG_ERROR_TYPE
                      : level == 1 ? EVENTLOG_WARNING_TYPE
                                   : EVENTLOG_INFORMATION_TYPE;
    const wchar_t* strings[] = {message};
    ::ReportEventW(m_hEventSource.get(), type, 0, eventId, userSid, 1, 0, strings, nullptr);
}
