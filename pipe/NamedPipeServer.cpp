#include "pipe/NamedPipeServer.h"

#include "common/DaxException.h"
#include "common/Guarded.h"
#include "common/PipeNames.h"
#include "common/ServiceEvents.h"
#include "pipe/ThreadPool.h"
#include "pipe/attributes.h"

#include <exception>
#include <utility>
#include <vector>

CNamedPipeServer::CNamedPipeServer(const std::wstring& name, uint32_t maxInstances, uint32_t accepts,
                                   std::shared_ptr<CDaxSecattr> securityAttributes,
                                   std::shared_ptr<ICvLogger> logger)
    : CBaseLogger(std::move(logger)), m_pSecurityAttributes(std::move(securityAttributes)),
      m_dwMaxInstances(maxInstances), m_dwAccepts(pipestates::ClampAccepts(accepts)),
      m_strPipeName(daxlib::PipePath(name))
{
    Log(LogLevel::Debug, L"CNamedPipeServer::CNamedPipeServer: (50)", L"constructor start (accepts: %d)...",
        static_cast<int>(accepts));
    Log(LogLevel::Debug, L"CNamedPipeServer::CNamedPipeServer: (62)", L"constructor end.");
}

CNamedPipeServer::~CNamedPipeServer()
{
    Log(LogLevel::Debug, L"CNamedPipeServer::~CNamedPipeServer: (70)", L"[~] destructor start...");
    EndWaitForConnection();
    std::map<HANDLE, std::shared_ptr<CNamedPipeServerStream>> connections;
    {
        daxlib::lock_guard lock(m_srwLists);
        connections.swap(m_connectionList);
    }
    for (auto& [pipe, stream] : connections)
        CloseStream(stream);
    Log(LogLevel::Debug, L"CNamedPipeServer::~CNamedPipeServer: (76)", L"[~] destructor end.");
}

std::shared_ptr<CNamedPipeServer> CNamedPipeServer::Self()
{
    if (auto self = m_pSelf.lock())
        return self;
    return weak_from_this().lock();
}

BOOL CNamedPipeServer::BeginWaitForConnection(std::shared_ptr<PipeConnectionCallback> onConnected,
                                              std::shared_ptr<PipeConnectionCallback> onDisconnected,
                                              void* context)
{
    Log(LogLevel::Debug, L"CNamedPipeServer::BeginWaitForConnection: (83)", L" (accepts: %d)...",
        static_cast<int>(m_dwAccepts));
    if (m_pSelf.expired())
        m_pSelf = weak_from_this();
    {
        daxlib::lock_guard lock(m_srwLists);
        m_pOnConnected = std::move(onConnected);
        m_pOnDisconnected = std::move(onDisconnected);
        m_pContext = context;
    }
    if (m_pAcceptThread && m_pAcceptThread->IsRunning())
        return TRUE;
    m_bStopping = false;
    m_pAcceptSemaphore = std::make_shared<daxlib::unique_handle>(
        ::CreateSemaphoreW(nullptr, static_cast<LONG>(m_dwAccepts), static_cast<LONG>(m_dwAccepts), nullptr));
    if (!*m_pAcceptSemaphore)
        return FALSE;
    try
    {
        if (!m_pAcceptThread)
            m_pAcceptThread = std::make_unique<CJoinableThread<int>>(
                MakeMemberCallback<int(void*, void*)>(this, &CNamedPipeServer::AcceptThread), nullptr,
                m_pLogger, L"AcceptThread");
    }
    catch (daxlib::CDaxException* raw)
    {
        daxlib::DaxExceptionPtr e(raw);
        LogDaxException(LogLevel::Error, L"CNamedPipeServer::BeginWaitForConnection: (95)", *e);
        return FALSE;
    }
    return m_pAcceptThread->Start();
}

int CNamedPipeServer::AcceptThread(void* stopEvent, void*)
{
    Log(LogLevel::Debug, L"CNamedPipeServer::AcceptThread: (140)", L"begin thread...");
    int result = 1;
    const HANDLE handles[2] = {static_cast<HANDLE>(stopEvent), m_pAcceptSemaphore->get()};
    LONG unitsToRetry = 0; // waiting instances not created because another process held the name
    for (;;)
    {
        const DWORD wait =
            ::WaitForMultipleObjects(2, handles, FALSE, unitsToRetry > 0 ? kNameRetryMs : INFINITE);
        if (wait == WAIT_OBJECT_0 + 1)
        {
            result = WaitForConnection();
            if (!result && m_bNameTaken)
                ++unitsToRetry;
            continue;
        }
        if (wait == WAIT_TIMEOUT)
        {
            ::ReleaseSemaphore(m_pAcceptSemaphore->get(), std::exchange(unitsToRetry, 0), nullptr);
            continue;
        }
        if (wait == WAIT_OBJECT_0)
        {
            Log(LogLevel::Debug, L"CNamedPipeServer::AcceptThread: (155)", L"Thread stopped");
            break;
        }
        Log(LogLevel::Error, L"CNamedPipeServer::AcceptThread: (160)",
            L"WaitForMultipleObjects failed. dwWait = %d, GLE = %d", static_cast<int>(wait),
            static_cast<int>(::GetLastError()));
        result = 0;
        break;
    }
    Log(LogLevel::Debug, L"CNamedPipeServer::AcceptThread: (167)", L"End thread. res = %d", result);
    return result;
}

BOOL CNamedPipeServer::WaitForConnection()
{
    return daxlib::GuardedValue(
        this, L"CNamedPipeServer::WaitForConnection: (218)", FALSE,
        [&]() -> BOOL
        {
            SECURITY_ATTRIBUTES* attributes = CDaxSecattr::Get(m_pSecurityAttributes.get());
            // Holding no instance, the server may be about to join a pipe that another process made
            // under its name, which would hand that process the clients: the first instance must be
            // a new pipe.
            bool first = false;
            {
                daxlib::lock_guard lock(m_srwLists);
                first = m_acceptList.empty() && m_connectionList.empty();
            }
            auto pipe = std::make_shared<daxlib::unique_hfile>(pipeinstance::Create(
                m_createInstance, m_strPipeName, first,
                {m_dwMaxInstances, m_dwOutBufferSize, m_dwInBufferSize, kDefaultTimeoutMs}, attributes));
            const DWORD createError = *pipe ? ERROR_SUCCESS : ::GetLastError();
            if (pipeinstance::NameTaken(first, createError))
            {
                if (!std::exchange(m_bNameTaken, true))
                {
                    Log(LogLevel::Error, L"CNamedPipeServer::WaitForConnection: (186)",
                        L"The pipe %s exists already and was not created by this server: not serving it; "
                        L"trying again every %u ms. GLE = %d",
                        m_strPipeName.c_str(), static_cast<unsigned>(kNameRetryMs),
                        static_cast<int>(createError));
                    events::Report(events::Level::Warning, events::kPipeNameTaken,
                                   {m_strPipeName, m_strPurpose, std::to_wstring(kNameRetryMs)});
                }
                ::SetLastError(createError);
                return FALSE;
            }
            if (*pipe && std::exchange(m_bNameTaken, false))
            {
                Log(LogLevel::Info, L"CNamedPipeServer::WaitForConnection: (188)",
                    L"The pipe %s is this server's now: serving it", m_strPipeName.c_str());
                events::Report(events::Level::Information, events::kPipeNameFreed,
                               {m_strPipeName, m_strPurpose});
            }
            if (!*pipe)
            {
                ::SetLastError(createError);
                // As built, the unit is not given back: each creation failure leaves one waiting
                // instance fewer.
                Log(LogLevel::Error, L"CNamedPipeServer::WaitForConnection: (190)",
                    L"Unable to create Named Pipe instance: GLE = %d", static_cast<int>(::GetLastError()));
                return FALSE;
            }
            const HANDLE handle = pipe->get();
            auto stream = std::make_shared<CNamedPipeServerStream>(m_pLogger, std::move(pipe), m_pContext);
            {
                daxlib::lock_guard lock(stream->m_srwOwner);
                stream->m_pServer = Self();
            }
            stream->m_pAcceptSemaphore = m_pAcceptSemaphore;
            {
                daxlib::lock_guard lock(m_srwLists);
                m_acceptList[handle] = stream;
            }
            if (stream->ConnectAsync())
                return TRUE;
            Log(LogLevel::Error, L"CNamedPipeServer::WaitForConnection: (212)",
                L"Failed to connect pipe <hPipe = 0x%p>", daxlib::Addr(handle));
            {
                daxlib::lock_guard lock(m_srwLists);
                m_acceptList.erase(handle);
            }
            CloseStream(stream);
            ::ReleaseSemaphore(m_pAcceptSemaphore->get(), 1, nullptr);
            return FALSE;
        });
}

int CNamedPipeServer::OnClientConnected(void* pipe)
{
    Log(LogLevel::Debug, L"CNamedPipeServer::OnClientConnected: (234)", L"Client connected: hPipe = 0x%p",
        pipe);
    std::shared_ptr<CNamedPipeServerStream> stream;
    std::shared_ptr<PipeConnectionCallback> onConnected;
    void* context = nullptr;
    {
        daxlib::lock_guard lock(m_srwLists);
        auto it = m_acceptList.find(static_cast<HANDLE>(pipe));
        if (it == m_acceptList.end())
        {
            Log(LogLevel::Error, L"CNamedPipeServer::OnClientConnected: (241)",
                L"Pipe <hPipe: 0x%p> not found in the accept list", pipe);
            return 0;
        }
        stream = it->second;
        m_acceptList.erase(it);
        m_connectionList[static_cast<HANDLE>(pipe)] = stream;
        onConnected = m_pOnConnected;
        context = m_pContext;
    }
    if (!stream->BeginRead())
    {
        Log(LogLevel::Error, L"CNamedPipeServer::OnClientConnected: (256)",
            L"Failed to start asynchronous read operation <hPipe = 0x%p>. Close pipe instance...", pipe);
        {
            daxlib::lock_guard lock(m_srwLists);
            m_connectionList.erase(static_cast<HANDLE>(pipe));
        }
        stream->Disconnect();
        CloseStream(stream);
        return 0;
    }
    if (onConnected)
        onConnected->Invoke(pipe, 0, context);
    bool deferred = false;
    {
        daxlib::lock_guard lock(m_srwLists);
        stream->m_bConnectReported = true;
        deferred = stream->m_bDisconnectDeferred;
    }
    if (deferred)
        OnClientDisconnected(pipe);
    return 1;
}

void CNamedPipeServer::OnClientDisconnected(void* pipe)
{
    Log(LogLevel::Debug, L"CNamedPipeServer::OnClientDisconnected: (277)",
        L"Client disonnected: hPipe = 0x%p", pipe);
    std::shared_ptr<CNamedPipeServerStream> stream;
    std::shared_ptr<PipeConnectionCallback> onDisconnected;
    void* context = nullptr;
    {
        daxlib::lock_guard lock(m_srwLists);
        auto it = m_connectionList.find(static_cast<HANDLE>(pipe));
        if (it == m_connectionList.end())
        {
            Log(LogLevel::Error, L"CNamedPipeServer::OnClientDisconnected: (284)",
                L"Pipe <hPipe: 0x%p> not found in the connection list", pipe);
            return;
        }
        if (!it->second->m_bConnectReported)
        {
            // The owner has not heard of the connection yet; it hears of the end right after.
            it->second->m_bDisconnectDeferred = true;
            return;
        }
        stream = it->second;
        m_connectionList.erase(it);
        onDisconnected = m_pOnDisconnected;
        context = m_pContext;
    }
    if (onDisconnected)
        onDisconnected->Invoke(pipe, stream->GetChannelId(), context);
    CloseStream(stream);
}

void CNamedPipeServer::OnConnectFailed(void* pipe, const void* identity)
{
    std::shared_ptr<CNamedPipeServerStream> stream;
    {
        daxlib::lock_guard lock(m_srwLists);
        auto it = m_acceptList.find(static_cast<HANDLE>(pipe));
        // The handle value may belong to a newer instance by now.
        if (it == m_acceptList.end() || it->second.get() != identity)
            return;
        stream = it->second;
        m_acceptList.erase(it);
    }
    CloseStream(stream);
}

void CNamedPipeServer::CloseStream(const std::shared_ptr<CNamedPipeServerStream>& stream)
{
    if (stream)
        stream->Close();
}

std::shared_ptr<CNamedPipeServerStream> CNamedPipeServer::AttachStream(void* pipe, uint64_t channelId)
{
    daxlib::lock_guard lock(m_srwLists);
    auto it = m_connectionList.find(static_cast<HANDLE>(pipe));
    if (it == m_connectionList.end())
    {
        ::SetLastError(ERROR_NOT_FOUND);
        return nullptr;
    }
    it->second->SetChannelId(channelId);
    return it->second;
}

void CNamedPipeServer::ResetCallback()
{
    {
        daxlib::lock_guard lock(m_srwLists);
        m_pOnConnected.reset();
        m_pOnDisconnected.reset();
        m_pContext = nullptr;
    }
    Log(LogLevel::Trace, L"CNamedPipeServer::ResetCallback: (335)",
        L"Reset [connect & disconnect] callbacks");
}

void CNamedPipeServer::EndWaitForConnection()
{
    m_bStopping = true;
    if (m_pAcceptThread)
        m_pAcceptThread->Stop();
    std::map<HANDLE, std::shared_ptr<CNamedPipeServerStream>> waiting;
    {
        daxlib::lock_guard lock(m_srwLists);
        waiting.swap(m_acceptList);
    }
    for (auto& [pipe, stream] : waiting)
        CloseStream(stream);
    m_pAcceptSemaphore.reset();
}

size_t CNamedPipeServer::AcceptCount() const
{
    daxlib::lock_guard lock(m_srwLists);
    return m_acceptList.size();
}

size_t CNamedPipeServer::ConnectionCount() const
{
    daxlib::lock_guard lock(m_srwLists);
    return m_connectionList.size();
}
