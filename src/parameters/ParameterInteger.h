// Integer and enumeration parameters (IParameterInteger).
//
// The value is an unsigned 32-bit number. get_type reports VT_UI4 while the
// notification value is VT_I4 with the same bits; the mismatch is kept, as
// clients read the notification value as a signed long.
//  - CParameterInteger: stores any value; no limits, no stepping.
//  - CParameterEnum: values below the count of its defaults record
//    (SDefaultsEnum or SDefaultsEnumValue, read each time); without a count
//    every value is refused. Minimum 0, maximum count - 1.
//  - CParameterEnumSetting: an unchanged write while valid is S_FALSE (and is
//    not range-checked again).
//  - CParameterStateEnum: the handshake companion of a system setting
//    (eSTATE). Once its value parameter has claimed it (SetOwner), its
//    state belongs to that parameter's assignments and resets: a reset of
//    the companion keeps a valid state; an unclaimed one is a CParameterEnum.
//  - CParameterIntegerSetting: inclusive unsigned limits, unchanged writes
//    S_FALSE, and stepping by LargeStep (10) or SmallStep (1). The stepping
//    clamps with signed comparisons while the store checks unsigned, so a
//    limit above 2147483647 steps oddly; that mix is relied upon as it is.
#pragma once

#include "parameters/Parameter.h"

namespace vorn {

class CParameterInteger : public CParamTemplate<IParameterInteger, &IID_IParameterInteger> {
public:
    // IParameter: VT_UI4.
    STDMETHODIMP get_type(USHORT* pParamType) override;
    // IParameterInteger
    STDMETHODIMP get_Value(ULONG* pudwValue) override;
    STDMETHODIMP put_Value(ULONG udwValue) override;
    STDMETHODIMP get_Minimum(ULONG* pudwMinimum) override;
    STDMETHODIMP put_Minimum(ULONG udwMinimum) override;
    STDMETHODIMP get_Maximum(ULONG* pudwMaximum) override;
    STDMETHODIMP put_Maximum(ULONG udwMaximum) override;
    STDMETHODIMP get_ValueEx(ULONG* pudwValue) override;
    STDMETHODIMP put_ValueEx(ULONG udwValue) override;
    STDMETHODIMP Increment(eSTEP eStep) override;
    STDMETHODIMP Decrement(eSTEP eStep) override;
    STDMETHODIMP IncWithDepNoti(eSTEP eStep) override;
    STDMETHODIMP DecWithDepNoti(eSTEP eStep) override;
    // Plain integers and enumerations: the value itself.
    STDMETHODIMP GetNearestValue(ULONG udwValue, ULONG* pudwNearest) override;
    STDMETHODIMP SetValueNoCallback(ULONG udwValue) override;
    STDMETHODIMP AssignValue(ULONG udwValue, ULONG udwCtrlFlags) override;
    // IDatabaseObject: SDefaultsIntegerValue, else invalid.
    STDMETHODIMP Reset() override;

    // Settings stream payload: type code 4, the status word and, when valid,
    // the value as a u32 (8 bytes; 4 when invalid). A loaded valid value goes
    // through SetValue.
    bool LoadPayload(CDataStream& stream) override;
    void SavePayload(CDataStream& stream) override;
    DWORD PayloadSize() override;

    // VT_I4 with the value's bits.
    void UpdateVariant() override;
    // The checked store of a plain integer: any value; S_OK.
    virtual HRESULT SetValue(ULONG value);

    ULONG Value() const noexcept { return value_; }

protected:
    // Stores a valid value read from a settings stream, the write lock held:
    // the checked store, whose refusal leaves the parameter invalid.
    virtual void StoreLoaded(ULONG value) { ApplyLoadedStore(SetValue(value)); }

    ULONG value_ = 0;
};

class CParameterEnum : public CParameterInteger {
public:
    STDMETHODIMP get_Minimum(ULONG* pudwMinimum) override;
    // count - 1; 0xFFFFFFFF without a count.
    STDMETHODIMP get_Maximum(ULONG* pudwMaximum) override;
    // SDefaultsEnumValue, else invalid (also SDefaultsEnum).
    STDMETHODIMP Reset() override;

    // E_INVALIDARG for value >= count; else as CParameterInteger.
    HRESULT SetValue(ULONG value) override;
    // The test of SetValue alone: S_OK, or E_INVALIDARG reported with its
    // reason; nothing stored.
    HRESULT Check(ULONG value) const;
    // The number of values from the defaults record; 0 without one.
    ULONG Count() const noexcept;
};

class CParameterEnumSetting : public CParameterEnum {
public:
    HRESULT SetValue(ULONG value) override;
};

class CParameterStateEnum : public CParameterEnum {
public:
    // Claimed by the value parameter whose handshake state this is; called
    // in PostConstruct.
    void SetOwner(CParameter* owner) noexcept { owner_ = owner; }
    // Claimed and valid: the state is kept. Otherwise as CParameterEnum.
    STDMETHODIMP Reset() override;

private:
    CParameter* owner_ = nullptr;
};

class CParameterIntegerSetting : public CParameterInteger {
public:
    // The limit fields, without lock; put_ stores without check or notice.
    STDMETHODIMP get_Minimum(ULONG* pudwMinimum) override;
    STDMETHODIMP put_Minimum(ULONG udwMinimum) override;
    STDMETHODIMP get_Maximum(ULONG* pudwMaximum) override;
    STDMETHODIMP put_Maximum(ULONG udwMaximum) override;
    // One step up or down through the change path; E_INVALIDARG when the
    // value sits on the limit in the step's direction; the error of get_Value
    // when invalid. The WithDepNoti twins are the same.
    STDMETHODIMP Increment(eSTEP eStep) override;
    STDMETHODIMP Decrement(eSTEP eStep) override;
    STDMETHODIMP IncWithDepNoti(eSTEP eStep) override;
    STDMETHODIMP DecWithDepNoti(eSTEP eStep) override;
    // Clamped into the limits (unsigned comparisons).
    STDMETHODIMP GetNearestValue(ULONG udwValue, ULONG* pudwNearest) override;
    // SDefaultsIntegerValueMinMax; SDefaultsIntegerValue with limits 0 and
    // 0; else limits 0 and 0 and invalid.
    STDMETHODIMP Reset() override;

    // Settings stream payload: as CParameterInteger's, then the minimum and
    // the maximum (u32 each, whatever the status). Loading restores the
    // limits before the value is stored, so the value is checked against
    // the limits it was saved with.
    bool LoadPayload(CDataStream& stream) override;
    void SavePayload(CDataStream& stream) override;
    DWORD PayloadSize() override;

    // E_INVALIDARG outside [minimum, maximum]; S_FALSE when valid and
    // unchanged; else as CParameterInteger.
    HRESULT SetValue(ULONG value) override;
    virtual LONG LargeStep() { return largeStep_; }
    virtual LONG SmallStep() { return smallStep_; }

    ULONG Minimum() const noexcept { return minimum_; }
    ULONG Maximum() const noexcept { return maximum_; }

protected:
    HRESULT Step(bool up, eSTEP eStep);

    LONG largeStep_ = 10;
    LONG smallStep_ = 1;
    ULONG minimum_ = 0;
    ULONG maximum_ = 0;
};

// The value of an integer parameter, or `fallback` when it is missing or
// holds no valid value.
inline ULONG ValueOr(const CParameterInteger* parameter, ULONG fallback) noexcept {
    return parameter && parameter->IsValid() ? parameter->Value() : fallback;
}

}  // namespace vorn
