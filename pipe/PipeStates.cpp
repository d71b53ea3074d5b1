#include "pipe/PipeStates.h"

namespace pipestates
{

const wchar_t* ConnectionStateName(uint32_t state) noexcept
{
    switch (state)
    {
    case ePipeConnectionState_WaitConnection:
        return L"WaitConnection";
    case ePipeConnectionState_Connecting:
        return L"Connecting";
    case ePipeConnectionState_Connected:
        return L"Connected";
    case ePipeConnectionState_Disconnecting:
        return L"Disconnecting";
    case ePipeConnectionState_Disconnected:
        return L"Disconnected";
    case ePipeConnectionState_ConnectionError:
        return L"ConnectionError";
    default:
        return L"Unknown";
    }
}

const wchar_t* RequestStateName(uint32_t state) noexcept
{
    switch (state)
    {
    case ePipeRequestState_Created:
        return L"Created";
    case ePipeRequestState_Pending:
        return L"Pending";
    case ePipeRequestState_Complete:
        return L"Complete";
    case ePipeRequestState_Canceled:
        return L"Canceled";
    case ePipeRequestState_DoCallback:
        return L"DoCallback";
    default:
        return L"Unknown";
    }
}

const wchar_t* SignalName(uint32_t signal) noexcept
{
    switch (signal)
    {
    case ePipeTaskSignal_Connected:
        return L"NamedPipe_Connected";
    case ePipeTaskSignal_Read:
        return L"NamedPipe_Read";
    case ePipeTaskSignal_Write:
        return L"NamedPipe_Write";
    default:
        return L"Unknown signal";
    }
}

bool IsTransitionAllowed(uint32_t from, uint32_t to) noexcept
{
    switch (from)
    {
    case ePipeConnectionState_WaitConnection:
        return to == ePipeConnectionState_Connecting || to == ePipeConnectionState_Connected;
    case ePipeConnectionState_Connecting:
        return to == ePipeConnectionState_Connected || to == ePipeConnectionState_Disconnecting ||
               to == ePipeConnectionState_ConnectionError;
    case ePipeConnectionState_Connected:
        return to == ePipeConnectionState_Disconnecting;
    case ePipeConnectionState_Disconnecting:
        return to == ePipeConnectionState_Disconnected;
    case ePipeConnectionState_Disconnected:
        return to == ePipeConnectionState_Connecting || to == ePipeConnectionState_Connected;
    default:
        return false;
    }
}

uint32_t ClampAccepts(uint32_t requested) noexcept
{
    return requested >= 1 && requested <= 100 ? requested : 1;
}

} // namespace pipestates
