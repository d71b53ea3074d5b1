#pragma once
// A logger for tests that keeps every record in memory, so a test can check what a component
// reported and wait for a line to appear.
#include "common/ICvLogger.h"
#include "common/WideFormat.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

namespace testsupport
{

struct LogRecord
{
    uint32_t level;
    std::wstring category; // empty for levelled records
    std::wstring text;
};

class CapturingLogger : public ICvLogger
{
public:
    explicit CapturingLogger(uint32_t level = 4) : m_level(level) {}

    void LogV(uint32_t level, const wchar_t* format, va_list args) override
    {
        if (level > m_level.load())
            return;
        Add({level, L"", daxlib::FormatV(format, args)});
    }
    void LogCategoryV(const wchar_t* category, const wchar_t* format, va_list args) override
    {
        Add({0, category ? category : L"", daxlib::FormatV(format, args)});
    }
    void DumpV(uint32_t level, const void*, uint32_t, const wchar_t* format, va_list args) override
    {
        LogV(level, format, args);
    }
    bool IsLevelEnabled(uint32_t level) const override { return level <= m_level.load(); }

    void SetLevel(uint32_t level) { m_level = level; }

    std::vector<LogRecord> Records() const
    {
        std::lock_guard lock(m_mutex);
        return m_records;
    }
    size_t Count(const std::wstring& fragment) const
    {
        std::lock_guard lock(m_mutex);
        return CountLocked(fragment);
    }
    bool Contains(const std::wstring& fragment) const { return Count(fragment) > 0; }
    // Waits until at least `times` records contain the fragment.
    bool WaitFor(const std::wstring& fragment, std::chrono::milliseconds limit, size_t times = 1) const
    {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, limit, [&] { return CountLocked(fragment) >= times; });
    }

private:
    size_t CountLocked(const std::wstring& fragment) const
    {
        return static_cast<size_t>(std::count_if(m_records.begin(), m_records.end(),
                                                 [&](const LogRecord& r)
                                                 { return r.text.find(fragment) != std::wstring::npos; }));
    }
    void Add(LogRecord record)
    {
        {
            std::lock_guard lock(m_mutex);
            m_records.push_back(std::move(record));
        }
        m_changed.notify_all();
    }

    std::atomic<uint32_t> m_level;
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::vector<LogRecord> m_records;
};

} // namespace testsupport
