#pragma once
// The service's own events for the Windows event log: what an administrator must learn without
// reading the diagnostic log. Each id is a message of the service's message table, whose text
// takes the insertion strings in order. Every caller reports a condition once per episode (when
// it begins, and where it says so when it ends), never per URL or per connection.
//
// Events go to the process's sink: the service installs one that writes to the event log; tests
// install one that records. Without a sink they go nowhere.
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace events
{

enum class Level
{
    Error,
    Warning,
    Information,
};

// The message ids; service/VelomardMessages.mc holds their texts under the same numbers.
enum EventId : uint32_t
{
    kServiceStarted = 100,            // version, channel transport
    kServiceStopping = 101,           //
    kChannelLibraryUnavailable = 200, // library path, what failed
    kPipeNameTaken = 300,             // pipe name, what the pipe is for, retry period in ms
    kPipeNameFreed = 301,             // pipe name, what the pipe is for
    kUrlPolicyValueBroken = 400,      // policy key, what is wrong and what was done
    kLogFolderUnsafe = 500,           // what was found and done
    kChannelRefused = 600,            // session id, "version" or "options", local and remote version
};

using Sink = std::function<void(Level level, uint32_t id, const std::vector<std::wstring>& strings)>;

// Replaces the process's sink and gives back the one it replaced.
Sink SetSink(Sink sink);
bool HasSink();
void Report(Level level, uint32_t id, const std::vector<std::wstring>& strings);

} // namespace events
