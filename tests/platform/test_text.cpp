// UTF-8 <-> UTF-16 conversion as vorn::Widen and vorn::Narrow call it (UTF-8,
// no flags, explicit lengths, output sized by the caller): round trips with
// surrogate pairs and the replacement of invalid input; the case-insensitive
// comparison of the name map. Other code pages, flags, terminators, size
// queries and argument checks of the Win32 calls are used by nothing outside
// the runtime and are not tested here.
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "platform/test_util.h"

namespace {

// "A", a-umlaut, euro sign, U+1F600 (a surrogate pair in UTF-16).
const std::string kUtf8 = "A\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80";
const std::u16string kUtf16 = u"A\u00E4\u20AC\U0001F600";

TEST(Text, RoundTripWithSurrogatePairs) {
    EXPECT_EQ(vorn::Widen(kUtf8), kUtf16);
    EXPECT_EQ(vorn::Narrow(kUtf16), kUtf8);
    // An explicit length stops there and adds no terminator.
    char16_t two[2] = {u'x', u'x'};
    EXPECT_EQ(MultiByteToWideChar(CP_UTF8, 0, "ab", 1, two, 2), 1);
    EXPECT_EQ(two[1], u'x');
}

TEST(Text, InvalidInputIsReplaced) {
    const std::u16string r = u"\uFFFD";
    const std::pair<std::string, std::u16string> widened[] = {
        {"a\xFFz", u"a" + r + u"z"},
        {"\xC0\xAF", r + r},                  // overlong "/"
        {"\xED\xA0\x80", r + r + r},          // encoded surrogate
        {"\xF4\x90\x80\x80", r + r + r + r},  // above U+10FFFF
        {"x\xE2\x82", u"x" + r},              // truncated at the end
        {"\xE2\x82y", r + u"y"},              // truncated before ASCII
        {"\x80", r},                          // stray continuation
    };
    for (const auto& [narrow, wide] : widened) EXPECT_EQ(vorn::Widen(narrow), wide) << narrow;
    // Lone surrogates, the last a high surrogate at the end.
    for (const std::u16string& lone : {std::u16string(u"\xD800"), std::u16string(u"\xDC00"), std::u16string(u"\xD83D")})
        EXPECT_EQ(vorn::Narrow(u"a" + lone), "a\xEF\xBF\xBD");
    EXPECT_EQ(vorn::Narrow(u"a\xD800z"), "a\xEF\xBF\xBDz");
}

TEST(Text, CaseInsensitiveComparison) {
    EXPECT_EQ(lstrcmpiW(u"SignalFreq", u"signalfreq"), 0);
    EXPECT_EQ(lstrcmpiW(u"\u00C9T\u00C9", u"\u00E9t\u00E9"), 0);
    EXPECT_NE(lstrcmpiW(u"\u00D7", u"\u00F7"), 0);  // multiplication and division signs are not letters
    EXPECT_LT(lstrcmpiW(u"ABC", u"abd"), 0);
    EXPECT_LT(lstrcmpiW(u"ab", u"ABC"), 0);
}

}  // namespace
