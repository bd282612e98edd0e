// BSTR allocation: the Windows memory layout (byte-length prefix, terminator),
// embedded NULs, odd byte lengths, null handling, overflow refusal and
// reallocation, also from a pointer into the string itself.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "vorn/platform.h"

namespace {

DWORD PrefixOf(BSTR b) {
    DWORD prefix;
    std::memcpy(&prefix, reinterpret_cast<const char*>(b) - sizeof(DWORD), sizeof prefix);
    return prefix;
}

std::u16string Text(BSTR b) { return std::u16string(b, SysStringLen(b)); }

TEST(Bstr, LayoutHasByteLengthPrefixAndTerminator) {
    BSTR b = SysAllocString(u"abc");
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(PrefixOf(b), 6u);
    EXPECT_EQ(SysStringLen(b), 3u);
    EXPECT_EQ(SysStringByteLen(b), 6u);
    EXPECT_EQ(Text(b), u"abc");
    EXPECT_EQ(b[3], 0);
    SysFreeString(b);

    BSTR empty = SysAllocString(u"");
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(PrefixOf(empty), 0u);
    EXPECT_EQ(empty[0], 0);
    SysFreeString(empty);
}

TEST(Bstr, EmbeddedNulsCountInTheLength) {
    BSTR b = SysAllocStringLen(u"a\0b\0", 4);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(SysStringLen(b), 4u);
    EXPECT_EQ(PrefixOf(b), 8u);
    EXPECT_EQ(Text(b), std::u16string(u"a\0b\0", 4));
    EXPECT_EQ(b[4], 0);
    SysFreeString(b);
}

TEST(Bstr, NullInputs) {
    EXPECT_EQ(SysAllocString(nullptr), nullptr);
    EXPECT_EQ(SysStringLen(nullptr), 0u);
    EXPECT_EQ(SysStringByteLen(nullptr), 0u);
    SysFreeString(nullptr);

    BSTR zeroed = SysAllocStringLen(nullptr, 5);
    ASSERT_NE(zeroed, nullptr);
    EXPECT_EQ(SysStringLen(zeroed), 5u);
    EXPECT_EQ(Text(zeroed), std::u16string(5, u'\0'));
    EXPECT_EQ(zeroed[5], 0);
    SysFreeString(zeroed);
}

TEST(Bstr, ByteLengthStringsKeepOddLengthsAndTwoZeroBytes) {
    BSTR b = SysAllocStringByteLen("abc", 3);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(SysStringByteLen(b), 3u);
    EXPECT_EQ(SysStringLen(b), 1u);
    const auto* bytes = reinterpret_cast<const unsigned char*>(b);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(bytes), 3), "abc");
    EXPECT_EQ(bytes[3], 0);
    EXPECT_EQ(bytes[4], 0);
    SysFreeString(b);

    BSTR zeroed = SysAllocStringByteLen(nullptr, 4);
    ASSERT_NE(zeroed, nullptr);
    EXPECT_EQ(SysStringByteLen(zeroed), 4u);
    EXPECT_EQ(zeroed[0], 0);
    EXPECT_EQ(zeroed[1], 0);
    SysFreeString(zeroed);
}

TEST(Bstr, OversizedLengthsAreRefused) {
    // 0x80000000 characters would wrap to 0 bytes in 32-bit arithmetic.
    EXPECT_EQ(SysAllocStringLen(nullptr, 0x80000000u), nullptr);
    EXPECT_EQ(SysAllocStringLen(nullptr, 0xFFFFFFFFu), nullptr);
    EXPECT_EQ(SysAllocStringByteLen(nullptr, 0xFFFFFFFFu), nullptr);
    EXPECT_EQ(SysAllocStringByteLen(nullptr, 0x7FFFFFFFu), nullptr);

    BSTR b = SysAllocString(u"keep");
    EXPECT_FALSE(SysReAllocStringLen(&b, nullptr, 0x80000000u));
    EXPECT_EQ(Text(b), u"keep");
    SysFreeString(b);
}

TEST(Bstr, ReAllocStringReplacesTheText) {
    BSTR b = SysAllocString(u"short");
    ASSERT_TRUE(SysReAllocString(&b, u"a longer text"));
    EXPECT_EQ(Text(b), u"a longer text");
    EXPECT_EQ(PrefixOf(b), 26u);
    ASSERT_TRUE(SysReAllocString(&b, u"x"));
    EXPECT_EQ(Text(b), u"x");
    EXPECT_EQ(b[1], 0);

    // A source inside the string being replaced.
    ASSERT_TRUE(SysReAllocString(&b, u"0123456789"));
    ASSERT_TRUE(SysReAllocString(&b, b + 6));
    EXPECT_EQ(Text(b), u"6789");

    // A null source gives the empty string; a null target is refused.
    ASSERT_TRUE(SysReAllocString(&b, nullptr));
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(SysStringLen(b), 0u);
    EXPECT_FALSE(SysReAllocString(nullptr, u"x"));
    SysFreeString(b);
}

TEST(Bstr, ReAllocStringLenWithNullSourceKeepsOldContents) {
    BSTR b = SysAllocString(u"abcdef");
    ASSERT_TRUE(SysReAllocStringLen(&b, nullptr, 3));
    EXPECT_EQ(Text(b), u"abc");
    EXPECT_EQ(b[3], 0);
    ASSERT_TRUE(SysReAllocStringLen(&b, nullptr, 5));
    EXPECT_EQ(Text(b), std::u16string(u"abc\0\0", 5));

    ASSERT_TRUE(SysReAllocStringLen(&b, u"xy\0z", 4));
    EXPECT_EQ(Text(b), std::u16string(u"xy\0z", 4));
    ASSERT_TRUE(SysReAllocStringLen(&b, b + 1, 3));
    EXPECT_EQ(Text(b), std::u16string(u"y\0z", 3));
    SysFreeString(b);
}

}  // namespace
