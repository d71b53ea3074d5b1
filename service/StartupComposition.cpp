#include "service/StartupComposition.h"

#include "common/Locks.h"
#include "log/CvLogger.h"
#include "pipe/ThreadPool.h"
#include "pipeserver/PipeServer.h"
#include "pipeserver/UrlPolicyRegistry.h"
#include "service/ServiceConfig.h"
#include "statusapi/StatusServer.h"
#include "virt/LibraryTransport.h"
#include "virt/rdp/RdpTransport.h"
#include "virt/VirtServer.h"

#include <mutex>

namespace service
{

namespace
{
daxlib::srw_lock g_serverSlotsLock;
std::shared_ptr<CVirtServer> g_virtServer;
std::shared_ptr<CPipeServer> g_pipeServer;
std::shared_ptr<CUrlPolicyWatch> g_urlPolicy;
std::shared_ptr<CStatusServer> g_statusServer;

// A REG_DWORD under the product key; 0 when it is missing or of another type.
DWORD ReadProductDword(HKEY root, const wchar_t* name)
{
    DWORD value = 0;
    DWORD size = sizeof(value);
    return ::RegGetValueW(root, kProductKey, name, RRF_RT_REG_DWORD, nullptr, &value, &size) == ERROR_SUCCESS
               ? value
               : 0;
}
} // namespace

std::shared_ptr<CVirtServer> GetVirtServer()
{
    daxlib::lock_guard lock(g_serverSlotsLock);
    return g_virtServer;
}

std::shared_ptr<CPipeServer> GetPipeServer()
{
    daxlib::lock_guard lock(g_serverSlotsLock);
    return g_pipeServer;
}

AgentPipeSettings ReadAgentPipeSettings(HKEY root)
{
    AgentPipeSettings settings;
    const auto read = [root](const wchar_t* name) { return ReadProductDword(root, name); };
    settings.legacyClientAccess = read(L"AllowLegacyAgentAccess") != 0;
    // A missing or zero limit keeps the default: a limit of 0 would shut every agent out.
    if (const DWORD perSession = read(L"MaxAgentConnectionsPerSession"))
        settings.maxConnectionsPerSession = perSession;
    if (const DWORD total = read(L"MaxAgentConnections"))
        settings.maxConnections = total;
    return settings;
}

StatusApiSettings ReadStatusApiSettings(HKEY root)
{
    StatusApiSettings settings;
    // As with the agent pipe, 0 keeps the default.
    if (const DWORD perSession = ReadProductDword(root, L"MaxStatusConnectionsPerSession"))
        settings.maxConnectionsPerSession = perSession;
    if (const DWORD total = ReadProductDword(root, L"MaxStatusConnections"))
        settings.maxConnections = total;
    return settings;
}

std::shared_ptr<CStatusServer> GetStatusServer()
{
    daxlib::lock_guard lock(g_serverSlotsLock);
    return g_statusServer;
}

std::wstring ChannelTransportText()
{
    const auto server = GetVirtServer();
    return server ? server->DescribeTransport() : CLibraryTransport().Describe();
}

std::shared_ptr<CVirtServer> MakeVirtServer(const std::shared_ptr<CCvLogger>& logger)
{
    const CommonHelper::CvLogger::CBaseLogger log(logger);
    const ChannelTransportSetting setting = ReadChannelTransport();
    if (!setting.problem.empty())
        log.Log(LogLevel::Warning, L"RunStartupComposition", L"ChannelTransport in the %s: %s; using library",
                setting.from.c_str(), setting.problem.c_str());
    log.Log(LogLevel::Info, L"RunStartupComposition", L"Channel transport: %s (from the %s)",
            ChannelTransportName(setting.choice), setting.from.c_str());
    switch (setting.choice)
    {
    case ChannelTransportChoice::Rdp:
        return std::make_shared<CVirtServer>(logger, std::make_shared<CRdpTransport>());
    case ChannelTransportChoice::Automatic:
        return std::make_shared<CVirtServer>(logger, std::make_shared<CLibraryTransport>(false),
                                             std::make_shared<CRdpTransport>());
    case ChannelTransportChoice::Library:
        break;
    }
    return std::make_shared<CVirtServer>(logger, std::make_shared<CLibraryTransport>());
}

void RunStartupComposition(const std::shared_ptr<CCvLogger>& logger)
{
    SetThreadPool(std::make_shared<CThreadPool>(kThreadPoolMaximum, logger));

    auto virtServer = MakeVirtServer(logger);
    {
        daxlib::lock_guard lock(g_serverSlotsLock);
        g_virtServer = virtServer;
    }
    // Read before the pipe opens, so that the first URL already meets the administrator's policy.
    auto urlPolicy = std::make_shared<CUrlPolicyWatch>(logger);
    urlPolicy->Start();
    {
        daxlib::lock_guard lock(g_serverSlotsLock);
        g_urlPolicy = urlPolicy;
    }
    auto pipeServer = std::make_shared<CPipeServer>(logger);
    pipeServer->SetSettings(ReadAgentPipeSettings());
    pipeServer->SetUrlPolicy([urlPolicy] { return urlPolicy->Current(); });
    pipeServer->SetUrlSender(
        [](uint32_t sessionId, const std::wstring& url)
        {
            auto server = GetVirtServer();
            return server ? server->SendURL(sessionId, url) : 0;
        });
    pipeServer->SetRefusalCounter(
        [](uint32_t sessionId)
        {
            if (auto server = GetVirtServer())
                server->CountRefusedByPolicy(sessionId);
        });
    {
        daxlib::lock_guard lock(g_serverSlotsLock);
        g_pipeServer = pipeServer;
    }

    // The status API learns every channel change, and asks the channel server which sessions
    // exist, never a session handler (whose state lock a handshake may hold for long).
    auto statusServer = std::make_shared<CStatusServer>(logger);
    statusServer->SetSettings(ReadStatusApiSettings());
    statusServer->SetSessionList(
        []
        {
            auto server = GetVirtServer();
            return server ? server->SessionIds() : std::vector<uint32_t>();
        });
    statusServer->SetCounterList(
        []
        {
            auto server = GetVirtServer();
            return server ? server->CounterSnapshots()
                          : std::vector<std::pair<uint32_t, SessionCountersSnapshot>>();
        });
    virtServer->SetStatusListener(statusServer->Listener());
    {
        daxlib::lock_guard lock(g_serverSlotsLock);
        g_statusServer = statusServer;
    }

    // No result stops the service; each server logs its own failures.
    virtServer->Init();
    pipeServer->Start();
    statusServer->Start();
}

} // namespace service
