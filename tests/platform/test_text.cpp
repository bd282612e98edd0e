// UTF-8 <-> UTF-16 conversion under the Win32 names: round trips with
// surrogate pairs, terminator and size-query rules, replacement or refusal of
// invalid input, buffer and argument errors; the wide-string helpers.
#include <gtest/gtest.h>

#include <string>

#include "platform/test_util.h"

namespace {

// "A", a-umlaut, euro sign, U+1F600 (a surrogate pair in UTF-16).
const std::string kUtf8 = "A\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80";
const std::u16string kUtf16 = u"A\u00E4\u20AC\U0001F600";

std::u16string ToWide(const std::string& in, DWORD flags = 0) {
    const int n = MultiByteToWideChar(CP_UTF8, flags, in.data(), static_cast<int>(in.size()), nullptr, 0);
    std::u16string out(static_cast<std::size_t>(n), u'\0');
    if (n > 0) {
        EXPECT_EQ(MultiByteToWideChar(CP_UTF8, flags, in.data(), static_cast<int>(in.size()), out.data(), n), n);
    }
    return out;
}

std::string ToNarrow(const std::u16string& in, DWORD flags = 0) {
    const int n =
        WideCharToMultiByte(CP_UTF8, flags, in.data(), static_cast<int>(in.size()), nullptr, 0, nullptr, nullptr);
    std::string out(static_cast<std::size_t>(n), '\0');
    if (n > 0) {
        EXPECT_EQ(WideCharToMultiByte(CP_UTF8, flags, in.data(), static_cast<int>(in.size()), out.data(), n, nullptr,
                                      nullptr),
                  n);
    }
    return out;
}

TEST(Text, RoundTripWithSurrogatePairsAndTerminators) {
    EXPECT_EQ(ToWide(kUtf8), kUtf16);
    EXPECT_EQ(kUtf16.size(), 5u);
    EXPECT_EQ(ToNarrow(kUtf16), kUtf8);
    // Every code page name of this platform is UTF-8.
    for (UINT cp : {CP_ACP, CP_OEMCP, CP_THREAD_ACP}) {
        char16_t out[8] = {1, 1, 1, 1, 1, 1, 1, 1};
        EXPECT_EQ(MultiByteToWideChar(cp, 0, kUtf8.c_str(), -1, out, 8), 6);
        EXPECT_EQ(std::u16string(out, 6), kUtf16 + u'\0');
    }

    // Length -1 includes the terminator, in the size query too.
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, kUtf8.c_str(), -1, nullptr, 0), 6);
    EXPECT_EQ(WideCharToMultiByte(CP_UTF8, 0, kUtf16.c_str(), -1, nullptr, 0, nullptr, nullptr), 11);
    char narrow[11];
    ASSERT_EQ(WideCharToMultiByte(CP_UTF8, 0, kUtf16.c_str(), -1, narrow, 11, nullptr, nullptr), 11);
    EXPECT_EQ(std::string(narrow), kUtf8);

    // An explicit length stops there and adds no terminator.
    char16_t two[2] = {u'x', u'x'};
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, "ab", 1, two, 2), 1);
    EXPECT_EQ(two[1], u'x');
}

TEST(Text, InvalidUtf8IsReplacedOrRefused) {
    const std::u16string r = u"\uFFFD";
    EXPECT_EQ(ToWide("a\xFF"
                     "b"),
              u"a" + r + u"b");
    EXPECT_EQ(ToWide("\xC0\xAF"), r + r);                  // overlong "/"
    EXPECT_EQ(ToWide("\xED\xA0\x80"), r + r + r);          // encoded surrogate
    EXPECT_EQ(ToWide("\xF4\x90\x80\x80"), r + r + r + r);  // above U+10FFFF
    EXPECT_EQ(ToWide("x\xE2\x82"), u"x" + r);              // truncated at the end
    EXPECT_EQ(ToWide("\xE2\x82y"), r + u"y");              // truncated before ASCII
    EXPECT_EQ(ToWide("\x80"), r);                          // stray continuation

    EXPECT_LAST_ERROR(MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, "a\xFF", 2, nullptr, 0), 0,
                      ERROR_NO_UNICODE_TRANSLATION);
    EXPECT_EQ(ToWide(kUtf8, MB_ERR_INVALID_CHARS), kUtf16);
}

TEST(Text, LoneSurrogatesAreReplacedOrRefused) {
    EXPECT_EQ(ToNarrow(u"a\xD800"
                       u"b"),
              "a\xEF\xBF\xBD"
              "b");
    EXPECT_EQ(ToNarrow(std::u16string(1, u'\xDC00')), "\xEF\xBF\xBD");
    EXPECT_EQ(ToNarrow(std::u16string(1, u'\xD83D')), "\xEF\xBF\xBD");  // high surrogate at the end

    EXPECT_LAST_ERROR(WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, u"\xDFFF", 1, nullptr, 0, nullptr, nullptr), 0,
                      ERROR_NO_UNICODE_TRANSLATION);
}

TEST(Text, ShortBuffersAndBadArgumentsFail) {
    char16_t wide[4];
    char narrow[4];
    // A short buffer fails rather than split a surrogate pair.
    EXPECT_LAST_ERROR(MultiByteToWideChar(CP_UTF8, 0, "\xF0\x9F\x98\x80", 4, wide, 1), 0, ERROR_INSUFFICIENT_BUFFER);
    EXPECT_LAST_ERROR(WideCharToMultiByte(CP_UTF8, 0, u"\U0001F600", 2, narrow, 3, nullptr, nullptr), 0,
                      ERROR_INSUFFICIENT_BUFFER);
    EXPECT_LAST_ERROR(MultiByteToWideChar(1252, 0, "a", 1, wide, 4), 0, ERROR_INVALID_PARAMETER);
    EXPECT_LAST_ERROR(MultiByteToWideChar(CP_UTF8, 0, nullptr, 1, wide, 4), 0, ERROR_INVALID_PARAMETER);
    EXPECT_LAST_ERROR(MultiByteToWideChar(CP_UTF8, 0, "a", 0, wide, 4), 0, ERROR_INVALID_PARAMETER);
    EXPECT_LAST_ERROR(MultiByteToWideChar(CP_UTF8, 0, "a", 1, wide, -1), 0, ERROR_INVALID_PARAMETER);
    EXPECT_LAST_ERROR(MultiByteToWideChar(CP_UTF8, 0, "a", 1, nullptr, 4), 0, ERROR_INVALID_PARAMETER);
    EXPECT_LAST_ERROR(MultiByteToWideChar(CP_UTF8, 0x1 /* MB_PRECOMPOSED */, "a", 1, wide, 4), 0, ERROR_INVALID_FLAGS);
    EXPECT_LAST_ERROR(
        WideCharToMultiByte(CP_UTF8, 0x400 /* WC_NO_BEST_FIT_CHARS */, u"a", 1, narrow, 4, nullptr, nullptr), 0,
        ERROR_INVALID_FLAGS);
    BOOL used = FALSE;
    EXPECT_LAST_ERROR(WideCharToMultiByte(CP_UTF8, 0, u"a", 1, narrow, 4, nullptr, &used), 0, ERROR_INVALID_PARAMETER);
    EXPECT_LAST_ERROR(WideCharToMultiByte(CP_UTF8, 0, u"a", 1, narrow, 4, "?", nullptr), 0, ERROR_INVALID_PARAMETER);
}

TEST(Text, CaseInsensitiveComparison) {
    EXPECT_EQ(lstrcmpiW(u"SignalFreq", u"signalfreq"), 0);
    EXPECT_EQ(lstrcmpiW(u"\u00C9T\u00C9", u"\u00E9t\u00E9"), 0);
    EXPECT_NE(lstrcmpiW(u"\u00D7", u"\u00F7"), 0);  // multiplication and division signs are not letters
    EXPECT_LT(lstrcmpiW(u"ABC", u"abd"), 0);
    EXPECT_LT(lstrcmpiW(u"ab", u"ABC"), 0);
}

}  // namespace
