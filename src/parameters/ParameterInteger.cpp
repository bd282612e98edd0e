// Integer and enumeration parameters: value rules, limits, stepping, reset.
#include "parameters/ParameterInteger.h"

#include "stream/DataStream.h"

namespace vorn {

namespace {

constexpr char kNoLimits[] = "a plain integer parameter has no limits";
constexpr char kNoSteps[] = "a plain integer parameter has no steps";

}  // namespace

// --- CParameterInteger -------------------------------------------------------

STDMETHODIMP CParameterInteger::get_type(USHORT* pParamType) {
    if (!pParamType) return Fail(E_POINTER, "pParamType is null");
    *pParamType = VT_UI4;
    return S_OK;
}

STDMETHODIMP CParameterInteger::get_Value(ULONG* pudwValue) {
    return ReadValue(pudwValue, [&] { return value_; });
}

STDMETHODIMP CParameterInteger::put_Value(ULONG udwValue) {
    return ChangeValue([&] { return SetValue(udwValue); });
}

STDMETHODIMP CParameterInteger::get_Minimum(ULONG*) { return Fail(E_NOTIMPL, kNoLimits); }
STDMETHODIMP CParameterInteger::put_Minimum(ULONG) { return Fail(E_NOTIMPL, kNoLimits); }
STDMETHODIMP CParameterInteger::get_Maximum(ULONG*) { return Fail(E_NOTIMPL, kNoLimits); }
STDMETHODIMP CParameterInteger::put_Maximum(ULONG) { return Fail(E_NOTIMPL, kNoLimits); }
STDMETHODIMP CParameterInteger::get_ValueEx(ULONG*) { return Fail(E_NOTIMPL, "an integer parameter has no ValueEx"); }
STDMETHODIMP CParameterInteger::put_ValueEx(ULONG) { return Fail(E_NOTIMPL, "an integer parameter has no ValueEx"); }
STDMETHODIMP CParameterInteger::Increment(eSTEP) { return Fail(E_NOTIMPL, kNoSteps); }
STDMETHODIMP CParameterInteger::Decrement(eSTEP) { return Fail(E_NOTIMPL, kNoSteps); }
STDMETHODIMP CParameterInteger::IncWithDepNoti(eSTEP) { return Fail(E_NOTIMPL, kNoSteps); }
STDMETHODIMP CParameterInteger::DecWithDepNoti(eSTEP) { return Fail(E_NOTIMPL, kNoSteps); }

STDMETHODIMP CParameterInteger::GetNearestValue(ULONG udwValue, ULONG* pudwNearest) {
    if (!pudwNearest) return Fail(E_POINTER, "pudwNearest is null");
    *pudwNearest = udwValue;
    return S_OK;
}

STDMETHODIMP CParameterInteger::SetValueNoCallback(ULONG udwValue) {
    value_ = udwValue;
    return S_OK;
}

STDMETHODIMP CParameterInteger::AssignValue(ULONG udwValue, ULONG udwCtrlFlags) {
    return AssignWithFlags(
        udwCtrlFlags, [&] { return SetValue(udwValue); }, [&] { value_ = udwValue; });
}

STDMETHODIMP CParameterInteger::Reset() {
    return UnderWriteLock([&] {
        if (const auto* record = defaults_.As<SDefaultsIntegerValue>())
            SetValue(record->value);
        else
            SetStatus(eSTATUS_INVALID);
        return S_OK;
    });
}

void CParameterInteger::UpdateVariant() {
    VARIANT& v = CallbackData();
    v.vt = VT_I4;
    v.lVal = static_cast<LONG>(value_);
}

HRESULT CParameterInteger::SetValue(ULONG value) {
    value_ = value;
    SetStatus(eSTATUS_VALID);
    return S_OK;
}

DWORD CParameterInteger::PayloadSize() { return IsValid() ? 8 : 4; }

void CParameterInteger::SavePayload(CDataStream& stream) {
    stream.WriteShort(kTypeInteger);
    stream.WriteShort(StatusWord());
    if (IsValid()) stream.WriteLong(value_);
}

bool CParameterInteger::LoadPayload(CDataStream& stream) {
    if (stream.ReadShort() != kTypeInteger) return false;
    const WORD status = stream.ReadShort();
    if (status != 0)
        ApplyStatusWord(status);
    else
        StoreLoaded(stream.ReadLong());
    return true;
}

// --- CParameterEnum ----------------------------------------------------------

ULONG CParameterEnum::Count() const noexcept {
    if (const auto* withValue = defaults_.As<SDefaultsEnumValue>()) return withValue->count;
    if (const auto* withoutValue = defaults_.As<SDefaultsEnum>()) return withoutValue->count;
    return 0;
}

STDMETHODIMP CParameterEnum::get_Minimum(ULONG* pudwMinimum) {
    if (!pudwMinimum) return Fail(E_POINTER, "pudwMinimum is null");
    *pudwMinimum = 0;
    return S_OK;
}

STDMETHODIMP CParameterEnum::get_Maximum(ULONG* pudwMaximum) {
    if (!pudwMaximum) return Fail(E_POINTER, "pudwMaximum is null");
    *pudwMaximum = Count() - 1;  // 0xFFFFFFFF without a count
    return S_OK;
}

STDMETHODIMP CParameterEnum::Reset() {
    return UnderWriteLock([&] {
        if (const auto* record = defaults_.As<SDefaultsEnumValue>())
            SetValue(record->value);
        else
            SetStatus(eSTATUS_INVALID);
        return S_OK;
    });
}

HRESULT CParameterEnum::Check(ULONG value) const {
    const ULONG count = Count();
    if (value >= count)
        return Fail(E_INVALIDARG, count == 0 ? std::string("the parameter's enumeration has no members")
                                             : std::to_string(value) + " is not a member of the enumeration (0 .. " +
                                                   std::to_string(count - 1) + ")");
    return S_OK;
}

HRESULT CParameterEnum::SetValue(ULONG value) {
    if (const HRESULT hr = Check(value); FAILED(hr)) return hr;
    return CParameterInteger::SetValue(value);
}

STDMETHODIMP CParameterStateEnum::Reset() {
    return UnderWriteLock([&]() -> HRESULT { return owner_ && IsValid() ? S_OK : CParameterEnum::Reset(); });
}

HRESULT CParameterEnumSetting::SetValue(ULONG value) {
    if (IsValid() && value == value_) return S_FALSE;
    return CParameterEnum::SetValue(value);
}

// --- CParameterIntegerSetting ------------------------------------------------

STDMETHODIMP CParameterIntegerSetting::get_Minimum(ULONG* pudwMinimum) {
    if (!pudwMinimum) return Fail(E_POINTER, "pudwMinimum is null");
    *pudwMinimum = minimum_;
    return S_OK;
}

STDMETHODIMP CParameterIntegerSetting::put_Minimum(ULONG udwMinimum) {
    minimum_ = udwMinimum;
    return S_OK;
}

STDMETHODIMP CParameterIntegerSetting::get_Maximum(ULONG* pudwMaximum) {
    if (!pudwMaximum) return Fail(E_POINTER, "pudwMaximum is null");
    *pudwMaximum = maximum_;
    return S_OK;
}

STDMETHODIMP CParameterIntegerSetting::put_Maximum(ULONG udwMaximum) {
    maximum_ = udwMaximum;
    return S_OK;
}

HRESULT CParameterIntegerSetting::Step(bool up, eSTEP eStep) {
    return UnderWriteLock([&]() -> HRESULT {
        ULONG current = 0;
        const HRESULT read = get_Value(&current);
        const LONG large = LargeStep();
        const LONG small = SmallStep();
        // The limit test comes before the read result, as it always has.
        if (current == (up ? maximum_ : minimum_)) return OnLimit(up, std::to_string(current));
        if (FAILED(read)) return read;
        const ULONG step = static_cast<ULONG>(EnumBits(eStep) == eSTEP_LARGE ? large : small);
        // Unsigned arithmetic wraps; the clamp compares the results signed.
        ULONG candidate = up ? current + step : current - step;
        if (up && static_cast<LONG>(candidate) > static_cast<LONG>(maximum_)) candidate = maximum_;
        if (!up && static_cast<LONG>(candidate) < static_cast<LONG>(minimum_)) candidate = minimum_;
        return put_Value(candidate);
    });
}

STDMETHODIMP CParameterIntegerSetting::Increment(eSTEP eStep) { return Step(true, eStep); }
STDMETHODIMP CParameterIntegerSetting::Decrement(eSTEP eStep) { return Step(false, eStep); }
STDMETHODIMP CParameterIntegerSetting::IncWithDepNoti(eSTEP eStep) { return Step(true, eStep); }
STDMETHODIMP CParameterIntegerSetting::DecWithDepNoti(eSTEP eStep) { return Step(false, eStep); }

STDMETHODIMP CParameterIntegerSetting::GetNearestValue(ULONG udwValue, ULONG* pudwNearest) {
    if (!pudwNearest) return Fail(E_POINTER, "pudwNearest is null");
    *pudwNearest = udwValue < minimum_ ? minimum_ : (udwValue > maximum_ ? maximum_ : udwValue);
    return S_OK;
}

STDMETHODIMP CParameterIntegerSetting::Reset() {
    return UnderWriteLock([&] {
        if (const auto* minMax = defaults_.As<SDefaultsIntegerValueMinMax>()) {
            minimum_ = minMax->minimum;
            maximum_ = minMax->maximum;
            SetValue(minMax->value);
        } else if (const auto* plain = defaults_.As<SDefaultsIntegerValue>()) {
            // Limits 0 and 0: only a value of 0 is then accepted.
            minimum_ = 0;
            maximum_ = 0;
            SetValue(plain->value);
        } else {
            minimum_ = 0;
            maximum_ = 0;
            SetStatus(eSTATUS_INVALID);
        }
        return S_OK;
    });
}

DWORD CParameterIntegerSetting::PayloadSize() { return CParameterInteger::PayloadSize() + 8; }

void CParameterIntegerSetting::SavePayload(CDataStream& stream) {
    CParameterInteger::SavePayload(stream);
    stream.WriteLong(minimum_);
    stream.WriteLong(maximum_);
}

bool CParameterIntegerSetting::LoadPayload(CDataStream& stream) {
    if (stream.ReadShort() != kTypeInteger) return false;
    const WORD status = stream.ReadShort();
    const ULONG value = status == 0 ? stream.ReadLong() : 0;
    const ULONG minimum = stream.ReadLong();
    const ULONG maximum = stream.ReadLong();
    minimum_ = minimum;
    maximum_ = maximum;
    if (status != 0)
        ApplyStatusWord(status);
    else
        StoreLoaded(value);
    return true;
}

HRESULT CParameterIntegerSetting::SetValue(ULONG value) {
    if (value < minimum_) return OutOfLimits(std::to_string(value), false, std::to_string(minimum_));
    if (value > maximum_) return OutOfLimits(std::to_string(value), true, std::to_string(maximum_));
    if (IsValid() && value == value_) return S_FALSE;
    return CParameterInteger::SetValue(value);
}

}  // namespace vorn
