#include "common/ServiceEvents.h"

#include "common/Locks.h"

#include <memory>
#include <utility>

namespace events
{
namespace
{
daxlib::srw_lock g_lock;
std::shared_ptr<const Sink> g_sink TS_GUARDED_BY(g_lock);
} // namespace

Sink SetSink(Sink sink)
{
    auto next = sink ? std::make_shared<const Sink>(std::move(sink)) : nullptr;
    daxlib::unique_lock lock(g_lock);
    const auto previous = std::exchange(g_sink, std::move(next));
    return previous ? *previous : Sink();
}

bool HasSink()
{
    daxlib::shared_lock lock(g_lock);
    return g_sink != nullptr;
}

void Report(Level level, uint32_t id, const std::vector<std::wstring>& strings)
{
    std::shared_ptr<const Sink> sink;
    {
        daxlib::shared_lock lock(g_lock);
        sink = g_sink;
    }
    // Outside the lock: the sink may be slow (the event log) and a report never waits on another.
    if (sink)
        (*sink)(level, id, strings);
}

} // namespace events
