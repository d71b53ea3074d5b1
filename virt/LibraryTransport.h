#pragma once
// The URL channel through the channel library "cvskapi.dll": its session notifications and its
// connections, addressed by the session's GUID text on the channel's port.
#include "virt/ChannelTransport.h"

#include <atomic>

class CLibraryTransport final : public IChannelTransport
{
public:
    // `reportUnavailable` false: a library that is missing or fails is only logged, for when
    // another transport takes over and nothing is for the administrator to do.
    explicit CLibraryTransport(bool reportUnavailable = true) : m_bReportUnavailable(reportUnavailable) {}

    std::wstring Describe() const override;
    // Loads and initialises the library; its absence or failure is also reported as an event.
    bool Init(const Log& log) override;
    void Subscribe(SkApi::SessionCallback opened, SkApi::SessionCallback closed, void* context) override;
    bool StartNotification() override;
    void CleanUp() override;

    HANDLE Connect(const Log& log, const wchar_t* origin, const wchar_t* guidText,
                   uint32_t sessionId) override;
    bool WatchConnection(HANDLE connection, SkApi::ConnectionCallback callback, void* context) override;
    BOOL Read(HANDLE connection, void* buffer, DWORD* count, DWORD timeoutMs) override;
    BOOL Write(HANDLE connection, const void* bytes, DWORD* count, DWORD timeoutMs) override;
    void Close(HANDLE connection) override;

    // Whether Init found the library usable (for the start event's text).
    bool Loaded() const noexcept { return m_bLoaded.load(); }

private:
    const bool m_bReportUnavailable;
    std::atomic<bool> m_bLoaded{false};
    std::atomic<bool> m_bUnavailableReported{false};
};
