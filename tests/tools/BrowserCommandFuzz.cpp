// Feeds arbitrary browser command lines (as the registry or an administrator may hold them) and
// URLs to their expansion: the URL must always come back as one unchanged argument.
#include "tools/agent/BrowserCommand.h"

#include <cstddef>
#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::wstring command;
    std::wstring url;
    std::wstring* target = &command;
    for (size_t i = 0; i + 1 < size; i += 2)
    {
        const auto c = static_cast<wchar_t>(data[i] | (data[i + 1] << 8));
        if (c == 0 && target == &command)
            target = &url;
        else
            target->push_back(c);
    }
    const auto args = agent::SplitArguments(L"p " + agent::QuoteArgument(url));
    if (args.size() != 1 || args[0] != url)
        __builtin_trap();
    const auto launch = agent::ExpandBrowserCommand(command, url);
    if (launch && launch->commandLine.find(url) == std::wstring::npos &&
        url.find_first_of(L"\\\"") == std::wstring::npos)
        __builtin_trap(); // an URL without quotes or backslashes is carried verbatim
    return 0;
}
