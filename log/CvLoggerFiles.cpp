// The logger's files: the checked folder, the main file, per-process and per-user files, and the
// clean-up job that removes old per-process files. Every file is reached through the folder's
// handle (cvlog::CLogFolder), never by a path.
#include "log/CvLogger.h"

#include "common/DaxException.h"
#include "common/Guarded.h"
#include "common/WideFormat.h"
#include "log/CvLoggerBuffer.h"
#include "log/LogConversions.h"
#include "log/LogFolder.h"
#include "log/LogText.h"
#include "log/RestrictedToken.h"

#include <algorithm>
#include <mutex>
#include <optional>
#include <vector>

namespace
{
constexpr uint32_t kNoFileAtIndex = ERROR_NOT_FOUND;
} // namespace

using cvlog::FileTimeValue;
using cvlog::FromU16;
using cvlog::ToParts;
using cvlog::ToU16;

std::unique_ptr<CCvLoggerBuffer> CCvLogger::MakeFile(const std::wstring& stem)
{
    CCvLoggerBuffer::Options options;
    options.folder = m_pFolder;
    options.folderPath = m_strFolder;
    options.fileStem = stem;
    options.maxSize = m_dwMaxFileSize.load();
    options.rotationCount = std::max<uint32_t>(m_dwRotationCount.load(), 1);
    options.buffered = m_bBuffered;
    options.dropAdministrators = m_bStrict;
    options.banner = m_strBanner;
    return std::make_unique<CCvLoggerBuffer>(std::move(options));
}

BOOL CCvLogger::OpenMainFile(const wchar_t* szBaseName, const wchar_t* szPrefix)
{
    daxlib::lock_guard lock(m_cs);
    m_strBaseName = szBaseName ? szBaseName : L"";
    m_strPrefix = szPrefix ? szPrefix : L"";
    // Checked once, before the first write; a folder that fails leaves every file without one,
    // and records are dropped.
    if (!m_bFolderOpened)
    {
        m_bFolderOpened = true;
        m_pFolder =
            cvlog::CLogFolder::Open(m_pFolderSystem, m_strFolderRoot, m_ownedFolders, m_folderFindings);
    }
    std::wstring stem;
    if (!m_strPrefix.empty())
        stem += m_strPrefix + L"-";
    stem += m_strBaseName;
    m_files[m_dwNextIndex++] = MakeFile(stem);
    m_nFileCount = m_files.size();
    return TRUE;
}

std::vector<std::wstring> CCvLogger::GetFolderFindings() const
{
    daxlib::lock_guard lock(m_cs);
    return m_folderFindings;
}

std::wstring CCvLogger::PerProcessStem(const wchar_t* name) const
{
    std::wstring text;
    if (!m_strPrefix.empty())
        text += m_strPrefix + L"-";
    text += name;
    text += L"-";
    const std::wstring pattern =
        daxlib::Format(L"%s%s-%d-%d*.txt", text.c_str(), m_strBaseName.c_str(),
                       static_cast<int>(m_dwSessionId), static_cast<int>(m_dwProcessId));

    FILETIME nowUtc;
    ::GetSystemTimeAsFileTime(&nowUtc);
    std::vector<cvlog::FileStamp> mine;
    if (m_pFolder)
        for (const auto& entry : m_pFolder->List(pattern))
            mine.push_back({ToU16(entry.name.c_str()), entry.lastWrite});
    const std::u16string continued = cvlog::ContinuedFileStem(mine, FileTimeValue(nowUtc));
    if (!continued.empty())
        return FromU16(continued);

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
    m_cleanupPool.Submit();
    int result = -1;
    daxlib::GuardedCall(nullptr, L"CCvLogger::AddLogFile",
                        [&]
                        {
                            daxlib::lock_guard lock(m_cs);
                            auto file = MakeFile(PerProcessStem(name));
                            if (replaceMain)
                            {
                                m_files[0] = std::move(file);
                                m_dwNextIndex = std::max<uint32_t>(m_dwNextIndex, 1);
                                result = 0;
                            }
                            else
                            {
                                result = static_cast<int>(m_dwNextIndex++);
                                m_files[static_cast<uint32_t>(result)] = std::move(file);
                            }
                            m_nFileCount = m_files.size();
                        });
    return result;
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
    daxlib::lock_guard lock(m_cs);
    const auto it = m_files.find(fileIndex);
    if (it == m_files.end())
    {
        ::SetLastError(kNoFileAtIndex);
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
    daxlib::lock_guard lock(m_cs);
    const auto it = m_files.find(fileIndex);
    if (it == m_files.end())
    {
        ::SetLastError(kNoFileAtIndex);
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
    daxlib::lock_guard lock(m_cs);
    const auto it = m_files.find(fileIndex);
    if (it == m_files.end())
        return FALSE;
    const DWORD length = ::GetFullPathNameW(it->second->FileName().c_str(), MAX_PATH, buffer, nullptr);
    return length > 0 && length < MAX_PATH;
}

void CCvLogger::SetLogFileSecurity(BOOL /*restrict*/, BOOL strict)
{
    daxlib::lock_guard lock(m_cs);
    m_bStrict = strict;
    m_files.clear();
    m_nFileCount = 0;
    m_dwNextIndex = 0;
    daxlib::GuardedCall(nullptr, L"CCvLogger::SetLogFileSecurity",
                        [this] { OpenMainFile(m_strBaseName.c_str(), m_strPrefix.c_str()); });
}

BOOL CCvLogger::CreateCleanupPool()
{
    return m_cleanupPool.Create([this] { Cleanup(); }) ? TRUE : FALSE;
}

void CCvLogger::WaitForCleanup()
{
    m_cleanupPool.Wait();
}

// Runs as the service, so it deletes only through the checked folder, and only per-process files
// of this logger's base name: "<name>-<base>-<session>-<process>_<time>.txt" and their rotations.
void CCvLogger::Cleanup()
{
    std::optional<cvlog::ScopedRestrictedImpersonation> restricted;
    std::shared_ptr<const cvlog::CLogFolder> folder;
    std::wstring base;
    {
        daxlib::lock_guard lock(m_cs);
        if (m_bStrict)
            restricted.emplace();
        folder = m_pFolder;
        base = m_strBaseName;
    }
    if (!folder || base.empty())
        return;

    std::vector<cvlog::FileStamp> files;
    for (const auto& entry : folder->List(daxlib::Format(L"*-%s-*.txt", base.c_str())))
        files.push_back({ToU16(entry.name.c_str()), entry.lastWrite});

    // The age limit compares with local time taken as file time; kept as the old code did it.
    SYSTEMTIME local;
    ::GetLocalTime(&local);
    FILETIME now{};
    ::SystemTimeToFileTime(&local, &now);
    std::vector<cvlog::FileStamp> kept;
    for (const auto& file : files)
    {
        if (cvlog::IsExpired(file.lastWrite, FileTimeValue(now)))
            folder->Delete(FromU16(file.name));
        else
            kept.push_back(file);
    }

    const uint32_t limit = m_dwOldFileLimit.load();
    if (limit == 0)
        return;
    for (const auto& name : cvlog::SelectOverLimit(std::move(kept), limit, ToU16(base.c_str())))
        folder->Delete(FromU16(name));
}
