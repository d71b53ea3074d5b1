#pragma once
// GoogleTest glue over the end-to-end harness.
#include "tests/common/TestSupport.h"
#include "tests/e2e/E2eHarness.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cwchar>
#include <memory>
#include <string>

namespace e2e
{

// Registers and starts the service; fails the test unless it reports start-pending and then
// running.
inline void StartRunning(ServiceRun& run)
{
    const auto error = [&] { return std::string(run.SetupError().begin(), run.SetupError().end()); };
    ASSERT_TRUE(run.SetupError().empty()) << error();
    const std::vector<DWORD> states = run.Start();
    ASSERT_FALSE(states.empty()) << error();
    ASSERT_EQ(static_cast<DWORD>(SERVICE_RUNNING), states.back());
    for (size_t i = 0; i + 1 < states.size(); ++i)
        EXPECT_EQ(static_cast<DWORD>(SERVICE_START_PENDING), states[i]) << "state " << i;
    ASSERT_NE(0u, run.ProcessId());
}

// Stops the service: stopped is reported at once, without a stop-pending phase, and the stop
// thread ends the process with exit code 0 half a second later; nothing ends it earlier, which
// would risk cutting off the answer to the stop control.
inline void ExpectCleanStop(ServiceRun& run)
{
    const ServiceRun::StopOutcome stop = run.Stop();
    EXPECT_TRUE(stop.controlAccepted);
    EXPECT_EQ(static_cast<DWORD>(SERVICE_STOPPED), stop.reportedState);
    ASSERT_TRUE(stop.processEnded);
    EXPECT_EQ(0u, stop.exitCode);
    EXPECT_GE(stop.endedAfterMs, 450);
    EXPECT_LT(stop.endedAfterMs, 5000);
    std::printf("service process ended %lld ms after the stop control\n", stop.endedAfterMs);
    EXPECT_GE(CountOf(WaitForLog(L"CLogSvc::OnStop: Service Stopping...", std::chrono::seconds(5)),
                      L"CLogSvc::OnStop: Service Stopping..."),
              1u);
}

struct ProcessCounts
{
    long long handles = 0;
    long long threads = 0;
};

inline ProcessCounts MeasureCounts(DWORD pid)
{
    return {testsupport::CountProcessHandles(pid), testsupport::CountProcessThreads(pid)};
}

// Whether the service's handles and threads come back to the baseline with this slack (the
// pools' idle threads, handles still closing) within 30 s; the last counts in `now`.
inline bool BackToBaseline(DWORD pid, const ProcessCounts& baseline, const ProcessCounts& slack,
                           ProcessCounts& now)
{
    return WaitUntil(
        [&]
        {
            now = MeasureCounts(pid);
            return now.handles <= baseline.handles + slack.handles &&
                   now.threads <= baseline.threads + slack.threads;
        },
        std::chrono::seconds(30), std::chrono::milliseconds(250));
}

// Cases that share one run of the service, started before the suite's first case and removed
// after its last, as `Suite::Options()` says; they run in the order they are declared.
template <typename Suite> class SharedServiceRun : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        s_run = std::make_unique<ServiceRun>(Suite::Options());
        StartRunning(*s_run);
        s_running = !HasFatalFailure();
    }
    static void TearDownTestSuite() { s_run.reset(); }
    void SetUp() override { ASSERT_TRUE(s_running) << "the suite's service run did not start"; }
    static ServiceRun& Run() { return *s_run; }

private:
    static inline std::unique_ptr<ServiceRun> s_run;
    static inline bool s_running = false;
};

} // namespace e2e
