#include "pipe/MemStream.h"

#include <gtest/gtest.h>

#include <numeric>
#include <vector>

TEST(MemStream, DataCrossingPagesComesBackInOrderAndShortReadsTakeNothing)
{
    CMemStream stream;
    EXPECT_EQ(CMemStream::kErrorInvalidParameter, stream.Write(nullptr, 4));
    std::vector<unsigned char> all(7096);
    std::iota(all.begin(), all.end(), static_cast<unsigned char>(0));
    EXPECT_EQ(CMemStream::kErrorInvalidParameter, stream.Write(all.data(), 0));
    // Chunks chosen to end inside, exactly on and across page edges.
    size_t at = 0;
    for (size_t chunk : {1000, 24, 1, 2047, 3000, 1024})
    {
        ASSERT_EQ(0u, stream.Write(all.data() + at, chunk));
        at += chunk;
    }
    ASSERT_EQ(all.size(), stream.Size());

    std::vector<unsigned char> got(all.size() + 1);
    EXPECT_FALSE(stream.Read(got.data(), got.size())); // more than there is: nothing taken
    at = 0;
    for (size_t n : {7, 1017, 1024, 1, 3000, 1000, 1047})
    {
        ASSERT_TRUE(stream.Read(got.data() + at, n));
        at += n;
    }
    got.resize(at);
    EXPECT_EQ(all, got);
    EXPECT_EQ(0u, stream.Size());
    // Read pages are given back; only the write page remains.
    EXPECT_EQ(1u, stream.PageCount());
}
