#pragma once
// The server end: a fixed number of pipe instances wait for clients on one name; each accepted
// instance becomes a connected CNamedPipeServerStream, and the owner hears of connections and
// disconnections through two callbacks.
//
// An owner's round: the connect callback gets the pipe handle; AttachStream(handle, channelId)
// gives the connected stream and tags it with the owner's channel id; one CPipeServerRequest per
// connection then reads (ReadAsync, callbacks on pool threads, one read outstanding at a time
// keeps messages in order) and answers (Write, blocking); the disconnect callback gets the handle
// and that channel id, after which the server closes the stream. Both callbacks run on
// CThreadPool threads, never under the server's lock, and the disconnect of a connection is never
// reported before its connect.
#include "common/BaseLogger.h"
#include "common/Locks.h"
#include "common/ProcessSecurity.h"
#include "common/UniqueHandle.h"
#include "pipe/JoinableThread.h"
#include "pipe/NamedPipeStream.h"
#include "pipe/PipeInstance.h"

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

class CDaxSecattr;
class CNamedPipeServer;

// Connect and disconnect callbacks: (pipe handle, channel id of the stream or 0, owner context).
using PipeConnectionCallback = CCallbackHolder<void(void*, unsigned long long, void*)>;

class CNamedPipeServerStream : public CNamedPipeStream
{
public:
    CNamedPipeServerStream(const std::shared_ptr<ICvLogger>& logger, SharedPipeHandle pipe, void* context);
    ~CNamedPipeServerStream() override;

    BOOL ConnectAsync();
    int OnClientConnected() override;
    void Disconnect();
    // Stops the stream's I/O, finishes its writes and forgets its server.
    void Close();

    uint32_t GetClientProcessId() const { return m_dwClientProcessId; }
    // daxlib::kUnknownSession when the system could not report it.
    uint32_t GetClientSessionId() const { return m_dwClientSessionId; }
    uint64_t GetChannelId() const { return m_qwChannelId.load(); }
    void SetChannelId(uint64_t channelId) { m_qwChannelId = channelId; }
    // The owner's object for this connection (held weakly).
    void SetOwnerData(std::weak_ptr<void> data);
    std::shared_ptr<void> GetOwnerData() const;

protected:
    void OnConnectCompleted(unsigned long ioResult) override;
    void OnReadLoopEnded() override;

private:
    friend class CNamedPipeServer;
    void ReleaseAcceptUnit();
    std::weak_ptr<CNamedPipeServer> GetServerLink() const;

    std::atomic<uint32_t> m_dwClientProcessId{0};
    std::atomic<uint32_t> m_dwClientSessionId{daxlib::kUnknownSession};
    mutable daxlib::srw_lock m_srwOwner;
    std::weak_ptr<void> m_pOwnerData TS_GUARDED_BY(m_srwOwner);
    std::weak_ptr<CNamedPipeServer> m_pServer;
    std::weak_ptr<daxlib::unique_handle> m_pAcceptSemaphore;
    std::atomic<bool> m_bDisconnectNotified{false};
    std::atomic<uint64_t> m_qwChannelId{0};
    // Guarded by the server mutex: a disconnect that overtakes the connect report waits for it.
    bool m_bConnectReported = false;
    bool m_bDisconnectDeferred = false;
};

class CNamedPipeServer : public CommonHelper::CvLogger::CBaseLogger,
                         public std::enable_shared_from_this<CNamedPipeServer>
{
public:
    static constexpr uint32_t kBufferSize = 1024;
    static constexpr DWORD kDefaultTimeoutMs = 1000;
    // How often the accept thread tries again for a name that another process holds.
    static constexpr DWORD kNameRetryMs = 1000;

    // `accepts` instances wait for clients at once (1 to 100; anything else gives 1).
    CNamedPipeServer(const std::wstring& name, uint32_t maxInstances, uint32_t accepts,
                     std::shared_ptr<CDaxSecattr> securityAttributes, std::shared_ptr<ICvLogger> logger);
    ~CNamedPipeServer() override;
    CNamedPipeServer(const CNamedPipeServer&) = delete;
    CNamedPipeServer& operator=(const CNamedPipeServer&) = delete;

    // The owner hands the server its own shared reference (needed before BeginWaitForConnection
    // when the server is not owned through std::shared_ptr's enable_shared_from_this).
    void SetSelf(const std::shared_ptr<CNamedPipeServer>& self) { m_pSelf = self; }

    BOOL BeginWaitForConnection(std::shared_ptr<PipeConnectionCallback> onConnected,
                                std::shared_ptr<PipeConnectionCallback> onDisconnected, void* context);
    void EndWaitForConnection();
    void ResetCallback();

    // The connected stream of a reported pipe handle, given the owner's channel id; null when the
    // instance is not (or no longer) connected.
    std::shared_ptr<CNamedPipeServerStream> AttachStream(void* pipe, uint64_t channelId);

    BOOL WaitForConnection();
    int OnClientConnected(void* pipe);
    void OnClientDisconnected(void* pipe);

    // Before BeginWaitForConnection.
    void SetInstanceCreator(PipeInstanceCreator creator) { m_createInstance = std::move(creator); }

    uint32_t GetAccepts() const { return m_dwAccepts; }
    const std::wstring& GetPipeName() const { return m_strPipeName; }
    // What the pipe is for, in the administrator's words of the events about its name. Before Start.
    void SetPurpose(std::wstring purpose) { m_strPurpose = std::move(purpose); }
    size_t AcceptCount() const;
    size_t ConnectionCount() const;

private:
    friend class CNamedPipeServerStream;
    int AcceptThread(void* stopEvent, void* parameter);
    void OnConnectFailed(void* pipe, const void* identity);
    std::shared_ptr<CNamedPipeServer> Self();
    void CloseStream(const std::shared_ptr<CNamedPipeServerStream>& stream);

    std::shared_ptr<CDaxSecattr> m_pSecurityAttributes;
    uint32_t m_dwInBufferSize = kBufferSize;
    uint32_t m_dwOutBufferSize = kBufferSize;
    uint32_t m_dwMaxInstances;
    uint32_t m_dwAccepts;
    std::wstring m_strPipeName;
    std::wstring m_strPurpose = L"a pipe of the service";
    std::shared_ptr<daxlib::unique_handle> m_pAcceptSemaphore;
    std::unique_ptr<CJoinableThread<int>> m_pAcceptThread;
    mutable daxlib::srw_lock m_srwLists;
    std::map<HANDLE, std::shared_ptr<CNamedPipeServerStream>> m_acceptList TS_GUARDED_BY(m_srwLists);
    std::map<HANDLE, std::shared_ptr<CNamedPipeServerStream>> m_connectionList TS_GUARDED_BY(m_srwLists);
    std::shared_ptr<PipeConnectionCallback> m_pOnConnected;
    std::shared_ptr<PipeConnectionCallback> m_pOnDisconnected;
    void* m_pContext = nullptr;
    std::weak_ptr<CNamedPipeServer> m_pSelf;
    std::atomic<bool> m_bStopping{false};
    PipeInstanceCreator m_createInstance;
    // Accept thread only: the last creation found the name held by another process.
    bool m_bNameTaken = false;
};
