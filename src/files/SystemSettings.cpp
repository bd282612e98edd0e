// System settings: see SystemSettings.h.
#include "files/SystemSettings.h"

#include <iterator>

#include "files/TreeLinks.h"

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

bool CSystemSettingLinks::PresetFlag() const noexcept {
    return presetFlag_ && presetFlag_->IsValid() && presetFlag_->GetValue();
}

void CSystemSettingLinks::Tell(eSTATE state) const {
    if (!companion_ || !companion_->IsValid() || companion_->Value() == static_cast<ULONG>(eSTATE_COMPLETE)) return;
    companion_->SetValue(static_cast<ULONG>(state));
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
