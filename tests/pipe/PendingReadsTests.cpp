#include "pipe/PendingReads.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

namespace
{
constexpr uint32_t kBrokenPipe = 109; // ERROR_BROKEN_PIPE
constexpr uint32_t kAborted = 995;    // ERROR_OPERATION_ABORTED

// Reads are named by an int; each delivery is written down as "name=bytes" or "name!error".
struct PendingReadsTest : testing::Test
{
    CPendingReads<int> reads;
    std::map<int, uint32_t> lengths;
    std::vector<int> cancelled;
    std::vector<std::string> served;

    void Ask(int read, uint32_t length)
    {
        lengths[read] = length;
        reads.Push(read, length);
    }
    void Arrive(const std::string& bytes) { ASSERT_EQ(0u, reads.Append(bytes.data(), bytes.size())); }
    void Serve()
    {
        const auto dropped = [&](int read)
        { return std::find(cancelled.begin(), cancelled.end(), read) != cancelled.end(); };
        reads.Serve(dropped,
                    [&](int read, const CPendingReads<int>::Bytes& bytes, uint32_t error)
                    {
                        if (error)
                            served.push_back(std::to_string(read) + "!" + std::to_string(error));
                        else
                            served.push_back(
                                std::to_string(read) + "=" +
                                std::string(reinterpret_cast<const char*>(bytes.get()), lengths[read]));
                    });
    }
    using Served = std::vector<std::string>;
};
} // namespace

TEST_F(PendingReadsTest, EachReadWaitsForAllItsBytesAndReadsAreServedInOrder)
{
    Ask(1, 3);
    Ask(2, 0);
    Ask(3, 2);
    Arrive("ab");
    Serve();
    EXPECT_EQ(Served{}, served); // the first read is a byte short, and the others wait behind it
    Arrive("cde");
    Serve();
    EXPECT_EQ((Served{"1=abc", "2=", "3=de"}), served);
    EXPECT_EQ(0u, reads.Count());
    EXPECT_EQ(0u, reads.BufferedBytes());
}

TEST_F(PendingReadsTest, AfterTheEndReadsThatCanBeServedAreAndTheRestGetTheFirstError)
{
    Ask(1, 2);
    Ask(2, 4);
    Arrive("abc");
    reads.Finish(kBrokenPipe);
    reads.Finish(kAborted); // a later end does not replace the first
    EXPECT_TRUE(reads.CanServe(3));
    EXPECT_FALSE(reads.CanServe(4));
    Serve();
    EXPECT_EQ((Served{"1=ab", "2!109"}), served);
    EXPECT_EQ(1u, reads.BufferedBytes()); // what no read asked for stays
}

TEST_F(PendingReadsTest, CancelledReadsTakeNoBytesFromTheReadsBehindThem)
{
    Ask(1, 2);
    Ask(2, 2);
    Ask(3, 1);
    cancelled = {1};
    EXPECT_TRUE(reads.Remove(3));
    EXPECT_FALSE(reads.Remove(3));
    Arrive("xy");
    Serve();
    EXPECT_EQ(Served{"2=xy"}, served);
    EXPECT_EQ(0u, reads.Count());
}

// The window that stops the stream reading: what is buffered may exceed what the reads still
// ask for by the read-ahead only, and every way a read leaves the queue gives its share back.
TEST_F(PendingReadsTest, ReadAheadWindowFollowsWhatTheReadsStillAskFor)
{
    EXPECT_TRUE(reads.WantsMore(4));
    Arrive("abcd");
    EXPECT_FALSE(reads.WantsMore(4)); // four bytes nobody asked for: enough
    Ask(1, 6);
    EXPECT_TRUE(reads.WantsMore(4)); // a large message may come in whole, plus the window
    Arrive("efghij");
    EXPECT_FALSE(reads.WantsMore(4));
    Serve();
    EXPECT_EQ(Served{"1=abcdef"}, served);
    EXPECT_FALSE(reads.WantsMore(4)); // "ghij" is still nobody's
    Ask(2, 8);
    Ask(3, 8);
    cancelled = {2};
    EXPECT_TRUE(reads.Remove(3));
    Serve(); // the cancelled read leaves without taking bytes or its share of the window
    EXPECT_FALSE(reads.WantsMore(4));
    Ask(4, 1);
    EXPECT_TRUE(reads.WantsMore(4));
    reads.Finish(kBrokenPipe);
    EXPECT_FALSE(reads.WantsMore(4)); // nothing more can arrive
}
