#include "tests/e2e/E2eHarness.h"

#include "pipeserver/AgentProtocol.h"

#include <algorithm>
#include <cstring>

#ifndef VELOMARD_EXE
#error VELOMARD_EXE names the built service executable
#endif
#ifndef STANDIN_DLL
#error STANDIN_DLL names the built stand-in channel library
#endif
#ifndef SKEINCTL_EXE
#error SKEINCTL_EXE names the built skeinctl
#endif

namespace e2e
{

const wchar_t kLibraryFolder[] = L"C:\\Program Files\\Common Files\\Corvane\\Skein 3";
const wchar_t kLibraryPath[] = L"C:\\Program Files\\Common Files\\Corvane\\Skein 3\\cvskapi.dll";
const wchar_t kScenarioPath[] = L"C:\\Program Files\\Common Files\\Corvane\\Skein 3\\cvskapi.scenario";
const wchar_t kLogFile[] = L"C:\\ProgramData\\Corvane\\Velomar (Server)\\velomard.txt";
const wchar_t kSinkFile[] = L"C:\\ProgramData\\Corvane\\Skein Standin\\received.txt";
const wchar_t kAgentPipe[] = L"\\\\.\\pipe\\9FEA9DA6-BEA1-479B-9819-F9031E0B69EE";

namespace
{

const wchar_t kLogFolder[] = L"C:\\ProgramData\\Corvane\\Velomar (Server)";
const wchar_t kProductKey[] = L"Software\\Corvane\\Velomar (Server)";

using std::chrono::milliseconds;

void RemoveFolder(const std::wstring& path)
{
    WIN32_FIND_DATAW data{};
    HANDLE find = ::FindFirstFileW((path + L"\\*").c_str(), &data);
    if (find != INVALID_HANDLE_VALUE)
    {
        do
        {
            const std::wstring name = data.cFileName;
            if (name == L"." || name == L"..")
                continue;
            const std::wstring full = path + L"\\" + name;
            if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
                RemoveFolder(full);
            else
                ::DeleteFileW(full.c_str());
        } while (::FindNextFileW(find, &data));
        ::FindClose(find);
    }
    ::RemoveDirectoryW(path.c_str());
}

void CreateFolders(const std::wstring& path)
{
    for (size_t slash = path.find(L'\\', 3); slash != std::wstring::npos; slash = path.find(L'\\', slash + 1))
        ::CreateDirectoryW(path.substr(0, slash).c_str(), nullptr);
    ::CreateDirectoryW(path.c_str(), nullptr);
}

bool WriteWholeFile(const std::wstring& path, const std::string& bytes)
{
    daxlib::unique_hfile file(
        ::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD written = 0;
    return file && ::WriteFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) &&
           written == bytes.size();
}

std::string ReadWholeFile(const std::wstring& path)
{
    daxlib::unique_hfile file(::CreateFileW(path.c_str(), GENERIC_READ,
                                            FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                            OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    std::string bytes;
    if (!file)
        return bytes;
    char chunk[65536];
    DWORD got = 0;
    while (::ReadFile(file.get(), chunk, sizeof(chunk), &got, nullptr) && got > 0)
        bytes.append(chunk, got);
    return bytes;
}

std::wstring Describe(const wchar_t* what, DWORD error)
{
    return std::wstring(what) + L" failed, error " + std::to_wstring(error);
}

} // namespace

std::wstring WindowsPath(const char* unixPath)
{
    std::wstring path = L"Z:";
    for (const char* p = unixPath; *p; ++p)
        path += *p == '/' ? L'\\' : static_cast<wchar_t>(static_cast<unsigned char>(*p));
    return path;
}

ServiceRun::ServiceRun(const ServiceOptions& options)
{
    m_scm.reset(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
    if (!m_scm)
    {
        m_error = Describe(L"OpenSCManagerW", ::GetLastError());
        return;
    }
    Remove(); // a registration left behind by an aborted run

    // A fresh log, so that what a case reads is its own service run's.
    RemoveFolder(kLogFolder);
    ::DeleteFileW(kSinkFile);
    daxlib::unique_hkey key;
    if (::RegCreateKeyExW(HKEY_LOCAL_MACHINE, kProductKey, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, key.put(),
                          nullptr) != ERROR_SUCCESS)
    {
        m_error = L"the product key cannot be created";
        return;
    }
    ::RegSetValueExW(key.get(), L"LogLevel", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&options.logLevel),
                     sizeof(options.logLevel));

    ::DeleteFileW(kScenarioPath);
    if (options.installLibrary)
    {
        CreateFolders(kLibraryFolder);
        if (!::CopyFileW(WindowsPath(STANDIN_DLL).c_str(), kLibraryPath, FALSE))
        {
            m_error = Describe(L"installing the stand-in library", ::GetLastError());
            return;
        }
        if (!options.scenario.empty() && !WriteWholeFile(kScenarioPath, options.scenario))
        {
            m_error = Describe(L"writing the scenario", ::GetLastError());
            return;
        }
    }
    else if (!::DeleteFileW(kLibraryPath) && ::GetLastError() != ERROR_FILE_NOT_FOUND &&
             ::GetLastError() != ERROR_PATH_NOT_FOUND)
    {
        m_error = Describe(L"removing the stand-in library", ::GetLastError());
        return;
    }

    const std::wstring binary = L"\"" + WindowsPath(VELOMARD_EXE) + L"\"";
    m_service.reset(::CreateServiceW(m_scm.get(), L"velomard", L"velomard", SERVICE_ALL_ACCESS,
                                     SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL,
                                     binary.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr));
    if (!m_service)
        m_error = Describe(L"CreateServiceW", ::GetLastError());
}

ServiceRun::~ServiceRun()
{
    Remove();
    ::DeleteFileW(kScenarioPath);
    ::DeleteFileW(kLibraryPath);
}

void ServiceRun::Remove()
{
    m_service.reset();
    if (!m_scm)
        return;
    daxlib::unique_schandle old(::OpenServiceW(m_scm.get(), L"velomard", SERVICE_ALL_ACCESS));
    if (!old)
        return;
    m_service = std::move(old);
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
        return seen;
    WaitUntil(
        [&] {
            const DWORD state = Query().dwCurrentState;
            if (seen.empty() || seen.back() != state)
                seen.push_back(state);
            return state == SERVICE_RUNNING || state == SERVICE_STOPPED;
        },
        limit, milliseconds(10));
    return seen;
}

ServiceRun::StopOutcome ServiceRun::Stop(DWORD control)
{
    StopOutcome outcome;
    const DWORD pid = ProcessId();
    daxlib::unique_handle process(
        pid ? ::OpenProcess(SYNCHRONIZE | PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid) : nullptr);
    const auto sent = std::chrono::steady_clock::now();
    SERVICE_STATUS status{};
    outcome.controlAccepted = ::ControlService(m_service.get(), control, &status) != FALSE;
    outcome.reportedState = status.dwCurrentState;
    if (!outcome.controlAccepted)
    {
        outcome.controlError = ::GetLastError();
        return outcome;
    }
    if (process && ::WaitForSingleObject(process.get(), 10000) == WAIT_OBJECT_0)
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
    const std::string bytes = ReadWholeFile(kLogFile);
    std::wstring text;
    text.reserve(bytes.size() / 2);
    for (size_t i = 0; i + 1 < bytes.size(); i += 2)
        text += static_cast<wchar_t>(static_cast<unsigned char>(bytes[i]) |
                                     (static_cast<unsigned char>(bytes[i + 1]) << 8));
    return text;
}

size_t CountOf(const std::wstring& text, const std::wstring& fragment)
{
    size_t count = 0;
    for (size_t at = text.find(fragment); at != std::wstring::npos; at = text.find(fragment, at + fragment.size()))
        ++count;
    return count;
}

std::wstring WaitForLog(const std::wstring& fragment, milliseconds limit, size_t times)
{
    std::wstring text;
    WaitUntil(
        [&] {
            text = ReadLog();
            return CountOf(text, fragment) >= times;
        },
        limit);
    return text;
}

CtlResult Skeinctl(const std::string& words)
{
    CtlResult result;
    SECURITY_ATTRIBUTES inherit{sizeof(inherit), nullptr, TRUE};
    HANDLE readEnd = nullptr, writeEnd = nullptr;
    if (!::CreatePipe(&readEnd, &writeEnd, &inherit, 0))
        return result;
    daxlib::unique_handle reader(readEnd), writer(writeEnd);
    ::SetHandleInformation(reader.get(), HANDLE_FLAG_INHERIT, 0);

    std::wstring commandLine = L"\"" + WindowsPath(SKEINCTL_EXE) + L"\" ";
    for (char c : words)
        commandLine += static_cast<wchar_t>(static_cast<unsigned char>(c));
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = nullptr;
    startup.hStdOutput = writer.get();
    startup.hStdError = writer.get();
    PROCESS_INFORMATION info{};
    if (!::CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr, nullptr,
                          &startup, &info))
        return result;
    daxlib::unique_handle process(info.hProcess), thread(info.hThread);
    writer.reset(); // the child's copy is the last write end: end of output means it has exited

    char chunk[4096];
    DWORD got = 0;
    while (::ReadFile(reader.get(), chunk, sizeof(chunk), &got, nullptr) && got > 0)
        for (DWORD i = 0; i < got; ++i)
            if (chunk[i] != '\r')
                result.output += chunk[i];
    if (::WaitForSingleObject(process.get(), 30000) == WAIT_OBJECT_0)
    {
        DWORD code = 0;
        ::GetExitCodeProcess(process.get(), &code);
        result.exitCode = static_cast<int>(code);
    }
    return result;
}

std::vector<std::string> ReceivedUrls(uint32_t session)
{
    const CtlResult reply = Skeinctl("urls " + std::to_string(session));
    std::vector<std::string> urls;
    if (reply.exitCode != 0)
        return urls;
    size_t start = reply.output.find('\n'); // after "ok"
    while (start != std::string::npos && start + 1 < reply.output.size())
    {
        const size_t end = reply.output.find('\n', start + 1);
        const std::string line = reply.output.substr(start + 1, end == std::string::npos ? end : end - start - 1);
        if (!line.empty())
            urls.push_back(line);
        start = end;
    }
    return urls;
}

std::map<std::string, unsigned> SessionStats(uint32_t session)
{
    const CtlResult reply = Skeinctl("stats " + std::to_string(session));
    std::map<std::string, unsigned> stats;
    if (reply.exitCode != 0)
        return stats;
    size_t at = 0;
    while ((at = reply.output.find('=', at)) != std::string::npos)
    {
        size_t nameStart = reply.output.rfind(' ', at);
        nameStart = nameStart == std::string::npos ? 0 : nameStart + 1;
        stats[reply.output.substr(nameStart, at - nameStart)] =
            static_cast<unsigned>(std::strtoul(reply.output.c_str() + at + 1, nullptr, 10));
        ++at;
    }
    return stats;
}

std::string ToUtf8(std::u16string_view text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); ++i)
    {
        uint32_t c = text[i];
        if (c >= 0xD800 && c < 0xDC00 && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] < 0xE000)
            c = 0x10000 + ((c - 0xD800) << 10) + (text[++i] - 0xDC00);
        if (c < 0x80)
            out += static_cast<char>(c);
        else if (c < 0x800)
            out += static_cast<char>(0xC0 | (c >> 6)), out += static_cast<char>(0x80 | (c & 0x3F));
        else if (c < 0x10000)
            out += static_cast<char>(0xE0 | (c >> 12)), out += static_cast<char>(0x80 | ((c >> 6) & 0x3F)),
                out += static_cast<char>(0x80 | (c & 0x3F));
        else
            out += static_cast<char>(0xF0 | (c >> 18)), out += static_cast<char>(0x80 | ((c >> 12) & 0x3F)),
                out += static_cast<char>(0x80 | ((c >> 6) & 0x3F)), out += static_cast<char>(0x80 | (c & 0x3F));
    }
    return out;
}

bool AgentPipe::Connect(milliseconds limit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    for (;;)
    {
        m_pipe.reset(::CreateFileW(kAgentPipe, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                   FILE_FLAG_OVERLAPPED, nullptr));
        if (m_pipe)
        {
            m_event.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
            return m_event.valid();
        }
        const DWORD error = ::GetLastError();
        const auto left = std::chrono::duration_cast<milliseconds>(end - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return false;
        if (error == ERROR_PIPE_BUSY)
            ::WaitNamedPipeW(kAgentPipe, static_cast<DWORD>(std::min<long long>(left.count(), 1000)));
        else
            ::Sleep(20); // not listening yet, or between instances
    }
}

bool AgentPipe::Finish(BOOL started, OVERLAPPED& ov, DWORD& transferred, milliseconds limit)
{
    if (!started && ::GetLastError() != ERROR_IO_PENDING)
        return false;
    if (::WaitForSingleObject(ov.hEvent, static_cast<DWORD>(limit.count())) != WAIT_OBJECT_0)
        ::CancelIoEx(m_pipe.get(), &ov);
    // Waits for the cancellation too: the OVERLAPPED lives on the caller's stack.
    return ::GetOverlappedResult(m_pipe.get(), &ov, &transferred, TRUE) != FALSE;
}

bool AgentPipe::Write(const void* bytes, size_t size, milliseconds limit)
{
    if (!m_pipe)
        return false;
    const HANDLE event = m_event.get();
    ::ResetEvent(event);
    OVERLAPPED ov{};
    ov.hEvent = event;
    DWORD written = 0;
    const BOOL started = ::WriteFile(m_pipe.get(), bytes, static_cast<DWORD>(size), nullptr, &ov);
    return Finish(started, ov, written, limit) && written == size;
}

bool AgentPipe::ReadExact(void* bytes, size_t size, milliseconds limit)
{
    if (!m_pipe)
        return false;
    const HANDLE event = m_event.get();
    ::ResetEvent(event);
    const auto end = std::chrono::steady_clock::now() + limit;
    auto* out = static_cast<uint8_t*>(bytes);
    size_t have = 0;
    while (have < size)
    {
        const auto left = std::chrono::duration_cast<milliseconds>(end - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return false;
        OVERLAPPED ov{};
        ov.hEvent = event;
        ::ResetEvent(event);
        DWORD got = 0;
        const BOOL started = ::ReadFile(m_pipe.get(), out + have, static_cast<DWORD>(size - have), nullptr, &ov);
        if (!Finish(started, ov, got, left) || got == 0)
            return false;
        have += got;
    }
    return true;
}

bool AgentPipe::NothingArrives(milliseconds quiet)
{
    if (!m_pipe)
        return true;
    const HANDLE event = m_event.get();
    ::ResetEvent(event);
    OVERLAPPED ov{};
    ov.hEvent = event;
    uint8_t byte = 0;
    DWORD got = 0;
    const BOOL started = ::ReadFile(m_pipe.get(), &byte, 1, nullptr, &ov);
    Finish(started, ov, got, quiet);
    return got == 0;
}

bool AgentPipe::ClosedByPeer(milliseconds limit)
{
    if (!m_pipe)
        return false;
    const HANDLE event = m_event.get();
    ::ResetEvent(event);
    OVERLAPPED ov{};
    ov.hEvent = event;
    uint8_t byte = 0;
    DWORD got = 0;
    const BOOL started = ::ReadFile(m_pipe.get(), &byte, 1, nullptr, &ov);
    if (!started && ::GetLastError() != ERROR_IO_PENDING)
        return ::GetLastError() == ERROR_BROKEN_PIPE || ::GetLastError() == ERROR_PIPE_NOT_CONNECTED;
    const bool completed = ::WaitForSingleObject(event, static_cast<DWORD>(limit.count())) == WAIT_OBJECT_0;
    if (!completed)
        ::CancelIoEx(m_pipe.get(), &ov);
    const BOOL ok = ::GetOverlappedResult(m_pipe.get(), &ov, &got, TRUE);
    const DWORD error = ::GetLastError();
    return completed && !ok && (error == ERROR_BROKEN_PIPE || error == ERROR_PIPE_NOT_CONNECTED);
}

bool AgentPipe::Handshake(uint32_t a, uint64_t b)
{
    if (!Write(agentpipe::EncodeHandshake({a, b})))
        return false;
    uint8_t answer[24];
    if (!ReadExact(answer, sizeof(answer)))
        return false;
    const auto expected = agentpipe::EncodeHandshakeAnswer();
    return std::memcmp(answer, expected.data(), expected.size()) == 0;
}

std::optional<uint32_t> AgentPipe::OpenUrl(std::u16string_view url, milliseconds limit)
{
    if (!Write(agentpipe::EncodeOpenUrl(url)))
        return std::nullopt;
    uint8_t answer[12];
    if (!ReadExact(answer, sizeof(answer), limit))
        return std::nullopt;
    if (agentpipe::LoadU32(answer) != agentpipe::kTypeOpenUrl || agentpipe::LoadU32(answer + 4) != 4)
        return std::nullopt;
    return agentpipe::LoadU32(answer + 8);
}

} // namespace e2e
