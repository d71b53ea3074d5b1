#include "log/BuffersList.h"
#include "log/TransferBuffer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace
{
constexpr uint64_t kBlock = CTransferBuffer::kBlockSize;

std::vector<uint8_t> Pattern(size_t size, uint8_t seed)
{
    std::vector<uint8_t> bytes(size);
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<uint8_t>(seed + i * 7);
    return bytes;
}

std::vector<uint8_t> TakePiece(CBuffersList& list, BOOL consume = TRUE)
{
    uint64_t size = 0;
    const uint8_t* piece = list.Take(&size, consume);
    if (!piece)
        return {};
    return std::vector<uint8_t>(piece, piece + size);
}

// Records every piece; can hold the writer thread inside Transfer() to let a queue build up.
class RecordingBuffer : public CTransferBuffer
{
public:
    ~RecordingBuffer() override { Close(FALSE); }

    BOOL Transfer(const void* data, uint64_t size, BOOL) override
    {
        std::unique_lock lock(m_mutex);
        m_entered = true;
        m_changed.notify_all();
        m_changed.wait(lock, [&] { return !m_hold; });
        const auto* p = static_cast<const char*>(data);
        m_pieces.emplace_back(p, p + size);
        m_changed.notify_all();
        return TRUE;
    }

    void Hold()
    {
        std::lock_guard lock(m_mutex);
        m_hold = true;
        m_entered = false;
    }
    void Release()
    {
        std::lock_guard lock(m_mutex);
        m_hold = false;
        m_changed.notify_all();
    }
    bool WaitEntered() { return WaitFor([&] { return m_entered; }); }
    bool WaitCount(size_t n) { return WaitFor([&] { return m_pieces.size() >= n; }); }
    std::vector<std::string> Pieces()
    {
        std::lock_guard lock(m_mutex);
        return m_pieces;
    }

private:
    template <class Condition> bool WaitFor(Condition condition)
    {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::seconds(30), condition);
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_hold = false;
    bool m_entered = false;
    std::vector<std::string> m_pieces;
};

BOOL WriteText(CTransferBuffer& buffer, const std::string& text)
{
    return buffer.Write(text.data(), text.size(), FALSE);
}

// Queues ten pieces while the writer holds the first inside Transfer().
void QueueBehindHeldWriter(RecordingBuffer& buffer)
{
    buffer.Hold();
    for (int i = 0; i < 10; ++i)
        ASSERT_TRUE(WriteText(buffer, "piece-" + std::to_string(i)));
    ASSERT_TRUE(buffer.WaitEntered());
}
} // namespace

TEST(BuffersList, PieceLargerThanABlockComesOutWhole)
{
    CBuffersList list(kBlock, TRUE, 3, 100);
    const auto big = Pattern(100000, 1);
    list.Append(big.size(), big.data());
    EXPECT_EQ(list.UsedBlockCount(), 4u); // 8 + 100000 bytes over 32767-byte blocks
    EXPECT_EQ(TakePiece(list, FALSE), big); // a peek leaves it queued
    EXPECT_EQ(TakePiece(list), big);
    EXPECT_TRUE(list.IsEmpty());
    EXPECT_TRUE(TakePiece(list).empty());
}

TEST(BuffersList, LengthNeverStartsInTheLastSevenBytes)
{
    CBuffersList list(kBlock, FALSE, 3, 100);
    const auto first = Pattern(static_cast<size_t>(kBlock - 8 - 7), 2);
    list.Append(first.size(), first.data());
    ASSERT_EQ(list.WritePosition(), kBlock - 7);
    ASSERT_EQ(list.UsedBlockCount(), 1u);

    const auto second = Pattern(5, 3);
    list.Append(second.size(), second.data());
    EXPECT_EQ(list.UsedBlockCount(), 2u);
    EXPECT_EQ(list.WritePosition(), 8u + 5u);
    EXPECT_EQ(TakePiece(list), first);
    EXPECT_EQ(TakePiece(list), second);
    EXPECT_TRUE(list.IsEmpty());
}

TEST(TransferBuffer, DrainingCloseDeliversEveryQueuedPiece)
{
    RecordingBuffer buffer;
    QueueBehindHeldWriter(buffer);
    ASSERT_FALSE(HasFatalFailure());

    std::thread closer([&] { buffer.Close(FALSE); });
    buffer.Release();
    closer.join();

    const auto pieces = buffer.Pieces();
    ASSERT_EQ(pieces.size(), 10u);
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(pieces[i], "piece-" + std::to_string(i));
    EXPECT_FALSE(WriteText(buffer, "late")); // after the writer ended
}

TEST(TransferBuffer, ImmediateCloseDiscardsAndRefuses)
{
    RecordingBuffer buffer;
    QueueBehindHeldWriter(buffer);
    ASSERT_FALSE(HasFatalFailure());

    std::thread closer([&] { buffer.Close(TRUE); });
    // Refusal comes first thing in the close, before the writer is even let go.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (WriteText(buffer, "refused?") && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    EXPECT_FALSE(WriteText(buffer, "refused"));
    buffer.Release();
    closer.join();

    const auto pieces = buffer.Pieces();
    EXPECT_LE(pieces.size(), 1u); // at most the piece already in the writer's hands
    for (const auto& p : pieces)
        EXPECT_EQ(p, "piece-0");
}

TEST(TransferBuffer, ConcurrentWritersLoseNothingAndKeepEachOrder)
{
    constexpr int kThreads = 4;
    constexpr int kPerThread = 1000;
    RecordingBuffer buffer;
    std::vector<std::thread> writers;
    for (int t = 0; t < kThreads; ++t)
        writers.emplace_back([&, t] {
            for (int i = 0; i < kPerThread; ++i)
                WriteText(buffer, std::to_string(t) + ":" + std::to_string(i));
        });
    for (auto& w : writers)
        w.join();
    ASSERT_TRUE(buffer.WaitCount(kThreads * kPerThread));
    buffer.Close(FALSE);

    std::vector<int> next(kThreads, 0);
    for (const auto& piece : buffer.Pieces())
    {
        const int t = std::stoi(piece.substr(0, piece.find(':')));
        const int i = std::stoi(piece.substr(piece.find(':') + 1));
        ASSERT_EQ(i, next[t]) << piece;
        ++next[t];
    }
    for (int t = 0; t < kThreads; ++t)
        EXPECT_EQ(next[t], kPerThread);
}
