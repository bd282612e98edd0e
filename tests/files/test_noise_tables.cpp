// The built-in noise frequency tables: read back through the tree after a
// full load (table 0 in full, a row of every other family, every table's
// length and grid ends), the refresh, failures, and the parser on texts of
// its own.
#include <gtest/gtest.h>

#include <string>

#include "files/NoiseTables.h"
#include "files/TreeAccess.h"
#include "schema/Database.h"
#include "support/ErrorInfo.h"

using namespace vorn;
using namespace tree_access;

namespace {

constexpr char kLoad[] = "OptionStateInfo.LoadNoiseFreqTables";

struct SRowValues {
    double start, stop, rbw;
    ULONG averages;
    bool fft;
};

class NoiseTablesTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(CreateDatabase(IID_IDatabase, db_.put_void()), S_OK); }

    HRESULT Load(bool full) { return Param<IParameterBoolean>(db_.get(), kLoad)->put_Value(full ? -1 : 0); }
    static std::string Row(int table, int row, const char* member) {
        return "NoiseFreqTable[" + std::to_string(table) + "].CarrierFreqOffset[" + std::to_string(row) + "]." + member;
    }
    void ExpectRow(int table, int row, const SRowValues& v) {
        SCOPED_TRACE("table " + std::to_string(table) + " row " + std::to_string(row));
        EXPECT_EQ(Real(db_.get(), Row(table, row, "Start")), v.start);
        EXPECT_EQ(Real(db_.get(), Row(table, row, "Stop")), v.stop);
        EXPECT_EQ(Real(db_.get(), Row(table, row, "RBW")), v.rbw);
        EXPECT_EQ(Integer(db_.get(), Row(table, row, "SweepCount")), v.averages);
        EXPECT_EQ(Boolean(db_.get(), Row(table, row, "FFTFilter")), v.fft ? 1 : 0);
    }
    // The rows with a valid Start, from row 0 on.
    int Length(int table) {
        int rows = 0;
        while (rows < 25 && Valid(db_.get(), Row(table, rows, "Start"))) ++rows;
        return rows;
    }

    ComPtr<IDatabase> db_;
};

TEST_F(NoiseTablesTest, FullLoadFillsTheTables) {
    ASSERT_EQ(Load(true), S_OK);
    EXPECT_EQ(Boolean(db_.get(), kLoad), 1);

    const SRowValues table0[25] = {
        {0.01, 0.03, 3e-3, 1, true},    {0.03, 0.1, 10e-3, 1, true},   {0.1, 0.3, 30e-3, 1, true},
        {0.3, 1.0, 100e-3, 1, true},    {1, 3, 3e-1, 1, true},         {3, 10, 3e-1, 1, true},
        {10, 30, 1, 1, true},           {30, 100, 1, 1, true},         {100, 300, 3, 1, true},
        {300, 1e3, 10, 3, true},        {1e3, 3e3, 30, 10, true},      {3e3, 10e3, 100, 30, true},
        {10e3, 30e3, 300, 100, true},   {30e3, 100e3, 1e3, 100, true}, {100e3, 300e3, 3e3, 100, true},
        {300e3, 1e6, 10e3, 100, true},  {1e6, 3e6, 30e3, 100, true},   {3e6, 10e6, 100e3, 100, true},
        {10e6, 30e6, 300e3, 100, true}, {30e6, 100e6, 3e6, 1, false},  {100e6, 300e6, 10e6, 1, false},
        {300e6, 1e9, 10e6, 1, false},   {1e9, 3e9, 10e6, 1, false},    {3e9, 10e9, 10e6, 1, false},
        {10e9, 30e9, 10e6, 1, false},
    };
    for (int r = 0; r < 25; ++r) ExpectRow(0, r, table0[r]);

    // A row of every other family, where the filter or the averages turn.
    ExpectRow(2, 19, {30e6, 100e6, 300e3, 100, false});
    ExpectRow(6, 12, {1e6, 3e6, 10e3, 100, false});
    ExpectRow(10, 14, {10e6, 30e6, 300e3, 3000, true});
    ExpectRow(13, 18, {10e6, 30e6, 300e3, 1000, true});

    // Every table's length and the ends of its family's grid.
    const struct {
        int rows;
        double first, second, last;  // Start and Stop of the first row, Stop of the last
    } families[4] = {{25, 0.01, 0.03, 30e9}, {21, 1, 3, 30e9}, {15, 1, 3, 30e6}, {19, 0.01, 0.03, 30e6}};
    for (int t = 0; t < 16; ++t) {
        const auto& family = families[t / 4];
        SCOPED_TRACE("table " + std::to_string(t));
        EXPECT_EQ(Length(t), family.rows);
        EXPECT_EQ(Real(db_.get(), Row(t, 0, "Start")), family.first);
        EXPECT_EQ(Real(db_.get(), Row(t, 0, "Stop")), family.second);
        EXPECT_EQ(Real(db_.get(), Row(t, family.rows - 1, "Start")), family.last / 3);
        EXPECT_EQ(Real(db_.get(), Row(t, family.rows - 1, "Stop")), family.last);
    }
    const char* counts[] = {"Standard", "P17", "Baseband", "Residual"};
    for (int f = 0; f < 4; ++f)
        EXPECT_EQ(Integer(db_.get(), std::string("OptionStateInfo.ManualTableRows.") + counts[f]),
                  static_cast<ULONG>(families[f].rows));
}

TEST_F(NoiseTablesTest, RefreshKeepsValidManualRowsButTheResidualOnes) {
    const std::string userFlag = "NoiseFreqTablePreset[0].PresetManualSetting";
    ASSERT_EQ(Param<IParameterBoolean>(db_.get(), userFlag)->put_Value(-1), S_OK);
    ASSERT_EQ(Load(true), S_OK);
    EXPECT_EQ(Boolean(db_.get(), userFlag), 0);  // the full load resets the user tables

    ASSERT_EQ(Param<IParameterBoolean>(db_.get(), userFlag)->put_Value(-1), S_OK);
    for (int table : {3, 15, 0})
        ASSERT_EQ(Param<IParameterReal>(db_.get(), Row(table, 0, "RBW"))->put_Value(5e-3), S_OK);
    ASSERT_EQ(Param<IParameter>(db_.get(), Row(7, 2, "Start"))->put_Status(eSTATUS_INVALID), S_OK);
    ASSERT_EQ(Param<IParameterReal>(db_.get(), Row(7, 2, "RBW"))->put_Value(5e-3), S_OK);

    ASSERT_EQ(Load(false), S_OK);
    EXPECT_EQ(Boolean(db_.get(), kLoad), 1);
    EXPECT_EQ(Real(db_.get(), Row(3, 0, "RBW")), 5e-3);   // a valid manual row is the user's
    EXPECT_EQ(Real(db_.get(), Row(15, 0, "RBW")), 3e-3);  // but not in the residual family
    EXPECT_EQ(Real(db_.get(), Row(0, 0, "RBW")), 3e-3);   // nor in the other tables
    EXPECT_EQ(Real(db_.get(), Row(7, 2, "RBW")), 1.0);    // an invalid manual row is filled
    EXPECT_EQ(Boolean(db_.get(), userFlag), 1);           // user tables are left alone
}

TEST_F(NoiseTablesTest, AFailureStopsTheFullLoadButNotTheRefresh) {
    // Row 5 of table 2 refuses the RBW of 100 mHz its text gives.
    ASSERT_EQ(Param<IParameterReal>(db_.get(), Row(2, 5, "RBW"))->put_Maximum(0.05), S_OK);
    ASSERT_EQ(Load(true), E_INVALIDARG);
    const test::SReportedError error = test::TakeError();
    EXPECT_EQ(error.source, kLoad);
    EXPECT_NE(error.description.find("NoiseFreqTable[2] (HighlyAverage_NoiseMeasFreqTable.txt) line 18: "
                                     "NoiseFreqTable[2].CarrierFreqOffset[5].RBW: 100 mHz is above the upper limit"),
              std::string::npos)
        << error.description;
    EXPECT_EQ(Boolean(db_.get(), kLoad), 0);
    EXPECT_EQ(Length(1), 25);
    EXPECT_EQ(Length(3), 0);
    EXPECT_EQ(Integer(db_.get(), "OptionStateInfo.ManualTableRows.Standard"), 0u);

    ASSERT_EQ(Load(false), E_INVALIDARG);
    EXPECT_EQ(Boolean(db_.get(), kLoad), 0);
    EXPECT_EQ(Length(3), 25);
    EXPECT_EQ(Length(15), 19);
}

TEST(NoiseTableParser, Texts) {
    using F = SNoiseTableRow::EFilter;
    const struct {
        const char* text;
        size_t rows;  // parsed when `error` is null
        const char* error;
    } cases[] = {
        // Comments with one slash or two, blank lines, leading white space.
        {"// head\r\n/ one slash\r\n \t \r\n\r\n \t1 3 0.3 2 Y\r\n", 1, nullptr},
        // A last line without CR LF is not read; nor is a text of LF ends.
        {"1 3 1 1 Y\r\n3 10 1 1 N", 1, nullptr},
        {"1 3 1 1 Y\n3 10 1 1 N\n", 0, nullptr},
        {"1 3 1 1\r\n", 0, "line 1: 4 fields, where a data line has 5"},
        {"1 3 1 1 Y\r\n1 3 1 1 Y // note\r\n", 1, "line 2: 7 fields"},
        {"1 3 1 1 y\r\n", 0, "line 1: the FFT field is 'y', not Y, N or N/A"},
        // A byte of a multi-byte character is no white space.
        {"\xE3\x80\x80// ideographic space\r\n", 0, "line 1: 3 fields"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        std::vector<SNoiseTableRow> rows;
        std::string reason;
        EXPECT_EQ(ParseNoiseTable(c.text, rows, reason), c.error ? E_INVALIDARG : S_OK);
        EXPECT_EQ(rows.size(), c.rows);
        if (c.error) {
            EXPECT_EQ(reason.rfind(c.error, 0), 0u) << reason;
        }
    }

    // atof and atoi: exponents, trailing junk, no number at all; N/A.
    std::vector<SNoiseTableRow> rows;
    std::string reason;
    ASSERT_EQ(ParseNoiseTable("10E3 3e-3x abc 12.7 N/A\r\n3 10 1 1 N\r\n", rows, reason), S_OK);
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0].start, 10e3);
    EXPECT_EQ(rows[0].stop, 3e-3);
    EXPECT_EQ(rows[0].rbw, 0.0);
    EXPECT_EQ(rows[0].averages, 12);
    EXPECT_EQ(rows[0].filter, F::kKeep);
    EXPECT_EQ(rows[1].filter, F::kSwept);
    EXPECT_EQ(rows[1].line, 2u);

    // A 26th data line.
    std::string long_text;
    for (int i = 0; i < 26; ++i) long_text += "1 3 1 1 Y\r\n";
    EXPECT_EQ(ParseNoiseTable(long_text, rows, reason), E_INVALIDARG);
    EXPECT_EQ(reason, "line 26: a data line beyond the table's 25 rows");
}

}  // namespace
