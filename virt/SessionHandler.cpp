#include "virt/SessionHandler.h"

#include "common/DaxException.h"
#include "common/Guarded.h"
#include "common/WideFormat.h"
#include "virt/UrlProtocol.h"

#include <process.h>

#include <climits>
#include <cstring>
#include <exception>

namespace
{

constexpr wchar_t kStartThreads[] = L"CSessionHandler::StartThreads";
constexpr wchar_t kStopThreads[] = L"CSessionHandler::StopThreads";
constexpr wchar_t kConnectionThread[] = L"CSessionHandler::ConnectionThread";
constexpr wchar_t kReadThread[] = L"CSessionHandler::ReadThread";
constexpr wchar_t kOnConnectionEvent[] = L"CSessionHandler::OnConnectionEvent";
constexpr wchar_t kHandlerSendURL[] = L"CSessionHandler::SendURL";
constexpr wchar_t kCloseConnection[] = L"CSessionHandler::CloseConnection";

// A message this large is read into a buffer that is given back right after, so one odd
// message from a peer does not pin its memory for the life of the session.
constexpr size_t kKeepReceiveBuffer = 1u << 20;

unsigned HandleBits(HANDLE h) noexcept
{
    return static_cast<unsigned>(reinterpret_cast<uintptr_t>(h));
}

} // namespace

CSessionHandler::CSessionHandler(std::shared_ptr<ICvLogger> logger,
                                 std::shared_ptr<IChannelTransport> transport, const wchar_t* guidText,
                                 uint32_t sessionId, std::wstring name, ChannelStatusListener listener,
                                 std::shared_ptr<SessionCounters> counters)
    : IBaseItem(std::move(logger)), m_pTransport(std::move(transport)), m_dwSessionId(sessionId),
      m_strName(std::move(name)),
      m_pCounters(counters ? std::move(counters) : std::make_shared<SessionCounters>()),
      m_listener(std::move(listener))
{
    if (guidText)
        wcsncpy(m_szSessionGUID, guidText, kGuidTextLength - 1);
    m_status.dwState = eCvUrlApiEvent_RdpNotConnected;
}

CSessionHandler::~CSessionHandler()
{
    try
    {
        CloseConnection();
    }
    catch (...)
    {
        // A destructor never throws; CloseConnection only logs.
    }
}

std::wstring CSessionHandler::GetLogTag() const
{
    return daxlib::Format(L"Session %u", m_dwSessionId);
}

bool CSessionHandler::StartThreads()
{
    if (m_hevStop)
        return true;

    struct NewEvent
    {
        daxlib::unique_handle* event;
        BOOL initialState;
        const wchar_t* failure;
    };
    const NewEvent events[] = {
        {&m_hevStop, FALSE, L"CreateEventW(m_hevStop) failed. LastError=%u"},
        {&m_hevDisconnected, TRUE, L"CreateEventW(m_hevDisconnected) failed. LastError=%u"},
        {&m_hevConnected, FALSE, L"CreateEventW(m_hevConnected) failed. LastError=%u"},
        {&m_hevStartRead, FALSE, L"CreateEventW(m_hevStartRead) failed. LastError=%u"},
    };
    for (const auto& e : events)
    {
        e.event->reset(::CreateEventW(nullptr, TRUE, e.initialState, nullptr));
        if (!*e.event)
        {
            Log(LogLevel::Error, kStartThreads, e.failure, ::GetLastError());
            StopThreads();
            return false;
        }
    }

    m_hConnectionThread.reset(
        reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, &ConnectionThreadEntry, this, 0, nullptr)));
    if (!m_hConnectionThread)
    {
        Log(LogLevel::Error, kStartThreads, L"_beginthreadex(m_hConnectionThread) failed. LastError=%u",
            ::GetLastError());
        StopThreads();
        return false;
    }
    m_hReadThread.reset(
        reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, &ReadThreadEntry, this, 0, nullptr)));
    if (!m_hReadThread)
    {
        Log(LogLevel::Error, kStartThreads, L"_beginthreadex(m_hReadThread) failed. LastError=%u",
            ::GetLastError());
        StopThreads();
        return false;
    }
    Log(LogLevel::Info, kStartThreads, L"Success");
    return true;
}

void CSessionHandler::StopThreads()
{
    if (m_hevStop)
        ::SetEvent(m_hevStop.get());
    // A handshake that began before the stop waits in a read that only a closed connection ends.
    DropConnection();
    if (m_hReadThread)
        ::WaitForSingleObject(m_hReadThread.get(), INFINITE);
    if (m_hConnectionThread)
        ::WaitForSingleObject(m_hConnectionThread.get(), INFINITE);
    // The connection thread may have connected after CloseConnection looked; with both
    // threads gone, nothing else can hand the library a new handle.
    DropConnection();
    m_hConnectionThread.reset();
    m_bSendAllowed.store(false);
    m_hevStartRead.reset();
    m_hevConnected.reset();
    m_hevDisconnected.reset();
    m_hevStop.reset();
    // m_hReadThread stays until the next start or destruction; kept that way deliberately.
    Log(LogLevel::Info, kStopThreads, L"Success");
}

void CSessionHandler::AllowSending(bool allowed)
{
    m_bSendAllowed.store(allowed);
    if (m_hevStartRead)
        allowed ? ::SetEvent(m_hevStartRead.get()) : ::ResetEvent(m_hevStartRead.get());
}

void CSessionHandler::CloseConnection()
{
    AllowSending(false);
    DropConnection();
    StopThreads();
    Log(LogLevel::Info, kCloseConnection, L"Success");
}

HANDLE CSessionHandler::GetConnection() const
{
    daxlib::lock_guard lock(m_csConnection);
    return m_hConnection;
}

void CSessionHandler::SetConnection(HANDLE connection)
{
    daxlib::lock_guard lock(m_csConnection);
    m_hConnection = connection;
}

void CSessionHandler::DropConnection()
{
    // Waits for a URL being written: a handle is never closed under its write, nor a write
    // started on a handle that is being closed.
    daxlib::lock_guard send(m_csSend);
    HANDLE connection = nullptr;
    {
        daxlib::lock_guard lock(m_csConnection);
        std::swap(connection, m_hConnection);
    }
    if (connection)
        m_pTransport->Close(connection);
}

void CSessionHandler::Publish(const ChannelStatusRecord& record) const
{
    if (!m_listener)
        return;
    try
    {
        m_listener(record, m_dwSessionId);
    }
    catch (...)
    {
        // The listener's troubles stay with the listener.
    }
}

void CSessionHandler::GetChannelStatus(ChannelStatusRecord& record) const
{
    daxlib::lock_guard lock(m_csState);
    record = m_status;
}

unsigned __stdcall CSessionHandler::ConnectionThreadEntry(void* self)
{
    auto* handler = static_cast<CSessionHandler*>(self);
    unsigned result = 1;
    daxlib::GuardedCall(handler, kConnectionThread, [&] { result = handler->ConnectionThread(); });
    return result;
}

unsigned __stdcall CSessionHandler::ReadThreadEntry(void* self)
{
    auto* handler = static_cast<CSessionHandler*>(self);
    unsigned result = 1;
    daxlib::GuardedCall(handler, kReadThread, [&] { result = handler->ReadThread(); });
    return result;
}

void WINAPI CSessionHandler::ConnectionEventTrampoline(HANDLE connection, DWORD event, void* context)
{
    if (!context)
        return;
    try
    {
        static_cast<CSessionHandler*>(context)->OnConnectionEvent(connection, event);
    }
    catch (...)
    {
        // Nothing may unwind into the library's thread.
    }
}

unsigned CSessionHandler::ConnectionThread()
{
    Log(LogLevel::Info, kConnectionThread, L"Started");
    for (;;)
    {
        const HANDLE wakers[] = {m_hevStop.get(), m_hevDisconnected.get()};
        if (::WaitForMultipleObjects(2, wakers, FALSE, INFINITE) != WAIT_OBJECT_0 + 1)
            break;

        AllowSending(false);
        ::ResetEvent(m_hevConnected.get());
        ::ResetEvent(m_hevDisconnected.get());
        DropConnection();

        if (ConnectOnce())
        {
            m_pCounters->ChannelConnected();
            AllowSending(true);
            continue; // sleep until the connection breaks
        }

        ::SetEvent(m_hevDisconnected.get());
        DropConnection();
        if (m_bProtocolInvalid)
            ::ResetEvent(m_hevDisconnected.get()); // a refused handshake is never retried
        if (::WaitForSingleObject(m_hevStop.get(), kReconnectPauseMs) != WAIT_TIMEOUT)
            break;
    }
    Log(LogLevel::Info, kConnectionThread, L"Stopped");
    return 0;
}

bool CSessionHandler::ConnectOnce()
{
    Log(LogLevel::Info, kConnectionThread, L"m_szSessionGUID=\"%s\"", m_szSessionGUID);
    HANDLE connection = m_pTransport->Connect(*this, kConnectionThread, m_szSessionGUID, m_dwSessionId);
    if (!connection)
        return false;
    SetConnection(connection);

    if (!m_pTransport->WatchConnection(connection, &ConnectionEventTrampoline, this))
    {
        Log(LogLevel::Error, kConnectionThread, L"RegisterConnectionEventsCallback() failed");
        return false;
    }
    const HANDLE wakers[] = {m_hevStop.get(), m_hevConnected.get(), m_hevDisconnected.get()};
    if (::WaitForMultipleObjects(3, wakers, FALSE, kConnectedWaitMs) != WAIT_OBJECT_0 + 1)
        return false;

    switch (DoHandshake())
    {
    case HandshakeOutcome::Accepted:
        m_pCounters->HandshakeCompleted();
        return true;
    case HandshakeOutcome::Refused:
        m_pCounters->HandshakeRefused();
        m_bProtocolInvalid = true;
        return false;
    case HandshakeOutcome::Broken:
        break;
    }
    return false;
}

// DoHandshake is in SessionHandshake.cpp.

unsigned CSessionHandler::ReadThread()
{
    Log(LogLevel::Info, kReadThread, L"Started");
    for (;;)
    {
        const HANDLE wakers[] = {m_hevStop.get(), m_hevStartRead.get()};
        if (::WaitForMultipleObjects(2, wakers, FALSE, INFINITE) != WAIT_OBJECT_0 + 1)
            break;
        ReadOneMessage();
    }
    Log(LogLevel::Info, kReadThread, L"Stopped");
    return 0;
}

void CSessionHandler::ReadOneMessage()
{
    daxlib::lock_guard lock(m_csRead);
    const HANDLE connection = GetConnection();
    // The handle is set before its handshake ends; reading it then would take the handshake's
    // bytes. The event is reset before a new handle appears, so looking at it after taking
    // the handle is enough.
    if (connection && ::WaitForSingleObject(m_hevStartRead.get(), 0) != WAIT_OBJECT_0)
        return;
    if (!connection)
    {
        Log(LogLevel::Info, kReadThread, L"Connection is closed. Module=\"%s\", Line=%u", L"VirtServer",
            1017u);
        return;
    }
    auto readFailed = [this](const wchar_t* what)
    {
        const DWORD error = ::GetLastError();
        if (error == ERROR_NOT_CONNECTED)
            Log(LogLevel::Info, kReadThread, L"%s failed. Error=ERROR_NOT_CONNECTED(2250)", what);
        else
            Log(LogLevel::Error, kReadThread, L"%s failed. Error=%u", what, error);
    };

    uint8_t headerBytes[UrlNet::kHeaderSize];
    DWORD count = UrlNet::kHeaderSize;
    if (!m_pTransport->Read(connection, headerBytes, &count, INFINITE))
        return readFailed(L"SkReadData(Header)");
    const UrlNet::UrlNetHeader header = UrlNet::DecodeHeader(headerBytes);
    const char* name = UrlNet::CommandName(header.command);
    Log(LogLevel::Debug, kReadThread, L"SkReadData(Header) %S %d %d", name, static_cast<int>(header.command),
        static_cast<int>(header.cbData));

    if (header.cbData != 0)
    {
        if (!m_fmReceiveBuff.malloc(header.cbData))
        {
            // The data stay unread, as they always have.
            Log(LogLevel::Error, kReadThread, L"m_fmReceiveBuff.malloc(cbData=%u for %S) failed",
                header.cbData, name);
            return;
        }
        count = header.cbData;
        const BOOL ok = m_pTransport->Read(connection, m_fmReceiveBuff.data(), &count, INFINITE);
        const DWORD error = ::GetLastError();
        if (m_fmReceiveBuff.capacity() > kKeepReceiveBuffer)
            m_fmReceiveBuff.free();
        ::SetLastError(error);
        if (!ok)
            return readFailed(L"SkReadData(Data)");
    }
    Log(LogLevel::Warning, kReadThread, L"CSessionHandler::ReadThread: Unknown command. Command=%S(%u)", name,
        header.command);
}

uint64_t FileTimeNow()
{
    FILETIME now{};
    ::GetSystemTimeAsFileTime(&now);
    return (uint64_t{now.dwHighDateTime} << 32) | now.dwLowDateTime;
}

bool CSessionHandler::SendURL(std::wstring url)
{
    const bool sent = WriteURL(std::move(url));
    if (sent)
        m_pCounters->UrlForwarded(FileTimeNow());
    else
        m_pCounters->UrlFailed(FileTimeNow());
    return sent;
}

bool CSessionHandler::WriteURL(std::wstring url)
{
    daxlib::lock_guard turn(m_fifoSend);
    daxlib::lock_guard lock(m_csSend);
    // A handle whose handshake has not ended yet counts as no connection: a submit written
    // then would land between the handshake's items.
    const HANDLE connection = m_bSendAllowed.load() ? GetConnection() : nullptr;
    if (!connection)
    {
        Log(LogLevel::Info, kHandlerSendURL, L"Connection is closed. Module=\"%s\", Line=%u", L"VirtServer",
            443u);
        return false;
    }
    const int length = url.size() > static_cast<size_t>(INT_MAX / 4) ? -1 : static_cast<int>(url.size());
    int n =
        length < 0 ? 0 : ::WideCharToMultiByte(CP_UTF8, 0, url.data(), length, nullptr, 0, nullptr, nullptr);
    std::string utf8;
    if (n >= 1)
    {
        utf8.resize(static_cast<size_t>(n));
        n = ::WideCharToMultiByte(CP_UTF8, 0, url.data(), length, utf8.data(), n, nullptr, nullptr);
    }
    if (n < 1)
    {
        Log(LogLevel::Error, kHandlerSendURL, L"WideCharToMultiByte failed. ret=%i, gle=%d", n,
            static_cast<int>(::GetLastError()));
        return false;
    }

    const std::vector<uint8_t> message = UrlNet::BuildSubmitMessage(utf8);
    DWORD count = static_cast<DWORD>(message.size());
    if (!m_pTransport->Write(connection, message.data(), &count, INFINITE))
    {
        // The text names LocalVersion although it reports the submit; kept word for word.
        Log(LogLevel::Error, kHandlerSendURL, L"SkWriteData(LocalVersion) failed. Error=%u",
            ::GetLastError());
        return false;
    }
    return true;
}

void CSessionHandler::OnConnectionEvent(HANDLE connection, DWORD event)
{
    DWORD state = 0;
    switch (event)
    {
    case SkApi::kEventConnected:
        Log(LogLevel::Info, kOnConnectionEvent, L"Event=CONNECTED, hHandle=0x%x", HandleBits(connection));
        if (m_hevConnected)
            ::SetEvent(m_hevConnected.get());
        return;
    case SkApi::kEventBrokenConnection:
        Log(LogLevel::Info, kOnConnectionEvent, L"Event=BROKENCONNECTION, hHandle=0x%x",
            HandleBits(connection));
        state = eCvUrlApiEvent_RdpConnectionBroken;
        break;
    case SkApi::kEventInvalidAddress:
        Log(LogLevel::Info, kOnConnectionEvent, L"Event=INVALIDADRESS, hHandle=0x%x", HandleBits(connection));
        state = eCvUrlApiEvent_RdpNotConnected;
        break;
    default:
        Log(LogLevel::Info, kOnConnectionEvent, L"Event=%u, hHandle=0x%x", event, HandleBits(connection));
        return;
    }
    if (m_bProtocolInvalid)
        return;
    {
        daxlib::lock_guard lock(m_csState);
        m_status = ChannelStatusRecord{};
        m_status.dwState = state;
        Publish(m_status);
    }
    if (m_hevDisconnected)
        ::SetEvent(m_hevDisconnected.get());
}
