// CParameter: the status rule and the propagation entry of every parameter.
#include "parameters/Parameter.h"

#include "stream/NodeStream.h"

namespace vorn {

namespace {

// True when a change of `node` has anyone to tell: a dependant or a
// recalculation-list member on the node or on one of its ancestors.
bool HasDependants(const CDatabaseObjectImpl* node) noexcept {
    for (; node; node = node->Parent())
        if (!node->Dependants().Empty() || !node->SecondaryDependants().Empty()) return true;
    return false;
}

}  // namespace

void CParameter::SetStatus(eSTATUS status) {
    if (status == eSTATUS_INVALID) {
        VARIANT& data = CallbackData();
        if (data.vt == VT_BSTR)
            VariantClear(&data);
        else
            VariantInit(&data);
    } else {
        UpdateVariant();
    }
    status_ = status;
    NotifyChange();
}

void CParameter::ApplyStatusWord(WORD stored) { SetStatus(stored == kStatusValid ? eSTATUS_VALID : eSTATUS_INVALID); }

void CParameter::ApplyLoadedStore(HRESULT storeResult) {
    if (FAILED(storeResult)) SetStatus(eSTATUS_INVALID);
}

STDMETHODIMP CParameter::Save(IStream* pStm) { return SaveToStream(*this, pStm); }
STDMETHODIMP CParameter::Load(IStream* pStm) { return LoadFromStream(*this, pStm); }

HRESULT CParameter::UnknownUnit(eUNIT unit) const noexcept {
    return Guarded(*this, [&]() -> HRESULT {
        ThrowHr(E_INVALIDARG, std::to_string(EnumBits(unit)) + " is not a unit (eUNIT has " +
                                  std::to_string(eUNIT_VOLT_VOLT - eUNIT_NONE + 1) + " members, " +
                                  std::to_string(eUNIT_NONE) + " .. " + std::to_string(eUNIT_VOLT_VOLT) + ")");
    });
}

HRESULT CParameter::OutOfLimits(const std::string& value, bool above, const std::string& limit) const {
    return Fail(E_INVALIDARG, value + (above ? " is above the upper limit " : " is below the lower limit ") + limit);
}

HRESULT CParameter::OnLimit(bool upper, const std::string& limit) const {
    return Fail(
        E_INVALIDARG,
        (upper ? "the value already sits on the upper limit " : "the value already sits on the lower limit ") + limit);
}

void CParameter::Propagate() {
    if (HasDependants(this)) PropagateChange();
}

}  // namespace vorn
