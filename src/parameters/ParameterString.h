// String parameters (IParameterString): one owned BSTR.
//
// The stored string is null (empty) until the first write. Every accepted
// write notifies, also when the text is unchanged (there is no equality
// test). A null write empties the string, invalidates the parameter (telling
// the sinks when it was valid) and still fails with E_INVALIDARG, so put_Value
// does not propagate it: a client clears a string by writing an empty one.
// The notification value holds its own VT_BSTR copy of the text.
#pragma once

#include <string>

#include "parameters/Parameter.h"

namespace vorn {

class CParameterString : public CParamTemplate<IParameterString, &IID_IParameterString> {
public:
    ~CParameterString() override;

    // IParameter: VT_BSTR.
    STDMETHODIMP get_type(USHORT* pParamType) override;
    // IParameterString
    STDMETHODIMP get_Value(BSTR* pbstrValue) override;
    STDMETHODIMP put_Value(BSTR bstrValue) override;
    STDMETHODIMP AssignValue(BSTR bstrValue, ULONG udwCtrlFlags) override;
    // IDatabaseObject: SDefaultsStringValue, else invalid.
    STDMETHODIMP Reset() override;

    // Settings stream payload: type code 8, the status word and, when valid,
    // the text (u32 character count, UTF-16 characters): 8 + 2 x count
    // bytes; 4 when invalid. A loaded valid text goes through SetValue. A
    // count of 0 reads as the null string, which the checked store refuses:
    // a string saved valid and empty loads invalid.
    bool LoadPayload(CDataStream& stream) override;
    void SavePayload(CDataStream& stream) override;
    DWORD PayloadSize() override;

    // A VT_BSTR copy of the text (left empty if it cannot be allocated).
    void UpdateVariant() override;
    // The checked store: a copy of `value` (length from the BSTR), status
    // valid; S_OK, or E_OUTOFMEMORY with nothing changed. Null: see above.
    virtual HRESULT SetValue(BSTR value);

    // The stored text, owned by the parameter; null when empty.
    BSTR Value() const noexcept { return value_; }

protected:
    // Replaces the stored text by a copy of `value`; false (nothing changed)
    // when it cannot be allocated.
    bool StoreCopy(BSTR value) noexcept;

    BSTR value_ = nullptr;
};

// A string whose valid value survives a reset (CKeptByReset).
class CParameterStringNoReset : public CKeptByReset<CParameterString> {};

// The text of a string parameter as UTF-8; empty when it is missing or holds
// no valid value.
std::string TextOf(const CParameterString* parameter);

}  // namespace vorn
