// Round trips and connects per second through CNamedPipeServer, against a minimal synchronous
// echo server with one thread per client, both measured in the same run.
//   pipe_bench [seconds per measurement, default 2] [message bytes, default 64] [repeats, default 3]
// The two servers are measured alternately and each figure is the median of its repeats, so that
// load from elsewhere on a shared machine falls on both alike.
#include "pipe/NamedPipeServer.h"
#include "pipe/ThreadPool.h"
#include "tests/common/RawPipeClient.h"
#include "tests/pipe/EchoOwner.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace
{
using Clock = std::chrono::steady_clock;

using testsupport::OpenClient;
using testsupport::ReadAll;
using testsupport::WriteAll;

bool RoundTrip(HANDLE h, std::vector<unsigned char>& message, std::vector<unsigned char>& echo)
{
    return WriteAll(h, message.data(), static_cast<DWORD>(message.size())) &&
           ReadAll(h, echo.data(), static_cast<DWORD>(echo.size()));
}

// The baseline: blocking instances, one thread per connected client.
class SyncEchoServer
{
public:
    explicit SyncEchoServer(std::wstring name) : m_name(std::move(name))
    {
        m_listener = std::thread([this] { Listen(); });
    }
    ~SyncEchoServer()
    {
        m_stop = true;
        HANDLE wake = OpenClient(m_name); // unblocks ConnectNamedPipe
        m_listener.join();
        if (wake != INVALID_HANDLE_VALUE)
            ::CloseHandle(wake);
        for (auto& t : m_workers)
            t.join();
    }

private:
    void Listen()
    {
        while (!m_stop)
        {
            HANDLE pipe = ::CreateNamedPipeW(m_name.c_str(), PIPE_ACCESS_DUPLEX, 0, PIPE_UNLIMITED_INSTANCES,
                                             1024, 1024, 1000, nullptr);
            if (pipe == INVALID_HANDLE_VALUE)
                return;
            if (!::ConnectNamedPipe(pipe, nullptr) && ::GetLastError() != ERROR_PIPE_CONNECTED)
            {
                ::CloseHandle(pipe);
                continue;
            }
            if (m_stop)
            {
                ::CloseHandle(pipe);
                return;
            }
            m_workers.emplace_back(
                [pipe]
                {
                    std::vector<unsigned char> buffer(4 + 65536);
                    for (;;)
                    {
                        uint32_t length = 0;
                        if (!ReadAll(pipe, &length, 4) || length > 65536 ||
                            (length && !ReadAll(pipe, buffer.data() + 4, length)))
                            break;
                        std::memcpy(buffer.data(), &length, 4);
                        if (!WriteAll(pipe, buffer.data(), length + 4))
                            break;
                    }
                    ::DisconnectNamedPipe(pipe);
                    ::CloseHandle(pipe);
                });
        }
    }

    std::wstring m_name;
    std::atomic<bool> m_stop{false};
    std::thread m_listener;
    std::vector<std::thread> m_workers;
};

// Clients that each run `work` until the time is up; returns operations per second.
double Measure(int clients, double seconds, const std::function<long long(const std::atomic<bool>&)>& work)
{
    std::atomic<bool> stop{false};
    std::atomic<long long> total{0};
    std::vector<std::thread> threads;
    const auto start = Clock::now();
    for (int c = 0; c < clients; ++c)
        threads.emplace_back([&] { total += work(stop); });
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    stop = true;
    for (auto& t : threads)
        t.join();
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    return static_cast<double>(total.load()) / elapsed;
}

std::vector<unsigned char> Message(size_t bytes)
{
    std::vector<unsigned char> message(4 + bytes, 0x42);
    const uint32_t length = static_cast<uint32_t>(bytes);
    std::memcpy(message.data(), &length, 4);
    return message;
}

double RoundTrips(const std::wstring& name, int clients, double seconds, size_t bytes)
{
    return Measure(clients, seconds,
                   [&](const std::atomic<bool>& stop)
                   {
                       HANDLE h = OpenClient(name);
                       if (h == INVALID_HANDLE_VALUE)
                           return 0LL;
                       auto message = Message(bytes);
                       std::vector<unsigned char> echo(message.size());
                       long long count = 0;
                       while (!stop && RoundTrip(h, message, echo))
                           ++count;
                       ::CloseHandle(h);
                       return count;
                   });
}

double Connects(const std::wstring& name, int clients, double seconds, size_t bytes)
{
    return Measure(clients, seconds,
                   [&](const std::atomic<bool>& stop)
                   {
                       auto message = Message(bytes);
                       std::vector<unsigned char> echo(message.size());
                       long long count = 0;
                       while (!stop)
                       {
                           HANDLE h = OpenClient(name);
                           if (h == INVALID_HANDLE_VALUE)
                               break;
                           // One round trip proves the connection was served.
                           if (RoundTrip(h, message, echo))
                               ++count;
                           ::CloseHandle(h);
                       }
                       return count;
                   });
}

double Median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

std::wstring UniqueName(const wchar_t* stem)
{
    static int counter = 0;
    return std::wstring(L"\\\\.\\pipe\\") + stem + L"-" + std::to_wstring(::GetCurrentProcessId()) + L"-" +
           std::to_wstring(++counter);
}
} // namespace

int main(int argc, char** argv)
{
    const double seconds = argc > 1 ? std::atof(argv[1]) : 2.0;
    const size_t bytes = argc > 2 ? static_cast<size_t>(std::atoi(argv[2])) : 64;
    const int repeats = argc > 3 ? std::max(1, std::atoi(argv[3])) : 3;
    SetThreadPool(std::make_shared<CThreadPool>(1000, nullptr));
    std::printf("pipe_bench: %.1f s per measurement, median of %d, %zu-byte messages (plus 4-byte length)\n",
                seconds, repeats, bytes);
    std::printf("%-8s %-12s %14s %14s %8s\n", "clients", "figure", "CNamedPipeSrv", "sync baseline", "ratio");
    for (int clients : {1, 16, 128})
    {
        for (int figure = 0; figure < 2; ++figure)
        {
            const bool connects = figure == 1;
            std::vector<double> transport;
            std::vector<double> baseline;
            for (int r = 0; r < repeats; ++r)
            {
                {
                    const std::wstring full = UniqueName(L"velomar-bench");
                    EchoOwner owner(nullptr);
                    auto server = std::make_shared<CNamedPipeServer>(full.substr(9), PIPE_UNLIMITED_INSTANCES,
                                                                     3, nullptr, nullptr);
                    owner.Start(server);
                    transport.push_back(connects ? Connects(full, clients, seconds, bytes)
                                                 : RoundTrips(full, clients, seconds, bytes));
                    server->ResetCallback();
                    server.reset();
                }
                {
                    const std::wstring full = UniqueName(L"velomar-bench-sync");
                    SyncEchoServer sync(full);
                    baseline.push_back(connects ? Connects(full, clients, seconds, bytes)
                                                : RoundTrips(full, clients, seconds, bytes));
                }
            }
            const double ours = Median(transport);
            const double theirs = Median(baseline);
            std::printf("%-8d %-12s %14.0f %14.0f %8.2f\n", clients, connects ? "connects/s" : "roundtrips/s",
                        ours, theirs, theirs > 0 ? ours / theirs : 0.0);
            std::fflush(stdout);
        }
    }
    SetThreadPool(nullptr);
    return 0;
}
