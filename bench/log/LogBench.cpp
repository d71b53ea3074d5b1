// Several threads log at once. Prints the per-call latency (p50, p99) and the records per second
// that reach the file, for the service's queued logger and for two baselines measured in the
// same run: the same logger with buffering off, and open-write-close of the file per record.
//   log_bench [threads] [records per thread]
#include "common/UniqueHandle.h"
#include "common/WideFormat.h"
#include "log/CvLogger.h"
#include "log/FileSearch.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace
{
double Now()
{
    static const double frequency = []
    {
        LARGE_INTEGER f;
        ::QueryPerformanceFrequency(&f);
        return static_cast<double>(f.QuadPart);
    }();
    LARGE_INTEGER c;
    ::QueryPerformanceCounter(&c);
    return static_cast<double>(c.QuadPart) / frequency;
}

struct Result
{
    double p50us = 0;
    double p99us = 0;
    double callsPerSecond = 0;
    double recordsPerSecond = 0; // until the last record is in the file
};

// Runs `call` from every thread; `finish` returns once everything has reached the file.
Result Measure(int threads, int perThread, const std::function<void(int, int)>& call,
               const std::function<void()>& finish)
{
    std::vector<std::vector<double>> samples(threads);
    std::vector<std::thread> workers;
    const double start = Now();
    for (int t = 0; t < threads; ++t)
        workers.emplace_back(
            [&, t]
            {
                samples[t].reserve(perThread);
                for (int i = 0; i < perThread; ++i)
                {
                    const double before = Now();
                    call(t, i);
                    samples[t].push_back(Now() - before);
                }
            });
    for (auto& w : workers)
        w.join();
    const double called = Now();
    finish();
    const double done = Now();

    std::vector<double> all;
    for (auto& s : samples)
        all.insert(all.end(), s.begin(), s.end());
    std::sort(all.begin(), all.end());
    Result r;
    r.p50us = all[all.size() / 2] * 1e6;
    r.p99us = all[all.size() * 99 / 100] * 1e6;
    const double count = static_cast<double>(all.size());
    r.callsPerSecond = count / (called - start);
    r.recordsPerSecond = count / (done - start);
    return r;
}

void Print(const char* name, const Result& r)
{
    std::printf("%-28s p50 %8.2f us   p99 %8.2f us   calls/s %10.0f   records/s to file %10.0f\n", name,
                r.p50us, r.p99us, r.callsPerSecond, r.recordsPerSecond);
}

Result RunLogger(const std::wstring& folder, const wchar_t* base, BOOL buffered, int threads, int perThread)
{
    auto logger =
        CCvLogger::CreateLoggerInFolder(folder.c_str(), nullptr, nullptr, base, nullptr, FALSE, buffered, 2);
    if (!logger)
    {
        std::printf("cannot create the logger\n");
        std::exit(1);
    }
    // The service never rotates during a burst like this one.
    logger->SetMaxFileSize(0xFFFFFFFFu);
    return Measure(
        threads, perThread,
        [&](int t, int i)
        { logger->Log(2, L"CBench::Run: (42): thread %d record %d url=https://example.test/%d", t, i, i); },
        [&] { logger.reset(); });
}

Result RunOpenWriteClose(const std::wstring& folder, int threads, int perThread)
{
    const std::wstring path = folder + L"\\plain.txt";
    std::mutex serialise; // one writer at a time, as the logger's own lock does
    const Result r = Measure(
        threads, perThread,
        [&](int t, int i)
        {
            const std::wstring line = daxlib::Format(
                L"2025.06.06 14:03:07.123 (+02:00) [1] [%d] [INFO]: CBench::Run: (42): thread %d "
                L"record %d url=https://example.test/%d\r\n",
                t, t, i, i);
            std::lock_guard lock(serialise);
            daxlib::unique_hfile file(::CreateFileW(path.c_str(), FILE_APPEND_DATA,
                                                    FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS,
                                                    FILE_ATTRIBUTE_NORMAL, nullptr));
            DWORD written = 0;
            ::WriteFile(file.get(), line.data(), static_cast<DWORD>(line.size() * sizeof(wchar_t)), &written,
                        nullptr);
        },
        [] {});
    return r;
}

void RemoveFolder(const std::wstring& folder)
{
    cvlog::ForEachFile(folder + L"\\*", [&](const WIN32_FIND_DATAW& data)
                       { ::DeleteFileW((folder + L"\\" + data.cFileName).c_str()); });
    ::RemoveDirectoryW(folder.c_str());
}
} // namespace

int main(int argc, char** argv)
{
    const int threads = argc > 1 ? std::max(1, std::atoi(argv[1])) : 4;
    const int perThread = argc > 2 ? std::max(100, std::atoi(argv[2])) : 20000;
    wchar_t temp[MAX_PATH];
    ::GetTempPathW(MAX_PATH, temp);
    const std::wstring folder =
        std::wstring(temp) + L"velomar-log-bench-" + std::to_wstring(::GetCurrentProcessId());
    ::CreateDirectoryW(folder.c_str(), nullptr);

    std::printf("%d threads x %d records\n", threads, perThread);
    const Result queued = RunLogger(folder, L"queued", TRUE, threads, perThread);
    const Result direct = RunLogger(folder, L"direct", FALSE, threads, perThread);
    const Result plain = RunOpenWriteClose(folder, threads, std::max(100, perThread / 10));
    Print("logger, queued (service)", queued);
    Print("logger, buffering off", direct);
    Print("open-write-close per record", plain);
    std::printf("p99 ratio: buffering off / queued %.1f, open-write-close / queued %.1f\n",
                direct.p99us / queued.p99us, plain.p99us / queued.p99us);
    std::printf("records/s to file: queued / buffering off %.1fx\n",
                queued.recordsPerSecond / direct.recordsPerSecond);
    RemoveFolder(folder);
    return 0;
}
