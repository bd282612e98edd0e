// The rules of the limit lines: see LimitLines.h and docs/limitlines.md.
#include "schema/LimitLines.h"

#include <cmath>
#include <span>

#include "schema/LimitCheck.h"

namespace vorn {

// --- CParameterLimitLineCount ------------------------------------------------

void CParameterLimitLineCount::PostConstruct() {
    for (LONG i = 0; i < kLimitLines; ++i) {
        auto* line = ChildOf<CGroupImpl>(Parent(), "Line", i);
        exists_[i] = ChildOf<CParameterBoolean>(line, "Exists");
        checkLimit_[i] = ChildOf<CParameterBoolean>(line, "CheckLimit");
        rules::FollowAll(this, exists_[i], checkLimit_[i]);
    }
}

bool CParameterLimitLineCount::Update(CDatabaseObjectImpl*) {
    ULONG count = 0;
    for (int i = 0; i < kLimitLines; ++i)
        if (IsTrue(exists_[i]) && (!checked_ || IsTrue(checkLimit_[i]))) ++count;
    if (IsValid() && count == value_) return false;
    SetValue(count);
    return true;
}

// --- CParameterLLCompatible --------------------------------------------------

void CParameterLLCompatible::PostConstruct() {
    limit_ = SiblingOf<CParameterInteger>(*this, "Limit");
    domain_ = SiblingOf<CParameterInteger>(*this, "Domain");
    units_ = SiblingOf<CParameterInteger>(*this, "Units");
    result_ = SiblingOf<CParameterInteger>(*this, "ResultType");
    checkLimit_ = SiblingOf<CParameterBoolean>(*this, "CheckLimit");
    graph_ = FromRoot<CParameterInteger>(*this, "OptionStateInfo.CurrentGraphType");
    transientMode_ = FromRoot<CParameterInteger>(*this, "UserSettings.TransientSettings.TransientMode");
    pmUnit_ = FromRoot<CParameterInteger>(*this, "UserSettings.TransientSettings.PMUnit");
    highlightSpurs_ = FromRoot<CParameterBoolean>(*this, "GuiSettings.HighlightSpurs");
    rules::FollowAll(this, limit_, domain_, units_, result_, checkLimit_, graph_, transientMode_, pmUnit_,
                     highlightSpurs_);
}

bool CParameterLLCompatible::IsCompatible(ULONG result, ULONG units, ULONG graph, ULONG transientMode, ULONG pmUnit,
                                          bool highlightSpurs) noexcept {
    switch (result) {
        case eRESULT_PNOISE:
            if (graph != eGRAPH_PNOISEANALYSER && graph != eGRAPH_PNOISEPLL && graph != eGRAPH_PNOISEXCORR &&
                graph != eGRAPH_RESIDUALPNOISE && graph != eGRAPH_AMNOISE)
                return false;
            return units == eLLUNIT_DBC_HZ ||
                   (units == eLLUNIT_DBC && graph != eGRAPH_PNOISEANALYSER && highlightSpurs);
        case eRESULT_BASEBAND:
            return graph == eGRAPH_PNOISEBASEBAND &&
                   (units == eLLUNIT_DBV_HZ || (units == eLLUNIT_DBV && highlightSpurs));
        case eRESULT_TRANSIENT:
            if (graph != eGRAPH_TRANSIENT) return false;
            switch (transientMode) {
                case eTRANS_FM:
                    return units == eLLUNIT_HZ;
                case eTRANS_AM:
                    return units == eLLUNIT_RATIO;
                case eTRANS_RF:
                    return units == eLLUNIT_DBM;
                case eTRANS_PM:
                    return (pmUnit == ePMUNIT_RAD && units == eLLUNIT_RAD) ||
                           (pmUnit == ePMUNIT_DEG && units == eLLUNIT_DEGREE);
                default:
                    return false;
            }
        default:
            return false;
    }
}

bool CParameterLLCompatible::Update(CDatabaseObjectImpl*) {
    constexpr ULONG kUnread = 0xFFFFFFFF;
    const ULONG result = ValueOr(result_, kUnread), units = ValueOr(units_, kUnread), graph = ValueOr(graph_, kUnread),
                mode = ValueOr(transientMode_, kUnread), pmUnit = ValueOr(pmUnit_, kUnread);
    const bool spursReadable = highlightSpurs_ && highlightSpurs_->IsValid();
    // Any partner that cannot be read makes the line incompatible (the
    // transient partners only matter to transient lines).
    const bool readable = result != kUnread && units != kUnread && graph != kUnread && spursReadable &&
                          (result != eRESULT_TRANSIENT || (mode != kUnread && pmUnit != kUnread));
    const bool compatible = readable && IsCompatible(result, units, graph, mode, pmUnit, IsTrue(highlightSpurs_));
    if (IsValid() && GetValue() == compatible) return false;
    SetValue(compatible);
    return true;
}

// --- CParameterLLChanged ----------------------------------------------------

void CParameterLLChanged::PostConstruct() {
    for (LONG i = 0; i < kLimitLines; ++i) rules::Follow(ChildOf<CGroupImpl>(Parent(), "Line", i), this);
}

bool CParameterLLChanged::Update(CDatabaseObjectImpl* source) {
    if (!source || (IsValid() && GetValue())) return false;
    SetValue(true);
    return true;
}

// --- CParameterOverallLLResult -----------------------------------------------

// A results group whose traces the lines are checked against: the group's
// name, its trace groups and the arrays of a trace (time domain: the x
// array, then the upper and lower envelopes of each transient mode in eTRANS
// order).
struct SResultsKind {
    std::string_view group;
    std::string_view trace;
    bool timeDomain;
    std::string_view x;
    std::string_view y[2 * eTRANS_MAX];
};

namespace {

constexpr SResultsKind kResultsKinds[] = {
    {"PhaseNoiseResults", "DisplayTrace", false, "X", {"Y"}},
    {"AMNoiseResults", "AMDisplayTrace", false, "X", {"Y"}},
    {"ResidualPhaseNoiseResults", "ResidualPhaseNoiseDisplayTrace", false, "X", {"Y"}},
    {"PhaseNoiseBasebandResults", "PhaseNoiseBasebandDisplayTrace", false, "X", {"Y"}},
    {"TransientResults",
     "TransientDisplayTrace",
     true,
     "Time",
     {"FrequencyUpper", "FrequencyLower", "PhaseUpper", "PhaseLower", "AmplitudeUpper", "AmplitudeLower", "PowerUpper",
      "PowerLower"}},
};

void WriteVerdict(CParameterInteger* verdict, ULONG value) {
    if (verdict && (!verdict->IsValid() || verdict->Value() != value)) verdict->SetValue(value);
}

}  // namespace

void CParameterOverallLLResult::PostConstruct() {
    const std::string_view group = Parent() && Parent()->BaseName() ? Parent()->BaseName() : "";
    for (const SResultsKind& kind : kResultsKinds)
        if (kind.group == group) kind_ = &kind;
    if (kind_) rules::Follow(Parent(), this);
}

void CParameterOverallLLResult::Bind() {
    bound_ = true;
    state_ = FromRoot<CParameterInteger>(*this, "OptionStateInfo.MeasurementState");
    active_ = FromRoot<CParameterInteger>(*this, "LimitLineData.CountActiveLL");
    transientMode_ = FromRoot<CParameterInteger>(*this, "UserSettings.TransientSettings.TransientMode");
    for (LONG t = 0; t < 8; ++t) {
        auto* group = ChildOf<CGroupImpl>(Parent(), kind_->trace, t);
        STrace& trace = traces_[t];
        trace.x = ChildOf<CParameterRealArray>(group, kind_->x);
        trace.mode = ChildOf<CParameterInteger>(group, "TraceMode");
        for (std::size_t k = 0; k < std::size(kind_->y) && !kind_->y[k].empty(); ++k)
            trace.y[k] = ChildOf<CParameterRealArray>(group, kind_->y[k]);
    }
    auto* data = FromRoot<CGroupImpl>(*this, "LimitLineData");
    lines_ = std::make_unique<SLine[]>(kLimitLines);
    for (LONG i = 0; i < kLimitLines; ++i) {
        auto* group = ChildOf<CGroupImpl>(data, "Line", i);
        SLine& line = lines_[i];
        line = {ChildOf<CParameterBoolean>(group, "Exists"),     ChildOf<CParameterBoolean>(group, "Compatible"),
                ChildOf<CParameterBoolean>(group, "CheckLimit"), ChildOf<CParameterInteger>(group, "Limit"),
                ChildOf<CParameterInteger>(group, "Domain"),     ChildOf<CParameterInteger>(group, "TraceNo"),
                ChildOf<CParameterInteger>(group, "XScaling"),   ChildOf<CParameterInteger>(group, "YScaling"),
                ChildOf<CParameterInteger>(group, "PointCount"), ChildOf<CParameterInteger>(group, "LLCheckPassed"),
                ChildOf<CParameterReal>(group, "Margin"),        ChildOf<CParameterReal>(group, "Threshold"),
                ChildOf<CParameterReal>(group, "XShift"),        ChildOf<CParameterReal>(group, "YShift"),
                ChildOf<CParameterRealArray>(group, "PointX"),   ChildOf<CParameterRealArray>(group, "PointY")};
    }
}

eLLRESULT CParameterOverallLLResult::Check(const SLine& line) const noexcept {
    const STrace& trace = traces_[ValueOr(line.traceNo, 0) - 1];
    const bool upper = ValueOr(line.limit, eLIMIT_UPPER) == eLIMIT_UPPER;
    std::size_t y = 0;
    if (kind_->timeDomain) {
        // The envelope of the transient mode the graph shows: the upper one
        // for an upper line, the lower one for a lower line.
        const ULONG mode = ValueOr(transientMode_, eTRANS_MAX);
        if (mode >= eTRANS_MAX) return eLLRESULT_NA;
        y = 2 * mode + (upper ? 0 : 1);
    }
    SLimitLine limit;
    limit.x = ValuesOf(line.x);
    limit.y = ValuesOf(line.y);
    limit.count = ValueOr(line.pointCount, 0);
    limit.upper = upper;
    limit.frequencyDomain = ValueOr(line.domain, eDOMAIN_FREQ) == eDOMAIN_FREQ;
    limit.xRelative = ValueOr(line.xScaling, eXSCALING_ABSOLUTE) == eXSCALING_RELATIVE;
    limit.yRelative = ValueOr(line.yScaling, eYSCALING_ABSOLUTE) == eYSCALING_RELATIVE;
    limit.xShift = ValueOr(line.xShift, 0);
    limit.yShift = ValueOr(line.yShift, 0);
    limit.margin = ValueOr(line.margin, NAN);
    limit.threshold = ValueOr(line.threshold, NAN);
    return CheckLimitLine(limit, {ValuesOf(trace.x), ValuesOf(trace.y[y]), ValueOr(trace.mode, eMODE_BLANK)});
}

bool CParameterOverallLLResult::Update(CDatabaseObjectImpl* source) {
    if (!kind_ || source != Parent()) return false;
    if (!bound_) Bind();
    const ULONG state = ValueOr(state_, eMEASSTATE_IDLE);
    if (state != eMEASSTATE_RUNNING && state != eMEASSTATE_COMPLETE) return false;

    const ULONG n = ValueOr(active_, 0);
    ULONG counted = 0;
    bool fail = false, pass = false, na = false;
    for (LONG i = 0; i < kLimitLines && counted < n; ++i) {
        const SLine& line = lines_[i];
        if (!IsTrue(line.exists) || !IsTrue(line.compatible) || !IsTrue(line.checkLimit)) continue;
        ++counted;
        const ULONG t = ValueOr(line.traceNo, 0);
        if (t < 1 || t > 8) continue;  // counted, but keeps its verdict
        const eLLRESULT verdict = Check(line);
        WriteVerdict(line.verdict, verdict);
        fail |= verdict == eLLRESULT_FAIL;
        pass |= verdict == eLLRESULT_PASS;
        na |= verdict == eLLRESULT_NA;
    }
    const ULONG overall = counted == 0 ? eLLRESULT_INVALID
                          : fail       ? eLLRESULT_FAIL
                          : pass       ? eLLRESULT_PASS
                          : na         ? eLLRESULT_NA
                                       : eLLRESULT_INVALID;
    if (IsValid() && Value() == overall) return false;
    SetValue(overall);
    return true;
}

}  // namespace vorn
