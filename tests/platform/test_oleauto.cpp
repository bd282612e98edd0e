// BSTR allocation and VARIANT clear/copy. BSTRs: the Windows memory layout
// (byte-length prefix, terminator), embedded NULs, null handling and
// overflow refusal. Variants: BSTR deep copies (the notification thread's
// copies of a parameter's value) and the refusal of types a variant here
// cannot hold, which must leave everything untouched.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>

#include "platform/test_util.h"

namespace {

DWORD PrefixOf(BSTR b) {
    DWORD prefix;
    std::memcpy(&prefix, reinterpret_cast<const char*>(b) - sizeof(DWORD), sizeof prefix);
    return prefix;
}

std::u16string Text(BSTR b) { return std::u16string(b, SysStringLen(b)); }

TEST(Bstr, LayoutHasByteLengthPrefixAndTerminatorAndOversizedLengthsAreRefused) {
    const std::pair<const char16_t*, std::u16string> cases[] = {
        {u"abc", u"abc"}, {u"", u""}, {u"a\0b\0", std::u16string(u"a\0b\0", 4)}, {nullptr, std::u16string(5, u'\0')}};
    for (const auto& [source, text] : cases) {
        BSTR b = SysAllocStringLen(source, static_cast<UINT>(text.size()));
        ASSERT_NE(b, nullptr);
        EXPECT_EQ(PrefixOf(b), 2 * text.size());
        EXPECT_EQ(SysStringByteLen(b), 2 * text.size());
        EXPECT_EQ(Text(b), text);
        EXPECT_EQ(b[text.size()], 0);
        SysFreeString(b);
    }
    EXPECT_EQ(SysStringLen(nullptr), 0u);
    EXPECT_EQ(SysStringByteLen(nullptr), 0u);
    SysFreeString(nullptr);
    // 0x80000000 characters would wrap to 0 bytes in 32-bit arithmetic.
    for (UINT length : {0x80000000u, 0xFFFFFFFFu, 0x3FFFFFFFu}) EXPECT_EQ(SysAllocStringLen(nullptr, length), nullptr);
}

// A variant of type `vt` whose pointer member is `b`.
VARIANT Holding(VARTYPE vt, BSTR b = nullptr) {
    VARIANT v;
    VariantInit(&v);
    v.vt = vt;
    v.bstrVal = b;
    return v;
}

TEST(Variant, CopyOfBstrIsDeepAndKeepsTheLength) {
    VARIANT src = Holding(VT_BSTR, SysAllocStringLen(u"a\0bcd", 5));
    VARIANT dst = Holding(VT_EMPTY);
    ASSERT_EQ(VariantCopy(&dst, &src), S_OK);
    EXPECT_EQ(dst.vt, VT_BSTR);
    ASSERT_NE(dst.bstrVal, src.bstrVal);
    // The copy outlives the source.
    ASSERT_EQ(VariantClear(&src), S_OK);
    EXPECT_EQ(src.vt, VT_EMPTY);
    EXPECT_EQ(Text(dst.bstrVal), std::u16string(u"a\0bcd", 5));
    EXPECT_EQ(VariantClear(&dst), S_OK);

    VARIANT nullText = Holding(VT_BSTR, nullptr);
    ASSERT_EQ(VariantCopy(&dst, &nullText), S_OK);
    EXPECT_EQ(dst.vt, VT_BSTR);
    EXPECT_EQ(dst.bstrVal, nullptr);

    // Onto itself: nothing is freed or copied.
    BSTR text = SysAllocStringLen(u"same", 4);
    VARIANT s = Holding(VT_BSTR, text);
    EXPECT_EQ(VariantCopy(&s, &s), S_OK);
    EXPECT_EQ(s.bstrVal, text);
    EXPECT_EQ(std::u16string(s.bstrVal), u"same");
    VariantClear(&s);
}

TEST(Variant, UnsupportedTypesAreRefusedWithoutChanges) {
    BSTR kept = SysAllocStringLen(u"kept", 4);
    VARIANT dst = Holding(VT_BSTR, kept);
    for (VARTYPE bad : {VARTYPE(VT_ARRAY | VT_I4), VARTYPE(VT_RECORD), VARTYPE(VT_VARIANT), VARTYPE(VT_LPWSTR),
                        VARTYPE(VT_VECTOR | VT_I4), VARTYPE(VT_BYREF | VT_EMPTY), VARTYPE(0x7FFF)}) {
        VARIANT src = Holding(bad);
        EXPECT_EQ(VariantCopy(&dst, &src), DISP_E_BADVARTYPE) << "vt " << bad;
        EXPECT_EQ(dst.vt, VT_BSTR);
        EXPECT_EQ(dst.bstrVal, kept);
        EXPECT_EQ(VariantClear(&src), DISP_E_BADVARTYPE) << "vt " << bad;
        EXPECT_EQ(src.vt, bad);
    }
    EXPECT_EQ(std::u16string(dst.bstrVal), u"kept");
    EXPECT_EQ(VariantCopy(&dst, nullptr), E_INVALIDARG);
    EXPECT_EQ(VariantClear(nullptr), E_INVALIDARG);
    VariantClear(&dst);
}

}  // namespace
