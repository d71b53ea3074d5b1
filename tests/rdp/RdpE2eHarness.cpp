#include "tests/rdp/RdpE2eHarness.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace RdpE2e
{

namespace
{

using Clock = std::chrono::steady_clock;

std::vector<std::string> MergedEnvironment(const std::vector<std::string>& extra)
{
    std::map<std::string, std::string> vars;
    for (char** e = environ; *e; ++e)
    {
        const std::string var = *e;
        vars[var.substr(0, var.find('='))] = var;
    }
    for (const auto& var : extra)
        vars[var.substr(0, var.find('='))] = var;
    std::vector<std::string> merged;
    for (auto& [name, var] : vars)
        merged.push_back(var);
    return merged;
}

std::vector<char*> Pointers(std::vector<std::string>& strings)
{
    std::vector<char*> pointers;
    for (auto& s : strings)
        pointers.push_back(s.data());
    pointers.push_back(nullptr);
    return pointers;
}

std::string Hex(const std::string& hex)
{
    std::string bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return bytes;
}

} // namespace

Child::Child(const Spec& spec)
{
    int input[2] = {-1, -1};
    if (spec.stdinPipe && pipe2(input, O_CLOEXEC) != 0)
        return;
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attr;
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attr);
    if (spec.stdinPipe)
        posix_spawn_file_actions_adddup2(&actions, input[0], 0);
    else
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, spec.output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    if (spec.passFd >= 0)
        posix_spawn_file_actions_adddup2(&actions, spec.passFd, 3);
    // A group of its own, so that ending it ends whatever it started as well.
    sigset_t none;
    sigemptyset(&none);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    posix_spawnattr_setpgroup(&attr, 0);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &defaults);

    std::vector<std::string> argv = spec.argv;
    std::vector<std::string> env = MergedEnvironment(spec.env);
    auto argvp = Pointers(argv);
    auto envp = Pointers(env);
    if (posix_spawnp(&m_pid, argv[0].c_str(), &actions, &attr, argvp.data(), envp.data()) != 0)
        m_pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    if (spec.stdinPipe)
    {
        close(input[0]);
        m_stdin = input[1];
    }
}

Child::~Child()
{
    Stop();
}

void Child::Signal(int sig) const
{
    if (m_pid > 0 && !m_bReaped)
        kill(m_pid, sig);
}

bool Child::Send(const std::string& line) const
{
    if (m_stdin < 0)
        return false;
    const std::string text = line + "\n";
    return write(m_stdin, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

bool Child::WaitExit(Millis timeout, int* status)
{
    if (m_pid <= 0)
        return true;
    const auto until = Clock::now() + timeout;
    while (!m_bReaped)
    {
        int s = 0;
        const pid_t done = waitpid(m_pid, &s, WNOHANG);
        if (done == m_pid || (done < 0 && errno != EINTR))
        {
            m_bReaped = true;
            if (status)
                *status = s;
            break;
        }
        if (Clock::now() >= until)
            return false;
        std::this_thread::sleep_for(Millis(10));
    }
    return true;
}

void Child::Stop()
{
    if (m_stdin >= 0)
    {
        close(m_stdin);
        m_stdin = -1;
    }
    if (m_pid <= 0 || m_bReaped)
        return;
    kill(-m_pid, SIGTERM);
    if (!WaitExit(Millis(2000)))
    {
        kill(-m_pid, SIGKILL);
        WaitExit(Millis(5000));
    }
    // Whatever else the group still holds.
    kill(-m_pid, SIGKILL);
}

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string WaitForLine(const std::string& path, const std::string& part, Millis timeout)
{
    const auto until = Clock::now() + timeout;
    for (;;)
    {
        std::istringstream lines(ReadFile(path));
        for (std::string line; std::getline(lines, line);)
        {
            if (line.find(part) != std::string::npos)
                return line;
        }
        if (Clock::now() >= until)
            return {};
        std::this_thread::sleep_for(Millis(10));
    }
}

std::vector<std::vector<std::string>> ReadRecords(const std::string& path)
{
    std::vector<std::vector<std::string>> records;
    std::istringstream lines(ReadFile(path));
    for (std::string line; std::getline(lines, line);)
    {
        std::istringstream words(line);
        size_t count = 0;
        words >> count;
        std::vector<std::string> args;
        for (std::string hex; words >> hex;)
            args.push_back(Hex(hex));
        // An empty argument has no hex at all.
        args.resize(count);
        records.push_back(args);
    }
    return records;
}

Environment& Environment::Get()
{
    static Environment environment;
    return environment;
}

Environment::Environment()
{
    signal(SIGPIPE, SIG_IGN);
    char pattern[] = "/tmp/velomar-rdp-XXXXXX";
    if (!mkdtemp(pattern))
    {
        m_strError = "cannot make a temporary folder";
        return;
    }
    m_strFolder = pattern;
    if (!std::filesystem::is_directory(VELOMAR_FREERDP_ADDIN_DIR))
    {
        m_strError = std::string(VELOMAR_FREERDP_ADDIN_DIR) + " does not exist (scripts/setup.sh makes it)";
        return;
    }

    m_strCertDir = m_strFolder + "/cert";
    std::filesystem::create_directory(m_strCertDir);
    {
        Child makecert(
            {{"winpr-makecert", "-rdp", "-path", m_strCertDir, "-n", "server"}, {}, NewPath("makecert")});
        int status = 0;
        if (!makecert.WaitExit(Millis(30000), &status) ||
            !std::filesystem::exists(m_strCertDir + "/server.key"))
        {
            m_strError = "winpr-makecert made no certificate";
            return;
        }
    }

    // Xvfb picks a free display and says which on descriptor 3.
    int display[2];
    if (pipe2(display, O_CLOEXEC) != 0)
    {
        m_strError = "pipe";
        return;
    }
    const std::string xvfbLog = NewPath("xvfb");
    m_xvfb = std::make_unique<Child>(
        Child::Spec{{"Xvfb", "-displayfd", "3", "-nolisten", "tcp", "-screen", "0", "800x600x24"},
                    {},
                    xvfbLog,
                    false,
                    display[1]});
    close(display[1]);
    std::string number;
    const auto until = Clock::now() + Millis(15000);
    while (number.find('\n') == std::string::npos && Clock::now() < until)
    {
        pollfd fd{display[0], POLLIN, 0};
        if (poll(&fd, 1, 100) <= 0)
            continue;
        char chunk[16];
        const ssize_t got = read(display[0], chunk, sizeof chunk);
        if (got <= 0)
            break;
        number.append(chunk, static_cast<size_t>(got));
    }
    close(display[0]);
    if (number.find('\n') == std::string::npos)
    {
        m_strError = "Xvfb did not start: " + ReadFile(xvfbLog);
        return;
    }
    m_strDisplay = ":" + number.substr(0, number.find('\n'));
}

std::string Environment::NewPath(const std::string& stem)
{
    return m_strFolder + "/" + stem + "-" + std::to_string(m_nPaths++);
}

Environment::~Environment()
{
    m_xvfb.reset();
    if (!m_strFolder.empty() && !std::getenv("VELOMAR_KEEP_RDP_FILES"))
        std::filesystem::remove_all(m_strFolder);
}

Host::Host(std::vector<std::string> extraArgs)
{
    Environment& env = Environment::Get();
    m_strOutput = env.NewPath("host");
    std::vector<std::string> argv = {VELOMAR_RDP_HOST, "--cert-dir", env.CertDir(), "--lifetime", "60"};
    argv.insert(argv.end(), extraArgs.begin(), extraArgs.end());
    m_child = std::make_unique<Child>(Child::Spec{argv, {"WLOG_LEVEL=WARN"}, m_strOutput, true});
    const std::string line = WaitFor("listening 127.0.0.1:", Millis(10000));
    if (!line.empty())
        m_nPort = std::atoi(line.substr(line.rfind(':') + 1).c_str());
}

std::string Host::WaitFor(const std::string& part, Millis timeout) const
{
    return WaitForLine(m_strOutput, part, timeout);
}

Client::Client(int port, bool withAddin, const std::string& record)
{
    Environment& env = Environment::Get();
    m_strOutput = env.NewPath("client");
    const std::string home = env.NewPath("home");
    std::filesystem::create_directory(home);
    // FreeRDP loads add-ins from its own folder only: the build's is laid over it, visible to
    // this client alone.
    std::vector<std::string> argv = {"unshare",
                                     "-rm",
                                     "sh",
                                     "-c",
                                     "mount --bind \"$1\" \"$2\" && shift 2 && exec \"$@\"",
                                     "sh",
                                     VELOMAR_ADDIN_BUILD_DIR,
                                     VELOMAR_FREERDP_ADDIN_DIR,
                                     "xfreerdp",
                                     "/v:127.0.0.1:" + std::to_string(port),
                                     "/cert:ignore",
                                     "/u:velomar",
                                     "/p:velomar",
                                     "-sec-nla",
                                     "/size:640x480"};
    if (withAddin)
        argv.push_back(std::string("/vc:velomar,opener:") + VELOMAR_RECORDER);
    m_child = std::make_unique<Child>(Child::Spec{
        argv, {"HOME=" + home, "DISPLAY=" + env.Display(), "VELOMAR_RECORDER_FILE=" + record}, m_strOutput});
}

std::string Client::WaitFor(const std::string& part, Millis timeout) const
{
    return WaitForLine(m_strOutput, part, timeout);
}

void Client::Kill() const
{
    m_child->Signal(SIGKILL);
}

} // namespace RdpE2e
