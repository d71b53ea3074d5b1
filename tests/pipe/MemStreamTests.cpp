#include "pipe/MemStream.h"

#include <gtest/gtest.h>

#include <numeric>
#include <vector>

namespace
{
std::vector<unsigned char> Sequence(size_t length, unsigned char first)
{
    std::vector<unsigned char> bytes(length);
    std::iota(bytes.begin(), bytes.end(), first);
    return bytes;
}
} // namespace

TEST(MemStream, DataCrossingPagesComesBackInOrder)
{
    CMemStream stream;
    // Chunks chosen to end inside, exactly on and across page edges.
    const size_t chunks[] = {1000, 24, 1, 2047, 3000, 1024};
    std::vector<unsigned char> all;
    unsigned char next = 0;
    for (size_t chunk : chunks)
    {
        auto bytes = Sequence(chunk, next);
        next = static_cast<unsigned char>(next + chunk);
        ASSERT_EQ(0u, stream.Write(bytes.data(), bytes.size()));
        all.insert(all.end(), bytes.begin(), bytes.end());
    }
    ASSERT_EQ(all.size(), stream.Size());

    std::vector<unsigned char> got;
    const size_t reads[] = {7, 1017, 1024, 1, 3000, 1000};
    for (size_t n : reads)
    {
        std::vector<unsigned char> part(n);
        ASSERT_TRUE(stream.Read(part.data(), n));
        got.insert(got.end(), part.begin(), part.end());
    }
    std::vector<unsigned char> rest(stream.Size());
    ASSERT_TRUE(stream.Read(rest.data(), rest.size()));
    got.insert(got.end(), rest.begin(), rest.end());
    EXPECT_EQ(all, got);
    EXPECT_EQ(0u, stream.Size());
    // Read pages are given back; only the write page remains.
    EXPECT_EQ(1u, stream.PageCount());
}

TEST(MemStream, EmptyWritesAndShortReadsTakeNothing)
{
    CMemStream stream;
    auto bytes = Sequence(1500, 3);
    EXPECT_EQ(CMemStream::kErrorInvalidParameter, stream.Write(nullptr, 4));
    EXPECT_EQ(CMemStream::kErrorInvalidParameter, stream.Write(bytes.data(), 0));
    EXPECT_EQ(0u, stream.Size());
    ASSERT_EQ(0u, stream.Write(bytes.data(), bytes.size()));
    std::vector<unsigned char> out(1501);
    EXPECT_FALSE(stream.Read(out.data(), out.size()));
    EXPECT_EQ(1500u, stream.Size());
    ASSERT_TRUE(stream.Read(out.data(), 1500));
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), out.begin()));
}
