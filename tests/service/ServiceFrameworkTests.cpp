#include "service/BaseService.h"
#include "service/ServiceConfig.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

#include <functional>
#include <vector>

namespace
{

std::vector<DWORD> g_reported;

BOOL WINAPI RecordStatus(SERVICE_STATUS_HANDLE, LPSERVICE_STATUS status)
{
    EXPECT_EQ(static_cast<DWORD>(SERVICE_WIN32_OWN_PROCESS), status->dwServiceType);
    EXPECT_EQ(
        static_cast<DWORD>(SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN | SERVICE_ACCEPT_SESSIONCHANGE),
        status->dwControlsAccepted);
    EXPECT_EQ(0u, status->dwWin32ExitCode);
    EXPECT_EQ(0u, status->dwCheckPoint);
    EXPECT_EQ(0u, status->dwWaitHint);
    g_reported.push_back(status->dwCurrentState);
    return TRUE;
}

class TestService : public service::base_service<SERVICE_WIN32_OWN_PROCESS>
{
public:
    TestService() : base_service(L"velomar-framework-test", nullptr) {}
    int sessionChanges = 0;
    bool OnSessionChange(DWORD eventType, void* data, void* context) override
    {
        ++sessionChanges;
        return base_service::OnSessionChange(eventType, data, context);
    }
};

class ServiceFramework : public ::testing::Test
{
protected:
    void SetUp() override
    {
        g_reported.clear();
        service::CServiceBase::s_setStatus = &RecordStatus;
    }
    void TearDown() override { service::CServiceBase::s_setStatus = &::SetServiceStatus; }
};

} // namespace

TEST_F(ServiceFramework, ControlsReportOnlyWhatTheFrameworkPromises)
{
    TestService svc;
    EXPECT_EQ(&svc, service::CServiceBase::Instance());

    // Interrogation re-reports nothing, and unknown controls are ignored silently.
    svc.HandleControl(SERVICE_CONTROL_INTERROGATE, 0, nullptr, nullptr);
    for (DWORD control : {6u, 7u, 8u, 9u, 10u, 12u, 13u, 15u, 16u, 128u, 255u})
        svc.HandleControl(control, 0, nullptr, nullptr);
    EXPECT_TRUE(g_reported.empty());

    // Session changes reach their handler without a status report.
    svc.HandleControl(SERVICE_CONTROL_SESSIONCHANGE, 5, nullptr, nullptr);
    EXPECT_EQ(1, svc.sessionChanges);
    EXPECT_TRUE(g_reported.empty());

    // Pause and continue report the pending states only; the base stop reports stop-pending
    // and then stopped.
    svc.HandleControl(SERVICE_CONTROL_PAUSE, 0, nullptr, nullptr);
    svc.HandleControl(SERVICE_CONTROL_CONTINUE, 0, nullptr, nullptr);
    svc.HandleControl(SERVICE_CONTROL_STOP, 0, nullptr, nullptr);
    EXPECT_EQ((std::vector<DWORD>{SERVICE_PAUSE_PENDING, SERVICE_CONTINUE_PENDING, SERVICE_STOP_PENDING,
                                  SERVICE_STOPPED}),
              g_reported);
    EXPECT_EQ(static_cast<DWORD>(SERVICE_STOPPED), svc.CurrentState());
}

TEST(ServiceDispatchTable, GrowsByTenAndStaysTerminated)
{
    service::CServiceDispatchTable& table = service::CServiceDispatchTable::Instance();
    const size_t before = table.Count();
    for (int i = 0; i < 12; ++i)
        table.Append(L"extra", nullptr);
    EXPECT_EQ(before + 12, table.Count());
    // Capacity moves in steps of ten and always leaves room for the terminator.
    EXPECT_EQ(0u, table.Capacity() % 10);
    EXPECT_GE(table.Capacity(), table.Count() + 1);
}

// The log settings under the service's own key: defaults for what is missing, the values when
// present, and the default name again when the stored one does not fit the 256-character buffer.
TEST(ServiceLogSettings, MissingValuesTakeDefaultsAndPresentOnesAreTaken)
{
    const std::wstring name = testsupport::UniqueName(L"velomar-config");
    const testsupport::TempKey key(L"System\\CurrentControlSet\\Services\\" + name, HKEY_LOCAL_MACHINE);
    ASSERT_NE(nullptr, key.Get());
    service::CServiceConfig config(name);
    std::wstring file;
    uint32_t level = 99;
    uint32_t maxSize = 0;
    ASSERT_TRUE(config.ReadServiceLogSettings(file, level, &maxSize));
    EXPECT_EQ(name + L".log", file);
    EXPECT_EQ(0u, level);
    EXPECT_EQ(104857600u, maxSize);

    ASSERT_TRUE(key.SetDword(L"logLevel", 3) && key.SetDword(L"logFileMaxSize", 4096));
    for (const std::wstring& stored : {std::wstring(L"custom.log"), std::wstring(300, L'n')})
    {
        ASSERT_TRUE(key.SetText(L"logFileName", stored));
        ASSERT_TRUE(config.ReadServiceLogSettings(file, level, &maxSize));
        EXPECT_EQ(stored.size() < 256 ? stored : name + L".log", file);
        EXPECT_EQ(3u, level);
        EXPECT_EQ(4096u, maxSize);
    }

    service::CServiceConfig missing(testsupport::UniqueName(L"velomar-absent"));
    EXPECT_FALSE(missing.ReadServiceLogSettings(file, level, nullptr));
}

// The policy key wins, also with a value it cannot use (the default is then the safe reading);
// the product key counts only without a policy value.
TEST(ServiceChannelTransport, PolicyWinsAndAnUnusableValueMeansTheLibrary)
{
    using service::ChannelTransportChoice;
    const std::wstring base = L"Software\\" + testsupport::UniqueName(L"velomar-transport");
    const testsupport::TempKey policy(base + L"\\Policy", HKEY_CURRENT_USER);
    const testsupport::TempKey product(base + L"\\Product", HKEY_CURRENT_USER);
    ASSERT_NE(nullptr, policy.Get());
    ASSERT_NE(nullptr, product.Get());
    const auto read = [&] {
        return service::ReadChannelTransport(HKEY_CURRENT_USER, policy.Path().c_str(),
                                             product.Path().c_str());
    };

    auto setting = read();
    EXPECT_EQ(ChannelTransportChoice::Library, setting.choice);
    EXPECT_EQ(L"default", setting.from);

    ASSERT_TRUE(product.SetText(service::kChannelTransportValue, L"RDP"));
    setting = read();
    EXPECT_EQ(ChannelTransportChoice::Rdp, setting.choice);
    EXPECT_EQ(L"product key", setting.from);
    EXPECT_TRUE(setting.problem.empty());

    ASSERT_TRUE(policy.SetText(service::kChannelTransportValue, L"Auto"));
    EXPECT_EQ(ChannelTransportChoice::Automatic, read().choice);

    for (const auto& [set, problem] :
         {std::pair<std::function<bool()>, std::wstring>{
              [&] { return policy.SetText(service::kChannelTransportValue, L"rdp "); },
              L"\"rdp \" is none of library, rdp, auto"},
          {[&] { return policy.SetDword(service::kChannelTransportValue, 2); }, L"it is not a short text"}})
    {
        ASSERT_TRUE(set());
        setting = read();
        EXPECT_EQ(ChannelTransportChoice::Library, setting.choice);
        EXPECT_EQ(L"policy", setting.from);
        EXPECT_EQ(0u, setting.problem.rfind(problem, 0)) << setting.problem;
    }
}
