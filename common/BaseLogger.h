#pragma once
// The logging base of most classes: a record is "<origin>: <tag>: <message>", where the origin
// names class, method and source line ("CPipeServer::Start: (51)") and the tag names the object.
#include "common/ICvLogger.h"

#include <cstdarg>
#include <cstdint>
#include <memory>
#include <string>

namespace daxlib
{
class CDaxException;

// An object's address for a "%p" in a log record.
template <class T> const void* Addr(const T* object) noexcept
{
    return object;
}
template <class T> const void* Addr(const std::shared_ptr<T>& object) noexcept
{
    return object.get();
}
} // namespace daxlib

namespace CommonHelper::CvLogger
{

class CBaseLogger
{
public:
    explicit CBaseLogger(std::shared_ptr<ICvLogger> logger = nullptr) : m_pLogger(std::move(logger)) {}
    virtual ~CBaseLogger() = default;

    CBaseLogger(const CBaseLogger&) = default;
    CBaseLogger& operator=(const CBaseLogger&) = default;

    // The object's tag in every record it writes; empty unless a class says otherwise.
    virtual std::wstring GetLogTag() const { return {}; }

    // Does nothing without a logger or below the logger's level; formats at most 4095
    // characters (cutting the rest) and keeps the thread's last-error value.
    void Log(uint32_t level, const wchar_t* origin, const wchar_t* format, ...) const;
    void LogV(uint32_t level, const wchar_t* origin, const wchar_t* format, va_list args) const;

    // "Exception => Error (%d), Module: \"%s\" (%d). %s"
    void LogDaxException(uint32_t level, const wchar_t* origin, const daxlib::CDaxException& e) const;
    // "Exception => Descr: \"%S\""
    void LogStdException(uint32_t level, const wchar_t* origin, const std::exception& e) const;

    const std::shared_ptr<ICvLogger>& GetLogger() const noexcept { return m_pLogger; }
    void SetLogger(std::shared_ptr<ICvLogger> logger) { m_pLogger = std::move(logger); }

protected:
    std::shared_ptr<ICvLogger> m_pLogger;
};

} // namespace CommonHelper::CvLogger
