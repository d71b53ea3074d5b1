#pragma once
// Shared pieces of the channel tests: the stand-in library installed where the loader looks,
// its scripting exports, and a recorder of published channel states.
#include "tests/common/CapturingLogger.h"
#include "tests/common/TestSupport.h"
#include "tools/skein/Standin.h"
#include "virt/ChannelStatus.h"
#include "virt/SkApi.h"
#include "virt/VirtServer.h"

#include <shlobj.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace virttest
{

using namespace std::chrono_literals;
using testsupport::Eventually;

// Puts a built library where the loader looks (a Unix path of the build is Z:\... under Wine).
inline bool InstallLibrary(const char* builtPath)
{
    const std::wstring target = SkApi::LibraryPath();
    ::SHCreateDirectoryExW(nullptr, target.substr(0, target.find_last_of(L'\\')).c_str(), nullptr);
    return ::CopyFileW(testsupport::BuildPath(builtPath).c_str(), target.c_str(), FALSE) != FALSE;
}

template <typename T> T Export(const char* name)
{
    FARPROC proc = ::GetProcAddress(SkApi::LoadedModule(), name);
    EXPECT_NE(nullptr, proc) << name;
    return reinterpret_cast<T>(reinterpret_cast<void (*)()>(proc));
}

class StatusRecorder
{
public:
    ChannelStatusListener Listener()
    {
        return [this](const ChannelStatusRecord& record, uint32_t sessionId)
        {
            {
                std::lock_guard lock(m_mutex);
                m_published.push_back({sessionId, record});
            }
            m_changed.notify_all();
        };
    }
    // Waits until the session has published `state` at least `times` times.
    bool WaitForState(uint32_t sessionId, uint32_t state, std::chrono::milliseconds limit, size_t times = 1)
    {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, limit,
                                  [&]
                                  {
                                      return static_cast<size_t>(std::count_if(
                                                 m_published.begin(), m_published.end(),
                                                 [&](const auto& p) {
                                                     return p.first == sessionId && p.second.dwState == state;
                                                 })) >= times;
                                  });
    }
    std::vector<uint32_t> States(uint32_t sessionId) const
    {
        std::lock_guard lock(m_mutex);
        std::vector<uint32_t> states;
        for (const auto& p : m_published)
            if (p.first == sessionId)
                states.push_back(p.second.dwState);
        return states;
    }
    ChannelStatusRecord Last(uint32_t sessionId) const
    {
        std::lock_guard lock(m_mutex);
        const auto last = std::find_if(m_published.rbegin(), m_published.rend(),
                                       [&](const auto& p) { return p.first == sessionId; });
        return last == m_published.rend() ? ChannelStatusRecord{} : last->second;
    }

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<std::pair<uint32_t, ChannelStatusRecord>> m_published;
};

// A server bound to the stand-in library, scripted through the library's own exports.
class ChannelTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        // Sessions come from each test's own script; the control pipe gets a name of its own.
        ::SetEnvironmentVariableW(L"CVSKAPI_STANDIN_SCENARIO", L"none");
        ::SetEnvironmentVariableW(L"CVSKAPI_STANDIN_PIPE",
                                  (L"\\\\.\\pipe\\" + testsupport::UniqueName(L"skein-standin")).c_str());
        m_server->SetStatusListener(m_status.Listener());
    }
    void TearDown() override
    {
        m_server->Free();
        m_server.reset();
        SkApiFreeLib();
    }

    bool StartServer() { return InstallLibrary(VIRT_STANDIN_DLL) && m_server->Init(); }

    std::string Command(const std::string& command)
    {
        auto run = Export<PFN_StandinCommand>("StandinCommand");
        std::string reply(4096, '\0');
        DWORD length = run(command.c_str(), reply.data(), static_cast<DWORD>(reply.size()));
        if (length >= reply.size())
        {
            // Asked again with room for all of it (only listing commands answer at length).
            reply.resize(length + 1);
            length = run(command.c_str(), reply.data(), static_cast<DWORD>(reply.size()));
        }
        reply.resize(std::min<size_t>(length, reply.size() - 1));
        EXPECT_EQ(0u, reply.rfind("ok", 0)) << command << " -> " << reply;
        return reply;
    }
    void OpenSessions(uint32_t first, uint32_t last)
    {
        for (uint32_t id = first; id <= last; ++id)
            Command("open " + std::to_string(id) + " auto");
    }

    StandinStats Stats(uint32_t sessionId)
    {
        StandinStats stats{};
        Export<PFN_StandinGetStats>("StandinGetStats")(sessionId, &stats);
        return stats;
    }

    // What a stand-in export fills in after saying how much there is.
    template <typename T, typename Get> static std::vector<T> Fetch(Get get, uint32_t sessionId)
    {
        std::vector<T> items(get(sessionId, nullptr, 0));
        items.resize(get(sessionId, items.data(), static_cast<DWORD>(items.size())));
        return items;
    }
    std::vector<uint8_t> Received(uint32_t sessionId)
    {
        return Fetch<uint8_t>(Export<PFN_StandinGetReceived>("StandinGetReceived"), sessionId);
    }

    // The URLs the client side took, one a line after the "ok" line.
    std::vector<std::string> Urls(uint32_t sessionId)
    {
        const std::string reply = Command("urls " + std::to_string(sessionId));
        std::vector<std::string> urls;
        for (size_t at = reply.find('\n'), next; at != std::string::npos; at = next)
        {
            next = reply.find('\n', at + 1);
            urls.push_back(
                reply.substr(at + 1, next == std::string::npos ? std::string::npos : next - at - 1));
        }
        return urls;
    }

    // The handler's own record, as GetChannelStatus reports it (zeros without a handler).
    ChannelStatusRecord StatusOf(uint32_t sessionId)
    {
        ChannelStatusRecord record{};
        if (const auto handler = m_server->FindSession(sessionId))
            handler->GetChannelStatus(record);
        return record;
    }
    uint32_t StateOf(uint32_t sessionId) { return StatusOf(sessionId).dwState; }

    // Waits for the session's handshake to be accepted.
    bool WaitConnected(uint32_t sessionId, std::chrono::milliseconds limit = 10s)
    {
        return m_status.WaitForState(sessionId, eCvUrlApiEvent_RdpConnected, limit);
    }

    std::shared_ptr<testsupport::CapturingLogger> m_logger =
        std::make_shared<testsupport::CapturingLogger>(4);
    std::unique_ptr<CVirtServer> m_server = std::make_unique<CVirtServer>(m_logger);
    StatusRecorder m_status;
};

} // namespace virttest
