// The built-in noise frequency tables and CParameterNoiseTables, the Boolean
// (OptionStateInfo.LoadNoiseFreqTables) whose assignment parses them into the
// sixteen NoiseFreqTable groups of the tree.
//
// A table is a text resource of type "NOISE_TABLE_TXT" in the module that
// holds this code (resources/noise_tables/, embedded with the files layer and
// found by name without regard to letter case). Its text:
//  - 8-bit, lines ended by CR LF; a last line without CR LF is not read;
//  - a line whose first character after leading white space is "/" is a
//    comment; empty lines and lines of white space only are skipped;
//  - a data line holds exactly five fields separated by white space: Start,
//    Stop and RBW in Hz (read as atof reads in the C locale: the longest
//    leading number, exponent form accepted, 0 when there is none), Average
//    (as atoi reads), FFT ("Y" FFT filter, "N" swept filter, "N/A" leaves the
//    row's setting as it is);
//  - data lines fill rows 0, 1, 2, ... of the table; a table has 25 rows.
// White space is the C locale's (space, tab, CR, LF, VT, FF); a byte of a
// multi-byte character (0x80 and above) is never white space.
//
// A text that breaks these rules (a field too few or too many, another FFT
// word, a 26th data line) is refused whole with E_INVALIDARG before any row
// of its table is written, and the reason names the resource, the line and
// what was wrong. docs/tables.md has the choices made here.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "parameters/ParameterBoolean.h"
#include "parameters/ParameterInteger.h"
#include "parameters/ParameterReal.h"

namespace vorn {

class CGroupImpl;

inline constexpr ULONG kNoiseTableCount = 16;
inline constexpr ULONG kNoiseTableRows = 25;
// Four families (standard, option P17, baseband, residual) of four speed
// modes each; the last of a family's tables is its manual table.
inline constexpr ULONG kNoiseTableFamilies = 4;
inline constexpr char kNoiseTableResourceType[] = "NOISE_TABLE_TXT";

// The resource name of table `index` (below kNoiseTableCount).
const char* NoiseTableName(ULONG index) noexcept;

// One data line of a table text.
struct SNoiseTableRow {
    enum class EFilter : BYTE { kKeep, kFFT, kSwept };

    double start = 0.0;
    double stop = 0.0;
    double rbw = 0.0;
    LONG averages = 0;
    EFilter filter = EFilter::kKeep;
    ULONG line = 0;  // the line's number in the text, from 1
};

// Parses a table text into its rows. S_OK; or E_INVALIDARG with `reason`
// ("line 14: ...") and `rows` holding the lines before the bad one.
HRESULT ParseNoiseTable(std::string_view text, std::vector<SNoiseTableRow>& rows, std::string& reason);

// The text of built-in table `index`: S_OK, or the Win32 error of the
// resource lookup as an HRESULT with `reason`.
HRESULT NoiseTableText(ULONG index, std::string_view& text, std::string& reason);

// One row of offsets: a built-in table's (CarrierFreqOffset), a user
// table's (CarrierFreqOffsetPreset) or a measurement segment's (FreqOffsets).
struct SOffsetRow {
    CParameterReal* start = nullptr;
    CParameterReal* stop = nullptr;
    CParameterReal* rbw = nullptr;
    CParameterInteger* averages = nullptr;
    CParameterBoolean* filter = nullptr;

    bool Bound() const noexcept { return start && stop && rbw && averages && filter; }
    bool Valid() const noexcept { return Bound() && start->IsValid(); }
};

// The five members of the row group `group` (null: an unbound row): Start,
// Stop, RBW and the averages and filter by their names in that group.
SOffsetRow BindOffsetRow(CDatabaseObjectImpl* group, const char* averagesName = "SweepCount",
                         const char* filterName = "FFTFilter");

class CParameterNoiseTables : public CParameterBoolean {
public:
    // Finds the sixteen tables' rows, the four user tables
    // (NoiseFreqTablePreset) and the four row counts
    // (OptionStateInfo.ManualTableRows) from the root.
    void PostConstruct() override;
    // Loads the tables, then stores whether that succeeded as the value;
    // VARIANT_TRUE: the full load, VARIANT_FALSE: the refresh (see
    // LoadTables). S_OK, or the load's E_INVALIDARG with its reason; the
    // dependants are told only after S_OK.
    STDMETHODIMP put_Value(VARIANT_BOOL bValue) override;
    // With bit 0 as put_Value (bit 1: propagation after S_OK); without it a
    // plain store that loads nothing.
    STDMETHODIMP AssignValue(VARIANT_BOOL bValue, ULONG udwCtrlFlags) override;

    // The write lock held. Full load: tables 0 to 15 in order, each value
    // through its row parameter's put_Value; after a manual table its
    // family's user table is reset and its row count written. The first
    // failure stops the load (later tables untouched). Refresh: every table,
    // whatever fails; the rows of the manual tables 3, 7 and 11 whose Start is
    // valid keep what they hold (the residual manual table 15 is always
    // written); user tables and row counts are left alone. S_OK, or
    // E_INVALIDARG with the (first) failure's reason.
    HRESULT LoadTables(bool full);

    // The kNoiseTableRows rows of built-in table `index` (< kNoiseTableCount).
    const SOffsetRow* Table(ULONG index) const noexcept { return rows_[index]; }

private:
    // Loads table `index`: S_OK, or E_INVALIDARG with `reason`.
    HRESULT LoadTable(ULONG index, bool full, std::string& reason);
    // Writes one parsed row: S_OK, or E_INVALIDARG with `reason`.
    static HRESULT WriteRow(const SOffsetRow& row, const SNoiseTableRow& values, std::string& reason);
    HRESULT Load(bool full);

    SOffsetRow rows_[kNoiseTableCount][kNoiseTableRows];
    CGroupImpl* userTables_[kNoiseTableFamilies] = {};
    CParameterInteger* rowCounts_[kNoiseTableFamilies] = {};
};

}  // namespace vorn
