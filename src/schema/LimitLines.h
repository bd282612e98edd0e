// The rules of the limit lines below LimitLineData: the counts of existing
// and checked lines, each line's compatibility with the graph now shown, the
// flag that tells the display the lines changed, and the overall verdict of
// a results group.
// docs/limitlines.md gives the rules and their reasons; the per-line check
// is in schema/LimitCheck.h.
#pragma once

#include <memory>

#include "parameters/ParameterArray.h"
#include "parameters/ParameterBoolean.h"
#include "parameters/ParameterInteger.h"
#include "parameters/ParameterReal.h"
#include "schema/RuleBinding.h"

namespace vorn {

inline constexpr int kLimitLines = 100;

// A count over the 100 lines of its LimitLineData: lines whose Exists is
// true, and (when `checked`) whose CheckLimit is true as well. Recounted when
// any line's Exists or CheckLimit changes.
class CParameterLimitLineCount : public rules::CRecalculated<CParameterInteger> {
public:
    // Binds and follows every Line[i].Exists and Line[i].CheckLimit.
    void PostConstruct() override;

protected:
    explicit CParameterLimitLineCount(bool checked) noexcept : checked_(checked) {}

private:
    // The count; true when it changed.
    bool Update(CDatabaseObjectImpl* source) override;

    bool checked_;
    CParameterBoolean* exists_[kLimitLines] = {};
    CParameterBoolean* checkLimit_[kLimitLines] = {};
};

class CParameterCountValidLL final : public CParameterLimitLineCount {
public:
    CParameterCountValidLL() noexcept : CParameterLimitLineCount(false) {}
};

class CParameterCountActiveLL final : public CParameterLimitLineCount {
public:
    CParameterCountActiveLL() noexcept : CParameterLimitLineCount(true) {}
};

// Whether its line suits the graph now shown (the table of
// docs/limitlines.md); false when any partner cannot be read.
class CParameterLLCompatible final : public rules::CRecalculated<CParameterBoolean> {
public:
    // Binds and follows the line's Limit, Domain, Units, ResultType and
    // CheckLimit, OptionStateInfo.CurrentGraphType,
    // UserSettings.TransientSettings.TransientMode and PMUnit, and
    // GuiSettings.HighlightSpurs.
    void PostConstruct() override;

    // The compatibility rule on plain values: result type, unit, graph,
    // transient mode, PM unit, spurs highlighted.
    static bool IsCompatible(ULONG result, ULONG units, ULONG graph, ULONG transientMode, ULONG pmUnit,
                             bool highlightSpurs) noexcept;

private:
    // The rule; true when the value changed.
    bool Update(CDatabaseObjectImpl* source) override;

    CParameterInteger* limit_ = nullptr;
    CParameterInteger* domain_ = nullptr;
    CParameterInteger* units_ = nullptr;
    CParameterInteger* result_ = nullptr;
    CParameterBoolean* checkLimit_ = nullptr;
    CParameterInteger* graph_ = nullptr;
    CParameterInteger* transientMode_ = nullptr;
    CParameterInteger* pmUnit_ = nullptr;
    CParameterBoolean* highlightSpurs_ = nullptr;
};

// LimitLineData.Changed: set true whenever anything of a line changes (its
// definition, its Exists, its compatibility with the graph; not its verdict,
// which the overall result writes without passing the change on). The
// display clears it after redrawing; a client's write is stored as it is.
class CParameterLLChanged final : public rules::CRecalculated<CParameterBoolean> {
public:
    // Follows the 100 Line groups.
    void PostConstruct() override;

private:
    bool Update(CDatabaseObjectImpl* source) override;
};

// Which results group an overall result belongs to (LimitLines.cpp).
struct SResultsKind;

// The overall limit verdict of the results group it belongs to
// (PhaseNoiseResults.PNoiseLLStatus, ..., TransientResults.
// TransientOverallLLResult): a change of that group, while a measurement
// runs or has completed, checks every counted line against its trace of the
// group, writes each line's LLCheckPassed and aggregates them (fail, pass,
// not applicable, invalid). The lines and traces are bound at the first run,
// so that creating the database pays nothing for them.
class CParameterOverallLLResult final : public rules::CRecalculated<CParameterEnum> {
public:
    // Follows the results group and finds which of the five it is.
    void PostConstruct() override;

    // One line's members, as the walk reads them.
    struct SLine {
        CParameterBoolean* exists = nullptr;
        CParameterBoolean* compatible = nullptr;
        CParameterBoolean* checkLimit = nullptr;
        CParameterInteger* limit = nullptr;
        CParameterInteger* domain = nullptr;
        CParameterInteger* traceNo = nullptr;
        CParameterInteger* xScaling = nullptr;
        CParameterInteger* yScaling = nullptr;
        CParameterInteger* pointCount = nullptr;
        CParameterInteger* verdict = nullptr;
        CParameterReal* margin = nullptr;
        CParameterReal* threshold = nullptr;
        CParameterReal* xShift = nullptr;
        CParameterReal* yShift = nullptr;
        CParameterRealArray* x = nullptr;
        CParameterRealArray* y = nullptr;
    };
    // One trace of the group: its x values, its mode and its y arrays (one
    // for the frequency domain; the upper and lower envelopes of each
    // transient mode, in eTRANS order, for the time domain).
    struct STrace {
        CParameterRealArray* x = nullptr;
        CParameterInteger* mode = nullptr;
        CParameterRealArray* y[2 * eTRANS_MAX] = {};
    };

private:
    bool Update(CDatabaseObjectImpl* source) override;
    void Bind();
    // The verdict of `line` on the traces of the group.
    eLLRESULT Check(const SLine& line) const noexcept;

    const SResultsKind* kind_ = nullptr;  // null: not one of the five groups
    bool bound_ = false;
    CParameterInteger* state_ = nullptr;
    CParameterInteger* active_ = nullptr;
    CParameterInteger* transientMode_ = nullptr;
    std::unique_ptr<SLine[]> lines_;
    STrace traces_[8];
};

}  // namespace vorn
