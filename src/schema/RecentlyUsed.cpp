// Settings remembered per noise type: see RecentlyUsed.h.
#include "schema/RecentlyUsed.h"

#include <iterator>
#include <string>

#include "schema/RuleBinding.h"

namespace vorn {

namespace {

// The RecentlyUsed member's suffix for each noise type, by eNOISETYPE.
constexpr const char* kNoiseTypeSuffix[] = {"OnNoisePLL", "OnNoiseAnalyser", "OnNoiseBaseband", "OnNoiseResidual"};
static_assert(std::size(kNoiseTypeSuffix) == eNOISETYPE_RESIDUAL + 1);

}  // namespace

// --- CParameterRememberedSetting ---------------------------------------------

void CParameterRememberedSetting::PostConstruct() {
    noiseType_ = FromRoot<CParameterInteger>(*this, "OptionStateInfo.NoiseMeasType");
    for (ULONG type = 0; type <= eNOISETYPE_RESIDUAL; ++type)
        remembered_[type] =
            SiblingOf<CParameterIntegerSetting>(*this, std::string("RecentlyUsed.") + name_ + kNoiseTypeSuffix[type]);
    rules::Follow(noiseType_, this);
}

ULONG CParameterRememberedSetting::NoiseType() const noexcept { return ValueOr(noiseType_, eNOISETYPE_ANALYSER); }

HRESULT CParameterRememberedSetting::Write(ULONG value) {
    const HRESULT hr = SetValue(value);
    if (FAILED(hr)) return hr;
    const ULONG type = NoiseType();
    if (type <= eNOISETYPE_RESIDUAL && remembered_[type]) remembered_[type]->put_Value(value);
    return hr;
}

bool CParameterRememberedSetting::Update(CDatabaseObjectImpl* source) {
    const ULONG type = NoiseType();
    if (source != noiseType_ || type > eNOISETYPE_RESIDUAL) return false;
    const CParameterIntegerSetting* remembered = remembered_[type];
    return remembered && remembered->IsValid() && Write(remembered->Value()) == S_OK;
}

void CParameterFFTWindow::PostConstruct() {
    CParameterRememberedSetting::PostConstruct();
    readOnly_ = FromRoot<CParameterBoolean>(*this, "GuiSettings.FFTWindowReadOnly");
}

HRESULT CParameterFFTWindow::Write(ULONG value) {
    const HRESULT hr = CParameterRememberedSetting::Write(value);
    if (FAILED(hr)) return hr;
    // The analyser chooses its window itself.
    rules::WriteIfChanged(readOnly_, NoiseType() == eNOISETYPE_ANALYSER);
    return hr;
}

void CParameterSweepMode::PostConstruct() {
    CParameterRememberedSetting::PostConstruct();
    setup_.Bind(*this);
    tablesLoaded_ = FromRoot<CParameterBoolean>(*this, "OptionStateInfo.LoadNoiseFreqTables");
    total_ = SiblingOf<CParameterTotalMeasTime>(*this, "TotalMeasTime");
    rules::Follow(tablesLoaded_, this);
}

HRESULT CParameterSweepMode::Write(ULONG value) {
    settled_ = false;
    const HRESULT hr = CParameterRememberedSetting::Write(value);
    settled_ = true;
    if (SUCCEEDED(hr)) SetUpSweep();
    return hr;
}

void CParameterSweepMode::SetUpSweep() {
    settled_ = false;
    if (IsValid()) setup_.Run(NoiseType(), value_);
    settled_ = true;
    if (total_) total_->Refresh();
}

bool CParameterSweepMode::Update(CDatabaseObjectImpl* source) {
    if (source != tablesLoaded_) return CParameterRememberedSetting::Update(source);
    if (IsTrue(tablesLoaded_)) SetUpSweep();
    return false;
}

// --- CParameterAFCTolerance --------------------------------------------------

void CParameterAFCTolerance::PostConstruct() {
    relative_ = SiblingOf<CParameterBoolean>(*this, "AFCToleranceRel");
    absolute_ = SiblingOf<CParameterRealSetting>(*this, "RecentlyUsed.AFCTolerance");
    percentage_ = SiblingOf<CParameterRealSetting>(*this, "RecentlyUsed.AFCTolerancePercentage");
    rules::Follow(relative_, this);
}

CParameterRealSetting* CParameterAFCTolerance::Remembered() const noexcept {
    return IsTrue(relative_) ? percentage_ : absolute_;
}

HRESULT CParameterAFCTolerance::Write(DOUBLE value) {
    const HRESULT hr = SetValue(value);
    if (FAILED(hr)) return hr;
    if (CParameterRealSetting* remembered = Remembered()) remembered->put_Value(value);
    return hr;
}

bool CParameterAFCTolerance::Update(CDatabaseObjectImpl*) {
    const CParameterRealSetting* remembered = Remembered();
    if (!remembered) return false;
    minimum_ = remembered->Minimum();
    maximum_ = remembered->Maximum();
    unit_ = remembered->Unit();
    if (!remembered->IsValid() || (IsValid() && value_ == remembered->Value())) return false;
    StoreDerived(remembered->Value());
    return true;
}

}  // namespace vorn
