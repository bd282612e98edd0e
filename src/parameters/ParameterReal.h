// Real parameters (IParameterReal): one double with a unit.
//
//  - CParameterReal: the plain value; no limits, no stepping.
//  - CParameterRealSetting: stored limits with tolerant range checks (a value
//    within |limit × 1e-12| beyond a limit is accepted and kept as given; a
//    limit of 0.0 has no tolerance), S_FALSE for an unchanged write while
//    valid, and Increment/Decrement through NextValue/PreviousValue and the
//    clamped write. Its own NextValue/PreviousValue do not move the value:
//    a stepped setting is one of the unit classes or a rule class.
//  - CParameterRealSettingIncDec: fixed small and large steps from its record
//    instead of a step rule; no grid snapping.
//  - The unit classes CParameterHertz (whole-hertz rounding on put_Value),
//    CParameterHertzNoRounding, CParameterDeciBel, CParameterSecond, and the
//    classes that combine them (see docs/parameters.md).
// Number rules: parameters/RealRules.h.
#pragma once

#include "parameters/Parameter.h"
#include "parameters/RealRules.h"

namespace vorn {

class CParameterReal : public CParamTemplate<IParameterReal, &IID_IParameterReal> {
public:
    // IParameter: VT_R8.
    STDMETHODIMP get_type(USHORT* pParamType) override;
    // IParameterReal
    STDMETHODIMP get_Value(DOUBLE* pdValue) override;
    STDMETHODIMP put_Value(DOUBLE dValue) override;
    STDMETHODIMP get_Minimum(DOUBLE* pdMinimum) override;
    STDMETHODIMP put_Minimum(DOUBLE dMinimum) override;
    STDMETHODIMP get_Maximum(DOUBLE* pdMaximum) override;
    STDMETHODIMP put_Maximum(DOUBLE dMaximum) override;
    STDMETHODIMP get_Units(eUNIT* peUnit) override;
    // E_INVALIDARG for a value that is not a member of eUNIT.
    STDMETHODIMP put_Units(eUNIT eUnit) override;
    STDMETHODIMP Increment(eSTEP eStep) override;
    STDMETHODIMP Decrement(eSTEP eStep) override;
    STDMETHODIMP IncWithDepNoti(eSTEP eStep) override;
    STDMETHODIMP DecWithDepNoti(eSTEP eStep) override;
    // The plain value: the value itself.
    STDMETHODIMP GetNearestValue(DOUBLE dValue, DOUBLE* pdNearest) override;
    STDMETHODIMP SetValueNoCallback(DOUBLE dValue) override;
    STDMETHODIMP AssignValue(DOUBLE dValue, ULONG udwCtrlFlags) override;
    // IDatabaseObject: SDefaultsRealValue (unit, value), SDefaultsReal (unit,
    // invalid), else unit eUNIT_NONE and invalid.
    STDMETHODIMP Reset() override;

    // Settings stream payload: type code 6, the status word and, when valid,
    // the unit (u16) and the value (f64): 14 bytes; 4 when invalid. Loading
    // sets the unit, then stores the value through SetValue; an unknown unit
    // counts as a refused value.
    bool LoadPayload(CDataStream& stream) override;
    void SavePayload(CDataStream& stream) override;
    DWORD PayloadSize() override;

    // VT_R8.
    void UpdateVariant() override;
    // The checked store of the plain value: any value; S_OK.
    virtual HRESULT SetValue(double value);

    double Value() const noexcept { return value_; }
    eUNIT Unit() const noexcept { return unit_; }

protected:
    // Applies the unit and value of a valid payload (the write lock held):
    // an unknown unit makes the parameter invalid, else the unit is set and
    // the value goes to StoreLoaded.
    void AssignLoaded(WORD unit, double value);
    // Stores a valid value read from a settings stream: the checked store,
    // whose refusal leaves the parameter invalid.
    virtual void StoreLoaded(double value) { ApplyLoadedStore(SetValue(value)); }

    double value_ = 0.0;
    eUNIT unit_ = eUNIT_NONE;
};

class CParameterRealSetting : public CParameterReal {
public:
    // Under the lock, whatever the status; put_ stores without checking the
    // value or the other limit and without notification.
    STDMETHODIMP get_Minimum(DOUBLE* pdMinimum) override;
    STDMETHODIMP put_Minimum(DOUBLE dMinimum) override;
    STDMETHODIMP get_Maximum(DOUBLE* pdMaximum) override;
    STDMETHODIMP put_Maximum(DOUBLE dMaximum) override;
    // Under the write lock: the error of get_Value when invalid, else the
    // clamped write of NextValue / PreviousValue. Any eStep other than
    // eSTEP_LARGE is small. The WithDepNoti twins are the same.
    STDMETHODIMP Increment(eSTEP eStep) override;
    STDMETHODIMP Decrement(eSTEP eStep) override;
    STDMETHODIMP IncWithDepNoti(eSTEP eStep) override;
    STDMETHODIMP DecWithDepNoti(eSTEP eStep) override;
    // Clamped into the limits with exact comparisons; never fails.
    STDMETHODIMP GetNearestValue(DOUBLE dValue, DOUBLE* pdNearest) override;
    STDMETHODIMP Reset() override;

    // Settings stream payload: as CParameterReal's, then the minimum and the
    // maximum (f64 each, whatever the status). Loading restores the limits
    // before the value is stored, so the value is checked against the
    // limits it was saved with.
    bool LoadPayload(CDataStream& stream) override;
    void SavePayload(CDataStream& stream) override;
    DWORD PayloadSize() override;

    // E_INVALIDARG below or above the limits (tolerantly) and for NaN;
    // S_FALSE when valid and exactly unchanged; else the plain store.
    HRESULT SetValue(double value) override;
    // The test of SetValue alone: S_OK, or E_INVALIDARG reported with its
    // reason; nothing stored.
    HRESULT Check(double value) const;
    // The step rule: the value one step up or down from `current`.
    virtual double NextValue(double current, eSTEP eStep);
    virtual double PreviousValue(double current, eSTEP eStep);

    double Minimum() const noexcept { return minimum_; }
    double Maximum() const noexcept { return maximum_; }

protected:
    // The plain store without the range check, for rule classes whose value
    // is derived from others and not bound by the limits a client is.
    HRESULT StoreDerived(double value) { return CParameterReal::SetValue(value); }
    // Writes a stepped candidate: E_INVALIDARG when the value sits exactly on
    // the limit it would pass, else clamped into the limits, S_FALSE when that
    // leaves a valid value unchanged, else put_Value.
    HRESULT ClampedWrite(double candidate);
    HRESULT Step(bool up, eSTEP eStep);
    // Applies the record kinds every real setting knows; false for others.
    bool ResetFromRecord();

    double minimum_ = 0.0;
    double maximum_ = 0.0;
};

class CParameterRealSettingIncDec : public CParameterRealSetting {
public:
    // value ± the step (small or large), pulled back onto the limit when it
    // crosses it from inside; then put_Value. E_NOTIMPL while either step is
    // 0.0. Takes no lock of its own before put_Value.
    STDMETHODIMP Increment(eSTEP eStep) override;
    STDMETHODIMP Decrement(eSTEP eStep) override;
    STDMETHODIMP IncWithDepNoti(eSTEP eStep) override;
    STDMETHODIMP DecWithDepNoti(eSTEP eStep) override;
    // SDefaultsRealSettingIncDec / ...NoReset, else as CParameterRealSetting
    // (the steps keep their values).
    STDMETHODIMP Reset() override;

    double SmallStep() const noexcept { return smallStep_; }
    double LargeStep() const noexcept { return largeStep_; }

protected:
    HRESULT StepBy(bool up, eSTEP eStep);
    // current ± step, pulled back onto the limit when it crosses it from
    // inside.
    virtual double SteppedValue(bool up, double current, double step, double limit) const;

    double smallStep_ = 0.0;
    double largeStep_ = 0.0;
};

// A real setting whose step rule is the pair of functions Next / Previous.
template <double (*Next)(double, eSTEP), double (*Previous)(double, eSTEP), class Base = CParameterRealSetting>
class CRealStepRule : public Base {
public:
    double NextValue(double current, eSTEP eStep) override { return Next(current, eStep); }
    double PreviousValue(double current, eSTEP eStep) override { return Previous(current, eStep); }
};

// Frequencies: whole hertz below 100 Hz, decade steps above.
class CParameterHertzNoRounding : public CRealStepRule<real::HertzNext, real::HertzPrevious> {};

// As CParameterHertzNoRounding, and put_Value rounds to whole hertz first
// (negative values truncated toward zero).
class CParameterHertz : public CRealStepRule<real::HertzNext, real::HertzPrevious> {
public:
    STDMETHODIMP put_Value(DOUBLE dValue) override;
};

// Levels and ratios in decibels: a grid of 10 dB (large) or 1 dB (small).
class CParameterDeciBel : public CRealStepRule<real::DeciBelNext, real::DeciBelPrevious> {};

// Times: decade steps down to 1 ns.
class CParameterSecond : public CRealStepRule<real::DecadeNext, real::DecadePrevious> {};

// The combining classes of the schema (units and rules: docs/parameters.md).
class CParameterHertzRatio : public CRealStepRule<real::RatioNext, real::RatioPrevious> {};

class CParameterHertzReactive : public CParameterHertz {
public:
    // Pulls the value back into the limits (which rule classes move with
    // put_Minimum / put_Maximum) and tells the dependants only when that
    // changed it.
    void Recalculate(CDatabaseObjectImpl* source) override;
    bool OnDependencyChanged(CDatabaseObjectImpl* source) override;
};

class CParameterLevel : public CParameterDeciBel {};

class CParameterRealEx : public CRealStepRule<real::DecadeNext, real::DecadePrevious> {};

// A real setting with fixed steps that never holds 0.0: writing 0.0 is
// E_INVALIDARG, and a step that would land on 0.0 goes one step further.
class CParameterNonNullRealSettingIncDec : public CParameterRealSettingIncDec {
public:
    HRESULT SetValue(double value) override;

protected:
    double SteppedValue(bool up, double current, double step, double limit) const override;
};

class CParameterVornTime : public CParameterSecond {};

class CParameterVorndBm : public CParameterDeciBel {};

// The value of a real parameter, or `fallback` when it is missing or holds
// no valid value.
inline double ValueOr(const CParameterReal* parameter, double fallback) noexcept {
    return parameter && parameter->IsValid() ? parameter->Value() : fallback;
}

}  // namespace vorn
