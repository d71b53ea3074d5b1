#pragma once
// Shared pieces of the channel tests: the stand-in library installed where the loader looks,
// its scripting exports, and a recorder of published channel states.
#include "tests/common/CapturingLogger.h"
#include "tests/common/TestSupport.h"
#include "tools/skein/Standin.h"
#include "virt/ChannelStatus.h"
#include "virt/SkApi.h"
#include "virt/VirtServer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace virt_test
{

using namespace std::chrono_literals;

// A path of the build as this process sees it (a Unix path is Z:\... under Wine).
std::wstring BuildPath(const char* path);

// Puts a built library where the loader looks, or takes it away.
bool InstallLibrary(const char* builtPath);
void RemoveLibrary();

using testing_support::Eventually;

struct PublishedStatus
{
    uint32_t sessionId;
    ChannelStatusRecord record;
};

class StatusRecorder
{
public:
    ChannelStatusListener Listener()
    {
        return [this](const ChannelStatusRecord& record, uint32_t sessionId) {
            {
                std::lock_guard lock(m_mutex);
                m_published.push_back({sessionId, record});
            }
            m_changed.notify_all();
        };
    }
    // Waits until the session has published `state` at least `times` times.
    bool WaitForState(uint32_t sessionId, uint32_t state, std::chrono::milliseconds limit, size_t times = 1);
    std::vector<uint32_t> States(uint32_t sessionId) const;
    std::vector<PublishedStatus> All() const;

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<PublishedStatus> m_published;
};

// A server bound to the stand-in library, scripted through the library's own exports.
class ChannelTest : public ::testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;

    // Installs the library and initialises the server; false on failure.
    bool StartServer();
    std::string Command(const std::string& command);
    StandinStats Stats(uint32_t sessionId);
    std::vector<uint8_t> Received(uint32_t sessionId);
    std::vector<std::string> Urls(uint32_t sessionId);
    std::vector<uint64_t> ConnectTimes(uint32_t sessionId);
    // The handler's own state, as GetChannelStatus reports it.
    uint32_t StateOf(uint32_t sessionId);
    // Waits for the session's handshake to be accepted.
    bool WaitConnected(uint32_t sessionId, std::chrono::milliseconds limit = 10s)
    {
        return m_status.WaitForState(sessionId, eCvUrlApiEvent_RdpConnected, limit);
    }

    std::shared_ptr<testing_support::CapturingLogger> m_logger;
    std::unique_ptr<CVirtServer> m_server;
    StatusRecorder m_status;

private:
    template <typename T> T Export(const char* name);
};

} // namespace virt_test
