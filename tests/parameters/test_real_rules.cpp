// The number rules of the real parameters, with exact expected values: the
// tolerance band at limits (none at 0.0), grid and decade steps around powers
// of ten, whole-hertz rounding of negative values and the 1-2-5 sequence.
#include <gtest/gtest.h>

#include "parameters/RealRules.h"

namespace {

using namespace vorn::real;

TEST(RealRules, ToleranceBandAtLimits) {
    // 10 + 5e-12 lies inside the band of 1e-11 around 10.0, 10 + 2e-11 outside.
    EXPECT_FALSE(IsAbove(10.000000000005, 10.0));
    EXPECT_TRUE(IsAbove(10.00000000002, 10.0));
    EXPECT_FALSE(IsBelow(-9.999999999995, -10.0));
    EXPECT_TRUE(IsBelow(-10.00000000002, -10.0));
    // A limit of 0.0 has no band at all.
    EXPECT_TRUE(IsBelow(-1e-300, 0.0));
    EXPECT_TRUE(IsAbove(1e-300, 0.0));
    EXPECT_FALSE(IsBelow(0.0, 0.0));
    EXPECT_FALSE(IsAbove(-0.0, 0.0));
    // Equality measures the band on its first argument: 0.0 equals only 0.0.
    EXPECT_FALSE(IsEqual(0.0, 1e-300));
    EXPECT_TRUE(IsEqual(1e6, 1e6 + 1e-7));
    EXPECT_FALSE(IsEqual(1e6, 1e6 + 2e-6));
}

TEST(RealRules, GridStepsSnapOffGridValuesAndMoveOnGridOnes) {
    EXPECT_EQ(StepUp(3.5, 1.0), 4.0);
    EXPECT_EQ(StepUp(4.0, 1.0), 5.0);
    EXPECT_EQ(StepDown(4.0, 1.0), 3.0);
    EXPECT_EQ(StepDown(3.5, 1.0), 3.0);
    EXPECT_EQ(StepUp(-3.5, 10.0), 0.0);
    EXPECT_EQ(StepDown(-3.5, 10.0), -10.0);
    // A value a hair below a grid point counts as on it and keeps its offset.
    EXPECT_EQ(StepUp(4.0 - 1e-13, 1.0), (4.0 - 1e-13) + 1.0);
    EXPECT_EQ(StepDown(4.0 + 1e-13, 1.0), (4.0 + 1e-13) - 1.0);
    // A width of 0 has the single grid point 0.
    EXPECT_EQ(StepUp(5.0, 0.0), 0.0);
    EXPECT_EQ(StepDown(0.0, 0.0), 0.0);
}

TEST(RealRules, DecadeStepsAtPowersOfTen) {
    EXPECT_EQ(DecadeStepUp(eSTEP_LARGE, 1000.0, 1.0), 1000.0);
    EXPECT_EQ(DecadeStepUp(eSTEP_SMALL, 1000.0, 1.0), 10.0);
    EXPECT_EQ(DecadeStepDown(eSTEP_LARGE, 1000.0, 1.0), 100.0);
    EXPECT_EQ(DecadeStepDown(eSTEP_SMALL, 1000.0, 1.0), 1.0);
    EXPECT_EQ(DecadeStepDown(eSTEP_LARGE, 1500.0, 1.0), 1000.0);
    // Any step code other than large acts as small.
    EXPECT_EQ(DecadeStepUp(static_cast<eSTEP>(7), 1000.0, 1.0), 10.0);
    // The floor: below it, and exactly on it in the step's direction.
    EXPECT_EQ(DecadeStepUp(eSTEP_LARGE, 0.5, 1.0), 1.0);
    EXPECT_EQ(DecadeStepUp(eSTEP_LARGE, -1.0, 1.0), 1.0);
    EXPECT_EQ(DecadeStepDown(eSTEP_LARGE, 1.0, 1.0), 1.0);
    EXPECT_EQ(DecadeStepDown(eSTEP_LARGE, -1000.0, 1.0), 1000.0);
}

TEST(RealRules, HertzRoundingTruncatesNegatives) {
    EXPECT_EQ(RoundHertz(10.5), 11.0);
    EXPECT_EQ(RoundHertz(10.49), 10.0);
    EXPECT_EQ(RoundHertz(-10.5), -10.0);
    EXPECT_EQ(RoundHertz(-10.7), -10.0);
    EXPECT_EQ(RoundHertz(0.5), 1.0);
    EXPECT_EQ(RoundHertz(2e10 + 0.5), 2e10 + 1.0);
}

TEST(RealRules, StepRulesAwayFromTheClasses) {
    // Hertz above 100 Hz off the decade grid, and the decade rule's floor.
    EXPECT_EQ(HertzNext(1234.0, eSTEP_LARGE), 2000.0);
    EXPECT_EQ(HertzPrevious(1234.0, eSTEP_SMALL), 1230.0);
    EXPECT_EQ(HertzPrevious(1e9, eSTEP_LARGE), 9e8);
    EXPECT_EQ(DecadeNext(0.0, eSTEP_SMALL), 1e-9);
    EXPECT_EQ(DecadePrevious(1e-9, eSTEP_LARGE), 0.0);
    EXPECT_EQ(DeciBelPrevious(-3.5, eSTEP_LARGE), -10.0);
}

TEST(RealRules, RatioSequenceOneTwoFive) {
    EXPECT_EQ(RatioNext(1000.0, eSTEP_SMALL), 2000.0);
    EXPECT_EQ(RatioNext(2000.0, eSTEP_SMALL), 5000.0);
    EXPECT_EQ(RatioNext(5000.0, eSTEP_SMALL), 10000.0);
    EXPECT_EQ(RatioNext(3000.0, eSTEP_SMALL), 5000.0);
    EXPECT_EQ(RatioPrevious(1000.0, eSTEP_SMALL), 500.0);
    EXPECT_EQ(RatioPrevious(3000.0, eSTEP_SMALL), 2000.0);
    EXPECT_EQ(RatioPrevious(1.0, eSTEP_SMALL), 0.5);
    EXPECT_EQ(RatioNext(1000.0, eSTEP_LARGE), 10000.0);
    EXPECT_EQ(RatioPrevious(1000.0, eSTEP_LARGE), 100.0);
    // A hair below a sequence value counts as on it.
    EXPECT_EQ(RatioNext(1000.0 - 1e-10, eSTEP_SMALL), 2000.0);
    EXPECT_EQ(RatioNext(0.0, eSTEP_SMALL), 1.0);
    EXPECT_EQ(RatioPrevious(0.0, eSTEP_SMALL), 0.0);
}

}  // namespace
