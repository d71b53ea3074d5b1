#include "rdpclient/UrlOpener.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <cstring>

extern char** environ;

namespace RdpClient
{

namespace
{

// posix_spawn's attributes and file actions, released whatever happens.
class SpawnSetup
{
public:
    SpawnSetup()
    {
        m_bAttr = posix_spawnattr_init(&m_attr) == 0;
        m_bActions = posix_spawn_file_actions_init(&m_actions) == 0;
    }
    ~SpawnSetup()
    {
        if (m_bAttr)
            posix_spawnattr_destroy(&m_attr);
        if (m_bActions)
            posix_spawn_file_actions_destroy(&m_actions);
    }
    SpawnSetup(const SpawnSetup&) = delete;
    SpawnSetup& operator=(const SpawnSetup&) = delete;

    // The program gets no terminal input, none of FreeRDP's descriptors, default signal handling
    // and a session of its own, so that the client's terminal and signals do not reach it.
    bool Prepare()
    {
        if (!m_bAttr || !m_bActions)
            return false;
        sigset_t none;
        sigemptyset(&none);
        sigset_t defaults;
        sigemptyset(&defaults);
        for (int sig : {SIGPIPE, SIGCHLD, SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1, SIGUSR2, SIGALRM})
            sigaddset(&defaults, sig);
        return posix_spawnattr_setflags(&m_attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF |
                                                     POSIX_SPAWN_SETSID) == 0 &&
               posix_spawnattr_setsigmask(&m_attr, &none) == 0 &&
               posix_spawnattr_setsigdefault(&m_attr, &defaults) == 0 &&
               posix_spawn_file_actions_addopen(&m_actions, 0, "/dev/null", O_RDONLY, 0) == 0 &&
               posix_spawn_file_actions_addclosefrom_np(&m_actions, 3) == 0;
    }
    const posix_spawnattr_t* Attr() const { return &m_attr; }
    const posix_spawn_file_actions_t* Actions() const { return &m_actions; }

private:
    posix_spawnattr_t m_attr{};
    posix_spawn_file_actions_t m_actions{};
    bool m_bAttr = false;
    bool m_bActions = false;
};

} // namespace

UrlOpener::UrlOpener(std::string program, LogSink log)
    : m_strProgram(std::move(program)), m_log(std::move(log)), m_worker([this] { Run(); })
{
}

UrlOpener::~UrlOpener()
{
    {
        std::lock_guard lock(m_lock);
        m_bStop = true;
    }
    m_cvWork.notify_all();
    m_worker.join();
}

void UrlOpener::Log(LogLevel level, const std::string& text) const
{
    if (m_log)
        m_log(level, text);
}

void UrlOpener::Open(std::string url)
{
    {
        std::lock_guard lock(m_lock);
        if (m_queue.size() >= kMaxQueued)
        {
            Log(LogLevel::Warning, "dropped a URL: " + std::to_string(kMaxQueued) + " are already waiting");
            return;
        }
        m_queue.push_back(std::move(url));
    }
    m_cvWork.notify_one();
}

void UrlOpener::Run()
{
    std::unique_lock lock(m_lock);
    for (;;)
    {
        if (m_children.empty())
            m_cvWork.wait(lock, [this] { return m_bStop || !m_queue.empty(); });
        else
            m_cvWork.wait_for(lock, std::chrono::milliseconds(kReapIntervalMs),
                              [this] { return m_bStop || !m_queue.empty(); });
        while (!m_bStop && !m_queue.empty())
        {
            std::string url = std::move(m_queue.front());
            m_queue.pop_front();
            lock.unlock();
            Start(url);
            lock.lock();
        }
        lock.unlock();
        Reap();
        lock.lock();
        if (m_bStop)
            return;
    }
}

void UrlOpener::Start(const std::string& url)
{
    SpawnSetup setup;
    if (!setup.Prepare())
    {
        Log(LogLevel::Error, "cannot prepare to start " + m_strProgram);
        return;
    }
    // argv holds the program and the URL, nothing else: the URL cannot become an option either,
    // since every URL let through begins with its scheme's letter.
    std::string program = m_strProgram;
    std::string argument = url;
    char* argv[] = {program.data(), argument.data(), nullptr};
    pid_t pid = 0;
    const int error = posix_spawnp(&pid, program.c_str(), setup.Actions(), setup.Attr(), argv, environ);
    if (error != 0)
    {
        Log(LogLevel::Error, "cannot start " + m_strProgram + ": " + std::strerror(error));
        return;
    }
    std::lock_guard lock(m_lock);
    m_children.push_back(pid);
}

void UrlOpener::Reap()
{
    std::vector<pid_t> children;
    {
        std::lock_guard lock(m_lock);
        children.swap(m_children);
    }
    std::vector<pid_t> running;
    for (pid_t pid : children)
    {
        int status = 0;
        const pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == 0 || (done < 0 && errno == EINTR))
        {
            running.push_back(pid);
            continue;
        }
        // ECHILD: the host program ignores SIGCHLD, and the system reaped it already.
        if (done < 0)
            continue;
        if (WIFEXITED(status) && WEXITSTATUS(status) != 0)
            Log(LogLevel::Warning,
                m_strProgram + " exited with status " + std::to_string(WEXITSTATUS(status)));
        else if (WIFSIGNALED(status))
            Log(LogLevel::Warning, m_strProgram + " ended by signal " + std::to_string(WTERMSIG(status)));
    }
    std::lock_guard lock(m_lock);
    m_children.insert(m_children.end(), running.begin(), running.end());
}

} // namespace RdpClient
