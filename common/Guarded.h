#pragma once
// The one way across a thread or callback boundary: whatever the call throws is logged and
// swallowed there, because nothing may escape into the system's or the C runtime's frames.
#include "common/BaseLogger.h"
#include "common/DaxException.h"

#include <exception>
#include <utility>

namespace daxlib
{

// Calls `call()`. False when it threw: our heap-thrown CDaxException* (deleted here), a
// std::exception or anything else, each logged at error level under `origin` when a logger is
// given. A result is passed out through the lambda's captures.
template <class Call>
bool GuardedCall(const CommonHelper::CvLogger::CBaseLogger* logger, const wchar_t* origin,
                 Call&& call) noexcept
{
    try
    {
        std::forward<Call>(call)();
        return true;
    }
    catch (CDaxException* raw)
    {
        DaxExceptionPtr owned(raw);
        if (logger)
            logger->LogDaxException(LogLevel::Error, origin, *owned);
    }
    catch (const std::exception& e)
    {
        if (logger)
            logger->LogStdException(LogLevel::Error, origin, e);
    }
    catch (...)
    {
        if (logger)
            logger->Log(LogLevel::Error, origin, L"Unknown exception");
    }
    return false;
}

// The same for a call with a result: `fallback` when it threw.
template <class R, class Call>
R GuardedValue(const CommonHelper::CvLogger::CBaseLogger* logger, const wchar_t* origin, R fallback,
               Call&& call) noexcept
{
    R result = fallback;
    if (!GuardedCall(logger, origin, [&] { result = std::forward<Call>(call)(); }))
        return fallback;
    return result;
}

} // namespace daxlib
