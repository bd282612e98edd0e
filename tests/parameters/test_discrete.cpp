// Boolean, integer and enumeration parameters: the enumeration count from
// the record, unchanged writes on settings, integer-setting stepping at and
// near its limits (including the signed clamp against unsigned limits), the
// record kinds of Reset, and the value forms of the notification value.
#include <string>
#include <vector>

#include "ParameterTestTree.h"
#include "parameters/ParameterBoolean.h"
#include "parameters/ParameterInteger.h"

namespace vorn::test {
namespace {

constexpr SDefaultsEnumValue kRFInput{.count = 2, .value = 0};
constexpr SDefaultsEnumValue kActiveTrace{.count = 9, .value = 0};
constexpr SDefaultsEnum kSavedConfig{.count = 17};
constexpr SDefaultsNone kNone{};
constexpr SDefaultsIntegerValueMinMax kUseDCPort{.value = 1, .minimum = 1, .maximum = 2};
constexpr SDefaultsIntegerValueMinMax kSelectedFile{.value = 32760, .minimum = 0, .maximum = 32767};
constexpr SDefaultsIntegerValueMinMax kHuge{.value = 5, .minimum = 0, .maximum = 0xFFFFFFF0u};
constexpr SDefaultsIntegerValue kCount{.value = 7};
constexpr SDefaultsBooleanValue kHighByteOnly{.value = 0x100};

using Discrete = ParameterTest;

TEST_F(Discrete, EnumerationRangeComesFromTheRecord) {
    auto& rfInput = Make<CParameterEnum>("RFInput", &kRFInput);
    auto& rfInputSetting = Make<CParameterEnumSetting>("RFInputSetting", &kRFInput);
    auto& activeTrace = Make<CParameterEnum>("ActiveTrace", &kActiveTrace);
    auto& savedConfig = Make<CParameterEnum>("SavedConfig", &kSavedConfig);
    auto& uncounted = Make<CParameterStateEnum>("Uncounted", &kNone);

    EXPECT_EQ((Results{rfInput.put_Value(2), rfInput.put_Value(1), rfInput.put_Value(1), rfInputSetting.put_Value(1),
                       rfInputSetting.put_Value(1)}),
              (Results{E_INVALIDARG, S_OK, S_OK, S_OK, S_FALSE}));
    EXPECT_EQ(log_.Take(), (Events{"s:RFInput=1", "s:RFInput=1", "s:RFInputSetting=1"}));

    EXPECT_EQ(Read(activeTrace, &CParameterInteger::get_Minimum, ULONG{99}), std::pair(S_OK, ULONG{0}));
    EXPECT_EQ(Read(activeTrace, &CParameterInteger::get_Maximum, ULONG{99}), std::pair(S_OK, ULONG{8}));
    EXPECT_EQ(activeTrace.put_Maximum(20), E_NOTIMPL);
    // No clamping on enumerations.
    ULONG nearest = 0;
    EXPECT_EQ(activeTrace.GetNearestValue(50, &nearest), S_OK);
    EXPECT_EQ(nearest, 50u);

    // An unchanged value on a setting is not range-checked again.
    EXPECT_EQ(rfInputSetting.SetValueNoCallback(5), S_OK);
    EXPECT_EQ((Results{rfInputSetting.put_Value(5), rfInputSetting.put_Value(4)}), (Results{S_FALSE, E_INVALIDARG}));

    // Without an initial value, or without a count.
    EXPECT_EQ(savedConfig.Status(), eSTATUS_INVALID);
    EXPECT_EQ((Results{savedConfig.put_Value(17), savedConfig.put_Value(16)}), (Results{E_INVALIDARG, S_OK}));
    EXPECT_EQ(Read(uncounted, &CParameterInteger::get_Maximum), std::pair(S_OK, ULONG{0xFFFFFFFF}));
    EXPECT_EQ(uncounted.put_Value(0), E_INVALIDARG);
}

class CBigSteps : public CParameterIntegerSetting {
public:
    LONG LargeStep() override { return 100; }
};

// Includes the signed clamp: a maximum of 0xFFFFFFF0 compares as -16, so any
// step up clamps onto it, and stepping down from there (0xFFFFFFEF is
// -17 < 0) clamps to 0. Rule classes supply their own steps.
TEST_F(Discrete, IntegerSettingStepsToAndStopsAtItsLimits) {
    auto& useDCPort = Make<CParameterIntegerSetting>("UseDCPort", &kUseDCPort);
    auto& selectedFile = Make<CParameterIntegerSetting>("SelectedSavedFile", &kSelectedFile);
    auto& huge = Make<CParameterIntegerSetting>("Huge", &kHuge);
    auto& steps = Make<CBigSteps>("Steps", &kSelectedFile);
    const struct {
        CParameterIntegerSetting& parameter;
        ULONG start;
        HRESULT (CParameterInteger::*step)(eSTEP);
        eSTEP size;
        HRESULT hr;
        ULONG expected;
    } cases[] = {
        {useDCPort, 1, &CParameterInteger::Increment, eSTEP_LARGE, S_OK, 2},
        {useDCPort, 2, &CParameterInteger::Increment, eSTEP_SMALL, E_INVALIDARG, 2},
        {useDCPort, 2, &CParameterInteger::DecWithDepNoti, eSTEP_LARGE, S_OK, 1},
        {useDCPort, 1, &CParameterInteger::Decrement, eSTEP_SMALL, E_INVALIDARG, 1},
        {selectedFile, 32760, &CParameterInteger::IncWithDepNoti, eSTEP_LARGE, S_OK, 32767},
        {selectedFile, 5, &CParameterInteger::Decrement, eSTEP_LARGE, S_OK, 0},            // 5 - 10 clamps to 0
        {selectedFile, 5, &CParameterInteger::Decrement, static_cast<eSTEP>(9), S_OK, 4},  // small
        {huge, 5, &CParameterInteger::Increment, eSTEP_SMALL, S_OK, 0xFFFFFFF0u},
        {huge, 0xFFFFFFF0u, &CParameterInteger::Decrement, eSTEP_SMALL, S_OK, 0},
        {steps, 1000, &CParameterInteger::Increment, eSTEP_LARGE, S_OK, 1100},
        {steps, 1100, &CParameterInteger::Increment, eSTEP_SMALL, S_OK, 1101},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.parameter.Name() + " from " + std::to_string(c.start));
        ASSERT_TRUE(SUCCEEDED(c.parameter.put_Value(c.start)));
        EXPECT_EQ((c.parameter.*c.step)(c.size), c.hr);
        EXPECT_EQ(c.parameter.Value(), c.expected);
    }
    // An invalid setting reports the read error, unless it is on the limit.
    ASSERT_EQ(selectedFile.put_Status(eSTATUS_INVALID), S_OK);
    EXPECT_EQ(selectedFile.Increment(eSTEP_SMALL), kInvalid);

    ULONG low = 0, high = 0;
    EXPECT_EQ((Results{useDCPort.GetNearestValue(0, &low), useDCPort.GetNearestValue(7, &high)}),
              (Results{S_OK, S_OK}));
    EXPECT_EQ(std::pair(low, high), std::pair(ULONG{1}, ULONG{2}));
}

TEST_F(Discrete, IntegerRecordsAndPlainIntegers) {
    auto& fromPlainRecord = Make<CParameterIntegerSetting>("FromPlain", &kCount);
    auto& count = Make<CParameterInteger>("Count", &kCount);
    // Limits 0 and 0 reject the record's own value.
    EXPECT_EQ(fromPlainRecord.Status(), eSTATUS_INVALID);
    EXPECT_EQ((Results{fromPlainRecord.put_Value(0), fromPlainRecord.put_Value(1)}), (Results{S_OK, E_INVALIDARG}));

    EXPECT_EQ(count.Value(), 7u);
    ULONG unused = 0;
    EXPECT_EQ(
        (Results{count.get_Minimum(&unused), count.put_Maximum(1), count.get_ValueEx(&unused),
                 fromPlainRecord.put_ValueEx(1), count.Increment(eSTEP_SMALL), count.DecWithDepNoti(eSTEP_SMALL)}),
        Results(6, E_NOTIMPL));

    // Reported as VT_UI4, published as VT_I4 with the same bits.
    log_.Take();
    EXPECT_EQ(count.put_Value(0xFFFFFFFFu), S_OK);
    EXPECT_EQ(count.CallbackData().vt, VT_I4);
    EXPECT_EQ(log_.Take(), Events{"s:Count=-1"});
}

TEST_F(Discrete, BooleanStoresAnyNonZeroAsTrue) {
    auto& flag = Make<CParameterBoolean>("Flag", &kHighByteOnly);
    auto& noReset = Make<CParameterBooleanNoReset>("NoReset", &kNone);
    // Only the record's low byte is read.
    EXPECT_EQ(Read(flag, &CParameterBoolean::get_Value, VARIANT_BOOL{1}), std::pair(S_OK, VARIANT_FALSE));
    EXPECT_EQ(flag.put_Value(5), S_OK);
    EXPECT_EQ(Read(flag, &CParameterBoolean::get_Value), std::pair(S_OK, VARIANT_TRUE));
    EXPECT_EQ(State(flag), "true valid true");
    EXPECT_EQ(log_.Take(), Events{"s:Flag=true"});

    EXPECT_EQ(noReset.Status(), eSTATUS_INVALID);
    EXPECT_EQ(After(noReset.SetValueNoCallback(3), noReset), std::tuple(S_OK, "true invalid empty"));
    EXPECT_EQ(noReset.AssignValue(VARIANT_FALSE, 0), S_OK);
    EXPECT_EQ(Read(noReset, &CParameterBoolean::get_Value), std::pair(S_OK, VARIANT_FALSE));
    EXPECT_EQ(log_.Take(), Events{});
}

}  // namespace
}  // namespace vorn::test
