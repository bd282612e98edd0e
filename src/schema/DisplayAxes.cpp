// The X axis of the phase-noise display: see DisplayAxes.h.
#include "schema/DisplayAxes.h"

#include <string>

#include "schema/Coupling.h"
#include "schema/RuleBinding.h"
#include "vorn/units.h"

namespace vorn {

namespace {

constexpr double kStartLadder[kLadderSize] = {0.01, 0.03, 0.1, 0.3, 1,   3,   10,  30,  100, 300, 1e3, 3e3, 1e4,
                                              3e4,  1e5,  3e5, 1e6, 3e6, 1e7, 3e7, 1e8, 3e8, 1e9, 3e9, 1e10};
constexpr double kStopLadder[kLadderSize] = {0.03, 0.1, 0.3, 1,   3,   10,  30,  100, 300, 1e3, 3e3,  1e4, 3e4,
                                             1e5,  3e5, 1e6, 3e6, 1e7, 3e7, 1e8, 3e8, 1e9, 3e9, 1e10, 3e10};

// The lowest index the analyser and baseband types let a client choose
// (1 Hz on the start ladder).
constexpr ULONG kLowestAnalyser = 4;
// The highest selectable index by the analyzer's maximum frequency.
constexpr double kWideAnalyzer = 8e9;
constexpr ULONG kHighestWide = 24;
constexpr ULONG kHighestNarrow = 22;
// Read for a noise type that cannot be read: none of the four.
constexpr ULONG kNoNoiseType = ~0u;

// A selection list of each axis, and the highest index it lists (the short
// stop lists end on "5 MHz" and "500 kHz", off the ladder, deliberately).
struct STier {
    const char16_t* start;
    const char16_t* stop;
    ULONG top;
};

constexpr STier kFull = {
    u"0.01 Hz:0.03 Hz:0.1 Hz:0.3 Hz:1 Hz:3 Hz:10 Hz:30 Hz:100 Hz:300 Hz:1 kHz:3 kHz:10 kHz:30 kHz:100 kHz:300 kHz:"
    u"1 MHz:3 MHz:10 MHz:30 MHz:100 MHz:300 MHz:1 GHz:3 GHz:10 GHz",
    u"0.03 Hz:0.1 Hz:0.3 Hz:1 Hz:3 Hz:10 Hz:30 Hz:100 Hz:300 Hz:1 kHz:3 kHz:10 kHz:30 kHz:100 kHz:300 kHz:1 MHz:"
    u"3 MHz:10 MHz:30 MHz:100 MHz:300 MHz:1 GHz:3 GHz:10 GHz:30 GHz",
    kLadderSize - 1};
constexpr STier kTo18 = {
    u"0.01 Hz:0.03 Hz:0.1 Hz:0.3 Hz:1 Hz:3 Hz:10 Hz:30 Hz:100 Hz:300 Hz:1 kHz:3 kHz:10 kHz:30 kHz:100 kHz:300 kHz:"
    u"1 MHz:3 MHz:10 MHz",
    u"0.03 Hz:0.1 Hz:0.3 Hz:1 Hz:3 Hz:10 Hz:30 Hz:100 Hz:300 Hz:1 kHz:3 kHz:10 kHz:30 kHz:100 kHz:300 kHz:1 MHz:"
    u"3 MHz:10 MHz:30 MHz",
    18};
constexpr STier kTo17 = {
    u"0.01 Hz:0.03 Hz:0.1 Hz:0.3 Hz:1 Hz:3 Hz:10 Hz:30 Hz:100 Hz:300 Hz:1 kHz:3 kHz:10 kHz:30 kHz:100 kHz:300 kHz:"
    u"1 MHz:3 MHz",
    u"0.03 Hz:0.1 Hz:0.3 Hz:1 Hz:3 Hz:10 Hz:30 Hz:100 Hz:300 Hz:1 kHz:3 kHz:10 kHz:30 kHz:100 kHz:300 kHz:1 MHz:"
    u"3 MHz:5 MHz",
    17};
constexpr STier kTo15 = {
    u"0.01 Hz:0.03 Hz:0.1 Hz:0.3 Hz:1 Hz:3 Hz:10 Hz:30 Hz:100 Hz:300 Hz:1 kHz:3 kHz:10 kHz:30 kHz:100 kHz:300 kHz",
    u"0.03 Hz:0.1 Hz:0.3 Hz:1 Hz:3 Hz:10 Hz:30 Hz:100 Hz:300 Hz:1 kHz:3 kHz:10 kHz:30 kHz:100 kHz:300 kHz:500 kHz", 15};

const char* PartnerName(EAxisEnd end) noexcept { return end == EAxisEnd::Start ? "XAxisStop" : "XAxisStart"; }

// Sets a flag for the life of the scope.
class CFlagScope {
public:
    explicit CFlagScope(bool& flag) noexcept : flag_(flag) { flag_ = true; }
    ~CFlagScope() { flag_ = false; }
    CFlagScope(const CFlagScope&) = delete;
    CFlagScope& operator=(const CFlagScope&) = delete;

private:
    bool& flag_;
};

}  // namespace

double StartLadder(ULONG index) noexcept { return index < kLadderSize ? kStartLadder[index] : 0.0; }
double StopLadder(ULONG index) noexcept { return index < kLadderSize ? kStopLadder[index] : 0.0; }

// --- CParameterXAxisIndex ----------------------------------------------------

STDMETHODIMP CParameterXAxisIndex::get_Minimum(ULONG* pudwMinimum) {
    if (!pudwMinimum) return Fail(E_POINTER, "pudwMinimum is null");
    return UnderReadLock([&] {
        *pudwMinimum = lowest_;
        return S_OK;
    });
}

STDMETHODIMP CParameterXAxisIndex::get_Maximum(ULONG* pudwMaximum) {
    if (!pudwMaximum) return Fail(E_POINTER, "pudwMaximum is null");
    return UnderReadLock([&] {
        *pudwMaximum = highest_;
        return S_OK;
    });
}

void CParameterXAxisIndex::SetSelectable(ULONG lowest, ULONG highest) noexcept {
    lowest_ = lowest;
    highest_ = highest;
}

HRESULT CParameterXAxisIndex::Write(ULONG index) {
    if (index < Count() && (index < lowest_ || index > highest_)) {
        const auto& ladder = end_ == EAxisEnd::Start ? kStartLadder : kStopLadder;
        const auto offset = [&](ULONG i) { return FormatReal(i < kLadderSize ? ladder[i] : 0.0, eUNIT_HZ); };
        return Fail(E_INVALIDARG, std::to_string(index) + " (" + offset(index) +
                                      ") is not selectable now: the range is " + std::to_string(lowest_) + " (" +
                                      offset(lowest_) + ") .. " + std::to_string(highest_) + " (" + offset(highest_) +
                                      ")");
    }
    const HRESULT hr = SetValue(index);
    if (hr == S_OK) Update(this);
    return hr;
}

void CParameterXAxisIndex::PostConstruct() {
    partner_ = SiblingOf<CParameterXAxisIndex>(*this, PartnerName(end_));
    noiseType_ = FromRoot<CParameterInteger>(*this, "OptionStateInfo.NoiseMeasType");
    signalFrequency_ = SiblingOf<CParameterReal>(*this, "SignalFreq");
    maximumFrequency_ = FromRoot<CParameterReal>(*this, "InstrumentConfigInfo.MaximumFrequency");
    loopBandwidth_ = FromRoot<CParameterVCOLoopBW>(*this, "UserSettings.VCOLOOPSettings.VCOLoopBW");
    rules::FollowAll(this, partner_, signalFrequency_, noiseType_);
}

void CParameterXAxisIndex::UpdatePllSettings() {
    if (loopBandwidth_) loopBandwidth_->FollowAxis();
}

void CParameterXAxisIndex::Adjust(ULONG index, bool propagate) {
    if (IsValid() && index == value_) return;
    if (SetValue(index) == S_OK && propagate) Propagate();
}

bool CParameterXAxisIndex::OutOfOrder() const noexcept {
    const ULONG partner = partner_->value_;
    return end_ == EAxisEnd::Start ? value_ > partner : value_ < partner;
}

// The frequency bound: while the signal frequency plus the partner's offset
// (read on the start ladder for both axes) reaches the maximum frequency,
// the partner goes down to the highest index that keeps below it, or to 4
// when none does; this index then follows it if they are out of order.
void CParameterXAxisIndex::Bound() {
    if (!signalFrequency_ || !signalFrequency_->IsValid() || !maximumFrequency_ || !maximumFrequency_->IsValid())
        return;
    const double signal = signalFrequency_->Value();
    const double maximum = maximumFrequency_->Value();
    const ULONG partner = partner_->value_;
    if (maximum > signal + StartLadder(partner)) return;
    ULONG lowered = kLowestAnalyser;
    for (ULONG k = partner; k-- > 0;)
        if (signal + StartLadder(k) < maximum) {
            lowered = k;
            break;
        }
    partner_->Adjust(lowered, true);
    if (OutOfOrder()) Adjust(partner_->value_, false);
}

bool CParameterXAxisIndex::Update(CDatabaseObjectImpl*) {
    // One run at a time for the pair: the partner's changes made here do not
    // run its own rule back into this one.
    if (!partner_ || enforcing_ || partner_->enforcing_ || !IsValid() || !partner_->IsValid()) return false;
    const CFlagScope running(enforcing_);
    const ULONG before = value_;
    const ULONG type = ValueOr(noiseType_, kNoNoiseType);
    if (OutOfOrder())
        Adjust(partner_->value_, false);
    else if (type == eNOISETYPE_PLL || type == eNOISETYPE_ANALYSER)
        Bound();
    if (type == eNOISETYPE_PLL) UpdatePllSettings();
    return value_ != before;
}

// --- CParameterXAxisStrings --------------------------------------------------

void CParameterXAxisStrings::PostConstruct() {
    axis_ = SiblingOf<CParameterXAxisIndex>(*this, end_ == EAxisEnd::Start ? "XAxisStart" : "XAxisStop");
    noiseType_ = FromRoot<CParameterInteger>(*this, "OptionStateInfo.NoiseMeasType");
    offsetTable_ = FromRoot<CParameterInteger>(*this, "OtherSettings.FreqOffsetTable");
    maximumFrequency_ = FromRoot<CParameterReal>(*this, "InstrumentConfigInfo.MaximumFrequency");
    rules::FollowAll(this, noiseType_, offsetTable_, maximumFrequency_);
}

STDMETHODIMP CParameterXAxisStrings::Reset() {
    const HRESULT hr = CParameterString::Reset();
    if (FAILED(hr)) return hr;
    return UnderWriteLock([&] {
        Update(nullptr);
        return S_OK;
    });
}

bool CParameterXAxisStrings::Update(CDatabaseObjectImpl* source) {
    if (!axis_ || !noiseType_ || !noiseType_->IsValid()) return false;
    const ULONG type = noiseType_->Value();
    if (type > eNOISETYPE_RESIDUAL) return false;  // another type: list and range stay as they are
    const bool first = source == nullptr;
    const ULONG table = first ? ULONG{eFREQOFFSET_30MHZ} : ValueOr(offsetTable_, eFREQOFFSET_30MHZ);
    const STier& tier = type == eNOISETYPE_ANALYSER  ? kFull
                        : table == eFREQOFFSET_30MHZ ? (type == eNOISETYPE_PLL ? kFull : kTo18)
                        : table == eFREQOFFSET_5MHZ  ? kTo17
                                                     : kTo15;
    const ULONG lowest = type == eNOISETYPE_ANALYSER || type == eNOISETYPE_BASEBAND ? kLowestAnalyser : 0;
    const bool rebuild = first || type != lastType_ || source == offsetTable_;
    lastType_ = type;
    if (rebuild) {
        SetValue(rules::NewText(end_ == EAxisEnd::Start ? tier.start : tier.stop).get());
        ULONG index = axis_->Value();
        if (&tier != &kFull && index > tier.top) index = tier.top;
        if (index < lowest) index = lowest;
        if (axis_->IsValid()) axis_->Adjust(index, true);
    }
    const bool wide = maximumFrequency_ && maximumFrequency_->IsValid() && maximumFrequency_->Value() >= kWideAnalyzer;
    axis_->SetSelectable(lowest, &tier != &kFull ? tier.top : wide ? kHighestWide : kHighestNarrow);
    return rebuild;
}

}  // namespace vorn
