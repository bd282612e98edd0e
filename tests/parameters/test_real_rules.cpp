// The number rules of the real parameters, with exact expected values: the
// tolerance band at limits (none at 0.0), grid and decade steps around powers
// of ten, whole-hertz rounding of negative values and the 1-2-5 sequence.
// Each group compares its results as one list, in the order of the calls.
#include <gtest/gtest.h>

#include <vector>

#include "parameters/RealRules.h"

namespace {

using namespace vorn::real;
using Values = std::vector<double>;
using Answers = std::vector<bool>;

TEST(RealRules, ToleranceBandAtLimits) {
    // 10 + 5e-12 lies inside the band of 1e-11 around 10.0, 10 + 2e-11 outside.
    EXPECT_EQ((Answers{IsAbove(10.000000000005, 10.0), IsAbove(10.00000000002, 10.0), IsBelow(-9.999999999995, -10.0),
                       IsBelow(-10.00000000002, -10.0)}),
              (Answers{false, true, false, true}));
    // A limit of 0.0 has no band at all.
    EXPECT_EQ((Answers{IsBelow(-1e-300, 0.0), IsAbove(1e-300, 0.0), IsBelow(0.0, 0.0), IsAbove(-0.0, 0.0)}),
              (Answers{true, true, false, false}));
    // Equality measures the band on its first argument: 0.0 equals only 0.0.
    EXPECT_EQ((Answers{IsEqual(0.0, 1e-300), IsEqual(1e6, 1e6 + 1e-7), IsEqual(1e6, 1e6 + 2e-6)}),
              (Answers{false, true, false}));
}

TEST(RealRules, GridStepsSnapOffGridValuesAndMoveOnGridOnes) {
    EXPECT_EQ((Values{StepUp(3.5, 1.0), StepUp(4.0, 1.0), StepDown(4.0, 1.0), StepDown(3.5, 1.0), StepUp(-3.5, 10.0),
                      StepDown(-3.5, 10.0)}),
              (Values{4.0, 5.0, 3.0, 3.0, 0.0, -10.0}));
    // A value a hair below a grid point counts as on it and keeps its offset.
    EXPECT_EQ(StepUp(4.0 - 1e-13, 1.0), (4.0 - 1e-13) + 1.0);
    EXPECT_EQ(StepDown(4.0 + 1e-13, 1.0), (4.0 + 1e-13) - 1.0);
    // A width of 0 has the single grid point 0.
    EXPECT_EQ((Values{StepUp(5.0, 0.0), StepDown(0.0, 0.0)}), (Values{0.0, 0.0}));
}

TEST(RealRules, DecadeStepsAtPowersOfTen) {
    // Any step code other than large acts as small (7).
    EXPECT_EQ((Values{DecadeStepUp(eSTEP_LARGE, 1000.0, 1.0), DecadeStepUp(eSTEP_SMALL, 1000.0, 1.0),
                      DecadeStepDown(eSTEP_LARGE, 1000.0, 1.0), DecadeStepDown(eSTEP_SMALL, 1000.0, 1.0),
                      DecadeStepDown(eSTEP_LARGE, 1500.0, 1.0), DecadeStepUp(static_cast<eSTEP>(7), 1000.0, 1.0)}),
              (Values{1000.0, 10.0, 100.0, 1.0, 1000.0, 10.0}));
    // The floor: below it, and exactly on it in the step's direction.
    EXPECT_EQ((Values{DecadeStepUp(eSTEP_LARGE, 0.5, 1.0), DecadeStepUp(eSTEP_LARGE, -1.0, 1.0),
                      DecadeStepDown(eSTEP_LARGE, 1.0, 1.0), DecadeStepDown(eSTEP_LARGE, -1000.0, 1.0)}),
              (Values{1.0, 1.0, 1.0, 1000.0}));
}

TEST(RealRules, HertzRoundingTruncatesNegatives) {
    EXPECT_EQ((Values{RoundHertz(10.5), RoundHertz(10.49), RoundHertz(-10.5), RoundHertz(-10.7), RoundHertz(0.5),
                      RoundHertz(2e10 + 0.5)}),
              (Values{11.0, 10.0, -10.0, -10.0, 1.0, 2e10 + 1.0}));
}

TEST(RealRules, StepRulesAwayFromTheClasses) {
    // Hertz above 100 Hz off the decade grid, and the decade rule's floor.
    EXPECT_EQ(
        (Values{HertzNext(1234.0, eSTEP_LARGE), HertzPrevious(1234.0, eSTEP_SMALL), HertzPrevious(1e9, eSTEP_LARGE),
                DecadeNext(0.0, eSTEP_SMALL), DecadePrevious(1e-9, eSTEP_LARGE), DeciBelPrevious(-3.5, eSTEP_LARGE)}),
        (Values{2000.0, 1230.0, 9e8, 1e-9, 0.0, -10.0}));
}

TEST(RealRules, RatioSequenceOneTwoFive) {
    EXPECT_EQ((Values{RatioNext(1000.0, eSTEP_SMALL), RatioNext(2000.0, eSTEP_SMALL), RatioNext(5000.0, eSTEP_SMALL),
                      RatioNext(3000.0, eSTEP_SMALL), RatioPrevious(1000.0, eSTEP_SMALL),
                      RatioPrevious(3000.0, eSTEP_SMALL), RatioPrevious(1.0, eSTEP_SMALL)}),
              (Values{2000.0, 5000.0, 10000.0, 5000.0, 500.0, 2000.0, 0.5}));
    EXPECT_EQ((Values{RatioNext(1000.0, eSTEP_LARGE), RatioPrevious(1000.0, eSTEP_LARGE)}), (Values{10000.0, 100.0}));
    // A hair below a sequence value counts as on it.
    EXPECT_EQ(
        (Values{RatioNext(1000.0 - 1e-10, eSTEP_SMALL), RatioNext(0.0, eSTEP_SMALL), RatioPrevious(0.0, eSTEP_SMALL)}),
        (Values{2000.0, 1.0, 0.0}));
}

}  // namespace
