#include "common/BaseItem.h"
#include "common/FifoLock.h"
#include "common/ProcessSecurity.h"
#include "common/UniqueHandle.h"
#include "common/WideFormat.h"
#include "tests/common/CapturingLogger.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <vector>

using testsupport::CapturingLogger;

TEST(UniqueHandle, ResetClosesAndKeepsLastError)
{
    daxlib::unique_handle event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    ASSERT_TRUE(event);
    HANDLE raw = event.get();
    ::SetLastError(ERROR_INVALID_DATA);
    event.reset();
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_DATA), ::GetLastError());
    EXPECT_FALSE(event);
    // The handle value is closed: using it fails.
    EXPECT_FALSE(::SetEvent(raw));
}

// A library planted in the current folder (where a user's document may lie) is not found by its
// bare name once the search is restricted; by full path it still loads.
TEST(LibrarySearch, PlantedLibraryInTheCurrentFolderIsNotLoadedByName)
{
    testsupport::TempDir dir(L"velomar-plant");
    wchar_t system[MAX_PATH] = {};
    ASSERT_GT(::GetSystemDirectoryW(system, MAX_PATH), 0u);
    const std::wstring planted = dir.File(L"velomarplanted.dll");
    ASSERT_TRUE(::CopyFileW((std::wstring(system) + L"\\version.dll").c_str(), planted.c_str(), FALSE));
    wchar_t previous[MAX_PATH] = {};
    ::GetCurrentDirectoryW(MAX_PATH, previous);
    ASSERT_TRUE(::SetCurrentDirectoryW(dir.Path().c_str()));
    ASSERT_TRUE(daxlib::RestrictLibrarySearch());
    daxlib::unique_hmodule byName(::LoadLibraryW(L"velomarplanted.dll"));
    ::SetCurrentDirectoryW(previous);
    EXPECT_FALSE(byName);
    daxlib::unique_hmodule byPath(daxlib::LoadLibraryByFullPath(planted));
    EXPECT_TRUE(byPath);
}

TEST(WideFormat, CutsLongTextAndKeepsWindowsConventions)
{
    std::wstring longText(5000, L'x');
    wchar_t buffer[daxlib::kFormatCapacity];
    const int n = daxlib::FormatTruncated(buffer, daxlib::kFormatCapacity, L"%s", longText.c_str());
    EXPECT_EQ(4095, n);
    EXPECT_EQ(4095u, wcslen(buffer));
    EXPECT_EQ(L"w=wide n=narrow 10400 -5",
              daxlib::Format(L"w=%s n=%S %X %I64d", L"wide", "narrow", 0x10400, -5LL));
}

namespace
{
class TaggedItem : public IBaseItem
{
public:
    using IBaseItem::IBaseItem;
    std::wstring GetLogTag() const override { return L"[object: tag]"; }
    int Start() override { return 1; }
    int Stop() override { return 1; }
};
} // namespace

TEST(BaseLogger, WritesOriginTagAndMessageAndKeepsLastError)
{
    auto logger = std::make_shared<CapturingLogger>(2);
    TaggedItem item(logger);
    ::SetLastError(ERROR_INVALID_PARAMETER);
    item.Log(2, L"CPipeServer::Start: (51)", L"waiting for %s...", L"connections");
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_PARAMETER), ::GetLastError());
    item.Log(3, L"X::Y: (1)", L"filtered out");
    const auto records = logger->Records();
    ASSERT_EQ(1u, records.size());
    EXPECT_EQ(L"CPipeServer::Start: (51): [object: tag]: waiting for connections...", records[0].text);

    TaggedItem silent(nullptr);
    silent.Log(0, L"X::Y: (1)", L"nobody listens"); // must not crash
}

TEST(LeakCounters, SeeHandlesAndThreadsComeAndGo)
{
    const long long handlesBefore = testsupport::CountProcessHandles();
    ASSERT_GT(handlesBefore, 0) << "the process's handles could not be counted";
    {
        daxlib::unique_handle a(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
        daxlib::unique_handle b(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
        EXPECT_EQ(handlesBefore + 2, testsupport::CountProcessHandles());
    }
    EXPECT_EQ(handlesBefore, testsupport::CountProcessHandles());

    const long long threadsBefore = testsupport::CountProcessThreads();
    daxlib::unique_handle release(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    std::thread worker([&] { ::WaitForSingleObject(release.get(), INFINITE); });
    EXPECT_EQ(threadsBefore + 1, testsupport::CountProcessThreads());
    ::SetEvent(release.get());
    worker.join();
}

// Threads that queue one after another get the lock in that order, none overtaken.
TEST(FifoLock, GrantsInArrivalOrder)
{
    daxlib::fifo_lock lock;
    std::vector<int> order;
    std::vector<std::thread> threads;
    lock.lock();
    for (int i = 0; i < 8; ++i)
    {
        threads.emplace_back(
            [&, i]
            {
                std::lock_guard turn(lock);
                order.push_back(i);
            });
        while (lock.Waiting() != static_cast<size_t>(i + 1))
            std::this_thread::yield();
    }
    lock.unlock();
    for (auto& t : threads)
        t.join();
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7}), order);
}
