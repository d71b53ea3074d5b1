#include "pipe/NamedPipeStream.h"
#include "pipe/PipeRequest.h"
#include "tests/pipe/PipeTestSupport.h"

#include <atomic>
#include <thread>
#include <utility>
#include <vector>

using namespace pipetests;

namespace
{
std::atomic<int> g_recordsFreed{0};
std::atomic<const void*> g_lastFreedRecord{nullptr};

struct CountedRecord : PIPE_OVERLAPPED
{
    ~CountedRecord() override
    {
        g_lastFreedRecord = this;
        ++g_recordsFreed;
    }
};

using StreamTest = PoolTest;

// Under Wine a read waits for its completion even when data is there; Windows ends it at once.
// This stands in for ReadFile so that one pipe behaves as on Windows with a peer that keeps it
// full (every read ends at once, full), or runs a test's action on the thread that starts reads,
// in place of a read or once a real one has started.
std::atomic<HANDLE> g_seamPipe{nullptr};
std::atomic<int> g_floodReads{0};
std::function<void()> g_onRead;
std::function<void()> g_afterRealRead; // run once, after the first real read is started

BOOL SeamRead(HANDLE pipe, void* buffer, DWORD length, OVERLAPPED* overlapped)
{
    if (g_afterRealRead)
    {
        const BOOL started = ::ReadFile(pipe, buffer, length, nullptr, overlapped);
        const DWORD error = ::GetLastError();
        std::exchange(g_afterRealRead, nullptr)();
        ::SetLastError(error);
        return started;
    }
    if (pipe != g_seamPipe.load())
        return ::ReadFile(pipe, buffer, length, nullptr, overlapped);
    if (g_onRead)
    {
        g_onRead();
        ::SetLastError(ERROR_BROKEN_PIPE);
        return FALSE;
    }
    if (++g_floodReads > 20000) // 40 MB: far past any bound, and the end of the flood
    {
        ::SetLastError(ERROR_BROKEN_PIPE);
        return FALSE;
    }
    std::memset(buffer, 'x', length);
    overlapped->InternalHigh = length;
    return TRUE;
}

struct ReadSeam
{
    explicit ReadSeam(HANDLE pipe = nullptr) // without a pipe every read is real
    {
        g_floodReads = 0;
        g_seamPipe = pipe;
        CNamedPipeStream::SetReadFunctionForTest(&SeamRead);
    }
    ~ReadSeam()
    {
        CNamedPipeStream::SetReadFunctionForTest(nullptr);
        g_seamPipe = nullptr;
        g_onRead = nullptr;
        g_afterRealRead = nullptr;
    }
};
} // namespace

TEST_F(StreamTest, ReadBeforeConnectFailsWithPipeNotConnected)
{
    RawPipePair pair;
    auto stream = MakeStream(pair, ePipeConnectionState_WaitConnection);
    ::SetLastError(0);
    EXPECT_FALSE(stream->BeginRead());
    EXPECT_EQ(static_cast<DWORD>(ERROR_PIPE_NOT_CONNECTED), ::GetLastError());
}

// The table has its own test; here, a change it refuses leaves the state as it was, and every
// change returns the state before it.
TEST_F(StreamTest, StateChangesFollowTheTableAndReturnThePreviousState)
{
    RawPipePair pair;
    auto stream = MakeStream(pair, ePipeConnectionState_WaitConnection);
    EXPECT_EQ(ePipeConnectionState_WaitConnection,
              stream->SetPipeConnectionState(ePipeConnectionState_Disconnected));
    EXPECT_EQ(ePipeConnectionState_WaitConnection,
              stream->SetPipeConnectionState(ePipeConnectionState_Connecting));
    EXPECT_EQ(ePipeConnectionState_Connecting, stream->GetPipeConnectionState());
}

TEST_F(StreamTest, WriteCompletesOnceAndRunsNoCallbackAfterDisconnect)
{
    RawPipePair pair;
    auto stream = MakeStream(pair);
    Completions sink;
    stream->SetWriteCallback(sink.Callback());
    PIPE_OVERLAPPED record;
    const char text[] = "twelve bytes";
    auto request = stream->CreateWriteRequest(text, sizeof(text), &record);
    ASSERT_TRUE(stream->AddWriteRequest(request));
    char got[sizeof(text)];
    ASSERT_TRUE(ReadAll(pair.client.get(), got, sizeof(got)));
    ASSERT_TRUE(sink.calls.WaitAtLeast(1));
    EXPECT_EQ(0u, sink.lastStatus);
    EXPECT_EQ(sizeof(text), record.m_dwBytesTransferred);
    EXPECT_FALSE(stream->CompleteIoRequest(request, 0)); // a second completion of the same request
    EXPECT_FALSE(stream->CompleteIoRequest(nullptr, 0));
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_PARAMETER), ::GetLastError());

    // More than the pipe holds, so the write stays pending until the client reads.
    std::vector<unsigned char> big(64 * 1024, 0x5A);
    PIPE_OVERLAPPED bigRecord;
    ASSERT_TRUE(stream->AddWriteRequest(
        stream->CreateWriteRequest(big.data(), static_cast<uint32_t>(big.size()), &bigRecord)));
    ASSERT_EQ(1u, stream->OutstandingWriteCount());
    stream->SetPipeConnectionState(ePipeConnectionState_Disconnecting);
    stream->SetPipeConnectionState(ePipeConnectionState_Disconnected);
    ASSERT_TRUE(ReadAll(pair.client.get(), big.data(), static_cast<DWORD>(big.size())));
    ASSERT_TRUE(m_log->WaitFor(L"EndWrite() failed. IoResult = 0", kLimit));
    EXPECT_EQ(1, sink.calls.Get());
    EXPECT_EQ(0u, stream->OutstandingWriteCount());
}

TEST_F(StreamTest, BlockingWriteFailsOnVanishedClient)
{
    // A blocking write that completes is exercised by every echo of the server and load tests.
    RawPipePair pair;
    auto stream = MakeStream(pair);
    CPipeServerRequest request(stream, m_log);
    pair.client.reset();
    const long long handles = testsupport::CountProcessHandles();
    EXPECT_FALSE(request.Write("x", 1));
    EXPECT_NE(0u, ::GetLastError());
    EXPECT_EQ(0u, request.OutstandingCount());
    EXPECT_EQ(0u, stream->OutstandingWriteCount());
    EXPECT_EQ(handles, testsupport::CountProcessHandles()); // the record's event is closed
    EXPECT_FALSE(CPipeServerRequest(nullptr, m_log).Write("x", 1));
}

TEST_F(StreamTest, OneCancelAllWakesABlockingWriteWhereverItLands)
{
    // One cancel, landing anywhere between the record being listed and the I/O running, must
    // end the write: the client never reads, so a write that escapes it waits for ever.
    RawPipePair pair;
    auto stream = MakeStream(pair);
    CPipeServerRequest request(stream, m_log);
    std::vector<unsigned char> big(64 * 1024, 1); // more than the pipe holds
    for (int round = 0; round < 300; ++round)
    {
        std::atomic<int> result{-1};
        std::thread writer([&] { result = request.Write(big.data(), static_cast<uint32_t>(big.size())); });
        while (request.OutstandingCount() == 0 && result.load() == -1)
            std::this_thread::yield();
        // Spread the cancels over the window between listing and WriteFile.
        for (int spin = 0; spin < round % 40; ++spin)
            std::this_thread::yield();
        request.CancelAll();
        if (!Eventually([&] { return result.load() != -1; }, 10s))
        {
            ADD_FAILURE() << "round " << round << ": the cancelled write still waits";
            pair.client.reset(); // frees the writer
        }
        writer.join();
        ASSERT_EQ(FALSE, result.load()) << "round " << round;
    }
    EXPECT_EQ(0u, request.OutstandingCount());
    EXPECT_EQ(0u, stream->OutstandingWriteCount());
}

TEST_F(StreamTest, ReadsOutliveTheThreadsThatStartedThem)
{
    // Pool threads retire when idle. Under Wine, the data of a read that had to wait is fetched by
    // the thread that started the read: arriving as that thread ends, it is lost with the read.
    for (int trial = 0; trial < 200; ++trial)
    {
        RawPipePair pair;
        auto stream = MakeStream(pair);
        std::thread starting([&] { EXPECT_TRUE(stream->BeginRead()); });
        std::thread writing([&] { EXPECT_TRUE(WriteAll(pair.client.get(), "late", 4)); });
        starting.join();
        writing.join();
        CPipeClientRequest request(stream, m_log);
        Completions reads;
        reads.retire = &request;
        ASSERT_TRUE(request.ReadAsync(4, reads.Callback(), new PIPE_OVERLAPPED())) << "trial " << trial;
        ASSERT_TRUE(reads.calls.WaitAtLeast(1));
        ASSERT_EQ(0u, reads.lastStatus) << "trial " << trial;
        EXPECT_EQ(std::vector<unsigned char>({'l', 'a', 't', 'e'}), reads.lastData);
    }
}

TEST_F(StreamTest, ReadsDroppedByCancelAllThenServedFromBufferThenFailedByTheClientLeaving)
{
    RawPipePair pair;
    auto stream = MakeStream(pair);
    ASSERT_TRUE(stream->BeginRead());
    CPipeClientRequest request(stream, m_log);
    Completions reads;
    const int freedBefore = g_recordsFreed;
    ASSERT_TRUE(request.ReadAsync(16, reads.Callback(), new CountedRecord()));
    ASSERT_TRUE(Eventually([&] { return stream->PendingReadCount() == 1; }));
    request.CancelAll();
    EXPECT_EQ(0u, stream->PendingReadCount());
    EXPECT_EQ(0u, request.OutstandingCount());
    EXPECT_EQ(freedBefore + 1, g_recordsFreed.load());
    // Data arriving now meets no reader: it waits in the stream for the next read.
    ASSERT_TRUE(WriteAll(pair.client.get(), "0123456789abcdef", 16));
    ASSERT_TRUE(Eventually([&] { return stream->BufferedBytes() == 16; }));
    EXPECT_EQ(0, reads.calls.Get());

    reads.retire = &request;
    ASSERT_TRUE(request.ReadAsync(10, reads.Callback(), new PIPE_OVERLAPPED()));
    ASSERT_TRUE(reads.calls.WaitAtLeast(1));
    EXPECT_EQ(std::vector<unsigned char>({'0', '1', '2', '3', '4', '5', '6', '7', '8', '9'}), reads.lastData);
    // Six bytes are buffered; a read of eight can only fail once the client goes.
    ASSERT_TRUE(request.ReadAsync(8, reads.Callback(), new PIPE_OVERLAPPED()));
    pair.client.reset();
    ASSERT_TRUE(reads.calls.WaitAtLeast(2));
    EXPECT_NE(0u, reads.lastStatus);
    EXPECT_FALSE(request.ReadAsync(8, reads.Callback(), new PIPE_OVERLAPPED())); // nothing more can come
    EXPECT_EQ(0u, request.OutstandingCount());

    // A record no longer listed is still freed.
    auto* record = new CountedRecord();
    const int before = g_recordsFreed;
    request.EndAsync(record);
    EXPECT_EQ(before + 1, g_recordsFreed.load());
}

// Seen on Windows, where a read with data waiting ends at once: the peer's flood kept the one
// thread that starts every stream's reads, and filled memory without bound.
TEST_F(StreamTest, PeerThatKeepsThePipeFullIsReadInTurnsAndOnlyAsFarAsItsOwnerAsks)
{
    RawPipePair flooded;
    RawPipePair quiet;
    auto busy = MakeStream(flooded);
    auto other = MakeStream(quiet);
    ReadSeam seam(busy->GetHandle());
    ASSERT_TRUE(busy->BeginRead());
    ASSERT_TRUE(other->BeginRead());
    ASSERT_TRUE(WriteAll(quiet.client.get(), "ping", 4));
    Completions otherReads;
    ASSERT_TRUE(ReadOnce(other, m_log, 4, otherReads));
    EXPECT_LT(g_floodReads.load(), 20000) << "the other stream waited for the flood to end";

    ASSERT_TRUE(Eventually([&] { return busy->IsReadPaused(); }));
    const size_t window = CNamedPipeStream::kReadAhead + CNamedPipeStream::kReadBufferSize;
    EXPECT_LE(busy->BufferedBytes(), window);
    // Its owner's reads are served, and each lets the peer in for as much again.
    Completions busyReads;
    ASSERT_TRUE(ReadOnce(busy, m_log, 100000, busyReads));
    EXPECT_EQ(0u, busyReads.lastStatus);
    EXPECT_EQ(100000u, busyReads.lastData.size());
    ASSERT_TRUE(Eventually([&] { return busy->IsReadPaused(); }));
    EXPECT_LE(busy->BufferedBytes(), window);
}

// An agent wrote header and body together, then left: its header callback asks for the body,
// whose bytes are there, and drops the connection's last reference. The body's callback, due
// after the running one, must not be handed the record freed with the connection.
TEST_F(StreamTest, ReadDueAfterTheRunningCallbackIsDroppedWithItsOwnersRecord)
{
    RawPipePair pair;
    auto stream = MakeStream(pair);
    ASSERT_TRUE(WriteAll(pair.client.get(), "headbody", 8));
    ASSERT_TRUE(stream->BeginRead());
    ASSERT_TRUE(Eventually([&] { return stream->BufferedBytes() == 8; }));
    auto request = std::make_unique<CPipeClientRequest>(stream, m_log);
    Counter headers;
    std::atomic<int> bodies{0};
    std::atomic<bool> handedFreed{false};
    auto onBody = MakeGlobalCallback<ReadSignature>(
        [&](std::shared_ptr<unsigned char[]>, unsigned long, unsigned long, PIPE_OVERLAPPED* record)
        {
            handedFreed = handedFreed || record == g_lastFreedRecord.load();
            ++bodies;
        });
    auto onHeader = MakeGlobalCallback<ReadSignature>(
        [&](std::shared_ptr<unsigned char[]>, unsigned long, unsigned long, PIPE_OVERLAPPED* record)
        {
            request->EndAsync(record);
            EXPECT_TRUE(request->ReadAsync(4, onBody, new CountedRecord()));
            request.reset();
            headers.Add();
        });
    ASSERT_TRUE(request->ReadAsync(4, onHeader, new PIPE_OVERLAPPED()));
    ASSERT_TRUE(headers.WaitAtLeast(1));
    // Were it handed on, it would be right after the header callback, on the same thread.
    EXPECT_FALSE(Eventually([&] { return bodies.load() > 0; }, 2s));
    EXPECT_FALSE(handedFreed.load());
}

// Message read mode: a read into a buffer shorter than the message ends with ERROR_MORE_DATA,
// which is part of the message, not the end of the connection.
TEST_F(StreamTest, MessageLongerThanTheReadBufferArrivesWhole)
{
    RawPipePair pair(PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE);
    auto stream = MakeStream(pair);
    // Sent once the first read waits. Under Wine a message longer than the buffer that is
    // already there when the first read starts is never delivered (Windows reports its first
    // part through the completion port); the service's own pipes are byte pipes.
    // Declared first, so that the seam, and the hook that uses it, is gone before the event.
    daxlib::unique_handle readWaits(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    ReadSeam seam;
    g_afterRealRead = [&] { ::SetEvent(readWaits.get()); };
    ASSERT_TRUE(stream->BeginRead());
    ASSERT_EQ(WAIT_OBJECT_0, ::WaitForSingleObject(readWaits.get(), 10000));
    const std::vector<unsigned char> message(5000, 'm');
    ASSERT_TRUE(WriteAll(pair.client.get(), message.data(), static_cast<DWORD>(message.size())));
    Completions reads;
    ASSERT_TRUE(ReadOnce(stream, m_log, 5000, reads));
    EXPECT_EQ(0u, reads.lastStatus);
    EXPECT_EQ(message, reads.lastData);
}

// A cancel-all meeting a write that has just succeeded must not report it aborted: its bytes
// are with the client. Every write reported done is one byte received, and no other.
TEST_F(StreamTest, CancelAllNeverReportsAbortedAWriteThatWentThrough)
{
    RawPipePair pair;
    auto stream = MakeStream(pair);
    CPipeServerRequest request(stream, m_log);
    std::atomic<long> received{0};
    std::thread reader(
        [&]
        {
            char bytes[256];
            DWORD got = 0;
            while (::ReadFile(pair.client.get(), bytes, sizeof(bytes), &got, nullptr) && got > 0)
                received += static_cast<long>(got);
        });
    std::atomic<bool> writing{true};
    std::thread canceller(
        [&]
        {
            while (writing)
                stream->CancelWriteRequest();
        });
    long reported = 0;
    for (int i = 0; i < 20000; ++i)
        reported += request.Write("x", 1) ? 1 : 0;
    writing = false;
    canceller.join();
    EXPECT_TRUE(Eventually([&] { return received.load() >= reported; }));
    ::DisconnectNamedPipe(stream->GetHandle()); // ends the reader
    reader.join();
    EXPECT_EQ(reported, received.load());
}

// The pool's last owner let go on the read starter's own thread: ending the starter there must
// not wait for that thread itself.
TEST_F(StreamTest, PoolReleasedOnTheReadStarterThreadEndsWithoutWaitingForItself)
{
    RawPipePair pair;
    auto stream = MakeStream(pair);
    ReadSeam seam(stream->GetHandle());
    std::atomic<bool> released{false};
    std::shared_ptr<CThreadPool> pool = std::move(m_pool);
    g_onRead = [&]
    {
        SetThreadPool(nullptr);
        pool.reset();
        released = true;
    };
    ASSERT_TRUE(stream->BeginRead());
    EXPECT_TRUE(Eventually([&] { return released.load(); }));
}

// A callback that asks for more and waits for it, as the agent tool's reads do: what it waits
// for is due on its own thread, after it, unless the wait runs it first.
TEST_F(StreamTest, CallbackMayWaitForTheNextCallbackOfItsStream)
{
    RawPipePair pair;
    auto stream = MakeStream(pair);
    ASSERT_TRUE(WriteAll(pair.client.get(), "headbody", 8));
    ASSERT_TRUE(stream->BeginRead());
    CPipeClientRequest request(stream, m_log);
    Completions body;
    body.retire = &request;
    daxlib::unique_handle bodyCame(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    Counter headers;
    DWORD waited = WAIT_FAILED;
    auto onBody = MakeGlobalCallback<ReadSignature>(
        [&](std::shared_ptr<unsigned char[]> data, unsigned long bytes, unsigned long status,
            PIPE_OVERLAPPED* record)
        {
            body.On(std::move(data), bytes, status, record);
            ::SetEvent(bodyCame.get());
        });
    auto onHeader = MakeGlobalCallback<ReadSignature>(
        [&](std::shared_ptr<unsigned char[]>, unsigned long, unsigned long, PIPE_OVERLAPPED* record)
        {
            request.EndAsync(record);
            EXPECT_TRUE(request.ReadAsync(4, onBody, new PIPE_OVERLAPPED()));
            waited = stream->WaitFor(bodyCame.get(), 10000);
            headers.Add();
        });
    ASSERT_TRUE(request.ReadAsync(4, onHeader, new PIPE_OVERLAPPED()));
    ASSERT_TRUE(headers.WaitAtLeast(1));
    EXPECT_EQ(static_cast<DWORD>(WAIT_OBJECT_0), waited);
    EXPECT_EQ(std::vector<unsigned char>({'b', 'o', 'd', 'y'}), body.lastData);
}
