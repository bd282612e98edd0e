// GUID text: the Windows format (braces, upper-case hex, field order), round
// trips through both parsers, and refusal of malformed text without touching
// the output.
#include <gtest/gtest.h>

#include <string>

#include "vorn/platform.h"

namespace {

constexpr GUID kSample = {0x0123ABCD, 0x4E5F, 0x6A7B, {0x8C, 0x9D, 0xAE, 0xBF, 0x00, 0x11, 0xF2, 0x03}};
constexpr char16_t kSampleText[] = u"{0123ABCD-4E5F-6A7B-8C9D-AEBF0011F203}";
constexpr GUID kMarker = {0xDEADBEEF, 0, 0, {1, 2, 3, 4, 5, 6, 7, 8}};

TEST(Guid, FormatsLikeWindows) {
    OLECHAR text[39];
    EXPECT_EQ(StringFromGUID2(kSample, text, 39), 39);
    EXPECT_EQ(std::u16string(text), kSampleText);

    OLECHAR small[38];
    EXPECT_EQ(StringFromGUID2(kSample, small, 38), 0);

    LPOLESTR allocated = nullptr;
    ASSERT_EQ(StringFromCLSID(kSample, &allocated), S_OK);
    EXPECT_EQ(std::u16string(allocated), kSampleText);
    CoTaskMemFree(allocated);
    ASSERT_EQ(StringFromIID(IID_IStream, &allocated), S_OK);
    EXPECT_EQ(std::u16string(allocated), u"{0000000C-0000-0000-C000-000000000046}");
    CoTaskMemFree(allocated);
    EXPECT_EQ(StringFromCLSID(kSample, nullptr), E_INVALIDARG);
}

TEST(Guid, ParsesBothCasesAndRoundTrips) {
    GUID parsed{};
    ASSERT_EQ(CLSIDFromString(kSampleText, &parsed), S_OK);
    EXPECT_EQ(parsed, kSample);

    parsed = GUID{};
    ASSERT_EQ(IIDFromString(u"{0123abcd-4e5f-6a7b-8c9d-aebf0011f203}", &parsed), S_OK);
    EXPECT_EQ(parsed, kSample);

    OLECHAR text[39];
    for (const GUID& g : {IID_IUnknown, IID_ISequentialStream, IID_IEnumUnknown, kMarker}) {
        ASSERT_EQ(StringFromGUID2(g, text, 39), 39);
        ASSERT_EQ(CLSIDFromString(text, &parsed), S_OK);
        EXPECT_EQ(parsed, g);
    }

    parsed = kMarker;
    EXPECT_EQ(CLSIDFromString(nullptr, &parsed), S_OK);
    EXPECT_EQ(parsed, GUID_NULL);
    EXPECT_EQ(CLSIDFromString(kSampleText, nullptr), E_INVALIDARG);
}

TEST(Guid, MalformedTextIsRefusedAndOutputUntouched) {
    const char16_t* malformed[] = {
        u"",
        u"0123ABCD-4E5F-6A7B-8C9D-AEBF0011F203",     // no braces
        u"{0123ABCD-4E5F-6A7B-8C9D-AEBF0011F203",    // no closing brace
        u"{0123ABCD-4E5F-6A7B-8C9D-AEBF0011F203}x",  // trailing text
        u"{0123ABCD-4E5F-6A7B-8C9D-AEBF0011F20}",    // one digit short
        u"{0123ABCG-4E5F-6A7B-8C9D-AEBF0011F203}",   // not hex
        u"{0123ABCD-4E5F-6A7B8-C9D-AEBF0011F203}",   // dash misplaced
        u"{0123ABCD+4E5F-6A7B-8C9D-AEBF0011F203}",   // wrong separator
        u"{ 123ABCD-4E5F-6A7B-8C9D-AEBF0011F203}",   // blank in a field
        u"(0123ABCD-4E5F-6A7B-8C9D-AEBF0011F203)",   // wrong brackets
    };
    for (const char16_t* text : malformed) {
        GUID clsid = kMarker;
        EXPECT_EQ(CLSIDFromString(text, &clsid), CO_E_CLASSSTRING);
        EXPECT_EQ(clsid, kMarker);
        GUID iid = kMarker;
        EXPECT_EQ(IIDFromString(text, &iid), E_INVALIDARG);
        EXPECT_EQ(iid, kMarker);
    }
}

}  // namespace
