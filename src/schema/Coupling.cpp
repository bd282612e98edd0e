// The measurement coupling rules: see Coupling.h and docs/coupling.md.
#include "schema/Coupling.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>

#include "schema/DisplayAxes.h"
#include "vorn/units.h"

namespace vorn {

namespace {

constexpr ULONG kHighestHarmonic = eHARMONIC_10;
// The automatic loop bandwidth and its bound, as fractions of the lowest
// offset shown.
constexpr double kLoopAutoFraction = 10.0;
constexpr double kLoopBoundFraction = 3.0;
// The main PLL bandwidth's thresholds on the displayed range.
constexpr double kNarrowTop = 10e3;
constexpr double kWideBottom = 100e3;

const std::string kSettings = "UserSettings.PhaseNoiseSettings.";
const std::string kLoop = "UserSettings.VCOLOOPSettings.";

bool HasValue(const CParameterReal* p) noexcept { return p && p->IsValid(); }

std::string Hz(double value) { return FormatReal(value, eUNIT_HZ); }

}  // namespace

ULONG LeastHarmonic(double frequency) noexcept {
    if (!(frequency > kReferenceHighest)) return eHARMONIC_1;
    return static_cast<ULONG>(std::min<double>(kHighestHarmonic, std::ceil(frequency / kReferenceHighest)));
}

void ShowMessage(CParameterInteger* message, ULONG id, bool show) {
    if (!message) return;
    if (show)
        rules::WriteIfChanged(message, id);
    else if (message->IsValid() && message->Value() == id)
        rules::WriteIfChanged(message, eMESSAGE_BLANK);
}

// --- CParameterSignalFreq ----------------------------------------------------

void CParameterSignalFreq::PostConstruct() {
    minimumFrequency_ = FromRoot<CParameterReal>(*this, "InstrumentConfigInfo.MinimumFrequency");
    maximumFrequency_ = FromRoot<CParameterReal>(*this, "InstrumentConfigInfo.MaximumFrequency");
    afcTarget_ = SiblingOf<CParameterReal>(*this, "AFCTargetFreq");
    tolerance_ = SiblingOf<CParameterReal>(*this, "FreqTolerance");
    rememberedTolerance_ = SiblingOf<CParameterReal>(*this, "RecentlyUsed.FreqTolerance");
    rememberedPercentage_ = SiblingOf<CParameterRealSetting>(*this, "RecentlyUsed.FreqTolerancePercentage");
    rules::Follow(tolerance_, this);
}

HRESULT CParameterSignalFreq::Write(DOUBLE frequency) {
    frequency = real::RoundHertz(frequency);
    if (const HRESULT hr = Check(frequency); FAILED(hr)) return hr;
    if (HasValue(maximumFrequency_) && frequency > maximumFrequency_->Value())
        return Fail(E_INVALIDARG,
                    Hz(frequency) + " is above the analyzer's maximum frequency " + Hz(maximumFrequency_->Value()));
    if (HasValue(minimumFrequency_) && frequency < minimumFrequency_->Value())
        return Fail(E_INVALIDARG,
                    Hz(frequency) + " is below the analyzer's minimum frequency " + Hz(minimumFrequency_->Value()));
    const HRESULT hr = SetValue(frequency);
    if (FAILED(hr)) return hr;
    if (afcTarget_) afcTarget_->put_Value(frequency);
    RememberTolerance();
    return hr;
}

void CParameterSignalFreq::RememberTolerance() {
    if (!HasValue(tolerance_)) return;
    const double tolerance = tolerance_->Value();
    rules::WriteIfChanged(rememberedTolerance_, tolerance);
    if (IsValid() && value_ > 0 && rememberedPercentage_) {
        const double percent =
            std::clamp(100.0 * tolerance / value_, rememberedPercentage_->Minimum(), rememberedPercentage_->Maximum());
        rules::WriteIfChanged(rememberedPercentage_, percent);
    }
}

bool CParameterSignalFreq::Update(CDatabaseObjectImpl*) {
    RememberTolerance();
    return false;
}

// --- CParameterSignalLevel ---------------------------------------------------

void CParameterSignalLevel::PostConstruct() {
    preamp_ = FromRoot<CParameterBoolean>(*this, "UserSettings.LevelSettings.PreAmplifierState");
    preampAvailable_ = FromRoot<CParameterBoolean>(*this, "InstrumentConfigInfo.Option.PreAmpAvailable");
    message_ = FromRoot<CParameterInteger>(*this, "OptionStateInfo.Message");
    rules::FollowAll(this, preamp_, preampAvailable_);
}

HRESULT CParameterSignalLevel::Write(DOUBLE level) {
    const HRESULT hr = SetValue(level);
    if (SUCCEEDED(hr)) UpdateMessage();
    return hr;
}

void CParameterSignalLevel::UpdateMessage() {
    ShowMessage(message_, eMESSAGE_ENABLE_PREAMP,
                IsValid() && value_ < kPreampLevel && IsTrue(preampAvailable_) && !IsTrue(preamp_));
}

bool CParameterSignalLevel::Update(CDatabaseObjectImpl*) {
    UpdateMessage();
    return false;
}

// --- CParameterAutoHarmonic --------------------------------------------------

void CParameterAutoHarmonic::PostConstruct() {
    harmonic_ = SiblingOf<CParameterPhaseDetHarmonic>(*this, "PhaseDetHarmonic");
    harmonicDisabled_ = SiblingOf<CParameterBoolean>(*this, "PhaseDetHarmonicDisabled");
    autoDisabled_ = SiblingOf<CParameterBoolean>(*this, "AutoHarmonicDisabled");
    signalFrequency_ = FromRoot<CParameterReal>(*this, kSettings + "SignalFreq");
    noiseType_ = FromRoot<CParameterInteger>(*this, "OptionStateInfo.NoiseMeasType");
    rules::FollowAll(this, signalFrequency_, noiseType_);
}

HRESULT CParameterAutoHarmonic::Write(VARIANT_BOOL on) {
    const HRESULT hr = SetValue(on != 0);
    if (SUCCEEDED(hr)) Apply();
    return hr;
}

void CParameterAutoHarmonic::Apply() {
    const bool automatic = IsTrue(this);
    rules::WriteIfChanged(harmonicDisabled_, automatic);
    rules::WriteIfChanged(autoDisabled_, ValueOr(noiseType_, eNOISETYPE_PLL) != eNOISETYPE_PLL);
    if (automatic && harmonic_)
        harmonic_->Adjust(LeastHarmonic(HasValue(signalFrequency_) ? signalFrequency_->Value() : 0.0));
}

bool CParameterAutoHarmonic::Update(CDatabaseObjectImpl*) {
    Apply();
    return false;
}

// --- CParameterPhaseDetHarmonic ----------------------------------------------

void CParameterPhaseDetHarmonic::PostConstruct() {
    auto_ = SiblingOf<CParameterBoolean>(*this, "AutoHarmonic");
    signalFrequency_ = FromRoot<CParameterReal>(*this, kSettings + "SignalFreq");
    rules::Follow(signalFrequency_, this);
}

bool CParameterPhaseDetHarmonic::Reaches(ULONG h) const noexcept {
    if (!HasValue(signalFrequency_)) return true;
    return signalFrequency_->Value() / std::max<ULONG>(h, 1) <= kReferenceHighest;
}

void CParameterPhaseDetHarmonic::Adjust(ULONG h) {
    if (IsValid() && value_ == h) return;
    if (SetValue(h) == S_OK) Propagate();
}

HRESULT CParameterPhaseDetHarmonic::Write(ULONG h) {
    if (IsTrue(auto_)) return Fail(E_INVALIDARG, "the harmonic is chosen automatically while AutoHarmonic is on");
    if (const HRESULT hr = Check(h); FAILED(hr)) return hr;
    if (!Reaches(h))
        return Fail(E_INVALIDARG, "harmonic " + std::to_string(h) + " puts the reference at " +
                                      Hz(signalFrequency_->Value() / std::max<ULONG>(h, 1)) + ", above its " +
                                      Hz(kReferenceHighest));
    return SetValue(h);
}

bool CParameterPhaseDetHarmonic::Update(CDatabaseObjectImpl*) {
    if (IsTrue(auto_) || !IsValid() || Reaches(value_)) return false;
    return SetValue(LeastHarmonic(signalFrequency_->Value())) == S_OK;
}

// --- CParameterHarmonicMode --------------------------------------------------

void CParameterHarmonicMode::PostConstruct() {
    signalFrequency_ = FromRoot<CParameterReal>(*this, kSettings + "SignalFreq");
    maximumFrequency_ = FromRoot<CParameterReal>(*this, "InstrumentConfigInfo.MaximumFrequency");
    rules::FollowAll(this, signalFrequency_, maximumFrequency_);
}

bool CParameterHarmonicMode::InReach(ULONG h) const noexcept {
    return h == eHARMONIC_OFF || !HasValue(signalFrequency_) || !HasValue(maximumFrequency_) ||
           h * signalFrequency_->Value() <= maximumFrequency_->Value();
}

HRESULT CParameterHarmonicMode::Write(ULONG h) {
    if (const HRESULT hr = Check(h); FAILED(hr)) return hr;
    if (!InReach(h))
        return Fail(E_INVALIDARG, "harmonic " + std::to_string(h) + " of " + Hz(signalFrequency_->Value()) + ", " +
                                      Hz(h * signalFrequency_->Value()) +
                                      ", is above the analyzer's maximum frequency " + Hz(maximumFrequency_->Value()));
    return SetValue(h);
}

bool CParameterHarmonicMode::Update(CDatabaseObjectImpl*) {
    if (!IsValid() || InReach(value_)) return false;
    return SetValue(eHARMONIC_OFF) == S_OK;
}

// --- CParameterVCOLoopBW -----------------------------------------------------

void CParameterVCOLoopBW::PostConstruct() {
    auto_ = FromRoot<CParameterBoolean>(*this, kSettings + "LoopBWAuto");
    axisStart_ = FromRoot<CParameterInteger>(*this, kSettings + "XAxisStart");
    noiseType_ = FromRoot<CParameterInteger>(*this, "OptionStateInfo.NoiseMeasType");
    disabled_ = SiblingOf<CParameterBoolean>(*this, "VCOLoopBWDisabled");
    rules::FollowAll(this, auto_, noiseType_);
}

double CParameterVCOLoopBW::LowestOffset() const noexcept { return StartLadder(ValueOr(axisStart_, 0)); }

double CParameterVCOLoopBW::Bound() const noexcept {
    return std::clamp(std::floor(LowestOffset() / kLoopBoundFraction), minimum_, maximum_);
}

HRESULT CParameterVCOLoopBW::Write(DOUBLE bandwidth) {
    bandwidth = real::RoundHertz(bandwidth);
    if (const HRESULT hr = Check(bandwidth); FAILED(hr)) return hr;
    if (bandwidth > Bound())
        return Fail(E_INVALIDARG, "a loop bandwidth of " + Hz(bandwidth) + " is above " + Hz(Bound()) +
                                      ", a third of the lowest offset shown (" + Hz(LowestOffset()) + ")");
    const HRESULT hr = SetValue(bandwidth);
    if (SUCCEEDED(hr)) rules::WriteIfChanged(auto_, false);
    return hr;
}

bool CParameterVCOLoopBW::Apply() {
    rules::WriteIfChanged(disabled_, ValueOr(noiseType_, eNOISETYPE_PLL) != eNOISETYPE_PLL);
    double target = IsValid() ? value_ : minimum_;
    if (IsTrue(auto_))
        target = std::clamp(real::RoundHertz(LowestOffset() / kLoopAutoFraction), minimum_, maximum_);
    else
        target = std::min(target, Bound());
    if (IsValid() && target == value_) return false;
    return SetValue(target) == S_OK;
}

void CParameterVCOLoopBW::FollowAxis() {
    if (Apply()) Propagate();
}

bool CParameterVCOLoopBW::Update(CDatabaseObjectImpl*) { return Apply(); }

// --- CParameterLoopGain ------------------------------------------------------

void CParameterLoopGain::PostConstruct() {
    bandwidth_ = SiblingOf<CParameterReal>(*this, "VCOLoopBW");
    detectorSlope_ = SiblingOf<CParameterReal>(*this, detector_);
    tuningSlope_ = SiblingOf<CParameterReal>(*this, tuning_);
    rules::FollowAll(this, bandwidth_, detectorSlope_, tuningSlope_);
}

HRESULT CParameterLoopGain::Write(DOUBLE) {
    return Fail(E_INVALIDARG, std::string("the loop gain is derived from VCOLoopBW, ") + detector_ + " and " + tuning_ +
                                  "; write those");
}

bool CParameterLoopGain::Update(CDatabaseObjectImpl*) {
    const double product = HasValue(detectorSlope_) && HasValue(tuningSlope_)
                               ? detectorSlope_->Value() * std::fabs(tuningSlope_->Value())
                               : 0.0;
    if (!HasValue(bandwidth_) || !(product > 0)) {
        if (!IsValid()) return false;
        SetStatus(eSTATUS_INVALID);
        return true;
    }
    const double gain = std::clamp(20.0 * std::log10(bandwidth_->Value() / product), minimum_, maximum_);
    if (IsValid() && gain == value_) return false;
    return StoreDerived(gain) == S_OK;
}

// --- CParameterPNPllBw -------------------------------------------------------

void CParameterPNPllBw::PostConstruct() {
    noiseType_ = FromRoot<CParameterInteger>(*this, "OptionStateInfo.NoiseMeasType");
    axisStart_ = FromRoot<CParameterInteger>(*this, kSettings + "XAxisStart");
    axisStop_ = FromRoot<CParameterInteger>(*this, kSettings + "XAxisStop");
    rules::FollowAll(this, noiseType_, axisStart_, axisStop_);
}

bool CParameterPNPllBw::Update(CDatabaseObjectImpl*) {
    ULONG bandwidth = ePLLBW_NOSETTING;
    if (ValueOr(noiseType_, ~0u) == eNOISETYPE_ANALYSER) {
        bandwidth = StopLadder(ValueOr(axisStop_, kLadderSize - 1)) <= kNarrowTop ? ePLLBW_NARROW
                    : StartLadder(ValueOr(axisStart_, 0)) >= kWideBottom          ? ePLLBW_WIDE
                                                                                  : ePLLBW_NORMAL;
    }
    if (IsValid() && value_ == bandwidth) return false;
    return SetValue(bandwidth) == S_OK;
}

// --- CParameterAFCOn ---------------------------------------------------------

void CParameterAFCOn::PostConstruct() {
    const std::string ports = "UserSettings.DCSettings.PortSettings.";
    ports_[0] = FromRoot<CParameterBoolean>(*this, ports + "TuningPort1.EnablePort");
    ports_[1] = FromRoot<CParameterBoolean>(*this, ports + "TuningPort2.EnablePort");
    toleranceAuto_ = SiblingOf<CParameterBoolean>(*this, "AFCToleranceAuto");
    message_ = FromRoot<CParameterInteger>(*this, "OptionStateInfo.Message");
    onReadOnly_ = FromRoot<CParameterBoolean>(*this, "GuiSettings.AFCOnReadOnly");
    label_ = FromRoot<CParameterBoolean>(*this, "GuiSettings.AFCLabelDisplayed");
    readOnly_ = FromRoot<CParameterBoolean>(*this, "GuiSettings.AFCReadOnly");
    toleranceReadOnly_ = FromRoot<CParameterBoolean>(*this, "GuiSettings.AFCToleranceReadOnly");
    rules::FollowAll(this, ports_[0], ports_[1], toleranceAuto_);
}

bool CParameterAFCOn::Tunable() const noexcept { return IsTrue(ports_[0]) || IsTrue(ports_[1]); }

void CParameterAFCOn::Flags() {
    const bool on = IsTrue(this);
    rules::WriteIfChanged(onReadOnly_, !Tunable());
    rules::WriteIfChanged(label_, on);
    rules::WriteIfChanged(readOnly_, !on);
    rules::WriteIfChanged(toleranceReadOnly_, !on || IsTrue(toleranceAuto_));
}

HRESULT CParameterAFCOn::Write(VARIANT_BOOL on) {
    if (on != 0 && !Tunable())
        return Fail(E_INVALIDARG, "AFC tunes the carrier through its tuning voltage: enable a tuning port first");
    const HRESULT hr = SetValue(on != 0);
    if (SUCCEEDED(hr)) Flags();
    return hr;
}

bool CParameterAFCOn::Update(CDatabaseObjectImpl*) {
    bool changed = false;
    if (!Tunable() && IsTrue(this)) {
        changed = SetValue(false) == S_OK;
        ShowMessage(message_, eMESSAGE_AFC_VTUNE_OFF, true);
    } else if (Tunable()) {
        ShowMessage(message_, eMESSAGE_AFC_VTUNE_OFF, false);
    }
    Flags();
    return changed;
}

// --- CParameterTracking ------------------------------------------------------

void CParameterTracking::PostConstruct() {
    dutType_ = FromRoot<CParameterInteger>(*this, kSettings + "DUTType");
    message_ = FromRoot<CParameterInteger>(*this, "OptionStateInfo.Message");
    rules::Follow(dutType_, this);
}

bool CParameterTracking::StableSource() const noexcept {
    const ULONG type = ValueOr(dutType_, eDUTTYPE_AUTO);
    return type == eDUTTYPE_SYNTH || type == eDUTTYPE_OCXO || type == eDUTTYPE_XTAL;
}

HRESULT CParameterTracking::Write(DOUBLE range) {
    range = real::RoundHertz(range);
    if (const HRESULT hr = Check(range); FAILED(hr)) return hr;
    if (range > 0 && StableSource())
        return Fail(E_INVALIDARG,
                    "a synthesizer, OCXO or crystal oscillator does not drift: choose DUTType auto or "
                    "free-running to track");
    return SetValue(range);
}

bool CParameterTracking::Update(CDatabaseObjectImpl*) {
    if (!StableSource()) {
        ShowMessage(message_, eMESSAGE_TRACKING_DISABLED, false);
        return false;
    }
    if (!IsValid() || value_ == 0) return false;
    const bool changed = SetValue(0) == S_OK;
    ShowMessage(message_, eMESSAGE_TRACKING_DISABLED, true);
    return changed;
}

// --- CParameterDUTType -------------------------------------------------------

void CParameterDUTType::PostConstruct() {
    autoPremeas_ = FromRoot<CParameterBoolean>(*this, kLoop + "AutoDUTPremeas");
    readOnly_ = FromRoot<CParameterBoolean>(*this, "GuiSettings.DUTTypeReadOnly");
    noiseType_ = FromRoot<CParameterInteger>(*this, "OptionStateInfo.NoiseMeasType");
    rules::Follow(noiseType_, this);
}

HRESULT CParameterDUTType::Write(ULONG type) {
    const HRESULT hr = SetValue(type);
    if (FAILED(hr)) return hr;
    rules::WriteIfChanged(autoPremeas_, value_ == eDUTTYPE_AUTO);
    return hr;
}

bool CParameterDUTType::Update(CDatabaseObjectImpl*) {
    rules::WriteIfChanged(readOnly_, ValueOr(noiseType_, eNOISETYPE_PLL) != eNOISETYPE_PLL);
    return false;
}

// --- CParameterCoupling ------------------------------------------------------

void CParameterCoupling::PostConstruct() {
    noiseType_ = FromRoot<CParameterInteger>(*this, "OptionStateInfo.NoiseMeasType");
    couplingReadOnly_ = FromRoot<CParameterBoolean>(*this, "GuiSettings.BaseBandCouplingReadOnly");
    impedanceReadOnly_ = FromRoot<CParameterBoolean>(*this, "GuiSettings.BaseBandImpedanceReadOnly");
    rules::Follow(noiseType_, this);
}

bool CParameterCoupling::Update(CDatabaseObjectImpl*) {
    const bool other = ValueOr(noiseType_, eNOISETYPE_PLL) != eNOISETYPE_BASEBAND;
    rules::WriteIfChanged(couplingReadOnly_, other);
    rules::WriteIfChanged(impedanceReadOnly_, other);
    return false;
}

// --- CParameterXCorrSelected -------------------------------------------------

void CParameterXCorrSelected::PostConstruct() {
    option_ = FromRoot<CParameterBoolean>(*this, "InstrumentConfigInfo.Option.XCorrExtension");
    disabled_ = FromRoot<CParameterBoolean>(*this, "OptionStateInfo.XCorrDisabled");
    noiseType_ = FromRoot<CParameterInteger>(*this, "OptionStateInfo.NoiseMeasType");
    available_ = FromRoot<CParameterBoolean>(*this, "GuiSettings.XCorrAvailable");
    rules::FollowAll(this, option_, disabled_, noiseType_);
}

bool CParameterXCorrSelected::Available() const noexcept {
    const ULONG type = ValueOr(noiseType_, ~0u);
    return IsTrue(option_) && !IsTrue(disabled_) && (type == eNOISETYPE_PLL || type == eNOISETYPE_RESIDUAL);
}

HRESULT CParameterXCorrSelected::Write(VARIANT_BOOL on) {
    if (on != 0 && !Available())
        return Fail(E_INVALIDARG,
                    "cross-correlation needs the option XCorrExtension, not disabled, and the PLL or "
                    "residual noise type");
    return SetValue(on != 0);
}

bool CParameterXCorrSelected::Update(CDatabaseObjectImpl*) {
    const bool available = Available();
    rules::WriteIfChanged(available_, available);
    if (available || !IsTrue(this)) return false;
    return SetValue(false) == S_OK;
}

// --- CParameterPushingVoltage ------------------------------------------------

void CParameterPushingVoltage::PostConstruct() {
    supplyMin_ = SiblingOf<CParameterReal>(*this, "SupplyVoltageMin");
    supplyMax_ = SiblingOf<CParameterReal>(*this, "SupplyVoltageMax");
    rules::FollowAll(this, supplyMin_, supplyMax_);
}

double CParameterPushingVoltage::Range() const noexcept {
    if (!HasValue(supplyMin_) || !HasValue(supplyMax_)) return std::numeric_limits<double>::infinity();
    return supplyMax_->Value() - supplyMin_->Value();
}

HRESULT CParameterPushingVoltage::Write(DOUBLE step) {
    if (const HRESULT hr = Check(step); FAILED(hr)) return hr;
    if (step > Range())
        return Fail(E_INVALIDARG, "a pushing step of " + FormatReal(step, eUNIT_VOLT) +
                                      " does not fit the supply range " + FormatReal(supplyMin_->Value(), eUNIT_VOLT) +
                                      " .. " + FormatReal(supplyMax_->Value(), eUNIT_VOLT) + " of the port");
    return SetValue(step);
}

bool CParameterPushingVoltage::Update(CDatabaseObjectImpl*) {
    const double range = Range();
    if (!IsValid() || value_ <= range) return false;
    const double step = std::max(range, minimum_);
    if (step == value_) return false;
    return SetValue(step) == S_OK;
}

}  // namespace vorn
