#pragma once
// Names and rules of the pipe transport's states; free of Windows headers so they are tested
// natively as well.
#include <cstdint>

enum ePipeConnectionState : uint32_t
{
    ePipeConnectionState_WaitConnection = 0,
    ePipeConnectionState_Connecting = 1,
    ePipeConnectionState_Connected = 2,
    ePipeConnectionState_Disconnecting = 3,
    ePipeConnectionState_Disconnected = 4,
    ePipeConnectionState_ConnectionError = 5,
};

enum ePipeRequestState : uint32_t
{
    ePipeRequestState_Created = 0,
    ePipeRequestState_Pending = 1,
    ePipeRequestState_Complete = 2,
    ePipeRequestState_Canceled = 3,
    ePipeRequestState_DoCallback = 4,
};

enum ePipeTaskSignal : uint32_t
{
    ePipeTaskSignal_Connected = 0,
    ePipeTaskSignal_Read = 1,
    ePipeTaskSignal_Write = 2,
};

namespace pipestates
{

const wchar_t* ConnectionStateName(uint32_t state) noexcept;
const wchar_t* RequestStateName(uint32_t state) noexcept;
const wchar_t* SignalName(uint32_t signal) noexcept;

// Whether the connection may change from `from` to `to`. ConnectionError is final: a stream
// that failed is never reused.
bool IsTransitionAllowed(uint32_t from, uint32_t to) noexcept;

// How many instances wait for clients at once: the requested number when it is 1 to 100,
// otherwise 1.
uint32_t ClampAccepts(uint32_t requested) noexcept;

} // namespace pipestates
