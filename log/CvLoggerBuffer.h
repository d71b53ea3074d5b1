#pragma once
// One log file: takes pieces of UTF-16 text (through its queue or directly), opens the file on
// the first write, writes the banner at the top of every new file, rotates it by size and
// closes it when idle.
#include "common/UniqueHandle.h"
#include "common/Locks.h"
#include "log/TransferBuffer.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

namespace cvlog
{
class CLogFolder;
}

class CCvLoggerBuffer : private CTransferBuffer
{
public:
    struct Options
    {
        // The checked folder every file operation goes through; none: records are dropped.
        std::shared_ptr<const cvlog::CLogFolder> folder;
        std::wstring folderPath; // with trailing backslash; for the file's name only
        std::wstring fileStem;   // name in the folder without ".txt"
        uint32_t maxSize = 0;
        uint32_t rotationCount = 1;
        BOOL buffered = TRUE;
        BOOL dropAdministrators = FALSE;
        std::wstring banner;
    };

    // Throws daxlib::CDaxException* when the queue cannot be set up.
    explicit CCvLoggerBuffer(Options options);
    // Everything queued reaches the file first.
    ~CCvLoggerBuffer() override;

    // Hands one piece to the queue, or writes it at once when buffering is off.
    BOOL Append(const void* data, uint64_t size);

    void SetMaxSize(uint32_t bytes) { m_dwMaxSize.store(bytes); }
    void SetRotationCount(uint32_t count) { m_dwRotationCount.store(count < 1 ? 1 : count); }
    void RequestRecreate() { m_lRecreate.store(1); }
    // Closes the handle when nothing was written for more than idleMs; the next write reopens.
    void CloseIfIdle(DWORD now, DWORD idleMs);

    const std::wstring& FileName() const { return m_strFileName; }

private:
    BOOL Transfer(const void* data, uint64_t size, BOOL last) override;
    BOOL TransferRun(const uint8_t* data, const uint64_t* sizes, size_t count, BOOL last) override;
    BOOL WriteRun(const uint8_t* data, const uint64_t* sizes, size_t count) TS_EXCLUDES(m_srwFile);
    bool OpenForWrite() TS_REQUIRES(m_srwFile);
    bool CheckRotation() TS_REQUIRES(m_srwFile);
    uint32_t Compact();
    bool WriteAll(const void* data, uint64_t size) TS_REQUIRES(m_srwFile);

    uint32_t m_bHeaderPending TS_GUARDED_BY(m_srwFile) = 1;
    std::shared_ptr<const cvlog::CLogFolder> m_pFolder;
    std::wstring m_strFileStem; // in the folder
    std::wstring m_strLiveName; // in the folder
    std::wstring m_strFileName; // full path
    std::atomic<uint32_t> m_dwMaxSize;
    uint32_t m_dwRotation TS_GUARDED_BY(m_srwFile) = 0;
    daxlib::unique_hfile m_hFile TS_GUARDED_BY(m_srwFile);
    std::atomic<uint32_t> m_lRecreate{0};
    BOOL m_bBuffered;
    std::atomic<DWORD> m_dwLastWrite{0};
    uint32_t m_dwWriteCounter TS_GUARDED_BY(m_srwFile) = 0;
    std::atomic<uint32_t> m_dwRotationCount;
    std::atomic<BOOL> m_bDropAdministrators;
    daxlib::unique_handle m_hRestrictedToken; // made once when writing without the queue
    std::wstring m_strBanner;
    daxlib::srw_lock m_srwFile;
};
