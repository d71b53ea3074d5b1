// Binding the channel library: found only at its one path, all 40 exports or refused, and
// the server's start-up when the library is missing or fails to initialise.
#include "tests/common/EventRecorder.h"
#include "tests/virt/VirtTestSupport.h"

using namespace virttest;

class LoaderTest : public ChannelTest
{
};

TEST_F(LoaderTest, AbsentThenIncompleteThenCompleteLibraryWithAFailingSkInit)
{
    testsupport::EventRecorder events;
    ::DeleteFileW(SkApi::LibraryPath().c_str());
    EXPECT_FALSE(SkApiLoadLib());
    EXPECT_EQ(static_cast<DWORD>(ERROR_MOD_NOT_FOUND), ::GetLastError());
    EXPECT_EQ(nullptr, SkApi::LoadedModule());
    EXPECT_FALSE(m_server->Init());
    EXPECT_TRUE(m_logger->Contains(L"CVirtServer::Init: : SkApiLoadLib() failed. LastError=126"));
    EXPECT_FALSE(m_server->IsInitialized());
    EXPECT_EQ(0, m_server->SendURL(1, L"https://example.org/"));

    ASSERT_TRUE(InstallLibrary(VIRT_INCOMPLETE_DLL));
    EXPECT_FALSE(SkApiLoadLib());
    EXPECT_EQ(static_cast<DWORD>(ERROR_PROC_NOT_FOUND), ::GetLastError());
    // The module stays loaded and what resolved stays set.
    EXPECT_NE(nullptr, SkApi::LoadedModule());
    EXPECT_NE(nullptr, SkApi::pfnSkInit);
    // Only the module handle is looked at the second time: kept as it has always been.
    EXPECT_TRUE(SkApiLoadLib());
    SkApiFreeLib();
    EXPECT_EQ(nullptr, SkApi::LoadedModule());
    EXPECT_EQ(nullptr, SkApi::pfnSkInit);
    EXPECT_EQ(nullptr, SkApi::pfnSkReadData);

    // The calls themselves are exercised by every channel test; here only that the table is whole.
    ASSERT_TRUE(InstallLibrary(VIRT_STANDIN_DLL));
    ASSERT_TRUE(SkApiLoadLib());
    for (const char* name : SkApi::ExportNames)
        EXPECT_NE(nullptr, ::GetProcAddress(SkApi::LoadedModule(), name)) << name;
    Export<PFN_StandinFailNextInit>("StandinFailNextInit")(1234);
    EXPECT_FALSE(m_server->Init());
    EXPECT_TRUE(m_logger->Contains(L"CVirtServer::Init: : SkInit() failed. Error=1234"));
    EXPECT_TRUE(m_logger->Contains(L"CVirtServer::Free: : Success"));
    EXPECT_FALSE(m_server->IsInitialized());
    // The next attempt goes through.
    EXPECT_TRUE(m_server->Init());
    EXPECT_TRUE(m_server->Init()); // already initialised
    // One event for the administrator, naming the library and the first failure.
    const auto unavailable = events.Of(events::kChannelLibraryUnavailable);
    ASSERT_EQ(1u, unavailable.size());
    EXPECT_EQ(events::Level::Error, unavailable[0].level);
    EXPECT_EQ((std::vector<std::wstring>{SkApi::LibraryPath(), L"it could not be loaded (error 126)"}),
              unavailable[0].strings);
}
