// The snapshot enumerator: references held by the snapshot and handed out by
// Next, S_OK/S_FALSE on full and short reads, Skip/Reset, clones sharing the
// snapshot but not the position, and argument checks.
#include <gtest/gtest.h>

#include "com_test_util.h"
#include "vorn/platform.h"

namespace {

using vorn::ComPtr;
using vorn::test::CountedObject;

class EnumUnknownTest : public ::testing::Test {
protected:
    void SetUp() override {
        IUnknown* items[] = {&a_, &b_, &c_};
        ASSERT_EQ(VornCreateEnumUnknown(items, 3, enum_.put()), S_OK);
    }

    // Next(celt) into `out`; returns the HRESULT and the count fetched.
    std::pair<HRESULT, ULONG> Next(ULONG celt, IUnknown** out) {
        ULONG fetched = 99;
        const HRESULT hr = enum_->Next(celt, out, &fetched);
        return {hr, fetched};
    }

    CountedObject a_, b_, c_;
    ComPtr<IEnumUnknown> enum_;
};

TEST_F(EnumUnknownTest, SnapshotHoldsOneReferenceUntilTheLastEnumeratorGoes) {
    EXPECT_EQ(a_.refs(), 2u);
    EXPECT_EQ(c_.refs(), 2u);
    ComPtr<IEnumUnknown> clone;
    ASSERT_EQ(enum_->Clone(clone.put()), S_OK);
    EXPECT_EQ(a_.refs(), 2u);  // shared, not copied
    enum_.reset();
    EXPECT_EQ(a_.refs(), 2u);
    clone.reset();
    EXPECT_EQ(a_.refs(), 1u);
    EXPECT_EQ(b_.refs(), 1u);
    EXPECT_EQ(c_.refs(), 1u);
}

TEST_F(EnumUnknownTest, NextReturnsAddRefedItemsAndSFalseOnShortReads) {
    IUnknown* out[4] = {};
    EXPECT_EQ(Next(2, out), std::make_pair(S_OK, 2u));
    EXPECT_EQ(out[0], &a_);
    EXPECT_EQ(out[1], &b_);
    EXPECT_EQ(a_.refs(), 3u);
    out[0]->Release();
    out[1]->Release();

    EXPECT_EQ(Next(4, out), std::make_pair(S_FALSE, 1u));
    EXPECT_EQ(out[0], &c_);
    out[0]->Release();
    EXPECT_EQ(Next(1, out), std::make_pair(S_FALSE, 0u));
    EXPECT_EQ(Next(0, out), std::make_pair(S_OK, 0u));

    // One item may be asked for without a count.
    ASSERT_EQ(enum_->Reset(), S_OK);
    EXPECT_EQ(enum_->Next(1, out, nullptr), S_OK);
    EXPECT_EQ(out[0], &a_);
    out[0]->Release();
    EXPECT_EQ(a_.refs(), 2u);
}

TEST_F(EnumUnknownTest, SkipAndCloneKeepTheirOwnPositions) {
    EXPECT_EQ(enum_->Skip(1), S_OK);
    ComPtr<IEnumUnknown> clone;
    ASSERT_EQ(enum_->Clone(clone.put()), S_OK);  // starts at b, as the original
    EXPECT_EQ(clone->Skip(1), S_OK);
    EXPECT_EQ(clone->Skip(2), S_FALSE);  // only c was left

    IUnknown* out[1] = {};
    EXPECT_EQ(Next(1, out), std::make_pair(S_OK, 1u));
    EXPECT_EQ(out[0], &b_);
    out[0]->Release();
    ASSERT_EQ(clone->Reset(), S_OK);
    EXPECT_EQ(clone->Skip(0xFFFFFFFFu), S_FALSE);
}

TEST_F(EnumUnknownTest, ArgumentChecksAndQueryInterface) {
    IUnknown* out[2] = {};
    EXPECT_EQ(enum_->Next(2, out, nullptr), E_INVALIDARG);
    EXPECT_EQ(enum_->Next(1, nullptr, nullptr), E_POINTER);
    EXPECT_EQ(enum_->Clone(nullptr), E_POINTER);
    EXPECT_EQ(a_.refs(), 2u);

    ComPtr<IUnknown> unknown;
    EXPECT_EQ(enum_.As(&unknown), S_OK);
    ComPtr<IStream> stream;
    EXPECT_EQ(enum_.As(&stream), E_NOINTERFACE);
    EXPECT_EQ(stream.get(), nullptr);
    EXPECT_EQ(enum_->QueryInterface(IID_IEnumUnknown, nullptr), E_POINTER);
}

TEST(EnumUnknown, EmptyAndNullEntries) {
    ComPtr<IEnumUnknown> empty;
    ASSERT_EQ(VornCreateEnumUnknown(nullptr, 0, empty.put()), S_OK);
    IUnknown* out[1] = {};
    ULONG fetched = 7;
    EXPECT_EQ(empty->Next(1, out, &fetched), S_FALSE);
    EXPECT_EQ(fetched, 0u);

    CountedObject a;
    IUnknown* items[] = {nullptr, &a};
    ComPtr<IEnumUnknown> holes;
    ASSERT_EQ(VornCreateEnumUnknown(items, 2, holes.put()), S_OK);
    IUnknown* two[2] = {&a, nullptr};
    ASSERT_EQ(holes->Next(2, two, &fetched), S_OK);
    EXPECT_EQ(two[0], nullptr);
    EXPECT_EQ(two[1], &a);
    two[1]->Release();

    EXPECT_EQ(VornCreateEnumUnknown(items, 2, nullptr), E_POINTER);
    IEnumUnknown* none = holes.get();
    EXPECT_EQ(VornCreateEnumUnknown(nullptr, 1, &none), E_INVALIDARG);
    EXPECT_EQ(none, nullptr);
}

}  // namespace
