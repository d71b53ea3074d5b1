#pragma once
// What the end-to-end tests of the add-in run: the test RDP host, xfreerdp with the add-in laid
// over FreeRDP's add-in folder in a mount namespace of its own, under one Xvfb per test program,
// with a certificate made for the run. Every process is started in a process group of its own
// and ended with it; only 127.0.0.1 is used.
#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace RdpE2e
{

using Millis = std::chrono::milliseconds;

// A child process with its output in a file; ended (TERM, then KILL) with its group.
class Child
{
public:
    struct Spec
    {
        std::vector<std::string> argv;
        std::vector<std::string> env; // "NAME=value", added to this process's environment
        std::string output;           // stdout and stderr
        bool stdinPipe = false;       // else /dev/null
        int passFd = -1;              // handed over as descriptor 3
    };
    explicit Child(const Spec& spec);
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t Pid() const noexcept { return m_pid; }
    void Signal(int sig) const;
    // Writes a line to its standard input.
    bool Send(const std::string& line) const;
    // True once it has ended, waiting up to `timeout`.
    bool WaitExit(Millis timeout, int* status = nullptr);
    void Stop();

private:
    pid_t m_pid = -1;
    int m_stdin = -1;
    bool m_bReaped = false;
};

std::string ReadFile(const std::string& path);
// The first line of the file holding `part`, once there, within `timeout`; empty otherwise.
std::string WaitForLine(const std::string& path, const std::string& part, Millis timeout);
// The recorder's file as the arguments of each run (hex decoded).
std::vector<std::vector<std::string>> ReadRecords(const std::string& path);

// One per test program, made on first use and ended when the program ends: temporary folder
// (kept when VELOMAR_KEEP_RDP_FILES is set), certificate, Xvfb.
class Environment
{
public:
    static Environment& Get();
    const std::string& Folder() const { return m_strFolder; }
    const std::string& Display() const { return m_strDisplay; }
    const std::string& CertDir() const { return m_strCertDir; }
    std::string Prepared() const { return m_strError; } // empty when ready
    std::string NewPath(const std::string& stem);

private:
    Environment();
    ~Environment();
    std::string m_strFolder;
    std::string m_strCertDir;
    std::string m_strDisplay;
    std::string m_strError;
    std::unique_ptr<Child> m_xvfb;
    int m_nPaths = 0;
};

class Host
{
public:
    explicit Host(std::vector<std::string> extraArgs = {});
    // The line holding `part`, once the host has said it.
    std::string WaitFor(const std::string& part, Millis timeout = Millis(15000)) const;
    void Send(const std::string& line) const { m_child->Send(line); }
    bool WaitExit(Millis timeout, int* status) { return m_child->WaitExit(timeout, status); }
    int Port() const { return m_nPort; }
    std::string Output() const { return ReadFile(m_strOutput); }

private:
    std::string m_strOutput;
    std::unique_ptr<Child> m_child;
    int m_nPort = 0;
};

class Client
{
public:
    // withAddin: /vc:velomar with the recorder as the opener, recording into `record`.
    Client(int port, bool withAddin, const std::string& record = {});
    std::string WaitFor(const std::string& part, Millis timeout = Millis(15000)) const;
    void Kill() const;
    std::string Output() const { return ReadFile(m_strOutput); }

private:
    std::string m_strOutput;
    std::unique_ptr<Child> m_child;
};

} // namespace RdpE2e
