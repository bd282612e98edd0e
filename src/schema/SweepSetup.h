// The sweep set-up of the phase-noise measurement: which built-in offset
// table a measurement uses, the user's table and the segments copied from
// it, each segment's RBW and measurement time, and the total measurement
// time over the displayed range (docs/coupling.md has the reasons).
//
//  - CSweepSetup (run by a write of SweepMode, a change of NoiseMeasType and
//    a load of the tables): the table 4 × family + mode, copied into
//    NoiseFreqTablePreset[family] (in the manual mode only its invalid rows)
//    and from there into FreqOffsets, with NumFreqOffsets and the read-only
//    flags of GuiSettings;
//  - CParameterNoiseRBW (FreqOffsets[i].RBW): a client's write only in the
//    manual mode, within the analyzer's filters and at most the segment's
//    start; keeps the segment's MeasTime and, in the manual mode, the user's
//    row;
//  - CParameterPresetRBW (PresetSettings.RBW): applies the preset row to the
//    segments it fits, in the manual mode only;
//  - CParameterTotalMeasTime: the sum of MeasTime over the active segments
//    that overlap the displayed range; derived, a client's write refused.
// While SweepMode is unsettled (its set-up running) the segment and total
// rules wait; the set-up writes the times once at its end.
#pragma once

#include "files/NoiseTables.h"
#include "parameters/ParameterBoolean.h"
#include "parameters/ParameterInteger.h"
#include "parameters/ParameterReal.h"
#include "schema/RuleBinding.h"

namespace vorn {

class CParameterSweepMode;
class CParameterNoiseRBW;
class CParameterTotalMeasTime;
class CParameterXAxisIndex;

inline constexpr ULONG kSegmentCount = kNoiseTableRows;  // a segment per table row
inline constexpr ULONG kManualSweepMode = 3;

// The table family (0 standard, 1 option P17, 2 baseband, 3 residual) a
// noise type measures with; ~0u for a type that is none of the four.
ULONG NoiseTableFamily(ULONG noiseType) noexcept;

// The measurement time in seconds of a segment of `averages` sweeps at
// resolution `rbw` over start..stop: averages / rbw with the FFT filter,
// averages × 2 × (stop − start) / rbw² swept. NaN when rbw is not positive
// or the span is negative.
double SegmentMeasTime(double start, double stop, double rbw, ULONG averages, bool fft) noexcept;

// The set-up that SweepMode drives.
class CSweepSetup {
public:
    // Finds the tables, the user's tables, the segments and the flags from
    // the root of `node`'s tree.
    void Bind(const CDatabaseObjectImpl& node);
    // Copies table 4 × family(noiseType) + mode (see the file comment);
    // nothing when that table has no valid row or the type has no family.
    void Run(ULONG noiseType, ULONG mode);

private:
    struct SSegment {
        CParameterNoiseRBW* rbw = nullptr;
        SOffsetRow row;
        CParameterBoolean* active = nullptr;
        CParameterBoolean* rbwReadOnly = nullptr;
        CParameterBoolean* avgReadOnly = nullptr;
        CParameterBoolean* fftReadOnly = nullptr;
    };

    const CParameterNoiseTables* tables_ = nullptr;
    SOffsetRow user_[4][kSegmentCount];
    SSegment segments_[kSegmentCount];
    CParameterInteger* count_ = nullptr;
    CParameterInteger* typeCount_[4] = {};  // by eNOISETYPE; none for the analyser
    CParameterBoolean* offsetsReadOnly_ = nullptr;
    CParameterBoolean* presetReadOnly_ = nullptr;
    CParameterTotalMeasTime* total_ = nullptr;
};

// The RBW of a segment (FreqOffsets[i].RBW).
class CParameterNoiseRBW final : public rules::CWrittenThrough<CParameterHertzNoRounding, DOUBLE> {
public:
    // Binds the segment's siblings, SweepMode, NoiseMeasType, the analyzer's
    // narrowest filters and row i of the four user tables; follows the
    // siblings.
    void PostConstruct() override;

    // S_OK when `rbw` fits the segment with the filter `fft`: within the
    // limits, not below the analyzer's narrowest filter of that kind, not
    // above the segment's Start. E_INVALIDARG reported with its reason
    // otherwise (quietly, as false, through Fits).
    HRESULT CheckFit(double rbw, bool fft) const;
    bool Fits(double rbw, bool fft) const noexcept;
    // A rule's write: the checked store and the dependants; true when it
    // changed the value.
    bool Adjust(double rbw);
    // Writes MeasTime from the segment (invalid when it cannot be computed).
    void UpdateMeasTime();
    // In the manual mode: copies RBW, SweepCount and the filter into the
    // user's row of the current family.
    void CopyToUserRow();
    bool Manual() const noexcept;
    bool FFTFilter() const noexcept;
    const SOffsetRow& Row() const noexcept { return row_; }

private:
    HRESULT Write(DOUBLE rbw) override;
    bool Update(CDatabaseObjectImpl* source) override;

    SOffsetRow row_;
    CParameterReal* measTime_ = nullptr;
    CParameterSweepMode* sweepMode_ = nullptr;
    CParameterInteger* noiseType_ = nullptr;
    CParameterReal* minRBW_ = nullptr;
    CParameterReal* minRBWFFT_ = nullptr;
    SOffsetRow user_[4];
};

// The RBW of PresetSettings: a client's write applies the preset row.
class CParameterPresetRBW final : public rules::CWrittenThrough<CParameterHertzNoRounding, DOUBLE> {
public:
    // Binds PresetSettings' SweepCount and UseFFTFilter, SweepMode,
    // NumFreqOffsets and the 25 segment RBWs.
    void PostConstruct() override;

private:
    HRESULT Write(DOUBLE rbw) override;
    bool Update(CDatabaseObjectImpl*) override { return false; }

    CParameterInteger* averages_ = nullptr;
    CParameterBoolean* filter_ = nullptr;
    CParameterSweepMode* sweepMode_ = nullptr;
    CParameterInteger* count_ = nullptr;
    CParameterNoiseRBW* segments_[kSegmentCount] = {};
};

// TotalMeasTime: derived from the segments and the displayed range.
class CParameterTotalMeasTime final : public rules::CWrittenThrough<CParameterSecond, DOUBLE> {
public:
    // Binds and follows the segments' MeasTime, NumFreqOffsets and the two
    // axes; binds SweepMode.
    void PostConstruct() override;
    // The formula over the tree as it is now.
    double Compute() const noexcept;
    // Stores Compute() and tells the dependants when it changed.
    void Refresh();

private:
    HRESULT Write(DOUBLE) override;
    bool Update(CDatabaseObjectImpl* source) override;
    bool Store();

    CParameterReal* measTime_[kSegmentCount] = {};
    CParameterReal* start_[kSegmentCount] = {};
    CParameterReal* stop_[kSegmentCount] = {};
    CParameterInteger* count_ = nullptr;
    CParameterInteger* axisStart_ = nullptr;
    CParameterInteger* axisStop_ = nullptr;
    CParameterSweepMode* sweepMode_ = nullptr;
};

}  // namespace vorn
