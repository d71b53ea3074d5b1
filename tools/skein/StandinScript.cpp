// The stand-in library's text commands, from a scenario file, the control pipe or a test.
#include "common/PipeNames.h"
#include "tools/skein/StandinState.h"

#include <fstream>
#include <sstream>

namespace standin
{
namespace
{

bool ParsePeer(std::istringstream& in, PeerScript& peer, std::string& error)
{
    std::string word;
    while (in >> word)
    {
        const size_t eq = word.find('=');
        const std::string key = word.substr(0, eq);
        const std::string value = eq == std::string::npos ? std::string() : word.substr(eq + 1);
        if (key == "accept")
            peer = PeerScript{};
        else if (key == "absent")
            peer.mode = PeerMode::Absent;
        else if (key == "silent")
            peer.mode = PeerMode::Silent;
        else if (key == "mute")
            peer.mode = PeerMode::Mute;
        else if (key == "invalid-address")
            peer.mode = PeerMode::InvalidAddress;
        else if (key == "refuse-version")
            peer.versionStatus = 1;
        else if (key == "refuse-options")
            peer.optionsStatus = 1;
        else if (key == "version")
            peer.version = static_cast<uint32_t>(std::stoul(value, nullptr, 0));
        else if (key == "options")
            peer.optionsLength = static_cast<uint32_t>(std::stoul(value, nullptr, 0));
        else if (key == "break-after")
            peer.breakAfter = static_cast<uint32_t>(std::stoul(value, nullptr, 0));
        else if (key == "send")
        {
            if (!ParseHex(value, peer.afterHandshake))
                return error = "bad hex: " + value, false;
        }
        else if (key == "close-after-send")
            peer.closeAfterSend = true;
        else
            return error = "unknown behaviour: " + word, false;
    }
    return true;
}

std::string RestOfLine(std::istringstream& in)
{
    std::string rest;
    std::getline(in, rest);
    const size_t first = rest.find_first_not_of(" \t");
    return first == std::string::npos ? std::string() : rest.substr(first);
}

} // namespace

std::string RunCommand(const std::string& line)
{
    Library& lib = Lib();
    std::istringstream in(line);
    std::string verb;
    if (!(in >> verb) || verb[0] == '#')
        return "ok";
    try
    {
        daxlib::lock_guard lock(lib.mu);
        if (verb == "sessions")
        {
            std::string reply = "ok";
            for (const auto& [id, s] : lib.sessions)
                if (s.open)
                    reply += "\n" + std::to_string(id) + " " + Narrow(s.guidText) + " " + Narrow(s.name);
            return reply;
        }
        uint32_t id = 0;
        if (!(in >> id))
            return "error: session id expected";
        Session& s = lib.sessions[id];
        s.id = id;
        if (verb == "open")
        {
            std::string guid, type;
            in >> guid >> type;
            s.guidText = (guid.empty() || guid == "auto") ? AutoGuid(id) : Lower(Widen(guid));
            GUID parsed{};
            if (!ParseGuid(s.guidText, parsed))
                return "error: bad GUID";
            s.type = type.empty() ? 1 : static_cast<uint32_t>(std::stoul(type, nullptr, 0));
            s.name = Widen(RestOfLine(in));
            s.open = true;
            if (lib.notifying)
                QueueNotification(lib, SkApi::kEventSessionOpened, id, s.guidText, s.name, s.type);
            return "ok " + Narrow(s.guidText);
        }
        if (verb == "close")
        {
            s.open = false;
            for (auto& [h, c] : lib.connections)
                if (c->sessionId == id)
                    Break(lib, c);
            if (lib.notifying)
                QueueNotification(lib, SkApi::kEventSessionClosed, id, s.guidText, s.name, s.type);
            return "ok";
        }
        if (verb == "notify")
        {
            std::string kind, guid;
            in >> kind >> guid;
            const DWORD event = kind == "open" ? SkApi::kEventSessionOpened : SkApi::kEventSessionClosed;
            QueueNotification(lib, event, id, guid.empty() ? s.guidText : Lower(Widen(guid)),
                              Widen(RestOfLine(in)), s.type);
            return "ok";
        }
        if (verb == "peer")
        {
            std::string error;
            PeerScript peer = s.peer;
            if (!ParsePeer(in, peer, error))
                return "error: " + error;
            s.peer = peer;
            return "ok";
        }
        if (verb == "break")
        {
            int n = 0;
            for (auto& [h, c] : lib.connections)
                if (c->sessionId == id && !c->broken)
                    Break(lib, c), ++n;
            return "ok " + std::to_string(n);
        }
        if (verb == "send")
        {
            std::vector<uint8_t> bytes;
            std::string hex;
            in >> hex;
            if (!ParseHex(hex, bytes))
                return "error: bad hex";
            int n = 0;
            for (auto& [h, c] : lib.connections)
                if (c->sessionId == id && !c->broken)
                    PeerSend(*c, bytes.data(), bytes.size()), ++n;
            lib.cv.notify_all();
            return "ok " + std::to_string(n);
        }
        if (verb == "sink")
        {
            const std::string path = RestOfLine(in);
            s.sink = path == "default" ? DefaultSink() : Widen(path);
            return "ok " + Narrow(s.sink);
        }
        if (verb == "urls")
        {
            std::string reply = "ok";
            for (const auto& url : s.urls)
                reply += "\n" + url;
            return reply;
        }
        if (verb == "forget")
        {
            // A long run would otherwise keep every URL and byte it ever received in the
            // process that loaded the library; the sink file keeps the URLs.
            std::vector<std::string>().swap(s.urls);
            std::vector<uint8_t>().swap(s.lastReceived);
            std::vector<uint64_t>().swap(s.connectTimes);
            return "ok";
        }
        if (verb == "stats")
        {
            const auto& t = s.stats;
            char text[256];
            std::snprintf(
                text, sizeof(text),
                "ok attempts=%u connected=%u handshakes=%u submits=%u other=%u malformed=%u live=%u",
                t.connectAttempts, t.connections, t.handshakes, t.submits, t.otherMessages, t.malformed,
                t.liveConnections);
            return text;
        }
        return "error: unknown command " + verb;
    }
    catch (const std::exception& e)
    {
        return std::string("error: ") + e.what();
    }
}

namespace
{

std::wstring ModuleFolder()
{
    wchar_t path[MAX_PATH] = {};
    ::GetModuleFileNameW(g_hSelf, path, MAX_PATH);
    std::wstring folder(path);
    const size_t slash = folder.find_last_of(L'\\');
    return slash == std::wstring::npos ? std::wstring() : folder.substr(0, slash);
}

} // namespace

// A scenario file when one is named or lies next to the library; otherwise session 1 with an
// accepting client side that writes what it receives to the default file.
void RunScenario()
{
    wchar_t named[MAX_PATH] = {};
    const DWORD n = ::GetEnvironmentVariableW(L"CVSKAPI_STANDIN_SCENARIO", named, MAX_PATH);
    std::wstring path =
        (n > 0 && n < MAX_PATH) ? std::wstring(named) : ModuleFolder() + L"\\cvskapi.scenario";
    if (path == L"none")
        return;
    std::ifstream file(path.c_str());
    if (!file)
    {
        if (n > 0)
            return;
        RunCommand("open 1 auto 1 Standin default session");
        RunCommand("sink 1 default");
        return;
    }
    std::string line;
    while (std::getline(file, line))
    {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        RunCommand(line);
    }
}

// The control pipe: one command per connection, answered with one reply message.
void ControlThread(void* argument)
{
    const HANDLE stop = static_cast<HANDLE>(argument);
    wchar_t name[256] = {};
    if (!::GetEnvironmentVariableW(L"CVSKAPI_STANDIN_PIPE", name, 256))
        wcscpy(name, daxlib::kStandinControlPipe);
    if (wcscmp(name, L"none") == 0)
        return;
    HANDLE connected = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (!connected)
        return;
    for (;;)
    {
        HANDLE pipe = ::CreateNamedPipeW(
            name, PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | FILE_FLAG_FIRST_PIPE_INSTANCE,
            PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS, 1, 65536,
            65536, 0, nullptr);
        if (pipe == INVALID_HANDLE_VALUE)
            break; // another process serves that name; scripting then goes through it
        OVERLAPPED ov{};
        ov.hEvent = connected;
        ::ResetEvent(connected);
        bool ready = ::ConnectNamedPipe(pipe, &ov) != FALSE;
        if (!ready)
        {
            const DWORD error = ::GetLastError();
            if (error == ERROR_PIPE_CONNECTED)
                ready = true;
            else if (error == ERROR_IO_PENDING)
            {
                const HANDLE wakers[] = {stop, connected};
                const DWORD w = ::WaitForMultipleObjects(2, wakers, FALSE, INFINITE);
                DWORD ignored = 0;
                if (w == WAIT_OBJECT_0 + 1)
                    ready = ::GetOverlappedResult(pipe, &ov, &ignored, FALSE) != FALSE;
                else
                {
                    ::CancelIoEx(pipe, &ov);
                    ::GetOverlappedResult(pipe, &ov, &ignored, TRUE);
                    ::CloseHandle(pipe);
                    break;
                }
            }
        }
        if (ready)
        {
            std::string request(65536, '\0');
            DWORD got = 0;
            ::ResetEvent(connected);
            OVERLAPPED rov{};
            rov.hEvent = connected;
            BOOL ok = ::ReadFile(pipe, request.data(), static_cast<DWORD>(request.size()), nullptr, &rov);
            if (ok || ::GetLastError() == ERROR_IO_PENDING)
            {
                const HANDLE wakers[] = {stop, connected};
                if (::WaitForMultipleObjects(2, wakers, FALSE, 10000) == WAIT_OBJECT_0 + 1 &&
                    ::GetOverlappedResult(pipe, &rov, &got, FALSE))
                {
                    request.resize(got);
                    const std::string reply = RunCommand(request);
                    ::ResetEvent(connected);
                    OVERLAPPED wov{};
                    wov.hEvent = connected;
                    DWORD written = 0;
                    if (::WriteFile(pipe, reply.data(), static_cast<DWORD>(reply.size()), nullptr, &wov) ||
                        ::GetLastError() == ERROR_IO_PENDING)
                        ::GetOverlappedResult(pipe, &wov, &written, TRUE);
                    ::FlushFileBuffers(pipe);
                }
                else
                {
                    ::CancelIoEx(pipe, &rov);
                    ::GetOverlappedResult(pipe, &rov, &got, TRUE);
                }
            }
            ::DisconnectNamedPipe(pipe);
        }
        ::CloseHandle(pipe);
        if (::WaitForSingleObject(stop, 0) == WAIT_OBJECT_0)
            break;
    }
    ::CloseHandle(connected);
}

} // namespace standin
