// System settings: the settings of the spectrum analyzer under the
// measurement application that the tree mirrors (reference source, noise
// source, calibration correction, external reference frequency, GPIB
// address, input path, calibration generator, IF shift, DC ports, level and
// board settings, ...), and the other instrument state of
// InstrumentConfigInfo.
//
// A system setting is paired with an Integer companion named after it with
// "State" appended (RefSignalSrc and RefSignalSrcState), a CParameterStateEnum
// over eSTATE that carries the handshake with the client that applies the
// value to the analyzer:
//  - eSTATE_EDIT (0): the database holds a new value for the client;
//  - eSTATE_COMPLETE (5): the client has taken control; the database leaves
//    the companion alone;
//  - eSTATE_DEFAULT (8): a preset passed and the value was kept.
// A setting without such a sibling (the DC switching sequence, the board
// debug values) has no handshake; a companion that holds no valid state
// counts as one that cannot be read.
//
// The preset flag is InstrumentConfigInfo.EnterViaRecall: true while the
// application's state comes from a recall of the analyzer, whose own recall
// has already set the analyzer. Rules (every family alike):
//  - assignment (every checked store: put_Value, AssignValue with bit 0, a
//    reset to the default, a load through the checked path): the ordinary
//    store of the base class; when it succeeds, eSTATE_EDIT into the
//    companion unless that reads eSTATE_COMPLETE or cannot be read;
//  - reset: a valid value with the preset flag false (a flag without a valid
//    value counts as false) is kept, limits included, and the companion becomes eSTATE_DEFAULT (unless
//    complete or unreadable); otherwise the base class's reset, whose store
//    of the default runs the assignment's handshake. Inside a
//    CDefaultsResetScope (the "** Default **" entry of a settings file list)
//    every system setting takes the base class's reset;
//  - loading a settings stream: the payload of the base class (its own type
//    code only, else refused); a status word other than 0 makes the setting
//    invalid; a valid value goes through the checked assignment with its
//    handshake while the preset flag is false, and with it true through the
//    quiet path, which stores without notification and without handshake.
//    Either way a value the class refuses (an enumeration member beyond the
//    count, a real outside its loaded limits) leaves the setting as it was
//    rather than invalid. CParameterBaseSystemSettingDCEnum always loads
//    quietly.
// The companion, once claimed by its setting, keeps a valid state through
// its own reset, so that the state a preset leaves depends on the setting's
// rule alone, whichever of the pair comes first in its group.
//
// docs/system-settings.md describes the choices.
#pragma once

#include <string>

#include "parameters/ParameterBoolean.h"
#include "parameters/ParameterInteger.h"
#include "parameters/ParameterReal.h"

namespace vorn {

// The preset flag, InstrumentConfigInfo.EnterViaRecall.
inline constexpr char kPresetFlagGroup[] = "InstrumentConfigInfo";
inline constexpr char kPresetFlagName[] = "EnterViaRecall";

// While one lives, resets on the calling thread restore the defaults of the
// system settings too, as with the preset flag set: for a reset that means
// "the group's defaults", as choosing "** Default **" for a settings file.
class CDefaultsResetScope {
public:
    CDefaultsResetScope() noexcept;
    ~CDefaultsResetScope();
    CDefaultsResetScope(const CDefaultsResetScope&) = delete;
    CDefaultsResetScope& operator=(const CDefaultsResetScope&) = delete;
    static bool Active() noexcept;
};

// The companion and the preset flag of one system setting, bound once in
// PostConstruct. The caller of every operation holds the write lock.
class CSystemSettingLinks {
public:
    // Finds the sibling `<own name>State` (claiming it) and the preset flag.
    void Bind(CParameter& setting);
    // True only when the flag is valid and true.
    bool PresetFlag() const noexcept;
    // Stores `state` into the companion unless it reads eSTATE_COMPLETE or
    // cannot be read.
    void Tell(eSTATE state) const;

private:
    CParameterStateEnum* companion_ = nullptr;
    CParameterBoolean* presetFlag_ = nullptr;
};

// The quiet path's test of a value read from a stream: the checked store's
// test of the family, without store or notification. S_OK, or E_INVALIDARG
// reported with its reason.
inline HRESULT QuietCheck(const CParameterBoolean&, bool) noexcept { return S_OK; }
inline HRESULT QuietCheck(const CParameterInteger&, ULONG) noexcept { return S_OK; }
inline HRESULT QuietCheck(const CParameterEnum& setting, ULONG value) { return setting.Check(value); }
inline HRESULT QuietCheck(const CParameterRealSetting& setting, double value) { return setting.Check(value); }

template <class Base, class Value>
class CSystemSettingT : public Base {
public:
    void PostConstruct() override {
        Base::PostConstruct();
        links_.Bind(*this);
    }

    STDMETHODIMP Reset() override {
        return this->UnderWriteLock([&]() -> HRESULT {
            if (!this->IsValid() || links_.PresetFlag() || CDefaultsResetScope::Active()) return Base::Reset();
            links_.Tell(eSTATE_DEFAULT);
            return S_OK;
        });
    }

    HRESULT SetValue(Value value) override {
        const HRESULT hr = Base::SetValue(value);
        if (SUCCEEDED(hr)) links_.Tell(eSTATE_EDIT);
        return hr;
    }

protected:
    // Whether a loaded value takes the quiet path.
    virtual bool LoadsQuietly() const { return links_.PresetFlag(); }

    void StoreLoaded(Value value) override {
        if (!LoadsQuietly()) {
            SetValue(value);  // a refusal keeps what the setting holds
            return;
        }
        if (FAILED(QuietCheck(*this, value))) return;  // kept, the reason reported
        this->value_ = value;
        this->UpdateVariant();
        this->status_ = eSTATUS_VALID;
    }

private:
    CSystemSettingLinks links_;
};

class CParameterBaseSystemSettingBool : public CSystemSettingT<CParameterBoolean, bool> {};
class CParameterBaseSystemSettingInteger : public CSystemSettingT<CParameterInteger, ULONG> {};
class CParameterBaseSystemSettingReal : public CSystemSettingT<CParameterRealSetting, double> {};
class CParameterBaseSystemSettingEnum : public CSystemSettingT<CParameterEnum, ULONG> {};
// The calibration generator's enumerations; the rules of the enumeration.
class CParameterBaseSystemSettingEnumCal : public CParameterBaseSystemSettingEnum {};
// The steps of the DC switching sequence: loading is always quiet.
class CParameterBaseSystemSettingDCEnum : public CParameterBaseSystemSettingEnum {
protected:
    bool LoadsQuietly() const override { return true; }
};

// The supply voltage of a DC port: SupplyVoltageMin, SupplyVoltageMax and
// SupplyVoltageCurrent, siblings bound once in PostConstruct. A client's
// write keeps Min <= Current <= Max: a minimum above the maximum, a maximum
// below the minimum, or a current voltage outside them is refused with a
// reason naming the partner; a new limit that leaves the current voltage
// outside pulls it onto the limit (its own handshake and notification). A
// load and a reset take the values as they come: a settings stream holds
// the three together, and the defaults are consistent.
class CParameterDCSettingVoltageMinMax : public CParameterBaseSystemSettingReal {
public:
    void PostConstruct() override;
    STDMETHODIMP put_Value(DOUBLE dValue) override;

private:
    HRESULT CheckAgainstPartners(double value) const;
    CParameterDCSettingVoltageMinMax* minimum_ = nullptr;
    CParameterDCSettingVoltageMinMax* maximum_ = nullptr;
    CParameterDCSettingVoltageMinMax* current_ = nullptr;
};

// InstrumentConfigInfo.ExtMixerState: the analyzer's external mixer state,
// kept by a preset. A checked store that changes a valid value sets the
// sibling `<own name>Changed` (ExtMixerStateChanged) true, which the client
// clears once it has followed the change.
class CParameterExtMixerState : public CParameterBooleanNoReset {
public:
    void PostConstruct() override;
    HRESULT SetValue(bool value) override;

private:
    CParameterBoolean* changed_ = nullptr;
};

// The name of an analyzer model (InstrumentConfigInfo.InstrumentModel,
// eINSMODEL): "ZLM Alder" ... "ZLM Fir" for 1 to 6, "Unknown" otherwise.
const char* InstrumentModelName(ULONG model) noexcept;

}  // namespace vorn
