#pragma once
// What the long-running benchmarks follow in the service's process, and the product values they
// set for one run of the service.
#include "common/UniqueHandle.h"
#include "tests/common/TestSupport.h"
#include "tests/e2e/E2eHarness.h"

#include <windows.h>

#include <psapi.h>

#include <chrono>
#include <cstdio>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

namespace bench
{

struct ProcessFigures
{
    long long handles = -1; // testsupport::CountProcessHandles: GetProcessHandleCount says 0 under Wine
    long long threads = -1;
    long long privateBytes = -1;
};

// Reads "--name value" pairs into the numbers they name; false on an unknown name or a name
// without a value.
inline bool ParseNumberOptions(int argc, wchar_t** argv,
                               std::initializer_list<std::pair<const wchar_t*, int*>> known)
{
    if (argc % 2 == 0)
        return false;
    for (int i = 1; i + 1 < argc; i += 2)
    {
        int* target = nullptr;
        for (const auto& [name, value] : known)
            if (std::wstring(argv[i]) == name)
                target = value;
        if (!target)
            return false;
        *target = _wtoi(argv[i + 1]);
    }
    return true;
}

// The process's committed private memory; -1 when it cannot be read. Wine leaves PrivateUsage
// at 0, so there the committed private regions of the address space are added up instead, which
// is what the figure means.
inline long long PrivateBytes(DWORD processId)
{
    daxlib::unique_handle process(
        ::OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, processId));
    if (!process)
        return -1;
    PROCESS_MEMORY_COUNTERS_EX counters{};
    counters.cb = sizeof(counters);
    if (::GetProcessMemoryInfo(process.get(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&counters),
                               sizeof(counters)) &&
        counters.PrivateUsage != 0)
        return static_cast<long long>(counters.PrivateUsage);
    long long committed = 0;
    MEMORY_BASIC_INFORMATION region{};
    for (const char* at = nullptr;
         ::VirtualQueryEx(process.get(), at, &region, sizeof(region)) == sizeof(region) &&
         region.RegionSize > 0;
         at = static_cast<const char*>(region.BaseAddress) + region.RegionSize)
        if (region.State == MEM_COMMIT && region.Type == MEM_PRIVATE)
            committed += static_cast<long long>(region.RegionSize);
    return committed > 0 ? committed : -1;
}

inline ProcessFigures MeasureProcess(DWORD processId)
{
    return {testsupport::CountProcessHandles(processId), testsupport::CountProcessThreads(processId),
            PrivateBytes(processId)};
}

// REG_DWORD values under the product key for one run; deleted again at destruction, so that the
// tests that share the prefix see the defaults. Set them before the service starts.
class ProductValues
{
public:
    explicit ProductValues(std::vector<std::pair<std::wstring, DWORD>> values) : m_values(std::move(values))
    {
        m_bOk = ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, L"Software\\Corvane\\Velomar (Server)", 0, nullptr, 0,
                                  KEY_ALL_ACCESS, nullptr, m_hKey.put(), nullptr) == ERROR_SUCCESS;
        for (const auto& [name, value] : m_values)
            m_bOk = m_bOk &&
                    ::RegSetValueExW(m_hKey.get(), name.c_str(), 0, REG_DWORD,
                                     reinterpret_cast<const BYTE*>(&value), sizeof(value)) == ERROR_SUCCESS;
    }
    ~ProductValues()
    {
        for (const auto& [name, value] : m_values)
            ::RegDeleteValueW(m_hKey.get(), name.c_str());
    }
    ProductValues(const ProductValues&) = delete;
    ProductValues& operator=(const ProductValues&) = delete;

    bool Ok() const { return m_bOk; }

private:
    std::vector<std::pair<std::wstring, DWORD>> m_values;
    daxlib::unique_hkey m_hKey;
    bool m_bOk = false;
};

// Starts the registered service and waits until one URL has reached the client side; the
// service's process id, or 0 once it has printed why not.
inline DWORD StartAndWarmUp(e2e::ServiceRun& run, std::u16string_view url)
{
    using namespace std::chrono_literals;
    const auto states = run.Start();
    if (states.empty() || states.back() != SERVICE_RUNNING)
        return std::fprintf(stderr, "the service did not start\n"), 0;
    e2e::AgentPipe probe;
    if (!probe.Connect(30s) || !e2e::WaitUntil([&] { return probe.OpenUrl(url) == 0u; }, 30s, 100ms))
        return std::fprintf(stderr, "the service does not reach the client side\n"), 0;
    return run.ProcessId();
}

} // namespace bench
