// The client side of shared sample buffers, built from the public header
// alone: shape and storage, the used-count rule, explicit reference counting
// and the copy that Assign makes.
#include <gtest/gtest.h>

#include <cstring>
#include <tuple>
#include <utility>

#include "vorn/buffer.h"

namespace {

using FloatBuffer = CBuffer<float, 4>;

// Shape, use and storage of `b` as one tuple.
std::tuple<ULONG, ULONG, ULONG, ULONG, ULONG> Shape(const FloatBuffer& b) {
    return {b.FirstExtent(), b.SecondExtent(), b.UsedCount(), b.AllocatedBytes(), b.RefCount()};
}

TEST(Buffer, StorageForTheFirstExtentAndAUsedCountLimitedUnlessGrowable) {
    FloatBuffer b(CDim(3), CDim(2));
    EXPECT_EQ(FloatBuffer::FromCookie(b.Cookie()), &b);
    b.SetUsedCount(5);
    EXPECT_EQ(Shape(b), std::tuple(3u, 2u, 3u, 3u * 2u * sizeof(float), 1u));
    b.SetUsedCount(2);
    EXPECT_EQ(b.SampleCount(), 4u);
    b.SetGrowable(true);
    b.ReserveRows(5);
    b.SetUsedCount(5);
    EXPECT_EQ(std::pair(b.UsedCount(), b.AllocatedBytes()), std::pair(5u, 5u * 2u * ULONG{sizeof(float)}));
    for (int i = 0; i < 10; ++i) b.Data()[i] = static_cast<float>(i);
    EXPECT_EQ(b.Data()[9], 9.0f);

    FloatBuffer empty(CDim(0), CDim(4));
    EXPECT_EQ(std::pair(empty.Data(), empty.AllocatedBytes()), std::pair(static_cast<float*>(nullptr), 0u));
}

TEST(Buffer, ShapeTooLargeForThirtyTwoBitsIsRefused) {
    try {
        FloatBuffer b(CDim(0x10000), CDim(0x10000));
        FAIL() << "no error raised";
    } catch (const bad_buffer_error& e) {
        EXPECT_STREQ(e.what(), "Buffer: 819: Invalid Argument");
    }
    FloatBuffer b(CDim(1), CDim(0x10000));
    EXPECT_THROW(b.ReserveRows(0x10000), bad_buffer_error);
    EXPECT_EQ(b.AllocatedBytes(), 0x10000u * sizeof(float));
}

TEST(Buffer, LastReleaseFreesTheStorageButNotTheObject) {
    FloatBuffer b(CDim(2), CDim(2));
    EXPECT_EQ(b.AddRef(), 2u);
    EXPECT_EQ(b.Release(), 1u);
    EXPECT_NE(b.Data(), nullptr);
    EXPECT_EQ(b.Release(), 0u);
    EXPECT_EQ(b.Data(), nullptr);
    // Releasing with no reference left changes nothing.
    EXPECT_EQ(b.Release(), 0u);
    EXPECT_EQ(Shape(b), std::tuple(2u, 2u, 0u, 0u, 0u));
}

TEST(Buffer, CopyTakesShapeAndSamplesIntoOwnStorage) {
    FloatBuffer source(CDim(2), CDim(3));
    for (int i = 0; i < 6; ++i) source.Data()[i] = 0.5f * static_cast<float>(i);
    source.SetUsedCount(2);
    source.AddRef();

    FloatBuffer target(CDim(1), CDim(1));
    target.CopyFrom(source);
    EXPECT_EQ(Shape(target), std::tuple(2u, 3u, 2u, source.AllocatedBytes(), 1u));
    ASSERT_NE(target.Data(), source.Data());
    EXPECT_EQ(std::memcmp(target.Data(), source.Data(), 6 * sizeof(float)), 0);

    // The two are independent: freeing one leaves the other's samples.
    source.Clear();
    EXPECT_EQ(source.UsedCount(), 0u);
    EXPECT_EQ(target.Data()[5], 2.5f);

    // Copying an empty buffer frees the target's storage.
    target.CopyFrom(source);
    EXPECT_EQ(std::pair(target.Data(), target.UsedCount()), std::pair(static_cast<float*>(nullptr), 0u));
}

}  // namespace
