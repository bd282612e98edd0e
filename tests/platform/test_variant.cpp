// VARIANT clear and copy: BSTR deep copies (embedded NULs, odd byte lengths),
// interface reference counting, by-reference shallow copies and the refusal
// of types a variant here cannot hold, which must leave everything untouched.
#include <gtest/gtest.h>

#include <string>

#include "com_test_util.h"
#include "vorn/platform.h"

namespace {

using vorn::test::CountedObject;

VARIANT Empty() {
    VARIANT v;
    VariantInit(&v);
    return v;
}

VARIANT WithBstr(BSTR b) {
    VARIANT v = Empty();
    v.vt = VT_BSTR;
    v.bstrVal = b;
    return v;
}

VARIANT WithUnknown(VARTYPE vt, IUnknown* p) {
    VARIANT v = Empty();
    v.vt = vt;
    v.punkVal = p;
    return v;
}

TEST(Variant, CopyOfBstrIsDeepAndKeepsByteLength) {
    VARIANT src = WithBstr(SysAllocStringByteLen("a\0bcd", 5));
    VARIANT dst = Empty();
    ASSERT_EQ(VariantCopy(&dst, &src), S_OK);
    EXPECT_EQ(dst.vt, VT_BSTR);
    ASSERT_NE(dst.bstrVal, src.bstrVal);
    EXPECT_EQ(SysStringByteLen(dst.bstrVal), 5u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(dst.bstrVal), 5), std::string("a\0bcd", 5));

    // The copy outlives the source.
    ASSERT_EQ(VariantClear(&src), S_OK);
    EXPECT_EQ(src.vt, VT_EMPTY);
    EXPECT_EQ(SysStringByteLen(dst.bstrVal), 5u);
    EXPECT_EQ(VariantClear(&dst), S_OK);

    VARIANT nullText = WithBstr(nullptr);
    ASSERT_EQ(VariantCopy(&dst, &nullText), S_OK);
    EXPECT_EQ(dst.vt, VT_BSTR);
    EXPECT_EQ(dst.bstrVal, nullptr);
}

TEST(Variant, CopyAndClearCountInterfaceReferences) {
    CountedObject a;
    CountedObject b;
    VARIANT src = WithUnknown(VT_UNKNOWN, &a);
    VARIANT dst = Empty();
    ASSERT_EQ(VariantCopy(&dst, &src), S_OK);
    EXPECT_EQ(dst.punkVal, &a);
    EXPECT_EQ(a.refs(), 2u);

    // Copying over an interface releases the one held before.
    VARIANT other = WithUnknown(VT_DISPATCH, &b);
    ASSERT_EQ(VariantCopy(&dst, &other), S_OK);
    EXPECT_EQ(dst.vt, VT_DISPATCH);
    EXPECT_EQ(a.refs(), 1u);
    EXPECT_EQ(b.refs(), 2u);
    ASSERT_EQ(VariantClear(&dst), S_OK);
    EXPECT_EQ(b.refs(), 1u);
    EXPECT_EQ(dst.vt, VT_EMPTY);

    VARIANT none = WithUnknown(VT_UNKNOWN, nullptr);
    ASSERT_EQ(VariantCopy(&dst, &none), S_OK);
    EXPECT_EQ(dst.punkVal, nullptr);
    EXPECT_EQ(VariantClear(&dst), S_OK);
}

TEST(Variant, CopyOntoItselfChangesNothing) {
    CountedObject a;
    VARIANT v = WithUnknown(VT_UNKNOWN, &a);
    EXPECT_EQ(VariantCopy(&v, &v), S_OK);
    EXPECT_EQ(a.refs(), 1u);
    EXPECT_EQ(v.punkVal, &a);

    BSTR text = SysAllocString(u"same");
    VARIANT s = WithBstr(text);
    EXPECT_EQ(VariantCopy(&s, &s), S_OK);
    EXPECT_EQ(s.bstrVal, text);
    EXPECT_EQ(std::u16string(s.bstrVal), u"same");
    VariantClear(&s);
}

TEST(Variant, ScalarsAndByRefAreCopiedBitwise) {
    VARIANT src = Empty();
    src.vt = VT_R8;
    src.dblVal = -2.5;
    VARIANT dst = Empty();
    ASSERT_EQ(VariantCopy(&dst, &src), S_OK);
    EXPECT_EQ(dst.vt, VT_R8);
    EXPECT_EQ(dst.dblVal, -2.5);

    // By reference: the pointer is copied, nothing is owned or freed.
    BSTR text = SysAllocString(u"referenced");
    src.vt = VT_BYREF | VT_BSTR;
    src.byref = &text;
    ASSERT_EQ(VariantCopy(&dst, &src), S_OK);
    EXPECT_EQ(dst.vt, VT_BYREF | VT_BSTR);
    EXPECT_EQ(dst.byref, &text);
    ASSERT_EQ(VariantClear(&dst), S_OK);
    EXPECT_EQ(std::u16string(text), u"referenced");
    SysFreeString(text);
}

TEST(Variant, UnsupportedTypesAreRefusedWithoutChanges) {
    BSTR kept = SysAllocString(u"kept");
    VARIANT dst = WithBstr(kept);
    for (VARTYPE bad : {VARTYPE(VT_ARRAY | VT_I4), VARTYPE(VT_RECORD), VARTYPE(VT_VARIANT), VARTYPE(VT_LPWSTR),
                        VARTYPE(VT_VECTOR | VT_I4), VARTYPE(VT_BYREF | VT_EMPTY), VARTYPE(0x7FFF)}) {
        VARIANT src = Empty();
        src.vt = bad;
        src.byref = nullptr;
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
