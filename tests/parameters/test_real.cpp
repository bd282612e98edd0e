// Real parameters: tolerant limits, the record kinds of Reset, the clamped
// stepping of the unit and inc/dec classes with exact expected values (one
// table), whole-hertz rounding, and the reactive class.
#include <string>
#include <vector>

#include "ParameterTestTree.h"

namespace vorn::test {
namespace {

constexpr SDefaultsRealValueMinMax kTen{.unit = eUNIT_VOLT, .value = 1.0, .minimum = 0.0, .maximum = 10.0};
constexpr SDefaultsRealValue kLine{.unit = eUNIT_HZ, .value = 1e6};
constexpr SDefaultsRealValueMinMaxNoReset kPhaseDetLevel{.unit = eUNIT_DBM, .minimum = -170.0, .maximum = 70.0};
constexpr SDefaultsRealValueMinMax kDb{.unit = eUNIT_DB, .value = 3.5, .minimum = -100.0, .maximum = 100.0};
constexpr SDefaultsRealValueMinMax kHz{.unit = eUNIT_HZ, .value = 50.0, .minimum = -1e9, .maximum = 1e9};
constexpr SDefaultsRealValueMinMax kHzCapped{.unit = eUNIT_HZ, .value = 95000.0, .minimum = 20.0, .maximum = 99000.0};
constexpr SDefaultsRealValueMinMax kSec{.unit = eUNIT_SEC, .value = 1.0, .minimum = 0.0, .maximum = 100.0};
constexpr SDefaultsRealSettingIncDec kPushing{
    .unit = eUNIT_VOLT, .value = 0.1, .minimum = 0.001, .maximum = 1000.0, .smallStep = 0.001, .largeStep = 0.01};
constexpr SDefaultsRealSettingIncDec kDelay{
    .unit = eUNIT_SEC, .value = 0.15, .minimum = 0.0, .maximum = 1.0, .smallStep = 0.1, .largeStep = 0.5};
constexpr SDefaultsRealSettingIncDecNoReset kDetectorGain{
    .unit = eUNIT_DB, .minimum = -100.0, .maximum = 100.0, .smallStep = 1.0, .largeStep = 10.0};
constexpr SDefaultsRealSettingIncDec kMultiplier{
    .unit = eUNIT_NONE, .value = 1.0, .minimum = -1024.0, .maximum = 1024.0, .smallStep = 1.0, .largeStep = 1.0};
constexpr SDefaultsRealValueMinMax kFreqTolerance{.unit = eUNIT_HZ, .value = 1000.0, .minimum = 1.0, .maximum = 1e6};

using Real = ParameterTest;

TEST_F(Real, ToleranceAtTheLimitsKeepsTheValueAsGiven) {
    auto& setting = Make<CParameterRealSetting>("Setting", &kTen);
    EXPECT_EQ(setting.put_Value(10.000000000005), S_OK);
    EXPECT_EQ(Read(setting, &CParameterReal::get_Value), std::pair(S_OK, 10.000000000005));
    EXPECT_EQ((Results{setting.put_Value(10.00000000002), setting.put_Value(-1e-300), setting.put_Value(0.0)}),
              (Results{E_INVALIDARG, E_INVALIDARG, S_OK}));
    // GetNearestValue clamps exactly, never fails, ignores the status.
    ASSERT_EQ(setting.put_Status(eSTATUS_INVALID), S_OK);
    double value = 0.0, low = 1.0;
    EXPECT_EQ((Results{setting.GetNearestValue(10.000000000005, &value), setting.GetNearestValue(-3.0, &low)}),
              (Results{S_OK, S_OK}));
    EXPECT_EQ(std::pair(value, low), std::pair(10.0, 0.0));
}

TEST_F(Real, ResetRecordKindsOfASettingAndAPlainRealWithoutLimitsOrSteps) {
    auto& fromValueRecord = Make<CParameterRealSetting>("FromValue", &kLine);
    auto& phaseDetLevel = Make<CParameterRealSetting>("PhaseDetLevel", &kPhaseDetLevel);
    // Limits 0.0 and 0.0 reject the record's own value.
    EXPECT_EQ(fromValueRecord.Status(), eSTATUS_INVALID);
    EXPECT_EQ(fromValueRecord.Unit(), eUNIT_HZ);
    EXPECT_EQ((Results{fromValueRecord.put_Value(1.0), fromValueRecord.put_Value(0.0)}), (Results{E_INVALIDARG, S_OK}));

    EXPECT_EQ(phaseDetLevel.Status(), eSTATUS_INVALID);
    EXPECT_EQ(Read(phaseDetLevel, &CParameterReal::get_Minimum), std::pair(S_OK, -170.0));
    EXPECT_EQ(phaseDetLevel.Increment(eSTEP_SMALL), kInvalid);
    // put_Minimum checks nothing against the value or the other limit.
    EXPECT_EQ(phaseDetLevel.put_Minimum(500.0), S_OK);
    EXPECT_EQ(Read(phaseDetLevel, &CParameterReal::get_Minimum), std::pair(S_OK, 500.0));

    auto& line = Make<CParameterReal>("Line", &kLine);
    double unused = 0.0;
    // eUNIT has 22 members.
    EXPECT_EQ((Results{line.get_Maximum(&unused), line.put_Minimum(1.0), line.Increment(eSTEP_SMALL),
                       line.IncWithDepNoti(eSTEP_SMALL), line.put_Units(static_cast<eUNIT>(22))}),
              (Results{E_NOTIMPL, E_NOTIMPL, E_NOTIMPL, E_NOTIMPL, E_INVALIDARG}));
    EXPECT_EQ(line.Unit(), eUNIT_HZ);
    EXPECT_EQ(line.GetNearestValue(-5.0, &unused), S_OK);
    EXPECT_EQ(unused, -5.0);
}

// One step of a unit class from a start value: the result and the value
// after it (the start, when refused or unchanged). The classes' rules with
// all their cases are tested on their own in test_real_rules.cpp.
TEST_F(Real, StepRulesOfTheUnitAndIncDecClassesClampAtTheLimits) {
    auto& db = Make<CParameterDeciBel>("Db", &kDb);
    auto& sec = Make<CParameterSecond>("Sec", &kSec);
    auto& hz = Make<CParameterHertz>("Hz", &kHz);
    auto& capped = Make<CParameterHertz>("Capped", &kHzCapped);
    auto& exact = Make<CParameterHertzNoRounding>("Exact", &kHz);
    auto& ratio = Make<CParameterHertzRatio>("FreqTolerance", &kFreqTolerance);
    auto& unstepped = Make<CParameterRealSetting>("Unstepped", &kTen);
    auto& pushing = Make<CParameterRealSettingIncDec>("PushingVoltage", &kPushing);
    auto& delay = Make<CParameterRealSettingIncDec>("Delay", &kDelay);
    auto& multiplier = Make<CParameterNonNullRealSettingIncDec>("SignalMultiplier", &kMultiplier);
    const struct {
        CParameterRealSetting& parameter;
        double start;
        bool up;
        eSTEP step;
        HRESULT hr;
        double expected;
    } cases[] = {
        {db, 3.5, true, eSTEP_SMALL, S_OK, 4.0},  // grid steps snap off-grid values
        {db, 3.5, true, eSTEP_LARGE, S_OK, 10.0},
        {sec, 1.0, false, eSTEP_LARGE, S_OK, 0.9},
        {hz, 50.0, true, eSTEP_LARGE, S_OK, 51.0},
        {hz, 1000.0, true, eSTEP_LARGE, S_OK, 2000.0},
        {hz, 1000.0, false, eSTEP_LARGE, S_OK, 900.0},
        {exact, 10.5, true, eSTEP_SMALL, S_OK, 11.0},
        {capped, 95000.0, true, eSTEP_LARGE, S_OK, 99000.0},  // 100000 clamped onto the maximum
        {capped, 99000.0, true, eSTEP_SMALL, E_INVALIDARG, 99000.0},
        {capped, 20.0, false, eSTEP_SMALL, E_INVALIDARG, 20.0},
        {capped, 25.0, false, eSTEP_LARGE, S_OK, 24.0},
        {ratio, 1000.0, true, eSTEP_SMALL, S_OK, 2000.0},
        {ratio, 500000.0, true, eSTEP_LARGE, S_OK, 1e6},
        // Without a step rule the value stays: unchanged, or refused at the
        // lower limit.
        {unstepped, 1.0, true, eSTEP_SMALL, S_FALSE, 1.0},
        {unstepped, 0.0, false, eSTEP_SMALL, E_INVALIDARG, 0.0},
        // Fixed steps, no grid snapping, pulled back onto the limits.
        {pushing, 1000.0, true, eSTEP_SMALL, E_INVALIDARG, 1000.0},
        {pushing, 999.999, true, eSTEP_LARGE, S_OK, 1000.0},
        {delay, 0.15, true, eSTEP_SMALL, S_OK, 0.15 + 0.1},
        {delay, 0.25, false, eSTEP_LARGE, S_OK, 0.0},
        {multiplier, 1.0, false, eSTEP_SMALL, S_OK, -1.0},  // zero is skipped
        {multiplier, -1.0, true, eSTEP_LARGE, S_OK, 1.0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.parameter.Name() + " from " + std::to_string(c.start) + (c.up ? " up" : " down"));
        ASSERT_TRUE(SUCCEEDED(c.parameter.put_Value(c.start)));
        EXPECT_EQ(c.up ? c.parameter.Increment(c.step) : c.parameter.Decrement(c.step), c.hr);
        EXPECT_EQ(c.parameter.Value(), c.expected);
    }
    EXPECT_EQ(multiplier.put_Value(0.0), E_INVALIDARG);
}

TEST_F(Real, HertzRoundsOnlyInPutValue) {
    auto& hz = Make<CParameterHertz>("Hz", &kHz);
    EXPECT_EQ(After(hz.put_Value(10.5), hz), std::tuple(S_OK, "11 valid 11"));
    EXPECT_EQ(After(hz.put_Value(-10.5), hz), std::tuple(S_OK, "-10 valid -10"));
    // 11.4 rounds to the 11 held: unchanged.
    ASSERT_EQ(hz.put_Value(11.0), S_OK);
    EXPECT_EQ(hz.put_Value(11.4), S_FALSE);
    EXPECT_EQ(After(hz.AssignValue(12.25, 3), hz), std::tuple(S_OK, "12.25 valid 12.25"));
}

TEST_F(Real, IncDecStepsOfARecordWithoutValue) {
    auto& detectorGain = Make<CParameterRealSettingIncDec>("DetectorGain", &kDetectorGain);
    auto& unstepped = Make<CParameterRealSettingIncDec>("Unstepped", &kTen);
    // Stepping starts from the stored value even while invalid, and makes
    // the parameter valid.
    EXPECT_EQ(State(detectorGain), "0 invalid empty");
    EXPECT_EQ(detectorGain.SmallStep(), 1.0);
    EXPECT_EQ(After(detectorGain.Increment(eSTEP_LARGE), detectorGain), std::tuple(S_OK, "10 valid 10"));
    // A record of another kind keeps the steps.
    detectorGain.SetDefaults(&kTen);
    EXPECT_EQ(After(detectorGain.Reset(), detectorGain), std::tuple(S_OK, "1 valid 1"));
    EXPECT_EQ(detectorGain.LargeStep(), 10.0);
    EXPECT_EQ(unstepped.Increment(eSTEP_SMALL), E_NOTIMPL);
}

TEST_F(Real, ReactiveHertzFollowsMovedLimitsAndPassesOnOnlyChanges) {
    auto& source = Make<CParameterReal>("Source", &kLine);
    auto& reactive = Make<CParameterHertzReactive>("Reactive", &kHzCapped);
    auto& follower = Make<CRecordingRule>("Follower", &kLine, log_, 0.5);
    ASSERT_EQ((Results{source.AddDependant(&reactive), reactive.AddDependant(&follower)}), Results(2, S_OK));

    // Limits unchanged: nothing to do, the follower is not told.
    EXPECT_EQ(Told(source.put_Value(1.0)), std::pair(S_OK, Events{"s:Source=1"}));
    // A rule moves the maximum below the value; the next change pulls the
    // value onto it and the follower hears of it.
    ASSERT_EQ(reactive.put_Maximum(90000.0), S_OK);
    EXPECT_EQ(Told(source.put_Value(2.0)), std::pair(S_OK, Events{"s:Source=2", "s:Reactive=90000",
                                                                  "dep Follower(Reactive)", "s:Follower=90000.5"}));
    EXPECT_EQ(reactive.Value(), 90000.0);
}

}  // namespace
}  // namespace vorn::test
