// The limit-line rules on the real tree: the counts and the compatibility.
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

}  // namespace
