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

// The callbacks share the owner's state rather than pointing at the owner: a read that ends
// while a test tears down may still be running its callback when the owner goes.
class EchoOwner
{
public:
    explicit EchoOwner(std::shared_ptr<ICvLogger> log) : m_state(std::make_shared<State>(std::move(log))) {}
    ~EchoOwner()
    {
        // The connections' requests hold callbacks that hold the state: let them go.
        std::map<uint64_t, std::shared_ptr<Connection>> connections;
        {
            std::lock_guard lock(m_state->mutex);
            connections.swap(m_state->connections);
        }
    }
    EchoOwner(const EchoOwner&) = delete;
    EchoOwner& operator=(const EchoOwner&) = delete;

    BOOL Start(const std::shared_ptr<CNamedPipeServer>& server)
    {
        m_state->server = server;
        using Notify = void(void*, unsigned long long, void*);
        std::weak_ptr<State> weak = m_state;
        return server->BeginWaitForConnection(MakeGlobalCallback<Notify>(
                                                  [weak](void* pipe, unsigned long long, void*)
                                                  {
                                                      if (auto state = weak.lock())
                                                          OnConnected(state, pipe);
                                                  }),
                                              MakeGlobalCallback<Notify>(
                                                  [weak](void* pipe, unsigned long long channelId, void*)
                                                  {
                                                      if (auto state = weak.lock())
                                                          OnDisconnected(*state, pipe, channelId);
                                                  }),
                                              nullptr);
    }

    int Connects() const { return m_state->connects; }
    int Disconnects() const { return m_state->disconnects; }
    // Connects of a pipe already connected plus disconnects of a pipe not connected.
    int Duplicates() const { return m_state->duplicates; }
    size_t Live() const
    {
        std::lock_guard lock(m_state->mutex);
        return m_state->connections.size();
    }

private:
    struct Connection
    {
        std::unique_ptr<CPipeServerRequest> request;
        bool inBody = false;
    };

    struct State
    {
        explicit State(std::shared_ptr<ICvLogger> l) : log(std::move(l)) {}
        std::shared_ptr<ICvLogger> log;
        std::weak_ptr<CNamedPipeServer> server;
        mutable std::mutex mutex;
        std::map<uint64_t, std::shared_ptr<Connection>> connections;
        std::set<void*> seenHandles;
        std::atomic<uint64_t> nextId{0};
        // Changed under the mutex; read without it.
        std::atomic<int> connects{0};
        std::atomic<int> disconnects{0};
        std::atomic<int> duplicates{0};
    };

    static void OnConnected(const std::shared_ptr<State>& state, void* pipe)
    {
        const uint64_t id = ++state->nextId;
        auto server = state->server.lock();
        auto stream = server ? server->AttachStream(pipe, id) : nullptr;
        {
            std::lock_guard lock(state->mutex);
            ++state->connects;
            state->duplicates += state->seenHandles.insert(pipe).second ? 0 : 1;
            if (!stream)
                return;
            state->connections[id] = std::make_shared<Connection>(
                Connection{std::make_unique<CPipeServerRequest>(stream, state->log)});
        }
        Read(state, id, 4);
    }

    static void OnDisconnected(State& state, void* pipe, unsigned long long channelId)
    {
        std::shared_ptr<Connection> connection; // released after the lock (the server has closed the stream)
        std::lock_guard lock(state.mutex);
        ++state.disconnects;
        state.duplicates += state.seenHandles.erase(pipe) == 0 ? 1 : 0;
        if (auto it = state.connections.find(channelId); it != state.connections.end())
        {
            connection = it->second;
            state.connections.erase(it);
        }
    }

    static std::shared_ptr<Connection> Find(State& state, uint64_t id)
    {
        std::lock_guard lock(state.mutex);
        auto it = state.connections.find(id);
        return it == state.connections.end() ? nullptr : it->second;
    }

    static void Read(const std::shared_ptr<State>& state, uint64_t id, uint32_t length)
    {
        using ReadSignature =
            void(std::shared_ptr<unsigned char[]>, unsigned long, unsigned long, PIPE_OVERLAPPED*);
        std::weak_ptr<State> weak = state;
        if (auto connection = Find(*state, id))
            connection->request->ReadAsync(
                length,
                MakeGlobalCallback<ReadSignature>(
                    [weak, id](std::shared_ptr<unsigned char[]> data, unsigned long bytes,
                               unsigned long error, PIPE_OVERLAPPED* record)
                    {
                        if (auto owner = weak.lock())
                            OnRead(owner, std::move(data), bytes, error, record, id);
                    }),
                new PIPE_OVERLAPPED());
    }

    // A header starts the body's read; a body is echoed with its header and the next header read.
    static void OnRead(const std::shared_ptr<State>& state, std::shared_ptr<unsigned char[]> data,
                       unsigned long bytes, unsigned long error, PIPE_OVERLAPPED* record, uint64_t id)
    {
        auto connection = Find(*state, id);
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
            return Read(state, id, length);
        }
        std::unique_ptr<unsigned char[]> reply(new unsigned char[bytes + 4]);
        const uint32_t length = bytes;
        std::memcpy(reply.get(), &length, 4);
        std::memcpy(reply.get() + 4, data.get(), bytes);
        connection->request->Write(reply.get(), bytes + 4);
        Read(state, id, 4);
    }

    std::shared_ptr<State> m_state;
};
