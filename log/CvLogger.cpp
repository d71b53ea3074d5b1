#include "log/CvLogger.h"

#include "common/DaxException.h"
#include "common/Guarded.h"
#include "common/ProcessSecurity.h"
#include "common/WideFormat.h"
#include "log/CvLoggerBuffer.h"
#include "log/LogFolder.h"
#include "log/LogConversions.h"
#include "log/LogText.h"

#include <shlobj.h>

#include <algorithm>
#include <cstdio>
#include <mutex>

namespace
{
constexpr uint32_t kNoFileToWrite = ERROR_NOT_FOUND;
constexpr uint32_t kBadParameter = ERROR_INVALID_PARAMETER;

cvlog::HeaderAlignment& ProcessAlignment()
{
    static cvlog::HeaderAlignment alignment;
    return alignment;
}
} // namespace
using cvlog::ToParts;

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
    if (!szCompany || !*szCompany || !szProduct || !*szProduct)
    {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    const std::wstring folder = std::wstring(shellFolder) + L"\\" + szCompany + L"\\" + szProduct + L"\\";
    return Create(folder, shellFolder, {szCompany, szProduct}, hRoot, szSubKey, szBaseName, szPrefix,
                  bCreateKey, bBuffered, dwLevel, nullptr);
}

std::shared_ptr<CCvLogger> CCvLogger::CreateLoggerInFolder(const wchar_t* szFolder, HKEY hRoot,
                                                           const wchar_t* szSubKey, const wchar_t* szBaseName,
                                                           const wchar_t* szPrefix, BOOL bCreateKey,
                                                           BOOL bBuffered, uint32_t dwLevel,
                                                           std::shared_ptr<cvlog::IFolderSystem> folderSystem)
{
    if (!szFolder || !*szFolder)
    {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    const std::wstring folder = cvlog::WithoutTrailingSlash(szFolder);
    const size_t slash = folder.find_last_of(L"\\/");
    if (slash == std::wstring::npos || slash + 1 >= folder.size())
    {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    return Create(szFolder, folder.substr(0, slash + 1), {folder.substr(slash + 1)}, hRoot, szSubKey,
                  szBaseName, szPrefix, bCreateKey, bBuffered, dwLevel, std::move(folderSystem));
}

std::shared_ptr<CCvLogger> CCvLogger::Create(const std::wstring& folder, const std::wstring& root,
                                             std::vector<std::wstring> owned, HKEY hRoot,
                                             const wchar_t* szSubKey, const wchar_t* szBaseName,
                                             const wchar_t* szPrefix, BOOL bCreateKey, BOOL bBuffered,
                                             uint32_t dwLevel,
                                             std::shared_ptr<cvlog::IFolderSystem> folderSystem)
{
    if (!szBaseName || !*szBaseName)
    {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    std::shared_ptr<CCvLogger> result;
    daxlib::GuardedCall(
        nullptr, L"CCvLogger::Create",
        [&]
        {
            auto logger = std::make_shared<CCvLogger>(folder.c_str(), dwLevel, cvlog::kDefaultMaxFileSize);
            logger->m_strFolderRoot = root;
            logger->m_ownedFolders = std::move(owned);
            logger->m_pFolderSystem = folderSystem ? std::move(folderSystem) : cvlog::WindowsFolderSystem();
            if (!logger->CreateCleanupPool())
                return;
            logger->SetBuffered(bBuffered);
            logger->SetHeaderFlags(cvlog::HeaderFlag::Service);
            logger->BuildBanner();
            if (!logger->OpenMainFile(szBaseName, szPrefix))
                return;
            for (const std::wstring& finding : logger->GetFolderFindings())
                logger->Log(LogLevel::Error, L"%s", finding.c_str());
            if (hRoot && szSubKey)
                logger->OpenRegistry(hRoot, szSubKey, TRUE, bCreateKey);
            result = std::move(logger);
        });
    return result;
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
    m_hAdvapi.reset(daxlib::LoadSystemLibrary(L"advapi32.dll"));
    if (m_hAdvapi)
        m_pfnGetUserName = reinterpret_cast<GetUserNameFn>(
            reinterpret_cast<void*>(::GetProcAddress(m_hAdvapi.get(), "GetUserNameW")));
}

CCvLogger::~CCvLogger()
{
    m_watch.Stop();
    m_cleanupPool.Close();
    daxlib::lock_guard lock(m_cs);
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
    daxlib::lock_guard lock(m_cs);
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
    daxlib::lock_guard lock(m_cs);
    const auto it = m_files.find(fileIndex);
    if (it == m_files.end())
    {
        keep.set(kNoFileToWrite);
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
    daxlib::lock_guard lock(m_cs);
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
    {
        daxlib::lock_guard lock(m_cs);
        if (!m_bKeyWritable)
            return ERROR_SUCCESS;
    }
    const auto [root, subKey] = RegistryKey();
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
    daxlib::lock_guard lock(m_cs);
    m_bEchoConsole = toConsole;
    m_bEchoDebugger = toDebugger;
}

void CCvLogger::SetLevelFileSizes(std::map<uint32_t, uint32_t> sizes)
{
    daxlib::lock_guard lock(m_cs);
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
    daxlib::lock_guard lock(m_cs);
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
