#include "log/BuffersList.h"
#include "log/TransferBuffer.h"
#include "tests/common/TestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
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

// The bytes of the next run of at most `cap` bytes.
std::vector<uint8_t> TakeRun(CBuffersList& list, uint64_t cap = 1)
{
    std::vector<uint8_t> run(16);
    std::vector<uint64_t> sizes;
    sizes.reserve(16);
    list.TakeRun(run, sizes, cap);
    uint64_t total = 0;
    for (const uint64_t size : sizes)
        total += size;
    run.resize(static_cast<size_t>(total));
    return run;
}

std::vector<uint8_t> Joined(std::vector<uint8_t> a, const std::vector<uint8_t>& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Records every piece; while the test holds `gate`, the writer thread waits inside Transfer()
// so that a queue builds up behind it. `pieces` is read only once the writer has ended.
class RecordingBuffer : public CTransferBuffer
{
public:
    ~RecordingBuffer() override { Close(FALSE); }
    BOOL Transfer(const void* data, uint64_t size, BOOL) override
    {
        entered = true;
        std::lock_guard lock(gate);
        pieces.emplace_back(static_cast<const char*>(data), static_cast<size_t>(size));
        return TRUE;
    }
    std::atomic<bool> entered{false};
    std::mutex gate;
    std::vector<std::string> pieces;
};

BOOL WriteText(CTransferBuffer& buffer, const std::string& text)
{
    return buffer.Write(text.data(), text.size(), FALSE);
}

// Queues nine pieces while the writer holds the first inside Transfer(); the gate stays locked.
void QueueBehindHeldWriter(RecordingBuffer& buffer)
{
    buffer.gate.lock();
    EXPECT_TRUE(WriteText(buffer, "piece-0"));
    EXPECT_TRUE(testsupport::Eventually([&] { return buffer.entered.load(); }));
    for (int i = 1; i < 10; ++i)
        EXPECT_TRUE(WriteText(buffer, "piece-" + std::to_string(i)));
}
} // namespace

TEST(BuffersList, PiecesAcrossBlocksAndTheSevenByteBoundary)
{
    CBuffersList list(kBlock, TRUE, 3, 100);
    const auto big = Pattern(100000, 1);
    list.Append(big.size(), big.data());
    EXPECT_EQ(list.UsedBlockCount(), 4u); // 8 + 100000 bytes over 32767-byte blocks
    EXPECT_EQ(TakeRun(list), big);
    EXPECT_TRUE(list.IsEmpty());
    EXPECT_TRUE(TakeRun(list).empty());

    // A length never starts in the last seven bytes of a block.
    CBuffersList tight(kBlock, FALSE, 3, 100);
    const auto first = Pattern(static_cast<size_t>(kBlock - 8 - 7), 2);
    tight.Append(first.size(), first.data());
    ASSERT_EQ(tight.WritePosition(), kBlock - 7);
    ASSERT_EQ(tight.UsedBlockCount(), 1u);
    const auto second = Pattern(5, 3);
    tight.Append(second.size(), second.data());
    EXPECT_EQ(tight.UsedBlockCount(), 2u);
    EXPECT_EQ(tight.WritePosition(), 8u + 5u);
    EXPECT_EQ(TakeRun(tight), first);
    EXPECT_EQ(TakeRun(tight), second);
    EXPECT_TRUE(tight.IsEmpty());
}

TEST(BuffersList, RunStopsBeforeTheCapButAlwaysTakesAPiece)
{
    CBuffersList list(kBlock, FALSE, 3, 100);
    const auto a = Pattern(100, 1), b = Pattern(100, 2), big = Pattern(50000, 3), c = Pattern(10, 4);
    for (const auto* piece : {&a, &b, &big, &c})
        list.Append(piece->size(), piece->data());
    EXPECT_EQ(TakeRun(list, 250), Joined(a, b));
    EXPECT_EQ(TakeRun(list, 250), big); // over the cap, alone
    EXPECT_EQ(TakeRun(list, 250), c);
    EXPECT_TRUE(list.IsEmpty());
}

TEST(TransferBuffer, DrainingCloseDeliversEveryQueuedPiece)
{
    RecordingBuffer buffer;
    QueueBehindHeldWriter(buffer);
    std::thread closer([&] { buffer.Close(FALSE); });
    buffer.gate.unlock();
    closer.join();

    ASSERT_EQ(buffer.pieces.size(), 10u);
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(buffer.pieces[i], "piece-" + std::to_string(i));
    EXPECT_FALSE(WriteText(buffer, "late")); // after the writer ended
}

TEST(TransferBuffer, ImmediateCloseDiscardsAndRefuses)
{
    RecordingBuffer buffer;
    QueueBehindHeldWriter(buffer);
    std::thread closer([&] { buffer.Close(TRUE); });
    // Refusal comes first thing in the close, before the writer is even let go.
    EXPECT_TRUE(testsupport::Eventually([&] { return !WriteText(buffer, "refused?"); }));
    EXPECT_FALSE(WriteText(buffer, "refused"));
    buffer.gate.unlock();
    closer.join();

    // Only the run already in the writer's hands goes out.
    EXPECT_EQ(buffer.pieces, std::vector<std::string>{"piece-0"});
}
