#include "statusapi/StatusConnection.h"

#include "statusapi/PipeIo.h"
#include "statusapi/StatusServer.h"

#include <algorithm>
#include <mutex>

using namespace statusapi;

namespace
{
constexpr wchar_t kRun[] = L"CStatusConnection::Run: ";
// A stopping service gives a client this long to read its close packet.
constexpr DWORD kStopDrainMs = 1000;
} // namespace

CStatusConnection::CStatusConnection(CStatusServer& server, std::shared_ptr<ICvLogger> logger, uint64_t id,
                                     daxlib::unique_hfile pipe, uint32_t processId, uint32_t sessionId)
    : CBaseLogger(std::move(logger)), m_server(server), m_qwId(id), m_hPipe(std::move(pipe)),
      m_dwProcessId(processId), m_dwSessionId(sessionId),
      m_hevWake(::CreateEventW(nullptr, FALSE, FALSE, nullptr))
{
}

CStatusConnection::~CStatusConnection()
{
    RequestStop();
    m_thread.Stop();
}

bool CStatusConnection::Start()
{
    return m_hevWake && m_thread.Start([this](HANDLE) { Run(); });
}

void CStatusConnection::RequestStop()
{
    m_bStopRequested = true;
    if (m_hevWake)
        ::SetEvent(m_hevWake.get());
}

bool CStatusConnection::Subscribe(uint32_t requestId, uint32_t scope)
{
    daxlib::lock_guard lock(m_srwQueue);
    if (m_bSubscribed)
        return false;
    m_bSubscribed = true;
    m_dwSubscription = requestId;
    m_dwScope = scope;
    return true;
}

void CStatusConnection::Offer(uint32_t sessionId, const ChannelStatusRecord& record)
{
    {
        daxlib::lock_guard lock(m_srwQueue);
        if (!m_bSubscribed || m_bOverflowed || !Reaches(m_dwScope, m_dwSessionId, sessionId))
            return;
        if (m_queue.size() >= m_server.Settings().queueDepth)
        {
            m_bOverflowed = true;
            m_queue.clear();
        }
        else
        {
            m_queue.push_back({sessionId, record});
        }
    }
    ::SetEvent(m_hevWake.get());
}

bool CStatusConnection::Overflowed()
{
    daxlib::lock_guard lock(m_srwQueue);
    return m_bOverflowed;
}

void CStatusConnection::TakeQueued(std::vector<uint8_t>& out)
{
    std::deque<SessionEntry> taken;
    uint32_t subscription = 0;
    {
        daxlib::lock_guard lock(m_srwQueue);
        taken.swap(m_queue);
        subscription = m_dwSubscription;
    }
    for (const SessionEntry& entry : taken)
    {
        const auto packet = EncodeNotification({subscription, entry});
        out.insert(out.end(), packet.begin(), packet.end());
    }
}

void CStatusConnection::Run()
{
    uint32_t reason = kGoodbye;
    switch (Greet(reason))
    {
    case Greeting::Welcomed:
        Serve();
        break;
    case Greeting::Refused:
        Log(LogLevel::Info, kRun, L"client (process %u, session %u) refused: %S", m_dwProcessId,
            m_dwSessionId, CloseReasonWord(reason));
        WriteAll(m_hPipe.get(), EncodeClose(reason), DeadlineAfter(DrainMs(reason)));
        break;
    case Greeting::Gone:
        break;
    }
    // Closed, not disconnected: what was written and not yet read stays readable for the client.
    m_hPipe.reset();
    m_server.ConnectionEnded(m_qwId);
}

CStatusConnection::Greeting CStatusConnection::Greet(uint32_t& reason)
{
    CPacketReader reader(kMaxClientPayload);
    Packet packet;
    // Before a subscription only RequestStop sets the wake event.
    switch (ReadPacket(m_hPipe.get(), reader, packet, DeadlineAfter(m_server.Settings().helloTimeoutMs),
                       m_hevWake.get()))
    {
    case IoOutcome::Ok:
        break;
    case IoOutcome::TimedOut:
        reason = kHelloTimeout;
        return Greeting::Refused;
    case IoOutcome::Interrupted:
        reason = kServiceStopping;
        return Greeting::Refused;
    case IoOutcome::TooLarge:
        // Whatever else they are, bytes that do not begin a hello are no hello.
        reason = reader.Header().type == kHello ? kPacketTooLarge : kHelloMalformed;
        return Greeting::Refused;
    case IoOutcome::Broken:
        return Greeting::Gone;
    }
    const auto hello = packet.header.type == kHello
                           ? DecodeHello(packet.payload.data(), packet.payload.size())
                           : std::nullopt;
    if (!hello)
    {
        reason = kHelloMalformed;
        return Greeting::Refused;
    }
    PeerIdentity identity;
    if (!m_server.InspectPeer(m_hPipe.get(), identity))
    {
        Log(LogLevel::Warning, L"CStatusConnection::Greet: ",
            L"the user of process %u (session %u) cannot be read from its token. GLE=%d", m_dwProcessId,
            m_dwSessionId, static_cast<int>(::GetLastError()));
        reason = kUserMismatch;
        return Greeting::Refused;
    }
    reason = CheckHello(*hello, {m_dwSessionId, m_dwProcessId, identity.sid});
    if (reason != kGoodbye)
        return Greeting::Refused;
    m_bAdministrator = identity.administrator;
    // A client is answered in its own version: one older than the service's sees the service it
    // was built for.
    m_dwVersion = hello->version;
    const Welcome welcome{m_dwVersion, m_dwSessionId, m_bAdministrator ? kMayAskAllSessions : 0u};
    if (WriteAll(m_hPipe.get(), EncodeWelcome(welcome), DeadlineAfter(m_server.Settings().drainTimeoutMs)) !=
        IoOutcome::Ok)
        return Greeting::Gone;
    Log(LogLevel::Debug, L"CStatusConnection::Greet: ", L"client (process %u, session %u, %S) welcomed",
        m_dwProcessId, m_dwSessionId, SidText(identity.sid).c_str());
    return Greeting::Welcomed;
}

DWORD CStatusConnection::DrainMs(uint32_t reason) const
{
    const DWORD drain = m_server.Settings().drainTimeoutMs;
    return reason == kServiceStopping ? std::min(kStopDrainMs, drain) : drain;
}

void CStatusConnection::Serve()
{
    const HANDLE pipe = m_hPipe.get();
    CPacketReader reader(kMaxClientPayload);
    CPipeOperation writer;
    if (!reader.Valid() || !writer.Valid())
        return;
    std::vector<uint8_t> writing; // the buffer of the write in flight
    size_t written = 0;
    std::vector<uint8_t> next; // what goes out once that write is done: an answer, notifications, a close
    bool closing = false;
    ULONGLONG drainDeadline = 0;
    ULONGLONG writeDeadline = 0; // of the write in flight, while not closing

    const auto close = [&](uint32_t reason)
    {
        if (closing)
            return;
        Log(LogLevel::Info, kRun, L"client (process %u, session %u) closed: %S", m_dwProcessId, m_dwSessionId,
            CloseReasonWord(reason));
        reader.Cancel(pipe);
        const auto packet = EncodeClose(reason);
        next.insert(next.end(), packet.begin(), packet.end());
        closing = true;
        drainDeadline = DeadlineAfter(DrainMs(reason));
    };

    for (;;)
    {
        if (m_bStopRequested)
            close(kServiceStopping);
        else if (Overflowed())
            close(kReaderTooSlow); // behind the write in flight, which starts the drain deadline
        if (!writer.Pending())
        {
            if (written == writing.size())
            {
                // Changes are taken only between writes: while the client does not read, they
                // wait in the bounded queue, never in a buffer of their own.
                if (!closing && next.empty())
                    TakeQueued(next);
                writing.swap(next);
                next.clear();
                written = 0;
            }
            if (written < writing.size())
            {
                if (!writer.Start(pipe, true, writing.data() + written,
                                  static_cast<DWORD>(writing.size() - written)))
                    break;
                writeDeadline = DeadlineAfter(m_server.Settings().answerTimeoutMs);
            }
            else if (closing)
            {
                break; // everything, the close packet last, is in the pipe
            }
        }
        // A new request is read only when nothing waits behind the write in flight, so that a client
        // that asks without reading holds at most one answer here.
        if (!closing && !reader.Pending() && next.empty() && !reader.Start(pipe))
            break;

        HANDLE handles[3] = {m_hevWake.get()};
        DWORD count = 1;
        const DWORD readerSlot = reader.Pending() ? count++ : MAXDWORD;
        if (readerSlot != MAXDWORD)
            handles[readerSlot] = reader.Event();
        const DWORD writerSlot = writer.Pending() ? count++ : MAXDWORD;
        if (writerSlot != MAXDWORD)
            handles[writerSlot] = writer.Event();
        // No thread waits without limit on a client: one that leaves its answers unread is closed.
        const DWORD limit = closing            ? Remaining(drainDeadline)
                            : writer.Pending() ? Remaining(writeDeadline)
                                               : INFINITE;
        const DWORD wait = ::WaitForMultipleObjects(count, handles, FALSE, limit);
        if (wait == WAIT_TIMEOUT)
        {
            if (!closing)
                Log(LogLevel::Info, kRun,
                    L"client (process %u, session %u) closed: it took no answer for %u ms", m_dwProcessId,
                    m_dwSessionId, static_cast<unsigned>(m_server.Settings().answerTimeoutMs));
            break; // the client did not read in time, its close packet or its answer
        }
        if (wait == WAIT_FAILED)
        {
            Log(LogLevel::Error, kRun, L"WaitForMultipleObjects failed. GLE=%d",
                static_cast<int>(::GetLastError()));
            break;
        }
        if (wait == WAIT_OBJECT_0 + readerSlot)
        {
            const CPacketReader::Step step = reader.Continue(pipe);
            if (step == CPacketReader::Step::Broken)
                break;
            if (step == CPacketReader::Step::TooLarge)
                close(kPacketTooLarge);
            if (step != CPacketReader::Step::Complete)
                continue;
            const Packet packet = reader.Take();
            const ClientPacket request = InterpretClientPacket(packet.header, packet.payload.data(),
                                                               packet.payload.size(), m_dwVersion);
            if (request.kind == ClientPacket::Kind::Close)
                break; // answered with nothing
            if (request.kind == ClientPacket::Kind::Malformed)
            {
                close(kPacketMalformed);
                continue;
            }
            const auto answer =
                request.kind == ClientPacket::Kind::GetCounters
                    ? EncodeCountersAnswer(m_server.RespondCounters(*this, request.request))
                    : EncodeAnswer(m_server.Respond(*this, request.request,
                                                    request.kind == ClientPacket::Kind::Subscribe));
            next.insert(next.end(), answer.begin(), answer.end());
        }
        else if (wait == WAIT_OBJECT_0 + writerSlot)
        {
            DWORD bytes = 0;
            DWORD error = 0;
            if (!writer.Complete(pipe, bytes, error))
                break; // the client has gone
            written += bytes;
        }
    }
    reader.Cancel(pipe);
    writer.Cancel(pipe);
}
