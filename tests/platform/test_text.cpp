// UTF-8 <-> UTF-16 conversion as vorn::Widen and vorn::Narrow call it (UTF-8,
// no flags, explicit lengths, output sized by the caller): round trips with
// surrogate pairs and the replacement of invalid input; the code pages and
// flags docs/platform.md states; the case-insensitive comparison of the name
// map. Terminators, size queries and argument checks of the Win32 calls are
// used by nothing outside the runtime and are not repeated here.
#include <gtest/gtest.h>

#include <string>

#include "platform/test_util.h"

namespace {

// "A", a-umlaut, euro sign, U+1F600 (a surrogate pair in UTF-16).
const std::string kUtf8 = "A\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80";
const std::u16string kUtf16 = u"A\u00E4\u20AC\U0001F600";

TEST(Text, RoundTripWithSurrogatePairs) {
    EXPECT_EQ(vorn::Widen(kUtf8), kUtf16);
    EXPECT_EQ(kUtf16.size(), 5u);
    EXPECT_EQ(vorn::Narrow(kUtf16), kUtf8);
    // An explicit length stops there and adds no terminator.
    char16_t two[2] = {u'x', u'x'};
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, "ab", 1, two, 2), 1);
    EXPECT_EQ(two[1], u'x');
}

TEST(Text, InvalidInputIsReplaced) {
    const std::u16string r = u"\uFFFD";
    EXPECT_EQ(vorn::Widen("a\xFF"
                          "b"),
              u"a" + r + u"b");
    EXPECT_EQ(vorn::Widen("\xC0\xAF"), r + r);                  // overlong "/"
    EXPECT_EQ(vorn::Widen("\xED\xA0\x80"), r + r + r);          // encoded surrogate
    EXPECT_EQ(vorn::Widen("\xF4\x90\x80\x80"), r + r + r + r);  // above U+10FFFF
    EXPECT_EQ(vorn::Widen("x\xE2\x82"), u"x" + r);              // truncated at the end
    EXPECT_EQ(vorn::Widen("\xE2\x82y"), r + u"y");              // truncated before ASCII
    EXPECT_EQ(vorn::Widen("\x80"), r);                          // stray continuation

    // Lone surrogates.
    EXPECT_EQ(vorn::Narrow(u"a\xD800"
                           u"b"),
              "a\xEF\xBF\xBD"
              "b");
    EXPECT_EQ(vorn::Narrow(std::u16string(1, u'\xDC00')), "\xEF\xBF\xBD");
    EXPECT_EQ(vorn::Narrow(std::u16string(1, u'\xD83D')), "\xEF\xBF\xBD");  // high surrogate at the end
}

TEST(Text, CodePagesAndFlagsAsDocumented) {
    char16_t wide[8];
    char narrow[8];
    for (UINT cp : {CP_ACP, CP_OEMCP, CP_THREAD_ACP})
        EXPECT_EQ(MultiByteToWideChar(cp, 0, "\xC3\xA4", 2, wide, 8), 1) << cp;
    EXPECT_LAST_ERROR(MultiByteToWideChar(1252, 0, "a", 1, wide, 8), 0, ERROR_INVALID_PARAMETER);
    EXPECT_LAST_ERROR(MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, "a\xFF", 2, wide, 8), 0,
                      ERROR_NO_UNICODE_TRANSLATION);
    EXPECT_LAST_ERROR(WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, u"\xDFFF", 1, narrow, 8, nullptr, nullptr), 0,
                      ERROR_NO_UNICODE_TRANSLATION);
    EXPECT_LAST_ERROR(MultiByteToWideChar(CP_UTF8, 0x1 /* MB_PRECOMPOSED */, "a", 1, wide, 8), 0, ERROR_INVALID_FLAGS);
    EXPECT_LAST_ERROR(
        WideCharToMultiByte(CP_UTF8, 0x400 /* WC_NO_BEST_FIT_CHARS */, u"a", 1, narrow, 8, nullptr, nullptr), 0,
        ERROR_INVALID_FLAGS);
    BOOL used = FALSE;
    EXPECT_LAST_ERROR(WideCharToMultiByte(CP_UTF8, 0, u"a", 1, narrow, 8, "?", &used), 0, ERROR_INVALID_PARAMETER);
}

TEST(Text, CaseInsensitiveComparison) {
    EXPECT_EQ(lstrcmpiW(u"SignalFreq", u"signalfreq"), 0);
    EXPECT_EQ(lstrcmpiW(u"\u00C9T\u00C9", u"\u00E9t\u00E9"), 0);
    EXPECT_NE(lstrcmpiW(u"\u00D7", u"\u00F7"), 0);  // multiplication and division signs are not letters
    EXPECT_LT(lstrcmpiW(u"ABC", u"abd"), 0);
    EXPECT_LT(lstrcmpiW(u"ab", u"ABC"), 0);
}

}  // namespace
