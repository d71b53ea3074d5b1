#pragma once
// GoogleTest glue over the end-to-end harness.
#include "tests/e2e/E2eHarness.h"

#include <gtest/gtest.h>

#include <string>

namespace e2e
{

inline std::string Narrow(const std::wstring& text)
{
    std::string out;
    for (wchar_t c : text)
        out += c < 0x80 ? static_cast<char>(c) : '?';
    return out;
}

// Registers and starts the service; fails the test when it does not reach running.
inline void StartRunning(ServiceRun& run)
{
    ASSERT_TRUE(run.SetupError().empty()) << Narrow(run.SetupError());
    const std::vector<DWORD> states = run.Start();
    ASSERT_FALSE(states.empty()) << "StartServiceW failed";
    ASSERT_EQ(static_cast<DWORD>(SERVICE_RUNNING), states.back());
    ASSERT_NE(0u, run.ProcessId());
}

} // namespace e2e
