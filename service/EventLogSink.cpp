#include "service/EventLogSink.h"

#include "common/ServiceEvents.h"
#include "common/UniqueHandle.h"

#include "VelomardMessages.h"

#include <windows.h>

#include <memory>
#include <string>
#include <vector>

// The ids the code reports are the ids the message table holds.
static_assert(VELOMARD_EVENT_SERVICE_STARTED == events::kServiceStarted);
static_assert(VELOMARD_EVENT_SERVICE_STOPPING == events::kServiceStopping);
static_assert(VELOMARD_EVENT_CHANNEL_LIBRARY_UNAVAILABLE == events::kChannelLibraryUnavailable);
static_assert(VELOMARD_EVENT_PIPE_NAME_TAKEN == events::kPipeNameTaken);
static_assert(VELOMARD_EVENT_PIPE_NAME_FREED == events::kPipeNameFreed);
static_assert(VELOMARD_EVENT_URL_POLICY_VALUE_BROKEN == events::kUrlPolicyValueBroken);
static_assert(VELOMARD_EVENT_LOG_FOLDER_UNSAFE == events::kLogFolderUnsafe);
static_assert(VELOMARD_EVENT_CHANNEL_REFUSED == events::kChannelRefused);

namespace service
{

void InstallEventLogSink(const wchar_t* source)
{
    auto handle = std::make_shared<daxlib::unique_event_source>(::RegisterEventSourceW(nullptr, source));
    if (!*handle)
        return;
    events::SetSink(
        [handle](events::Level level, uint32_t id, const std::vector<std::wstring>& strings)
        {
            std::vector<const wchar_t*> texts;
            texts.reserve(strings.size());
            for (const std::wstring& text : strings)
                texts.push_back(text.c_str());
            const WORD type = level == events::Level::Error     ? EVENTLOG_ERROR_TYPE
                              : level == events::Level::Warning ? EVENTLOG_WARNING_TYPE
                                                                : EVENTLOG_INFORMATION_TYPE;
            ::ReportEventW(handle->get(), type, 0, id, nullptr, static_cast<WORD>(texts.size()), 0,
                           texts.empty() ? nullptr : texts.data(), nullptr);
        });
}

} // namespace service
