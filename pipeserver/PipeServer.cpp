#include "pipeserver/PipeServer.h"

#include "common/DaxException.h"
#include "common/Guarded.h"
#include "common/UniqueHandle.h"
#include "pipe/CallbackHolder.h"
#include "pipe/NamedPipeServer.h"
#include "pipe/PipeRequest.h"
#include "pipe/SignalQueueThread.h"
#include "pipe/attributes.h"

#include <psapi.h>

#include <algorithm>
#include <functional>
#include <mutex>
#include <shared_mutex>
#include <utility>
#include <vector>

namespace
{
// Shared by every pipe server of the process and never reset, not even by Stop and Start.
std::atomic<uint64_t> g_channelCounter{1};

using ReadSignature = void(std::shared_ptr<unsigned char[]>, unsigned long, unsigned long, PIPE_OVERLAPPED*);
} // namespace

CPipeServer::CPipeServer(std::shared_ptr<ICvLogger> logger, std::wstring pipeName)
    : IBaseItem(std::move(logger)), m_strPipeName(std::move(pipeName))
{
}

CPipeServer::~CPipeServer()
{
    Stop();
}

void CPipeServer::SetUrlSender(UrlSender sender)
{
    daxlib::lock_guard lock(m_srwSender);
    m_sendUrl = std::move(sender);
}

void CPipeServer::SetUrlPolicy(UrlPolicySource policy)
{
    daxlib::lock_guard lock(m_srwSender);
    m_policy = std::move(policy);
}

void CPipeServer::SetRefusalCounter(UrlRefusalCounter counter)
{
    daxlib::lock_guard lock(m_srwSender);
    m_countRefusal = std::move(counter);
}

int CPipeServer::Start()
{
    return daxlib::GuardedValue(
        this, L"CPipeServer::Start: (60)", 0,
        [&]() -> int
        {
            if (!m_pConnectQueue)
            {
                auto handler =
                    MakeMemberCallback<int(NewConnectData&)>(this, &CPipeServer::InitConnectionHandler);
                auto queue = std::make_shared<CSignalQueueThread<NewConnectData>>(handler, GetLogger());
                if (!queue->Start())
                    return 0;
                m_pConnectQueue = std::move(queue);
            }
            if (!m_pNamedPipeServer)
            {
                if (m_settings.legacyClientAccess)
                    Log(LogLevel::Warning, L"CPipeServer::Start: (47)",
                        L"agents may open the pipe with GENERIC_WRITE: every local user can also create "
                        L"instances of its name. Switch this off once all agents open it with "
                        L"FILE_WRITE_DATA.");
                auto attributes = std::make_shared<CDaxSecattrLocalLI>(
                    CDaxSecattr::DefaultVersionQuery(),
                    m_settings.legacyClientAccess ? ClientAccess::LegacyGenericWrite : ClientAccess::Narrow);
                auto server =
                    std::make_shared<CNamedPipeServer>(m_strPipeName, 255, 3, attributes, GetLogger());
                server->SetSelf(server);
                server->SetPurpose(L"the agent pipe, where agents hand over URLs");
                m_pNamedPipeServer = std::move(server);
            }
            if (!m_replyWatch.IsRunning() &&
                !m_replyWatch.Start(
                    [this](HANDLE stop)
                    {
                        const DWORD period = std::clamp<DWORD>(m_settings.replyTimeoutMs / 4, 10, 1000);
                        while (::WaitForSingleObject(stop, period) == WAIT_TIMEOUT)
                            daxlib::GuardedCall(this, L"CPipeServer::EndOverdueReplies: ",
                                                [this] { EndOverdueReplies(); });
                    }))
                return 0;
            auto onConnected = MakeMemberCallback<void(void*, unsigned long long, void*)>(
                this, &CPipeServer::OnConnectedChannel);
            auto onDisconnected = MakeMemberCallback<void(void*, unsigned long long, void*)>(
                this, &CPipeServer::OnDisconnectedChannel);
            Log(LogLevel::Info, L"CPipeServer::Start: (51)", L"waiting for connections...");
            if (!m_pNamedPipeServer->BeginWaitForConnection(onConnected, onDisconnected, nullptr))
            {
                Log(LogLevel::Error, L"CPipeServer::Start: (55)", L"BeginWaitForConnection failed");
                return 0;
            }
            return 1;
        });
}

int CPipeServer::Stop()
{
    m_replyWatch.Stop();
    if (auto server = std::move(m_pNamedPipeServer))
    {
        server->EndWaitForConnection();
        server->ResetCallback();
    }
    if (auto queue = std::move(m_pConnectQueue))
        queue->Stop();
    std::map<uint64_t, std::shared_ptr<CConnectionHandler>> handlers;
    {
        daxlib::lock_guard lock(m_srwTable);
        handlers.swap(m_connections);
        m_sessionConnections.clear();
    }
    for (auto& [id, handler] : handlers)
        handler->Stop();
    return 1;
}

void CPipeServer::OnConnectedChannel(void* h, unsigned long long, void*)
{
    Log(LogLevel::Debug, L"CPipeServer::OnConnectedChannel: (92)", L"client connected: h = 0x%p...", h);
    // Handler creation and the client-id queries run on the queue thread, off the I/O threads.
    if (auto queue = m_pConnectQueue)
        queue->Push(NewConnectData{h, GetNextChannelID()});
}

uint64_t CPipeServer::GetNextChannelID()
{
    const uint64_t id = g_channelCounter.fetch_add(1) & 0xFFFFFFFFull;
    if (id == 0xFFFFFFFFull)
        Log(LogLevel::Error, L"CPipeServer::GetNextChannelID: (162)",
            L"%s: Unique identifier counter overflow occurred", GetName().c_str());
    return id;
}

void CPipeServer::SetNextChannelIDForTest(uint64_t next)
{
    g_channelCounter = next;
}

int CPipeServer::InitConnectionHandler(NewConnectData& data)
{
    auto server = m_pNamedPipeServer;
    auto stream = server ? server->AttachStream(data.h, data.channelId) : nullptr;
    if (!stream)
    {
        Log(LogLevel::Error, L"CPipeServer::InitConnectionHandler: (108)",
            L"Unable attach stream to pipe: h = 0x%p. Ignore connection handling.", data.h);
        return 0;
    }
    ConnectionInformation information;
    information.dwClientProcessId = stream->GetClientProcessId();
    information.dwClientSessionId = stream->GetClientSessionId();
    if (m_resolveSession)
        information.dwClientSessionId =
            m_resolveSession(information.dwClientProcessId, information.dwClientSessionId);
    if (information.dwClientSessionId == daxlib::kUnknownSession)
    {
        // One line per burst, like the refusals over the limits.
        if (m_dwUnknownSessionBurst++ == 0)
            Log(LogLevel::Error, L"CPipeServer::InitConnectionHandler: (121)",
                L"the session of the agent in process %u cannot be determined: connection closed, and "
                L"further ones like it until a connection is admitted again",
                information.dwClientProcessId);
        stream->Disconnect();
        return 0;
    }
    if (!stream->IsConnected())
    {
        Log(LogLevel::Debug, L"CPipeServer::InitConnectionHandler: (117)",
            L"client just disconnected: h = 0x%p. Ignore connection handling.", data.h);
        return 0;
    }
    UrlSender sender;
    UrlPolicySource policy;
    UrlRefusalCounter countRefusal;
    {
        daxlib::lock_guard lock(m_srwSender);
        sender = m_sendUrl;
        policy = m_policy;
        countRefusal = m_countRefusal;
    }
    auto handler = std::make_shared<CConnectionHandler>(GetLogger(), stream, information, std::move(sender),
                                                        std::move(policy), std::move(countRefusal));
    using namespace std::placeholders;
    stream->SetWriteCallback(MakeGlobalCallback<ReadSignature>(
        std::bind(&CPipeServer::OnReplyWritten, this, _1, _2, _3, _4, data.channelId)));
    if (!Admit(data.channelId, handler))
    {
        stream->Disconnect();
        return 0;
    }
    // A disconnect reported while the handler was being made found no entry to remove; the
    // state tells, and the entry goes now instead of living until Stop.
    if (!stream->IsConnected())
    {
        RemoveChannel(data.channelId);
        return 0;
    }
    ReadHeader(handler, data.channelId);
    return 0;
}

void CPipeServer::ReadHeader(const std::shared_ptr<CConnectionHandler>& handler, uint64_t channelId)
{
    using namespace std::placeholders;
    handler->Request().ReadAsync(static_cast<uint32_t>(agentpipe::kHeaderSize),
                                 MakeGlobalCallback<ReadSignature>(
                                     std::bind(&CPipeServer::OnHeaderRead, this, _1, _2, _3, _4, channelId)),
                                 new PIPE_OVERLAPPED());
}

void CPipeServer::ReadBody(const std::shared_ptr<CConnectionHandler>& handler, uint64_t channelId,
                           uint32_t length)
{
    using namespace std::placeholders;
    handler->Request().ReadAsync(length,
                                 MakeGlobalCallback<ReadSignature>(
                                     std::bind(&CPipeServer::OnBodyRead, this, _1, _2, _3, _4, channelId)),
                                 new PIPE_OVERLAPPED());
}

void CPipeServer::OnHeaderRead(const std::shared_ptr<unsigned char[]>& buffer, unsigned long bytes,
                               unsigned long error, PIPE_OVERLAPPED* overlapped, uint64_t channelId)
{
    auto handler = FindHandler(channelId);
    if (!handler)
        return; // the request object that owned the record has gone with the handler
    handler->Request().EndAsync(overlapped);
    if (error != 0 || !handler->SetHeader(buffer.get(), bytes))
        return;
    const uint32_t length = handler->Header().length;
    if (length > kMaxAgentPayload)
    {
        Log(LogLevel::Warning, L"CPipeServer::OnHeaderRead: (201)",
            L"payload of %u byte(s) refused, ch: <%I64d>. Close connection.", length, channelId);
        handler->Stream()->Disconnect();
        return;
    }
    if (length == 0)
    {
        if (!handler->ProcessMessage(nullptr, 0))
            ReadHeader(handler, channelId);
        return;
    }
    ReadBody(handler, channelId, length);
}

void CPipeServer::OnBodyRead(const std::shared_ptr<unsigned char[]>& buffer, unsigned long bytes,
                             unsigned long error, PIPE_OVERLAPPED* overlapped, uint64_t channelId)
{
    auto handler = FindHandler(channelId);
    if (!handler)
        return;
    handler->Request().EndAsync(overlapped);
    if (error != 0)
        return;
    // One answer at a time: the next message is read once this one's answer is written.
    if (!handler->ProcessMessage(buffer.get(), bytes))
        ReadHeader(handler, channelId);
}

void CPipeServer::OnReplyWritten(const std::shared_ptr<unsigned char[]>&, unsigned long, unsigned long error,
                                 PIPE_OVERLAPPED* overlapped, uint64_t channelId)
{
    auto handler = FindHandler(channelId);
    if (!handler)
        return;
    handler->Request().EndAsync(overlapped);
    handler->ReplyEnded();
    if (error != 0)
    {
        handler->Stream()->Disconnect();
        return;
    }
    ReadHeader(handler, channelId);
}

void CPipeServer::EndOverdueReplies()
{
    const uint64_t now = ::GetTickCount64();
    std::vector<std::shared_ptr<CConnectionHandler>> overdue;
    {
        daxlib::shared_lock lock(m_srwTable);
        for (const auto& [id, handler] : m_connections)
        {
            const uint64_t since = handler->ReplyPendingSince();
            if (since != 0 && now - since >= m_settings.replyTimeoutMs)
                overdue.push_back(handler);
        }
    }
    if (overdue.empty())
    {
        if (m_dwOverdueInBurst > 1)
            Log(LogLevel::Warning, L"CPipeServer::EndOverdueReplies: (352)",
                L"%u agent connection(s) were closed for not taking their answers", m_dwOverdueInBurst);
        m_dwOverdueInBurst = 0;
        return;
    }
    for (const auto& handler : overdue)
    {
        // One line per burst: a flood of agents that never read must not flood the log as well.
        if (m_dwOverdueInBurst++ == 0)
            Log(LogLevel::Warning, L"CPipeServer::EndOverdueReplies: (343)",
                L"an agent did not take its answer within %u ms: connection of session %u (process %u) "
                L"closed, and further ones until no answer is overdue",
                m_settings.replyTimeoutMs, handler->Information().dwClientSessionId,
                handler->Information().dwClientProcessId);
        handler->ReplyEnded();
        handler->Stream()->Disconnect();
    }
}

void CPipeServer::OnDisconnectedChannel(void* h, unsigned long long channelId, void*)
{
    Log(LogLevel::Debug, L"CPipeServer::OnDisconnectedChannel: (139)",
        L"client disconnected: h = 0x%p, ch: <%I64d>...", h, static_cast<long long>(channelId));
    RemoveChannel(channelId);
}

void CPipeServer::RemoveChannel(uint64_t channelId)
{
    std::shared_ptr<CConnectionHandler> handler;
    {
        daxlib::lock_guard lock(m_srwTable);
        auto it = m_connections.find(channelId);
        if (it == m_connections.end())
            return;
        handler = std::move(it->second);
        m_connections.erase(it);
        auto count = m_sessionConnections.find(handler->Information().dwClientSessionId);
        if (count != m_sessionConnections.end() && --count->second == 0)
            m_sessionConnections.erase(count);
    }
    // The handler (and its stream) is released here, outside the lock, unless a completion
    // still holds it.
}

bool CPipeServer::Admit(uint64_t channelId, const std::shared_ptr<CConnectionHandler>& handler)
{
    const uint32_t session = handler->Information().dwClientSessionId;
    uint32_t refusedBefore = 0;
    {
        daxlib::lock_guard lock(m_srwTable);
        uint32_t& inSession = m_sessionConnections[session];
        const bool overTotal = m_connections.size() >= m_settings.maxConnections;
        if (overTotal || inSession >= m_settings.maxConnectionsPerSession)
        {
            if (inSession == 0)
                m_sessionConnections.erase(session);
            // One line per burst: a flood must not flood the log as well.
            if (m_dwRefusedInBurst++ == 0)
                Log(LogLevel::Warning, L"CPipeServer::Admit: (301)",
                    overTotal
                        ? L"%u agent connection(s) open in all, the limit: connection of session %u "
                          L"(process %u) closed, and further ones until a connection is admitted again"
                        : L"%u agent connection(s) open in this session, the limit: connection of session %u "
                          L"(process %u) closed, and further ones until a connection is admitted again",
                    overTotal ? m_settings.maxConnections : m_settings.maxConnectionsPerSession, session,
                    handler->Information().dwClientProcessId);
            return false;
        }
        if (!m_connections.insert({channelId, handler}).second)
            return false;
        ++inSession;
        refusedBefore = std::exchange(m_dwRefusedInBurst, 0);
    }
    m_dwUnknownSessionBurst = 0;
    if (refusedBefore > 1)
        Log(LogLevel::Warning, L"CPipeServer::Admit: (320)",
            L"%u agent connection(s) were closed over the limits", refusedBefore);
    return true;
}

size_t CPipeServer::ConnectionCount() const
{
    daxlib::shared_lock lock(m_srwTable);
    return m_connections.size();
}

std::shared_ptr<CConnectionHandler> CPipeServer::FindHandler(uint64_t channelId) const
{
    daxlib::shared_lock lock(m_srwTable);
    auto it = m_connections.find(channelId);
    return it == m_connections.end() ? nullptr : it->second;
}

int CPipeServer::GetProcessFile(uint32_t pid, std::wstring& path)
{
    daxlib::unique_handle process(::OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, pid));
    if (!process)
    {
        Log(LogLevel::Error, L"CPipeServer::GetProcessFile: (268)", L"OpenProcess failed; pid=%d; GLE=%d",
            static_cast<int>(pid), static_cast<int>(::GetLastError()));
        return 0;
    }
    wchar_t buffer[MAX_PATH] = {};
    if (!::K32GetModuleFileNameExW(process.get(), nullptr, buffer, MAX_PATH))
    {
        Log(LogLevel::Error, L"CPipeServer::GetProcessFile: (262)",
            L"GetModuleFileNameExW failed; pid=%d; GLE=%d", static_cast<int>(pid),
            static_cast<int>(::GetLastError()));
        return 0;
    }
    path = buffer;
    return 1;
}
