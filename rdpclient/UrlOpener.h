#pragma once
// Opens URLs on the client machine with a program of the user's choice (xdg-open unless told
// otherwise), on a thread of its own so that FreeRDP's channel thread never waits for it. The
// program is started without a shell, with the URL as its one argument, so no character of the
// URL means anything but itself; its ended children are reaped.
#include "rdpclient/ClientLog.h"

#include <sys/types.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace RdpClient
{

class UrlOpener
{
public:
    // How long the worker sleeps between looks at children that are still running.
    static constexpr int kReapIntervalMs = 200;
    // URLs waiting for their turn beyond this are dropped (a host flooding the channel).
    static constexpr size_t kMaxQueued = 64;

    UrlOpener(std::string program, LogSink log);
    // Starts no more programs, reaps those that have ended; any still running are left to
    // finish on their own (a browser outlives the connection).
    ~UrlOpener();
    UrlOpener(const UrlOpener&) = delete;
    UrlOpener& operator=(const UrlOpener&) = delete;

    void Open(std::string url);

private:
    void Run();
    void Start(const std::string& url);
    void Reap();
    void Log(LogLevel level, const std::string& text) const;

    const std::string m_strProgram;
    const LogSink m_log;
    // Guards m_queue, m_children and m_bStop.
    std::mutex m_lock;
    std::condition_variable m_cvWork;
    std::deque<std::string> m_queue;
    std::vector<pid_t> m_children;
    bool m_bStop = false;
    std::thread m_worker; // last: it starts after everything it uses, and is joined first
};

} // namespace RdpClient
