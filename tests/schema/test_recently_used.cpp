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
const std::string kNoiseType = "OptionStateInfo.NoiseMeasType";
const std::string kReadOnly = "GuiSettings.FFTWindowReadOnly";

using RecentlyUsed = RuleTest;

TEST_F(RecentlyUsed, RememberedPerNoiseType) {
    const struct {
        const char* setting;
        ULONG type, value;
        const char* member;
        bool readOnly;
    } rows[] = {
        {"FFTWindow", eNOISETYPE_ANALYSER, 2, "FFTWindowOnNoiseAnalyser", true},
        {"FFTWindow", eNOISETYPE_PLL, 3, "FFTWindowOnNoisePLL", false},
        {"FFTWindow", eNOISETYPE_BASEBAND, 1, "FFTWindowOnNoiseBaseband", false},
        {"FFTWindow", eNOISETYPE_RESIDUAL, 1, "FFTWindowOnNoiseResidual", false},  // unchanged: copied all the same
        {"SweepMode", eNOISETYPE_BASEBAND, 3, "SweepModeOnNoiseBaseband", false},
    };
    for (const auto& row : rows) {
        ASSERT_TRUE(SUCCEEDED(SetInteger(kNoiseType, row.type)));
        ASSERT_TRUE(SUCCEEDED(SetInteger(kSettings + row.setting, row.value)));
        EXPECT_EQ(Integer(kRecent + row.member), row.value) << row.member;
        EXPECT_EQ(Boolean(kReadOnly), row.readOnly) << row.member;
    }

    // A refused write changes nothing else.
    EXPECT_EQ(SetInteger(kSettings + "FFTWindow", 4), E_INVALIDARG);
    EXPECT_NE(TakeError().description.find("4 is above the upper limit 3"), std::string::npos);
    EXPECT_EQ(Integer(kRecent + "FFTWindowOnNoiseResidual"), 1u);
    EXPECT_FALSE(Boolean(kReadOnly));

    // Switching types restores what each type remembered.
    ASSERT_EQ(SetInteger(kNoiseType, eNOISETYPE_ANALYSER), S_OK);
    EXPECT_EQ(Integer(kSettings + "FFTWindow"), 2u);
    EXPECT_TRUE(Boolean(kReadOnly));
    ASSERT_EQ(SetInteger(kNoiseType, eNOISETYPE_PLL), S_OK);
    EXPECT_EQ(Integer(kSettings + "FFTWindow"), 3u);
    EXPECT_FALSE(Boolean(kReadOnly));
    ASSERT_EQ(SetInteger(kNoiseType, eNOISETYPE_BASEBAND), S_OK);
    EXPECT_EQ(Integer(kSettings + "SweepMode"), 3u);
}

TEST_F(RecentlyUsed, AFCToleranceAbsoluteOrRelative) {
    const std::string tolerance = kSettings + "AFCTolerance";
    ASSERT_EQ(SetReal(tolerance, 5000), S_OK);
    EXPECT_EQ(Real(kRecent + "AFCTolerance"), 5000);

    // Relative: the percentage's limits, unit and remembered value.
    ASSERT_EQ(SetBoolean(kSettings + "AFCToleranceRel", true), S_OK);
    EXPECT_EQ(Real(tolerance), 1);
    eUNIT unit = eUNIT_NONE;
    double maximum = 0;
    ASSERT_EQ(Get<IParameterReal>(tolerance)->get_Units(&unit), S_OK);
    EXPECT_EQ(unit, eUNIT_RATIO);
    ASSERT_EQ(Get<IParameterReal>(tolerance)->get_Maximum(&maximum), S_OK);
    EXPECT_EQ(maximum, 100);
    ASSERT_EQ(SetReal(tolerance, 2.5), S_OK);
    EXPECT_EQ(Real(kRecent + "AFCTolerancePercentage"), 2.5);
    EXPECT_EQ(Real(kRecent + "AFCTolerance"), 5000);
    EXPECT_EQ(SetReal(tolerance, 500), E_INVALIDARG);

    ASSERT_EQ(SetBoolean(kSettings + "AFCToleranceRel", false), S_OK);
    EXPECT_EQ(Real(tolerance), 5000);
    ASSERT_EQ(Get<IParameterReal>(tolerance)->get_Units(&unit), S_OK);
    EXPECT_EQ(unit, eUNIT_HZ);
}

}  // namespace
