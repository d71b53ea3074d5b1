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
constexpr uint32_t kSizeCheckInterval = 5000;
} // namespace

using cvlog::FromU16;
using cvlog::ToU16;

CCvLoggerBuffer::CCvLoggerBuffer(Options options)
    : m_pFolder(std::move(options.folder)), m_strFileStem(std::move(options.fileStem)),
      m_strLiveName(m_strFileStem + L".txt"), m_strFileName(options.folderPath + m_strLiveName),
      m_dwMaxSize(options.maxSize), m_bBuffered(options.buffered),
      m_dwRotationCount(std::max<uint32_t>(options.rotationCount, 1)),
      m_bDropAdministrators(options.dropAdministrators), m_strBanner(std::move(options.banner))
{
}

CCvLoggerBuffer::~CCvLoggerBuffer()
{
    Close(FALSE);
    daxlib::lock_guard lock(m_srwFile);
    m_hFile.reset();
}

BOOL CCvLoggerBuffer::Append(const void* data, uint64_t size)
{
    if (m_bBuffered)
        return Write(data, size, FALSE);
    return Transfer(data, size, TRUE);
}

void CCvLoggerBuffer::CloseIfIdle(DWORD now, DWORD idleMs)
{
    // A writer holding the lock is busy writing, not idle; waiting for it here would hold up
    // every logging thread behind the disk, because the caller holds the logger's lock.
    if (!m_srwFile.try_lock())
        return;
    if (m_hFile && now - m_dwLastWrite.load() > idleMs)
        m_hFile.reset();
    m_srwFile.unlock();
}

BOOL CCvLoggerBuffer::Transfer(const void* data, uint64_t size, BOOL last)
{
    return TransferRun(static_cast<const uint8_t*>(data), &size, 1, last);
}

BOOL CCvLoggerBuffer::TransferRun(const uint8_t* data, const uint64_t* sizes, size_t count, BOOL /*last*/)
{
    // A write that should run restricted but cannot is dropped rather than made with full rights.
    if (m_bBuffered)
    {
        // The writer thread is ours: it keeps the restricted token for the rest of its life.
        if (m_bDropAdministrators.load())
        {
            daxlib::unique_handle token = cvlog::MakeAdminRestrictedToken();
            if (!token || !::SetThreadToken(nullptr, token.get()))
                return FALSE;
            m_bDropAdministrators.store(FALSE);
        }
        return WriteRun(data, sizes, count);
    }
    // Without the queue this runs on the caller's thread (under the logger's lock), whose own
    // token must survive the write.
    std::optional<cvlog::ScopedRestrictedImpersonation> restricted;
    if (m_bDropAdministrators.load())
    {
        if (!m_hRestrictedToken)
            m_hRestrictedToken = cvlog::MakeAdminRestrictedToken();
        if (!m_hRestrictedToken)
            return FALSE;
        restricted.emplace(m_hRestrictedToken.get());
        if (!restricted->Active())
            return FALSE;
    }
    return WriteRun(data, sizes, count);
}

bool CCvLoggerBuffer::OpenForWrite()
{
    if (!m_pFolder)
        return false;
    if (!m_hFile || m_lRecreate.load())
    {
        bool truncate = false;
        if (m_lRecreate.exchange(0))
        {
            m_hFile.reset();
            m_bHeaderPending = 1;
            truncate = true;
        }
        bool created = false;
        m_hFile = m_pFolder->OpenLogFile(m_strLiveName, truncate, created);
        if (!m_hFile)
            return false;
        if (created)
            m_bHeaderPending = 1;
    }
    // Others may append to the file too (it is shared for writing).
    LARGE_INTEGER zero{};
    return ::SetFilePointerEx(m_hFile.get(), zero, nullptr, FILE_END) != FALSE;
}

// The write counter counts pieces, and the size is checked whenever it is 0, so the pieces
// between two checks go out in one write. A file that cannot be opened or rotated drops the
// rest of the run, uncounted; the next run tries again.
BOOL CCvLoggerBuffer::WriteRun(const uint8_t* data, const uint64_t* sizes, size_t count)
{
    daxlib::lock_guard lock(m_srwFile);
    bool written = true;
    size_t done = 0;
    while (done < count)
    {
        if (!OpenForWrite() || (m_dwWriteCounter == 0 && !CheckRotation()))
        {
            written = false;
            break;
        }
        const size_t pieces = std::min<size_t>(count - done, kSizeCheckInterval - m_dwWriteCounter);
        m_dwWriteCounter = static_cast<uint32_t>((m_dwWriteCounter + pieces) % kSizeCheckInterval);
        if (m_bHeaderPending)
        {
            if (!m_strBanner.empty())
                WriteAll(m_strBanner.data(), m_strBanner.size() * sizeof(wchar_t));
            m_bHeaderPending = 0;
        }
        uint64_t bytes = 0;
        for (size_t i = done; i < done + pieces; ++i)
            bytes += sizes[i];
        written = WriteAll(data, bytes) && written;
        data += bytes;
        done += pieces;
    }
    if (done > 0)
        m_dwLastWrite.store(::GetTickCount());
    return written ? TRUE : FALSE;
}

bool CCvLoggerBuffer::WriteAll(const void* data, uint64_t size)
{
    const auto* p = static_cast<const uint8_t*>(data);
    while (size > 0)
    {
        const DWORD chunk = static_cast<DWORD>(std::min<uint64_t>(size, 0x40000000));
        DWORD written = 0;
        if (!::WriteFile(m_hFile.get(), p, chunk, &written, nullptr) || written == 0)
            return false;
        p += written;
        size -= written;
    }
    return true;
}

bool CCvLoggerBuffer::CheckRotation()
{
    LARGE_INTEGER size{};
    if (!::GetFileSizeEx(m_hFile.get(), &size))
        return false;
    if (size.QuadPart == 0 || size.QuadPart <= static_cast<LONGLONG>(m_dwMaxSize.load()))
        return true;

    m_hFile.reset();
    if (m_dwRotation >= m_dwRotationCount.load())
        m_dwRotation = Compact();
    ++m_dwRotation;
    const std::wstring rotated = FromU16(cvlog::RotatedFileName(ToU16(m_strFileStem.c_str()), m_dwRotation));
    // A failed rename still starts a new live file, and the old text is lost with it.
    if (!m_pFolder->Rename(m_strLiveName, rotated))
        --m_dwRotation;
    bool created = false;
    m_hFile = m_pFolder->OpenLogFile(m_strLiveName, true, created);
    if (!m_hFile)
        return false;
    m_bHeaderPending = 1;
    return true;
}

uint32_t CCvLoggerBuffer::Compact()
{
    std::vector<std::u16string> names;
    for (const auto& entry : m_pFolder->List(m_strFileStem + L"(*).txt"))
        names.push_back(ToU16(entry.name.c_str()));
    std::sort(names.begin(), names.end());
    const cvlog::CompactionPlan plan =
        cvlog::PlanCompaction(names, ToU16(m_strFileStem.c_str()), m_dwRotationCount.load());
    for (const auto& name : plan.deletes)
        m_pFolder->Delete(FromU16(name));
    for (const auto& [from, to] : plan.renames)
        m_pFolder->Rename(FromU16(from), FromU16(to));
    return plan.remaining;
}
