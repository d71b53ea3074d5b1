// velomar-open: the reference agent. Hands one URL to the velomard service and, when the
// service cannot take it, opens it on this host with a browser that is not velomar-open.
// Built twice from this file: velomar-open.exe (Windows GUI subsystem, the program the browser
// registration starts, so that no console window flashes on a click; it shows a notice when a
// URL opens nowhere) and velomar-open-cli.exe (console subsystem, for scripts: cmd.exe waits for
// it, so its exit code is reliable). Both print the same lines and exit with the same codes.
#include "common/DaxException.h"
#include "common/ProcessSecurity.h"
#include "common/WideFormat.h"
#include "pipeserver/UrlPolicyRegistry.h"
#include "pipe/ThreadPool.h"
#include "tools/agent/AgentOptions.h"
#include "tools/agent/AgentSession.h"
#include "tools/agent/BrowserCommand.h"
#include "tools/agent/BrowserFallback.h"
#include "tools/agent/BrowserRegistration.h"
#include "tools/agent/ConsoleOutput.h"

#include <windows.h>
#include <objbase.h>
#include <shellapi.h>

#include <exception>
#include <memory>
#include <string>
#include <vector>

namespace
{

constexpr wchar_t kProgram[] = L"velomar-open: ";
#ifdef VELOMAR_OPEN_GUI
constexpr bool kWindowedProgram = true;
#else
constexpr bool kWindowedProgram = false;
#endif

void PrintError(const std::wstring& line)
{
    agent::Print(STD_ERROR_HANDLE, kProgram + line + L"\n");
}

std::wstring OwnPath()
{
    std::wstring path(MAX_PATH, L'\0');
    for (;;)
    {
        const DWORD length = ::GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
        if (length == 0)
            return {};
        if (length < path.size())
        {
            path.resize(length);
            return path;
        }
        path.resize(path.size() * 2);
    }
}

// The transport runs its work on the process's pool; it lives exactly as long as the session.
class ScopedThreadPool
{
public:
    ScopedThreadPool()
    {
        auto pool = std::make_shared<CThreadPool>(8, nullptr);
        if (pool->Create())
        {
            m_pool = std::move(pool);
            SetThreadPool(m_pool);
        }
    }
    ~ScopedThreadPool()
    {
        if (!m_pool)
            return;
        SetThreadPool(nullptr);
        m_pool->Close();
    }
    ScopedThreadPool(const ScopedThreadPool&) = delete;
    ScopedThreadPool& operator=(const ScopedThreadPool&) = delete;
    bool Valid() const { return m_pool != nullptr; }

private:
    std::shared_ptr<CThreadPool> m_pool;
};

agent::SessionStatus SendToService(const agent::Options& options, DWORD& error)
{
    ScopedThreadPool pool;
    if (!pool.Valid())
    {
        error = ::GetLastError();
        return agent::SessionStatus::Failed;
    }
    agent::CAgentSession session;
    session.ExpectService(agent::ExpectedServiceName());
    const agent::SessionStatus status =
        session.SendUrl(options.url, agent::OwnHandshakeValues(), options.timeoutMs);
    error = session.GetError();
    return status;
}

// Waits until the handler has been started: the process ends right after.
DWORD OpenLocally(const std::wstring& url)
{
    const HRESULT com = ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED | COINIT_DISABLE_OLE1DDE);
    SHELLEXECUTEINFOW info{};
    info.cbSize = sizeof(info);
    info.fMask = SEE_MASK_NOASYNC | SEE_MASK_FLAG_NO_UI;
    info.lpVerb = L"open";
    info.lpFile = url.c_str();
    info.nShow = SW_SHOWNORMAL;
    const DWORD error =
        ::ShellExecuteExW(&info) ? 0 : (::GetLastError() ? ::GetLastError() : ERROR_NO_ASSOCIATION);
    if (SUCCEEDED(com))
        ::CoUninitialize();
    return error;
}

int OpenUrl(const agent::Options& options)
{
    // The same policy the service enforces, checked first so that a refused URL costs no
    // connection; the service's answer 2 covers a policy changed in between.
    const UrlPolicyLoad policy = ReadUrlPolicy();
    const urlpolicy::Verdict verdict =
        urlpolicy::Evaluate(policy.policy, std::u16string(options.url.begin(), options.url.end()));
    DWORD error = 0;
    agent::SessionStatus status = agent::SessionStatus::Refused;
    if (verdict.Allowed())
        status = SendToService(options, error);
    if (status == agent::SessionStatus::Sent)
        return agent::kExitSent;
    if (status == agent::SessionStatus::WrongServer)
    {
        // Someone else holds the pipe's name: tell the user rather than carry on as if the
        // service were merely absent.
        PrintError(L"not opened: " + agent::DescribeStatus(status, error));
        return agent::kExitWrongServer;
    }
    const bool refused = status == agent::SessionStatus::Refused;
    const int notOpened = refused ? agent::kExitRefusedNotOpened : agent::kExitNotOpened;
    std::wstring reason = agent::DescribeStatus(status, error);
    if (!verdict.Allowed())
    {
        const char* rule = urlpolicy::RuleName(verdict.rule);
        reason += L" (" + std::wstring(rule, rule + std::char_traits<char>::length(rule)) + L")";
    }
    if (!options.fallback)
    {
        PrintError(L"not opened: " + reason);
        return notOpened;
    }
    const std::wstring scheme = agent::UrlScheme(options.url);
    const agent::FallbackResult browser = agent::OpenWithFallbackBrowser(options.url, scheme);
    if (browser.opened)
    {
        PrintError(L"opened on this host (" + browser.browser + L"): " + reason);
        return refused ? agent::kExitRefusedOpenedLocally : agent::kExitOpenedLocally;
    }
    // The scheme's own handler comes last: for other schemes than http and https it is the
    // only choice, and for those it is the user's browser unless it is velomar-open.
    const std::wstring self = OwnPath();
    if (!self.empty() && agent::DefaultHandlerIs(scheme, self))
    {
        PrintError(L"not opened: " + reason + L", and no browser but velomar-open itself opens " + scheme +
                   L": URLs on this host");
        agent::RaiseNotOpenedNotice(options.url, kWindowedProgram);
        return notOpened;
    }
    const DWORD shellError = OpenLocally(options.url);
    if (shellError != 0)
    {
        PrintError(L"not opened: " + reason +
                   daxlib::Format(L", and opening it on this host failed (error %u)",
                                  static_cast<unsigned>(shellError)));
        agent::RaiseNotOpenedNotice(options.url, kWindowedProgram);
        return notOpened;
    }
    PrintError(L"opened on this host: " + reason);
    return refused ? agent::kExitRefusedOpenedLocally : agent::kExitOpenedLocally;
}

// The registration names the windowed program, also when the console one is run.
std::wstring RegisteredProgram(const std::wstring& self)
{
    const std::wstring windowed = agent::WindowedProgramBeside(self);
    return ::GetFileAttributesW(windowed.c_str()) != INVALID_FILE_ATTRIBUTES ? windowed : self;
}

int Registration(agent::Action action)
{
    const std::wstring self = OwnPath();
    LSTATUS status = static_cast<LSTATUS>(::GetLastError());
    if (!self.empty() && action == agent::Action::Register)
    {
        // Before the registration: what it replaces is the fallback browser of later clicks.
        agent::RememberPreviousBrowsers();
        status = agent::RegisterAsBrowser(HKEY_CURRENT_USER, L"Software", RegisteredProgram(self));
    }
    else if (!self.empty())
    {
        status = agent::UnregisterAsBrowser(HKEY_CURRENT_USER, L"Software");
        agent::ForgetPreviousBrowsers();
    }
    if (status != ERROR_SUCCESS)
    {
        PrintError(daxlib::Format(action == agent::Action::Register ? L"registration failed (error %ld)"
                                                                    : L"unregistration failed (error %ld)",
                                  static_cast<long>(status)));
        return agent::kExitRegistration;
    }
    return agent::kExitSent;
}

int Run(int argc, wchar_t** argv)
{
    std::vector<std::wstring> args;
    for (int i = 1; i < argc; ++i)
        args.emplace_back(argv[i]);
    const agent::ParseResult parsed = agent::ParseCommandLine(args);
    if (parsed.exitCode != agent::kExitSent)
    {
        PrintError(parsed.error);
        return parsed.exitCode;
    }
    switch (parsed.options.action)
    {
    case agent::Action::Help:
        agent::Print(STD_OUTPUT_HANDLE, agent::HelpText());
        return agent::kExitSent;
    case agent::Action::Register:
    case agent::Action::Unregister:
        return Registration(parsed.options.action);
    case agent::Action::OpenUrl:
        break;
    }
    return OpenUrl(parsed.options);
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    daxlib::RestrictLibrarySearch();
    try
    {
        return Run(argc, argv);
    }
    catch (daxlib::CDaxException* raw)
    {
        daxlib::DaxExceptionPtr e(raw);
        PrintError(L"internal error");
    }
    catch (const std::exception&)
    {
        PrintError(L"internal error");
    }
    return agent::kExitNotOpened;
}
