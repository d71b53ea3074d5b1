#include "pipe/PipeInstance.h"

namespace pipeinstance
{

HANDLE Create(const PipeInstanceCreator& creator, const std::wstring& name, bool first, const Shape& shape,
              SECURITY_ATTRIBUTES* attributes)
{
    const DWORD openMode =
        PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | (first ? FILE_FLAG_FIRST_PIPE_INSTANCE : 0);
    const DWORD pipeMode = PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS;
    if (creator)
        return creator(name.c_str(), openMode, pipeMode, shape.maxInstances, shape.outBuffer, shape.inBuffer,
                       shape.timeoutMs, attributes);
    return ::CreateNamedPipeW(name.c_str(), openMode, pipeMode, shape.maxInstances, shape.outBuffer,
                              shape.inBuffer, shape.timeoutMs, attributes);
}

} // namespace pipeinstance
