// The limit-line rules on the real tree: the counts, the compatibility, the
// Changed flag and the overall verdict of a results group.
#include <gtest/gtest.h>

#include <string>

#include "schema/RuleTestSupport.h"

using namespace vorn;
using namespace vorn::test;

namespace {

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
    void Measure(const std::vector<double>& y) { PutArray(kTrace + "Y", y); }

    static inline const std::string kState = "OptionStateInfo.MeasurementState";
    static inline const std::string kTrace = "MeasurementResults.PhaseNoiseResults.DisplayTrace[0].";
    static inline const std::string kOverall = "MeasurementResults.PhaseNoiseResults.PNoiseLLStatus";
};

TEST_F(OverallResult, AggregatesTheCountedLines) {
    const std::vector<double> trace = {-110, -120, -130, -140};
    // Lines that exist but are not checked count for nothing.
    Run({Set(kLine0 + "Exists", 1)});
    Measure(trace);
    Run({Is(kOverall, eLLRESULT_INVALID)});
    AddLine(1, true, -100);  // passes
    Measure(trace);
    Run({Is(kOverall, eLLRESULT_PASS), Is(kData + "Line[1].LLCheckPassed", eLLRESULT_PASS)});
    AddLine(2, false, -115);  // fails: -120 and below lie under it
    Measure(trace);
    Run({Is(kOverall, eLLRESULT_FAIL), Is(kData + "Line[2].LLCheckPassed", eLLRESULT_FAIL),
         Is(kData + "Line[1].LLCheckPassed", eLLRESULT_PASS)});
    // An incompatible line is not counted: its verdict stays as it was.
    Run({Set(kData + "Line[2].Units", eLLUNIT_DBC)});
    Measure(trace);
    Run({Is(kOverall, eLLRESULT_PASS), Is(kData + "Line[2].LLCheckPassed", eLLRESULT_FAIL)});
    // A blank trace: not applicable.
    Run({Set(kTrace + "TraceMode", eMODE_BLANK)});
    Measure(trace);
    Run({Is(kOverall, eLLRESULT_NA), Is(kData + "Line[1].LLCheckPassed", eLLRESULT_NA)});
}

TEST_F(OverallResult, ATraceNumberOutOfRangeIsCountedWithoutAVerdict) {
    AddLine(5, true, -200);
    ASSERT_EQ(Get<IParameterInteger>(kData + "Line[5].TraceNo")->AssignValue(9, 0), S_OK);
    Measure({-110, -120, -130, -140});
    // Counted (so the overall result is not invalid) but not judged.
    Run({Is(kData + "Line[5].LLCheckPassed", eLLRESULT_NA), Is(kOverall, eLLRESULT_INVALID)});
    AddLine(6, true, -200);
    Measure({-110, -120, -130, -140});
    Run({Is(kData + "Line[6].LLCheckPassed", eLLRESULT_FAIL), Is(kOverall, eLLRESULT_FAIL)});
}

TEST_F(OverallResult, OnlyARunningOrCompletedMeasurementIsJudged) {
    AddLine(0, true, -125);
    for (const auto& [state, expected] : {std::pair{eMEASSTATE_IDLE, eLLRESULT_NA},
                                          {eMEASSTATE_ABORTED, eLLRESULT_NA},
                                          {eMEASSTATE_RUNNING, eLLRESULT_FAIL},
                                          {eMEASSTATE_COMPLETE, eLLRESULT_FAIL}}) {
        SCOPED_TRACE(state);
        Run({Set(kLine0 + "LLCheckPassed", eLLRESULT_NA), Set(kOverall, eLLRESULT_NA), Set(kState, state)});
        Measure({-110, -120, -130, -140});
        Run({Is(kLine0 + "LLCheckPassed", expected), Is(kOverall, expected)});
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
