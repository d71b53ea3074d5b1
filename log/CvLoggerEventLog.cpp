// The banner at the top of every file and the Windows event log.
#include "log/CvLogger.h"

#include "common/WideFormat.h"
#include "log/BuildInfo.h"
#include "log/LogConversions.h"
#include "log/LogText.h"

#include <algorithm>
#include <mutex>

namespace
{
const wchar_t kEventLogKey[] = L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\";
} // namespace
using cvlog::ToU16;

void CCvLogger::BuildBanner()
{
    wchar_t version[cvlog::kTextCapacity];
    GetWindowsVersionText(version, cvlog::kTextCapacity);
    wchar_t header[cvlog::kTextCapacity];
    BuildHeader(L"SERVICE", header);
    const std::wstring build = daxlib::Format(L"Build %S. ", BuildDateText());
    std::wstring banner = daxlib::Format(L"\r\n%s%s%s\r\n", header, build.c_str(), version);
    daxlib::lock_guard lock(m_cs);
    m_strBanner = std::move(banner);
}

void CCvLogger::GetWindowsVersionText(wchar_t* buffer, size_t capacity)
{
    if (!buffer || capacity == 0)
        return;
    buffer[0] = L'\0';
    OSVERSIONINFOEXW os{};
    os.dwOSVersionInfoSize = sizeof os;
    cvlog::WindowsVersionInfo info;
#ifdef _MSC_VER
#pragma warning(suppress : 4996)
#endif
    info.queryOk = ::GetVersionExW(reinterpret_cast<OSVERSIONINFOW*>(&os)) != FALSE;
    if (info.queryOk)
    {
        info.platformId = os.dwPlatformId;
        info.major = os.dwMajorVersion;
        info.minor = os.dwMinorVersion;
        info.build = os.dwBuildNumber;
        info.servicePack = ToU16(os.szCSDVersion);
        info.suiteMask = os.wSuiteMask;
        info.productType = os.wProductType;
        SYSTEM_INFO system{};
        using NativeInfoFn = void(WINAPI*)(LPSYSTEM_INFO);
        const auto native = reinterpret_cast<NativeInfoFn>(reinterpret_cast<void*>(
            ::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "GetNativeSystemInfo")));
        if (native)
            native(&system);
        else
            ::GetSystemInfo(&system);
        info.processorArchitecture = system.wProcessorArchitecture;
        info.serverR2 = ::GetSystemMetrics(SM_SERVERR2);
    }
    const std::u16string text = cvlog::WindowsVersionText(info);
    const size_t n = std::min(text.size(), capacity - 1);
    std::copy_n(text.begin(), n, buffer);
    buffer[n] = L'\0';
}

uint32_t CCvLogger::RegisterEventSourceKey(const wchar_t* provider)
{
    const std::wstring path = std::wstring(kEventLogKey) + (provider ? provider : L"");
    daxlib::unique_hkey key;
    LONG rc = ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr,
                                key.put(), nullptr);
    if (rc != ERROR_SUCCESS)
        return static_cast<uint32_t>(rc);
    wchar_t module[MAX_PATH] = {};
    const DWORD length = ::GetModuleFileNameW(nullptr, module, MAX_PATH);
    rc = ::RegSetValueExW(key.get(), L"EventMessageFile", 0, REG_SZ, reinterpret_cast<const BYTE*>(module),
                          (length + 1) * sizeof(wchar_t));
    if (rc != ERROR_SUCCESS)
        return static_cast<uint32_t>(rc);
    const DWORD types = EVENTLOG_ERROR_TYPE | EVENTLOG_WARNING_TYPE | EVENTLOG_INFORMATION_TYPE;
    rc = ::RegSetValueExW(key.get(), L"TypesSupported", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&types),
                          sizeof types);
    return static_cast<uint32_t>(rc);
}

void CCvLogger::InitEventLogging(const wchar_t* provider)
{
    if (!provider || !*provider)
    {
        Log(0, L"CCvLogger::InitEventLogging: (1458): Empty provider name");
        ::SetLastError(ERROR_INVALID_DATA);
        return;
    }
    const uint32_t rc = RegisterEventSourceKey(provider);
    if (rc != ERROR_SUCCESS)
    {
        Log(0, L"CCvLogger::InitEventLogging: (1466): Event source provider not installed");
        ::SetLastError(rc);
        return;
    }
    HANDLE source = ::RegisterEventSourceW(nullptr, provider);
    if (!source)
    {
        const DWORD error = ::GetLastError();
        Log(0, L"CCvLogger::InitEventLogging: (1473): RegisterEventSource GLE=%d", static_cast<int>(error));
        ::SetLastError(error);
        return;
    }
    m_hEventSource.reset(source);
}

void CCvLogger::EventLog(uint32_t level, uint32_t eventId, PSID userSid, const wchar_t* format, ...)
{
    daxlib::last_error_guard keep;
    if (!m_hEventSource)
    {
        Log(1, L"CCvLogger::EventLog: (1484): Event logging disabled");
        return;
    }
    wchar_t message[cvlog::kTextCapacity];
    va_list args;
    va_start(args, format);
    const int length = daxlib::FormatTruncatedV(message, cvlog::kTextCapacity, format, args);
    va_end(args);
    if (length < 0)
    {
        Log(0, L"CCvLogger::EventLog: (1499): _vsnwprintf_s() failed");
        return;
    }
    const WORD type = level == 0   ? EVENTLOG_ERROR_TYPE
                      : level == 1 ? EVENTLOG_WARNING_TYPE
                                   : EVENTLOG_INFORMATION_TYPE;
    const wchar_t* strings[] = {message};
    ::ReportEventW(m_hEventSource.get(), type, 0, eventId, userSid, 1, 0, strings, nullptr);
}
