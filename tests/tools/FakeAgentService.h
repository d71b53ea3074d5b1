#pragma once
// A stand-in for the service's side of the agent pipe: one pipe instance served by a thread of
// its own, one connection after another, keeping every complete message it received.
#include "common/Locks.h"
#include "common/UniqueHandle.h"
#include "pipeserver/AgentProtocol.h"

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace agent_tests
{

class FakeAgentService
{
public:
    enum class Mode
    {
        Answer,       // answers as the service does; URLs get the results given, in turn
        Silent,       // reads everything, answers nothing
        HangUp,       // closes the connection when the first message is complete
        WrongAnswer,  // answers a handshake with an open-URL answer
    };

    // `fullName` is "\\.\pipe\...". The instance exists when the constructor returns.
    FakeAgentService(std::wstring fullName, Mode mode, std::vector<uint32_t> results = {agentpipe::kResultSent})
        : m_name(std::move(fullName)), m_mode(mode), m_results(std::move(results))
    {
        m_stop.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
        m_pipe.reset(::CreateNamedPipeW(m_name.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                                        PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT, 1, 65536, 65536, 0, nullptr));
        if (!m_stop || !m_pipe)
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
    // Waits for an overlapped operation or the stop; a stopped operation is cancelled and waited for.
    bool Finish(OVERLAPPED& ov, BOOL started, DWORD& bytes)
    {
        if (!started && ::GetLastError() != ERROR_IO_PENDING)
            return ::GetLastError() == ERROR_PIPE_CONNECTED; // a client that came first
        const HANDLE events[] = {ov.hEvent, m_stop.get()};
        if (::WaitForMultipleObjects(2, events, FALSE, INFINITE) != WAIT_OBJECT_0)
        {
            ::CancelIoEx(m_pipe.get(), &ov);
            ::GetOverlappedResult(m_pipe.get(), &ov, &bytes, TRUE);
            return false;
        }
        return ::GetOverlappedResult(m_pipe.get(), &ov, &bytes, FALSE) != FALSE;
    }

    bool Send(const uint8_t* data, DWORD length)
    {
        daxlib::unique_handle event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
        OVERLAPPED ov{};
        ov.hEvent = event.get();
        DWORD bytes = 0;
        return Finish(ov, ::WriteFile(m_pipe.get(), data, length, nullptr, &ov), bytes) && bytes == length;
    }

    // Handles what is complete in `buffer`; false ends the connection.
    bool Process(std::vector<uint8_t>& buffer)
    {
        while (buffer.size() >= agentpipe::kHeaderSize)
        {
            uint8_t raw[agentpipe::kHeaderSize];
            std::copy(buffer.begin(), buffer.begin() + agentpipe::kHeaderSize, raw);
            const agentpipe::MessageHeader header = agentpipe::DecodeHeader(raw);
            const size_t size = agentpipe::kHeaderSize + header.length;
            if (buffer.size() < size)
                return true;
            {
                std::lock_guard guard(m_lock);
                m_messages.emplace_back(buffer.begin(), buffer.begin() + size);
            }
            buffer.erase(buffer.begin(), buffer.begin() + size);
            switch (m_mode)
            {
            case Mode::Silent:
                break;
            case Mode::HangUp:
                return false;
            case Mode::WrongAnswer: {
                const auto answer = agentpipe::EncodeOpenUrlAnswer(agentpipe::kResultSent);
                if (!Send(answer.data(), static_cast<DWORD>(answer.size())))
                    return false;
                break;
            }
            case Mode::Answer:
                if (header.type == agentpipe::kTypeHandshake)
                {
                    const auto answer = agentpipe::EncodeHandshakeAnswer();
                    if (!Send(answer.data(), static_cast<DWORD>(answer.size())))
                        return false;
                }
                else if (header.type == agentpipe::kTypeOpenUrl)
                {
                    const uint32_t result = m_results[m_nextResult++ % m_results.size()];
                    const auto answer = agentpipe::EncodeOpenUrlAnswer(result);
                    if (!Send(answer.data(), static_cast<DWORD>(answer.size())))
                        return false;
                }
                break;
            }
        }
        return true;
    }

    void Serve()
    {
        daxlib::unique_handle event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
        while (::WaitForSingleObject(m_stop.get(), 0) == WAIT_TIMEOUT)
        {
            OVERLAPPED ov{};
            ov.hEvent = event.get();
            DWORD bytes = 0;
            const BOOL started = ::ConnectNamedPipe(m_pipe.get(), &ov);
            // Only now, listening again, has the previous connection ended for a client.
            if (m_ended < m_connections)
                ++m_ended;
            if (!Finish(ov, started, bytes))
                break;
            ++m_connections;
            std::vector<uint8_t> buffer;
            for (;;)
            {
                uint8_t chunk[4096];
                ::ResetEvent(event.get());
                OVERLAPPED readOv{};
                readOv.hEvent = event.get();
                if (!Finish(readOv, ::ReadFile(m_pipe.get(), chunk, sizeof(chunk), nullptr, &readOv), bytes) ||
                    bytes == 0)
                    break;
                buffer.insert(buffer.end(), chunk, chunk + bytes);
                if (!Process(buffer))
                    break;
            }
            ::DisconnectNamedPipe(m_pipe.get());
            ::ResetEvent(event.get());
        }
    }

    std::wstring m_name;
    Mode m_mode;
    std::vector<uint32_t> m_results;
    size_t m_nextResult = 0;
    daxlib::unique_handle m_stop;
    daxlib::unique_hfile m_pipe;
    mutable daxlib::srw_lock m_lock;
    std::vector<std::vector<uint8_t>> m_messages;
    std::atomic<int> m_connections{0};
    std::atomic<int> m_ended{0};
    std::thread m_thread;
};

} // namespace agent_tests
