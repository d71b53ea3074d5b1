#pragma once
// How the add-in's parts report what they did: the FreeRDP glue turns these into WLog records
// under the add-in's tag; tests collect them.
#include <functional>
#include <string>

namespace RdpClient
{

enum class LogLevel
{
    Info,
    Warning,
    Error,
};

using LogSink = std::function<void(LogLevel level, const std::string& text)>;

} // namespace RdpClient
