#pragma once
// Listing files by wildcard with the search handle owned.
#include "common/UniqueHandle.h"

#include <string>

namespace cvlog
{

namespace detail
{
struct find_traits
{
    using pointer = HANDLE;
    static pointer invalid() noexcept { return INVALID_HANDLE_VALUE; }
    static void close(pointer value) noexcept { ::FindClose(value); }
};
} // namespace detail

using unique_find = daxlib::unique_resource<detail::find_traits>;

// Calls visit(const WIN32_FIND_DATAW&) for every file (not folder) matching the pattern.
template <typename Visit> void ForEachFile(const std::wstring& pattern, Visit&& visit)
{
    WIN32_FIND_DATAW data;
    unique_find find(::FindFirstFileW(pattern.c_str(), &data));
    if (!find)
        return;
    do
    {
        if (!(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))
            visit(data);
    } while (::FindNextFileW(find.get(), &data));
}

} // namespace cvlog
