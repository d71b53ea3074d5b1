#pragma once
// The agent pipe: agents in the users' sessions connect to it, hand over URLs one message at a
// time and get one status word per URL. Each URL goes to the client side of the agent's own
// session, as the system reports it for the pipe connection.
#include "common/BaseItem.h"
#include "common/Locks.h"
#include "pipeserver/ConnectionHandler.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

class CNamedPipeServer;
class CNamedPipeServerStream;
struct PIPE_OVERLAPPED;
template <typename T> class CSignalQueueThread;

constexpr wchar_t kAgentPipeName[] = L"9FEA9DA6-BEA1-479B-9819-F9031E0B69EE";
// A payload longer than this is no URL: the connection is closed instead of buffering it.
constexpr uint32_t kMaxAgentPayload = 1u << 20;

class CPipeServer : public IBaseItem
{
public:
    struct NewConnectData
    {
        void* h = nullptr;
        uint64_t channelId = 0;
    };

    explicit CPipeServer(std::shared_ptr<ICvLogger> logger, std::wstring pipeName = kAgentPipeName);
    ~CPipeServer() override;
    CPipeServer(const CPipeServer&) = delete;
    CPipeServer& operator=(const CPipeServer&) = delete;

    // Where URLs go; without it every URL is answered as not sent.
    void SetUrlSender(UrlSender sender);
    // The URL policy each new connection applies; without it, the default policy.
    void SetUrlPolicy(UrlPolicySource policy);

    int Start() override;
    int Stop() override;

    void OnConnectedChannel(void* h, unsigned long long, void*);
    void OnDisconnectedChannel(void* h, unsigned long long channelId, void*);
    int InitConnectionHandler(NewConnectData& data);
    uint64_t GetNextChannelID();
    int GetProcessFile(uint32_t pid, std::wstring& path);

    size_t ConnectionCount() const;
    std::shared_ptr<CConnectionHandler> FindHandler(uint64_t channelId) const;

    // For tests of the counter's wrap: sets the next id to be handed out.
    static void SetNextChannelIDForTest(uint64_t next);

private:
    void ReadHeader(const std::shared_ptr<CConnectionHandler>& handler, uint64_t channelId);
    void ReadBody(const std::shared_ptr<CConnectionHandler>& handler, uint64_t channelId, uint32_t length);
    void OnHeaderRead(std::shared_ptr<unsigned char[]> buffer, unsigned long bytes, unsigned long error,
                      PIPE_OVERLAPPED* overlapped, uint64_t channelId);
    void OnBodyRead(std::shared_ptr<unsigned char[]> buffer, unsigned long bytes, unsigned long error,
                    PIPE_OVERLAPPED* overlapped, uint64_t channelId);
    void RemoveChannel(uint64_t channelId);

    std::wstring m_pipeName;
    std::shared_ptr<CNamedPipeServer> m_pNamedPipeServer;
    std::shared_ptr<CSignalQueueThread<NewConnectData>> m_pConnectQueue;
    mutable daxlib::srw_lock m_tableLock;
    std::map<uint64_t, std::shared_ptr<CConnectionHandler>> m_connections;
    daxlib::srw_lock m_senderLock;
    UrlSender m_sendUrl;
    UrlPolicySource m_policy;
};
