#pragma once
// What the long-running benchmarks follow in the service's process, and the product values they
// set for one run of the service.
#include "common/UniqueHandle.h"
#include "tests/common/TestSupport.h"

#include <windows.h>

#include <psapi.h>

#include <string>
#include <utility>
#include <vector>

namespace bench
{

struct ProcessFigures
{
    long long handles = -1; // from the system's handle table: GetProcessHandleCount says 0 under Wine
    long long threads = -1;
    long long privateBytes = -1;
};

// The process's committed private memory; -1 when it cannot be read.
inline long long PrivateBytes(DWORD processId)
{
    daxlib::unique_handle process(::OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, processId));
    PROCESS_MEMORY_COUNTERS_EX counters{};
    counters.cb = sizeof(counters);
    return process && ::GetProcessMemoryInfo(process.get(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&counters),
                                             sizeof(counters))
               ? static_cast<long long>(counters.PrivateUsage)
               : -1;
}

inline ProcessFigures MeasureProcess(DWORD processId)
{
    return {testing_support::CountProcessHandles(processId), testing_support::CountProcessThreads(processId),
            PrivateBytes(processId)};
}

// REG_DWORD values under the product key for one run; deleted again at destruction, so that the
// tests that share the prefix see the defaults. Set them before the service starts.
class ProductValues
{
public:
    explicit ProductValues(std::vector<std::pair<std::wstring, DWORD>> values) : m_values(std::move(values))
    {
        m_ok = ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, L"Software\\Corvane\\Velomar (Server)", 0, nullptr, 0,
                                 KEY_ALL_ACCESS, nullptr, m_key.put(), nullptr) == ERROR_SUCCESS;
        for (const auto& [name, value] : m_values)
            m_ok = m_ok && ::RegSetValueExW(m_key.get(), name.c_str(), 0, REG_DWORD,
                                            reinterpret_cast<const BYTE*>(&value), sizeof(value)) == ERROR_SUCCESS;
    }
    ~ProductValues()
    {
        for (const auto& [name, value] : m_values)
            ::RegDeleteValueW(m_key.get(), name.c_str());
    }
    ProductValues(const ProductValues&) = delete;
    ProductValues& operator=(const ProductValues&) = delete;

    bool Ok() const { return m_ok; }

private:
    std::vector<std::pair<std::wstring, DWORD>> m_values;
    daxlib::unique_hkey m_key;
    bool m_ok = false;
};

} // namespace bench
