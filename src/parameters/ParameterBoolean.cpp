// Boolean parameters: value rule, notification value and reset.
#include "parameters/ParameterBoolean.h"

#include "stream/DataStream.h"

namespace vorn {

STDMETHODIMP CParameterBoolean::get_type(USHORT* pParamType) {
    if (!pParamType) return Fail(E_POINTER, "pParamType is null");
    *pParamType = VT_BOOL;
    return S_OK;
}

STDMETHODIMP CParameterBoolean::get_Value(VARIANT_BOOL* pbValue) {
    return ReadValue(pbValue, [&] { return GetValue() ? VARIANT_TRUE : VARIANT_FALSE; });
}

STDMETHODIMP CParameterBoolean::put_Value(VARIANT_BOOL bValue) {
    return ChangeValue([&] { return SetValue(bValue != 0); });
}

STDMETHODIMP CParameterBoolean::SetValueNoCallback(VARIANT_BOOL bValue) {
    value_ = bValue != 0 ? 1 : 0;
    return S_OK;
}

STDMETHODIMP CParameterBoolean::AssignValue(VARIANT_BOOL bValue, ULONG udwCtrlFlags) {
    return AssignWithFlags(
        udwCtrlFlags, [&] { return SetValue(bValue != 0); }, [&] { value_ = bValue != 0 ? 1 : 0; });
}

STDMETHODIMP CParameterBoolean::Reset() {
    return UnderWriteLock([&] {
        if (const auto* record = defaults_.As<SDefaultsBooleanValue>())
            SetValue((record->value & 0xFFu) != 0);
        else
            SetStatus(eSTATUS_INVALID);
        return S_OK;
    });
}

void CParameterBoolean::UpdateVariant() {
    VARIANT& v = CallbackData();
    v.vt = VT_BOOL;
    v.boolVal = value_ != 0 ? VARIANT_TRUE : VARIANT_FALSE;
}

HRESULT CParameterBoolean::SetValue(bool value) {
    value_ = value ? 1 : 0;
    SetStatus(eSTATUS_VALID);
    return S_OK;
}

DWORD CParameterBoolean::PayloadSize() { return IsValid() ? 6 : 4; }

void CParameterBoolean::SavePayload(CDataStream& stream) {
    stream.WriteShort(kTypeBoolean);
    stream.WriteShort(StatusWord());
    if (IsValid()) stream.WriteShort(GetValue() ? 1 : 0);
}

bool CParameterBoolean::LoadPayload(CDataStream& stream) {
    if (stream.ReadShort() != kTypeBoolean) return false;
    const WORD status = stream.ReadShort();
    if (status != 0)
        ApplyStatusWord(status);
    else
        StoreLoaded(stream.ReadShort() != 0);
    return true;
}

HRESULT CParameterBooleanSetting::SetValue(bool value) {
    if (IsValid() && GetValue() == value) return S_FALSE;
    return CParameterBoolean::SetValue(value);
}

}  // namespace vorn
