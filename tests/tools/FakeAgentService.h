#pragma once
// A stand-in for the service's side of the agent pipe: one pipe instance served by a thread of
// its own, one connection after another, keeping every complete message it received.
#include "common/Locks.h"
#include "common/UniqueHandle.h"
#include "pipeserver/AgentProtocol.h"

#include <windows.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace agenttests
{

class FakeAgentService
{
public:
    enum class Mode
    {
        Answer,      // answers as the service does; URLs get the results given, in turn
        Silent,      // reads everything, answers nothing
        HangUp,      // closes the connection when the first message is complete
        WrongAnswer, // answers a handshake with an open-URL answer
    };

    // `fullName` is "\\.\pipe\...". The instance exists when the constructor returns.
    FakeAgentService(const std::wstring& fullName, Mode mode,
                     std::vector<uint32_t> results = {agentpipe::kResultSent})
        : m_mode(mode), m_results(std::move(results))
    {
        m_stop.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
        m_event.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
        m_pipe.reset(::CreateNamedPipeW(fullName.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                                        PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT, 1, 65536, 65536, 0,
                                        nullptr));
        if (!m_stop || !m_event || !m_pipe)
            throw std::runtime_error("fake agent service: no pipe");
        m_thread = std::thread([this] { Serve(); });
    }
    ~FakeAgentService()
    {
        ::SetEvent(m_stop.get());
        m_thread.join();
    }
    FakeAgentService(const FakeAgentService&) = delete;
    FakeAgentService& operator=(const FakeAgentService&) = delete;

    std::vector<std::vector<uint8_t>> Messages() const
    {
        std::lock_guard guard(m_lock);
        return m_messages;
    }
    int Connections() const { return m_connections.load(); }
    // Connections that have ended and whose instance listens again.
    int Ended() const { return m_ended.load(); }

private:
    // Runs one overlapped call to its end; at the stop it is cancelled and waited for, and
    // false comes back.
    template <typename Start> bool Io(Start start, DWORD& bytes)
    {
        OVERLAPPED ov{};
        ov.hEvent = m_event.get();
        ::ResetEvent(ov.hEvent);
        bytes = 0;
        if (!start(&ov) && ::GetLastError() != ERROR_IO_PENDING)
            return ::GetLastError() == ERROR_PIPE_CONNECTED; // a client that came first
        const HANDLE events[] = {ov.hEvent, m_stop.get()};
        const bool stopped = ::WaitForMultipleObjects(2, events, FALSE, INFINITE) != WAIT_OBJECT_0;
        if (stopped)
            ::CancelIoEx(m_pipe.get(), &ov);
        return ::GetOverlappedResult(m_pipe.get(), &ov, &bytes, TRUE) && !stopped;
    }

    template <size_t N> static std::vector<uint8_t> Bytes(const std::array<uint8_t, N>& bytes)
    {
        return {bytes.begin(), bytes.end()};
    }
    bool Send(const uint8_t* data, DWORD length)
    {
        DWORD bytes = 0;
        return Io([&](OVERLAPPED* ov) { return ::WriteFile(m_pipe.get(), data, length, nullptr, ov); },
                  bytes) &&
               bytes == length;
    }

    // Takes the complete messages off `buffer` and answers them; false ends the connection.
    bool Process(std::vector<uint8_t>& buffer)
    {
        while (buffer.size() >= agentpipe::kHeaderSize)
        {
            uint8_t raw[agentpipe::kHeaderSize];
            std::copy_n(buffer.begin(), agentpipe::kHeaderSize, raw);
            const agentpipe::MessageHeader header = agentpipe::DecodeHeader(raw);
            const size_t size = agentpipe::kHeaderSize + header.length;
            if (buffer.size() < size)
                return true;
            {
                std::lock_guard guard(m_lock);
                m_messages.emplace_back(buffer.begin(), buffer.begin() + size);
            }
            buffer.erase(buffer.begin(), buffer.begin() + size);
            if (m_mode == Mode::HangUp)
                return false;
            const bool answer = m_mode == Mode::Answer;
            std::vector<uint8_t> reply;
            if (answer && header.type == agentpipe::kTypeHandshake)
                reply = Bytes(agentpipe::EncodeHandshakeAnswer());
            else if (m_mode == Mode::WrongAnswer || (answer && header.type == agentpipe::kTypeOpenUrl))
                reply = Bytes(agentpipe::EncodeOpenUrlAnswer(
                    answer ? m_results[m_nextResult++ % m_results.size()] : agentpipe::kResultSent));
            if (!reply.empty() && !Send(reply.data(), static_cast<DWORD>(reply.size())))
                return false;
        }
        return true;
    }

    void Serve()
    {
        DWORD bytes = 0;
        const auto listen = [&](OVERLAPPED* ov)
        {
            const BOOL started = ::ConnectNamedPipe(m_pipe.get(), ov);
            // Only now, listening again, has the previous connection ended for a client.
            if (m_ended < m_connections)
                ++m_ended;
            return started;
        };
        while (Io(listen, bytes))
        {
            ++m_connections;
            std::vector<uint8_t> buffer;
            uint8_t chunk[4096];
            const auto read = [&](OVERLAPPED* ov)
            { return ::ReadFile(m_pipe.get(), chunk, sizeof(chunk), nullptr, ov); };
            while (Io(read, bytes) && bytes > 0)
            {
                buffer.insert(buffer.end(), chunk, chunk + bytes);
                if (!Process(buffer))
                    break;
            }
            ::DisconnectNamedPipe(m_pipe.get());
        }
    }

    Mode m_mode;
    std::vector<uint32_t> m_results;
    size_t m_nextResult = 0;
    daxlib::unique_handle m_stop;
    daxlib::unique_handle m_event;
    daxlib::unique_hfile m_pipe;
    mutable daxlib::srw_lock m_lock;
    std::vector<std::vector<uint8_t>> m_messages;
    std::atomic<int> m_connections{0};
    std::atomic<int> m_ended{0};
    std::thread m_thread;
};

} // namespace agenttests
