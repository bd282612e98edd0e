// The limit lines: the per-line check on small hand-computed cases, then the
// rules on the real tree: the counts, the compatibility, the Changed flag and
// the overall verdict of a results group.

#include "schema/LimitCheck.h"
#include "schema/RuleTestSupport.h"

using namespace vorn;
using namespace vorn::test;

namespace {

struct SCase {
    std::string name;
    std::vector<double> lx, ly;  // the line's points (PointCount = their number)
    std::vector<double> tx, ty;  // the trace
    eLLRESULT expected;
    // What differs from an upper frequency-domain line without shifts,
    // margin or threshold over a trace in clear/write mode: "lower", "time",
    // "x relative", "y relative", "x shift N", "y shift N", "margin N",
    // "threshold N", "blank" (the trace's mode), separated by ", ".
    std::string options;

    // The number after `option` in the options; `absent` when not given.
    double Option(const std::string& option, double absent) const {
        const std::size_t at = options.find(option + " ");
        return at == std::string::npos ? absent : std::stod(options.substr(at + option.size() + 1));
    }
    bool Has(const std::string& option) const { return options.find(option) != std::string::npos; }
};

// (1 kHz, -100) to (100 kHz, -140): -120 at 10 kHz on the log axis.
const std::vector<double> kX = {1e3, 1e5}, kY = {-100, -140};
// A V on a linear axis: (0, 10), (10, 0), (20, 10); points of a trace on it.
const std::vector<double> kV = {0, 10, 20}, kVy = {10, 0, 10}, kWalk = {1, 5, 9, 10, 11, 15, 19};

TEST(LimitCheck, HandComputedCases) {
    const SCase cases[] = {
        {"exactly on the line", kX, kY, {1e4}, {-120}, eLLRESULT_PASS},
        {"just above", kX, kY, {1e4}, {-119.9}, eLLRESULT_FAIL},
        {"below", kX, kY, {1e4}, {-120.1}, eLLRESULT_PASS},
        {"lower: on the line", kX, kY, {1e4}, {-120}, eLLRESULT_PASS, "lower"},
        {"lower: below", kX, kY, {1e4}, {-120.1}, eLLRESULT_FAIL, "lower"},
        {"on a corner", kX, kY, {1e3, 1e5}, {-100, -140}, eLLRESULT_PASS},
        {"log axis, not linear", {1, 100}, {0, 20}, {10}, {9}, eLLRESULT_PASS},
        {"time: linear", {0, 100}, {0, 100}, {50}, {50.1}, eLLRESULT_FAIL, "time"},
        {"time: on the line", {0, 100}, {0, 100}, {50}, {50}, eLLRESULT_PASS, "time"},
        {"outside the x range", kX, kY, {10, 1e6}, {0, 0}, eLLRESULT_NA},
        {"one point is no line", {1e3}, {-100}, {1e3}, {-200}, eLLRESULT_NA},
        {"decreasing x", {1e5, 1e3}, kY, {1e4}, {-200}, eLLRESULT_NA},
        {"no trace points", kX, kY, {}, {}, eLLRESULT_NA},
        {"blank trace", kX, kY, {1e4}, {-200}, eLLRESULT_NA, "blank"},
        {"blanked points", kX, kY, {1e4}, {9.91e37}, eLLRESULT_NA},
        {"margin moves the line in", kX, kY, {1e4}, {-122}, eLLRESULT_FAIL, "margin 3"},
        {"margin: on the moved line", kX, kY, {1e4}, {-123}, eLLRESULT_PASS, "margin 3"},
        {"lower margin", kX, kY, {1e4}, {-118}, eLLRESULT_FAIL, "lower, margin 3"},
        {"threshold: floor not judged", kX, {-170, -170}, {1e4}, {-160}, eLLRESULT_NA, "threshold -155"},
        {"threshold: above the floor", kX, {-170, -170}, {1e4}, {-150}, eLLRESULT_FAIL, "threshold -155"},
        {"threshold: lower line ignores it", kX, {-170, -170}, {1e4}, {-180}, eLLRESULT_FAIL, "lower, threshold -155"},
        {"y shift", kX, kY, {1e4}, {-112}, eLLRESULT_PASS, "y shift 10"},
        {"y shift: above", kX, kY, {1e4}, {-108}, eLLRESULT_FAIL, "y shift 10"},
        {"x shift", {0, 100}, {0, 100}, {60}, {50.5}, eLLRESULT_FAIL, "time, x shift 10"},
        {"vertical step: stricter value", {0, 5, 5, 10}, {10, 10, 0, 0}, {5}, {5}, eLLRESULT_FAIL, "time"},
        {"vertical step: before it", {0, 5, 5, 10}, {10, 10, 0, 0}, {4}, {5}, eLLRESULT_PASS, "time"},
        // A trace walking over the segments of a V, each point on the line.
        {"walk: on every segment", kV, kVy, kWalk, {9, 5, 1, 0, 1, 5, 9}, eLLRESULT_PASS, "time"},
        {"walk: one point above", kV, kVy, kWalk, {9, 5, 1, 0, 1, 5.1, 9}, eLLRESULT_FAIL, "time"},
        {"walk: out of order", kV, {0, 10, 0}, {15, 5, 15}, {5, 5.1, 5}, eLLRESULT_FAIL, "time"},
        {"x relative to the start", {0, 2}, {1, 1}, {10, 11, 13}, {0.5, 0.5, 5}, eLLRESULT_PASS, "time, x relative"},
        {"x relative, log axis", {1, 10}, {-100, -100}, {1e3, 1e4, 2e4}, {-101, -99, 0}, eLLRESULT_FAIL, "x relative"},
        {"y relative to the peak", {0, 10}, {-3, -3}, {0, 5, 20}, {-4, -3, -1}, eLLRESULT_FAIL, "time, y relative"},
    };
    for (const SCase& c : cases) {
        SCOPED_TRACE(c.name);
        const SLimitLine line{c.lx,
                              c.ly,
                              c.lx.size(),
                              !c.Has("lower"),
                              !c.Has("time"),
                              c.Has("x relative"),
                              c.Has("y relative"),
                              c.Option("x shift", 0),
                              c.Option("y shift", 0),
                              c.Option("margin", NAN),
                              c.Option("threshold", NAN)};
        EXPECT_EQ(CheckLimitLine(line, {c.tx, c.ty, c.Has("blank") ? unsigned{eMODE_BLANK} : unsigned{eMODE_CLRWRT}}),
                  c.expected);
    }
}

const std::string kData = "LimitLineData.";
const std::string kLine0 = kData + "Line[0].";
const std::string kGraph = "OptionStateInfo.CurrentGraphType";
const std::string kTransient = "UserSettings.TransientSettings.";

using LimitLines = RuleTest;

TEST_F(LimitLines, CountsOverAllLines) {
    Run({Set(kLine0 + "Exists", 1), Is(kData + "CountValidLL", 1), Is(kData + "CountActiveLL", 0),
         Set(kLine0 + "CheckLimit", 1), Is(kData + "CountActiveLL", 1), Set(kData + "Line[99].Exists", 1),
         Is(kData + "CountValidLL", 2), Set(kData + "Line[99].CheckLimit", 1), Is(kData + "CountActiveLL", 2),
         Set(kLine0 + "Exists", 0), Is(kData + "CountValidLL", 1), Is(kData + "CountActiveLL", 1)});
}

TEST_F(LimitLines, CompatibleWithTheGraph) {
    Run({// Phase noise: dBc/Hz anywhere; dBc with spurs highlighted, never on the analyser.
         Set(kGraph, eGRAPH_PNOISEANALYSER), Set(kLine0 + "Units", eLLUNIT_DBC_HZ), Is(kLine0 + "Compatible", 1),
         Set("GuiSettings.HighlightSpurs", 1), Set(kLine0 + "Units", eLLUNIT_DBC), Is(kLine0 + "Compatible", 0),
         Set(kGraph, eGRAPH_PNOISEPLL), Is(kLine0 + "Compatible", 1), Set("GuiSettings.HighlightSpurs", 0),
         Is(kLine0 + "Compatible", 0), Set(kGraph, eGRAPH_TRANSIENT), Set(kLine0 + "Units", eLLUNIT_DBC_HZ),
         Is(kLine0 + "Compatible", 0),
         // Baseband.
         Set(kLine0 + "ResultType", eRESULT_BASEBAND), Set(kGraph, eGRAPH_PNOISEBASEBAND), Is(kLine0 + "Compatible", 0),
         Set(kLine0 + "Units", eLLUNIT_DBV_HZ), Is(kLine0 + "Compatible", 1),
         // Transient: the unit by the mode, PM by its unit.
         Set(kLine0 + "ResultType", eRESULT_TRANSIENT), Set(kGraph, eGRAPH_TRANSIENT),
         Set(kTransient + "TransientMode", eTRANS_FM), Set(kLine0 + "Units", eLLUNIT_HZ), Is(kLine0 + "Compatible", 1),
         Set(kTransient + "TransientMode", eTRANS_PM), Is(kLine0 + "Compatible", 0),
         Set(kTransient + "PMUnit", ePMUNIT_RAD), Set(kLine0 + "Units", eLLUNIT_RAD), Is(kLine0 + "Compatible", 1),
         Set(kTransient + "PMUnit", ePMUNIT_DEG), Is(kLine0 + "Compatible", 0), Set(kLine0 + "Units", eLLUNIT_DEGREE),
         Is(kLine0 + "Compatible", 1), Set(kTransient + "TransientMode", eTRANS_RF), Is(kLine0 + "Compatible", 0),
         Set(kLine0 + "Units", eLLUNIT_DBM), Is(kLine0 + "Compatible", 1)});
}

TEST_F(LimitLines, ChangedFollowsTheLines) {
    Run({Is(kData + "Changed", 0), Set(kData + "Line[42].YShift", 3), Is(kData + "Changed", 1),
         Set(kData + "Changed", 0),
         // The compatibility changes with the graph: what is drawn changes.
         Set(kGraph, eGRAPH_TRANSIENT), Is(kLine0 + "Compatible", 0), Is(kData + "Changed", 1),
         Set(kData + "Changed", 0), Set("GuiSettings.HighlightSpurs", 1), Is(kData + "Changed", 0)});
}

// The overall verdict of PhaseNoiseResults over lines on trace 1 (three points
// from 10 Hz to 10 kHz at -100 dBc/Hz and below).
class OverallResult : public RuleTest {
protected:
    void SetUp() override {
        RuleTest::SetUp();
        PutArray(kTrace + "X", {10, 100, 1000, 10000});
        Run({Set(kGraph, eGRAPH_PNOISEANALYSER), Set(kState, eMEASSTATE_RUNNING)});
    }
    // Line i, checked on trace 1, upper or lower at `level` over the trace.
    void AddLine(int i, bool upper, double level) {
        const std::string line = kData + "Line[" + std::to_string(i) + "].";
        PutArray(line + "PointX", {10, 10000});
        PutArray(line + "PointY", {level, level});
        Run({Set(line + "PointCount", 2), Set(line + "Limit", upper ? eLIMIT_UPPER : eLIMIT_LOWER),
             Set(line + "Exists", 1), Set(line + "CheckLimit", 1)});
    }
    // A new trace 1 (-110 to -140 dBc/Hz), then the script.
    void Measure(const std::vector<SStep>& then) {
        PutArray(kTrace + "Y", {-110, -120, -130, -140});
        Run(then);
    }

    static inline const std::string kState = "OptionStateInfo.MeasurementState";
    static inline const std::string kTrace = "MeasurementResults.PhaseNoiseResults.DisplayTrace[0].";
    static inline const std::string kOverall = "MeasurementResults.PhaseNoiseResults.PNoiseLLStatus";
};

TEST_F(OverallResult, AggregatesTheCountedLines) {
    const std::string line1 = kData + "Line[1].LLCheckPassed", line2 = kData + "Line[2].LLCheckPassed";
    Run({Set(kLine0 + "Exists", 1)});  // exists but is not checked: counts for nothing
    Measure({Is(kOverall, eLLRESULT_INVALID)});
    AddLine(1, true, -100);  // passes
    Measure({Is(kOverall, eLLRESULT_PASS), Is(line1, eLLRESULT_PASS)});
    AddLine(2, false, -115);  // fails: -120 and below lie under it
    Measure({Is(kOverall, eLLRESULT_FAIL), Is(line2, eLLRESULT_FAIL), Is(line1, eLLRESULT_PASS)});
    // An incompatible line is not counted: its verdict stays as it was.
    Run({Set(kData + "Line[2].Units", eLLUNIT_DBC)});
    Measure({Is(kOverall, eLLRESULT_PASS), Is(line2, eLLRESULT_FAIL)});
    // A blank trace: not applicable.
    Run({Set(kTrace + "TraceMode", eMODE_BLANK)});
    Measure({Is(kOverall, eLLRESULT_NA), Is(line1, eLLRESULT_NA)});
}

TEST_F(OverallResult, ATraceNumberOutOfRangeIsCountedWithoutAVerdict) {
    AddLine(5, true, -200);
    ASSERT_EQ(Get<IParameterInteger>(kData + "Line[5].TraceNo")->AssignValue(9, 0), S_OK);
    // Counted (so the overall result is not invalid) but not judged.
    Measure({Is(kData + "Line[5].LLCheckPassed", eLLRESULT_NA), Is(kOverall, eLLRESULT_INVALID)});
    AddLine(6, true, -200);
    Measure({Is(kData + "Line[6].LLCheckPassed", eLLRESULT_FAIL), Is(kOverall, eLLRESULT_FAIL)});
}

TEST_F(OverallResult, OnlyARunningOrCompletedMeasurementIsJudged) {
    AddLine(0, true, -125);
    for (const auto& [state, expected] : {std::pair{eMEASSTATE_IDLE, eLLRESULT_NA},
                                          {eMEASSTATE_ABORTED, eLLRESULT_NA},
                                          {eMEASSTATE_RUNNING, eLLRESULT_FAIL},
                                          {eMEASSTATE_COMPLETE, eLLRESULT_FAIL}}) {
        SCOPED_TRACE(state);
        Run({Set(kLine0 + "LLCheckPassed", eLLRESULT_NA), Set(kOverall, eLLRESULT_NA), Set(kState, state)});
        Measure({Is(kLine0 + "LLCheckPassed", expected), Is(kOverall, expected)});
    }
}

TEST_F(OverallResult, TransientLinesJudgeTheEnvelopeOfTheirKind) {
    const std::string trace = "MeasurementResults.TransientResults.TransientDisplayTrace[0].";
    const std::string overall = "MeasurementResults.TransientResults.TransientOverallLLResult";
    Run({Set(kGraph, eGRAPH_TRANSIENT), Set(kTransient + "TransientMode", eTRANS_FM),
         Set(kLine0 + "ResultType", eRESULT_TRANSIENT), Set(kLine0 + "Domain", eDOMAIN_TIME),
         Set(kLine0 + "Units", eLLUNIT_HZ)});
    AddLine(0, true, 1000);
    PutArray(trace + "Time", {10, 100, 1000, 10000});
    PutArray(trace + "FrequencyLower", {-2000, -2000, -2000, -2000});
    PutArray(trace + "FrequencyUpper", {500, 900, 500, 900});
    Run({Is(overall, eLLRESULT_PASS)});
    PutArray(trace + "FrequencyUpper", {500, 1200, 500, 900});
    Run({Is(overall, eLLRESULT_FAIL)});
    // A lower line at -1500 Hz judges the lower envelope.
    Run({Set(kLine0 + "Limit", eLIMIT_LOWER), Set(kLine0 + "YShift", -2500)});
    PutArray(trace + "FrequencyLower", {-1000, -1000, -1000, -1000});
    Run({Is(overall, eLLRESULT_PASS)});
    // The phase-noise status is not touched by a transient change.
    Run({Is("MeasurementResults.PhaseNoiseResults.PNoiseLLStatus", NAN)});
}

}  // namespace
