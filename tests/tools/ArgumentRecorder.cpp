// Stands in for a browser in the fallback tests: writes the arguments it was started with, as
// CommandLineToArgvW reads them (as browsers do), to the file named by its first argument:
// UTF-16LE, each argument after the first ended by a NUL.
#include "common/UniqueHandle.h"

#include <windows.h>
#include <shellapi.h>

#include <string>

int wmain()
{
    int argc = 0;
    wchar_t** argv = ::CommandLineToArgvW(::GetCommandLineW(), &argc);
    if (!argv || argc < 2)
        return 1;
    std::wstring record;
    for (int i = 2; i < argc; ++i)
        record.append(argv[i]).push_back(L'\0');
    daxlib::unique_hfile file(
        ::CreateFileW(argv[1], GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    ::LocalFree(argv);
    DWORD written = 0;
    const auto bytes = static_cast<DWORD>(record.size() * sizeof(wchar_t));
    return file && ::WriteFile(file.get(), record.data(), bytes, &written, nullptr) && written == bytes ? 0
                                                                                                        : 1;
}
