#pragma once
// What the end-to-end tests of the add-in run: the test RDP host, and xfreerdp with the build's
// add-in laid over FreeRDP's add-in folder in a mount namespace of its own, under one Xvfb per
// test program, with a certificate made for the run. Every program runs in a process group of
// its own and is ended with it; only 127.0.0.1 is used.
#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace RdpE2e
{

using Millis = std::chrono::milliseconds;

// A program with a pipe as its input and a file as its output; TERM, then KILL, to its group
// at the end.
class Child
{
public:
    Child(std::vector<std::string> argv, const std::string& output, const std::vector<std::string>& env = {},
          int fd3 = -1);
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    bool Send(const std::string& line) const;
    void Kill() const; // SIGKILL to it alone
    bool Exited(Millis timeout, int* status = nullptr);

private:
    pid_t m_pid = -1;
    int m_stdin = -1;
    bool m_bReaped = false;
};

std::string ReadFile(const std::string& path);
// The first line of the file holding `part`, waiting up to `timeout` for it; empty if none.
std::string WaitForLine(const std::string& path, const std::string& part, Millis timeout = Millis(15000));
// The arguments of each run of the recorder.
std::vector<std::vector<std::string>> ReadRecords(const std::string& path);

// Made on first use and ended with the program: a temporary folder (kept when
// VELOMAR_KEEP_RDP_FILES is set), the certificate, Xvfb.
struct Environment
{
    static Environment& Get();
    std::string NewPath(const std::string& stem);
    Environment();
    ~Environment();

    std::string folder;
    std::string certDir;
    std::string display;
    std::string error; // empty when ready
    std::unique_ptr<Child> xvfb;
    int paths = 0;
};

struct Host
{
    explicit Host(std::vector<std::string> extraArgs = {});
    std::string WaitFor(const std::string& part, Millis timeout = Millis(15000)) const
    {
        return WaitForLine(output, part, timeout);
    }
    std::string output;
    std::unique_ptr<Child> child;
    int port = 0;
};

// xfreerdp; with the add-in and the recorder as its opener, writing to `record`, unless that is
// empty.
struct Client
{
    Client(int port, const std::string& record);
    std::string output;
    std::unique_ptr<Child> child;
};

} // namespace RdpE2e
