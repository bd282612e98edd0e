// System settings: see SystemSettings.h.
#include "files/SystemSettings.h"

#include "core/GroupImpl.h"

namespace vorn {

namespace {

// The sibling of `node` named `name` (ignoring case) if it is a T.
template <class T>
T* Sibling(const CDatabaseObjectImpl& node, const std::string& name) {
    auto* group = dynamic_cast<CGroupImpl*>(node.Parent());
    return group ? dynamic_cast<T*>(group->FindObject(name.c_str())) : nullptr;
}

constexpr const char* kModelNames[] = {"ZLM Alder", "ZLM Birch", "ZLM Cedar", "ZLM Dogwood", "ZLM Elm", "ZLM Fir"};

thread_local int tDefaultsResets = 0;

}  // namespace

CDefaultsResetScope::CDefaultsResetScope() noexcept { ++tDefaultsResets; }
CDefaultsResetScope::~CDefaultsResetScope() { --tDefaultsResets; }
bool CDefaultsResetScope::Active() noexcept { return tDefaultsResets > 0; }

void CSystemSettingLinks::Bind(CParameter& setting) {
    companion_ =
        Sibling<CParameterStateEnum>(setting, std::string(setting.BaseName() ? setting.BaseName() : "") + "State");
    if (companion_) companion_->SetOwner(&setting);
    CDatabaseObjectImpl* top = &setting;
    while (top->Parent()) top = top->Parent();
    if (auto* root = dynamic_cast<CGroupImpl*>(top))
        presetFlag_ = dynamic_cast<CParameterBoolean*>(root->FindObject(kPresetFlagPath));
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
void CParameterExtMixerState::PostConstruct() {
    changed_ = Sibling<CParameterBoolean>(*this, std::string(BaseName() ? BaseName() : "") + "Changed");
}

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
