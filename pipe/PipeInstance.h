#pragma once
// How every server instance of the service's pipes is created: duplex, overlapped, a byte stream,
// remote clients rejected, and the first instance of a name a new pipe, so that a process that
// created the name before the service is never handed the service's clients.
#include <windows.h>

#include <functional>
#include <string>

// Creates one pipe instance; CreateNamedPipeW's arguments and result. Replaceable so that tests
// can see the flags of every instance and play a name taken by another process, neither of which
// Wine enforces.
using PipeInstanceCreator =
    std::function<HANDLE(const wchar_t* name, DWORD openMode, DWORD pipeMode, DWORD maxInstances,
                         DWORD outBuffer, DWORD inBuffer, DWORD timeoutMs, SECURITY_ATTRIBUTES* attributes)>;

namespace pipeinstance
{

struct Shape
{
    DWORD maxInstances = PIPE_UNLIMITED_INSTANCES;
    DWORD outBuffer = 0;
    DWORD inBuffer = 0;
    DWORD timeoutMs = 0;
};

// `name` with its "\\.\pipe\" prefix; `creator` may be empty (CreateNamedPipeW itself).
// INVALID_HANDLE_VALUE with the last error on failure.
HANDLE Create(const PipeInstanceCreator& creator, const std::wstring& name, bool first, const Shape& shape,
              SECURITY_ATTRIBUTES* attributes);

// A failed first instance with this error means another process holds the name.
inline bool NameTaken(bool first, DWORD error)
{
    return first && (error == ERROR_ACCESS_DENIED || error == ERROR_PIPE_BUSY);
}

} // namespace pipeinstance
