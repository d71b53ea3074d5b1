// The status API server with real pipes and threads; the channel server's part is played by the
// test (session list and changes), and seams play other sessions and non-administrators, which
// Wine cannot produce.
#include "common/UniqueHandle.h"
#include "pipe/attributes.h"
#include "statusapi/PeerIdentity.h"
#include "statusapi/StatusServer.h"
#include "tests/common/CapturingLogger.h"
#include "tests/common/RawPipeClient.h"
#include "tests/common/EventRecorder.h"
#include "tests/common/TestSupport.h"
#include "tools/status/StatusClient.h"

#include <gtest/gtest.h>

#include <aclapi.h>
#include <sddl.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

using namespace statusapi;
using statusclient::CStatusClient;
using statusclient::Status;
using testsupport::Eventually;

namespace
{

constexpr DWORD kLimitMs = 10000;
constexpr uint32_t kNoClose = 0xFFFFFFFF;

ChannelStatusRecord Record(uint32_t state)
{
    ChannelStatusRecord record{};
    record.dwState = state;
    record.dwLocalVersion = 0x00010001;
    return record;
}

// How far the client lets the server act as it; -1 when that cannot be read.
int ImpersonationLevelOf(HANDLE pipe)
{
    if (!::ImpersonateNamedPipeClient(pipe))
        return -1;
    daxlib::unique_handle token;
    const bool opened = ::OpenThreadToken(::GetCurrentThread(), TOKEN_QUERY, TRUE, token.put()) != FALSE;
    ::RevertToSelf();
    SECURITY_IMPERSONATION_LEVEL level{};
    DWORD size = 0;
    if (!opened || !::GetTokenInformation(token.get(), TokenImpersonationLevel, &level, sizeof level, &size))
        return -1;
    return static_cast<int>(level);
}

// The reason of the close packet the client reads next, notifications skipped; kNoClose when the
// pipe ends or stays silent without one.
uint32_t CloseReasonOf(CStatusClient& client, size_t* notifications = nullptr)
{
    for (;;)
    {
        Packet packet;
        if (client.ReadRaw(packet, kLimitMs) != Status::Ok)
            return kNoClose;
        if (packet.header.type == kClose)
            return DecodeClose(packet.payload.data(), packet.payload.size()).value_or(kNoClose);
        if (notifications && packet.header.type == kNotification)
            ++*notifications;
    }
}

class StatusServerTest : public ::testing::Test
{
protected:
    void TearDown() override
    {
        if (m_server)
            m_server->Stop();
    }

    void Start(const StatusApiSettings& settings = {})
    {
        m_server = std::make_unique<CStatusServer>(m_log, m_name);
        m_server->SetSettings(settings);
        m_server->SetSessionList(
            [this]
            {
                std::lock_guard lock(m_mutex);
                return m_open;
            });
        m_server->SetSessionResolver([this](uint32_t, uint32_t) { return m_nextSession.load(); });
        m_server->SetPeerInspector(
            [this](HANDLE pipe, PeerIdentity& identity)
            {
                m_impersonationLevel = ImpersonationLevelOf(pipe);
                const bool read = InspectPipeClient(pipe, identity);
                identity.administrator = m_administrator.load();
                return read;
            });
        ASSERT_EQ(1, m_server->Start());
    }

    // The next client counts in `session`; its hello, unless given, is this process's own in it.
    std::unique_ptr<CStatusClient> Connect(uint32_t session, const std::vector<uint8_t>* firstBytes = nullptr)
    {
        m_nextSession = session;
        auto client = std::make_unique<CStatusClient>(m_name);
        if (client->Open(kLimitMs) != Status::Ok)
            return nullptr;
        Hello hello;
        OwnHello(hello);
        hello.sessionId = session;
        if (client->Write(firstBytes ? *firstBytes : EncodeHello(hello), kLimitMs) != Status::Ok)
            return nullptr;
        return client;
    }
    std::unique_ptr<CStatusClient> Welcomed(uint32_t session, Welcome* welcome = nullptr)
    {
        auto client = Connect(session);
        Packet packet;
        if (!client || client->ReadRaw(packet, kLimitMs) != Status::Ok || packet.header.type != kWelcome)
            return nullptr;
        if (welcome)
            *welcome = DecodeWelcome(packet.payload.data(), packet.payload.size()).value_or(Welcome{});
        return client;
    }
    Answer Ask(CStatusClient& client, uint32_t type, uint32_t scope)
    {
        Answer answer;
        answer.result = kNoClose;
        EXPECT_EQ(Status::Ok, client.Ask(type, scope, answer, kLimitMs));
        return answer;
    }
    // A subscriber of session 1 that has read nothing while 300 changes came, far more than the
    // pipe's buffer and its queue hold.
    std::unique_ptr<CStatusClient> FloodedSubscriber(const StatusApiSettings& settings)
    {
        Start(settings);
        OpenSessions({1});
        auto client = Welcomed(1);
        if (!client || Ask(*client, kSubscribe, kOwnSession).result != kOk)
            return nullptr;
        for (int i = 0; i < 300; ++i)
            m_server->OnStatusChanged(
                Record(i % 2 ? eCvUrlApiEvent_RdpConnected : eCvUrlApiEvent_RdpConnectionBroken), 1);
        return client;
    }
    void OpenSessions(std::vector<uint32_t> sessions)
    {
        std::lock_guard lock(m_mutex);
        m_open = std::move(sessions);
    }

    std::shared_ptr<testsupport::CapturingLogger> m_log = std::make_shared<testsupport::CapturingLogger>(3);
    const std::wstring m_name = testsupport::UniqueName(L"velomar-status");
    std::unique_ptr<CStatusServer> m_server;
    std::atomic<uint32_t> m_nextSession{1};
    std::atomic<bool> m_administrator{false};
    std::atomic<int> m_impersonationLevel{-1};
    std::mutex m_mutex;
    std::vector<uint32_t> m_open;
};

} // namespace

// Wine ignores a client's quality of service and always reports impersonation, so this runs on
// Windows only.
TEST_F(StatusServerTest, StatusClientLetsTheServiceIdentifyButNeverImpersonateIt)
{
    if (::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "wine_get_version"))
        GTEST_SKIP() << "Wine does not keep the client's impersonation level";
    Start();
    OpenSessions({1});
    ASSERT_TRUE(Welcomed(1));
    EXPECT_EQ(static_cast<int>(SecurityIdentification), m_impersonationLevel.load());
}

TEST_F(StatusServerTest, ClientSeesItsOwnSessionAndNothingOfAnother)
{
    Start();
    OpenSessions({1, 2});
    m_server->OnStatusChanged(Record(eCvUrlApiEvent_RdpConnected), 1);
    auto inTwo = Welcomed(2);
    auto inThree = Welcomed(3);
    ASSERT_TRUE(inTwo && inThree);

    const Answer own = Ask(*inTwo, kGetStatus, kOwnSession);
    ASSERT_EQ(kOk, own.result);
    ASSERT_EQ(1u, own.entries.size());
    EXPECT_EQ(2u, own.entries[0].sessionId);
    EXPECT_EQ(eCvUrlApiEvent_RdpNotConnected, own.entries[0].record.dwState)
        << "no change yet: a new handler's state";

    const Answer none = Ask(*inThree, kGetStatus, kOwnSession);
    EXPECT_EQ(kNoChannel, none.result);
    EXPECT_TRUE(none.entries.empty());
    const Answer all = Ask(*inThree, kGetStatus, kAllSessions);
    EXPECT_EQ(kDenied, all.result);
    EXPECT_TRUE(all.entries.empty());

    ASSERT_EQ(kOk, Ask(*inTwo, kSubscribe, kOwnSession).result);
    m_server->OnStatusChanged(Record(eCvUrlApiEvent_RdpConnectionBroken), 1);
    m_server->OnStatusChanged(Record(eCvUrlApiEvent_RdpConnected), 2);
    Notification notification;
    ASSERT_EQ(Status::Ok, inTwo->NextNotification(notification, kLimitMs));
    EXPECT_EQ(2u, notification.entry.sessionId) << "session 1's change never reaches session 2";
    EXPECT_EQ(eCvUrlApiEvent_RdpConnected, notification.entry.record.dwState);
}

TEST_F(StatusServerTest, AdministratorSeesEverySessionAndItsChanges)
{
    m_administrator = true;
    Start();
    OpenSessions({1, 2});
    m_server->OnStatusChanged(Record(eCvUrlApiEvent_RdpInvalidProtocol), 2);
    Welcome welcome;
    auto admin = Welcomed(3, &welcome);
    ASSERT_TRUE(admin);
    EXPECT_EQ(3u, welcome.sessionId);
    EXPECT_EQ(kMayAskAllSessions, welcome.flags);

    const Answer all = Ask(*admin, kSubscribe, kAllSessions);
    ASSERT_EQ(kOk, all.result);
    ASSERT_EQ(2u, all.entries.size());
    EXPECT_EQ(eCvUrlApiEvent_RdpInvalidProtocol, all.entries[1].record.dwState);
    EXPECT_EQ(kAlreadySubscribed, Ask(*admin, kSubscribe, kOwnSession).result);
    EXPECT_EQ(kBadScope, Ask(*admin, kGetStatus, 7).result);

    m_server->OnStatusChanged(Record(eCvUrlApiEvent_RdpConnected), 1);
    Notification notification;
    ASSERT_EQ(Status::Ok, admin->NextNotification(notification, kLimitMs));
    EXPECT_EQ(1u, notification.entry.sessionId);
    EXPECT_EQ(1u, notification.requestId) << "the Subscribe's request id";
}

struct HostileCase
{
    const char* name;
    std::vector<uint8_t> (*firstBytes)();
    uint32_t reason;
};

class HostileHelloTest : public StatusServerTest, public ::testing::WithParamInterface<HostileCase>
{
};

std::vector<uint8_t> LyingHello(uint32_t Hello::*field, uint32_t delta)
{
    Hello hello;
    OwnHello(hello);
    hello.sessionId = 1;
    hello.*field += delta;
    return EncodeHello(hello);
}

const HostileCase kHostileCases[] = {
    {"LyingSession", [] { return LyingHello(&Hello::sessionId, 1); }, kSessionMismatch},
    {"LyingProcess", [] { return LyingHello(&Hello::processId, 4); }, kProcessMismatch},
    {"WrongVersion", [] { return LyingHello(&Hello::version, 1); }, kVersionUnsupported},
    {"LyingUser",
     []
     {
         Hello hello;
         OwnHello(hello);
         hello.sessionId = 1;
         hello.sid = {1, 1, 0, 0, 0, 0, 0, 5, 18, 0, 0, 0}; // LocalSystem, which the test is not
         return EncodeHello(hello);
     },
     kUserMismatch},
    {"NotAHello",
     [] {
         return EncodeRequest(kGetStatus, {1, kOwnSession});
     },
     kHelloMalformed},
    {"BrokenSid",
     []
     {
         auto bytes = LyingHello(&Hello::sessionId, 0);
         bytes[8 + 16] = 2;
         return bytes;
     },
     kHelloMalformed},
    {"HugeLength", [] { return std::vector<uint8_t>{kHello, 0, 0, 0, 0xF0, 0xFF, 0xFF, 0x7F}; },
     kPacketTooLarge},
    {"Silence", [] { return std::vector<uint8_t>(); }, kHelloTimeout},
    {"HalfAHello", [] { return std::vector<uint8_t>{kHello, 0, 0, 0, 30, 0, 0, 0, 1}; }, kHelloTimeout},
};

TEST_P(HostileHelloTest, GetsItsCloseReasonAndLeavesNothingBehind)
{
    StatusApiSettings settings;
    settings.helloTimeoutMs = 300;
    Start(settings);
    const auto bytes = GetParam().firstBytes();
    auto client = Connect(1, &bytes);
    ASSERT_TRUE(client);
    EXPECT_EQ(GetParam().reason, CloseReasonOf(*client)) << CloseReasonWord(GetParam().reason);
    EXPECT_TRUE(Eventually([&] { return m_server->ConnectionCount() == 0; }));
}

INSTANTIATE_TEST_SUITE_P(FirstPackets, HostileHelloTest, ::testing::ValuesIn(kHostileCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(StatusServerTest, PacketsAfterTheHelloThatDoNotFitCloseTheConnection)
{
    Start();
    const std::pair<std::vector<uint8_t>, uint32_t> cases[] = {
        {{0x41, 0x41, 0x41, 0x41, 0, 0, 0, 0}, kPacketMalformed}, // an unknown type
        {{kGetStatus, 0, 0, 0, 7, 0, 0, 0, 1, 2, 3, 4, 5, 6, 7},
         kPacketMalformed},                                   // a request one byte short
        {{kSubscribe, 0, 0, 0, 0, 0, 0, 1}, kPacketTooLarge}, // 16 MiB announced
    };
    for (const auto& [bytes, expected] : cases)
    {
        auto client = Welcomed(1);
        ASSERT_TRUE(client);
        ASSERT_EQ(Status::Ok, client->Write(bytes, kLimitMs));
        EXPECT_EQ(expected, CloseReasonOf(*client));
    }
}

TEST_F(StatusServerTest, SubscriberThatDoesNotReadIsDroppedWithItsReasonAndNeverStallsTheListener)
{
    StatusApiSettings settings;
    settings.queueDepth = 4;
    auto client = FloodedSubscriber(settings);
    ASSERT_TRUE(client);
    size_t notifications = 0;
    EXPECT_EQ(kReaderTooSlow, CloseReasonOf(*client, &notifications));
    EXPECT_LT(notifications, 300u) << "what did not fit was dropped, not queued";
    EXPECT_TRUE(Eventually([&] { return m_server->ConnectionCount() == 0; }));
}

TEST_F(StatusServerTest, SubscriberThatNeverReadsHoldsNoThreadPastTheDrainTime)
{
    StatusApiSettings settings;
    settings.queueDepth = 4;
    settings.drainTimeoutMs = 300;
    auto client = FloodedSubscriber(settings);
    ASSERT_TRUE(client);
    EXPECT_TRUE(Eventually([&] { return m_server->ConnectionCount() == 0; }))
        << "the client is still open, reading nothing";
}

TEST_F(StatusServerTest, ClientThatAsksWithoutReadingHoldsNoThreadPastTheAnswerTime)
{
    StatusApiSettings settings;
    settings.answerTimeoutMs = 300;
    Start(settings);
    auto client = Welcomed(1);
    ASSERT_TRUE(client);
    // Far more answers than the pipe's buffer holds; the service stops reading behind the first
    // one it cannot write, so the later requests may not even be taken.
    const auto request = EncodeRequest(kGetStatus, Request{});
    for (int i = 0; i < 1000 && client->Write(request, 1000) == Status::Ok; ++i)
    {
    }
    EXPECT_TRUE(Eventually([&] { return m_server->ConnectionCount() == 0; }))
        << "the client is still open, reading nothing";
    EXPECT_TRUE(m_log->WaitFor(L"it took no answer for 300 ms", std::chrono::milliseconds(kLimitMs)));
}

TEST_F(StatusServerTest, ConnectionsOverEitherBoundAreRefused)
{
    StatusApiSettings settings;
    settings.maxConnectionsPerSession = 2;
    settings.maxConnections = 3;
    Start(settings);
    auto first = Welcomed(1);
    auto second = Welcomed(1);
    ASSERT_TRUE(first && second);
    const std::vector<uint8_t> nothing; // a refused client may find the pipe closed before it writes
    auto third = Connect(1, &nothing);
    ASSERT_TRUE(third);
    EXPECT_EQ(kTooManyConnections, CloseReasonOf(*third)) << "over the session's bound";
    auto other = Welcomed(2);
    ASSERT_TRUE(other);
    auto fourth = Connect(3, &nothing);
    ASSERT_TRUE(fourth);
    EXPECT_EQ(kTooManyConnections, CloseReasonOf(*fourth)) << "over the total bound";
    auto fifth = Connect(3, &nothing);
    ASSERT_TRUE(fifth);
    EXPECT_EQ(kTooManyConnections, CloseReasonOf(*fifth));
    EXPECT_EQ(2u, m_log->Count(L"refused, and further ones")) << "one warning per burst, and there were two";
}

// The system could not tell the clients' sessions (played through the resolver): they are refused,
// counted in no session, with one error for the burst; a known session is served after them.
TEST_F(StatusServerTest, ClientsOfUnknownSessionAreRefusedWithOneErrorPerBurst)
{
    Start();
    const std::vector<uint8_t> nothing;
    for (int i = 0; i < 2; ++i)
    {
        auto unknown = Connect(daxlib::kUnknownSession, &nothing);
        ASSERT_TRUE(unknown);
        EXPECT_EQ(kServiceError, CloseReasonOf(*unknown));
    }
    EXPECT_EQ(1u, m_log->Count(L"cannot be determined"));
    EXPECT_TRUE(Welcomed(1));
}

TEST_F(StatusServerTest, StopSaysGoodbyeToEveryClientAndEndsItsThreads)
{
    const long long threadsBefore = testsupport::CountProcessThreads();
    Start();
    auto first = Welcomed(1);
    auto second = Connect(2); // still in its hello
    ASSERT_TRUE(first && second);
    ASSERT_TRUE(Eventually([&] { return m_server->ConnectionCount() == 2; }));
    m_server->Stop();
    EXPECT_EQ(kServiceStopping, CloseReasonOf(*first));
    EXPECT_EQ(kServiceStopping, CloseReasonOf(*second));
    EXPECT_TRUE(Eventually([&] { return testsupport::CountProcessThreads() <= threadsBefore; }));
}

// A name another process holds is not served; the administrator hears of it once, and once
// more when the service has the name again.
TEST_F(StatusServerTest, TakenNameIsReportedOnceAndItsReturnToo)
{
    testsupport::EventRecorder events;
    std::atomic<int> refusals{3};
    m_server = std::make_unique<CStatusServer>(m_log, m_name);
    m_server->SetInstanceCreator(
        [&](const wchar_t* name, DWORD openMode, DWORD pipeMode, DWORD instances, DWORD out, DWORD in,
            DWORD timeout, SECURITY_ATTRIBUTES* attributes) -> HANDLE
        {
            if (refusals > 0 && refusals-- > 0)
            {
                ::SetLastError(ERROR_ACCESS_DENIED);
                return INVALID_HANDLE_VALUE;
            }
            return ::CreateNamedPipeW(name, openMode, pipeMode, instances, out, in, timeout, attributes);
        });
    m_server->Start();
    ASSERT_TRUE(Eventually([&] { return events.Of(events::kPipeNameFreed).size() == 1; }));
    const auto taken = events.Of(events::kPipeNameTaken);
    ASSERT_EQ(1u, taken.size()) << "one event per outage, not per retry";
    EXPECT_EQ(events::Level::Warning, taken[0].level);
    ASSERT_EQ(3u, taken[0].strings.size());
    EXPECT_EQ(daxlib::PipePath(m_name), taken[0].strings[0]);
    EXPECT_NE(std::wstring::npos, taken[0].strings[1].find(L"status pipe"));
    m_server->Stop();
}

TEST_F(StatusServerTest, PipeIsLocalOnlyWithTheAgentPipesAccess)
{
    std::vector<std::pair<DWORD, DWORD>> modes;
    m_server = std::make_unique<CStatusServer>(m_log, m_name);
    m_server->SetInstanceCreator(
        [&](const wchar_t* name, DWORD openMode, DWORD pipeMode, DWORD instances, DWORD out, DWORD in,
            DWORD timeout, SECURITY_ATTRIBUTES* attributes)
        {
            modes.emplace_back(openMode, pipeMode);
            return ::CreateNamedPipeW(name, openMode, pipeMode, instances, out, in, timeout, attributes);
        });
    ASSERT_EQ(1, m_server->Start());
    daxlib::unique_hfile client(testsupport::OpenClient(daxlib::PipePath(m_name)));
    ASSERT_TRUE(client);
    m_server->Stop();
    ASSERT_GE(modes.size(), 2u);
    EXPECT_NE(0u, modes[0].first & FILE_FLAG_FIRST_PIPE_INSTANCE);
    EXPECT_EQ(0u, modes[1].first & FILE_FLAG_FIRST_PIPE_INSTANCE);
    for (const auto& [openMode, pipeMode] : modes)
        EXPECT_NE(0u, pipeMode & PIPE_REJECT_REMOTE_CLIENTS);

    // The same descriptor as the agent pipe's, read back from the pipe itself.
    const auto sddlOf = [](HANDLE pipe)
    {
        PSECURITY_DESCRIPTOR descriptor = nullptr;
        constexpr SECURITY_INFORMATION what = DACL_SECURITY_INFORMATION | LABEL_SECURITY_INFORMATION;
        std::wstring sddl;
        LPWSTR text = nullptr;
        if (::GetSecurityInfo(pipe, SE_KERNEL_OBJECT, what, nullptr, nullptr, nullptr, nullptr,
                              &descriptor) == ERROR_SUCCESS &&
            ::ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1, what, &text,
                                                                   nullptr))
            sddl = text;
        ::LocalFree(text);
        ::LocalFree(descriptor);
        return sddl;
    };
    CDaxSecattrLocalLI agentPipe;
    daxlib::unique_hfile reference(::CreateNamedPipeW((daxlib::PipePath(m_name) + L"-ref").c_str(),
                                                      PIPE_ACCESS_DUPLEX, 0, 1, 0, 0, 0, agentPipe.Get()));
    const std::wstring expected = sddlOf(reference.get());
    EXPECT_FALSE(expected.empty());
    EXPECT_EQ(expected, sddlOf(client.get()));
}
