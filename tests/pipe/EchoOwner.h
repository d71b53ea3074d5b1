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
    explicit EchoOwner(std::shared_ptr<ICvLogger> log) : m_log(std::move(log)) {}

    BOOL Start(const std::shared_ptr<CNamedPipeServer>& server)
    {
        m_server = server;
        using Notify = void(void*, unsigned long long, void*);
        return server->BeginWaitForConnection(MakeMemberCallback<Notify>(this, &EchoOwner::OnConnected),
                                              MakeMemberCallback<Notify>(this, &EchoOwner::OnDisconnected),
                                              this);
    }

    int Connects() const { return m_connects; }
    int Disconnects() const { return m_disconnects; }
    // Connects of a pipe already connected plus disconnects of a pipe not connected.
    int Duplicates() const { return m_duplicates; }
    size_t Live() const
    {
        std::lock_guard lock(m_mutex);
        return m_connections.size();
    }

private:
    struct Connection
    {
        std::unique_ptr<CPipeServerRequest> request;
        bool inBody = false;
    };

    void OnConnected(void* pipe, unsigned long long, void*)
    {
        const uint64_t id = ++m_nextId;
        auto server = m_server.lock();
        auto stream = server ? server->AttachStream(pipe, id) : nullptr;
        {
            std::lock_guard lock(m_mutex);
            ++m_connects;
            m_duplicates += m_seenHandles.insert(pipe).second ? 0 : 1;
            if (!stream)
                return;
            m_connections[id] =
                std::make_shared<Connection>(Connection{std::make_unique<CPipeServerRequest>(stream, m_log)});
        }
        Read(id, 4);
    }

    void OnDisconnected(void* pipe, unsigned long long channelId, void*)
    {
        std::shared_ptr<Connection> connection; // released after the lock (the server has closed the stream)
        std::lock_guard lock(m_mutex);
        ++m_disconnects;
        m_duplicates += m_seenHandles.erase(pipe) == 0 ? 1 : 0;
        if (auto it = m_connections.find(channelId); it != m_connections.end())
        {
            connection = it->second;
            m_connections.erase(it);
        }
    }

    std::shared_ptr<Connection> Find(uint64_t id)
    {
        std::lock_guard lock(m_mutex);
        auto it = m_connections.find(id);
        return it == m_connections.end() ? nullptr : it->second;
    }

    // The channel id is bound as a fifth argument, the way a connection owner binds its callbacks.
    void Read(uint64_t id, uint32_t length)
    {
        using namespace std::placeholders;
        using ReadSignature =
            void(std::shared_ptr<unsigned char[]>, unsigned long, unsigned long, PIPE_OVERLAPPED*);
        if (auto connection = Find(id))
            connection->request->ReadAsync(
                length,
                MakeGlobalCallback<ReadSignature>(std::bind(&EchoOwner::OnRead, this, _1, _2, _3, _4, id)),
                new PIPE_OVERLAPPED());
    }

    // A header starts the body's read; a body is echoed with its header and the next header read.
    void OnRead(std::shared_ptr<unsigned char[]> data, unsigned long bytes, unsigned long error,
                PIPE_OVERLAPPED* record, uint64_t id)
    {
        auto connection = Find(id);
        if (!connection)
            return;
        connection->request->EndAsync(record);
        if (error != 0 || (!connection->inBody && bytes != 4))
            return;
        connection->inBody = !connection->inBody;
        if (connection->inBody)
        {
            uint32_t length = 0;
            std::memcpy(&length, data.get(), 4);
            return Read(id, length);
        }
        std::unique_ptr<unsigned char[]> reply(new unsigned char[bytes + 4]);
        const uint32_t length = bytes;
        std::memcpy(reply.get(), &length, 4);
        std::memcpy(reply.get() + 4, data.get(), bytes);
        connection->request->Write(reply.get(), bytes + 4);
        Read(id, 4);
    }

    std::shared_ptr<ICvLogger> m_log;
    std::weak_ptr<CNamedPipeServer> m_server;
    mutable std::mutex m_mutex;
    std::map<uint64_t, std::shared_ptr<Connection>> m_connections;
    std::set<void*> m_seenHandles;
    std::atomic<uint64_t> m_nextId{0};
    // Changed under m_mutex; read without it.
    std::atomic<int> m_connects{0};
    std::atomic<int> m_disconnects{0};
    std::atomic<int> m_duplicates{0};
};
