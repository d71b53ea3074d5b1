// Feeds arbitrary text to the URL policy: the first lines are patterns (allowed, then exception,
// as the first byte says), the rest is the URL. Besides not crashing, the canonical forms must be
// fixed points: a canonical host or pattern read again comes out the same, or two spellings of
// one host could meet different patterns.
#include "pipeserver/UrlPolicy.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace
{
std::u16string Widen(const std::string& text)
{
    return std::u16string(text.begin(), text.end());
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2)
        return 0;
    // Little-endian UTF-16 after the control byte, so that surrogates and any code unit occur.
    std::u16string text;
    for (size_t i = 1; i + 1 < size; i += 2)
        text += static_cast<char16_t>(data[i] | (data[i + 1] << 8));
    urlpolicy::Policy policy;
    policy.schemes.push_back("file");
    policy.maxUrlLength = 4096;
    size_t start = 0;
    for (unsigned line = 0;; ++line)
    {
        const size_t end = text.find(u'\n', start);
        if (end == std::u16string::npos)
            break;
        if (auto pattern = urlpolicy::Pattern::Compile(std::u16string_view(text).substr(start, end - start)))
        {
            const auto again = urlpolicy::Pattern::Compile(Widen(pattern->Text()));
            if (!again || again->Text() != pattern->Text())
                __builtin_trap();
            ((data[0] >> (line % 8)) & 1 ? policy.exceptionHosts : policy.allowedHosts).push_back(*pattern);
        }
        start = end + 1;
    }
    const std::u16string_view url = std::u16string_view(text).substr(start);
    const urlpolicy::Verdict verdict = urlpolicy::Evaluate(policy, url);
    if (!verdict.host.empty())
    {
        const auto again = urlpolicy::CanonicalHost(Widen(verdict.host));
        if (!again || *again != verdict.host)
            __builtin_trap();
    }
    if (verdict.Allowed() && urlpolicy::Trim(url).size() > policy.maxUrlLength)
        __builtin_trap();
    return 0;
}
