#pragma once
// A remote-desktop static virtual channel seen as the byte stream the URL channel code expects:
// reads of exactly the size asked for, whole writes, and ERROR_NOT_CONNECTED once the channel is
// broken. The channel itself delivers messages in pieces whose boundaries mean nothing to the
// protocol, so bytes are gathered here until a read can be served whole.
//
// Written against the WTS channel calls only, which both Windows (wtsapi32) and WinPR declare
// with the same signatures, plus one seam that waits until the channel may be read: Windows
// and a FreeRDP host signal readable channels in different ways, and only the caller knows
// when its connection has gone.
#ifdef _WIN32
#include <windows.h>
#endif
#include <wtsapi32.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

// The WTS calls the stream makes; tests replace them.
struct WtsChannelCalls
{
    decltype(&::WTSVirtualChannelOpen) open;
    decltype(&::WTSVirtualChannelOpenEx) openEx;
    decltype(&::WTSVirtualChannelRead) read;
    decltype(&::WTSVirtualChannelWrite) write;
    decltype(&::WTSVirtualChannelClose) close;
};
const WtsChannelCalls& SystemWtsChannelCalls() noexcept;

enum class ChannelReadiness
{
    Readable, // something may have arrived: the stream reads again
    TimedOut, // nothing within the time given
    Broken,   // the connection under the channel is gone
};
// Waits up to timeoutMs until the channel may have bytes to read. Called only by the reading
// thread, with at most kWaitSliceMs at a time.
using ChannelReadableWait = std::function<ChannelReadiness(HANDLE channel, DWORD timeoutMs)>;

// True for the failures of a read that only mean "nothing has arrived yet": WinPR says
// ERROR_NO_DATA, Windows reports a zero time-out in one of the others.
bool IsNothingArrivedYet(DWORD error) noexcept;

class CVirtualChannelStream
{
public:
    static constexpr size_t kMaxNameLength = 7; // CHANNEL_NAME_LEN: static channel names
    static constexpr DWORD kWaitSliceMs = 100;  // how soon Break() reaches a waiting read
    static constexpr DWORD kReadChunk = 64 * 1024;

    // Open the static channel `name` of a session: Open through a server handle (WinPR wants its
    // channel manager here, Windows WTS_CURRENT_SERVER_HANDLE), OpenEx by session id alone.
    // Null, with the call's last error, when the session has no such channel, which is what a
    // client that never joined it gives.
    static std::unique_ptr<CVirtualChannelStream> Open(
        HANDLE server, DWORD sessionId, const char* name, ChannelReadableWait wait,
        const WtsChannelCalls& calls = SystemWtsChannelCalls());
    static std::unique_ptr<CVirtualChannelStream> OpenEx(
        DWORD sessionId, const char* name, ChannelReadableWait wait,
        const WtsChannelCalls& calls = SystemWtsChannelCalls());

    // Closes the channel; no Read or Write may still be running.
    ~CVirtualChannelStream();
    CVirtualChannelStream(const CVirtualChannelStream&) = delete;
    CVirtualChannelStream& operator=(const CVirtualChannelStream&) = delete;

    // Exactly *count bytes, or FALSE with nothing taken: WAIT_TIMEOUT when the time ran out,
    // ERROR_NOT_CONNECTED when the channel broke. One reading thread at a time.
    BOOL Read(void* buffer, DWORD* count, DWORD timeoutMs);
    // All *count bytes, or FALSE with ERROR_NOT_CONNECTED and *count set to what went out. One
    // writing thread at a time; it may run beside the reading one.
    BOOL Write(const void* bytes, DWORD* count);
    // From any thread: a waiting Read and every later call fail with ERROR_NOT_CONNECTED.
    void Break() noexcept;

    bool IsBroken() const noexcept { return m_bBroken.load(); }
    // The platform's error that broke the channel; ERROR_NOT_CONNECTED after Break() or a
    // broken verdict of the wait, 0 while the channel works.
    DWORD BrokenBy() const noexcept { return m_dwBrokenBy.load(); }
    HANDLE Handle() const noexcept { return m_hChannel; }

private:
    CVirtualChannelStream(HANDLE channel, ChannelReadableWait wait, const WtsChannelCalls& calls);

    enum class Pulled
    {
        Bytes,
        Nothing,
        Failed,
    };
    Pulled PullOnce(DWORD& error);
    BOOL Fail(DWORD brokenBy);

    HANDLE m_hChannel;
    ChannelReadableWait m_wait;
    WtsChannelCalls m_calls;
    std::atomic<bool> m_bBroken{false};
    std::atomic<DWORD> m_dwBrokenBy{0};
    // The reading thread's own: bytes received and not yet read, from m_cbConsumed on.
    std::vector<uint8_t> m_received;
    size_t m_cbConsumed = 0;
    std::vector<char> m_chunk;
};
