#include "common/BaseLogger.h"

#include "common/DaxException.h"
#include "common/UniqueHandle.h"
#include "common/WideFormat.h"

#include <exception>

namespace CommonHelper::CvLogger
{

void CBaseLogger::Log(uint32_t level, const wchar_t* origin, const wchar_t* format, ...) const
{
    va_list args;
    va_start(args, format);
    LogV(level, origin, format, args);
    va_end(args);
}

void CBaseLogger::LogV(uint32_t level, const wchar_t* origin, const wchar_t* format, va_list args) const
{
    if (!m_pLogger || !m_pLogger->IsLevelEnabled(level))
        return;
    daxlib::last_error_guard keepError;
    try
    {
        wchar_t message[daxlib::kFormatCapacity];
        daxlib::FormatTruncatedV(message, daxlib::kFormatCapacity, format, args);
        const std::wstring tag = GetLogTag();
        m_pLogger->Log(level, L"%s: %s: %s", origin ? origin : L"", tag.c_str(), message);
    }
    catch (...)
    {
        // Logging never fails towards its caller.
    }
}

void CBaseLogger::LogDaxException(uint32_t level, const wchar_t* origin, const daxlib::CDaxException& e) const
{
    Log(level, origin, L"Exception => Error (%d), Module: \"%s\" (%d). %s", static_cast<int>(e.ErrorCode()),
        e.Module().c_str(), static_cast<int>(e.Line()), e.Description().c_str());
}

void CBaseLogger::LogStdException(uint32_t level, const wchar_t* origin, const std::exception& e) const
{
    Log(level, origin, L"Exception => Descr: \"%S\"", e.what());
}

} // namespace CommonHelper::CvLogger
