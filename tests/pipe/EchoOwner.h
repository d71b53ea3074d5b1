#pragma once
// A small owner of a CNamedPipeServer for tests and benchmarks: every message is a 32-bit
// length and that many bytes; each one is written back as it came, with the blocking write.
#include "pipe/NamedPipeServer.h"
#include "pipe/PipeRequest.h"

#include <atomic>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>

class EchoOwner
{
public:
    using ReadSignature = void(std::shared_ptr<unsigned char[]>, unsigned long, unsigned long, PIPE_OVERLAPPED*);

    explicit EchoOwner(std::shared_ptr<ICvLogger> log) : m_log(std::move(log)) {}

    BOOL Start(const std::shared_ptr<CNamedPipeServer>& server)
    {
        m_server = server;
        return server->BeginWaitForConnection(
            MakeMemberCallback<void(void*, unsigned long long, void*)>(this, &EchoOwner::OnConnected),
            MakeMemberCallback<void(void*, unsigned long long, void*)>(this, &EchoOwner::OnDisconnected), this);
    }

    void OnConnected(void* pipe, unsigned long long, void*)
    {
        const uint64_t id = ++m_nextId;
        auto server = m_server.lock();
        auto stream = server ? server->AttachStream(pipe, id) : nullptr;
        {
            std::lock_guard lock(m_mutex);
            ++m_connects;
            if (!m_seenHandles.insert(pipe).second)
                ++m_duplicateConnects;
            if (!stream)
                return;
            auto connection = std::make_shared<Connection>();
            connection->request = std::make_unique<CPipeServerRequest>(stream, m_log);
            m_connections[id] = connection;
        }
        ReadHeader(id);
    }

    void OnDisconnected(void* pipe, unsigned long long channelId, void*)
    {
        std::shared_ptr<Connection> connection;
        {
            std::lock_guard lock(m_mutex);
            ++m_disconnects;
            if (m_seenHandles.erase(pipe) == 0)
                ++m_strayDisconnects;
            auto it = m_connections.find(channelId);
            if (it != m_connections.end())
            {
                connection = it->second;
                m_connections.erase(it);
            }
        }
        // The request object goes with the connection (after the server has closed the stream).
    }

    int Connects() const { std::lock_guard lock(m_mutex); return m_connects; }
    int Disconnects() const { std::lock_guard lock(m_mutex); return m_disconnects; }
    int Duplicates() const { std::lock_guard lock(m_mutex); return m_duplicateConnects + m_strayDisconnects; }
    size_t Live() const { std::lock_guard lock(m_mutex); return m_connections.size(); }
    long long Echoed() const { return m_echoed.load(); }

private:
    struct Connection
    {
        std::unique_ptr<CPipeServerRequest> request;
        uint32_t length = 0;
    };

    std::shared_ptr<Connection> Find(uint64_t id)
    {
        std::lock_guard lock(m_mutex);
        auto it = m_connections.find(id);
        return it == m_connections.end() ? nullptr : it->second;
    }

    // The channel id is bound as a fifth argument, the way a connection owner binds its callbacks.
    void ReadHeader(uint64_t id)
    {
        using namespace std::placeholders;
        if (auto connection = Find(id))
            connection->request->ReadAsync(4, MakeGlobalCallback<ReadSignature>(std::bind(&EchoOwner::OnHeader, this, _1, _2, _3, _4, id)),
                                           new PIPE_OVERLAPPED());
    }

    void OnHeader(std::shared_ptr<unsigned char[]> data, unsigned long bytes, unsigned long error, PIPE_OVERLAPPED* record,
                  uint64_t id)
    {
        auto connection = Find(id);
        if (!connection)
            return;
        connection->request->EndAsync(record);
        if (error != 0 || bytes != 4)
            return;
        std::memcpy(&connection->length, data.get(), 4);
        using namespace std::placeholders;
        connection->request->ReadAsync(connection->length,
                                       MakeGlobalCallback<ReadSignature>(std::bind(&EchoOwner::OnBody, this, _1, _2, _3, _4, id)),
                                       new PIPE_OVERLAPPED());
    }

    void OnBody(std::shared_ptr<unsigned char[]> data, unsigned long bytes, unsigned long error, PIPE_OVERLAPPED* record,
                uint64_t id)
    {
        auto connection = Find(id);
        if (!connection)
            return;
        connection->request->EndAsync(record);
        if (error != 0)
            return;
        std::unique_ptr<unsigned char[]> reply(new unsigned char[bytes + 4]);
        const uint32_t length = bytes;
        std::memcpy(reply.get(), &length, 4);
        std::memcpy(reply.get() + 4, data.get(), bytes);
        if (connection->request->Write(reply.get(), bytes + 4))
            ++m_echoed;
        ReadHeader(id);
    }

    std::shared_ptr<ICvLogger> m_log;
    std::weak_ptr<CNamedPipeServer> m_server;
    mutable std::mutex m_mutex;
    std::map<uint64_t, std::shared_ptr<Connection>> m_connections;
    std::set<void*> m_seenHandles;
    std::atomic<uint64_t> m_nextId{0};
    std::atomic<long long> m_echoed{0};
    int m_connects = 0;
    int m_disconnects = 0;
    int m_duplicateConnects = 0;
    int m_strayDisconnects = 0;
};
