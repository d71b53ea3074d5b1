#include "tests/rdp/RdpE2e.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

extern char** environ;

namespace RdpE2e
{

using Clock = std::chrono::steady_clock;

Child::Child(std::vector<std::string> argv, const std::string& output, const std::vector<std::string>& env,
             int fd3)
{
    int input[2];
    if (pipe2(input, O_CLOEXEC) != 0)
        return;
    m_stdin = input[1];
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input[0], 0);
    posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    if (fd3 >= 0)
        posix_spawn_file_actions_adddup2(&actions, fd3, 3);
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t signals;
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attr, &signals);
    sigaddset(&signals, SIGPIPE); // ignored here, not there
    posix_spawnattr_setsigdefault(&attr, &signals);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    std::vector<std::string> vars = env;
    for (char** e = environ; *e; ++e)
        vars.emplace_back(*e); // the first of a name wins
    std::vector<char*> args, envp;
    for (auto& a : argv)
        args.push_back(a.data());
    for (auto& v : vars)
        envp.push_back(v.data());
    args.push_back(nullptr);
    envp.push_back(nullptr);
    if (posix_spawnp(&m_pid, args[0], &actions, &attr, args.data(), envp.data()) != 0)
        m_pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    close(input[0]);
}

Child::~Child()
{
    if (m_stdin >= 0)
        close(m_stdin);
    if (m_pid <= 0 || m_bReaped)
        return;
    // Until the leader is reaped its group keeps its id: the whole group is ended through it.
    kill(-m_pid, SIGTERM);
    siginfo_t info{};
    for (int i = 0;
         i < 200 && (waitid(P_PID, static_cast<id_t>(m_pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0 ||
                     info.si_pid == 0);
         ++i)
        std::this_thread::sleep_for(Millis(10));
    kill(-m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
}

bool Child::Send(const std::string& line) const
{
    const std::string text = line + "\n";
    return write(m_stdin, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

void Child::Kill() const
{
    if (m_pid > 0 && !m_bReaped)
        kill(m_pid, SIGKILL);
}

bool Child::Exited(Millis timeout, int* status)
{
    for (const auto until = Clock::now() + timeout; m_pid > 0 && !m_bReaped;
         std::this_thread::sleep_for(Millis(10)))
    {
        int s = 0;
        const pid_t done = waitpid(m_pid, &s, WNOHANG);
        m_bReaped = done == m_pid || (done < 0 && errno != EINTR);
        if (m_bReaped && status)
            *status = s;
        if (!m_bReaped && Clock::now() >= until)
            return false;
    }
    return true;
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
    for (const auto until = Clock::now() + timeout;; std::this_thread::sleep_for(Millis(10)))
    {
        std::istringstream lines(ReadFile(path));
        for (std::string line; std::getline(lines, line);)
            if (line.find(part) != std::string::npos)
                return line;
        if (Clock::now() >= until)
            return {};
    }
}

std::vector<std::vector<std::string>> ReadRecords(const std::string& path)
{
    std::vector<std::vector<std::string>> records;
    std::istringstream lines(ReadFile(path));
    for (std::string line; std::getline(lines, line);)
    {
        records.emplace_back();
        for (size_t at = 0, end; (end = line.find('\0', at)) != std::string::npos; at = end + 1)
            records.back().push_back(line.substr(at, end - at));
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
    folder = mkdtemp(pattern) ? pattern : "";
    certDir = folder + "/cert";
    if (folder.empty() || !std::filesystem::is_directory(VELOMAR_FREERDP_ADDIN_DIR))
    {
        error = "no temporary folder, or no " VELOMAR_FREERDP_ADDIN_DIR " (scripts/setup.sh makes it)";
        return;
    }
    Child makecert({"winpr-makecert", "-rdp", "-path", certDir, "-n", "server"}, NewPath("makecert"));
    if (!makecert.Exited(Millis(30000)) || !std::filesystem::exists(certDir + "/server.key"))
    {
        error = "winpr-makecert made no certificate";
        return;
    }
    // Xvfb picks a free display and names it on descriptor 3.
    int pipe[2];
    if (pipe2(pipe, O_CLOEXEC) != 0)
    {
        error = "no pipe for Xvfb";
        return;
    }
    const std::string log = NewPath("xvfb");
    xvfb = std::make_unique<Child>(
        std::vector<std::string>{"Xvfb", "-displayfd", "3", "-nolisten", "tcp", "-screen", "0", "800x600x24"},
        log, std::vector<std::string>{}, pipe[1]);
    close(pipe[1]);
    // It writes the number and the newline apiece, and fails if the pipe closes in between.
    std::string number;
    pollfd ready{pipe[0], POLLIN, 0};
    char c = 0;
    while (c != '\n' && poll(&ready, 1, 15000) == 1 && read(pipe[0], &c, 1) == 1)
        number += c;
    if (c == '\n')
        display = ":" + std::to_string(std::atoi(number.c_str()));
    else
        error = "Xvfb did not start: " + ReadFile(log);
    close(pipe[0]);
}

std::string Environment::NewPath(const std::string& stem)
{
    return folder + "/" + stem + "-" + std::to_string(paths++);
}

Environment::~Environment()
{
    xvfb.reset();
    if (!folder.empty() && !std::getenv("VELOMAR_KEEP_RDP_FILES"))
        std::filesystem::remove_all(folder);
}

Host::Host(std::vector<std::string> extraArgs)
{
    Environment& env = Environment::Get();
    output = env.NewPath("host");
    std::vector<std::string> argv = {VELOMAR_RDP_HOST, "--cert-dir", env.certDir, "--lifetime", "60"};
    argv.insert(argv.end(), extraArgs.begin(), extraArgs.end());
    child = std::make_unique<Child>(argv, output, std::vector<std::string>{"WLOG_LEVEL=WARN"});
    const std::string line = WaitFor("listening 127.0.0.1:", Millis(10000));
    port = line.empty() ? 0 : std::atoi(line.substr(line.rfind(':') + 1).c_str());
}

Client::Client(int port, const std::string& record)
{
    Environment& env = Environment::Get();
    output = env.NewPath("client");
    const std::string home = env.NewPath("home");
    std::filesystem::create_directory(home);
    // FreeRDP loads add-ins from its own folder only: the build's is laid over it, for this
    // client alone.
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
    if (!record.empty())
        argv.push_back(std::string("/vc:velomar,opener:") + VELOMAR_RECORDER);
    child = std::make_unique<Child>(argv, output,
                                    std::vector<std::string>{"HOME=" + home, "DISPLAY=" + env.display,
                                                             "VELOMAR_RECORDER_FILE=" + record});
}

} // namespace RdpE2e
