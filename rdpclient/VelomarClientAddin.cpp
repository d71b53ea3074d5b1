// The FreeRDP static channel add-in: xfreerdp loads it as libvelomar-client.so for
// `/vc:velomar[,options]`. It joins the channel "velomar", plays the client side of the URL
// channel on it and opens the URLs it lets through on this machine.
#include "rdpclient/ClientOptions.h"
#include "rdpclient/PieceAssembler.h"
#include "rdpclient/UrlChannelClient.h"
#include "rdpclient/UrlOpener.h"

#include <freerdp/settings.h>
#include <freerdp/svc.h>
#include <winpr/wlog.h>

#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace
{

using namespace RdpClient;

constexpr char kChannelName[] = "velomar"; // the static channel's name, at most 7 characters
constexpr char kLogTag[] = "com.corvane.velomar.client";
static_assert(sizeof kChannelName <= sizeof(CHANNEL_DEF::name));

// Nothing thrown may cross into FreeRDP: each entry from it runs through here.
template <typename F> void Guarded(wLog* log, const char* where, F&& call) noexcept
{
    try
    {
        call();
    }
    catch (const std::exception& e)
    {
        WLog_Print(log, WLOG_ERROR, "%s: %s", where, e.what());
    }
    catch (...)
    {
        WLog_Print(log, WLOG_ERROR, "%s: unknown exception", where);
    }
}

class Addin
{
public:
    static BOOL Entry(PCHANNEL_ENTRY_POINTS_EX points, PVOID initHandle);

private:
    Addin(const CHANNEL_ENTRY_POINTS_FREERDP_EX& entry, void* initHandle, ClientOptions options, wLog* log);

    static VOID VCAPITYPE InitEvent(LPVOID self, LPVOID initHandle, UINT event, LPVOID data, UINT length);
    static VOID VCAPITYPE OpenEvent(LPVOID self, DWORD openHandle, UINT event, LPVOID data, UINT32 length,
                                    UINT32 totalLength, UINT32 flags);

    void Connected();
    void Disconnected();
    void Received(const uint8_t* data, UINT32 length, UINT32 totalLength, UINT32 flags);
    bool Write(std::vector<uint8_t> bytes);
    void Log(LogLevel level, const std::string& text) const;

    CHANNEL_ENTRY_POINTS_FREERDP_EX m_entry;
    void* m_pInitHandle;
    CHANNEL_DEF m_def{};
    wLog* m_log;
    const ClientOptions m_options;
    UrlOpener m_opener;
    // Guards the connection's state below: FreeRDP reports connection changes and data on
    // different threads.
    std::mutex m_lock;
    DWORD m_dwOpenHandle = 0;
    bool m_bOpen = false;
    PieceAssembler m_assembler{UrlChannelClient::kMaxMessageData + UrlNet::kHeaderSize};
    std::unique_ptr<UrlChannelClient> m_session;
};

Addin::Addin(const CHANNEL_ENTRY_POINTS_FREERDP_EX& entry, void* initHandle, ClientOptions options, wLog* log)
    : m_entry(entry), m_pInitHandle(initHandle), m_log(log), m_options(std::move(options)),
      m_opener(m_options.opener, [this](LogLevel level, const std::string& text) { Log(level, text); })
{
    std::memcpy(m_def.name, kChannelName, sizeof kChannelName);
    m_def.options = CHANNEL_OPTION_INITIALIZED | CHANNEL_OPTION_ENCRYPT_RDP;
}

void Addin::Log(LogLevel level, const std::string& text) const
{
    const DWORD wlogLevel = level == LogLevel::Error     ? WLOG_ERROR
                            : level == LogLevel::Warning ? WLOG_WARN
                                                         : WLOG_INFO;
    WLog_Print(m_log, wlogLevel, "%s", text.c_str());
}

BOOL Addin::Entry(PCHANNEL_ENTRY_POINTS_EX points, PVOID initHandle)
{
    wLog* log = WLog_Get(kLogTag);
    // Only FreeRDP's extended entry points carry the options and the Ex calls used here.
    auto* entry = reinterpret_cast<CHANNEL_ENTRY_POINTS_FREERDP_EX*>(points);
    if (!entry || entry->cbSize < sizeof(CHANNEL_ENTRY_POINTS_FREERDP_EX) ||
        entry->MagicNumber != FREERDP_CHANNEL_MAGIC_NUMBER)
    {
        WLog_Print(log, WLOG_ERROR, "not loaded by FreeRDP's channel manager");
        return FALSE;
    }
    std::vector<std::string> words;
    if (const auto* args = static_cast<const ADDIN_ARGV*>(entry->pExtendedData))
    {
        for (int i = 0; i < args->argc; ++i)
            words.emplace_back(args->argv[i] ? args->argv[i] : "");
    }
    ClientOptions options;
    std::string error;
    if (!ParseClientOptions(words, options, error))
    {
        WLog_Print(log, WLOG_ERROR, "not loaded: %s", error.c_str());
        return FALSE;
    }

    std::unique_ptr<Addin> addin(new Addin(*entry, initHandle, std::move(options), log));
    const UINT rc = entry->pVirtualChannelInitEx(addin.get(), nullptr, initHandle, &addin->m_def, 1,
                                                 VIRTUAL_CHANNEL_VERSION_WIN2000, &Addin::InitEvent);
    if (rc != CHANNEL_RC_OK)
    {
        WLog_Print(log, WLOG_ERROR, "cannot register the channel %s: %s", kChannelName, WTSErrorToString(rc));
        return FALSE;
    }
    std::string schemes;
    for (const auto& scheme : addin->m_options.schemes)
        schemes += (schemes.empty() ? "" : " ") + scheme;
    WLog_Print(log, WLOG_INFO, "channel %s registered; opener %s; schemes %s", kChannelName,
               addin->m_options.opener.c_str(), schemes.c_str());
    // FreeRDP owns it from here until CHANNEL_EVENT_TERMINATED.
    addin.release();
    return TRUE;
}

VOID VCAPITYPE Addin::InitEvent(LPVOID self, LPVOID, UINT event, LPVOID, UINT)
{
    auto* addin = static_cast<Addin*>(self);
    if (!addin)
        return;
    switch (event)
    {
    case CHANNEL_EVENT_CONNECTED:
        Guarded(addin->m_log, "connect", [&] { addin->Connected(); });
        break;
    case CHANNEL_EVENT_DISCONNECTED:
        Guarded(addin->m_log, "disconnect", [&] { addin->Disconnected(); });
        break;
    case CHANNEL_EVENT_TERMINATED:
        Guarded(addin->m_log, "terminate", [&] { delete addin; });
        break;
    default:
        break;
    }
}

VOID VCAPITYPE Addin::OpenEvent(LPVOID self, DWORD, UINT event, LPVOID data, UINT32 length,
                                UINT32 totalLength, UINT32 flags)
{
    switch (event)
    {
    case CHANNEL_EVENT_DATA_RECEIVED:
        if (auto* addin = static_cast<Addin*>(self))
            Guarded(addin->m_log, "data",
                    [&] { addin->Received(static_cast<const uint8_t*>(data), length, totalLength, flags); });
        break;
    case CHANNEL_EVENT_WRITE_COMPLETE:
    case CHANNEL_EVENT_WRITE_CANCELLED:
        // The buffer handed to the write comes back here; it may come after the add-in has
        // gone, so nothing else is touched.
        delete static_cast<std::vector<uint8_t>*>(data);
        break;
    default:
        break;
    }
}

void Addin::Connected()
{
    std::lock_guard lock(m_lock);
    DWORD handle = 0;
    const UINT rc = m_entry.pVirtualChannelOpenEx(m_pInitHandle, &handle, m_def.name, &Addin::OpenEvent);
    if (rc != CHANNEL_RC_OK)
    {
        Log(LogLevel::Error, std::string("cannot open the channel: ") + WTSErrorToString(rc));
        return;
    }
    m_dwOpenHandle = handle;
    m_bOpen = true;
    m_assembler.Reset();
    // Every connection starts with the host's handshake.
    UrlChannelClient::Hooks hooks;
    hooks.send = [this](std::vector<uint8_t> bytes) { return Write(std::move(bytes)); };
    hooks.open = [this](std::string url) { m_opener.Open(std::move(url)); };
    hooks.log = [this](LogLevel level, const std::string& text) { Log(level, text); };
    m_session = std::make_unique<UrlChannelClient>(UrlGate(m_options.schemes), std::move(hooks));
    Log(LogLevel::Info, "channel opened");
}

void Addin::Disconnected()
{
    std::lock_guard lock(m_lock);
    m_session.reset();
    if (!m_bOpen)
        return;
    m_bOpen = false;
    const UINT rc = m_entry.pVirtualChannelCloseEx(m_pInitHandle, m_dwOpenHandle);
    if (rc != CHANNEL_RC_OK)
        Log(LogLevel::Warning, std::string("closing the channel: ") + WTSErrorToString(rc));
}

void Addin::Received(const uint8_t* data, UINT32 length, UINT32 totalLength, UINT32 flags)
{
    std::lock_guard lock(m_lock);
    if (!m_session)
        return;
    switch (m_assembler.Add(data, length, totalLength, flags))
    {
    case PieceAssembler::Result::Complete:
        m_session->Receive(m_assembler.Message().data(), m_assembler.Message().size());
        break;
    case PieceAssembler::Result::Lost:
        m_session->Abandon("pieces of a channel message were lost");
        break;
    default:
        break;
    }
}

// Called with m_lock held, from the session.
bool Addin::Write(std::vector<uint8_t> bytes)
{
    if (!m_bOpen)
        return false;
    // FreeRDP sends from this buffer later and hands it back with CHANNEL_EVENT_WRITE_COMPLETE.
    auto buffer = std::make_unique<std::vector<uint8_t>>(std::move(bytes));
    const UINT rc = m_entry.pVirtualChannelWriteEx(m_pInitHandle, m_dwOpenHandle, buffer->data(),
                                                   static_cast<ULONG>(buffer->size()), buffer.get());
    if (rc != CHANNEL_RC_OK)
    {
        Log(LogLevel::Error, std::string("cannot write to the channel: ") + WTSErrorToString(rc));
        return false;
    }
    buffer.release();
    return true;
}

} // namespace

extern "C" __attribute__((visibility("default"))) BOOL VCAPITYPE
VirtualChannelEntryEx(PCHANNEL_ENTRY_POINTS_EX points, PVOID initHandle)
{
    BOOL loaded = FALSE;
    Guarded(WLog_Get(kLogTag), "load", [&] { loaded = Addin::Entry(points, initHandle); });
    return loaded;
}
