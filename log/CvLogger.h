#pragma once
// The process's one logger: levelled records, free-category records and hex dumps, written as
// UTF-16LE lines (CRLF, no byte-order mark) to rotating files under a folder, tuned live from
// the registry.
#include "common/ICvLogger.h"
#include "common/Locks.h"
#include "common/UniqueHandle.h"
#include "common/WorkerThread.h"
#include "log/CleanupPool.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

class CCvLoggerBuffer;
namespace cvlog
{
class CLogFolder;
class IFolderSystem;
} // namespace cvlog

class CCvLogger : public ICvLogger
{
public:
    // The folder is the shell folder nFolderId + company + product; the logger owns the company
    // and product folders (cvlog::CLogFolder::Open). Null on failure.
    static std::shared_ptr<CCvLogger> CreateLogger(HKEY hRoot, const wchar_t* szSubKey,
                                                   const wchar_t* szCompany, const wchar_t* szProduct,
                                                   const wchar_t* szBaseName, const wchar_t* szPrefix,
                                                   int nFolderId, BOOL bCreateKey, BOOL bBuffered,
                                                   uint32_t dwLevel);
    // The same with the folder given (a trailing backslash is added when missing); its parent
    // must exist, and the logger owns the last folder. hRoot or szSubKey null: no registry
    // settings and no watch thread. The folder system is replaced by tests.
    static std::shared_ptr<CCvLogger> CreateLoggerInFolder(
        const wchar_t* szFolder, HKEY hRoot, const wchar_t* szSubKey, const wchar_t* szBaseName,
        const wchar_t* szPrefix, BOOL bCreateKey, BOOL bBuffered, uint32_t dwLevel,
        std::shared_ptr<cvlog::IFolderSystem> folderSystem = nullptr);

    CCvLogger(const wchar_t* szFolder, uint32_t dwLevel, uint32_t dwMaxFileSize);
    ~CCvLogger() override;
    CCvLogger(const CCvLogger&) = delete;
    CCvLogger& operator=(const CCvLogger&) = delete;

    // ICvLogger
    void LogV(uint32_t level, const wchar_t* format, va_list args) override;
    void LogCategoryV(const wchar_t* category, const wchar_t* format, va_list args) override;
    void DumpV(uint32_t level, const void* bytes, uint32_t count, const wchar_t* format,
               va_list args) override;
    bool IsLevelEnabled(uint32_t level) const override;

    void LogToFile(uint32_t fileIndex, uint32_t level, const wchar_t* format, ...);
    void DumpToFile(uint32_t fileIndex, uint32_t level, const void* bytes, uint32_t count,
                    const wchar_t* format, ...);

    // Stores the level and, with a writable registry key, writes it as "LogLevel". Returns the
    // registry's error code (0 without a key); the level is set either way.
    uint32_t SetLevel(uint32_t level);
    void GetLevel(uint32_t* level) const;
    void SetHeaderFlags(uint32_t flags) { m_dwHeaderFlags.store(flags); }
    uint32_t GetHeaderFlags() const { return m_dwHeaderFlags.load(); }
    void SetEcho(BOOL toConsole, BOOL toDebugger);
    void SetBuffered(BOOL buffered) { m_bBuffered = buffered; }
    // Maximum file size to use at a given level (set by the logger's creator).
    void SetLevelFileSizes(std::map<uint32_t, uint32_t> sizes);

    uint32_t GetRotationCount() const { return m_dwRotationCount.load(); }
    uint32_t GetMaxFileSize() const { return m_dwMaxFileSize.load(); }
    void SetRotationCount(uint32_t count);
    void SetMaxFileSize(uint32_t bytes);
    // "OverrideLogMaxFiles" from the logger's key when present, otherwise `fallback` is stored.
    uint32_t GetOldFileLimit(uint32_t fallback);
    uint32_t GetOldFileLimit() const { return m_dwOldFileLimit.load(); }

    // Empties the buffer; writes "Error %u: <system text>". True for code 0 or a known text.
    static bool FormatError(uint32_t code, wchar_t* buffer, size_t capacity);

    // Files. Index 0 is the main file.
    BOOL OpenMainFile(const wchar_t* szBaseName, const wchar_t* szPrefix);
    // A per-process file named after `name`; replaces the main file (returns 0) or is added
    // under a new index (returned). -1 on failure.
    int AddLogFile(const wchar_t* name, BOOL replaceMain);
    int AddUserLogFile();
    int AddProcessLogFile();
    BOOL RemoveLogFile(uint32_t fileIndex);
    BOOL RequestRecreate(uint32_t fileIndex);
    BOOL GetLogFilePath(uint32_t fileIndex, wchar_t* buffer /* MAX_PATH */);
    const std::wstring& GetFolder() const { return m_strFolder; }
    // What the check of the log folder found and did, one line each (empty: all was well). The
    // lines are also written to the log; the service reports them in the event log.
    std::vector<std::wstring> GetFolderFindings() const;
    // Every file gets SYSTEM and Administrators full control and nothing for anyone else,
    // whatever `restrict` asks. `strict` writes under a token restricted to what Administrators
    // may do.
    void SetLogFileSecurity(BOOL restrict, BOOL strict);

    // Registry.
    BOOL OpenRegistry(HKEY hRoot, const wchar_t* szSubKey, BOOL startWatch, BOOL create);
    void LoadSettings(HKEY hKey, BOOL writeBack);

    // Clean-up of old per-process files on a single-thread pool.
    BOOL CreateCleanupPool();
    void WaitForCleanup();

    // Banner and event log.
    void BuildBanner();
    const std::wstring& GetBanner() const { return m_strBanner; }
    static void GetWindowsVersionText(wchar_t* buffer, size_t capacity);
    static uint32_t RegisterEventSourceKey(const wchar_t* provider);
    void InitEventLogging(const wchar_t* provider);
    void EventLog(uint32_t level, uint32_t eventId, PSID userSid, const wchar_t* format, ...);

    // Width of the widest record header so far, shared by all loggers of the process.
    static size_t HeaderWidth();

private:
    static std::shared_ptr<CCvLogger> Create(const std::wstring& folder, const std::wstring& root,
                                             std::vector<std::wstring> owned, HKEY hRoot,
                                             const wchar_t* szSubKey, const wchar_t* szBaseName,
                                             const wchar_t* szPrefix, BOOL bCreateKey, BOOL bBuffered,
                                             uint32_t dwLevel,
                                             std::shared_ptr<cvlog::IFolderSystem> folderSystem);
    void LogToFileV(uint32_t fileIndex, uint32_t level, const wchar_t* format, va_list args);
    void DumpToFileV(uint32_t fileIndex, uint32_t level, const void* bytes, uint32_t count,
                     const wchar_t* format, va_list args);
    void WriteRecord(uint32_t fileIndex, const wchar_t* category, const wchar_t* message, size_t length);
    // Into out[kTextCapacity]; returns the length, alignment blanks included.
    size_t BuildHeader(const wchar_t* category, wchar_t* out) const;
    void ApplyLevel(uint32_t level);
    void PropagateFileSettings();
    // `stem`: the file's name in the folder without ".txt".
    std::unique_ptr<CCvLoggerBuffer> MakeFile(const std::wstring& stem);
    std::wstring PerProcessStem(const wchar_t* name) const;
    void CloseIdleFiles();
    // The registry key of the settings, copied under the lock.
    std::pair<HKEY, std::wstring> RegistryKey() const;
    void WatchLoop(HANDLE stop);
    void Cleanup();

    using GetUserNameFn = BOOL(WINAPI*)(LPWSTR, LPDWORD);

    std::atomic<uint32_t> m_dwLevel;
    uint32_t m_dwProcessId;
    uint32_t m_dwSessionId = 0xFFFFFFFF;
    std::atomic<uint32_t> m_dwHeaderFlags{0};
    // Records hold it for a few copies; a short spin avoids sleeping on it.
    mutable daxlib::critical_section m_cs{4000};
    std::vector<wchar_t> m_dumpBuffer TS_GUARDED_BY(m_cs);
    BOOL m_bEchoConsole = FALSE;
    BOOL m_bEchoDebugger = FALSE;
    std::map<uint32_t, std::unique_ptr<CCvLoggerBuffer>> m_files TS_GUARDED_BY(m_cs);
    std::atomic<size_t> m_nFileCount{0};
    std::wstring m_strBanner;

    HKEY m_hRootKey = nullptr;
    std::wstring m_strSubKey;
    bool m_bKeyWritable = false;
    std::wstring m_strFolder;
    // The existing folder above the ones the logger owns, and those.
    std::wstring m_strFolderRoot;
    std::vector<std::wstring> m_ownedFolders;
    std::shared_ptr<cvlog::IFolderSystem> m_pFolderSystem;
    std::shared_ptr<const cvlog::CLogFolder> m_pFolder; // null: not opened yet, or unusable
    bool m_bFolderOpened = false;
    std::vector<std::wstring> m_folderFindings;
    std::wstring m_strBaseName;
    std::wstring m_strPrefix;
    uint32_t m_dwNextIndex = 0;
    BOOL m_bBuffered = TRUE;
    BOOL m_bStrict = FALSE;

    CLogCleanupPool m_cleanupPool;

    std::atomic<uint32_t> m_dwRotationCount;
    std::atomic<uint32_t> m_dwMaxFileSize;
    std::atomic<uint32_t> m_dwOldFileLimit;
    std::map<uint32_t, uint32_t> m_levelFileSizes;

    daxlib::unique_hmodule m_hAdvapi;
    GetUserNameFn m_pfnGetUserName = nullptr;
    daxlib::unique_event_source m_hEventSource;

    // Last, so that the watch thread has ended before any member it uses goes.
    daxlib::CWorkerThread m_watch;
};
