// The built-in noise frequency tables read back through the tree after a load
// (a row of every family, every table's length and grid ends), the refresh,
// a failing load, and the parser on texts of its own.

#include <tuple>

#include "files/NoiseTables.h"
#include "schema/RuleTestSupport.h"

using namespace vorn;
using namespace vorn::test;

namespace {

constexpr char kLoad[] = "OptionStateInfo.LoadNoiseFreqTables";

class NoiseTablesTest : public RuleTest {
protected:
    static std::string Row(int t, int r, const char* member) {
        return "NoiseFreqTable[" + std::to_string(t) + "].CarrierFreqOffset[" + std::to_string(r) + "]." + member;
    }
    double R(int t, int r, const char* member) { return Read(Row(t, r, member)); }
    // Start, Stop, RBW, averages and FFT filter (1 or 0) of a row.
    std::vector<double> Values(int t, int r) {
        return {R(t, r, "Start"), R(t, r, "Stop"), R(t, r, "RBW"), R(t, r, "SweepCount"), R(t, r, "FFTFilter")};
    }
    int Length(int t) {
        int rows = 0;
        while (rows < 25 && !std::isnan(R(t, rows, "Start"))) ++rows;
        return rows;
    }
};

// The rows are data of the table texts: two rows show that each column lands
// in its member (with the FFT filter and without); each table's length shows
// that every row is read, and the counts of manual rows follow.
TEST_F(NoiseTablesTest, FullLoadFillsTheTables) {
    Run({Set(kLoad, 1, S_OK), Is(kLoad, 1)});
    EXPECT_EQ(Values(0, 9), (std::vector<double>{300, 1e3, 10, 3, 1}));
    EXPECT_EQ(Values(0, 19), (std::vector<double>{30e6, 100e6, 3e6, 1, 0}));
    const struct {
        int rows;
        const char* count;
    } families[4] = {{25, "Standard"}, {21, "P17"}, {15, "Baseband"}, {19, "Residual"}};
    for (int t = 0; t < 16; ++t) EXPECT_EQ(Length(t), families[t / 4].rows) << t;
    for (const auto& f : families) Run({Is(std::string("OptionStateInfo.ManualTableRows.") + f.count, f.rows)});
}

TEST_F(NoiseTablesTest, RefreshKeepsValidManualRowsButTheResidualOnes) {
    const std::string userFlag = "NoiseFreqTablePreset[0].PresetManualSetting";
    Run({Set(userFlag, true, S_OK), Set(kLoad, 1, S_OK), Is(userFlag, 0),  // the full load resets the user tables
         Set(userFlag, true, S_OK), Set(Row(3, 0, "RBW"), 5e-3, S_OK), Set(Row(15, 0, "RBW"), 5e-3, S_OK),
         Set(Row(0, 0, "RBW"), 5e-3, S_OK)});
    ASSERT_EQ(Invalidate(Row(7, 2, "Start")), S_OK);
    Run({Set(Row(7, 2, "RBW"), 5e-3, S_OK), Set(kLoad, 0, S_OK), Is(kLoad, 1),
         Is(Row(3, 0, "RBW"), 5e-3),   // a valid manual row is the user's
         Is(Row(15, 0, "RBW"), 3e-3),  // but not in the residual family
         Is(Row(0, 0, "RBW"), 3e-3),   // nor in the other tables
         Is(Row(7, 2, "RBW"), 1.0),    // an invalid manual row is filled
         Is(userFlag, 1)});            // user tables are left alone
}

TEST_F(NoiseTablesTest, AFailureStopsTheFullLoadButNotTheRefresh) {
    // Row 5 of table 2 refuses the RBW of 100 mHz its text gives.
    ASSERT_EQ(Get<IParameterReal>(Row(2, 5, "RBW"))->put_Maximum(0.05), S_OK);
    Run({Refused(kLoad, 1,
                 "NoiseFreqTable[2] (HighlyAverage_NoiseMeasFreqTable.txt) line 18: NoiseFreqTable[2]."
                 "CarrierFreqOffset[5].RBW: 100 mHz is above the upper limit 50 mHz")});
    EXPECT_EQ(std::tuple(Read(kLoad), Length(1), Length(3)), std::tuple(0, 25, 0));
    Run({Set(kLoad, 0, E_INVALIDARG)});
    EXPECT_EQ(std::tuple(Read(kLoad), Length(3), Length(15)), std::tuple(0, 25, 19));
}

TEST(NoiseTableParser, Texts) {
    const struct {
        const char* text;
        size_t rows;  // parsed before the end or the error
        const char* error;
    } cases[] = {
        // Comments with one slash or two, blank lines, leading white space.
        {"// head\r\n/ one slash\r\n \t \r\n\r\n \t1 3 0.3 2 Y\r\n", 1, ""},
        // A last line without CR LF is not read; nor is a text of LF ends.
        {"1 3 1 1 Y\r\n3 10 1 1 N", 1, ""},
        {"1 3 1 1 Y\n3 10 1 1 N\n", 0, ""},
        {"1 3 1 1\r\n", 0, "line 1: 4 fields, where a data line has 5"},
        {"1 3 1 1 Y\r\n1 3 1 1 Y // note\r\n", 1, "line 2: 7 fields"},
        {"1 3 1 1 y\r\n", 0, "line 1: the FFT field is 'y', not Y, N or N/A"},
        // A byte of a multi-byte character is no white space.
        {"\xE3\x80\x80// ideographic space\r\n", 0, "line 1: 3 fields"},
    };
    std::vector<SNoiseTableRow> rows;
    std::string reason;
    for (const auto& c : cases) {
        reason.clear();
        EXPECT_EQ(ParseNoiseTable(c.text, rows, reason), *c.error ? E_INVALIDARG : S_OK) << c.text;
        EXPECT_EQ(rows.size(), c.rows) << c.text;
        EXPECT_EQ(reason.rfind(c.error, 0), 0u) << reason;
    }

    // atof and atoi: exponents, trailing junk, no number at all; N/A.
    ASSERT_EQ(ParseNoiseTable("10E3 3e-3x abc 12.7 N/A\r\n3 10 1 1 N\r\n", rows, reason), S_OK);
    ASSERT_EQ(rows.size(), 2u);
    using enum SNoiseTableRow::EFilter;
    EXPECT_EQ(std::tuple(rows[0].start, rows[0].stop, rows[0].rbw, rows[0].averages, rows[0].filter, rows[1].filter),
              std::tuple(10e3, 3e-3, 0.0, 12, kKeep, kSwept));

    std::string longText;
    for (int i = 0; i < 26; ++i) longText += "1 3 1 1 Y\r\n";
    EXPECT_EQ(ParseNoiseTable(longText, rows, reason), E_INVALIDARG);
    EXPECT_EQ(reason, "line 26: a data line beyond the table's 25 rows");
}

}  // namespace
