// String parameters: value rule, notification value and reset.
#include "parameters/ParameterString.h"

#include <string_view>

#include "stream/DataStream.h"
#include "vorn/rt/text.h"

namespace vorn {

namespace {

// A copy that keeps the BSTR's length (embedded NULs included); an empty
// source gives an empty, non-null string. Null when out of memory.
BSTR CopyText(BSTR text) noexcept { return SysAllocStringLen(text, text ? SysStringLen(text) : 0); }

}  // namespace

CParameterString::~CParameterString() { SysFreeString(value_); }

STDMETHODIMP CParameterString::get_type(USHORT* pParamType) {
    if (!pParamType) return Fail(E_POINTER, "pParamType is null");
    *pParamType = VT_BSTR;
    return S_OK;
}

STDMETHODIMP CParameterString::get_Value(BSTR* pbstrValue) {
    if (!pbstrValue) return Fail(E_POINTER, "pbstrValue is null");
    return UnderReadLock([&]() -> HRESULT {
        if (!IsValid()) return InvalidValue();
        BSTR copy = CopyText(value_);
        if (!copy) return E_OUTOFMEMORY;
        *pbstrValue = copy;
        return S_OK;
    });
}

STDMETHODIMP CParameterString::put_Value(BSTR bstrValue) {
    return ChangeValue([&] { return SetValue(bstrValue); });
}

STDMETHODIMP CParameterString::AssignValue(BSTR bstrValue, ULONG udwCtrlFlags) {
    return AssignWithFlags(
        udwCtrlFlags, [&] { return SetValue(bstrValue); }, [&] { return StoreCopy(bstrValue) ? S_OK : E_OUTOFMEMORY; });
}

STDMETHODIMP CParameterString::Reset() {
    return UnderWriteLock([&]() -> HRESULT {
        const auto* record = defaults_.As<SDefaultsStringValue>();
        if (!record || !record->value) {
            SetStatus(eSTATUS_INVALID);
            return S_OK;
        }
        const std::u16string_view text(record->value);
        BSTR initial = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
        if (!initial) return E_OUTOFMEMORY;
        const HRESULT hr = SetValue(initial);
        SysFreeString(initial);
        return hr == E_OUTOFMEMORY ? hr : S_OK;
    });
}

DWORD CParameterString::PayloadSize() { return IsValid() ? 8 + 2 * SysStringLen(value_) : 4; }

void CParameterString::SavePayload(CDataStream& stream) {
    stream.WriteShort(kTypeString);
    stream.WriteShort(StatusWord());
    if (IsValid()) stream.WriteString(value_, SysStringLen(value_));
}

bool CParameterString::LoadPayload(CDataStream& stream) {
    if (stream.ReadShort() != kTypeString) return false;
    const WORD status = stream.ReadShort();
    if (status != 0) {
        ApplyStatusWord(status);
        return true;
    }
    // A count of 0 is the null string: the null write, which invalidates.
    const BstrPtr text = stream.ReadString();
    ApplyLoadedStore(SetValue(text.get()));
    return true;
}

void CParameterString::UpdateVariant() {
    VARIANT& v = CallbackData();
    VariantClear(&v);
    BSTR copy = CopyText(value_);
    if (!copy) return;
    v.vt = VT_BSTR;
    v.bstrVal = copy;
}

bool CParameterString::StoreCopy(BSTR value) noexcept {
    BSTR copy = nullptr;
    if (value) {
        copy = CopyText(value);
        if (!copy) return false;
    }
    SysFreeString(value_);
    value_ = copy;
    return true;
}

HRESULT CParameterString::SetValue(BSTR value) {
    if (!value) {
        if (value_) {
            SysFreeString(value_);
            value_ = nullptr;
        }
        if (status_ != eSTATUS_INVALID) SetStatus(eSTATUS_INVALID);
        return Fail(E_INVALIDARG, "the string is null: the parameter is now empty and invalid");
    }
    if (!StoreCopy(value)) return E_OUTOFMEMORY;
    SetStatus(eSTATUS_VALID);
    return S_OK;
}

std::string TextOf(const CParameterString* parameter) {
    if (!parameter || !parameter->IsValid() || !parameter->Value()) return {};
    BSTR value = parameter->Value();
    return Narrow(std::u16string_view(value, SysStringLen(value)));
}

}  // namespace vorn
