#pragma once
// The channel connection to the client side of one remote session: connects by the session's
// GUID text, runs the handshake, reconnects every 3 seconds after a failure, reads and drops
// whatever the client side sends, and writes one submit message per URL.
#include "common/BaseItem.h"
#include "common/FifoLock.h"
#include "common/Locks.h"
#include "common/UniqueHandle.h"
#include "virt/ChannelStatus.h"
#include "virt/ChannelTransport.h"
#include "virt/FmallocBuffer.h"
#include "virt/SessionCounters.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

// The time now in FILETIME units, as the counters keep it.
uint64_t FileTimeNow();

class CSessionHandler : public IBaseItem
{
public:
    static constexpr size_t kGuidTextLength = 64;
    static constexpr DWORD kConnectedWaitMs = 3000;
    static constexpr DWORD kReconnectPauseMs = 3000;

    // guidText: up to 64 characters including the terminator (longer text is cut). `counters`:
    // the session's, kept by whoever outlives the handler; null gives the handler its own.
    CSessionHandler(std::shared_ptr<ICvLogger> logger, std::shared_ptr<IChannelTransport> transport,
                    const wchar_t* guidText, uint32_t sessionId, std::wstring name,
                    ChannelStatusListener listener = {}, std::shared_ptr<SessionCounters> counters = nullptr);
    ~CSessionHandler() override;
    CSessionHandler(const CSessionHandler&) = delete;
    CSessionHandler& operator=(const CSessionHandler&) = delete;

    std::wstring GetName() const override { return m_strName; }
    std::wstring GetLogTag() const override;
    int Start() override { return StartThreads() ? 1 : 0; }
    int Stop() override
    {
        CloseConnection();
        return 1;
    }

    bool StartThreads();
    void CloseConnection();
    bool SendURL(std::wstring url);
    void GetChannelStatus(ChannelStatusRecord& record) const;
    void OnConnectionEvent(HANDLE connection, DWORD event);

    const wchar_t* GetSessionGUID() const noexcept { return m_szSessionGUID; }
    uint32_t GetSessionId() const noexcept { return m_dwSessionId; }
    // The session's counts; refusals by the URL policy are counted by whoever judges the URL,
    // before it reaches the handler.
    SessionCounters& Counters() noexcept { return *m_pCounters; }
    const SessionCounters& Counters() const noexcept { return *m_pCounters; }

private:
    static unsigned __stdcall ConnectionThreadEntry(void* self);
    static unsigned __stdcall ReadThreadEntry(void* self);
    static void WINAPI ConnectionEventTrampoline(HANDLE connection, DWORD event, void* context);

    unsigned ConnectionThread();
    unsigned ReadThread();
    bool ConnectOnce();
    enum class HandshakeOutcome
    {
        Accepted,
        Refused, // the client side said no, or its version is too low: never retried
        Broken,  // the connection failed on the way: retried like any broken connection
    };
    HandshakeOutcome DoHandshake();
    // The event for a refusal by the client side (its version, or else its options).
    void ReportRefusal(bool version, uint32_t localVersion, uint32_t remoteVersion);
    bool WriteURL(std::wstring url); // SendURL without the counting
    void ReadOneMessage();
    void StopThreads();
    void DropConnection();
    // Sets or resets m_hevStartRead and its mirror together.
    void AllowSending(bool allowed);

    HANDLE GetConnection() const;
    void SetConnection(HANDLE connection);
    void Publish(const ChannelStatusRecord& record) const; // with the state lock held

    std::shared_ptr<IChannelTransport> m_pTransport; // never null
    wchar_t m_szSessionGUID[kGuidTextLength] = {};
    mutable daxlib::critical_section m_csState;
    uint32_t m_dwSessionId;
    std::wstring m_strName;
    mutable daxlib::critical_section m_csConnection;
    HANDLE m_hConnection TS_GUARDED_BY(m_csConnection) = nullptr; // the transport's; it closes it
    daxlib::unique_handle m_hevStop;
    daxlib::unique_handle m_hevDisconnected;
    daxlib::unique_handle m_hevConnected;
    daxlib::unique_handle m_hevStartRead;
    daxlib::unique_handle m_hConnectionThread;
    daxlib::unique_handle m_hReadThread;
    // Senders of one session queue here in arrival order, before the send lock: with many
    // agents waiting for the one channel, none is overtaken again and again.
    daxlib::fifo_lock m_fifoSend TS_ACQUIRED_BEFORE(m_csSend);
    // Held across a URL's write and across closing the handle; taken before m_csConnection.
    daxlib::critical_section m_csSend TS_ACQUIRED_BEFORE(m_csConnection);
    // Mirrors m_hevStartRead for SendURL, which would otherwise ask the kernel under the send
    // lock for every URL.
    std::atomic<bool> m_bSendAllowed{false};
    daxlib::critical_section m_csRead;
    fmalloc_buffer<4096> m_fmReceiveBuff TS_GUARDED_BY(m_csRead);
    ChannelStatusRecord m_status TS_GUARDED_BY(m_csState){};
    std::atomic<bool> m_bProtocolInvalid{false};
    std::shared_ptr<SessionCounters> m_pCounters; // never null
    ChannelStatusListener m_listener;
};
