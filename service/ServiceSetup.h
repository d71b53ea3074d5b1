#pragma once
// What the installer package asks of velomard.exe besides running it as the service. The package
// runs these as custom actions, because its tables cannot express them.
#include <windows.h>

#include <optional>

namespace service
{

// After the service is registered: quotes its executable's path and sets its failure actions.
constexpr wchar_t kConfigureServiceSwitch[] = L"--configure-service";
// After the service was stopped for removal: waits until its process has ended. The service
// reports stopped half a second before its process ends, and an installer that removed files
// in between would find velomard.exe in use and leave it behind.
constexpr wchar_t kWaitForExitSwitch[] = L"--wait-for-exit";

constexpr DWORD kRestartDelayMs = 5000;
constexpr DWORD kFailureCountResetSeconds = 24 * 60 * 60;
constexpr DWORD kWaitForExitLimitMs = 10000;

// Puts the registered executable's path in quotes when it holds a blank and is not quoted yet,
// and sets the failure actions: restart after kRestartDelayMs on the first and the second
// failure, nothing on later ones until a day without failure resets the count. ERROR_SUCCESS
// or the error of the failing step.
DWORD ConfigureService(const wchar_t* serviceName);

// Waits until no other process runs this executable's image, at most `limitMs`. ERROR_SUCCESS,
// ERROR_TIMEOUT, or the error of the failing step.
DWORD WaitForOtherInstancesToExit(DWORD limitMs);

// The exit code of an installer command; none when the command line asks for the service.
std::optional<int> RunSetupCommand(int argc, wchar_t** argv);

} // namespace service
