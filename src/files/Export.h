// The trace and spur export: OtherSettings.ExportedTrace writes the current
// measurement's traces, or its spur list, into a text file of
// semicolon-separated lines whenever a client assigns it a value (true or
// false alike). docs/export.md describes the file and why each line reads
// the parameter it reads.
//
// Controls, in OtherSettings: NewDataFileType (0 traces, 1 spur list, any
// other value: no file), NewTraceFile / NewSpursFile (the file's full path;
// empty: nothing is written), DotDecimalStyle (false: every "." of every
// line becomes ","), TraceExportHeader (the header sections first),
// TraceExportAllTraces (all eight traces, else the graph's selected one).
// The measurement kind is OptionStateInfo.CurrentGraphType (eGRAPH).
//
// Every parameter the export reads is looked up once, at the first export
// (not at creation: hundreds of lookups that most sessions never use), by
// its path from the root; the lines are driven by tables of (label and
// format, path, how the value prints, the kinds it belongs to) in Export.cpp.
// A parameter that is missing or holds no valid value prints as zero ("OFF"
// for an on/off value, an empty text for a string).
//
// The file is composed in memory (at most kMaxExportBytes) and written with
// VornReplaceFileA: a temporary file beside the target, renamed over it, so
// that a failed export leaves the old file as it was and a symbolic link at
// the name is replaced rather than written through.
//
// The export's result is OR-ed into the assignment's HRESULT: 0 when the file
// was written or there was nothing to write (an empty name), 6 when there is
// no file for the selected type or the file could not be written. 6 keeps
// the HRESULT a success code; its reason (the file and the system's error)
// is still set as the thread's COM error information.
#pragma once

#include <array>
#include <mutex>
#include <string>
#include <vector>

#include "parameters/ParameterArray.h"
#include "parameters/ParameterBoolean.h"
#include "parameters/ParameterInteger.h"
#include "parameters/ParameterReal.h"
#include "parameters/ParameterString.h"

namespace vorn {

// The export's result OR-ed into the assignment's HRESULT when it failed.
inline constexpr HRESULT kExportFailed = 6;
// The most bytes an export file may take (eight full traces of 102400 points
// take about 25 MiB); a larger one is refused with kExportFailed.
inline constexpr std::size_t kMaxExportBytes = std::size_t{64} << 20;

namespace exporting {
struct SRow;
struct SAxes;
class CExportWriter;
}  // namespace exporting

class CParameterExportData : public CParameterBoolean {
public:
    // Each stores the value as CParameterBoolean does, then, when that
    // succeeded, exports; the result is the store's HRESULT | the export's
    // (0 or kExportFailed). A failed store is returned as it is.
    STDMETHODIMP put_Value(VARIANT_BOOL bValue) override;
    STDMETHODIMP AssignValue(VARIANT_BOOL bValue, ULONG udwCtrlFlags) override;
    STDMETHODIMP SetValueNoCallback(VARIANT_BOOL bValue) override;

    // Writes the export file the controls select: 0 or kExportFailed (with
    // the reason as error information). Takes the database lock.
    HRESULT Export();

    // A header line bound to its parameter; per-trace lines hold one per
    // trace and print the exported trace's.
    struct SLine {
        const exporting::SRow* row = nullptr;
        std::array<CParameter*, 8> at{};
        CParameterBoolean* when = nullptr;  // the condition of the line, if any
        int index = 0;                      // the repeat (band, step) the line belongs to
    };
    // The parameters of trace i of one family of result traces.
    struct STrace {
        std::vector<CParameterRealArray*> arrays;  // by exporting::kArrayNames
        CParameterInteger* mode = nullptr;
        CParameterInteger* harmonic = nullptr;
        CParameterBoolean* smoothingOn = nullptr;
        CParameterReal* smoothing = nullptr;
    };
    struct SSpur {
        CParameterReal* frequency = nullptr;
        CParameterReal* level = nullptr;
    };

private:
    using CWriter = exporting::CExportWriter;

    // Resolves every parameter the export reads (once: bound_).
    void BindAll();

    // The file's text for export type 0 or 1 (false when it would exceed
    // kMaxExportBytes). The caller holds the database lock.
    bool Compose(ULONG type, std::string& text) const;
    // The lines of `lines` that belong to `kind`, of the first `repeats`
    // repeats (bands), per-trace values of trace `trace`.
    void WriteLines(CWriter& out, const std::vector<SLine>& lines, ULONG kind, ULONG trace,
                    int repeats = 1 << 30) const;
    void WriteHeader(CWriter& out, ULONG kind, ULONG trace) const;
    void WriteTraceBlock(CWriter& out, ULONG kind, ULONG trace) const;
    void WriteTraceBody(CWriter& out, ULONG kind, ULONG trace, int screen) const;
    void WriteSpurBlock(CWriter& out, ULONG kind) const;
    // The trace selected on the kind's graph, 0 when none.
    ULONG ActiveTrace(ULONG kind) const;
    // Which arrays and units the kind's trace block shows on `screen` (0, or
    // 1 for the lower screen of a split VCO tuning display).
    exporting::SAxes Axes(ULONG kind, int screen) const;

    CParameterInteger* type_ = nullptr;
    CParameterString* traceFile_ = nullptr;
    CParameterString* spursFile_ = nullptr;
    CParameterBoolean* dotDecimal_ = nullptr;
    CParameterBoolean* header_ = nullptr;
    CParameterBoolean* allTraces_ = nullptr;
    CParameterInteger* graph_ = nullptr;

    std::vector<SLine> headerLines_;
    std::vector<SLine> sweepLines_;  // the lines of band b have index b
    CParameterInteger* sweepCount_ = nullptr;
    std::vector<SLine> setupLines_;
    // The result traces of each family, and the selection of its graph.
    std::vector<std::array<STrace, 8>> traces_;
    std::vector<CParameterInteger*> selected_;
    // The spur lists (up to 100 entries) and their lengths, by family.
    std::vector<std::vector<SSpur>> spurs_;
    std::vector<CParameterInteger*> spurCounts_;
    // What picks the y values of the VCO and transient traces.
    CParameterReal* tuningShown_ = nullptr;
    CParameterReal* dcShown_ = nullptr;
    CParameterIntegerArray* screens_ = nullptr;
    CParameterBoolean* voltageOnX_ = nullptr;
    CParameterBoolean* relative_ = nullptr;
    CParameterBoolean* split_ = nullptr;
    CParameterInteger* transientMode_ = nullptr;
    CParameterInteger* pmUnit_ = nullptr;
    CParameterBoolean* pullingOn_ = nullptr;
    CParameterInteger* termination_ = nullptr;
    CParameterBoolean* pushingOn_ = nullptr;
    CParameterReal* pushing_ = nullptr;
    CParameterBoolean* squelch_ = nullptr;
    CParameterInteger* blankBefore_ = nullptr;
    CParameterInteger* blankAfter_ = nullptr;
    std::once_flag bound_;
};

}  // namespace vorn
