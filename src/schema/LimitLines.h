// The rules of the limit lines below LimitLineData: the counts of existing
// and checked lines and each line's compatibility with the graph now shown.
// docs/limitlines.md gives the rules and their reasons; the per-line check
// is in schema/LimitCheck.h.
#pragma once

#include "parameters/ParameterBoolean.h"
#include "parameters/ParameterInteger.h"
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

}  // namespace vorn
