// The virtual-channel stream over WTS calls that behave as WinPR's do (message queue, a read
// takes at most what the buffer holds and leaves the rest, "no data" when empty), with the
// readable-wait seam played by a condition.
#include "virt/rdp/VirtualChannelStream.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace
{

using namespace std::chrono_literals;

const HANDLE kChannel = reinterpret_cast<HANDLE>(0x5157);
const HANDLE kServer = reinterpret_cast<HANDLE>(0x7e57);

struct FakeChannel
{
    std::mutex lock;
    std::condition_variable arrived;
    std::deque<std::string> messages;
    size_t offset = 0;   // taken from the first message
    DWORD readError = 0; // reads fail with it when set
    bool broken = false; // the wait says so
    ULONG writeLimit = ~0u;
    bool writeFails = false;
    std::string written;
    bool refuseOpen = false;
    int opens = 0;
    int closes = 0;
    HANDLE server = nullptr;
    DWORD session = 0;
    DWORD flags = 99;
    std::string name;

    void Push(std::string message)
    {
        {
            std::lock_guard guard(lock);
            messages.push_back(std::move(message));
        }
        arrived.notify_all();
    }
    ChannelReadiness Wait(DWORD ms)
    {
        std::unique_lock guard(lock);
        if (!arrived.wait_for(guard, std::chrono::milliseconds(ms),
                              [this] { return broken || !messages.empty(); }))
            return ChannelReadiness::TimedOut;
        return broken ? ChannelReadiness::Broken : ChannelReadiness::Readable;
    }
};

FakeChannel* g_fake = nullptr;

HANDLE Opened(LPSTR name)
{
    ++g_fake->opens;
    g_fake->name = name;
    if (g_fake->refuseOpen)
    {
        ::SetLastError(ERROR_NOT_FOUND);
        return nullptr;
    }
    return kChannel;
}

HANDLE WINAPI FakeOpen(HANDLE server, DWORD session, LPSTR name)
{
    g_fake->server = server;
    g_fake->session = session;
    return Opened(name);
}

HANDLE WINAPI FakeOpenEx(DWORD session, LPSTR name, DWORD flags)
{
    g_fake->session = session;
    g_fake->flags = flags;
    return Opened(name);
}

BOOL WINAPI FakeRead(HANDLE channel, ULONG, PCHAR buffer, ULONG size, PULONG read)
{
    EXPECT_EQ(channel, kChannel);
    std::lock_guard guard(g_fake->lock);
    *read = 0;
    if (g_fake->readError)
    {
        ::SetLastError(g_fake->readError);
        return FALSE;
    }
    if (g_fake->messages.empty())
    {
        ::SetLastError(ERROR_NO_DATA);
        return FALSE;
    }
    const std::string& first = g_fake->messages.front();
    const size_t take = std::min<size_t>(size, first.size() - g_fake->offset);
    std::copy_n(first.begin() + static_cast<std::ptrdiff_t>(g_fake->offset), take, buffer);
    *read = static_cast<ULONG>(take);
    g_fake->offset += take;
    if (g_fake->offset == first.size())
    {
        g_fake->messages.pop_front();
        g_fake->offset = 0;
    }
    return TRUE;
}

BOOL WINAPI FakeWrite(HANDLE, PCHAR buffer, ULONG length, PULONG written)
{
    std::lock_guard guard(g_fake->lock);
    if (g_fake->writeFails)
    {
        ::SetLastError(ERROR_GEN_FAILURE);
        return FALSE;
    }
    const ULONG take = std::min(length, g_fake->writeLimit);
    g_fake->written.append(buffer, take);
    *written = take;
    return TRUE;
}

BOOL WINAPI FakeClose(HANDLE channel)
{
    EXPECT_EQ(channel, kChannel);
    ++g_fake->closes;
    return TRUE;
}

const WtsChannelCalls kFakeCalls{&FakeOpen, &FakeOpenEx, &FakeRead, &FakeWrite, &FakeClose};

class ChannelStreamTest : public testing::Test
{
protected:
    ChannelStreamTest() { g_fake = &fake; }
    ~ChannelStreamTest() override { g_fake = nullptr; }

    std::unique_ptr<CVirtualChannelStream> Open()
    {
        return CVirtualChannelStream::OpenEx(
            7, "velomar", [this](HANDLE, DWORD ms) { return fake.Wait(ms); }, kFakeCalls);
    }
    static std::string ReadExactly(CVirtualChannelStream& stream, DWORD size, DWORD timeoutMs = 2000)
    {
        std::string bytes(size, '\0');
        DWORD count = size;
        EXPECT_TRUE(stream.Read(bytes.data(), &count, timeoutMs)) << "error " << ::GetLastError();
        return bytes;
    }

    FakeChannel fake;
};

TEST_F(ChannelStreamTest, ServesExactReadsAcrossMessageBoundaries)
{
    auto stream = Open();
    ASSERT_TRUE(stream);
    for (const char* message : {"abc", "d", "efghij"})
        fake.Push(message);
    EXPECT_EQ(ReadExactly(*stream, 2), "ab");
    EXPECT_EQ(ReadExactly(*stream, 3), "cde");
    EXPECT_EQ(ReadExactly(*stream, 5), "fghij");
}

TEST_F(ChannelStreamTest, ReadsAMessageLargerThanOneChunkWhole)
{
    auto stream = Open();
    std::string big(3 * CVirtualChannelStream::kReadChunk + 17, '\0');
    for (size_t i = 0; i < big.size(); ++i)
        big[i] = static_cast<char>(i * 7);
    fake.Push(big);
    EXPECT_EQ(ReadExactly(*stream, 5), big.substr(0, 5));
    EXPECT_EQ(ReadExactly(*stream, static_cast<DWORD>(big.size() - 5)), big.substr(5));
}

TEST_F(ChannelStreamTest, WaitsForBytesThatArriveLater)
{
    auto stream = Open();
    auto reading = std::async(std::launch::async, [&] { return ReadExactly(*stream, 4, INFINITE); });
    std::this_thread::sleep_for(50ms);
    fake.Push("ab");
    std::this_thread::sleep_for(20ms);
    fake.Push("cd");
    ASSERT_EQ(reading.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(reading.get(), "abcd");
}

TEST_F(ChannelStreamTest, TimedOutReadTakesNothing)
{
    auto stream = Open();
    fake.Push("ab");
    char bytes[4];
    DWORD count = 4;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(stream->Read(bytes, &count, 60));
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(WAIT_TIMEOUT));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 55ms);
    fake.Push("cd");
    EXPECT_EQ(ReadExactly(*stream, 4), "abcd");
    EXPECT_FALSE(stream->IsBroken());
}

TEST_F(ChannelStreamTest, ABrokenConnectionFailsReadsAndWrites)
{
    auto stream = Open();
    {
        std::lock_guard guard(fake.lock);
        fake.broken = true;
    }
    char byte;
    DWORD count = 1;
    EXPECT_FALSE(stream->Read(&byte, &count, INFINITE));
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_NOT_CONNECTED));
    count = 1;
    EXPECT_FALSE(stream->Write("x", &count));
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_NOT_CONNECTED));
    EXPECT_TRUE(fake.written.empty());
}

TEST_F(ChannelStreamTest, AFailedReadCallBreaksTheStreamAndKeepsItsError)
{
    auto stream = Open();
    fake.readError = ERROR_BROKEN_PIPE;
    char byte;
    DWORD count = 1;
    EXPECT_FALSE(stream->Read(&byte, &count, INFINITE));
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_NOT_CONNECTED));
    EXPECT_TRUE(stream->IsBroken());
    EXPECT_EQ(stream->BrokenBy(), static_cast<DWORD>(ERROR_BROKEN_PIPE));
}

TEST_F(ChannelStreamTest, BreakFromAnotherThreadEndsAWaitingRead)
{
    auto stream = Open();
    auto reading = std::async(std::launch::async,
                              [&]
                              {
                                  char byte;
                                  DWORD count = 1;
                                  const BOOL ok = stream->Read(&byte, &count, INFINITE);
                                  return std::make_pair(ok, ::GetLastError());
                              });
    std::this_thread::sleep_for(50ms);
    stream->Break();
    ASSERT_EQ(reading.wait_for(std::chrono::milliseconds(5 * CVirtualChannelStream::kWaitSliceMs)),
              std::future_status::ready);
    const auto [ok, error] = reading.get();
    EXPECT_FALSE(ok);
    EXPECT_EQ(error, static_cast<DWORD>(ERROR_NOT_CONNECTED));
}

TEST_F(ChannelStreamTest, WritesEveryByteWhenTheChannelTakesPieces)
{
    auto stream = Open();
    fake.writeLimit = 5;
    const std::string message = "0123456789abcdefghijklm";
    DWORD count = static_cast<DWORD>(message.size());
    EXPECT_TRUE(stream->Write(message.data(), &count));
    EXPECT_EQ(count, message.size());
    EXPECT_EQ(fake.written, message);
}

TEST_F(ChannelStreamTest, AFailedWriteBreaksTheStream)
{
    auto stream = Open();
    fake.writeFails = true;
    DWORD count = 3;
    EXPECT_FALSE(stream->Write("abc", &count));
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_NOT_CONNECTED));
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(stream->BrokenBy(), static_cast<DWORD>(ERROR_GEN_FAILURE));
}

TEST_F(ChannelStreamTest, OpenExAsksForAStaticChannelOfTheSessionAndClosesItOnce)
{
    auto stream = Open();
    ASSERT_TRUE(stream);
    EXPECT_EQ(fake.session, 7u);
    EXPECT_EQ(fake.flags, 0u);
    EXPECT_EQ(fake.name, "velomar");
    EXPECT_EQ(stream->Handle(), kChannel);
    stream.reset();
    EXPECT_EQ(fake.closes, 1);
}

TEST_F(ChannelStreamTest, OpenGoesThroughTheServerHandle)
{
    auto stream = CVirtualChannelStream::Open(
        kServer, 3, "velomar", [](HANDLE, DWORD) { return ChannelReadiness::TimedOut; }, kFakeCalls);
    ASSERT_TRUE(stream);
    EXPECT_EQ(fake.server, kServer);
    EXPECT_EQ(fake.session, 3u);
}

TEST_F(ChannelStreamTest, AChannelTheClientNeverJoinedDoesNotOpen)
{
    fake.refuseOpen = true;
    EXPECT_FALSE(Open());
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_NOT_FOUND));
    EXPECT_EQ(fake.closes, 0);
}

TEST_F(ChannelStreamTest, ANameLongerThanAStaticChannelsIsRefusedBeforeAnyCall)
{
    EXPECT_FALSE(CVirtualChannelStream::OpenEx(7, "velomard", {}, kFakeCalls));
    EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(fake.opens, 0);
}

} // namespace
