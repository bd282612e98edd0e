// System settings: see SystemSettings.h.
#include "files/SystemSettings.h"

#include <iterator>

#include "files/TreeLinks.h"
#include "vorn/units.h"

namespace vorn {

namespace {

constexpr const char* kModelNames[] = {"ZLM Alder", "ZLM Birch", "ZLM Cedar", "ZLM Dogwood", "ZLM Elm", "ZLM Fir"};

thread_local int tDefaultsResets = 0;

}  // namespace

CDefaultsResetScope::CDefaultsResetScope() noexcept { ++tDefaultsResets; }
CDefaultsResetScope::~CDefaultsResetScope() { --tDefaultsResets; }
bool CDefaultsResetScope::Active() noexcept { return tDefaultsResets > 0; }

void CSystemSettingLinks::Bind(CParameter& setting) {
    companion_ = SiblingNamedAfter<CParameterStateEnum>(setting, "State");
    if (companion_) companion_->SetOwner(&setting);
    presetFlag_ = ChildOf<CParameterBoolean>(ChildOf<CGroupImpl>(RootOf(setting), kPresetFlagGroup), kPresetFlagName);
}

bool CSystemSettingLinks::PresetFlag() const noexcept { return IsTrue(presetFlag_); }

void CSystemSettingLinks::Tell(eSTATE state) const {
    if (!companion_ || !companion_->IsValid() || companion_->Value() == static_cast<ULONG>(eSTATE_COMPLETE)) return;
    companion_->SetValue(static_cast<ULONG>(state));
}

// ---------------------------------------------------------------------------
// CParameterDCSettingVoltageMinMax
// ---------------------------------------------------------------------------
void CParameterDCSettingVoltageMinMax::PostConstruct() {
    CParameterBaseSystemSettingReal::PostConstruct();
    minimum_ = SiblingOf<CParameterDCSettingVoltageMinMax>(*this, "SupplyVoltageMin");
    maximum_ = SiblingOf<CParameterDCSettingVoltageMinMax>(*this, "SupplyVoltageMax");
    current_ = SiblingOf<CParameterDCSettingVoltageMinMax>(*this, "SupplyVoltageCurrent");
}

HRESULT CParameterDCSettingVoltageMinMax::CheckAgainstPartners(double value) const {
    const auto text = [&](double v) { return FormatReal(v, Unit()); };
    const auto valid = [](const CParameterDCSettingVoltageMinMax* p) { return p && p->IsValid(); };
    if (this != maximum_ && valid(maximum_) && value > maximum_->Value())
        return Fail(E_INVALIDARG, text(value) + " is above the maximum supply voltage " + text(maximum_->Value()));
    if (this != minimum_ && valid(minimum_) && value < minimum_->Value())
        return Fail(E_INVALIDARG, text(value) + " is below the minimum supply voltage " + text(minimum_->Value()));
    return S_OK;
}

STDMETHODIMP CParameterDCSettingVoltageMinMax::put_Value(DOUBLE dValue) {
    return ChangeValue([&]() -> HRESULT {
        // The current voltage is checked against both limits; a limit only
        // against the other limit, as it moves the current voltage along.
        if (const HRESULT hr = CheckAgainstPartners(dValue); FAILED(hr)) return hr;
        const HRESULT hr = SetValue(dValue);
        if (FAILED(hr) || this == current_ || !current_ || !current_->IsValid()) return hr;
        const double current = current_->Value();
        if ((this == minimum_ && current < dValue) || (this == maximum_ && current > dValue))
            current_->SetValue(dValue);
        return hr;
    });
}

// ---------------------------------------------------------------------------
// CParameterExtMixerState
// ---------------------------------------------------------------------------
void CParameterExtMixerState::PostConstruct() { changed_ = SiblingNamedAfter<CParameterBoolean>(*this, "Changed"); }

HRESULT CParameterExtMixerState::SetValue(bool value) {
    const bool changes = IsValid() && GetValue() != value;
    const HRESULT hr = CParameterBooleanNoReset::SetValue(value);
    if (SUCCEEDED(hr) && changes && changed_) changed_->SetValue(true);
    return hr;
}

const char* InstrumentModelName(ULONG model) noexcept {
    return model >= 1 && model <= std::size(kModelNames) ? kModelNames[model - 1] : "Unknown";
}

}  // namespace vorn
