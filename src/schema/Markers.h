// Markers: points marked on the measured traces, and the rules that keep
// their readings consistent with the marker's settings, its reference marker
// and the trace it sits on.
//
// The group Markers holds nine families of five marker groups each
// (PhaseNoiseMarker[0..4], ..., TransientMarker[0..4]). Every marker group
// has the same frame: Name, Valid, On, Delta, the family's X, readings and
// absolute X, Visible, Type, OnTrace (and Coupled). The families differ only
// in data (SMarkerFamily: member names, where their traces and spur lists
// are, which readings read which trace array, in which graphs a client's X
// snaps); one implementation of each rule serves them all. The marker number
// is the group's index plus one; marker 1 of a family is the reference of
// the family's delta markers.
//
// The marker's X parameter (CParameterMarkerX) is its hub: in PostConstruct
// it binds the marker (SMarker: siblings, reference marker, the eight
// traces); the other rules of the group find it and bind in PostConstruct2.
// Its absolute X (AbsX, AbsVolt, AbsVoltage, AbsTime) is where the marker
// is; X is derived from it (X = AbsX − r for a delta marker, r being the
// reference's X). Whoever places a marker (the measurement client after a
// peak search, or a client through X) ends up writing both.
//
// The rules (docs/markers.md has the reasons for the choices):
//  - Name: "Marker n [Tt]", "Delta n [Tt]", empty while off or not valid;
//    marker 1 is never a delta marker and marker 5 is always named
//    "Delta 1 [Tt]"; written only when the text changes.
//  - X: follows On, Valid, Delta, AbsX and the reference's X; a client's X
//    is snapped to the nearest trace point; Increment and Decrement go from
//    trace point to trace point (small) or by decades (large). A coupled
//    delta marker (Coupled true) keeps its distance when the reference
//    moves; an uncoupled one keeps its place.
//  - readings (Y, Freq, Level, ...): the trace array the family names, read
//    at the point of the marker's AbsX; the spur's level where that point is
//    a spur of the trace's spur list (while the list is on); no value when
//    AbsX is no point of the trace.
//  - Visible: on, valid, its trace holds points and, while the marker zoom
//    is active, inside the zoom window (families on an offset-frequency axis).
//  - Type: eMARKER_OFF, _NORMAL or _DELTA as On and Delta say; writing it
//    sets On and Delta.
//  - ZoomActive (MarkerZoom): refuses to turn on over an empty window and
//    turns off when the window becomes empty.
// The searches on a trace are binary searches (schema/MarkerSearch.h).
//
// Every rule runs inside the change path of the write that triggered it,
// under the database write lock; derived values are written through the
// checked stores, so their sinks are told.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "core/GroupImpl.h"
#include "parameters/ParameterArray.h"
#include "parameters/ParameterBoolean.h"
#include "parameters/ParameterInteger.h"
#include "parameters/ParameterReal.h"
#include "parameters/ParameterString.h"
#include "schema/RuleBinding.h"

namespace vorn {

class CParameterMarkerX;

// A reading of a marker: the member and the array of the trace group it
// reads (nullptr: a reading the marker rules do not write). `spurs`: the
// reading is the trace's level, which a spur of the trace's spur list
// replaces.
struct SMarkerReading {
    const char* member;
    const char* array;
    bool spurs;
};

// What distinguishes one family of markers.
struct SMarkerFamily {
    const char* group;      // base name of its marker groups in Markers
    const char* x;          // its X member
    const char* absX;       // its absolute X member
    const char* results;    // path from the root to its results group
    const char* trace;      // base name of the display trace groups there (one per trace)
    const char* traceX;     // the X points' array in a trace group
    const char* spurLists;  // path of the group of the traces' spur lists, or nullptr
    const char* spurList;   // their base name
    std::span<const SMarkerReading> readings;
    unsigned snapGraphs;  // bit (1 << eGRAPH_...) for each graph in which a client's X snaps
    bool zoomed;          // on the offset-frequency axis the marker zoom acts on
};

// The family whose marker groups have the base name `group`; null for none.
const SMarkerFamily* FindMarkerFamily(std::string_view group) noexcept;

inline constexpr LONG kMarkerTraces = 8;  // OnTrace 1 to 8

// One trace a marker can sit on.
struct SMarkerTrace {
    CGroupImpl* group = nullptr;  // the display trace group
    CParameterRealArray* x = nullptr;
    CGroupImpl* spurGroup = nullptr;  // the trace's spur list
    CParameterRealArray* spurX = nullptr;
    CParameterRealArray* spurLevel = nullptr;
    CParameterBoolean* spursOn = nullptr;
};

// The points of a trace: ascending X values.
struct SPoints {
    const double* x = nullptr;
    std::size_t n = 0;
    explicit operator bool() const noexcept { return n > 0; }
};

// One marker, as its X binds it. Members are null where the tree lacks them.
struct SMarker {
    const SMarkerFamily* family = nullptr;
    LONG number = 0;  // 1 to 5
    CParameterBoolean* valid = nullptr;
    CParameterBoolean* on = nullptr;
    CParameterBoolean* delta = nullptr;
    CParameterBoolean* coupled = nullptr;
    CParameterIntegerSetting* onTrace = nullptr;
    CParameterReal* absX = nullptr;
    CParameterMarkerX* x = nullptr;
    CParameterMarkerX* reference = nullptr;  // marker 1's X (x itself for marker 1)
    CParameterInteger* graph = nullptr;      // OptionStateInfo.CurrentGraphType
    SMarkerTrace traces[kMarkerTraces];

    bool IsOnAndValid() const noexcept;
    // Delta true, and not the reference marker (whose Delta is ignored).
    bool IsDelta() const noexcept;
    // r: the reference marker's X for a delta marker, else 0.
    double Offset() const noexcept;
    // The trace OnTrace names (0-based index), or -1 outside 1 to 8.
    LONG TraceIndex() const noexcept;
    // The X points of the marker's trace when it is valid and holds points.
    SPoints Points() const noexcept;
    // True when `source` belongs to a trace (its group or spur list) other
    // than the marker's: a change there leaves the marker's readings alone.
    bool IsOtherTrace(const CDatabaseObjectImpl* source) const noexcept;
    // Adds `rule` to the dependants of the marker's trace groups (and spur
    // lists with `spurs`).
    void FollowTraces(CDatabaseObjectImpl* rule, bool spurs) const;
};

// The marker whose group holds `member`, as its X bound it; null when the
// group has no bound marker X.
const SMarker* MarkerOf(const CDatabaseObjectImpl& member) noexcept;

// X of a marker: the hub of the marker's rules (see the file comment).
//
// A client's X (put_Value; AssignValue with bit 0; AssignValue without it
// stores X alone, raw) is E_INVALIDARG outside the limits, which move with
// the reference for a delta marker. Otherwise the absolute target (X + r) is
// kept when it equals a point of the marker's trace and is snapped to the
// nearest point when it does not (while the current graph is one of the
// family's and the trace holds points); then X and AbsX are stored. S_FALSE
// when X stays as it was.
//
// Increment and Decrement step on the trace's points from the absolute X:
// small to the next point up or down, large to the decade step of the value
// and from there to the first point at or above it (up) or the last at or
// below it (down). S_FALSE when there is no point to go to. Without trace
// points a large step goes to the decade step itself (clamped into the
// limits) and a small one stays. The error of get_Value while X is invalid.
class CParameterMarkerX : public rules::CWrittenThrough<CParameterRealSetting, DOUBLE> {
public:
    // Binds the marker and follows On, Valid, Delta, OnTrace, AbsX and the
    // reference marker's X.
    void PostConstruct() override;
    STDMETHODIMP Increment(eSTEP eStep) override;
    STDMETHODIMP Decrement(eSTEP eStep) override;
    STDMETHODIMP IncWithDepNoti(eSTEP eStep) override;
    STDMETHODIMP DecWithDepNoti(eSTEP eStep) override;

    const SMarker& Marker() const noexcept { return marker_; }

private:
    // The absolute limits: the record's.
    double AbsoluteMinimum() const noexcept;
    double AbsoluteMaximum() const noexcept;
    // Moves the limits by the reference's X (delta markers) and returns r.
    double MoveLimits() noexcept;
    // Whether a client's X snaps now: the current graph is one of the family's.
    bool Snaps() const noexcept;
    HRESULT Write(DOUBLE x) override;
    // Stores X (checked) and then AbsX (through its change path, when it
    // differs).
    HRESULT Place(double x, double absolute);
    HRESULT Step(bool up, eSTEP eStep);
    // The relative X rule; true when X changed.
    bool Update(CDatabaseObjectImpl* source) override;

    SMarker marker_;
};

// A reading of a marker (Y, Freq, Level, ..., and the absolute readings
// other than the marker's absolute X): the family's trace array read at the
// marker's point. Members the family lists no array for are plain reals.
class CParameterMarkerReading : public rules::CRecalculated<CParameterReal> {
public:
    // Finds the marker and the reading's arrays; follows On, Valid, OnTrace,
    // AbsX, the trace groups and, for the level, the spur lists.
    void PostConstruct2() override;

private:
    bool Update(CDatabaseObjectImpl* source) override;

    const SMarker* marker_ = nullptr;
    const SMarkerReading* reading_ = nullptr;
    CParameterRealArray* arrays_[kMarkerTraces] = {};
};

// Visible of a marker: on, valid, its trace holds points and, for the
// offset-frequency families while ZoomActive, AbsX inside ZoomStart ..
// ZoomStop. Derived; a client's write stands until the next change.
class CParameterMarkerVisible : public rules::CRecalculated<CParameterBoolean> {
public:
    void PostConstruct2() override;

private:
    bool Update(CDatabaseObjectImpl* source) override;

    const SMarker* marker_ = nullptr;
    CParameterBoolean* zoomActive_ = nullptr;
    CParameterReal* zoomStart_ = nullptr;
    CParameterReal* zoomStop_ = nullptr;
};

class CParameterMarkerName : public rules::CRecalculated<CParameterString> {
public:
    // Follows On, Valid, Delta and OnTrace.
    void PostConstruct2() override;

    // The name the rule gives `marker` now ("" while off or not valid).
    static std::u16string Text(const SMarker& marker);

private:
    bool Update(CDatabaseObjectImpl* source) override;

    const SMarker* marker_ = nullptr;
};

// Type of a marker, derived from On and Delta. A client's eMARKER_OFF
// switches the marker off (Delta kept); eMARKER_NORMAL on and not delta;
// eMARKER_DELTA on and delta, refused (E_INVALIDARG) for marker 1. S_FALSE
// when the marker already was so.
class CParameterMarkerType : public rules::CWrittenThrough<CParameterEnum, ULONG> {
public:
    // Follows On and Delta.
    void PostConstruct2() override;

private:
    HRESULT Write(ULONG type) override;
    bool Update(CDatabaseObjectImpl* source) override;

    const SMarker* marker_ = nullptr;
};

// A trace number, 1 to 8 by its record.
class CParameterSelectedTrace : public CParameterIntegerSetting {};

// ZoomActive of the marker zoom: a client turning the zoom on over an empty
// window (ZoomStart not below ZoomStop) gets E_INVALIDARG; an active zoom
// whose window becomes empty turns off.
class CParameterZoomActive : public rules::CWrittenThrough<CParameterBoolean, VARIANT_BOOL> {
public:
    // Follows ZoomStart and ZoomStop.
    void PostConstruct() override;

private:
    HRESULT Write(VARIANT_BOOL on) override;
    bool Update(CDatabaseObjectImpl* source) override;
    bool WindowIsEmpty() const noexcept;

    CParameterReal* start_ = nullptr;
    CParameterReal* stop_ = nullptr;
};

// The per-family classes the schema names: the same rules under the
// family's names.
#define VORN_MARKER_FAMILY(F)                                                  \
    class CParameter##F##MarkerOn final : public CParameterBoolean {};         \
    class CParameter##F##MarkerDelta final : public CParameterBoolean {};      \
    class CParameter##F##MarkerX final : public CParameterMarkerX {};          \
    class CParameter##F##MarkerY final : public CParameterMarkerReading {};    \
    class CParameter##F##AbsMarkerX final : public CParameterMarkerReading {}; \
    class CParameter##F##MarkerVisible final : public CParameterMarkerVisible {};
VORN_MARKER_FAMILY(PhaseNoise)
VORN_MARKER_FAMILY(ResidualPhaseNoise)
VORN_MARKER_FAMILY(AMNoise)
VORN_MARKER_FAMILY(SpotNoiseTuning)
VORN_MARKER_FAMILY(PhaseNoiseBaseband)
VORN_MARKER_FAMILY(VCOTuning)
VORN_MARKER_FAMILY(VCODC)
VORN_MARKER_FAMILY(VCOHarmonic)
VORN_MARKER_FAMILY(Transient)
#undef VORN_MARKER_FAMILY

}  // namespace vorn
