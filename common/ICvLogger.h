#pragma once
// The interface of the process's one logger. Every object that logs holds a shared pointer to
// it. Levels: 0 ERROR, 1 WARNING, 2 INFO, 3 DEBUG, 4 and above unnamed trace levels; a record
// is written when the current level is at least the record's level.
#include <cstdarg>
#include <cstdint>

namespace LogLevel
{
constexpr uint32_t Error = 0;
constexpr uint32_t Warning = 1;
constexpr uint32_t Info = 2;
constexpr uint32_t Debug = 3;
constexpr uint32_t Trace = 4;
} // namespace LogLevel

class ICvLogger
{
public:
    // A record at a level, filtered by the current level.
    virtual void LogV(uint32_t level, const wchar_t* format, va_list args) = 0;
    // A record under a free category text; never filtered.
    virtual void LogCategoryV(const wchar_t* category, const wchar_t* format, va_list args) = 0;
    // A record followed by a hex dump of `count` bytes, filtered by level.
    virtual void DumpV(uint32_t level, const void* bytes, uint32_t count, const wchar_t* format,
                       va_list args) = 0;
    // True when the current level is at least `level` and a log file exists.
    virtual bool IsLevelEnabled(uint32_t level) const = 0;
    virtual ~ICvLogger() = default;

    void Log(uint32_t level, const wchar_t* format, ...)
    {
        va_list args;
        va_start(args, format);
        LogV(level, format, args);
        va_end(args);
    }
    void LogCategory(const wchar_t* category, const wchar_t* format, ...)
    {
        va_list args;
        va_start(args, format);
        LogCategoryV(category, format, args);
        va_end(args);
    }
    void Dump(uint32_t level, const void* bytes, uint32_t count, const wchar_t* format, ...)
    {
        va_list args;
        va_start(args, format);
        DumpV(level, bytes, count, format, args);
        va_end(args);
    }
};
