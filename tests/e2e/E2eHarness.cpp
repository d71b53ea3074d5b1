#include "tests/e2e/E2eHarness.h"

#include "common/PipeNames.h"
#include "pipeserver/AgentProtocol.h"
#include "tests/common/HostPaths.h"
#include "tests/common/TestSupport.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <sstream>

namespace e2e
{
using testsupport::kLibraryFolder;
using testsupport::kLibraryPath;
using testsupport::kLogFile;
using testsupport::kLogFolder;
using testsupport::kProductKey;
using testsupport::kScenarioPath;

namespace
{

const wchar_t kPolicyKey[] = L"Software\\Policies\\Corvane\\Velomar (Server)\\UrlPolicy";
const std::wstring kAgentPipe = daxlib::PipePath(daxlib::kAgentPipeName);

using std::chrono::milliseconds;

// The lines of a skeinctl reply after its first ("ok"); none when it failed.
std::vector<std::string> ReplyLines(const CtlResult& reply)
{
    std::vector<std::string> lines;
    std::istringstream in(reply.exitCode == 0 ? reply.output : std::string());
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    if (!lines.empty())
        lines.erase(lines.begin());
    std::erase(lines, std::string());
    return lines;
}

} // namespace

ServiceRun::ServiceRun(const ServiceOptions& options)
{
    // Each step that fails names itself with its error; the later steps are skipped.
    const auto step = [this](bool ok, const wchar_t* what)
    {
        if (m_error.empty() && !ok)
            m_error = std::wstring(what) + L" failed, error " + std::to_wstring(::GetLastError());
        return m_error.empty();
    };
    m_scm.reset(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
    if (!step(m_scm.valid(), L"OpenSCManagerW"))
        return;
    Remove(); // a registration left behind by an aborted run
    RemovePolicy();

    // A fresh log, so that what a case reads is its own service run's.
    testsupport::RemoveTree(kLogFolder);
    ::DeleteFileW(kSinkFile);
    ::DeleteFileW(kScenarioPath);
    ::DeleteFileW(kLibraryPath);
    step(::GetFileAttributesW(kLibraryPath) == INVALID_FILE_ATTRIBUTES, L"removing the stand-in library");
    const auto setDword = [](const wchar_t* name, const DWORD& value)
    {
        return ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kProductKey, name, REG_DWORD, &value, sizeof(value)) ==
               ERROR_SUCCESS;
    };
    step(setDword(L"LogLevel", options.logLevel), L"writing the log level");
    if (options.agentsPerSession)
        step(setDword(L"MaxAgentConnectionsPerSession", options.agentsPerSession),
             L"writing the agent limit");
    else
        ::RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kProductKey, L"MaxAgentConnectionsPerSession");
    if (options.installLibrary)
    {
        const std::wstring folder = kLibraryFolder;
        for (size_t slash = folder.find(L'\\', 3); slash != std::wstring::npos;
             slash = folder.find(L'\\', slash + 1))
            ::CreateDirectoryW(folder.substr(0, slash).c_str(), nullptr);
        ::CreateDirectoryW(kLibraryFolder, nullptr);
        step(::CopyFileW(testsupport::BuildPath(STANDIN_DLL).c_str(), kLibraryPath, FALSE),
             L"installing the stand-in library");
        daxlib::unique_hfile file(
            options.scenario.empty()
                ? INVALID_HANDLE_VALUE
                : ::CreateFileW(kScenarioPath, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
        DWORD written = 0;
        step(options.scenario.empty() ||
                 ::WriteFile(file.get(), options.scenario.data(), static_cast<DWORD>(options.scenario.size()),
                             &written, nullptr),
             L"writing the scenario");
    }
    const std::wstring binary = L"\"" + testsupport::BuildPath(VELOMARD_EXE) + L"\"";
    if (m_error.empty())
        m_service.reset(::CreateServiceW(m_scm.get(), L"velomard", L"velomard", SERVICE_ALL_ACCESS,
                                         SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START,
                                         SERVICE_ERROR_NORMAL, binary.c_str(), nullptr, nullptr, nullptr,
                                         nullptr, nullptr));
    step(m_service.valid(), L"CreateServiceW");
}

ServiceRun::~ServiceRun()
{
    Remove();
    RemovePolicy();
    ::DeleteFileW(kScenarioPath);
    ::DeleteFileW(kLibraryPath);
}

bool SetPolicyValue(const wchar_t* name, DWORD type, const void* data, DWORD size)
{
    daxlib::unique_hkey key;
    return ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, kPolicyKey, 0, nullptr, 0, KEY_SET_VALUE, nullptr, key.put(),
                             nullptr) == ERROR_SUCCESS &&
           ::RegSetValueExW(key.get(), name, 0, type, static_cast<const BYTE*>(data), size) == ERROR_SUCCESS;
}

bool SetPolicyStrings(const wchar_t* name, const std::vector<std::wstring>& strings)
{
    std::wstring data;
    for (const auto& s : strings)
        data += s + L'\0';
    data += L'\0';
    return SetPolicyValue(name, REG_MULTI_SZ, data.c_str(),
                          static_cast<DWORD>(data.size() * sizeof(wchar_t)));
}

void RemovePolicy()
{
    ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, kPolicyKey);
    ::RegDeleteKeyW(HKEY_LOCAL_MACHINE, kPolicyKey);
}

void ServiceRun::Remove()
{
    m_service.reset();
    if (m_scm)
        m_service.reset(::OpenServiceW(m_scm.get(), L"velomard", SERVICE_ALL_ACCESS));
    if (!m_service)
        return;
    if (Query().dwCurrentState != SERVICE_STOPPED)
        Stop();
    ::DeleteService(m_service.get());
    m_service.reset();
}

SERVICE_STATUS_PROCESS ServiceRun::Query() const
{
    SERVICE_STATUS_PROCESS status{};
    DWORD needed = 0;
    if (m_service)
        ::QueryServiceStatusEx(m_service.get(), SC_STATUS_PROCESS_INFO, reinterpret_cast<BYTE*>(&status),
                               sizeof(status), &needed);
    return status;
}

std::vector<DWORD> ServiceRun::Start(milliseconds limit)
{
    std::vector<DWORD> seen;
    if (!m_service || !::StartServiceW(m_service.get(), 0, nullptr))
    {
        m_error = L"StartServiceW failed, error " + std::to_wstring(::GetLastError());
        return seen;
    }
    WaitUntil(
        [&]
        {
            const DWORD state = Query().dwCurrentState;
            if (seen.empty() || seen.back() != state)
                seen.push_back(state);
            return state == SERVICE_RUNNING || state == SERVICE_STOPPED;
        },
        limit, milliseconds(10));
    return seen;
}

ServiceRun::StopOutcome ServiceRun::Stop()
{
    StopOutcome outcome;
    const DWORD pid = ProcessId();
    daxlib::unique_handle process(
        pid ? ::OpenProcess(SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid) : nullptr);
    const auto sent = std::chrono::steady_clock::now();
    SERVICE_STATUS status{};
    outcome.controlAccepted = Control(SERVICE_CONTROL_STOP, status) != FALSE;
    outcome.reportedState = status.dwCurrentState;
    if (outcome.controlAccepted && process && ::WaitForSingleObject(process.get(), 10000) == WAIT_OBJECT_0)
    {
        outcome.processEnded = true;
        outcome.endedAfterMs =
            std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - sent).count();
        ::GetExitCodeProcess(process.get(), &outcome.exitCode);
    }
    // The control manager notices the end of the process a moment later.
    WaitUntil([&] { return Query().dwCurrentState == SERVICE_STOPPED; }, std::chrono::seconds(10));
    return outcome;
}

std::wstring ReadLog()
{
    return testsupport::ReadUtf16File(kLogFile);
}

size_t CountOf(const std::wstring& text, const std::wstring& fragment)
{
    size_t count = 0;
    for (size_t at = text.find(fragment); at != std::wstring::npos;
         at = text.find(fragment, at + fragment.size()))
        ++count;
    return count;
}

std::wstring WaitForLog(const std::wstring& fragment, milliseconds limit, size_t times)
{
    std::wstring text;
    WaitUntil([&] { return CountOf(text = ReadLog(), fragment) >= times; }, limit);
    return text;
}

CtlResult Skeinctl(const std::string& words)
{
    const auto run = testsupport::RunProcess(L"\"" + testsupport::BuildPath(SKEINCTL_EXE) + L"\" " +
                                                 std::wstring(words.begin(), words.end()),
                                             30000);
    CtlResult result{run.ended ? static_cast<int>(run.exitCode) : -1, {}};
    const std::string output = run.out + run.err;
    std::copy_if(output.begin(), output.end(), std::back_inserter(result.output),
                 [](char c) { return c != '\r'; });
    return result;
}

std::vector<std::string> ReceivedUrls(uint32_t session)
{
    return ReplyLines(Skeinctl("urls " + std::to_string(session)));
}

std::map<std::string, unsigned> SessionStats(uint32_t session)
{
    // "ok name=value name=value ..."
    const CtlResult reply = Skeinctl("stats " + std::to_string(session));
    std::map<std::string, unsigned> stats;
    std::istringstream words(reply.exitCode == 0 ? reply.output : std::string());
    for (std::string word; words >> word;)
        if (const size_t eq = word.find('='); eq != std::string::npos)
            stats[word.substr(0, eq)] =
                static_cast<unsigned>(std::strtoul(word.c_str() + eq + 1, nullptr, 10));
    return stats;
}

std::string ToUtf8(std::u16string_view text)
{
    const auto* wide = reinterpret_cast<const wchar_t*>(text.data());
    const int size =
        ::WideCharToMultiByte(CP_UTF8, 0, wide, static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
    std::string out(static_cast<size_t>(size), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, wide, static_cast<int>(text.size()), out.data(), size, nullptr,
                          nullptr);
    return out;
}

bool AgentPipe::Connect(milliseconds limit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    do
    {
        m_pipe.reset(::CreateFileW(kAgentPipe.c_str(), GENERIC_READ | FILE_WRITE_DATA, 0, nullptr,
                                   OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr));
        if (m_pipe)
        {
            m_event.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
            return m_event.valid();
        }
        // Busy: waits for a free instance; not listening yet, or between instances: a moment.
        if (!::WaitNamedPipeW(kAgentPipe.c_str(), 1000))
            ::Sleep(20);
    } while (std::chrono::steady_clock::now() < end);
    return false;
}

DWORD AgentPipe::Io(bool write, void* bytes, size_t size, milliseconds limit, DWORD& error)
{
    error = ERROR_INVALID_HANDLE;
    if (!m_pipe)
        return 0;
    OVERLAPPED ov{};
    ov.hEvent = m_event.get();
    ::ResetEvent(ov.hEvent);
    const BOOL started = write ? ::WriteFile(m_pipe.get(), bytes, static_cast<DWORD>(size), nullptr, &ov)
                               : ::ReadFile(m_pipe.get(), bytes, static_cast<DWORD>(size), nullptr, &ov);
    error = started ? 0 : ::GetLastError();
    if (error != 0 && error != ERROR_IO_PENDING)
        return 0;
    if (::WaitForSingleObject(ov.hEvent, static_cast<DWORD>(limit.count())) != WAIT_OBJECT_0)
        ::CancelIoEx(m_pipe.get(), &ov);
    // Waits for the cancellation too: the OVERLAPPED lives on this stack.
    DWORD done = 0;
    error = ::GetOverlappedResult(m_pipe.get(), &ov, &done, TRUE) ? 0 : ::GetLastError();
    return done;
}

bool AgentPipe::Write(const void* bytes, size_t size, milliseconds limit)
{
    auto* next = static_cast<uint8_t*>(const_cast<void*>(bytes));
    DWORD error = 0;
    for (const size_t chunk = m_trickle ? 1 : size; size > 0; size -= chunk, next += chunk)
        if (Io(true, next, chunk, limit, error) != chunk || error != 0)
            return false;
    return true;
}

bool AgentPipe::ReadExact(void* bytes, size_t size, milliseconds limit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    for (size_t have = 0; have < size;)
    {
        const auto left = std::chrono::duration_cast<milliseconds>(end - std::chrono::steady_clock::now());
        DWORD error = 0;
        const DWORD got =
            left.count() > 0 ? Io(false, static_cast<uint8_t*>(bytes) + have, size - have, left, error) : 0;
        if (got == 0 || error != 0)
            return false;
        have += got;
    }
    return true;
}

bool AgentPipe::NothingArrives(milliseconds quiet)
{
    uint8_t byte = 0;
    DWORD error = 0;
    return !m_pipe || Io(false, &byte, 1, quiet, error) == 0;
}

bool AgentPipe::ClosedByPeer(milliseconds limit)
{
    uint8_t byte = 0;
    DWORD error = 0;
    return m_pipe && Io(false, &byte, 1, limit, error) == 0 &&
           (error == ERROR_BROKEN_PIPE || error == ERROR_PIPE_NOT_CONNECTED);
}

bool AgentPipe::ClosedUnread(milliseconds limit)
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;)
    {
        DWORD available = 0;
        if (!m_pipe || !::PeekNamedPipe(m_pipe.get(), nullptr, 0, nullptr, &available, nullptr))
            return true;
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        ::Sleep(10);
    }
}

bool AgentPipe::Handshake(uint32_t a, uint64_t b)
{
    uint8_t answer[24];
    const auto expected = agentpipe::EncodeHandshakeAnswer();
    return Write(agentpipe::EncodeHandshake({a, b})) && ReadExact(answer, sizeof(answer)) &&
           std::memcmp(answer, expected.data(), expected.size()) == 0;
}

std::optional<uint32_t> AgentPipe::OpenUrl(std::u16string_view url, milliseconds limit)
{
    uint8_t answer[12];
    if (!Write(agentpipe::EncodeOpenUrl(url)) || !ReadExact(answer, sizeof(answer), limit) ||
        agentpipe::LoadU32(answer) != agentpipe::kTypeOpenUrl || agentpipe::LoadU32(answer + 4) != 4)
        return std::nullopt;
    return agentpipe::LoadU32(answer + 8);
}

} // namespace e2e
