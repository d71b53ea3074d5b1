#pragma once
// The client end: opens a named pipe, retrying on a timer until a server instance is free, and
// wraps the opened handle in a CNamedPipeClientStream.
#include "common/BaseLogger.h"
#include "common/Locks.h"
#include "common/UniqueHandle.h"
#include "pipe/NamedPipeStream.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

class CDaxSecattr;
class CNamedPipeClient;

// Connected and disconnected notifications; the argument is the pipe handle.
using PipeClientCallback = CCallbackHolder<void(void*)>;

class CNamedPipeClientStream : public CNamedPipeStream
{
public:
    CNamedPipeClientStream(const std::shared_ptr<ICvLogger>& logger, SharedPipeHandle pipe, void* context,
                           std::weak_ptr<CNamedPipeClient> client);
    ~CNamedPipeClientStream() override;

    // Marks the stream connected, starts its read loop and reports the connection.
    BOOL Start(const std::shared_ptr<PipeClientCallback>& onConnected);
    // Waits until the server has read what was written (FlushFileBuffers), then marks the
    // stream disconnected; a stream paused for its owner reports the end of its reads.
    void Disconnect() { Disconnect(true); }

protected:
    void Disconnect(bool flush);
    void OnReadLoopEnded() override;

private:
    std::weak_ptr<CNamedPipeClient> m_pClient;
    std::atomic<bool> m_bDisconnectNotified{false};
};

class CNamedPipeClient : public CommonHelper::CvLogger::CBaseLogger,
                         public std::enable_shared_from_this<CNamedPipeClient>
{
public:
    static constexpr DWORD kRetryDelayMs = 200;

    CNamedPipeClient(const std::wstring& name, std::shared_ptr<CDaxSecattr> securityAttributes,
                     std::shared_ptr<ICvLogger> logger);
    ~CNamedPipeClient() override;
    CNamedPipeClient(const CNamedPipeClient&) = delete;
    CNamedPipeClient& operator=(const CNamedPipeClient&) = delete;

    // With the flag set, a timer attempt that finds no server (or no free instance) schedules
    // one more attempt 200 ms later.
    void SetReconnect(bool reconnect) { m_bReconnect = reconnect ? 1 : 0; }
    void SetCallbacks(std::shared_ptr<PipeClientCallback> onConnected,
                      std::shared_ptr<PipeClientCallback> onDisconnected);

    // Arms a one-shot timer that calls Connect(200) 200 ms from now.
    BOOL CreateConnectTimer();
    // Opens the pipe, waiting for a free instance at most `timeoutMs` in all.
    BOOL Connect(DWORD timeoutMs);
    int InitConnection(void* pipe);
    void OnClientDisconnected(void* pipe);
    // Stops the timer and releases the stream.
    void Close();

    std::shared_ptr<CNamedPipeClientStream> GetStream() const;
    uint32_t GetAttempts() const { return m_dwAttempts.load(); }
    uint32_t GetTimerShots() const { return m_dwTimerShots.load(); }

private:
    static void CALLBACK TimerConnectCallback(PTP_CALLBACK_INSTANCE instance, PVOID context, PTP_TIMER timer);
    void ArmTimer();

    std::shared_ptr<CDaxSecattr> m_pSecurityAttributes;
    std::wstring m_strPipeName;
    mutable daxlib::srw_lock m_srwLock;
    std::shared_ptr<CNamedPipeClientStream> m_pStream TS_GUARDED_BY(m_srwLock);
    SharedPipeHandle m_pOpening TS_GUARDED_BY(m_srwLock); // the handle between CreateFileW and InitConnection
    daxlib::unique_tp_timer m_ptpTimer;
    std::shared_ptr<PipeClientCallback> m_pOnConnected;
    std::shared_ptr<PipeClientCallback> m_pOnDisconnected;
    std::atomic<uint32_t> m_bReconnect{0};
    std::atomic<uint32_t> m_bStop{0};
    std::atomic<uint32_t> m_dwAttempts{0};
    std::atomic<uint32_t> m_dwTimerShots{0};
};
