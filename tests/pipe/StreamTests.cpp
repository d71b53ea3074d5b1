#include "pipe/NamedPipeStream.h"
#include "pipe/PipeRequest.h"
#include "tests/pipe/PipeTestSupport.h"

#include <thread>
#include <vector>

using namespace pipe_tests;

namespace
{
// Counts write callbacks and retires their records.
struct WriteSink
{
    Counter calls;
    unsigned long lastStatus = 0xFFFFFFFF;
    void OnWrite(std::shared_ptr<unsigned char[]>, unsigned long, unsigned long status, PIPE_OVERLAPPED*)
    {
        lastStatus = status;
        calls.Add();
    }
};

class StreamTest : public PoolTest
{
protected:
    std::shared_ptr<CNamedPipeStream> MakeStream(RawPipePair& pair)
    {
        return std::make_shared<CNamedPipeStream>(m_log, std::make_shared<daxlib::unique_hfile>(pair.TakeServer()),
                                                  nullptr);
    }
};
} // namespace

TEST_F(StreamTest, ConnectionStateTableAndReadBeforeConnectFailsWith233)
{
    RawPipePair pair;
    auto stream = MakeStream(pair);
    ::SetLastError(0);
    EXPECT_FALSE(stream->BeginRead());
    EXPECT_EQ(static_cast<DWORD>(ERROR_PIPE_NOT_CONNECTED), ::GetLastError());
    EXPECT_TRUE(m_log->Contains(L"Disconnected - SKIP adding new read operation to thread pool I/O"));

    EXPECT_EQ(ePipeConnectionState_WaitConnection, stream->GetPipeConnectionState());
    EXPECT_EQ(ePipeConnectionState_WaitConnection, stream->SetPipeConnectionState(ePipeConnectionState_Disconnected));
    EXPECT_EQ(ePipeConnectionState_WaitConnection, stream->SetPipeConnectionState(ePipeConnectionState_Connecting));
    EXPECT_EQ(ePipeConnectionState_Connecting, stream->SetPipeConnectionState(ePipeConnectionState_ConnectionError));
    // ConnectionError is final.
    for (uint32_t to : {0u, 1u, 2u, 3u, 4u})
        EXPECT_EQ(ePipeConnectionState_ConnectionError, stream->SetPipeConnectionState(to));
    EXPECT_EQ(ePipeConnectionState_ConnectionError, stream->GetPipeConnectionState());
    EXPECT_TRUE(m_log->Contains(L"CurrentState: 1<Connecting>, NewState: 5<ConnectionError> - status updated"));
    EXPECT_TRUE(m_log->Contains(L"CurrentState: 5<ConnectionError>, NewState: 2<Connected>"));
}

TEST_F(StreamTest, SecondCompletionOfOneRequestIsRefused)
{
    RawPipePair pair;
    auto stream = MakeStream(pair);
    stream->SetPipeConnectionState(ePipeConnectionState_Connected);
    WriteSink sink;
    stream->SetWriteCallback(MakeMemberCallback<void(std::shared_ptr<unsigned char[]>, unsigned long, unsigned long, PIPE_OVERLAPPED*)>(
        &sink, &WriteSink::OnWrite));
    PIPE_OVERLAPPED record;
    const char text[] = "twelve bytes";
    auto request = stream->CreateWriteRequest(text, sizeof(text), &record);
    ASSERT_TRUE(stream->AddWriteRequest(request));
    char got[sizeof(text)];
    ASSERT_TRUE(ReadAll(pair.client, got, sizeof(got)));
    ASSERT_TRUE(sink.calls.WaitAtLeast(1));
    EXPECT_EQ(0u, sink.lastStatus);
    EXPECT_EQ(sizeof(text), record.m_dwBytesTransferred);
    EXPECT_FALSE(stream->CompleteIoRequest(request, 0));
    EXPECT_TRUE(m_log->Contains(L"Re-completion of the request"));
    EXPECT_FALSE(stream->CompleteIoRequest(nullptr, 0));
    EXPECT_EQ(87u, ::GetLastError());
    EXPECT_EQ(1, sink.calls.Get());
}

TEST_F(StreamTest, WriteCompletionAfterDisconnectRunsNoCallback)
{
    RawPipePair pair;
    auto stream = MakeStream(pair);
    stream->SetPipeConnectionState(ePipeConnectionState_Connected);
    WriteSink sink;
    stream->SetWriteCallback(MakeMemberCallback<void(std::shared_ptr<unsigned char[]>, unsigned long, unsigned long, PIPE_OVERLAPPED*)>(
        &sink, &WriteSink::OnWrite));
    // More than the pipe holds, so the write stays pending until the client reads.
    std::vector<unsigned char> big(64 * 1024, 0x5A);
    PIPE_OVERLAPPED record;
    ASSERT_TRUE(stream->AddWriteRequest(stream->CreateWriteRequest(big.data(), static_cast<uint32_t>(big.size()), &record)));
    ASSERT_EQ(1u, stream->OutstandingWriteCount());
    stream->SetPipeConnectionState(ePipeConnectionState_Disconnecting);
    stream->SetPipeConnectionState(ePipeConnectionState_Disconnected);
    std::vector<unsigned char> got(big.size());
    ASSERT_TRUE(ReadAll(pair.client, got.data(), static_cast<DWORD>(got.size())));
    ASSERT_TRUE(m_log->WaitFor(L"EndWrite() failed. IoResult = 0", kLimit));
    EXPECT_EQ(0, sink.calls.Get());
    EXPECT_EQ(0u, stream->OutstandingWriteCount());
}

TEST_F(StreamTest, ReadsDeliverExactCountsInOrderAcrossPages)
{
    RawPipePair pair;
    auto stream = MakeStream(pair);
    stream->SetPipeConnectionState(ePipeConnectionState_Connected);
    ASSERT_TRUE(stream->BeginRead());
    CPipeServerRequest requests(stream, m_log);

    std::vector<unsigned char> sent(7000);
    for (size_t i = 0; i < sent.size(); ++i)
        sent[i] = static_cast<unsigned char>(i * 7 + 1);
    std::thread writer([&] {
        // Small pieces so that reads meet data split across completions and pages.
        for (size_t at = 0; at < sent.size(); at += 333)
            WriteAll(pair.client, sent.data() + at, static_cast<DWORD>(std::min<size_t>(333, sent.size() - at)));
    });
    std::vector<unsigned char> received;
    std::mutex lock;
    Counter done;
    const uint32_t sizes[] = {1, 1023, 1024, 2500, 2452};
    auto onRead = MakeGlobalCallback<void(std::shared_ptr<unsigned char[]>, unsigned long, unsigned long, PIPE_OVERLAPPED*)>(
        [&](std::shared_ptr<unsigned char[]> data, unsigned long bytes, unsigned long status, PIPE_OVERLAPPED* record) {
            {
                std::lock_guard guard(lock);
                if (status == 0)
                    received.insert(received.end(), data.get(), data.get() + bytes);
            }
            requests.EndAsync(record);
            done.Add();
        });
    // One read at a time, as a connection reads header and body.
    for (int i = 0; i < 5; ++i)
    {
        EXPECT_TRUE(requests.ReadAsync(sizes[i], onRead, new PIPE_OVERLAPPED()));
        if (!done.WaitAtLeast(i + 1))
        {
            ADD_FAILURE() << "read " << i << " never completed";
            break;
        }
    }
    writer.join();
    EXPECT_EQ(sent, received);
    EXPECT_EQ(0u, requests.OutstandingCount());

    // After the client goes, a read that cannot be satisfied fails with the pipe's error.
    Counter failed;
    unsigned long failure = 0;
    auto onFail = MakeGlobalCallback<void(std::shared_ptr<unsigned char[]>, unsigned long, unsigned long, PIPE_OVERLAPPED*)>(
        [&](std::shared_ptr<unsigned char[]>, unsigned long, unsigned long status, PIPE_OVERLAPPED* record) {
            failure = status;
            requests.EndAsync(record);
            failed.Add();
        });
    ASSERT_TRUE(requests.ReadAsync(8, onFail, new PIPE_OVERLAPPED()));
    pair.CloseClient();
    ASSERT_TRUE(failed.WaitAtLeast(1));
    EXPECT_NE(0u, failure);
    // Nothing more can come: a further read is refused and its record freed.
    EXPECT_FALSE(requests.ReadAsync(8, onFail, new PIPE_OVERLAPPED()));
    EXPECT_EQ(0u, requests.OutstandingCount());
}
