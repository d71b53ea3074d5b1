#pragma once
// A watch on a registry key that may not exist yet: the deepest existing key on the way to it is
// watched instead, so that creating the key (or anything below it) is seen too.
#include "common/UniqueHandle.h"

#include <windows.h>

#include <string>

namespace daxlib
{

// Opens `path` under `root`, or the nearest of its ancestors that exists, with `access`. Empty
// when not even the first element of the path exists.
inline unique_hkey OpenNearestKey(HKEY root, std::wstring path, REGSAM access)
{
    for (;;)
    {
        unique_hkey key;
        if (::RegOpenKeyExW(root, path.c_str(), 0, access, key.put()) == ERROR_SUCCESS)
            return key;
        const size_t slash = path.rfind(L'\\');
        if (slash == std::wstring::npos)
            return {};
        path.resize(slash);
    }
}

} // namespace daxlib
