#include "pipe/PipeRequest.h"
#include "tests/pipe/PipeTestSupport.h"

#include <atomic>
#include <thread>
#include <vector>

using namespace pipe_tests;

namespace
{
std::atomic<int> g_recordsFreed{0};

struct CountedRecord : PIPE_OVERLAPPED
{
    ~CountedRecord() override { ++g_recordsFreed; }
};

class RequestTest : public PoolTest
{
protected:
    std::shared_ptr<CNamedPipeStream> Connected(RawPipePair& pair)
    {
        auto stream = std::make_shared<CNamedPipeStream>(m_log, std::make_shared<daxlib::unique_hfile>(pair.TakeServer()),
                                                         nullptr);
        stream->SetPipeConnectionState(ePipeConnectionState_Connected);
        return stream;
    }
};
} // namespace

TEST_F(RequestTest, BlockingWriteCompletesAndFailsOnVanishedClient)
{
    RawPipePair pair;
    auto stream = Connected(pair);
    CPipeServerRequest request(stream, m_log);
    std::vector<unsigned char> data(10000);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<unsigned char>(i);
    std::vector<unsigned char> got(data.size());
    std::thread reader([&] { ReadAll(pair.client, got.data(), static_cast<DWORD>(got.size())); });
    EXPECT_TRUE(request.Write(data.data(), static_cast<uint32_t>(data.size())));
    reader.join();
    EXPECT_EQ(data, got);
    EXPECT_EQ(0u, request.OutstandingCount());
    EXPECT_TRUE(m_log->Contains(L"Written = 10000 byte(s), \"blocked write\""));

    pair.CloseClient();
    const long long handles = testing_support::CountProcessHandles();
    EXPECT_FALSE(request.Write("x", 1));
    EXPECT_NE(0u, ::GetLastError());
    EXPECT_EQ(0u, request.OutstandingCount());
    EXPECT_EQ(0u, stream->OutstandingWriteCount());
    EXPECT_EQ(handles, testing_support::CountProcessHandles()); // the record's event is closed

    CPipeServerRequest empty(nullptr, m_log);
    EXPECT_FALSE(empty.Write("x", 1));
}

TEST_F(RequestTest, CancelAllWakesBlockedWriter)
{
    RawPipePair pair;
    auto stream = Connected(pair);
    CPipeServerRequest request(stream, m_log);
    std::vector<unsigned char> big(64 * 1024, 1); // more than the pipe holds; the client never reads
    std::atomic<int> result{-1};
    std::thread writer([&] { result = request.Write(big.data(), static_cast<uint32_t>(big.size())); });
    EXPECT_TRUE(Eventually([&] { return stream->OutstandingWriteCount() == 1 && request.OutstandingCount() == 1; }));
    request.CancelAll();
    writer.join();
    EXPECT_EQ(FALSE, result.load());
    EXPECT_TRUE(m_log->Contains(L"Failed to write 65536 byte(s)."));
    EXPECT_EQ(0u, request.OutstandingCount());
    EXPECT_EQ(0u, stream->OutstandingWriteCount());
}

TEST_F(RequestTest, CancelAllDropsQueuedReadsWithoutCallback)
{
    RawPipePair pair;
    auto stream = Connected(pair);
    ASSERT_TRUE(stream->BeginRead());
    CPipeClientRequest request(stream, m_log);
    Counter calls;
    auto onRead = MakeGlobalCallback<void(std::shared_ptr<unsigned char[]>, unsigned long, unsigned long, PIPE_OVERLAPPED*)>(
        [&](std::shared_ptr<unsigned char[]>, unsigned long, unsigned long, PIPE_OVERLAPPED*) { calls.Add(); });
    const int freedBefore = g_recordsFreed;
    ASSERT_TRUE(request.ReadAsync(16, onRead, new CountedRecord()));
    ASSERT_TRUE(Eventually([&] { return stream->PendingReadCount() == 1; }));
    request.CancelAll();
    EXPECT_EQ(0u, stream->PendingReadCount());
    EXPECT_EQ(0u, request.OutstandingCount());
    EXPECT_EQ(freedBefore + 1, g_recordsFreed.load());
    // Data arriving now meets no reader.
    ASSERT_TRUE(WriteAll(pair.client, "0123456789abcdef", 16));
    ASSERT_TRUE(Eventually([&] { return stream->BufferedBytes() == 16; }));
    EXPECT_EQ(0, calls.Get());
}

TEST_F(RequestTest, EndAsyncFreesRecordsNotListed)
{
    CPipeServerRequest request(nullptr, m_log);
    const int before = g_recordsFreed;
    auto* record = new CountedRecord();
    record->m_hEvent = ::CreateEventW(nullptr, FALSE, FALSE, nullptr);
    request.EndAsync(record); // never listed: still freed, event closed
    EXPECT_EQ(before + 1, g_recordsFreed.load());
    EXPECT_TRUE(m_log->Contains(L"delete ov = 0x"));
    EXPECT_FALSE(m_log->Contains(L"remove ov = 0x"));
}
