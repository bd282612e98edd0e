// The built-in noise frequency tables read back through the tree after a load
// (a row of every family, every table's length and grid ends), the refresh,
// a failing load, and the parser on texts of its own.
#include <gtest/gtest.h>

#include "files/NoiseTables.h"
#include "schema/RuleTestSupport.h"
#include "support/ErrorInfo.h"

using namespace vorn;

namespace {

constexpr char kLoad[] = "OptionStateInfo.LoadNoiseFreqTables";

class NoiseTablesTest : public vorn::test::RuleTest {
protected:
    HRESULT Load(bool full) { return Write(kLoad, full); }
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
        while (rows < 25 && Valid(Row(t, rows, "Start"))) ++rows;
        return rows;
    }
};

TEST_F(NoiseTablesTest, FullLoadFillsTheTables) {
    ASSERT_EQ(Load(true), S_OK);
    EXPECT_EQ(Read(kLoad), 1);

    const double grid[26] = {0.01, 0.03, 0.1, 0.3, 1,   3,    10,   30,  100, 300, 1e3, 3e3,  10e3,
                             30e3, 1e5,  3e5, 1e6, 3e6, 10e6, 30e6, 1e8, 3e8, 1e9, 3e9, 10e9, 30e9};
    // The rows are data of the table texts: a row of every family where the
    // filter or the averages turn, then each family's length and grid ends.
    EXPECT_EQ(Values(0, 9), (std::vector<double>{300, 1e3, 10, 3, 1}));
    EXPECT_EQ(Values(0, 19), (std::vector<double>{30e6, 100e6, 3e6, 1, 0}));
    EXPECT_EQ(Values(2, 19), (std::vector<double>{30e6, 100e6, 300e3, 100, 0}));
    EXPECT_EQ(Values(6, 12), (std::vector<double>{1e6, 3e6, 10e3, 100, 0}));
    EXPECT_EQ(Values(10, 14), (std::vector<double>{10e6, 30e6, 300e3, 3000, 1}));
    EXPECT_EQ(Values(13, 18), (std::vector<double>{10e6, 30e6, 300e3, 1000, 1}));

    // Each family's length and grid: first Start and Stop, last Start and Stop.
    const struct {
        int rows, first, last;  // indices into grid
        const char* count;
    } families[4] = {{25, 0, 25, "Standard"}, {21, 4, 25, "P17"}, {15, 4, 19, "Baseband"}, {19, 0, 19, "Residual"}};
    for (int t = 0; t < 16; ++t) {
        const auto& f = families[t / 4];
        SCOPED_TRACE(t);
        EXPECT_EQ(Length(t), f.rows);
        EXPECT_EQ(R(t, 0, "Start"), grid[f.first]);
        EXPECT_EQ(R(t, 0, "Stop"), grid[f.first + 1]);
        EXPECT_EQ(R(t, f.rows - 1, "Start"), grid[f.last - 1]);
        EXPECT_EQ(R(t, f.rows - 1, "Stop"), grid[f.last]);
        EXPECT_EQ(Read(std::string("OptionStateInfo.ManualTableRows.") + f.count), ULONG(f.rows));
    }
}

TEST_F(NoiseTablesTest, RefreshKeepsValidManualRowsButTheResidualOnes) {
    const std::string userFlag = "NoiseFreqTablePreset[0].PresetManualSetting";
    ASSERT_EQ(Write(userFlag, true), S_OK);
    ASSERT_EQ(Load(true), S_OK);
    EXPECT_EQ(Read(userFlag), 0);  // the full load resets the user tables
    ASSERT_EQ(Write(userFlag, true), S_OK);
    for (int t : {3, 15, 0}) ASSERT_EQ(Write(Row(t, 0, "RBW"), 5e-3), S_OK);
    ASSERT_EQ(Invalidate(Row(7, 2, "Start")), S_OK);
    ASSERT_EQ(Write(Row(7, 2, "RBW"), 5e-3), S_OK);

    ASSERT_EQ(Load(false), S_OK);
    EXPECT_EQ(Read(kLoad), 1);
    EXPECT_EQ(R(3, 0, "RBW"), 5e-3);   // a valid manual row is the user's
    EXPECT_EQ(R(15, 0, "RBW"), 3e-3);  // but not in the residual family
    EXPECT_EQ(R(0, 0, "RBW"), 3e-3);   // nor in the other tables
    EXPECT_EQ(R(7, 2, "RBW"), 1.0);    // an invalid manual row is filled
    EXPECT_EQ(Read(userFlag), 1);      // user tables are left alone
}

TEST_F(NoiseTablesTest, AFailureStopsTheFullLoadButNotTheRefresh) {
    // Row 5 of table 2 refuses the RBW of 100 mHz its text gives.
    ASSERT_EQ(Get<IParameterReal>(Row(2, 5, "RBW"))->put_Maximum(0.05), S_OK);
    ASSERT_EQ(Load(true), E_INVALIDARG);
    const test::SReportedError error = test::TakeError();
    EXPECT_EQ(error.source, kLoad);
    EXPECT_EQ(error.description.rfind("NoiseFreqTable[2] (HighlyAverage_NoiseMeasFreqTable.txt) line 18: NoiseFreqTable"
                                      "[2].CarrierFreqOffset[5].RBW: 100 mHz is above the upper limit 50 mHz",
                                      0),
              0u)
        << error.description;
    EXPECT_EQ(Read(kLoad), 0);
    EXPECT_EQ(Length(1), 25);
    EXPECT_EQ(Length(3), 0);

    ASSERT_EQ(Load(false), E_INVALIDARG);
    EXPECT_EQ(Read(kLoad), 0);
    EXPECT_EQ(Length(3), 25);
    EXPECT_EQ(Length(15), 19);
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
    EXPECT_EQ(std::vector<double>({rows[0].start, rows[0].stop, rows[0].rbw}), std::vector<double>({10e3, 3e-3, 0}));
    EXPECT_EQ(rows[0].averages, 12);
    EXPECT_EQ(rows[0].filter, SNoiseTableRow::EFilter::kKeep);
    EXPECT_EQ(rows[1].filter, SNoiseTableRow::EFilter::kSwept);

    std::string longText;
    for (int i = 0; i < 26; ++i) longText += "1 3 1 1 Y\r\n";
    EXPECT_EQ(ParseNoiseTable(longText, rows, reason), E_INVALIDARG);
    EXPECT_EQ(reason, "line 26: a data line beyond the table's 25 rows");
}

}  // namespace
