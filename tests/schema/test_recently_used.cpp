// The settings remembered per noise type on the real tree: FFTWindow,
// SweepMode and AFCTolerance.
#include <gtest/gtest.h>

#include <string>

#include "schema/RuleTestSupport.h"

using namespace vorn;
using namespace vorn::test;

namespace {

const std::string kSettings = "UserSettings.PhaseNoiseSettings.";
const std::string kRecent = kSettings + "RecentlyUsed.";
const std::string kType = "OptionStateInfo.NoiseMeasType";
const std::string kReadOnly = "GuiSettings.FFTWindowReadOnly";
const std::string kWindow = kSettings + "FFTWindow";
const std::string kSweep = kSettings + "SweepMode";

using RecentlyUsed = RuleTest;

TEST_F(RecentlyUsed, RememberedPerNoiseType) {
    Run({// Copied into the current type's member, also an unchanged value.
         Set(kType, eNOISETYPE_ANALYSER), Set(kWindow, 2), Is(kRecent + "FFTWindowOnNoiseAnalyser", 2),
         Is(kReadOnly, 1), Set(kType, eNOISETYPE_PLL), Set(kWindow, 3), Is(kRecent + "FFTWindowOnNoisePLL", 3),
         Is(kReadOnly, 0), Set(kType, eNOISETYPE_BASEBAND), Set(kWindow, 1, S_OK), Set(kSweep, 3, S_OK),
         Is(kRecent + "SweepModeOnNoiseBaseband", 3), Set(kType, eNOISETYPE_RESIDUAL),
         Set(kRecent + "FFTWindowOnNoiseResidual", 2), Set(kWindow, 0, S_FALSE),
         Is(kRecent + "FFTWindowOnNoiseResidual", 0), Is(kReadOnly, 0),
         // A refused write changes nothing else.
         Set(kWindow, 4, E_INVALIDARG), Is(kRecent + "FFTWindowOnNoiseResidual", 0),
         // Switching types restores what each type remembered.
         Set(kType, eNOISETYPE_ANALYSER), Is(kWindow, 2), Is(kReadOnly, 1), Set(kType, eNOISETYPE_PLL), Is(kWindow, 3),
         Is(kReadOnly, 0), Set(kType, eNOISETYPE_BASEBAND), Is(kSweep, 3)});
}

TEST_F(RecentlyUsed, AFCToleranceAbsoluteOrRelative) {
    const std::string tolerance = kSettings + "AFCTolerance";
    Run({Set(tolerance, 5000), Is(kRecent + "AFCTolerance", 5000),
         // Relative: the percentage's limits, unit and remembered value.
         Set(kSettings + "AFCToleranceRel", 1), Is(tolerance, 1), Set(tolerance, 2.5),
         Is(kRecent + "AFCTolerancePercentage", 2.5), Is(kRecent + "AFCTolerance", 5000),
         Set(tolerance, 500, E_INVALIDARG), Set(kSettings + "AFCToleranceRel", 0), Is(tolerance, 5000)});
    eUNIT unit = eUNIT_NONE;
    ASSERT_EQ(Get<IParameterReal>(tolerance)->get_Units(&unit), S_OK);
    EXPECT_EQ(unit, eUNIT_HZ);
    Run({Set(kSettings + "AFCToleranceRel", 1)});
    ASSERT_EQ(Get<IParameterReal>(tolerance)->get_Units(&unit), S_OK);
    EXPECT_EQ(unit, eUNIT_RATIO);
}

}  // namespace
