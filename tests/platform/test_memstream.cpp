// Global memory blocks and the memory stream over them: block sizes, stale
// handles, stream growth, seeking past the end, SetSize, Stat, the block seen
// through GetHGlobalFromStream, and ownership of the block.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>

#include "platform/test_util.h"

namespace {

using vorn::ComPtr;
using vorn::test::ReadAll;
using vorn::test::SeekTo;

// The bytes of a block, read through GlobalLock/GlobalSize.
std::string BlockBytes(HGLOBAL h) {
    const auto* data = static_cast<const char*>(GlobalLock(h));
    std::string bytes(data, GlobalSize(h));
    GlobalUnlock(h);
    return bytes;
}

HRESULT WriteText(IStream* stream, const std::string& text, ULONG* written = nullptr) {
    return stream->Write(text.data(), static_cast<ULONG>(text.size()), written);
}

ULARGE_INTEGER Size(ULONGLONG n) {
    ULARGE_INTEGER size;
    size.QuadPart = n;
    return size;
}

TEST(GlobalMemory, ExactSizesStaleHandlesAndEmptyBlocks) {
    HGLOBAL h = GlobalAlloc(GHND, 5);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(GlobalSize(h), 5u);
    EXPECT_EQ(BlockBytes(h), std::string(5, '\0'));

    EXPECT_EQ(GlobalFree(h), nullptr);
    EXPECT_LAST_ERROR(GlobalSize(h), 0u, ERROR_INVALID_HANDLE);
    EXPECT_EQ(GlobalLock(h), nullptr);
    EXPECT_EQ(GlobalFree(h), h);
    EXPECT_EQ(GlobalFree(nullptr), nullptr);

    HGLOBAL empty = GlobalAlloc(GMEM_FIXED, 0);
    EXPECT_EQ(GlobalSize(empty), 0u);
    EXPECT_NE(GlobalLock(empty), nullptr);
    GlobalUnlock(empty);
    GlobalFree(empty);
}

class MemoryStreamTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(CreateStreamOnHGlobal(nullptr, TRUE, stream_.put()), S_OK); }

    HGLOBAL Block() {
        HGLOBAL h = nullptr;
        EXPECT_EQ(GetHGlobalFromStream(stream_.get(), &h), S_OK);
        return h;
    }

    ComPtr<IStream> stream_;
};

TEST_F(MemoryStreamTest, WritesGrowTheBlockToExactlyTheStreamBytes) {
    EXPECT_EQ(GlobalSize(Block()), 0u);
    std::string expected;
    for (int i = 0; i < 200; ++i) {
        const std::string piece = "piece " + std::to_string(i) + ";";
        ULONG written = 0;
        ASSERT_EQ(WriteText(stream_.get(), piece, &written), S_OK);
        EXPECT_EQ(written, piece.size());
        expected += piece;
    }
    EXPECT_EQ(BlockBytes(Block()), expected);
    EXPECT_EQ(ReadAll(stream_.get()), expected);

    // Overwriting in the middle does not grow the block.
    EXPECT_EQ(SeekTo(stream_.get(), 6, STREAM_SEEK_SET), 6u);
    ASSERT_EQ(WriteText(stream_.get(), "XY"), S_OK);
    expected.replace(6, 2, "XY");
    EXPECT_EQ(BlockBytes(Block()), expected);
}

TEST_F(MemoryStreamTest, SeekingReadingAndWritingPastTheEnd) {
    ASSERT_EQ(WriteText(stream_.get(), "0123456789"), S_OK);
    EXPECT_EQ(SeekTo(stream_.get(), -4, STREAM_SEEK_END), 6u);
    EXPECT_EQ(SeekTo(stream_.get(), -2, STREAM_SEEK_CUR), 4u);
    EXPECT_EQ(SeekTo(stream_.get(), 3, STREAM_SEEK_CUR), 7u);
    // Refused: before the start, an unknown origin, an overflow; the position stays.
    const std::pair<LONGLONG, DWORD> refused[] = {
        {-8, STREAM_SEEK_CUR}, {-11, STREAM_SEEK_END}, {0, 3}, {INT64_MAX, STREAM_SEEK_CUR}};
    for (const auto& [offset, origin] : refused) {
        LARGE_INTEGER move;
        move.QuadPart = offset;
        ULARGE_INTEGER position{};
        EXPECT_EQ(stream_->Seek(move, origin, &position), STG_E_INVALIDFUNCTION) << offset;
        EXPECT_EQ(position.QuadPart, 7u);
    }
    // Reading across the end returns fewer bytes, at the end none.
    char buffer[10] = {};
    ULONG got = 0;
    EXPECT_EQ(stream_->Read(buffer, sizeof buffer, &got), S_OK);
    EXPECT_EQ(std::string(buffer, got), "789");
    EXPECT_EQ(stream_->Read(nullptr, 1, &got), STG_E_INVALIDPOINTER);
    EXPECT_EQ(stream_->Write(nullptr, 1, nullptr), STG_E_INVALIDPOINTER);

    // Seeking alone does not grow the block; a write there zero-fills the gap.
    EXPECT_EQ(SeekTo(stream_.get(), 3, STREAM_SEEK_END), 13u);
    EXPECT_EQ(GlobalSize(Block()), 10u);
    got = 9;
    EXPECT_EQ(stream_->Read(buffer, sizeof buffer, &got), S_OK);
    EXPECT_EQ(got, 0u);
    ASSERT_EQ(WriteText(stream_.get(), "cd"), S_OK);
    EXPECT_EQ(BlockBytes(Block()), std::string("0123456789\0\0\0cd", 15));
    // A zero-byte write past the end changes nothing.
    EXPECT_EQ(SeekTo(stream_.get(), 100, STREAM_SEEK_SET), 100u);
    EXPECT_EQ(stream_->Write("", 0, nullptr), S_OK);
    EXPECT_EQ(GlobalSize(Block()), 15u);
}

TEST_F(MemoryStreamTest, SetSizeIsExactAndKeepsThePosition) {
    ASSERT_EQ(WriteText(stream_.get(), "abcdef"), S_OK);
    ASSERT_EQ(stream_->SetSize(Size(3)), S_OK);
    EXPECT_EQ(BlockBytes(Block()), "abc");
    EXPECT_EQ(SeekTo(stream_.get(), 0, STREAM_SEEK_CUR), 6u);

    ASSERT_EQ(stream_->SetSize(Size(5)), S_OK);
    EXPECT_EQ(BlockBytes(Block()), std::string("abc\0\0", 5));
    ASSERT_EQ(WriteText(stream_.get(), "g"), S_OK);  // at 6: one more zero, then g
    EXPECT_EQ(BlockBytes(Block()), std::string("abc\0\0\0g", 7));

    EXPECT_EQ(stream_->SetSize(Size(1ULL << 32)), STG_E_INVALIDFUNCTION);
    EXPECT_EQ(SeekTo(stream_.get(), 0xFFFFFFFFLL, STREAM_SEEK_SET), 0xFFFFFFFFu);
    EXPECT_EQ(WriteText(stream_.get(), "z"), STG_E_MEDIUMFULL);
    EXPECT_EQ(GlobalSize(Block()), 7u);
}

TEST_F(MemoryStreamTest, StatAndArgumentChecks) {
    ASSERT_EQ(WriteText(stream_.get(), "12345"), S_OK);
    STATSTG stat;
    std::memset(&stat, 0xAB, sizeof stat);
    ASSERT_EQ(stream_->Stat(&stat, STATFLAG_DEFAULT), S_OK);
    EXPECT_EQ(stat.type, DWORD{STGTY_STREAM});
    EXPECT_EQ(stat.cbSize.QuadPart, 5u);
    EXPECT_EQ(stat.pwcsName, nullptr);  // a memory stream has no name

    HGLOBAL h = nullptr;
    IStream* none = stream_.get();
    int notABlock = 0;
    const std::pair<HRESULT, HRESULT> checks[] = {
        {stream_->Stat(nullptr, STATFLAG_DEFAULT), STG_E_INVALIDPOINTER},
        {stream_->Stat(&stat, 0x10), STG_E_INVALIDFLAG},
        {GetHGlobalFromStream(nullptr, &h), E_INVALIDARG},
        {GetHGlobalFromStream(stream_.get(), nullptr), E_INVALIDARG},
        {CreateStreamOnHGlobal(nullptr, TRUE, nullptr), E_INVALIDARG},
        {CreateStreamOnHGlobal(&notABlock, TRUE, &none), E_INVALIDARG},
    };
    for (std::size_t i = 0; i < std::size(checks); ++i) EXPECT_EQ(checks[i].first, checks[i].second) << i;
    EXPECT_EQ(none, nullptr);
}

TEST(MemoryStream, StartsWithTheBytesOfAGivenBlockAndRespectsOwnership) {
    HGLOBAL h = GlobalAlloc(GMEM_MOVEABLE, 3);
    std::memcpy(GlobalLock(h), "xyz", 3);
    GlobalUnlock(h);
    {
        ComPtr<IStream> stream;
        ASSERT_EQ(CreateStreamOnHGlobal(h, FALSE, stream.put()), S_OK);
        EXPECT_EQ(ReadAll(stream.get()), "xyz");
        ASSERT_EQ(WriteText(stream.get(), "!"), S_OK);
    }
    EXPECT_EQ(BlockBytes(h), "xyz!");  // not freed with the stream
    {
        ComPtr<IStream> stream;
        ASSERT_EQ(CreateStreamOnHGlobal(h, TRUE, stream.put()), S_OK);
    }
    EXPECT_LAST_ERROR(GlobalSize(h), 0u, ERROR_INVALID_HANDLE);
}

}  // namespace
