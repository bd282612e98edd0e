// Defaults records: constexpr tables of records, and the exact-kind test
// through which a parameter reads its record.
#include <gtest/gtest.h>

#include "parameters/Defaults.h"

namespace {

using vorn::CDefaultsRef;

constexpr SDefaultsRealValueMinMax kRFAtten{.unit = eUNIT_DB, .value = 5.0, .minimum = 0.0, .maximum = 75.0};
constexpr SDefaultsRealValue kEvaluationLine2{.unit = eUNIT_HZ, .value = 1e6};
constexpr SDefaultsEnum kSavedConfig{.count = 17};
constexpr SDefaultsStringValue kSaveFileName{.value = u"dc_settings"};
constexpr SDefaultsBuffer kIData{.leading = {1, 4, 1}, .firstExtent = 0, .secondExtent = 0};
constexpr SDefaultsNone kNone{};

// Records live in static tables: one record may serve many parameters.
constexpr CDefaultsRef kTable[] = {&kRFAtten, &kEvaluationLine2, &kSavedConfig, &kSaveFileName, &kIData, &kNone};

TEST(Defaults, KindTestMatchesExactlyOneKind) {
    const CDefaultsRef rf = kTable[0];
    ASSERT_NE(rf.As<SDefaultsRealValueMinMax>(), nullptr);
    EXPECT_EQ(rf.As<SDefaultsRealValueMinMax>()->maximum, 75.0);
    EXPECT_EQ(rf.As<SDefaultsRealValueMinMax>()->unit, eUNIT_DB);
    // Kinds with a similar shape do not match each other.
    EXPECT_EQ(rf.As<SDefaultsRealValue>(), nullptr);
    EXPECT_EQ(rf.As<SDefaultsRealValueMinMaxNoReset>(), nullptr);
    EXPECT_EQ(kTable[1].As<SDefaultsRealValueMinMax>(), nullptr);
    EXPECT_EQ(kTable[1].As<SDefaultsRealValue>()->value, 1e6);
    EXPECT_EQ(kTable[2].As<SDefaultsEnumValue>(), nullptr);
    EXPECT_EQ(kTable[2].As<SDefaultsEnum>()->count, 17u);
    EXPECT_EQ(kTable[3].As<SDefaultsStringValue>()->value[0], u'd');
    EXPECT_EQ(kTable[4].As<SDefaultsBuffer>()->leading[1], 4u);
    EXPECT_NE(kTable[5].As<SDefaultsNone>(), nullptr);

    // No record at all matches nothing.
    const CDefaultsRef none;
    EXPECT_FALSE(none);
    EXPECT_EQ(none.As<SDefaultsNone>(), nullptr);
}

}  // namespace
