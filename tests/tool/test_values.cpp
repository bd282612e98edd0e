// Values as the vorndb tool reads and writes them: units and engineering
// prefixes, integers, booleans, enumerations, quoted strings, lists, and the
// splitting of shell lines into words.
#include <gtest/gtest.h>

#include <cmath>
#include <tuple>

#include "Commands.h"
#include "Values.h"

namespace vorndb {
namespace {

constexpr std::uint32_t kNone = 0, kSec = 2, kVolt = 3, kHz = 4, kDbm = 5, kDb = 7, kDbcHz = 10;

// The exit code and message of the ToolError `call` throws; -1 when it
// throws none.
template <class F>
std::pair<int, std::string> Error(F call) {
    try {
        call();
    } catch (const ToolError& e) {
        return {e.code(), e.what()};
    }
    return {-1, ""};
}
template <class F>
int ErrorCode(F call) {
    return Error(call).first;
}

TEST(FormatReal, EngineeringPrefixesOnLinearUnitsOnly) {
    // Beyond the largest prefix the mantissa grows; rounding does not leave a
    // mantissa of one thousand; logarithmic and dimensionless units stay
    // unscaled.
    const std::tuple<const char*, double, std::uint32_t> cases[] = {
        {"1.5 MHz", 1.5e6, kHz},     {"50 GHz", 50e9, kHz},       {"20 Hz", 20, kHz},
        {"100 ns", 1e-7, kSec},      {"-2.5 mV", -2.5e-3, kVolt}, {"0 Hz", 0, kHz},
        {"1000 THz", 1e15, kHz},     {"-30 dBm", -30, kDbm},      {"1500 dB", 1500, kDb},
        {"-60 dBc/Hz", -60, kDbcHz}, {"12345.5", 12345.5, kNone}, {"1 unit#99", 1, 99}};
    for (const auto& [text, value, unit] : cases) EXPECT_EQ(FormatReal(value, unit), text);
    EXPECT_EQ(FormatReal(999999.99999999999, kHz), "1 MHz");
    EXPECT_EQ(FormatReal(999999999999.9999, kHz), "1 THz");
    // A subnormal value prints as one (its mantissa is subnormal too).
    EXPECT_EQ(FormatReal(1e-323, kHz).substr(0, 2), "9.");
}

TEST(ParseReal, ReadsUnitsPrefixesAndPlainNumbers) {
    // m is milli, M mega.
    const std::tuple<const char*, std::uint32_t, double> cases[] = {
        {"10 kHz", kHz, 1e4},    {"10kHz", kHz, 1e4},         {"10 KHz", kHz, 1e4},      {"10 khz", kHz, 1e4},
        {"10k", kHz, 1e4},       {"5e6", kHz, 5e6},           {" 1.5 GHz ", kHz, 1.5e9}, {"1.5 mHz", kHz, 1.5e-3},
        {"1.5 MHz", kHz, 1.5e6}, {"2 \xC2\xB5s", kSec, 2e-6}, {"2us", kSec, 2e-6},       {"-30 dBm", kDbm, -30},
        {"-30", kDbm, -30},      {"-60 dbc/hz", kDbcHz, -60}, {".5", kNone, 0.5}};
    for (const auto& [text, unit, value] : cases) EXPECT_DOUBLE_EQ(ParseReal(text, unit), value) << text;
}

TEST(ParseReal, RejectsWhatIsNotAValueInTheUnit) {
    for (const char* text :
         {"", "abc", "inf", "-inf", "nan", "0x10", "1e999", "1e308 THz", "10 kHz extra", "10 kV", "10 dB"})
        EXPECT_EQ(ErrorCode([&] { ParseReal(text, text == std::string("10 dB") ? kDbm : kHz); }), kExitRejected)
            << text;
    // Logarithmic units take no prefix.
    EXPECT_EQ(ErrorCode([] { ParseReal("10 kdBm", kDbm); }), kExitRejected);
    EXPECT_EQ(ErrorCode([] { ParseReal("10k", kDbm); }), kExitRejected);
    // A unit on a dimensionless parameter is an error, not ignored.
    EXPECT_EQ(ErrorCode([] { ParseReal("3 Hz", kNone); }), kExitRejected);
    // The message says what was expected.
    const std::string message = Error([] { ParseReal("ten", kHz); }).second;
    EXPECT_NE(message.find("'ten'"), std::string::npos) << message;
    EXPECT_NE(message.find("Hz"), std::string::npos) << message;
}

TEST(FormatAndParse, WholeHertzSurviveTheRoundTrip) {
    for (double v = 1; v <= 1e11; v = v * 7 + 3) {
        EXPECT_EQ(ParseReal(FormatReal(v, kHz), kHz), v) << FormatReal(v, kHz);
        EXPECT_EQ(ParseReal(FormatReal(-v, kHz), kHz), -v);
    }
    for (const double v : {1.5e-9, 2.25e-6, 0.1, 123.456, 7.5e3})
        EXPECT_NEAR(ParseReal(FormatReal(v, kSec), kSec), v, std::fabs(v) * 1e-11) << FormatReal(v, kSec);
}

TEST(ParseInteger, DecimalAndHexadecimalWithin32Bits) {
    EXPECT_EQ(ParseInteger("42"), 42u);
    EXPECT_EQ(ParseInteger(" 0x2A "), 42u);
    EXPECT_EQ(ParseInteger("4294967295"), 4294967295u);
    for (const char* text : {"", "-1", "4294967296", "12abc", "0x", "1.5", "+3"})
        EXPECT_EQ(ErrorCode([&] { ParseInteger(text); }), kExitRejected) << text;
}

TEST(ParseBoolean, WordsAndDigits) {
    for (const char* yes : {"true", "TRUE", "on", "On", "yes", "1"}) EXPECT_TRUE(ParseBoolean(yes)) << yes;
    for (const char* no : {"false", "off", "OFF", "no", "0"}) EXPECT_FALSE(ParseBoolean(no)) << no;
    for (const char* bad : {"", "maybe", "2", "-1", "truth"})
        EXPECT_EQ(ErrorCode([&] { ParseBoolean(bad); }), kExitRejected) << bad;
}

TEST(Enumerations, ByNameShortNameOrNumber) {
    const std::vector<EnumMember> members = {{"eRBWTOVBW_10TO1", 0}, {"eRBWTOVBW_1TO1", 1}, {"eRBWTOVBW_1TO10", 2}};
    EXPECT_EQ(ParseEnum("eRBWTOVBW_1TO1", "eRBWTOVBW", members), 1u);
    EXPECT_EQ(ParseEnum("erbwtovbw_1to10", "eRBWTOVBW", members), 2u);
    // Short names may start with a digit and are still names.
    EXPECT_EQ(ParseEnum("1to1", "eRBWTOVBW", members), 1u);
    EXPECT_EQ(ParseEnum("10TO1", "eRBWTOVBW", members), 0u);
    // Numbers need not be members: the parameter judges them.
    EXPECT_EQ(ParseEnum("2", "eRBWTOVBW", members), 2u);
    EXPECT_EQ(ParseEnum("7", "eRBWTOVBW", members), 7u);
    const auto [code, message] = Error([&] { ParseEnum("1TO2", "eRBWTOVBW", members); });
    EXPECT_EQ(code, kExitRejected);
    EXPECT_NE(message.find("eRBWTOVBW_1TO10"), std::string::npos) << message;
    EXPECT_EQ(FormatEnum(2, members), "eRBWTOVBW_1TO10 (2)");
    EXPECT_EQ(FormatEnum(9, members), "9");
}

TEST(Strings, QuoteAndUnquoteRoundTrip) {
    const std::string text = "a \"b\" \\ c\n\td\x01";
    EXPECT_EQ(QuoteString(text), "\"a \\\"b\\\" \\\\ c\\n\\td\\x01\"");
    EXPECT_EQ(UnquoteString(QuoteString(text)), text);
    EXPECT_EQ(UnquoteString("plain text"), "plain text");
    EXPECT_EQ(UnquoteString("\"\""), "");
    for (const char* bad : {"\"open", "\"a\"b", "\"bad \\q\"", "\"\\x4\""})
        EXPECT_EQ(ErrorCode([&] { UnquoteString(bad); }), kExitRejected) << bad;
}

// FormatList is checked through the decoder's array values (test_stream_dump.cpp).
TEST(Lists, Split) {
    EXPECT_EQ(SplitList(" 1, 2 kHz ,3"), (std::vector<std::string>{"1", "2 kHz", "3"}));
    EXPECT_TRUE(SplitList("  ").empty());
    EXPECT_EQ(SplitList("1,,2"), (std::vector<std::string>{"1", "", "2"}));
}

TEST(SplitWords, QuotingAsAShellDoes) {
    EXPECT_EQ(SplitWords("  set A=1\tB=2 "), (std::vector<std::string>{"set", "A=1", "B=2"}));
    EXPECT_EQ(SplitWords("set A=\"10 kHz\""), (std::vector<std::string>{"set", "A=10 kHz"}));
    EXPECT_EQ(SplitWords("set 'A=\"x y\"'"), (std::vector<std::string>{"set", "A=\"x y\""}));
    EXPECT_EQ(SplitWords("set \"A=say \\\"hi\\\"\""), (std::vector<std::string>{"set", "A=say \"hi\""}));
    EXPECT_EQ(SplitWords("a\\ b c"), (std::vector<std::string>{"a b", "c"}));
    EXPECT_EQ(SplitWords("get X # a comment"), (std::vector<std::string>{"get", "X"}));
    EXPECT_EQ(SplitWords("get X#1"), (std::vector<std::string>{"get", "X#1"}));
    EXPECT_EQ(SplitWords("set A=''"), (std::vector<std::string>{"set", "A="}));
    EXPECT_TRUE(SplitWords("   # only a comment").empty());
    EXPECT_EQ(ErrorCode([] { SplitWords("set 'A=1"); }), kExitUsage);
    EXPECT_EQ(ErrorCode([] { SplitWords("set \"A=1"); }), kExitUsage);
}

}  // namespace
}  // namespace vorndb
