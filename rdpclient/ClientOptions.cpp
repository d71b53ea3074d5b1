#include "rdpclient/ClientOptions.h"

#include "rdpclient/UrlGate.h"

#include <algorithm>
#include <set>
#include <string_view>

namespace RdpClient
{

namespace
{

// Schemes are separated by colons, which no scheme name can hold; commas would end the word.
std::vector<std::string> SplitSchemes(std::string_view list)
{
    std::vector<std::string> schemes;
    size_t start = 0;
    while (start <= list.size())
    {
        const size_t end = std::min(list.find(':', start), list.size());
        schemes.emplace_back(list.substr(start, end - start));
        start = end + 1;
    }
    return schemes;
}

} // namespace

bool ParseClientOptions(const std::vector<std::string>& words, ClientOptions& options, std::string& error)
{
    std::set<std::string> seen;
    // The first word names the channel the options belong to.
    for (size_t i = 1; i < words.size(); ++i)
    {
        const std::string_view word = words[i];
        const size_t colon = word.find(':');
        const std::string key(word.substr(0, colon));
        const std::string_view value =
            colon == std::string_view::npos ? std::string_view() : word.substr(colon + 1);
        if (colon == std::string_view::npos || (key != "opener" && key != "schemes"))
        {
            error =
                "unknown option \"" + std::string(word) + "\" (known: opener:<program>, schemes:<a>:<b>...)";
            return false;
        }
        if (!seen.insert(key).second)
        {
            error = "option \"" + key + "\" given twice";
            return false;
        }
        if (key == "opener")
        {
            if (value.empty())
            {
                error = "opener: needs a program";
                return false;
            }
            options.opener = value;
            continue;
        }
        std::vector<std::string> schemes = SplitSchemes(value);
        for (const auto& scheme : schemes)
        {
            if (!IsSchemeName(scheme))
            {
                error = "schemes: \"" + scheme + "\" is not a scheme name";
                return false;
            }
        }
        options.schemes = std::move(schemes);
    }
    return true;
}

} // namespace RdpClient
