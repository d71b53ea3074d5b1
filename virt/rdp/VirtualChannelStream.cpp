#include "virt/rdp/VirtualChannelStream.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>

const WtsChannelCalls& SystemWtsChannelCalls() noexcept
{
    static const WtsChannelCalls calls{&::WTSVirtualChannelOpen, &::WTSVirtualChannelOpenEx,
                                       &::WTSVirtualChannelRead, &::WTSVirtualChannelWrite,
                                       &::WTSVirtualChannelClose};
    return calls;
}

bool IsNothingArrivedYet(DWORD error) noexcept
{
    switch (error)
    {
    case ERROR_NO_DATA:
    case ERROR_IO_INCOMPLETE:
    case ERROR_IO_PENDING:
    case ERROR_SEM_TIMEOUT:
    case WAIT_TIMEOUT:
        return true;
    default:
        return false;
    }
}

namespace
{

// The calls take the name as a mutable C string.
bool NameFits(const char* name)
{
    if (name && *name && std::strlen(name) <= CVirtualChannelStream::kMaxNameLength)
        return true;
    ::SetLastError(ERROR_INVALID_PARAMETER);
    return false;
}

} // namespace

std::unique_ptr<CVirtualChannelStream> CVirtualChannelStream::Open(HANDLE server, DWORD sessionId,
                                                                   const char* name, ChannelReadableWait wait,
                                                                   const WtsChannelCalls& calls)
{
    if (!NameFits(name))
        return nullptr;
    std::string writable(name);
    HANDLE channel = calls.open(server, sessionId, writable.data());
    if (!channel)
        return nullptr;
    return std::unique_ptr<CVirtualChannelStream>(new CVirtualChannelStream(channel, std::move(wait), calls));
}

std::unique_ptr<CVirtualChannelStream> CVirtualChannelStream::OpenEx(DWORD sessionId, const char* name,
                                                                     ChannelReadableWait wait,
                                                                     const WtsChannelCalls& calls)
{
    if (!NameFits(name))
        return nullptr;
    std::string writable(name);
    // Flags 0: a static channel.
    HANDLE channel = calls.openEx(sessionId, writable.data(), 0);
    if (!channel)
        return nullptr;
    return std::unique_ptr<CVirtualChannelStream>(new CVirtualChannelStream(channel, std::move(wait), calls));
}

CVirtualChannelStream::CVirtualChannelStream(HANDLE channel, ChannelReadableWait wait,
                                             const WtsChannelCalls& calls)
    : m_hChannel(channel), m_wait(std::move(wait)), m_calls(calls), m_chunk(kReadChunk)
{
}

CVirtualChannelStream::~CVirtualChannelStream()
{
    const DWORD lastError = ::GetLastError();
    m_calls.close(m_hChannel);
    ::SetLastError(lastError);
}

void CVirtualChannelStream::Break() noexcept
{
    DWORD none = 0;
    m_dwBrokenBy.compare_exchange_strong(none, ERROR_NOT_CONNECTED);
    m_bBroken.store(true);
}

BOOL CVirtualChannelStream::Fail(DWORD brokenBy)
{
    DWORD none = 0;
    m_dwBrokenBy.compare_exchange_strong(none, brokenBy == 0 ? ERROR_NOT_CONNECTED : brokenBy);
    m_bBroken.store(true);
    ::SetLastError(ERROR_NOT_CONNECTED);
    return FALSE;
}

CVirtualChannelStream::Pulled CVirtualChannelStream::PullOnce(DWORD& error)
{
    ULONG got = 0;
    // A zero time-out everywhere: WinPR ignores it anyway, and waiting is the seam's business.
    if (!m_calls.read(m_hChannel, 0, m_chunk.data(), static_cast<ULONG>(m_chunk.size()), &got))
    {
        error = ::GetLastError();
        return IsNothingArrivedYet(error) ? Pulled::Nothing : Pulled::Failed;
    }
    if (got == 0)
        return Pulled::Nothing;
    m_received.insert(m_received.end(), m_chunk.begin(),
                      m_chunk.begin() + std::min<size_t>(got, m_chunk.size()));
    return Pulled::Bytes;
}

BOOL CVirtualChannelStream::Read(void* buffer, DWORD* count, DWORD timeoutMs)
{
    if (!count || (!buffer && *count > 0))
    {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    using Clock = std::chrono::steady_clock;
    const DWORD wanted = *count;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (m_received.size() - m_cbConsumed < wanted)
    {
        if (m_bBroken.load())
            return Fail(ERROR_NOT_CONNECTED);
        DWORD error = 0;
        const Pulled pulled = PullOnce(error);
        if (pulled == Pulled::Failed)
            return Fail(error);
        if (pulled == Pulled::Bytes)
            continue;

        DWORD slice = kWaitSliceMs;
        if (timeoutMs != INFINITE)
        {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
            if (left <= 0)
            {
                ::SetLastError(WAIT_TIMEOUT);
                return FALSE;
            }
            slice = static_cast<DWORD>(std::min<long long>(left, kWaitSliceMs));
        }
        if (m_wait(m_hChannel, slice) == ChannelReadiness::Broken)
            return Fail(ERROR_NOT_CONNECTED);
    }
    if (wanted > 0)
        std::memcpy(buffer, m_received.data() + m_cbConsumed, wanted);
    m_cbConsumed += wanted;
    // Keep the buffer from creeping: drop what was read once it is most of it.
    if (m_cbConsumed == m_received.size() || m_cbConsumed > kReadChunk)
    {
        m_received.erase(m_received.begin(), m_received.begin() + static_cast<std::ptrdiff_t>(m_cbConsumed));
        m_cbConsumed = 0;
    }
    return TRUE;
}

BOOL CVirtualChannelStream::Write(const void* bytes, DWORD* count)
{
    if (!count || (!bytes && *count > 0))
    {
        ::SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    const DWORD total = *count;
    DWORD done = 0;
    *count = 0;
    while (done < total)
    {
        if (m_bBroken.load())
            return Fail(ERROR_NOT_CONNECTED);
        ULONG wrote = 0;
        // The calls take a mutable buffer but only read it.
        char* from = const_cast<char*>(static_cast<const char*>(bytes)) + done;
        if (!m_calls.write(m_hChannel, from, total - done, &wrote))
        {
            const DWORD error = ::GetLastError();
            *count = done;
            return Fail(error);
        }
        if (wrote == 0)
        {
            *count = done;
            return Fail(ERROR_NOT_CONNECTED);
        }
        done += std::min<DWORD>(wrote, total - done);
    }
    *count = done;
    return TRUE;
}
