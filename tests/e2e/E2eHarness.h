#pragma once
// Drives the real service end to end in the private Wine prefix: installs (or removes) the
// stand-in channel library and its scenario, registers and starts "velomard" through the service
// control manager, scripts the client side with skeinctl, and talks the agent protocol over raw
// pipe clients. Free of GoogleTest so that the end-to-end benchmark uses it too.
#include "common/UniqueHandle.h"
#include "tests/common/HostPaths.h"

#include <windows.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace e2e
{

using testsupport::kSinkFile;

struct ServiceOptions
{
    bool installLibrary = true;
    // Commands the stand-in runs when the service loads it; empty: its default (session 1 with
    // an accepting client side, URLs appended to the default sink file).
    std::string scenario;
    DWORD logLevel = 2;
    // "MaxAgentConnectionsPerSession"; 0: the service's default. Wine puts every agent in
    // session 1, so a storm of agents needs a higher bound than one real session would.
    DWORD agentsPerSession = 0;

    ServiceOptions& WithoutLibrary()
    {
        installLibrary = false;
        return *this;
    }
    ServiceOptions& Scenario(std::string commands)
    {
        scenario = std::move(commands);
        return *this;
    }
    ServiceOptions& LogLevel(DWORD level)
    {
        logLevel = level;
        return *this;
    }
    ServiceOptions& AgentsPerSession(DWORD count)
    {
        agentsPerSession = count;
        return *this;
    }
};

// One registration and run of the service. The destructor stops it (when it runs), deletes the
// registration and takes the library and its scenario away again.
class ServiceRun
{
public:
    explicit ServiceRun(const ServiceOptions& options);
    ~ServiceRun();
    ServiceRun(const ServiceRun&) = delete;
    ServiceRun& operator=(const ServiceRun&) = delete;

    // Empty on success, otherwise what went wrong in the setup or the start.
    const std::wstring& SetupError() const { return m_error; }
    // Starts the service and waits until it reports running; the states seen on the way.
    std::vector<DWORD> Start(std::chrono::milliseconds limit = std::chrono::seconds(30));
    SERVICE_STATUS_PROCESS Query() const;
    DWORD ProcessId() const { return Query().dwProcessId; }
    BOOL Control(DWORD control, SERVICE_STATUS& status)
    {
        return ::ControlService(m_service.get(), control, &status);
    }

    struct StopOutcome
    {
        bool controlAccepted = false;
        DWORD reportedState = 0; // the state ControlService handed back
        bool processEnded = false;
        DWORD exitCode = 0xFFFFFFFF;
        long long endedAfterMs = -1; // from the control to the end of the process
    };
    StopOutcome Stop();

private:
    void Remove();

    daxlib::unique_schandle m_scm;
    daxlib::unique_schandle m_service;
    std::wstring m_error;
};

// The service's URL policy key. Every ServiceRun starts without it and removes it again.
bool SetPolicyValue(const wchar_t* name, DWORD type, const void* data, DWORD size);
bool SetPolicyStrings(const wchar_t* name, const std::vector<std::wstring>& strings); // REG_MULTI_SZ
void RemovePolicy();

// Waits until the service's log holds `fragment` at least `times` times; the log as last read.
std::wstring WaitForLog(const std::wstring& fragment, std::chrono::milliseconds limit, size_t times = 1);
std::wstring ReadLog();
size_t CountOf(const std::wstring& text, const std::wstring& fragment);

// Runs skeinctl with these words; its exit code and output (lines without carriage returns).
struct CtlResult
{
    int exitCode = -1;
    std::string output;
};
CtlResult Skeinctl(const std::string& words);
// The URLs the client side of the session received, in order ("urls <id>").
std::vector<std::string> ReceivedUrls(uint32_t session);
// The counters of "stats <id>" by name; empty when the library does not answer.
std::map<std::string, unsigned> SessionStats(uint32_t session);

std::string ToUtf8(std::u16string_view text);

// A raw agent: an overlapped client end of the agent pipe whose every wait is bounded.
class AgentPipe
{
public:
    // A trickling agent writes every byte on its own.
    explicit AgentPipe(bool trickle = false) : m_trickle(trickle) {}
    // Opens the pipe, waiting through "busy" up to the limit.
    bool Connect(std::chrono::milliseconds limit = std::chrono::seconds(10));
    void Close() { m_pipe.reset(); }

    bool Write(const void* bytes, size_t size, std::chrono::milliseconds limit = std::chrono::seconds(10));
    bool Write(const std::vector<uint8_t>& bytes) { return Write(bytes.data(), bytes.size()); }
    // Reads exactly `size` bytes; false on a timeout, a broken pipe or an end of stream.
    bool ReadExact(void* bytes, size_t size, std::chrono::milliseconds limit = std::chrono::seconds(10));
    // True when the service sent nothing within `quiet` (the pipe may stay open or break).
    bool NothingArrives(std::chrono::milliseconds quiet);
    // True when the service closes the connection within the limit.
    bool ClosedByPeer(std::chrono::milliseconds limit);
    // The same without reading anything: answers waiting in the pipe stay unread.
    bool ClosedUnread(std::chrono::milliseconds limit);

    // Handshake with values A and B; true when the 24-byte answer comes and is right.
    bool Handshake(uint32_t a = 42, uint64_t b = 7);
    // Sends one URL; the result word of the answer, or none when no well-formed answer came.
    std::optional<uint32_t> OpenUrl(std::u16string_view url,
                                    std::chrono::milliseconds limit = std::chrono::seconds(10));

private:
    // One overlapped call completed within the limit or cancelled; the bytes it moved, and in
    // `error` why it failed (0 when it did not).
    DWORD Io(bool write, void* bytes, size_t size, std::chrono::milliseconds limit, DWORD& error);

    bool m_trickle = false;
    daxlib::unique_hfile m_pipe;
    daxlib::unique_handle m_event; // one overlapped call at a time
};

// Polls until `done` holds or the limit passes; the last result of `done`.
template <typename Pred>
bool WaitUntil(Pred done, std::chrono::milliseconds limit,
               std::chrono::milliseconds step = std::chrono::milliseconds(50))
{
    const auto end = std::chrono::steady_clock::now() + limit;
    for (;;)
    {
        if (done())
            return true;
        if (std::chrono::steady_clock::now() >= end)
            return false;
        ::Sleep(static_cast<DWORD>(step.count()));
    }
}

} // namespace e2e
