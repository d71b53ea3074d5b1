#pragma once
// Text of the diagnostic log that needs no Windows: record headers, level labels, hex dumps,
// the Windows version sentence, file naming for rotation and clean-up, and the limits applied
// to registry settings. UTF-16 text is std::u16string so this also builds where wchar_t is
// 4 bytes.
#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace cvlog
{

namespace HeaderFlag
{
constexpr uint32_t Date = 0x0001;
constexpr uint32_t Time = 0x0002;
constexpr uint32_t ThreadId = 0x0004;
constexpr uint32_t ProcessId = 0x0008;
constexpr uint32_t SessionId = 0x0010;
constexpr uint32_t User = 0x0020;
constexpr uint32_t UtcOffset = 0x0040;
constexpr uint32_t Category = 0x8000;
constexpr uint32_t Service = 0x804F; // date, time, offset, process, thread, category
} // namespace HeaderFlag

constexpr size_t kTextCapacity = 4096; // characters, terminator included

struct TimeParts
{
    int year = 0;
    int month = 0;
    int day = 0;
    int hour = 0;
    int minute = 0;
    int second = 0;
    int milliseconds = 0;
};

// Appends to a fixed buffer, cutting at capacity - 1 characters and keeping it terminated. The
// logger fills stack buffers with it, so a record costs no allocation.
template <typename Char> class BoundedText
{
public:
    BoundedText(Char* out, size_t capacity, size_t length = 0)
        : m_pOut(out), m_nCapacity(capacity), m_nLength(length)
    {
        if (m_nCapacity > 0)
            m_pOut[std::min(m_nLength, m_nCapacity - 1)] = Char();
    }
    void Put(Char c)
    {
        if (m_nLength + 1 < m_nCapacity)
        {
            m_pOut[m_nLength++] = c;
            m_pOut[m_nLength] = Char();
        }
    }
    void Put(std::basic_string_view<Char> text)
    {
        for (Char c : text)
            Put(c);
    }
    void PutAscii(const char* text)
    {
        while (*text)
            Put(static_cast<Char>(static_cast<unsigned char>(*text++)));
    }
    template <typename... Args> void Printf(const char* format, Args... args)
    {
        char buffer[64];
        if (std::snprintf(buffer, sizeof buffer, format, args...) > 0)
            PutAscii(buffer);
    }
    size_t Length() const { return m_nLength; }

private:
    Char* m_pOut;
    size_t m_nCapacity;
    size_t m_nLength;
};

// "ERROR", "WARNING", "INFO", "DEBUG"; above that "LOGLEVEL:%u " for records and
// "LOGLEVEL:%u" (no trailing blank) for dumps. The difference is old and kept on purpose.
template <typename Char> size_t LevelLabelInto(uint32_t level, bool forDump, Char* out, size_t capacity)
{
    static const char* const names[] = {"ERROR", "WARNING", "INFO", "DEBUG"};
    BoundedText<Char> text(out, capacity);
    if (level < 4)
        text.PutAscii(names[level]);
    else
        text.Printf(forDump ? "LOGLEVEL:%u" : "LOGLEVEL:%u ", level);
    return text.Length();
}
std::u16string LevelLabel(uint32_t level, bool forDump);

struct UtcOffset
{
    int hours = 0;
    int minutes = 0;
};
// Hours are the signed difference of the hours (24 added to the side whose date is later);
// minutes are the absolute difference of the minute values.
UtcOffset ComputeUtcOffset(const TimeParts& local, const TimeParts& utc);

enum class UserNameState
{
    Unavailable, // the function could not be loaded: "[] "
    Failed,      // the call failed: nothing
    Known
};

template <typename Char> struct BasicHeaderFields
{
    uint32_t flags = 0;
    TimeParts local;
    TimeParts utc;
    uint32_t processId = 0;
    uint32_t threadId = 0;
    uint32_t sessionId = 0;
    UserNameState userState = UserNameState::Failed;
    std::basic_string_view<Char> user;
    std::optional<std::basic_string_view<Char>> category;
};
using HeaderFields = BasicHeaderFields<char16_t>;

// The fields selected by flags, in the fixed order date, time, offset, process, thread,
// session, user, category, followed by ": " when anything was written. No alignment padding.
template <typename Char> size_t FormatHeaderInto(const BasicHeaderFields<Char>& f, Char* out, size_t capacity)
{
    BoundedText<Char> h(out, capacity);
    if (f.flags & HeaderFlag::Date)
        h.Printf("%.4d.%.2d.%.2d ", f.local.year, f.local.month, f.local.day);
    if (f.flags & HeaderFlag::Time)
        h.Printf("%.2d:%.2d:%.2d.%.3d ", f.local.hour, f.local.minute, f.local.second, f.local.milliseconds);
    if (f.flags & HeaderFlag::UtcOffset)
    {
        const UtcOffset offset = ComputeUtcOffset(f.local, f.utc);
        h.Printf("(%+03d:%02d) ", offset.hours, offset.minutes);
    }
    if (f.flags & HeaderFlag::ProcessId)
        h.Printf("[%u] ", f.processId);
    if (f.flags & HeaderFlag::ThreadId)
        h.Printf("[%u] ", f.threadId);
    if (f.flags & HeaderFlag::SessionId)
        h.Printf("[%u] ", f.sessionId);
    if (f.flags & HeaderFlag::User)
    {
        if (f.userState == UserNameState::Unavailable)
            h.PutAscii("[] ");
        else if (f.userState == UserNameState::Known)
        {
            h.Put(Char('['));
            h.Put(f.user);
            h.PutAscii("] ");
        }
    }
    if ((f.flags & HeaderFlag::Category) && f.category)
    {
        h.Put(Char('['));
        h.Put(*f.category);
        h.Put(Char(']'));
    }
    if (h.Length() > 0)
        h.PutAscii(": ");
    return h.Length();
}
std::u16string FormatHeaderFields(const HeaderFields& fields, size_t capacity = kTextCapacity);

// Keeps the widest header seen so far and pads shorter ones to it, so that message texts start
// in one column that only ever moves right. Updated without a lock: a race only changes padding.
class HeaderAlignment
{
public:
    // Blanks to append to a header of `length` characters in a buffer of `capacity`.
    size_t PaddingFor(size_t length, size_t capacity);
    template <typename Char> size_t Pad(Char* out, size_t length, size_t capacity)
    {
        BoundedText<Char> text(out, capacity, length);
        for (size_t n = PaddingFor(length, capacity); n > 0; --n)
            text.Put(Char(' '));
        return text.Length();
    }
    void Pad(std::u16string& header, size_t capacity = kTextCapacity);
    size_t Width() const { return m_nWidth.load(std::memory_order_relaxed); }

private:
    std::atomic<size_t> m_nWidth{0};
};

// " %.2x" for every byte: count * 3 characters into out.
template <typename Char> void WriteDumpText(const void* bytes, size_t count, Char* out)
{
    static const char digits[] = "0123456789abcdef";
    const auto* p = static_cast<const unsigned char*>(bytes);
    for (size_t i = 0; i < count; ++i)
    {
        *out++ = Char(' ');
        *out++ = Char(digits[p[i] >> 4]);
        *out++ = Char(digits[p[i] & 0x0F]);
    }
}
std::u16string DumpText(const void* bytes, size_t count);

struct WindowsVersionInfo
{
    bool queryOk = true;
    uint32_t platformId = 2; // NT
    uint32_t major = 0;
    uint32_t minor = 0;
    uint32_t build = 0;
    std::u16string servicePack;
    uint16_t suiteMask = 0;
    uint8_t productType = 1; // 1: workstation
    uint16_t processorArchitecture = 0;
    int serverR2 = 0; // system metric 89
};

namespace Arch
{
constexpr uint16_t X86 = 0;
constexpr uint16_t Itanium = 6;
constexpr uint16_t X64 = 9;
} // namespace Arch

std::u16string WindowsVersionText(const WindowsVersionInfo& info);

// "<stem>(NN).txt"
std::u16string RotatedFileName(const std::u16string& stem, uint32_t number);

struct CompactionPlan
{
    std::vector<std::u16string> deletes;
    std::vector<std::pair<std::u16string, std::u16string>> renames; // from, to; in order
    uint32_t remaining = 0;
};
// `names` are the rotated files of `stem` in name order. The oldest go until fewer than
// rotationCount remain; the rest are renumbered from 1.
CompactionPlan PlanCompaction(const std::vector<std::u16string>& names, const std::u16string& stem,
                              uint32_t rotationCount);

// "<text><base>-<session>-<pid>_YYYY-MM-DD-hhmmss"
std::u16string PerProcessFileStem(const std::u16string& text, const std::u16string& base, uint32_t sessionId,
                                  uint32_t processId, const TimeParts& local);

struct FileStamp
{
    std::u16string name;
    uint64_t lastWrite = 0; // 100 ns units
};
// Files to delete so that fewer than `limit` files that name `baseName` remain, oldest first.
// A limit of 0 keeps everything.
std::vector<std::u16string> SelectOverLimit(std::vector<FileStamp> files, uint32_t limit,
                                            const std::u16string& baseName);
// The per-process file to continue among this process's files: the newest, when it was written
// within the hour before `now` (100 ns units); its name without ".txt", or empty.
std::u16string ContinuedFileStem(const std::vector<FileStamp>& files, uint64_t now);
// Older than 90 days.
bool IsExpired(uint64_t lastWrite, uint64_t now);
// Whether a file name matches a pattern of `*` (any run) and `?` (one character), ignoring the
// case of ASCII letters, as the logger's file listings need.
bool MatchesWildcard(std::u16string_view name, std::u16string_view pattern);

constexpr uint32_t kDefaultRotationCount = 10;
constexpr uint32_t kDefaultMaxFileSize = 52428800;
constexpr uint32_t kDefaultOldFileLimit = 300;

// "RotationLogFileNumber": missing 10, 0 becomes 1, above 99 becomes 99.
uint32_t ClampRotationCount(std::optional<uint32_t> value);
// "RotationLogFileSizeMB" in bytes: 0 or above 1000 becomes 1000 MiB.
uint32_t MaxFileSizeFromMegabytes(uint32_t megabytes);
// A "LogLevel" stored as text: decimal digits only.
std::optional<uint32_t> ParseDecimalLevel(const std::u16string& text);

std::u16string Widen(const std::string& ascii);

} // namespace cvlog
