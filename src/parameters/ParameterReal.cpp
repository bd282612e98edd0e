// Real parameters: value rules, limits, stepping and reset.
#include "parameters/ParameterReal.h"

#include <cmath>

#include "stream/DataStream.h"
#include "vorn/units.h"

namespace vorn {

namespace {

// A value as the reasons of refusals write it: "5 THz", "-30 dBm".
std::string Text(double value, eUNIT unit) { return FormatReal(value, static_cast<std::uint32_t>(EnumBits(unit))); }

constexpr char kNoLimits[] = "a plain real parameter has no limits";
constexpr char kNoSteps[] = "a plain real parameter has no steps";

}  // namespace

// --- CParameterReal ----------------------------------------------------------

STDMETHODIMP CParameterReal::get_type(USHORT* pParamType) {
    if (!pParamType) return Fail(E_POINTER, "pParamType is null");
    *pParamType = VT_R8;
    return S_OK;
}

STDMETHODIMP CParameterReal::get_Value(DOUBLE* pdValue) {
    return ReadValue(pdValue, [&] { return value_; });
}

STDMETHODIMP CParameterReal::put_Value(DOUBLE dValue) {
    return ChangeValue([&] { return SetValue(dValue); });
}

STDMETHODIMP CParameterReal::get_Minimum(DOUBLE*) { return Fail(E_NOTIMPL, kNoLimits); }
STDMETHODIMP CParameterReal::put_Minimum(DOUBLE) { return Fail(E_NOTIMPL, kNoLimits); }
STDMETHODIMP CParameterReal::get_Maximum(DOUBLE*) { return Fail(E_NOTIMPL, kNoLimits); }
STDMETHODIMP CParameterReal::put_Maximum(DOUBLE) { return Fail(E_NOTIMPL, kNoLimits); }

STDMETHODIMP CParameterReal::get_Units(eUNIT* peUnit) {
    if (!peUnit) return Fail(E_POINTER, "peUnit is null");
    *peUnit = unit_;
    return S_OK;
}

STDMETHODIMP CParameterReal::put_Units(eUNIT eUnit) {
    if (!IsKnownUnit(eUnit)) return UnknownUnit(eUnit);
    unit_ = eUnit;
    return S_OK;
}

STDMETHODIMP CParameterReal::Increment(eSTEP) { return Fail(E_NOTIMPL, kNoSteps); }
STDMETHODIMP CParameterReal::Decrement(eSTEP) { return Fail(E_NOTIMPL, kNoSteps); }
STDMETHODIMP CParameterReal::IncWithDepNoti(eSTEP) { return Fail(E_NOTIMPL, kNoSteps); }
STDMETHODIMP CParameterReal::DecWithDepNoti(eSTEP) { return Fail(E_NOTIMPL, kNoSteps); }

STDMETHODIMP CParameterReal::GetNearestValue(DOUBLE dValue, DOUBLE* pdNearest) {
    if (!pdNearest) return Fail(E_POINTER, "pdNearest is null");
    *pdNearest = dValue;
    return S_OK;
}

STDMETHODIMP CParameterReal::SetValueNoCallback(DOUBLE dValue) {
    value_ = dValue;
    return S_OK;
}

STDMETHODIMP CParameterReal::AssignValue(DOUBLE dValue, ULONG udwCtrlFlags) {
    return AssignWithFlags(
        udwCtrlFlags, [&] { return SetValue(dValue); }, [&] { value_ = dValue; });
}

STDMETHODIMP CParameterReal::Reset() {
    return UnderWriteLock([&] {
        if (const auto* withValue = defaults_.As<SDefaultsRealValue>()) {
            unit_ = withValue->unit;
            SetValue(withValue->value);
        } else {
            const auto* unitOnly = defaults_.As<SDefaultsReal>();
            unit_ = unitOnly ? unitOnly->unit : eUNIT_NONE;
            SetStatus(eSTATUS_INVALID);
        }
        return S_OK;
    });
}

void CParameterReal::UpdateVariant() {
    VARIANT& v = CallbackData();
    v.vt = VT_R8;
    v.dblVal = value_;
}

HRESULT CParameterReal::SetValue(double value) {
    value_ = value;
    SetStatus(eSTATUS_VALID);
    return S_OK;
}

// --- CParameterRealSetting ---------------------------------------------------

STDMETHODIMP CParameterRealSetting::get_Minimum(DOUBLE* pdMinimum) {
    if (!pdMinimum) return Fail(E_POINTER, "pdMinimum is null");
    return UnderReadLock([&] {
        *pdMinimum = minimum_;
        return S_OK;
    });
}

STDMETHODIMP CParameterRealSetting::put_Minimum(DOUBLE dMinimum) {
    return UnderWriteLock([&] {
        minimum_ = dMinimum;
        return S_OK;
    });
}

STDMETHODIMP CParameterRealSetting::get_Maximum(DOUBLE* pdMaximum) {
    if (!pdMaximum) return Fail(E_POINTER, "pdMaximum is null");
    return UnderReadLock([&] {
        *pdMaximum = maximum_;
        return S_OK;
    });
}

STDMETHODIMP CParameterRealSetting::put_Maximum(DOUBLE dMaximum) {
    return UnderWriteLock([&] {
        maximum_ = dMaximum;
        return S_OK;
    });
}

double CParameterRealSetting::NextValue(double current, eSTEP) { return current; }
double CParameterRealSetting::PreviousValue(double current, eSTEP) { return current; }

HRESULT CParameterRealSetting::ClampedWrite(double candidate) {
    const double current = value_;
    if (current == minimum_ && candidate <= current) return OnLimit(false, Text(minimum_, unit_));
    if (current == maximum_ && candidate > current) return OnLimit(true, Text(maximum_, unit_));
    if (candidate > maximum_) candidate = maximum_;
    if (candidate < minimum_) candidate = minimum_;
    if (IsValid() && candidate == current) return S_FALSE;
    return put_Value(candidate);
}

HRESULT CParameterRealSetting::Step(bool up, eSTEP eStep) {
    return UnderWriteLock([&]() -> HRESULT {
        double current = 0.0;
        const HRESULT read = get_Value(&current);
        if (FAILED(read)) return read;
        return ClampedWrite(up ? NextValue(current, eStep) : PreviousValue(current, eStep));
    });
}

STDMETHODIMP CParameterRealSetting::Increment(eSTEP eStep) { return Step(true, eStep); }
STDMETHODIMP CParameterRealSetting::Decrement(eSTEP eStep) { return Step(false, eStep); }
STDMETHODIMP CParameterRealSetting::IncWithDepNoti(eSTEP eStep) { return Step(true, eStep); }
STDMETHODIMP CParameterRealSetting::DecWithDepNoti(eSTEP eStep) { return Step(false, eStep); }

STDMETHODIMP CParameterRealSetting::GetNearestValue(DOUBLE dValue, DOUBLE* pdNearest) {
    if (!pdNearest) return Fail(E_POINTER, "pdNearest is null");
    *pdNearest = dValue < minimum_ ? minimum_ : (dValue > maximum_ ? maximum_ : dValue);
    return S_OK;
}

bool CParameterRealSetting::ResetFromRecord() {
    if (const auto* noReset = defaults_.As<SDefaultsRealValueMinMaxNoReset>()) {
        minimum_ = noReset->minimum;
        maximum_ = noReset->maximum;
        unit_ = noReset->unit;
        SetStatus(eSTATUS_INVALID);
    } else if (const auto* minMax = defaults_.As<SDefaultsRealValueMinMax>()) {
        minimum_ = minMax->minimum;
        maximum_ = minMax->maximum;
        unit_ = minMax->unit;
        SetValue(minMax->value);
    } else if (const auto* withValue = defaults_.As<SDefaultsRealValue>()) {
        // Limits 0.0 and 0.0: only 0.0 is then accepted.
        minimum_ = 0.0;
        maximum_ = 0.0;
        unit_ = withValue->unit;
        SetValue(withValue->value);
    } else if (const auto* unitOnly = defaults_.As<SDefaultsReal>()) {
        minimum_ = 0.0;
        maximum_ = 0.0;
        unit_ = unitOnly->unit;
        SetStatus(eSTATUS_INVALID);
    } else {
        return false;
    }
    return true;
}

STDMETHODIMP CParameterRealSetting::Reset() {
    return UnderWriteLock([&] {
        if (!ResetFromRecord()) {
            minimum_ = 0.0;
            maximum_ = 0.0;
            unit_ = eUNIT_NONE;
            SetStatus(eSTATUS_INVALID);
        }
        return S_OK;
    });
}

DWORD CParameterReal::PayloadSize() { return IsValid() ? 14 : 4; }

void CParameterReal::SavePayload(CDataStream& stream) {
    stream.WriteShort(kTypeReal);
    stream.WriteShort(StatusWord());
    if (!IsValid()) return;
    stream.WriteShort(static_cast<WORD>(EnumBits(unit_)));
    stream.WriteDouble(value_);
}

void CParameterReal::AssignLoaded(WORD unit, double value) {
    const auto loadedUnit = static_cast<eUNIT>(unit);
    if (!IsKnownUnit(loadedUnit)) {
        SetStatus(eSTATUS_INVALID);
        return;
    }
    unit_ = loadedUnit;
    StoreLoaded(value);
}

bool CParameterReal::LoadPayload(CDataStream& stream) {
    if (stream.ReadShort() != kTypeReal) return false;
    const WORD status = stream.ReadShort();
    if (status != 0) {
        ApplyStatusWord(status);
        return true;
    }
    const WORD unit = stream.ReadShort();
    AssignLoaded(unit, stream.ReadDouble());
    return true;
}

DWORD CParameterRealSetting::PayloadSize() { return CParameterReal::PayloadSize() + 16; }

void CParameterRealSetting::SavePayload(CDataStream& stream) {
    CParameterReal::SavePayload(stream);
    stream.WriteDouble(minimum_);
    stream.WriteDouble(maximum_);
}

bool CParameterRealSetting::LoadPayload(CDataStream& stream) {
    if (stream.ReadShort() != kTypeReal) return false;
    const WORD status = stream.ReadShort();
    WORD unit = 0;
    double value = 0.0;
    if (status == 0) {
        unit = stream.ReadShort();
        value = stream.ReadDouble();
    }
    const double minimum = stream.ReadDouble();
    const double maximum = stream.ReadDouble();
    minimum_ = minimum;
    maximum_ = maximum;
    if (status != 0)
        ApplyStatusWord(status);
    else
        AssignLoaded(unit, value);
    return true;
}

HRESULT CParameterRealSetting::Check(double value) const {
    if (std::isnan(value)) return Fail(E_INVALIDARG, "NaN is not a value");  // passes no limit
    if (real::IsBelow(value, minimum_)) return OutOfLimits(Text(value, unit_), false, Text(minimum_, unit_));
    if (real::IsAbove(value, maximum_)) return OutOfLimits(Text(value, unit_), true, Text(maximum_, unit_));
    return S_OK;
}

HRESULT CParameterRealSetting::SetValue(double value) {
    if (const HRESULT hr = Check(value); FAILED(hr)) return hr;
    if (IsValid() && value == value_) return S_FALSE;
    return CParameterReal::SetValue(value);
}

// --- CParameterRealSettingIncDec ---------------------------------------------

double CParameterRealSettingIncDec::SteppedValue(bool up, double current, double step, double limit) const {
    const double candidate = up ? current + step : current - step;
    if (up && current < limit && candidate > limit) return limit;
    if (!up && current > limit && candidate < limit) return limit;
    return candidate;
}

HRESULT CParameterRealSettingIncDec::StepBy(bool up, eSTEP eStep) {
    if (largeStep_ == 0.0 || smallStep_ == 0.0) return Fail(E_NOTIMPL, "the parameter has no step sizes");
    const double step = real::IsLarge(eStep) ? largeStep_ : smallStep_;
    double limit = 0.0;
    const HRESULT read = up ? get_Maximum(&limit) : get_Minimum(&limit);
    if (FAILED(read)) return read;
    // The stored value is stepped even when it is invalid.
    return put_Value(SteppedValue(up, value_, step, limit));
}

STDMETHODIMP CParameterRealSettingIncDec::Increment(eSTEP eStep) { return StepBy(true, eStep); }
STDMETHODIMP CParameterRealSettingIncDec::Decrement(eSTEP eStep) { return StepBy(false, eStep); }
STDMETHODIMP CParameterRealSettingIncDec::IncWithDepNoti(eSTEP eStep) { return StepBy(true, eStep); }
STDMETHODIMP CParameterRealSettingIncDec::DecWithDepNoti(eSTEP eStep) { return StepBy(false, eStep); }

STDMETHODIMP CParameterRealSettingIncDec::Reset() {
    const auto* withValue = defaults_.As<SDefaultsRealSettingIncDec>();
    const auto* noReset = defaults_.As<SDefaultsRealSettingIncDecNoReset>();
    if (!withValue && !noReset) return CParameterRealSetting::Reset();
    return UnderWriteLock([&] {
        put_Minimum(withValue ? withValue->minimum : noReset->minimum);
        put_Maximum(withValue ? withValue->maximum : noReset->maximum);
        unit_ = withValue ? withValue->unit : noReset->unit;
        if (withValue)
            SetValue(withValue->value);
        else
            SetStatus(eSTATUS_INVALID);
        smallStep_ = withValue ? withValue->smallStep : noReset->smallStep;
        largeStep_ = withValue ? withValue->largeStep : noReset->largeStep;
        return S_OK;
    });
}

// --- Unit and combining classes ----------------------------------------------

STDMETHODIMP CParameterHertz::put_Value(DOUBLE dValue) { return CParameterReal::put_Value(real::RoundHertz(dValue)); }

void CParameterHertzReactive::Recalculate(CDatabaseObjectImpl*) {
    if (!IsValid()) return;
    double nearest = value_;
    GetNearestValue(value_, &nearest);
    if (nearest != value_) SetValue(nearest);
}

bool CParameterHertzReactive::OnDependencyChanged(CDatabaseObjectImpl* source) {
    const double before = value_;
    Recalculate(source);
    return value_ != before;
}

HRESULT CParameterNonNullRealSettingIncDec::SetValue(double value) {
    if (value == 0.0) return Fail(E_INVALIDARG, "the value must not be 0");
    return CParameterRealSettingIncDec::SetValue(value);
}

double CParameterNonNullRealSettingIncDec::SteppedValue(bool up, double current, double step, double limit) const {
    const double candidate = CParameterRealSettingIncDec::SteppedValue(up, current, step, limit);
    // A step that lands on 0.0 takes one more step the same way.
    return candidate == 0.0 ? CParameterRealSettingIncDec::SteppedValue(up, 0.0, step, limit) : candidate;
}

}  // namespace vorn
