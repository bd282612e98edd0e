// Settings of PhaseNoiseSettings remembered once per noise measurement type.
//
// The visible setting holds the value for the noise type now selected
// (OptionStateInfo.NoiseMeasType); PhaseNoiseSettings.RecentlyUsed holds the
// last value chosen under each type, so that switching types restores it:
//  - FFTWindow and SweepMode: a client's write goes through the setting's
//    checked store first; a refused write changes nothing else. Otherwise
//    (also when the value was unchanged) it is copied into the RecentlyUsed
//    member of the current type (<Name>OnNoisePLL, ...Analyser, ...Baseband,
//    ...Residual; the analyser type when NoiseMeasType cannot be read; no
//    copy for any other type). FFTWindow then sets
//    GuiSettings.FFTWindowReadOnly (true under the analyser type only),
//    written only when it changes. SweepMode is unsettled (IsSettled false)
//    while its write runs. A change of NoiseMeasType writes the value
//    remembered for the new type back the same way.
//  - AFCTolerance is an absolute tolerance in hertz or, while
//    AFCToleranceRel is true, a relative one in percent. A client's write is
//    copied into RecentlyUsed.AFCTolerance or AFCTolerancePercentage by that
//    kind; a change of AFCToleranceRel gives AFCTolerance the limits, unit and
//    remembered value of the other kind.
// The sweep set-up that SweepMode drives is schema/SweepSetup.h; the further
// AFC couplings are schema/Coupling.h (docs/coupling.md).
#pragma once

#include "parameters/ParameterBoolean.h"
#include "parameters/ParameterInteger.h"
#include "parameters/ParameterReal.h"
#include "schema/RuleBinding.h"
#include "schema/SweepSetup.h"

namespace vorn {

// An integer setting remembered per noise type. A client's write
// (put_Value; AssignValue with bit 0) is the write described in the file
// comment; its result is the checked store's.
class CParameterRememberedSetting : public rules::CWrittenThrough<CParameterIntegerSetting, ULONG> {
public:
    // Binds NoiseMeasType and the four RecentlyUsed members named after the
    // setting; follows NoiseMeasType.
    void PostConstruct() override;

protected:
    explicit CParameterRememberedSetting(const char* name) noexcept : name_(name) {}

    // The checked store, then the copy into RecentlyUsed.
    HRESULT Write(ULONG value) override;
    // NoiseMeasType, or eNOISETYPE_ANALYSER when it cannot be read.
    ULONG NoiseType() const noexcept;
    // A change of NoiseMeasType: the value remembered for the new type, when
    // there is one, written as a client's is; true when the value changed.
    bool Update(CDatabaseObjectImpl* source) override;

private:
    const char* name_;
    CParameterInteger* noiseType_ = nullptr;
    CParameterIntegerSetting* remembered_[eNOISETYPE_RESIDUAL + 1] = {};  // by eNOISETYPE
};

class CParameterFFTWindow final : public CParameterRememberedSetting {
public:
    CParameterFFTWindow() noexcept : CParameterRememberedSetting("FFTWindow") {}
    // Also binds GuiSettings.FFTWindowReadOnly.
    void PostConstruct() override;

private:
    HRESULT Write(ULONG value) override;

    CParameterBoolean* readOnly_ = nullptr;
};

class CParameterSweepMode final : public CParameterRememberedSetting {
public:
    CParameterSweepMode() noexcept : CParameterRememberedSetting("SweepMode") {}
    // Also binds the sweep set-up and follows LoadNoiseFreqTables.
    void PostConstruct() override;

    // False while a write of SweepMode runs (its busy flag), true otherwise.
    bool IsSettled() const noexcept { return settled_; }

private:
    HRESULT Write(ULONG value) override;
    // A load of the tables runs the set-up; else as the remembered setting.
    bool Update(CDatabaseObjectImpl* source) override;
    // The sweep set-up that follows a write of SweepMode (SweepSetup.h),
    // then, settled, the total measurement time.
    void SetUpSweep();

    bool settled_ = true;
    CSweepSetup setup_;
    CParameterBoolean* tablesLoaded_ = nullptr;
    CParameterTotalMeasTime* total_ = nullptr;
};

// A client's write (put_Value; AssignValue with bit 0) is the checked store,
// then the copy into the remembered member of the current kind (absolute or
// relative); the store's result.
class CParameterAFCTolerance final : public rules::CWrittenThrough<CParameterHertzRatio, DOUBLE> {
public:
    // Binds AFCToleranceRel and the two AFC members of RecentlyUsed; follows
    // AFCToleranceRel.
    void PostConstruct() override;

private:
    HRESULT Write(DOUBLE value) override;
    // A change of AFCToleranceRel: the remembered member's limits, unit and
    // value; true when the value changed.
    bool Update(CDatabaseObjectImpl* source) override;
    CParameterRealSetting* Remembered() const noexcept;

    CParameterBoolean* relative_ = nullptr;
    CParameterRealSetting* absolute_ = nullptr;    // RecentlyUsed.AFCTolerance (Hz)
    CParameterRealSetting* percentage_ = nullptr;  // RecentlyUsed.AFCTolerancePercentage (%)
};

}  // namespace vorn
