// The virtual-channel stream over WTS calls that behave as WinPR's do (a queue of messages; a
// read takes what fits and leaves the rest; "no data" when empty), the readable-wait seam being a
// condition.
#include "virt/rdp/VirtualChannelStream.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <deque>
#include <future>
#include <mutex>
#include <string>

namespace
{

using namespace std::chrono_literals;

const HANDLE kChannel = reinterpret_cast<HANDLE>(0x5157);

struct FakeChannel
{
    std::mutex lock;
    std::condition_variable arrived;
    std::deque<std::string> messages;
    DWORD readError = 0; // reads fail with it
    bool broken = false; // the wait says so
    ULONG writeLimit = ~0u;
    bool writeFails = false;
    std::string written;
    std::string opened; // how the channel was opened
    int closes = 0;

    void Push(std::string message)
    {
        std::lock_guard guard(lock);
        messages.push_back(std::move(message));
        arrived.notify_all();
    }
} * g_fake;

HANDLE Opened(const std::string& how)
{
    g_fake->opened = how;
    ::SetLastError(ERROR_NOT_FOUND);
    return how.find("refused") == std::string::npos ? kChannel : nullptr;
}
HANDLE WINAPI FakeOpen(HANDLE server, DWORD session, LPSTR name)
{
    return Opened(std::to_string(reinterpret_cast<uintptr_t>(server)) + "/" + std::to_string(session) + "/" +
                  name);
}
HANDLE WINAPI FakeOpenEx(DWORD session, LPSTR name, DWORD flags)
{
    return Opened(std::to_string(session) + "/" + name + "/" + std::to_string(flags));
}
BOOL WINAPI FakeRead(HANDLE, ULONG, PCHAR buffer, ULONG size, PULONG read)
{
    std::lock_guard guard(g_fake->lock);
    *read = 0;
    if (g_fake->readError || g_fake->messages.empty())
    {
        ::SetLastError(g_fake->readError ? g_fake->readError : ERROR_NO_DATA);
        return FALSE;
    }
    std::string& first = g_fake->messages.front();
    *read = static_cast<ULONG>(first.copy(buffer, size));
    first.erase(0, *read);
    if (first.empty())
        g_fake->messages.pop_front();
    return TRUE;
}
BOOL WINAPI FakeWrite(HANDLE, PCHAR buffer, ULONG length, PULONG written)
{
    *written = g_fake->writeFails ? 0 : std::min(length, g_fake->writeLimit);
    g_fake->written.append(buffer, *written);
    ::SetLastError(ERROR_GEN_FAILURE);
    return !g_fake->writeFails;
}
BOOL WINAPI FakeClose(HANDLE)
{
    ++g_fake->closes;
    return TRUE;
}
const WtsChannelCalls kFakeCalls{&FakeOpen, &FakeOpenEx, &FakeRead, &FakeWrite, &FakeClose};

class ChannelStreamTest : public testing::Test
{
protected:
    ChannelStreamTest() { g_fake = &fake; }

    std::unique_ptr<CVirtualChannelStream> Open(const char* name = "velomar")
    {
        return CVirtualChannelStream::OpenEx(
            7, name,
            [this](HANDLE, DWORD ms)
            {
                std::unique_lock guard(fake.lock);
                if (!fake.arrived.wait_for(guard, std::chrono::milliseconds(ms),
                                           [this] { return fake.broken || !fake.messages.empty(); }))
                    return ChannelReadiness::TimedOut;
                return fake.broken ? ChannelReadiness::Broken : ChannelReadiness::Readable;
            },
            kFakeCalls);
    }
    // The bytes, or the error as text.
    static std::string Read(CVirtualChannelStream& stream, size_t size, DWORD timeoutMs = 2000)
    {
        std::string bytes(size, '\0');
        DWORD count = static_cast<DWORD>(size);
        return stream.Read(bytes.data(), &count, timeoutMs) ? bytes
                                                            : "error " + std::to_string(::GetLastError());
    }
    static std::string Write(CVirtualChannelStream& stream, const std::string& bytes)
    {
        DWORD count = static_cast<DWORD>(bytes.size());
        const bool ok = stream.Write(bytes.data(), &count);
        return (ok ? "wrote " : "error " + std::to_string(::GetLastError()) + " after ") +
               std::to_string(count);
    }

    FakeChannel fake;
    const std::string kNotConnected = "error " + std::to_string(ERROR_NOT_CONNECTED);
};

TEST_F(ChannelStreamTest, ServesExactReadsWhateverTheMessageBoundaries)
{
    auto stream = Open();
    const std::string big(3 * CVirtualChannelStream::kReadChunk + 17, 'x');
    for (const std::string& message : {std::string("abc"), std::string("d"), std::string("efghij"), big})
        fake.Push(message);
    EXPECT_EQ(Read(*stream, 2), "ab");
    EXPECT_EQ(Read(*stream, 3), "cde");
    EXPECT_EQ(Read(*stream, 5), "fghij");
    EXPECT_EQ(Read(*stream, big.size()), big);
}

TEST_F(ChannelStreamTest, AReadWaitsForLateBytesAndATimedOutOneTakesNothing)
{
    auto stream = Open();
    fake.Push("ab");
    EXPECT_EQ(Read(*stream, 4, 60), "error " + std::to_string(WAIT_TIMEOUT));
    auto reading = std::async(std::launch::async, [&] { return Read(*stream, 6, INFINITE); });
    std::this_thread::sleep_for(50ms);
    fake.Push("cd");
    fake.Push("ef");
    ASSERT_EQ(reading.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(reading.get(), "abcdef");
}

TEST_F(ChannelStreamTest, ABrokenConnectionFailsEveryLaterCall)
{
    auto stream = Open();
    fake.broken = true;
    EXPECT_EQ(Read(*stream, 1, INFINITE), kNotConnected);
    EXPECT_EQ(Write(*stream, "x"), kNotConnected + " after 0");
    EXPECT_EQ(stream->BrokenBy(), static_cast<DWORD>(ERROR_NOT_CONNECTED));
    EXPECT_TRUE(fake.written.empty());

    auto failing = Open();
    fake.readError = ERROR_BROKEN_PIPE; // a failed read call breaks it too, and is kept
    EXPECT_EQ(Read(*failing, 1, INFINITE), kNotConnected);
    EXPECT_EQ(failing->BrokenBy(), static_cast<DWORD>(ERROR_BROKEN_PIPE));
}

TEST_F(ChannelStreamTest, BreakFromAnotherThreadEndsAWaitingRead)
{
    auto stream = Open();
    auto reading = std::async(std::launch::async, [&] { return Read(*stream, 1, INFINITE); });
    std::this_thread::sleep_for(50ms);
    stream->Break();
    ASSERT_EQ(reading.wait_for(std::chrono::milliseconds(5 * CVirtualChannelStream::kWaitSliceMs)),
              std::future_status::ready);
    EXPECT_EQ(reading.get(), kNotConnected);
}

TEST_F(ChannelStreamTest, WritesEveryByteOrBreaks)
{
    auto stream = Open();
    fake.writeLimit = 5;
    EXPECT_EQ(Write(*stream, "0123456789abcdefghijklm"), "wrote 23");
    EXPECT_EQ(fake.written, "0123456789abcdefghijklm");
    fake.writeFails = true;
    EXPECT_EQ(Write(*stream, "abc"), kNotConnected + " after 0");
    EXPECT_EQ(stream->BrokenBy(), static_cast<DWORD>(ERROR_GEN_FAILURE));
}

TEST_F(ChannelStreamTest, OpensAStaticChannelOfTheSessionAndClosesItOnce)
{
    auto stream = Open();
    EXPECT_EQ(fake.opened, "7/velomar/0");
    stream.reset();
    EXPECT_EQ(fake.closes, 1);
    auto server = CVirtualChannelStream::Open(reinterpret_cast<HANDLE>(42), 3, "velomar", {}, kFakeCalls);
    EXPECT_EQ(fake.opened, "42/3/velomar");
}

TEST_F(ChannelStreamTest, AChannelThatCannotBeOpenedGivesNoStream)
{
    EXPECT_FALSE(Open("refused"));
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_NOT_FOUND));
    fake.opened.clear();
    EXPECT_FALSE(Open("velomard")) << "longer than a static channel's name";
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(fake.opened, "");
    EXPECT_EQ(fake.closes, 0);
}

} // namespace
