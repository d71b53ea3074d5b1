#include "log/LogText.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace cvlog
{

namespace
{
template <typename... Args> std::u16string AsciiFormat(const char* format, Args... args)
{
    char buffer[128];
    const int n = std::snprintf(buffer, sizeof buffer, format, args...);
    if (n <= 0)
        return {};
    return Widen(std::string(buffer, std::min(static_cast<size_t>(n), sizeof buffer - 1)));
}

uint64_t DateKey(const TimeParts& t)
{
    return (static_cast<uint64_t>(t.year) << 32) + (static_cast<uint64_t>(t.month) << 16) +
           static_cast<uint64_t>(t.day);
}
} // namespace

std::u16string Widen(const std::string& ascii)
{
    std::u16string text;
    text.reserve(ascii.size());
    for (unsigned char c : ascii)
        text.push_back(static_cast<char16_t>(c));
    return text;
}

std::u16string LevelLabel(uint32_t level, bool forDump)
{
    char16_t buffer[260];
    return std::u16string(buffer, LevelLabelInto(level, forDump, buffer, 260));
}

UtcOffset ComputeUtcOffset(const TimeParts& local, const TimeParts& utc)
{
    int localHour = local.hour;
    int utcHour = utc.hour;
    const uint64_t localDate = DateKey(local);
    const uint64_t utcDate = DateKey(utc);
    if (localDate > utcDate)
        localHour += 24;
    else if (localDate < utcDate)
        utcHour += 24;
    return {localHour - utcHour, std::abs(local.minute - utc.minute)};
}

std::u16string FormatHeaderFields(const HeaderFields& fields, size_t capacity)
{
    std::u16string header(capacity, u'\0');
    header.resize(FormatHeaderInto(fields, header.data(), capacity));
    return header;
}

size_t HeaderAlignment::PaddingFor(size_t length, size_t capacity)
{
    const size_t width = m_nWidth.load(std::memory_order_relaxed);
    if (length > width)
    {
        m_nWidth.store(length, std::memory_order_relaxed);
        return 0;
    }
    const size_t target = capacity > 0 ? std::min(width, capacity - 1) : 0;
    return target > length ? target - length : 0;
}

void HeaderAlignment::Pad(std::u16string& header, size_t capacity)
{
    header.append(PaddingFor(header.size(), capacity), u' ');
}

std::u16string DumpText(const void* bytes, size_t count)
{
    std::u16string text(count * 3, u' ');
    WriteDumpText(bytes, count, text.data());
    return text;
}

std::u16string WindowsVersionText(const WindowsVersionInfo& v)
{
    if (!v.queryOk)
        return u"GetVersionEx failed.";
    if (v.platformId != 2 || v.major < 5)
        return {};
    const bool workstation = v.productType == 1;
    std::u16string text;
    if (v.major > 6)
    {
        text = AsciiFormat("Windows version %d.%d%s", static_cast<int>(v.major), static_cast<int>(v.minor),
                           workstation ? " " : " Server ");
    }
    else if (v.major == 6)
    {
        if (v.minor == 0)
            text = workstation ? u"Windows Vista " : u"Windows Server 2008 ";
        else if (v.minor == 1)
            text = workstation ? u"Windows 7 " : u"Windows Server 2008 R2 ";
        else if (v.minor == 2)
            text = workstation ? u"Windows 8 " : u"Windows Server 2012 ";
        // 6.3 and later 6.x releases get no name: the old table stops at 6.2.
    }
    else if (v.major == 5 && v.minor == 2)
    {
        if (v.serverR2 != 0)
            text = u"Windows Server 2003 R2, ";
        else if (v.suiteMask & 0x2000)
            text = u"Windows Storage Server 2003";
        else if (v.suiteMask & 0x8000)
            text = u"Windows Home Server";
        else if (workstation && v.processorArchitecture == Arch::X64)
            text = u"Windows XP Professional x64 Edition";
        else
            text = u"Windows Server 2003, ";
        if (!workstation)
        {
            if (v.processorArchitecture == Arch::Itanium)
            {
                if (v.suiteMask & 0x80)
                    text += u"Datacenter Edition for Itanium-based Systems";
                else if (v.suiteMask & 0x2)
                    text += u"Enterprise Edition for Itanium-based Systems";
            }
            else if (v.processorArchitecture == Arch::X64)
            {
                if (v.suiteMask & 0x80)
                    text += u"Datacenter x64 Edition";
                else if (v.suiteMask & 0x2)
                    text += u"Enterprise x64 Edition";
                else
                    text += u"Standard x64 Edition";
            }
            else
            {
                if (v.suiteMask & 0x4000)
                    text += u"Compute Cluster Edition";
                else if (v.suiteMask & 0x80)
                    text += u"Datacenter Edition";
                else if (v.suiteMask & 0x2)
                    text += u"Enterprise Edition";
                else if (v.suiteMask & 0x400)
                    text += u"Web Edition";
                else
                    text += u"Standard Edition";
            }
        }
    }
    else if (v.major == 5 && v.minor == 1)
    {
        text = u"Windows XP ";
        text += (v.suiteMask & 0x200) ? u"Home Edition" : u"Professional";
    }
    else if (v.major == 5 && v.minor == 0)
    {
        text = u"Windows 2000 ";
        if (workstation)
            text += u"Professional";
        else if (v.suiteMask & 0x80)
            text += u"Datacenter Server";
        else if (v.suiteMask & 0x2)
            text += u"Advanced Server";
        else
            text += u"Server";
    }
    if (!v.servicePack.empty())
        text += u" " + v.servicePack;
    text += AsciiFormat(" (build %u)", v.build);
    if (v.major >= 6)
    {
        if (v.processorArchitecture == Arch::X64)
            text += u", 64-bit";
        else if (v.processorArchitecture == Arch::X86)
            text += u", 32-bit";
    }
    return text;
}

std::u16string RotatedFileName(const std::u16string& stem, uint32_t number)
{
    return stem + AsciiFormat("(%02u).txt", number);
}

CompactionPlan PlanCompaction(const std::vector<std::u16string>& names, const std::u16string& stem,
                              uint32_t rotationCount)
{
    CompactionPlan plan;
    size_t first = 0;
    while (names.size() - first >= std::max<uint32_t>(rotationCount, 1) && first < names.size())
        plan.deletes.push_back(names[first++]);
    uint32_t number = 0;
    for (size_t i = first; i < names.size(); ++i)
    {
        const std::u16string target = RotatedFileName(stem, ++number);
        if (names[i] != target)
            plan.renames.emplace_back(names[i], target);
    }
    plan.remaining = number;
    return plan;
}

std::u16string PerProcessFileStem(const std::u16string& text, const std::u16string& base, uint32_t sessionId,
                                  uint32_t processId, const TimeParts& t)
{
    return text + base +
           AsciiFormat("-%d-%d_%04d-%02d-%02d-%02d%02d%02d", static_cast<int>(sessionId),
                       static_cast<int>(processId), t.year, t.month, t.day, t.hour, t.minute, t.second);
}

std::vector<std::u16string> SelectOverLimit(std::vector<FileStamp> files, uint32_t limit,
                                            const std::u16string& baseName)
{
    std::vector<std::u16string> doomed;
    if (limit == 0)
        return doomed;
    std::erase_if(files, [&](const FileStamp& f) { return f.name.find(baseName) == std::u16string::npos; });
    // Oldest first; files written at the same moment keep the order they were listed in.
    std::vector<size_t> order(files.size());
    for (size_t i = 0; i < order.size(); ++i)
        order[i] = i;
    std::sort(order.begin(), order.end(),
              [&](size_t a, size_t b) {
                  return files[a].lastWrite != files[b].lastWrite ? files[a].lastWrite < files[b].lastWrite
                                                                  : a < b;
              });
    size_t first = 0;
    while (order.size() - first >= limit)
        doomed.push_back(files[order[first++]].name);
    return doomed;
}

std::u16string ContinuedFileStem(const std::vector<FileStamp>& files, uint64_t now)
{
    const FileStamp* latest = nullptr;
    for (const FileStamp& file : files)
        if (!latest || file.lastWrite > latest->lastWrite)
            latest = &file;
    constexpr uint64_t kHour = 3600ULL * 10000000ULL;
    if (!latest || latest->lastWrite + kHour <= now || latest->name.size() <= 4)
        return {};
    return latest->name.substr(0, latest->name.size() - 4);
}

bool IsExpired(uint64_t lastWrite, uint64_t now)
{
    constexpr uint64_t kNinetyDays = 7776000ULL * 10000000ULL;
    return now > kNinetyDays && lastWrite < now - kNinetyDays;
}

uint32_t ClampRotationCount(std::optional<uint32_t> value)
{
    if (!value)
        return kDefaultRotationCount;
    return std::clamp<uint32_t>(*value, 1, 99);
}

uint32_t MaxFileSizeFromMegabytes(uint32_t megabytes)
{
    if (megabytes == 0 || megabytes > 1000)
        megabytes = 1000;
    return megabytes << 20;
}

std::optional<uint32_t> ParseDecimalLevel(const std::u16string& text)
{
    size_t i = 0;
    while (i < text.size() && text[i] == u' ')
        ++i;
    uint64_t value = 0;
    const size_t firstDigit = i;
    for (; i < text.size() && text[i] >= u'0' && text[i] <= u'9'; ++i)
    {
        value = value * 10 + static_cast<uint64_t>(text[i] - u'0');
        if (value > 0xFFFFFFFFULL)
            return std::nullopt;
    }
    while (i < text.size() && text[i] == u' ')
        ++i;
    if (i == firstDigit || i != text.size())
        return std::nullopt;
    return static_cast<uint32_t>(value);
}

bool MatchesWildcard(std::u16string_view name, std::u16string_view pattern)
{
    const auto fold = [](char16_t c)
    { return c >= u'A' && c <= u'Z' ? static_cast<char16_t>(c - u'A' + u'a') : c; };
    size_t n = 0;
    size_t p = 0;
    size_t starP = std::u16string_view::npos;
    size_t starN = 0;
    while (n < name.size())
    {
        if (p < pattern.size() && (pattern[p] == u'?' || fold(pattern[p]) == fold(name[n])))
        {
            ++n;
            ++p;
        }
        else if (p < pattern.size() && pattern[p] == u'*')
        {
            starP = p++;
            starN = n;
        }
        else if (starP != std::u16string_view::npos)
        {
            p = starP + 1;
            n = ++starN;
        }
        else
        {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == u'*')
        ++p;
    return p == pattern.size();
}

} // namespace cvlog
