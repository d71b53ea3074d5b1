// The server's end of one pipe instance: its overlapped connect, the hand-over of a connected
// client to the server, and its disconnect.
#include "pipe/NamedPipeServer.h"

#include "common/Guarded.h"
#include "pipe/ThreadPool.h"

#include <future>
#include <utility>

CNamedPipeServerStream::CNamedPipeServerStream(const std::shared_ptr<ICvLogger>& logger,
                                               SharedPipeHandle pipe, void* context)
    : CNamedPipeStream(logger, std::move(pipe), context)
{
}

CNamedPipeServerStream::~CNamedPipeServerStream()
{
    // The I/O must stop while this part of the object still exists: completions call its hooks.
    WaitForIoCallbacks();
}

void CNamedPipeServerStream::SetOwnerData(std::weak_ptr<void> data)
{
    daxlib::lock_guard lock(m_srwOwner);
    m_pOwnerData = std::move(data);
}

std::shared_ptr<void> CNamedPipeServerStream::GetOwnerData() const
{
    daxlib::lock_guard lock(m_srwOwner);
    return m_pOwnerData.lock();
}

void CNamedPipeServerStream::ReleaseAcceptUnit()
{
    if (auto semaphore = m_pAcceptSemaphore.lock())
        ::ReleaseSemaphore(semaphore->get(), 1, nullptr);
}

BOOL CNamedPipeServerStream::ConnectAsync()
{
    auto signal = std::make_shared<PipeTaskSignal>();
    signal->signal = ePipeTaskSignal_Connected;
    auto request = std::make_shared<PipeRequestIo>(signal);
    if (!GetIo()->StartIo(request))
        return FALSE;
    SetPipeConnectionState(ePipeConnectionState_Connecting);
    if (::ConnectNamedPipe(GetHandle(), &request->overlapped))
    {
        Log(LogLevel::Warning, L"CNamedPipeServerStream::ConnectAsync: (78)",
            L"Unexpected behavior: ConnectNamedPipe succeeds");
        GetIo()->Cancel(request, TRUE);
        SetPipeConnectionState(ePipeConnectionState_Connected);
        if (OnClientConnected())
            ReleaseAcceptUnit();
        return TRUE;
    }
    const DWORD error = ::GetLastError();
    switch (error)
    {
    case ERROR_IO_PENDING:
        if (GetIo()->IsStopping())
        {
            Log(LogLevel::Debug, L"CNamedPipeServerStream::ConnectAsync: (92)",
                L"ConnectNamedPipe(ov = 0x%p)...ERROR_IO_PENDING. ThreadPoolIo stops... Cancel request p: "
                L"0x%p",
                daxlib::Addr(&request->overlapped), daxlib::Addr(request.get()));
            GetIo()->Cancel(request, FALSE);
            SetPipeConnectionState(ePipeConnectionState_ConnectionError);
            ::SetLastError(ERROR_OPERATION_ABORTED);
            return FALSE;
        }
        return TRUE;
    case ERROR_PIPE_CONNECTED:
        // A client arrived between creation and connect: connected, and no completion follows.
        GetIo()->Cancel(request, TRUE);
        SetPipeConnectionState(ePipeConnectionState_Connected);
        if (OnClientConnected())
            ReleaseAcceptUnit();
        return TRUE;
    default:
        Log(LogLevel::Error, L"CNamedPipeServerStream::ConnectAsync: (112)",
            L"ConnectNamedPipe failed. GLE=%d", static_cast<int>(error));
        GetIo()->Cancel(request, TRUE);
        SetPipeConnectionState(ePipeConnectionState_ConnectionError);
        if (error == ERROR_NO_DATA)
            ::DisconnectNamedPipe(GetHandle());
        ::SetLastError(error);
        return FALSE;
    }
}

void CNamedPipeServerStream::OnConnectCompleted(unsigned long ioResult)
{
    ReleaseAcceptUnit();
    if (ioResult == 0)
        return;
    ForceConnectionState(ePipeConnectionState_ConnectionError);
    // A failed wait would otherwise sit in the accept list until the server ends.
    auto server = GetServerLink();
    auto pool = GetThreadPool();
    // Only a weak link here: a completion thread must never end up as the server's last owner.
    if (pool && !server.expired())
    {
        const void* identity = this;
        pool->CreateTask<void, void*>(MakeGlobalCallback<void(void*)>(
                                          [server, identity](void* h)
                                          {
                                              if (auto s = server.lock())
                                                  s->OnConnectFailed(h, identity);
                                          }),
                                      GetHandle());
    }
}

int CNamedPipeServerStream::OnClientConnected()
{
    ULONG processId = 0;
    ULONG sessionId = 0;
    if (::GetNamedPipeClientProcessId(GetHandle(), &processId))
        m_dwClientProcessId = processId;
    else
        Log(LogLevel::Error, L"CNamedPipeServerStream::OnClientConnected: (137)",
            L"Unable to get client ProcessId. GLE=%d", static_cast<int>(::GetLastError()));
    if (::GetNamedPipeClientSessionId(GetHandle(), &sessionId))
        m_dwClientSessionId = sessionId;
    else
        Log(LogLevel::Error, L"CNamedPipeServerStream::OnClientConnected: (143)",
            L"Unable to get client SessionId. GLE=%d", static_cast<int>(::GetLastError()));
    Log(LogLevel::Debug, L"CNamedPipeServerStream::OnClientConnected: (147)",
        L"ClientProcessId = %d, SessionId = %d", static_cast<int>(processId), static_cast<int>(sessionId));
    auto server = GetServerLink();
    auto pool = GetThreadPool();
    if (server.expired() || !pool)
        return 0;
    std::future<int> result;
    // The task holds the server only while it runs, never from an I/O completion thread.
    return pool->CreateTask<void*>(result,
                                   MakeGlobalCallback<int(void*)>(
                                       [server](void* h)
                                       {
                                           if (auto s = server.lock())
                                               return s->OnClientConnected(h);
                                           return 0;
                                       }),
                                   GetHandle());
}

void CNamedPipeServerStream::OnReadLoopEnded()
{
    Disconnect();
    if (m_bDisconnectNotified.exchange(true))
        return;
    auto server = GetServerLink();
    auto pool = GetThreadPool();
    if (server.expired() || !pool)
        return;
    pool->CreateTask<void, void*>(MakeGlobalCallback<void(void*)>(
                                      [server](void* h)
                                      {
                                          if (auto s = server.lock())
                                              s->OnClientDisconnected(h);
                                      }),
                                  GetHandle());
}

void CNamedPipeServerStream::Disconnect()
{
    SetPipeConnectionState(ePipeConnectionState_Disconnecting);
    const BOOL result = ::DisconnectNamedPipe(GetHandle());
    const DWORD error = ::GetLastError();
    SetPipeConnectionState(ePipeConnectionState_Disconnected);
    Log(LogLevel::Debug, L"CNamedPipeServerStream::Disconnect: (205)",
        L"Server end of a named pipe instance disconnected from a client process. bRes = %d, GLE=%d", result,
        static_cast<int>(error));
    EndPausedReadLoop();
}

void CNamedPipeServerStream::Close()
{
    WaitForIoCallbacks();
    daxlib::lock_guard lock(m_srwOwner);
    m_pServer.reset();
}

std::weak_ptr<CNamedPipeServer> CNamedPipeServerStream::GetServerLink() const
{
    daxlib::lock_guard lock(m_srwOwner);
    return m_pServer;
}
