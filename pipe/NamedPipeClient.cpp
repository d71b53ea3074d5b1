#include "pipe/NamedPipeClient.h"

#include "common/DaxException.h"
#include "common/Guarded.h"
#include "common/PipeNames.h"
#include "common/ProcessSecurity.h"
#include "pipe/ThreadPool.h"
#include "pipe/attributes.h"

#include <algorithm>
#include <exception>

// ---- CNamedPipeClientStream ----

CNamedPipeClientStream::CNamedPipeClientStream(const std::shared_ptr<ICvLogger>& logger,
                                               SharedPipeHandle pipe, void* context,
                                               std::weak_ptr<CNamedPipeClient> client)
    : CNamedPipeStream(logger, std::move(pipe), context), m_pClient(std::move(client))
{
}

CNamedPipeClientStream::~CNamedPipeClientStream()
{
    WaitForIoCallbacks();
}

BOOL CNamedPipeClientStream::Start(const std::shared_ptr<PipeClientCallback>& onConnected)
{
    SetPipeConnectionState(ePipeConnectionState_Connected);
    if (!CheckReadable())
        return FALSE;
    // Reported before the loop starts, so that a server which wrote and left at once is reported
    // connected before it is reported gone.
    if (onConnected)
    {
        if (auto pool = GetThreadPool())
            pool->CreateTask<void, void*>(onConnected, GetHandle());
    }
    StartReadLoop();
    return TRUE;
}

void CNamedPipeClientStream::Disconnect(bool flush)
{
    const uint32_t previous = GetPipeConnectionState();
    ForceConnectionState(ePipeConnectionState_Disconnected);
    if (flush && previous != ePipeConnectionState_Disconnecting)
        ::FlushFileBuffers(GetHandle());
    Log(LogLevel::Debug, L"CNamedPipeClientStream::Disconnect: (78)",
        L"Client end of a named pipe instance disconnected from a server process. GLE=%d",
        static_cast<int>(::GetLastError()));
    EndPausedReadLoop();
}

void CNamedPipeClientStream::OnReadLoopEnded()
{
    // The reads have ended, often on the read starter's thread: the server has gone or the pipe
    // failed, so there is nothing to wait for, and a flush there would hold up every stream's
    // next read until this peer drained.
    Disconnect(false);
    if (m_bDisconnectNotified.exchange(true))
        return;
    auto client = m_pClient;
    auto pool = GetThreadPool();
    if (client.expired() || !pool)
        return;
    // Released on a pool thread: a stream must never be destroyed inside its own completion.
    pool->CreateTask<void, void*>(MakeGlobalCallback<void(void*)>(
                                      [client](void* h)
                                      {
                                          if (auto c = client.lock())
                                              c->OnClientDisconnected(h);
                                      }),
                                  GetHandle());
}

// ---- CNamedPipeClient ----

CNamedPipeClient::CNamedPipeClient(const std::wstring& name, std::shared_ptr<CDaxSecattr> securityAttributes,
                                   std::shared_ptr<ICvLogger> logger)
    : CBaseLogger(std::move(logger)), m_pSecurityAttributes(std::move(securityAttributes)),
      m_strPipeName(daxlib::PipePath(name))
{
    Log(LogLevel::Debug, L"CNamedPipeClient::CNamedPipeClient: (40)", L"constructor start...");
    Log(LogLevel::Debug, L"CNamedPipeClient::CNamedPipeClient: (45)", L"constructor end.");
}

CNamedPipeClient::~CNamedPipeClient()
{
    Log(LogLevel::Debug, L"CNamedPipeClient::~CNamedPipeClient: (50)", L"[~] destructor start...");
    Close();
    Log(LogLevel::Debug, L"CNamedPipeClient::~CNamedPipeClient: (60)", L"[~] destructor end.");
}

void CNamedPipeClient::SetCallbacks(std::shared_ptr<PipeClientCallback> onConnected,
                                    std::shared_ptr<PipeClientCallback> onDisconnected)
{
    daxlib::lock_guard lock(m_srwLock);
    m_pOnConnected = std::move(onConnected);
    m_pOnDisconnected = std::move(onDisconnected);
}

BOOL CNamedPipeClient::CreateConnectTimer()
{
    auto pool = GetThreadPool();
    daxlib::lock_guard lock(m_srwLock);
    if (!m_ptpTimer)
    {
        m_ptpTimer.reset(::CreateThreadpoolTimer(&CNamedPipeClient::TimerConnectCallback, this,
                                                 pool ? pool->GetEnvironment() : nullptr));
        if (!m_ptpTimer)
        {
            Log(LogLevel::Error, L"CNamedPipeClient::CreateConnectTimer: (95)",
                L"Unable to create threadpool timer. GLE=%d", static_cast<int>(::GetLastError()));
            return FALSE;
        }
    }
    m_bStop = 0;
    ArmTimer();
    return TRUE;
}

void CNamedPipeClient::ArmTimer()
{
    ULARGE_INTEGER due{};
    due.QuadPart = static_cast<ULONGLONG>(-static_cast<LONGLONG>(kRetryDelayMs) * 10000);
    FILETIME dueTime{due.LowPart, due.HighPart};
    ::SetThreadpoolTimer(m_ptpTimer.get(), &dueTime, 0, 0);
}

void CALLBACK CNamedPipeClient::TimerConnectCallback(PTP_CALLBACK_INSTANCE, PVOID context, PTP_TIMER)
{
    auto* self = static_cast<CNamedPipeClient*>(context);
    try
    {
        ++self->m_dwTimerShots;
        if (self->Connect(kRetryDelayMs))
            return;
        const DWORD error = ::GetLastError();
        if (error == ERROR_FILE_NOT_FOUND || error == ERROR_SEM_TIMEOUT)
        {
            if (self->m_bReconnect.load() && !self->m_bStop.load())
            {
                self->Log(LogLevel::Debug, L"CNamedPipeClient::TimerConnectCallback: (178)",
                          L"Shedule next connection...");
                daxlib::lock_guard lock(self->m_srwLock);
                if (self->m_ptpTimer && !self->m_bStop.load())
                    self->ArmTimer();
            }
        }
        else if (!self->m_bStop.load())
        {
            self->Log(LogLevel::Error, L"CNamedPipeClient::TimerConnectCallback: (185)",
                      L"Unable to connect to instance of named pipe. GLE=%d", static_cast<int>(error));
        }
    }
    catch (...)
    {
        // Nothing may escape into the thread pool.
    }
}

BOOL CNamedPipeClient::Connect(DWORD timeoutMs)
{
    try
    {
        m_dwAttempts = 0;
        const ULONGLONG start = ::GetTickCount64();
        HANDLE pipe = INVALID_HANDLE_VALUE;
        while (!m_bStop.load())
        {
            ++m_dwAttempts;
            // FILE_WRITE_DATA, not GENERIC_WRITE: that would also ask for the right to create
            // instances of the pipe, which the service grants nobody.
            pipe = ::CreateFileW(m_strPipeName.c_str(), GENERIC_READ | FILE_WRITE_DATA, 0,
                                 CDaxSecattr::Get(m_pSecurityAttributes.get()), OPEN_EXISTING,
                                 FILE_FLAG_OVERLAPPED | daxlib::kPipeClientSecurityFlags, nullptr);
            if (pipe != INVALID_HANDLE_VALUE)
                break;
            DWORD error = ::GetLastError();
            if (error != ERROR_PIPE_BUSY && error != ERROR_FILE_NOT_FOUND)
            {
                Log(LogLevel::Debug, L"CNamedPipeClient::Connect: (230)", L"CreateFile() failed. GLE=%d",
                    static_cast<int>(error));
                ::SetLastError(error);
                return FALSE;
            }
            const ULONGLONG used = ::GetTickCount64() - start;
            if (used >= timeoutMs)
            {
                ::SetLastError(error == ERROR_PIPE_BUSY ? ERROR_SEM_TIMEOUT : error);
                return FALSE;
            }
            const DWORD remaining = static_cast<DWORD>(timeoutMs - used);
            if (!::WaitNamedPipeW(m_strPipeName.c_str(), remaining))
            {
                error = ::GetLastError();
                Log(LogLevel::Debug, L"CNamedPipeClient::Connect: (241)",
                    L"WaitNamedPipe() failed. Timeout = %d, GLE=%d", static_cast<int>(remaining),
                    static_cast<int>(error));
                const ULONGLONG usedNow = ::GetTickCount64() - start;
                if (error != ERROR_FILE_NOT_FOUND || usedNow >= timeoutMs)
                {
                    ::SetLastError(error);
                    return FALSE;
                }
                // No server yet: look again shortly rather than spin on the name.
                ::Sleep(static_cast<DWORD>(std::min<ULONGLONG>(20, timeoutMs - usedNow)));
            }
        }
        if (pipe == INVALID_HANDLE_VALUE)
        {
            ::SetLastError(ERROR_OPERATION_ABORTED);
            return FALSE;
        }
        auto owned = std::make_shared<daxlib::unique_hfile>(pipe);
        Log(LogLevel::Debug, L"CNamedPipeClient::Connect: (258)",
            L"Opened the client end of a named pipe <attempts: %d>. Call InitConnection(hPipe = 0x%p)...",
            static_cast<int>(m_dwAttempts.load()), daxlib::Addr(pipe));
        {
            daxlib::lock_guard lock(m_srwLock);
            m_pOpening = owned;
        }
        owned.reset();
        auto pool = GetThreadPool();
        std::future<int> result;
        const BOOL submitted =
            pool && pool->CreateTask<void*>(
                        result, MakeMemberCallback<int(void*)>(this, &CNamedPipeClient::InitConnection),
                        static_cast<void*>(pipe));
        int connected = 0;
        if (submitted)
            connected = result.get();
        {
            daxlib::lock_guard lock(m_srwLock);
            m_pOpening.reset(); // closes the handle unless the stream took it
        }
        if (!connected)
            ::SetLastError(ERROR_PIPE_NOT_CONNECTED);
        return connected ? TRUE : FALSE;
    }
    catch (daxlib::CDaxException* raw)
    {
        daxlib::DaxExceptionPtr e(raw);
        LogDaxException(LogLevel::Error, L"CNamedPipeClient::Connect: (270)", *e);
    }
    catch (const std::exception& e)
    {
        LogStdException(LogLevel::Error, L"CNamedPipeClient::Connect: (276)", e);
    }
    {
        daxlib::lock_guard lock(m_srwLock);
        m_pOpening.reset();
    }
    ::SetLastError(ERROR_PIPE_NOT_CONNECTED);
    return FALSE;
}

int CNamedPipeClient::InitConnection(void* pipe)
{
    return daxlib::GuardedValue(this, L"CNamedPipeClient::InitConnection: (325)", 0,
                                [&]() -> int
                                {
                                    SharedPipeHandle handle;
                                    std::shared_ptr<PipeClientCallback> onConnected;
                                    {
                                        daxlib::lock_guard lock(m_srwLock);
                                        if (!m_pOpening || m_pOpening->get() != pipe)
                                            return 0;
                                        handle = std::move(m_pOpening);
                                        onConnected = m_pOnConnected;
                                    }
                                    auto stream = std::make_shared<CNamedPipeClientStream>(
                                        m_pLogger, handle, nullptr, weak_from_this());
                                    {
                                        daxlib::lock_guard lock(m_srwLock);
                                        m_pStream = stream;
                                    }
                                    if (!stream->Start(onConnected))
                                    {
                                        daxlib::lock_guard lock(m_srwLock);
                                        m_pStream.reset();
                                        return 0;
                                    }
                                    return 1;
                                });
}

void CNamedPipeClient::OnClientDisconnected(void* pipe)
{
    Log(LogLevel::Debug, L"CNamedPipeClient::OnClientDisconnected: (339)",
        L"Client disonnected: hPipe = 0x%p", pipe);
    std::shared_ptr<CNamedPipeClientStream> stream;
    std::shared_ptr<PipeClientCallback> onDisconnected;
    {
        daxlib::lock_guard lock(m_srwLock);
        if (m_pStream && m_pStream->GetHandle() == pipe)
            stream = std::move(m_pStream);
        onDisconnected = m_pOnDisconnected;
    }
    if (onDisconnected)
        onDisconnected->Invoke(pipe);
    stream.reset();
}

void CNamedPipeClient::Close()
{
    m_bStop = 1;
    daxlib::unique_tp_timer timer;
    {
        daxlib::lock_guard lock(m_srwLock);
        timer = std::move(m_ptpTimer);
    }
    // Closed outside the lock: closing waits for a running retry, which takes it.
    timer.reset();
    std::shared_ptr<CNamedPipeClientStream> stream;
    {
        daxlib::lock_guard lock(m_srwLock);
        stream = std::move(m_pStream);
    }
    stream.reset();
}

std::shared_ptr<CNamedPipeClientStream> CNamedPipeClient::GetStream() const
{
    daxlib::lock_guard lock(m_srwLock);
    return m_pStream;
}
