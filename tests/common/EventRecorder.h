#pragma once
// Takes the process's events in place of the event log for as long as it lives.
#include "common/ServiceEvents.h"

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace testsupport
{

class EventRecorder
{
public:
    struct Event
    {
        events::Level level;
        uint32_t id;
        std::vector<std::wstring> strings;
    };

    EventRecorder()
    {
        m_previous = events::SetSink(
            [this](events::Level level, uint32_t id, const std::vector<std::wstring>& strings)
            {
                std::lock_guard lock(m_mutex);
                m_events.push_back({level, id, strings});
            });
    }
    ~EventRecorder() { events::SetSink(std::move(m_previous)); }
    EventRecorder(const EventRecorder&) = delete;
    EventRecorder& operator=(const EventRecorder&) = delete;

    // The events of one id, in the order they came.
    std::vector<Event> Of(uint32_t id) const
    {
        std::lock_guard lock(m_mutex);
        std::vector<Event> found;
        for (const Event& event : m_events)
            if (event.id == id)
                found.push_back(event);
        return found;
    }

private:
    mutable std::mutex m_mutex;
    std::vector<Event> m_events;
    events::Sink m_previous;
};

} // namespace testsupport
