// The measurement coupling rules of the phase-noise settings: the carrier
// (SignalFreq, SignalLevel), the harmonic it is measured through, the PLL's
// loop bandwidth and gain, the analyzer's main PLL bandwidth, AFC, tracking,
// the DUT type, the input coupling, cross-correlation and the VCO pushing
// step; and the messages they raise in OptionStateInfo.Message.
// docs/coupling.md gives each rule's trigger, reads, writes and reasons.
//
// Each rule class binds its partners once in PostConstruct
// (schema/RuleBinding.h) and follows those whose changes it needs. A
// client's write (put_Value; AssignValue with bit 0) goes through the
// class's checked store first; a write the rule cannot honour is refused with
// E_INVALIDARG and its reason, and changes nothing. What a rule writes goes
// through the written parameter's change path. The sweep set-up, the segment
// RBWs and the total measurement time are schema/SweepSetup.h.
#pragma once

#include "parameters/ParameterBoolean.h"
#include "parameters/ParameterInteger.h"
#include "parameters/ParameterReal.h"
#include "schema/RuleBinding.h"

namespace vorn {

// The highest frequency the phase detector's reference reaches at its
// fundamental; a carrier above it is measured through a harmonic.
inline constexpr double kReferenceHighest = 7e9;
// Below this carrier level a preamplifier that is available should be on.
inline constexpr double kPreampLevel = -20.0;

// The least harmonic (1..10) that brings `frequency` within the reference's
// reach (1 for a frequency of no value, NaN or below zero).
ULONG LeastHarmonic(double frequency) noexcept;

// Raises message `id` in `message` (show) or clears it when it is the one
// shown (not show); nothing when `message` is null.
void ShowMessage(CParameterInteger* message, ULONG id, bool show);

class CParameterSignalFreq final : public rules::CWrittenThrough<CParameterHertz, DOUBLE> {
public:
    // Binds the analyzer's frequency range, AFCTargetFreq, FreqTolerance and
    // the two remembered tolerances; follows FreqTolerance.
    void PostConstruct() override;

private:
    // Whole hertz, the checked store, the analyzer's range; then the AFC
    // target and the remembered tolerances.
    HRESULT Write(DOUBLE frequency) override;
    bool Update(CDatabaseObjectImpl* source) override;
    void RememberTolerance();

    CParameterReal* minimumFrequency_ = nullptr;
    CParameterReal* maximumFrequency_ = nullptr;
    CParameterReal* afcTarget_ = nullptr;
    CParameterReal* tolerance_ = nullptr;
    CParameterReal* rememberedTolerance_ = nullptr;
    CParameterRealSetting* rememberedPercentage_ = nullptr;
};

class CParameterSignalLevel final : public rules::CWrittenThrough<CParameterLevel, DOUBLE> {
public:
    // Binds and follows the preamplifier's state and availability; binds
    // the message.
    void PostConstruct() override;

private:
    HRESULT Write(DOUBLE level) override;
    bool Update(CDatabaseObjectImpl* source) override;
    void UpdateMessage();

    CParameterBoolean* preamp_ = nullptr;
    CParameterBoolean* preampAvailable_ = nullptr;
    CParameterInteger* message_ = nullptr;
};

class CParameterPhaseDetHarmonic;

class CParameterAutoHarmonic final : public rules::CWrittenThrough<CParameterBooleanSetting, VARIANT_BOOL> {
public:
    // Binds PhaseDetHarmonic, the two disabled flags, SignalFreq and
    // NoiseMeasType; follows the last two.
    void PostConstruct() override;

private:
    HRESULT Write(VARIANT_BOOL on) override;
    bool Update(CDatabaseObjectImpl* source) override;
    void Apply();

    CParameterPhaseDetHarmonic* harmonic_ = nullptr;
    CParameterBoolean* harmonicDisabled_ = nullptr;
    CParameterBoolean* autoDisabled_ = nullptr;
    CParameterReal* signalFrequency_ = nullptr;
    CParameterInteger* noiseType_ = nullptr;
};

class CParameterPhaseDetHarmonic final : public rules::CWrittenThrough<CParameterEnumSetting, ULONG> {
public:
    // Binds AutoHarmonic and SignalFreq; follows SignalFreq.
    void PostConstruct() override;
    // True when harmonic `h` (eHARMONIC_OFF: the direct path, as 1) brings
    // the carrier within the reference's reach.
    bool Reaches(ULONG h) const noexcept;
    // A rule's write: the enumeration's store and the dependants.
    void Adjust(ULONG h);

private:
    HRESULT Write(ULONG h) override;
    bool Update(CDatabaseObjectImpl* source) override;

    CParameterBoolean* auto_ = nullptr;
    CParameterReal* signalFrequency_ = nullptr;
};

class CParameterHarmonicMode final : public rules::CWrittenThrough<CParameterEnumSetting, ULONG> {
public:
    // Binds and follows SignalFreq and MaximumFrequency.
    void PostConstruct() override;

private:
    HRESULT Write(ULONG h) override;
    bool Update(CDatabaseObjectImpl* source) override;
    bool InReach(ULONG h) const noexcept;

    CParameterReal* signalFrequency_ = nullptr;
    CParameterReal* maximumFrequency_ = nullptr;
};

class CParameterVCOLoopBW final : public rules::CWrittenThrough<CParameterHertz, DOUBLE> {
public:
    // Binds LoopBWAuto, XAxisStart, NoiseMeasType and VCOLoopBWDisabled;
    // follows LoopBWAuto and NoiseMeasType.
    void PostConstruct() override;
    // The start/stop rule's hook under the PLL type: the bandwidth follows
    // the axis start; the dependants are told when it changed.
    void FollowAxis();
    // The highest bandwidth the displayed range allows.
    double Bound() const noexcept;

private:
    HRESULT Write(DOUBLE bandwidth) override;
    bool Update(CDatabaseObjectImpl* source) override;
    // Auto: a tenth of the lowest offset; else at most the bound. True when
    // the value changed.
    bool Apply();
    double LowestOffset() const noexcept;

    CParameterBoolean* auto_ = nullptr;
    CParameterInteger* axisStart_ = nullptr;
    CParameterInteger* noiseType_ = nullptr;
    CParameterBoolean* disabled_ = nullptr;
};

// The loop gain from the loop bandwidth, the detector slope and the tuning
// sensitivity; derived, a client's write refused.
class CParameterLoopGain : public rules::CWrittenThrough<CParameterRealSettingIncDec, DOUBLE> {
public:
    // Binds and follows VCOLoopBW and the two slopes named at construction.
    void PostConstruct() override;

protected:
    CParameterLoopGain(const char* detector, const char* tuning) noexcept : detector_(detector), tuning_(tuning) {}

private:
    HRESULT Write(DOUBLE) override;
    bool Update(CDatabaseObjectImpl* source) override;

    const char* detector_;
    const char* tuning_;
    CParameterReal* bandwidth_ = nullptr;
    CParameterReal* detectorSlope_ = nullptr;
    CParameterReal* tuningSlope_ = nullptr;
};

class CParameterVCOLoopGain final : public CParameterLoopGain {
public:
    CParameterVCOLoopGain() noexcept : CParameterLoopGain("PhaseDetSlope", "GenSlope") {}
};

class CParameterLPNVCOLoopGain final : public CParameterLoopGain {
public:
    CParameterLPNVCOLoopGain() noexcept : CParameterLoopGain("LPNPhaseDetSlope", "LPNGenSlope") {}
};

class CParameterPNPllBw final : public rules::CRecalculated<CParameterEnum> {
public:
    // Binds and follows NoiseMeasType, XAxisStart and XAxisStop.
    void PostConstruct() override;

private:
    bool Update(CDatabaseObjectImpl* source) override;

    CParameterInteger* noiseType_ = nullptr;
    CParameterInteger* axisStart_ = nullptr;
    CParameterInteger* axisStop_ = nullptr;
};

class CParameterAFCOn final : public rules::CWrittenThrough<CParameterBooleanSetting, VARIANT_BOOL> {
public:
    // Binds and follows the two tuning ports' EnablePort and
    // AFCToleranceAuto; binds the message and the four AFC flags.
    void PostConstruct() override;

private:
    HRESULT Write(VARIANT_BOOL on) override;
    bool Update(CDatabaseObjectImpl* source) override;
    bool Tunable() const noexcept;
    void Flags();

    CParameterBoolean* ports_[2] = {};
    CParameterBoolean* toleranceAuto_ = nullptr;
    CParameterInteger* message_ = nullptr;
    CParameterBoolean* onReadOnly_ = nullptr;
    CParameterBoolean* label_ = nullptr;
    CParameterBoolean* readOnly_ = nullptr;
    CParameterBoolean* toleranceReadOnly_ = nullptr;
};

class CParameterTracking final : public rules::CWrittenThrough<CParameterHertz, DOUBLE> {
public:
    // Binds and follows DUTType; binds the message.
    void PostConstruct() override;

private:
    HRESULT Write(DOUBLE range) override;
    bool Update(CDatabaseObjectImpl* source) override;
    // The DUT is a synthesizer, an OCXO or a crystal oscillator.
    bool StableSource() const noexcept;

    CParameterInteger* dutType_ = nullptr;
    CParameterInteger* message_ = nullptr;
};

class CParameterDUTType final : public rules::CWrittenThrough<CParameterEnumSetting, ULONG> {
public:
    // Binds AutoDUTPremeas and DUTTypeReadOnly; binds and follows
    // NoiseMeasType.
    void PostConstruct() override;

private:
    HRESULT Write(ULONG type) override;
    bool Update(CDatabaseObjectImpl* source) override;

    CParameterBoolean* autoPremeas_ = nullptr;
    CParameterBoolean* readOnly_ = nullptr;
    CParameterInteger* noiseType_ = nullptr;
};

class CParameterCoupling final : public rules::CRecalculated<CParameterEnumSetting> {
public:
    // Binds the two baseband read-only flags; binds and follows
    // NoiseMeasType.
    void PostConstruct() override;

private:
    bool Update(CDatabaseObjectImpl* source) override;

    CParameterInteger* noiseType_ = nullptr;
    CParameterBoolean* couplingReadOnly_ = nullptr;
    CParameterBoolean* impedanceReadOnly_ = nullptr;
};

class CParameterXCorrSelected final : public rules::CWrittenThrough<CParameterBoolean, VARIANT_BOOL> {
public:
    // Binds and follows the option, XCorrDisabled and NoiseMeasType; binds
    // XCorrAvailable.
    void PostConstruct() override;

private:
    HRESULT Write(VARIANT_BOOL on) override;
    bool Update(CDatabaseObjectImpl* source) override;
    bool Available() const noexcept;

    CParameterBoolean* option_ = nullptr;
    CParameterBoolean* disabled_ = nullptr;
    CParameterInteger* noiseType_ = nullptr;
    CParameterBoolean* available_ = nullptr;
};

class CParameterPushingVoltage final : public rules::CWrittenThrough<CParameterRealSettingIncDec, DOUBLE> {
public:
    // Binds and follows the port's SupplyVoltageMin and SupplyVoltageMax.
    void PostConstruct() override;

private:
    HRESULT Write(DOUBLE step) override;
    bool Update(CDatabaseObjectImpl* source) override;
    // Max − min of the supply, or infinity while either has no value.
    double Range() const noexcept;

    CParameterReal* supplyMin_ = nullptr;
    CParameterReal* supplyMax_ = nullptr;
};

}  // namespace vorn
