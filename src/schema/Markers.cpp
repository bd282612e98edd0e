// Markers: the family table and the marker rules. See Markers.h.
#include "schema/Markers.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

#include "parameters/RealRules.h"
#include "schema/MarkerSearch.h"
#include "schema/RuleBinding.h"

namespace vorn {

namespace {

using rules::Follow;

constexpr unsigned Graphs(std::initializer_list<eGRAPH> graphs) noexcept {
    unsigned bits = 0;
    for (const eGRAPH graph : graphs) bits |= 1u << static_cast<unsigned>(graph);
    return bits;
}

// The level of the offset-frequency families, which spurs replace.
constexpr SMarkerReading kLevel[] = {{"Y", "Y", true}};
constexpr SMarkerReading kSpotNoise[] = {{"SpotNoise", "SpotNoise", false}};
// The "2" readings of the tuning marker are the values relative to the
// reference sweep; Volt2 and the dynamic readouts are the client's.
constexpr SMarkerReading kVCOTuning[] = {
    {"Freq", "Freq", false},       {"Sens", "Sens", false},           {"Level", "Level", false},
    {"Current", "Current", false}, {"Freq2", "FreqRel", false},       {"Sens2", "SensRel", false},
    {"Level2", "LevelRel", false}, {"Current2", "CurrentRel", false}, {"AbsFreq", "Freq", false}};
constexpr SMarkerReading kVCODC[] = {{"Freq", "Freq", false}, {"Level", "Level", false}};
constexpr SMarkerReading kVCOHarmonic[] = {
    {"Freq", "Freq", false}, {"Level", "Level", false}, {"AbsFreq", "Freq", false}, {"MarkerYAbs", "Level", false}};
// The transient display shows the upper trace of each quantity.
constexpr SMarkerReading kTransient[] = {{"Frequency", "FrequencyUpper", false},
                                         {"Phase", "PhaseUpper", false},
                                         {"Amplitude", "AmplitudeUpper", false},
                                         {"Power", "PowerUpper", false}};

constexpr char kPhaseNoiseResults[] = "MeasurementResults.PhaseNoiseResults";
constexpr char kResidualResults[] = "MeasurementResults.ResidualPhaseNoiseResults";
constexpr char kAMResults[] = "MeasurementResults.AMNoiseResults";
constexpr char kBasebandResults[] = "MeasurementResults.PhaseNoiseBasebandResults";

const SMarkerFamily kFamilies[] = {
    {"PhaseNoiseMarker", "X", "AbsX", kPhaseNoiseResults, "DisplayTrace", "X",
     "MeasurementResults.PhaseNoiseResults.PLLResults", "TraceSpurList", kLevel,
     Graphs({eGRAPH_PNOISEPLL, eGRAPH_PNOISEANALYSER, eGRAPH_PNOISEXCORR}), true},
    {"ResidualPhaseNoiseMarker", "X", "AbsX", kResidualResults, "ResidualPhaseNoiseDisplayTrace", "X", kResidualResults,
     "ResidualPhaseNoiseTraceSpurList", kLevel, Graphs({eGRAPH_RESIDUALPNOISE}), true},
    {"AMNoiseMarker", "X", "AbsX", kAMResults, "AMDisplayTrace", "X", kAMResults, "AMTraceSpurList", kLevel,
     Graphs({eGRAPH_AMNOISE}), true},
    {"SpotNoiseTuningMarker", "Voltage", "AbsVoltage", "MeasurementResults.SNoiseTuningResults",
     "SNoiseTuningDisplayTrace", "Voltage", nullptr, nullptr, kSpotNoise, Graphs({eGRAPH_SNOISETUNING}), false},
    {"PhaseNoiseBasebandMarker", "X", "AbsX", kBasebandResults, "PhaseNoiseBasebandDisplayTrace", "X", kBasebandResults,
     "PhaseNoiseBasebandTraceSpurList", kLevel, Graphs({eGRAPH_PNOISEBASEBAND}), true},
    {"VCOTuningMarker", "Volt", "AbsVolt", "MeasurementResults.VCOResults.VCOTuningResults", "VCOTuningDisplayTrace",
     "Volt", nullptr, nullptr, kVCOTuning, Graphs({eGRAPH_VCOTUNING, eGRAPH_VCOTUNING_SCREENB}), false},
    {"VCODCMarker", "Volt", "AbsVolt", "MeasurementResults.VCOResults.VCODCResults", "VCODCDisplayTrace", "Volt",
     nullptr, nullptr, kVCODC, Graphs({eGRAPH_VCODC}), false},
    {"VCOHarmonicMarker", "Volt", "AbsVolt", "MeasurementResults.VCOResults.VCOHarmonicResults",
     "VCOHarmonicDisplayTrace", "Volt", nullptr, nullptr, kVCOHarmonic, Graphs({eGRAPH_VCOHARMONIC}), false},
    {"TransientMarker", "Time", "AbsTime", "MeasurementResults.TransientResults", "TransientDisplayTrace", "Time",
     nullptr, nullptr, kTransient, Graphs({eGRAPH_TRANSIENT}), false},
};

// The points of an array when it is valid and holds some.
SPoints PointsOf(const CParameterRealArray* array) noexcept {
    const std::span<const double> values = ValuesOf(array);
    return {values.data(), values.size()};
}

// Binds the eight traces of `family` (display trace groups, their X points,
// their spur lists).
void BindTraces(const CDatabaseObjectImpl& member, const SMarkerFamily& family, SMarkerTrace* traces) {
    auto* results = FromRoot<CGroupImpl>(member, family.results);
    auto* spurLists = family.spurLists ? FromRoot<CGroupImpl>(member, family.spurLists) : nullptr;
    for (LONG t = 0; t < kMarkerTraces; ++t) {
        SMarkerTrace& trace = traces[t];
        trace.group = ChildOf<CGroupImpl>(results, family.trace, t);
        trace.x = FindPath<CParameterRealArray>(trace.group, family.traceX);
        if (spurLists) trace.spurGroup = ChildOf<CGroupImpl>(spurLists, family.spurList, t);
        trace.spurX = FindPath<CParameterRealArray>(trace.spurGroup, "Frequency");
        trace.spurLevel = FindPath<CParameterRealArray>(trace.spurGroup, "Power");
        trace.spursOn = FindPath<CParameterBoolean>(trace.spurGroup, "On");
    }
}

}  // namespace

const SMarkerFamily* FindMarkerFamily(std::string_view group) noexcept {
    for (const SMarkerFamily& family : kFamilies)
        if (group == family.group) return &family;
    return nullptr;
}

// --- SMarker -----------------------------------------------------------------

bool SMarker::IsOnAndValid() const noexcept { return IsTrue(on) && IsTrue(valid); }

bool SMarker::IsDelta() const noexcept { return reference && reference != x && IsTrue(delta); }

double SMarker::Offset() const noexcept { return IsDelta() ? reference->Value() : 0.0; }

LONG SMarker::TraceIndex() const noexcept {
    const ULONG t = ValueOr(onTrace, 0);
    return t >= 1 && t <= static_cast<ULONG>(kMarkerTraces) ? static_cast<LONG>(t) - 1 : -1;
}

SPoints SMarker::Points() const noexcept {
    const LONG t = TraceIndex();
    return t < 0 ? SPoints{} : PointsOf(traces[t].x);
}

bool SMarker::IsOtherTrace(const CDatabaseObjectImpl* source) const noexcept {
    if (!source) return false;
    const LONG mine = TraceIndex();
    for (LONG t = 0; t < kMarkerTraces; ++t)
        if (source == traces[t].group || source == traces[t].spurGroup) return t != mine;
    return false;
}

void SMarker::FollowTraces(CDatabaseObjectImpl* rule, bool spurs) const {
    for (const SMarkerTrace& trace : traces) {
        Follow(trace.group, rule);
        if (spurs) Follow(trace.spurGroup, rule);
    }
}

const SMarker* MarkerOf(const CDatabaseObjectImpl& member) noexcept {
    CGroupImpl* group = member.Parent() ? member.Parent()->AsGroup() : nullptr;
    const SMarkerFamily* family = group && group->BaseName() ? FindMarkerFamily(group->BaseName()) : nullptr;
    const auto* x = family ? ChildOf<CParameterMarkerX>(group, family->x) : nullptr;
    return x && x->Marker().family ? &x->Marker() : nullptr;
}

// --- CParameterMarkerX -------------------------------------------------------

void CParameterMarkerX::PostConstruct() {
    const CGroupImpl* group = Parent() ? Parent()->AsGroup() : nullptr;
    const SMarkerFamily* family = group ? FindMarkerFamily(group->BaseName() ? group->BaseName() : "") : nullptr;
    if (!family) return;
    SMarker& m = marker_;
    m.family = family;
    m.number = group->Index() + 1;
    m.x = this;
    m.valid = SiblingOf<CParameterBoolean>(*this, "Valid");
    m.on = SiblingOf<CParameterBoolean>(*this, "On");
    m.delta = SiblingOf<CParameterBoolean>(*this, "Delta");
    m.coupled = SiblingOf<CParameterBoolean>(*this, "Coupled");
    m.onTrace = SiblingOf<CParameterIntegerSetting>(*this, "OnTrace");
    m.absX = SiblingOf<CParameterReal>(*this, family->absX);
    m.graph = FromRoot<CParameterInteger>(*this, "OptionStateInfo.CurrentGraphType");
    auto* first = ChildOf<CGroupImpl>(group->Parent(), family->group, 0);
    m.reference = FindPath<CParameterMarkerX>(first, family->x);
    // Marker 1 binds first; the others take its traces.
    if (m.reference && m.reference != this && m.reference->marker_.family == family)
        std::copy(std::begin(m.reference->marker_.traces), std::end(m.reference->marker_.traces), m.traces);
    else
        BindTraces(*this, *family, m.traces);
    rules::FollowAll(this, m.on, m.valid, m.delta, m.onTrace, m.absX);
    if (m.reference != this) Follow(m.reference, this);
}

double CParameterMarkerX::AbsoluteMinimum() const noexcept {
    const auto* record = defaults_.As<SDefaultsRealValueMinMax>();
    return record ? record->minimum : minimum_;
}

double CParameterMarkerX::AbsoluteMaximum() const noexcept {
    const auto* record = defaults_.As<SDefaultsRealValueMinMax>();
    return record ? record->maximum : maximum_;
}

double CParameterMarkerX::MoveLimits() noexcept {
    const double r = marker_.Offset();
    minimum_ = AbsoluteMinimum() - r;
    maximum_ = AbsoluteMaximum() - r;
    return r;
}

bool CParameterMarkerX::Snaps() const noexcept {
    const ULONG graph = ValueOr(marker_.graph, eGRAPH_MAX);
    return marker_.family && graph < 32 && (marker_.family->snapGraphs >> graph & 1u);
}

HRESULT CParameterMarkerX::Place(double x, double absolute) {
    const HRESULT hr = CParameterRealSetting::SetValue(x);
    if (FAILED(hr)) return hr;
    CParameterReal* absX = marker_.absX;
    if (absX && (!absX->IsValid() || absX->Value() != absolute)) {
        const HRESULT placed = absX->put_Value(absolute);
        if (FAILED(placed)) return placed;
    }
    return hr;
}

HRESULT CParameterMarkerX::Write(DOUBLE x) {
    const double r = MoveLimits();
    if (const HRESULT hr = Check(x); FAILED(hr)) return hr;
    const double target = x + r;
    const SPoints points = marker_.Points();
    if (points && Snaps() && marker::Find(points.x, points.n, target) < 0) {
        const long i = marker::Snap(points.x, points.n, target, AbsoluteMinimum(), AbsoluteMaximum());
        if (i >= 0) return Place(points.x[i] - r, points.x[i]);
    }
    return Place(x, target);
}

HRESULT CParameterMarkerX::Step(bool up, eSTEP eStep) {
    return UnderWriteLock([&]() -> HRESULT {
        if (!IsValid()) return InvalidValue();
        const double r = MoveLimits();
        const double absolute = value_ + r;
        const bool large = real::IsLarge(eStep);
        const double decade = up ? marker::DecadeUp(absolute) : marker::DecadeDown(absolute);
        const SPoints points = marker_.Points();
        if (!points) return large ? ClampedWrite(decade - r) : S_FALSE;
        using marker::ESearch;
        const ESearch mode =
            large ? (up ? ESearch::AtOrAbove : ESearch::AtOrBelow) : (up ? ESearch::Next : ESearch::Previous);
        const long i =
            marker::Search(points.x, points.n, large ? decade : absolute, mode, AbsoluteMinimum(), AbsoluteMaximum());
        if (i < 0) return S_FALSE;
        return ChangeValue([&] { return Place(points.x[i] - r, points.x[i]); });
    });
}

STDMETHODIMP CParameterMarkerX::Increment(eSTEP eStep) { return Step(true, eStep); }
STDMETHODIMP CParameterMarkerX::Decrement(eSTEP eStep) { return Step(false, eStep); }
STDMETHODIMP CParameterMarkerX::IncWithDepNoti(eSTEP eStep) { return Step(true, eStep); }
STDMETHODIMP CParameterMarkerX::DecWithDepNoti(eSTEP eStep) { return Step(false, eStep); }

bool CParameterMarkerX::Update(CDatabaseObjectImpl* source) {
    if (!marker_.family || !marker_.IsOnAndValid()) return false;
    const double before = value_;
    const bool wasValid = IsValid();
    const double r = MoveLimits();
    if (source == marker_.reference && marker_.IsDelta() && IsTrue(marker_.coupled)) {
        // A coupled delta marker keeps its distance: it moves with the
        // reference, onto the nearest point of its trace.
        double x = value_;
        double absolute = x + r;
        const SPoints points = marker_.Points();
        if (points && marker::Find(points.x, points.n, absolute) < 0) {
            const long i = marker::Snap(points.x, points.n, absolute, AbsoluteMinimum(), AbsoluteMaximum());
            if (i >= 0) {
                absolute = points.x[i];
                x = absolute - r;
            }
        }
        Place(x, absolute);
    } else if (marker_.absX && marker_.absX->IsValid()) {
        // X is what AbsX says; the limits bound a client's X, not this one.
        const double x = marker_.absX->Value() - r;
        if (!IsValid() || x != value_) StoreDerived(x);
    }
    return IsValid() != wasValid || value_ != before;
}

// --- CParameterMarkerReading -------------------------------------------------

void CParameterMarkerReading::PostConstruct2() {
    marker_ = MarkerOf(*this);
    if (!marker_ || !BaseName()) return;
    for (const SMarkerReading& reading : marker_->family->readings)
        if (std::string_view(reading.member) == BaseName()) reading_ = &reading;
    if (!reading_) return;
    for (LONG t = 0; t < kMarkerTraces; ++t)
        arrays_[t] = FindPath<CParameterRealArray>(marker_->traces[t].group, reading_->array);
    rules::FollowAll(this, marker_->on, marker_->valid, marker_->onTrace, marker_->absX);
    marker_->FollowTraces(this, reading_->spurs);
}

bool CParameterMarkerReading::Update(CDatabaseObjectImpl* source) {
    if (!reading_ || !marker_->IsOnAndValid() || marker_->IsOtherTrace(source)) return false;
    const LONG t = marker_->TraceIndex();
    const SPoints points = marker_->Points();
    const CParameterReal* absX = marker_->absX;
    const long i = points && absX && absX->IsValid() ? marker::Find(points.x, points.n, absX->Value()) : -1;
    const SPoints levels = t < 0 ? SPoints{} : PointsOf(arrays_[t]);
    if (i < 0 || static_cast<std::size_t>(i) >= levels.n) {
        // No point of the trace at the marker: no reading.
        if (!IsValid()) return false;
        SetStatus(eSTATUS_INVALID);
        return true;
    }
    double y = levels.x[i];
    if (const SMarkerTrace& trace = marker_->traces[t]; reading_->spurs && IsTrue(trace.spursOn)) {
        const SPoints spurs = PointsOf(trace.spurX);
        const SPoints spurLevels = PointsOf(trace.spurLevel);
        for (std::size_t j = 0; j < spurs.n && j < spurLevels.n; ++j)
            if (real::IsEqual(spurs.x[j], points.x[i])) {
                y = spurLevels.x[j];
                break;
            }
    }
    if (IsValid() && y == value_) return false;
    SetValue(y);
    return true;
}

// --- CParameterMarkerVisible -------------------------------------------------

void CParameterMarkerVisible::PostConstruct2() {
    marker_ = MarkerOf(*this);
    if (!marker_) return;
    rules::FollowAll(this, marker_->on, marker_->valid, marker_->onTrace, marker_->absX);
    marker_->FollowTraces(this, false);
    if (!marker_->family->zoomed) return;
    zoomActive_ = FromRoot<CParameterBoolean>(*this, "DisplaySettings.MarkerZoom.ZoomActive");
    zoomStart_ = FromRoot<CParameterReal>(*this, "DisplaySettings.MarkerZoom.ZoomStart");
    zoomStop_ = FromRoot<CParameterReal>(*this, "DisplaySettings.MarkerZoom.ZoomStop");
    rules::FollowAll(this, zoomActive_, zoomStart_, zoomStop_);
}

bool CParameterMarkerVisible::Update(CDatabaseObjectImpl*) {
    if (!marker_) return false;
    bool visible = marker_->IsOnAndValid() && marker_->Points();
    if (visible && IsTrue(zoomActive_) && zoomStart_ && zoomStop_) {
        const double x = marker_->absX && marker_->absX->IsValid() ? marker_->absX->Value() : zoomStart_->Value();
        visible = !real::IsBelow(x, zoomStart_->Value()) && !real::IsAbove(x, zoomStop_->Value());
    }
    if (IsValid() && GetValue() == visible) return false;
    SetValue(visible);
    return true;
}

// --- CParameterMarkerName ----------------------------------------------------

void CParameterMarkerName::PostConstruct2() {
    marker_ = MarkerOf(*this);
    if (!marker_) return;
    rules::FollowAll(this, marker_->on, marker_->valid, marker_->delta, marker_->onTrace);
}

std::u16string CParameterMarkerName::Text(const SMarker& marker) {
    if (!marker.IsOnAndValid()) return {};
    const unsigned long trace = ValueOr(marker.onTrace, 1);
    // Marker 1 is the reference and never a delta marker; marker 5 is always
    // named as the delta of marker 1.
    const bool delta = marker.number == 5 || (marker.number != 1 && IsTrue(marker.delta));
    const long number = marker.number == 5 ? 1 : marker.number;
    char text[48];
    const int length = std::snprintf(text, sizeof text, "%s %ld [T%lu]", delta ? "Delta" : "Marker", number, trace);
    return std::u16string(text, text + (length > 0 ? length : 0));
}

bool CParameterMarkerName::Update(CDatabaseObjectImpl*) {
    if (!marker_) return false;
    const std::u16string text = Text(*marker_);
    if (IsValid() && std::u16string_view(value_ ? value_ : u"", value_ ? SysStringLen(value_) : 0) == text)
        return false;
    SetValue(rules::NewText(text).get());
    return true;
}

// --- CParameterMarkerType ----------------------------------------------------

void CParameterMarkerType::PostConstruct2() {
    marker_ = MarkerOf(*this);
    if (!marker_) return;
    Follow(marker_->on, this);
    Follow(marker_->delta, this);
}

bool CParameterMarkerType::Update(CDatabaseObjectImpl*) {
    if (!marker_) return false;
    const ULONG type = !IsTrue(marker_->on) ? eMARKER_OFF : marker_->IsDelta() ? eMARKER_DELTA : eMARKER_NORMAL;
    if (IsValid() && type == value_) return false;
    CParameterEnum::SetValue(type);
    return true;
}

HRESULT CParameterMarkerType::Write(ULONG type) {
    if (!marker_ || type >= Count()) return CParameterEnum::SetValue(type);
    if (type == eMARKER_DELTA && marker_->reference == marker_->x)
        return Fail(E_INVALIDARG,
                    "marker 1 is the reference of its family's delta markers and cannot be a delta marker");
    const ULONG before = IsValid() ? value_ : Count();
    if (type != eMARKER_OFF) rules::WriteIfChanged(marker_->delta, type == eMARKER_DELTA);
    rules::WriteIfChanged(marker_->on, type != eMARKER_OFF);
    Update(nullptr);
    return IsValid() && value_ != before ? S_OK : S_FALSE;
}

// --- CParameterZoomActive ----------------------------------------------------

void CParameterZoomActive::PostConstruct() {
    start_ = SiblingOf<CParameterReal>(*this, "ZoomStart");
    stop_ = SiblingOf<CParameterReal>(*this, "ZoomStop");
    Follow(start_, this);
    Follow(stop_, this);
}

bool CParameterZoomActive::WindowIsEmpty() const noexcept {
    return !start_ || !stop_ || !start_->IsValid() || !stop_->IsValid() ||
           !real::IsBelow(start_->Value(), stop_->Value());
}

HRESULT CParameterZoomActive::Write(VARIANT_BOOL on) {
    if (on && WindowIsEmpty()) return Fail(E_INVALIDARG, "the zoom window is empty: ZoomStart is not below ZoomStop");
    return SetValue(on != 0);
}

bool CParameterZoomActive::Update(CDatabaseObjectImpl*) {
    if (!IsTrue(this) || !WindowIsEmpty()) return false;
    SetValue(false);
    return true;
}

}  // namespace vorn
