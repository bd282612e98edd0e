// How the rule classes find their partners: see RuleBinding.h.
#include "schema/RuleBinding.h"

namespace vorn::rules {

void Follow(CDatabaseObjectImpl* source, CDatabaseObjectImpl* dependant) noexcept {
    if (source) source->AddDependant(dependant);
}

void WriteIfChanged(CParameterBoolean* flag, bool value) {
    if (flag && (!flag->IsValid() || flag->GetValue() != value)) flag->put_Value(value ? VARIANT_TRUE : VARIANT_FALSE);
}

void WriteIfChanged(CParameterInteger* parameter, ULONG value) {
    if (parameter && (!parameter->IsValid() || parameter->Value() != value)) parameter->put_Value(value);
}

void WriteIfChanged(CParameterReal* parameter, double value) {
    if (parameter && (!parameter->IsValid() || parameter->Value() != value)) parameter->put_Value(value);
}

void Invalidate(CParameter* parameter) {
    if (!parameter || !parameter->IsValid()) return;
    parameter->SetStatus(eSTATUS_INVALID);
    parameter->Propagate();
}

BstrPtr NewText(std::u16string_view text) {
    BstrPtr out(SysAllocStringLen(text.data(), static_cast<UINT>(text.size())));
    if (!out) ThrowHr(E_OUTOFMEMORY, "no memory for a text");
    return out;
}

}  // namespace vorn::rules
