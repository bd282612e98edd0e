// The sweep set-up of the phase-noise measurement: see SweepSetup.h.
#include "schema/SweepSetup.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>

#include "core/GroupImpl.h"
#include "schema/DisplayAxes.h"
#include "schema/RecentlyUsed.h"
#include "vorn/units.h"

namespace vorn {

namespace {

constexpr ULONG kNoFamily = ~0u;
// The FFT filter's sampled band ends below this offset.
constexpr double kFFTHighest = 30e6;
// The swept filter's settling factor (Gaussian filter).
constexpr double kSweptSettling = 2.0;

SOffsetRow UserRow(const CDatabaseObjectImpl& node, ULONG family, ULONG index) {
    auto* table = FromRoot<CDatabaseObjectImpl>(node, "NoiseFreqTablePreset[" + std::to_string(family) + "]");
    return BindOffsetRow(
        table ? ChildOf<CDatabaseObjectImpl>(table, "CarrierFreqOffsetPreset", static_cast<LONG>(index)) : nullptr);
}

void CopyRow(const SOffsetRow& from, const SOffsetRow& to) {
    rules::WriteIfChanged(to.start, from.start->Value());
    if (from.stop->IsValid()) rules::WriteIfChanged(to.stop, from.stop->Value());
    if (from.rbw->IsValid()) {
        // A segment's RBW refuses a client's write outside the manual mode.
        if (auto* segment = dynamic_cast<CParameterNoiseRBW*>(to.rbw))
            segment->Adjust(from.rbw->Value());
        else
            rules::WriteIfChanged(to.rbw, from.rbw->Value());
    }
    if (from.averages->IsValid()) rules::WriteIfChanged(to.averages, from.averages->Value());
    if (from.filter->IsValid()) rules::WriteIfChanged(to.filter, from.filter->GetValue());
}

ULONG ValidRows(const SOffsetRow* rows) noexcept {
    ULONG n = 0;
    while (n < kSegmentCount && rows[n].Valid()) ++n;
    return n;
}

}  // namespace

ULONG NoiseTableFamily(ULONG noiseType) noexcept {
    // PLL: standard (from 10 mHz); analyser: option P17 (from 1 Hz, as its
    // axis); baseband and residual: their own.
    return noiseType <= eNOISETYPE_RESIDUAL ? noiseType : kNoFamily;
}

double SegmentMeasTime(double start, double stop, double rbw, ULONG averages, bool fft) noexcept {
    if (!(rbw > 0) || !(stop >= start)) return std::numeric_limits<double>::quiet_NaN();
    return fft ? averages / rbw : averages * kSweptSettling * (stop - start) / (rbw * rbw);
}

// --- CSweepSetup -------------------------------------------------------------

void CSweepSetup::Bind(const CDatabaseObjectImpl& node) {
    tables_ = FromRoot<CParameterNoiseTables>(node, "OptionStateInfo.LoadNoiseFreqTables");
    for (ULONG f = 0; f < 4; ++f) {
        for (ULONG r = 0; r < kSegmentCount; ++r) user_[f][r] = UserRow(node, f, r);
    }
    for (ULONG i = 0; i < kSegmentCount; ++i) {
        const std::string index = "[" + std::to_string(i) + "]";
        auto* group = SiblingOf<CDatabaseObjectImpl>(node, "FreqOffsets" + index);
        SSegment& s = segments_[i];
        s.row = BindOffsetRow(group, "SweepCount", "UseFFTFilter");
        s.rbw = dynamic_cast<CParameterNoiseRBW*>(s.row.rbw);
        s.active = group ? ChildOf<CParameterBoolean>(group, "IsSpanActive") : nullptr;
        const std::string flags = "GuiSettings.FreqOffsetReadOnly" + index + ".";
        s.rbwReadOnly = FromRoot<CParameterBoolean>(node, flags + "RBWReadOnly");
        s.avgReadOnly = FromRoot<CParameterBoolean>(node, flags + "AvgReadOnly");
        s.fftReadOnly = FromRoot<CParameterBoolean>(node, flags + "FFTReadOnly");
    }
    count_ = SiblingOf<CParameterInteger>(node, "NumFreqOffsets");
    typeCount_[eNOISETYPE_PLL] = SiblingOf<CParameterInteger>(node, "NumFreqOffsetsPLL");
    typeCount_[eNOISETYPE_BASEBAND] = SiblingOf<CParameterInteger>(node, "NumFreqOffsetsBaseband");
    typeCount_[eNOISETYPE_RESIDUAL] = SiblingOf<CParameterInteger>(node, "NumFreqOffsetsResidual");
    offsetsReadOnly_ = FromRoot<CParameterBoolean>(node, "GuiSettings.NoiseFreqOffsetReadOnly");
    presetReadOnly_ = FromRoot<CParameterBoolean>(node, "GuiSettings.PresetFFTReadOnly");
    total_ = SiblingOf<CParameterTotalMeasTime>(node, "TotalMeasTime");
}

void CSweepSetup::Run(ULONG noiseType, ULONG mode) {
    const ULONG family = NoiseTableFamily(noiseType);
    if (family == kNoFamily || mode > kManualSweepMode) return;
    if (!tables_) return;
    const SOffsetRow* table = tables_->Table(4 * family + mode);
    const ULONG rows = ValidRows(table);
    if (rows == 0) return;  // the tables are not loaded
    const bool manual = mode == kManualSweepMode;
    SOffsetRow* user = user_[family];
    for (ULONG r = 0; r < rows; ++r)
        if (user[r].Bound() && !(manual && user[r].start->IsValid())) CopyRow(table[r], user[r]);

    const ULONG n = ValidRows(user);
    for (ULONG i = 0; i < kSegmentCount; ++i) {
        SSegment& s = segments_[i];
        if (i < n && s.row.Bound()) CopyRow(user[i], s.row);
        rules::WriteIfChanged(s.active, i < n);
        const bool fftImpossible = s.row.start && s.row.start->IsValid() && s.row.start->Value() >= kFFTHighest;
        rules::WriteIfChanged(s.rbwReadOnly, !manual);
        rules::WriteIfChanged(s.avgReadOnly, !manual);
        rules::WriteIfChanged(s.fftReadOnly, !manual || fftImpossible);
        if (s.rbw) s.rbw->UpdateMeasTime();
    }
    rules::WriteIfChanged(count_, n);
    if (noiseType < 4) rules::WriteIfChanged(typeCount_[noiseType], n);
    rules::WriteIfChanged(offsetsReadOnly_, !manual);
    rules::WriteIfChanged(presetReadOnly_, !manual);
}

// --- CParameterNoiseRBW ------------------------------------------------------

void CParameterNoiseRBW::PostConstruct() {
    row_ = BindOffsetRow(Parent(), "SweepCount", "UseFFTFilter");
    measTime_ = SiblingOf<CParameterReal>(*this, "MeasTime");
    sweepMode_ = FromRoot<CParameterSweepMode>(*this, "UserSettings.PhaseNoiseSettings.SweepMode");
    noiseType_ = FromRoot<CParameterInteger>(*this, "OptionStateInfo.NoiseMeasType");
    minRBW_ = FromRoot<CParameterReal>(*this, "InstrumentConfigInfo.MinRBW");
    minRBWFFT_ = FromRoot<CParameterReal>(*this, "InstrumentConfigInfo.MinRBWWithFFTFilter");
    const LONG index = Parent() ? Parent()->Index() : -1;
    for (ULONG f = 0; f < 4 && index >= 0; ++f) user_[f] = UserRow(*this, f, static_cast<ULONG>(index));
    rules::FollowAll(this, row_.start, row_.stop, row_.averages, row_.filter);
}

bool CParameterNoiseRBW::Manual() const noexcept { return ValueOr(sweepMode_, 0) == kManualSweepMode; }

bool CParameterNoiseRBW::FFTFilter() const noexcept { return IsTrue(row_.filter); }

bool CParameterNoiseRBW::Fits(double rbw, bool fft) const noexcept {
    const CParameterReal* narrowest = fft ? minRBWFFT_ : minRBW_;
    return rbw >= minimum_ && rbw <= maximum_ && !(narrowest && narrowest->IsValid() && rbw < narrowest->Value()) &&
           !(row_.start && row_.start->IsValid() && rbw > row_.start->Value());
}

HRESULT CParameterNoiseRBW::CheckFit(double rbw, bool fft) const {
    if (const HRESULT hr = Check(rbw); FAILED(hr)) return hr;
    const CParameterReal* narrowest = fft ? minRBWFFT_ : minRBW_;
    if (narrowest && narrowest->IsValid() && rbw < narrowest->Value())
        return Fail(E_INVALIDARG, FormatReal(rbw, eUNIT_HZ) + " is below the narrowest " + (fft ? "FFT" : "swept") +
                                      " filter of the analyzer, " + FormatReal(narrowest->Value(), eUNIT_HZ));
    if (row_.start && row_.start->IsValid() && rbw > row_.start->Value())
        return Fail(E_INVALIDARG, FormatReal(rbw, eUNIT_HZ) + " is above the segment's start offset " +
                                      FormatReal(row_.start->Value(), eUNIT_HZ) +
                                      ": the filter would let the carrier into the noise");
    return S_OK;
}

HRESULT CParameterNoiseRBW::Write(DOUBLE rbw) {
    if (!Manual())
        return Fail(E_INVALIDARG,
                    "the segments follow the sweep mode's table; choose the manual mode (3) to edit them");
    if (const HRESULT hr = CheckFit(rbw, FFTFilter()); FAILED(hr)) return hr;
    const HRESULT hr = SetValue(rbw);
    if (hr == S_OK) {
        CopyToUserRow();
        UpdateMeasTime();
    }
    return hr;
}

bool CParameterNoiseRBW::Adjust(double rbw) {
    if (SetValue(rbw) != S_OK) return false;
    Propagate();
    UpdateMeasTime();
    return true;
}

void CParameterNoiseRBW::CopyToUserRow() {
    if (!Manual()) return;
    const ULONG family = NoiseTableFamily(ValueOr(noiseType_, ~0u));
    if (family >= 4 || !user_[family].Bound()) return;
    const SOffsetRow& user = user_[family];
    if (IsValid()) rules::WriteIfChanged(user.rbw, value_);
    if (row_.averages && row_.averages->IsValid()) rules::WriteIfChanged(user.averages, row_.averages->Value());
    if (row_.filter && row_.filter->IsValid()) rules::WriteIfChanged(user.filter, row_.filter->GetValue());
}

void CParameterNoiseRBW::UpdateMeasTime() {
    if (!measTime_) return;
    const bool known = IsValid() && row_.Bound() && row_.start->IsValid() && row_.stop->IsValid() &&
                       row_.averages->IsValid() && row_.filter->IsValid();
    const double time = known ? SegmentMeasTime(row_.start->Value(), row_.stop->Value(), value_, row_.averages->Value(),
                                                row_.filter->GetValue())
                              : std::numeric_limits<double>::quiet_NaN();
    if (std::isnan(time))
        rules::Invalidate(measTime_);
    else
        rules::WriteIfChanged(measTime_, time);
}

bool CParameterNoiseRBW::Update(CDatabaseObjectImpl* source) {
    if (sweepMode_ && !sweepMode_->IsSettled()) return false;  // the set-up writes the time at its end
    if (source == row_.averages || source == row_.filter) CopyToUserRow();
    UpdateMeasTime();
    return false;
}

// --- CParameterPresetRBW -----------------------------------------------------

void CParameterPresetRBW::PostConstruct() {
    averages_ = SiblingOf<CParameterInteger>(*this, "SweepCount");
    filter_ = SiblingOf<CParameterBoolean>(*this, "UseFFTFilter");
    sweepMode_ = FromRoot<CParameterSweepMode>(*this, "UserSettings.PhaseNoiseSettings.SweepMode");
    count_ = FromRoot<CParameterInteger>(*this, "UserSettings.PhaseNoiseSettings.NumFreqOffsets");
    for (ULONG i = 0; i < kSegmentCount; ++i)
        segments_[i] = FromRoot<CParameterNoiseRBW>(
            *this, "UserSettings.PhaseNoiseSettings.FreqOffsets[" + std::to_string(i) + "].RBW");
}

HRESULT CParameterPresetRBW::Write(DOUBLE rbw) {
    if (ValueOr(sweepMode_, 0) != kManualSweepMode)
        return Fail(E_INVALIDARG, "the preset row applies to the manual sweep mode (3) only");
    const HRESULT hr = SetValue(rbw);
    if (FAILED(hr)) return hr;
    const bool fft = IsTrue(filter_);
    const ULONG n = std::min(ValueOr(count_, 0), kSegmentCount);
    for (ULONG i = 0; i < n; ++i) {
        CParameterNoiseRBW* segment = segments_[i];
        if (!segment || !segment->Row().Bound()) continue;
        const bool start = segment->Row().start->IsValid();
        if (!segment->Fits(rbw, fft) || (fft && start && segment->Row().start->Value() >= kFFTHighest)) continue;
        if (averages_ && averages_->IsValid()) rules::WriteIfChanged(segment->Row().averages, averages_->Value());
        rules::WriteIfChanged(segment->Row().filter, fft);
        segment->Adjust(rbw);
        segment->CopyToUserRow();
    }
    return hr;
}

// --- CParameterTotalMeasTime -------------------------------------------------

void CParameterTotalMeasTime::PostConstruct() {
    for (ULONG i = 0; i < kSegmentCount; ++i) {
        auto* group = SiblingOf<CDatabaseObjectImpl>(*this, "FreqOffsets[" + std::to_string(i) + "]");
        if (!group) continue;
        measTime_[i] = ChildOf<CParameterReal>(group, "MeasTime");
        start_[i] = ChildOf<CParameterReal>(group, "Start");
        stop_[i] = ChildOf<CParameterReal>(group, "Stop");
        rules::Follow(measTime_[i], this);
    }
    count_ = SiblingOf<CParameterInteger>(*this, "NumFreqOffsets");
    axisStart_ = SiblingOf<CParameterInteger>(*this, "XAxisStart");
    axisStop_ = SiblingOf<CParameterInteger>(*this, "XAxisStop");
    sweepMode_ = SiblingOf<CParameterSweepMode>(*this, "SweepMode");
    rules::FollowAll(this, count_, axisStart_, axisStop_);
}

double CParameterTotalMeasTime::Compute() const noexcept {
    const double low = StartLadder(ValueOr(axisStart_, 0));
    const double high = StopLadder(ValueOr(axisStop_, kLadderSize - 1));
    const ULONG n = std::min(ValueOr(count_, 0), kSegmentCount);
    double total = 0;
    for (ULONG i = 0; i < n; ++i) {
        const CParameterReal* time = measTime_[i];
        if (!time || !time->IsValid() || !start_[i]->IsValid() || !stop_[i]->IsValid()) continue;
        if (start_[i]->Value() < high && stop_[i]->Value() > low) total += time->Value();
    }
    return std::min(total, maximum_);
}

bool CParameterTotalMeasTime::Store() {
    const double total = Compute();
    if (IsValid() && value_ == total) return false;
    StoreDerived(total);
    return true;
}

void CParameterTotalMeasTime::Refresh() {
    if (Store()) Propagate();
}

HRESULT CParameterTotalMeasTime::Write(DOUBLE) {
    return Fail(E_INVALIDARG,
                "TotalMeasTime is the sum of the segments' measurement times; change the segments or the displayed "
                "range");
}

bool CParameterTotalMeasTime::Update(CDatabaseObjectImpl*) {
    if (sweepMode_ && !sweepMode_->IsSettled()) return false;  // the set-up refreshes it at its end
    return Store();
}

}  // namespace vorn
