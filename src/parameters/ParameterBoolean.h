// Boolean parameters (IParameterBoolean).
//
// The value is one byte, 0 or 1; every non-zero VARIANT_BOOL written is
// stored as 1, and get_Value answers VARIANT_TRUE or VARIANT_FALSE.
//  - CParameterBoolean: stores any write (an unchanged value notifies again).
//  - CParameterBooleanSetting: a write of the value already held, while
//    valid, returns S_FALSE and changes and notifies nothing.
//  - CParameterBooleanNoReset: a CParameterBoolean whose valid value
//    survives a reset (CKeptByReset).
// Reset accepts an SDefaultsBooleanValue record (the low byte of its value);
// any other record leaves the parameter invalid.
#pragma once

#include "parameters/Parameter.h"

namespace vorn {

class CParameterBoolean : public CParamTemplate<IParameterBoolean, &IID_IParameterBoolean> {
public:
    // IParameter: VT_BOOL.
    STDMETHODIMP get_type(USHORT* pParamType) override;
    // IParameterBoolean
    STDMETHODIMP get_Value(VARIANT_BOOL* pbValue) override;
    STDMETHODIMP put_Value(VARIANT_BOOL bValue) override;
    STDMETHODIMP SetValueNoCallback(VARIANT_BOOL bValue) override;
    STDMETHODIMP AssignValue(VARIANT_BOOL bValue, ULONG udwCtrlFlags) override;
    // IDatabaseObject
    STDMETHODIMP Reset() override;

    // Settings stream payload: type code 2, the status word and, when valid,
    // the value as a word 0 or 1 (6 bytes; 4 when invalid). A loaded valid
    // value (any non-zero word is true) goes through SetValue.
    bool LoadPayload(CDataStream& stream) override;
    void SavePayload(CDataStream& stream) override;
    DWORD PayloadSize() override;

    // VARIANT_TRUE or VARIANT_FALSE.
    void UpdateVariant() override;
    // The stored value, whatever the status.
    virtual bool GetValue() const { return value_ != 0; }
    // The checked store: the value, the notification value, status valid,
    // the sinks told; S_OK.
    virtual HRESULT SetValue(bool value);

protected:
    // Stores a valid value read from a settings stream, the write lock held:
    // the checked store, whose refusal leaves the parameter invalid.
    virtual void StoreLoaded(bool value) { ApplyLoadedStore(SetValue(value)); }

    BYTE value_ = 0;
};

class CParameterBooleanSetting : public CParameterBoolean {
public:
    // S_FALSE when valid and unchanged; else as CParameterBoolean.
    HRESULT SetValue(bool value) override;
};

class CParameterBooleanNoReset : public CKeptByReset<CParameterBoolean> {};

// A Boolean counts as true only when it exists and holds a valid true value.
inline bool IsTrue(const CParameterBoolean* flag) noexcept { return flag && flag->IsValid() && flag->GetValue(); }

}  // namespace vorn
