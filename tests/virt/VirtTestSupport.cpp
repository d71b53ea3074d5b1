#include "tests/virt/VirtTestSupport.h"

#include "tests/common/TestSupport.h"

#include <shlobj.h>

#include <algorithm>

namespace virt_test
{

std::wstring BuildPath(const char* path)
{
    std::wstring wide(path, path + strlen(path));
    if (!wide.empty() && wide[0] == L'/')
        wide = L"Z:" + wide;
    for (auto& c : wide)
        if (c == L'/')
            c = L'\\';
    return wide;
}

bool InstallLibrary(const char* builtPath)
{
    const std::wstring target = SkApi::LibraryPath();
    const std::wstring folder = target.substr(0, target.find_last_of(L'\\'));
    ::SHCreateDirectoryExW(nullptr, folder.c_str(), nullptr);
    return ::CopyFileW(BuildPath(builtPath).c_str(), target.c_str(), FALSE) != FALSE;
}

void RemoveLibrary()
{
    ::DeleteFileW(SkApi::LibraryPath().c_str());
}

bool StatusRecorder::WaitForState(uint32_t sessionId, uint32_t state, std::chrono::milliseconds limit, size_t times)
{
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, limit, [&] {
        size_t n = 0;
        for (const auto& p : m_published)
            n += (p.sessionId == sessionId && p.record.dwState == state) ? 1 : 0;
        return n >= times;
    });
}

std::vector<uint32_t> StatusRecorder::States(uint32_t sessionId) const
{
    std::lock_guard lock(m_mutex);
    std::vector<uint32_t> states;
    for (const auto& p : m_published)
        if (p.sessionId == sessionId)
            states.push_back(p.record.dwState);
    return states;
}

std::vector<PublishedStatus> StatusRecorder::All() const
{
    std::lock_guard lock(m_mutex);
    return m_published;
}

void ChannelTest::SetUp()
{
    // Sessions come from each test's own script; the control pipe gets a name of its own.
    ::SetEnvironmentVariableW(L"CVSKAPI_STANDIN_SCENARIO", L"none");
    ::SetEnvironmentVariableW(L"CVSKAPI_STANDIN_PIPE",
                              (L"\\\\.\\pipe\\" + testing_support::UniqueName(L"skein-standin")).c_str());
    m_logger = std::make_shared<testing_support::CapturingLogger>(4);
    m_server = std::make_unique<CVirtServer>(m_logger);
    m_server->SetStatusListener(m_status.Listener());
}

void ChannelTest::TearDown()
{
    if (m_server)
        m_server->Free();
    m_server.reset();
    SkApiFreeLib();
}

bool ChannelTest::StartServer()
{
    return InstallLibrary(VIRT_STANDIN_DLL) && m_server->Init();
}

template <typename T> T ChannelTest::Export(const char* name)
{
    FARPROC proc = ::GetProcAddress(SkApi::LoadedModule(), name);
    EXPECT_NE(nullptr, proc) << name;
    return reinterpret_cast<T>(reinterpret_cast<void (*)()>(proc));
}

std::string ChannelTest::Command(const std::string& command)
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

StandinStats ChannelTest::Stats(uint32_t sessionId)
{
    StandinStats stats{};
    Export<PFN_StandinGetStats>("StandinGetStats")(sessionId, &stats);
    return stats;
}

std::vector<uint8_t> ChannelTest::Received(uint32_t sessionId)
{
    auto get = Export<PFN_StandinGetReceived>("StandinGetReceived");
    std::vector<uint8_t> bytes(get(sessionId, nullptr, 0));
    bytes.resize(get(sessionId, bytes.data(), static_cast<DWORD>(bytes.size())));
    return bytes;
}

std::vector<std::string> ChannelTest::Urls(uint32_t sessionId)
{
    const std::string reply = Command("urls " + std::to_string(sessionId));
    std::vector<std::string> urls;
    size_t at = reply.find('\n');
    while (at != std::string::npos)
    {
        const size_t next = reply.find('\n', at + 1);
        urls.push_back(reply.substr(at + 1, next == std::string::npos ? std::string::npos : next - at - 1));
        at = next;
    }
    return urls;
}

std::vector<uint64_t> ChannelTest::ConnectTimes(uint32_t sessionId)
{
    auto get = Export<PFN_StandinGetConnectTimes>("StandinGetConnectTimes");
    std::vector<uint64_t> ticks(get(sessionId, nullptr, 0));
    ticks.resize(get(sessionId, ticks.data(), static_cast<DWORD>(ticks.size())));
    return ticks;
}

uint32_t ChannelTest::StateOf(uint32_t sessionId)
{
    const auto handler = m_server->FindSession(sessionId);
    if (!handler)
        return 0;
    ChannelStatusRecord record{};
    handler->GetChannelStatus(record);
    return record.dwState;
}

} // namespace virt_test
