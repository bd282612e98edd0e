// Test support for the parameter model: see ParameterTestTree.h.
#include "ParameterTestTree.h"

#include <cstdio>

#include "parameters/ParameterBoolean.h"
#include "parameters/ParameterInteger.h"
#include "parameters/ParameterString.h"
#include "support/Sink.h"

namespace vorn::test {

std::string VariantText(const VARIANT& v) {
    char text[64];
    switch (v.vt) {
        case VT_EMPTY:
            return "empty";
        case VT_BOOL:
            return v.boolVal == VARIANT_TRUE ? "true" : (v.boolVal == VARIANT_FALSE ? "false" : "bad-bool");
        case VT_I4:
            std::snprintf(text, sizeof text, "%d", static_cast<int>(v.lVal));
            return text;
        case VT_R8:
            std::snprintf(text, sizeof text, "%.17g", v.dblVal);
            return text;
        case VT_BSTR: {
            std::string s;
            for (UINT i = 0; v.bstrVal && i < SysStringLen(v.bstrVal); ++i)
                s.push_back(static_cast<char>(v.bstrVal[i]));
            return "'" + s + "'";
        }
        default:
            std::snprintf(text, sizeof text, "vt%u", static_cast<unsigned>(v.vt));
            return text;
    }
}

std::string State(CParameter& parameter) {
    VARIANT value;
    VariantInit(&value);
    char text[64] = "?";
    if (auto* real = dynamic_cast<CParameterReal*>(&parameter)) {
        std::snprintf(text, sizeof text, "%.17g", real->Value());
    } else if (auto* integer = dynamic_cast<CParameterInteger*>(&parameter)) {
        std::snprintf(text, sizeof text, "%u", static_cast<unsigned>(integer->Value()));
    } else if (auto* flag = dynamic_cast<CParameterBoolean*>(&parameter)) {
        std::snprintf(text, sizeof text, "%s", flag->GetValue() ? "true" : "false");
    } else if (auto* string = dynamic_cast<CParameterString*>(&parameter)) {
        value.vt = VT_BSTR;
        value.bstrVal = string->Value();
    }
    return (value.vt == VT_BSTR ? VariantText(value) : text) + (parameter.IsValid() ? " valid " : " invalid ") +
           VariantText(parameter.CallbackData());
}

std::string After(HRESULT hr, CParameter& parameter) {
    const std::pair<HRESULT, const char*> names[] = {
        {S_OK, "S_OK"},           {S_FALSE, "S_FALSE"},     {E_INVALIDARG, "E_INVALIDARG"},
        {E_NOTIMPL, "E_NOTIMPL"}, {E_POINTER, "E_POINTER"}, {kInvalid, "kInvalid"}};
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(hr));
    std::string name = text;
    for (const auto& [code, known] : names)
        if (code == hr) name = known;
    return name + ": " + State(parameter);
}

STDMETHODIMP CRecordingSink::QueryInterface(REFIID riid, void** ppv) { return vorn::test::QuerySink(this, riid, ppv); }

STDMETHODIMP CRecordingSink::CallbackWithData(IUnknown* pParameterUnknown, VARIANT vData) {
    log_.Add(label_ + ":" + NodeOf(pParameterUnknown)->Name() + "=" + VariantText(vData));
    return S_OK;
}

STDMETHODIMP CRecordingSink::GetCallbackFileName(BSTR* bstrFileName) {
    if (bstrFileName) *bstrFileName = nullptr;
    return S_OK;
}

void CRecordingRule::Derive(CDatabaseObjectImpl* source) {
    const auto* real = dynamic_cast<const CParameterReal*>(source);
    if (real && real->IsValid()) SetValue(real->Value() + offset_);
}

void CRecordingRule::Recalculate(CDatabaseObjectImpl* source) {
    log_.Add("recalc " + Name() + "(" + source->Name() + ")");
    Derive(source);
}

bool CRecordingRule::OnDependencyChanged(CDatabaseObjectImpl* source) {
    log_.Add("dep " + Name() + "(" + source->Name() + ")");
    const double before = value_;
    const bool wasValid = IsValid();
    Derive(source);
    return !wasValid || value_ != before;
}

}  // namespace vorn::test
