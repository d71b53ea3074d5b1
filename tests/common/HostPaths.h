#pragma once
// Where the installed service and the stand-in channel library live on a test host, for the
// tests that run the real service: its log, its settings key and the stand-in's files.
namespace testsupport
{
inline constexpr wchar_t kLogFolder[] = L"C:\\ProgramData\\Corvane\\Velomar (Server)";
inline constexpr wchar_t kLogFile[] = L"C:\\ProgramData\\Corvane\\Velomar (Server)\\velomard.txt";
inline constexpr wchar_t kProductKey[] = L"Software\\Corvane\\Velomar (Server)";
// The channel library is installed here by its maker's own installer.
inline constexpr wchar_t kLibraryParent[] = L"C:\\Program Files\\Common Files\\Corvane";
inline constexpr wchar_t kLibraryFolder[] = L"C:\\Program Files\\Common Files\\Corvane\\Skein 3";
inline constexpr wchar_t kLibraryPath[] = L"C:\\Program Files\\Common Files\\Corvane\\Skein 3\\cvskapi.dll";
inline constexpr wchar_t kScenarioPath[] =
    L"C:\\Program Files\\Common Files\\Corvane\\Skein 3\\cvskapi.scenario";
// What the stand-in's client side received, one URL per line.
inline constexpr wchar_t kSinkFile[] = L"C:\\ProgramData\\Corvane\\Skein Standin\\received.txt";
} // namespace testsupport
