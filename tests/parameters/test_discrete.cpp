// Boolean, integer and enumeration parameters: the enumeration count from
// the record, unchanged writes on settings, integer-setting stepping at and
// near its limits (including the signed clamp against unsigned limits), the
// record kinds of Reset, and the value forms of the notification value.
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
    CParameterEnum rfInput;
    CParameterEnumSetting rfInputSetting;
    CParameterEnum activeTrace;
    Add(rfInput, "RFInput", &kRFInput);
    Add(rfInputSetting, "RFInputSetting", &kRFInput);
    Add(activeTrace, "ActiveTrace", &kActiveTrace);

    EXPECT_EQ(rfInput.put_Value(2), E_INVALIDARG);
    EXPECT_EQ(rfInput.put_Value(1), S_OK);
    EXPECT_EQ(rfInput.put_Value(1), S_OK);
    EXPECT_EQ(rfInputSetting.put_Value(1), S_OK);
    EXPECT_EQ(rfInputSetting.put_Value(1), S_FALSE);
    EXPECT_EQ(log_.Take(), (Events{"s:RFInput=1", "s:RFInput=1", "s:RFInputSetting=1"}));

    ULONG minimum = 99, maximum = 99;
    EXPECT_EQ(activeTrace.get_Minimum(&minimum), S_OK);
    EXPECT_EQ(activeTrace.get_Maximum(&maximum), S_OK);
    EXPECT_EQ(minimum, 0u);
    EXPECT_EQ(maximum, 8u);
    EXPECT_EQ(activeTrace.put_Maximum(20), E_NOTIMPL);
    // No clamping on enumerations.
    ULONG nearest = 0;
    EXPECT_EQ(activeTrace.GetNearestValue(50, &nearest), S_OK);
    EXPECT_EQ(nearest, 50u);

    // An unchanged value on a setting is not range-checked again.
    EXPECT_EQ(rfInputSetting.SetValueNoCallback(5), S_OK);
    EXPECT_EQ(rfInputSetting.put_Value(5), S_FALSE);
    EXPECT_EQ(rfInputSetting.put_Value(4), E_INVALIDARG);
}

TEST_F(Discrete, EnumerationWithoutInitialValueOrCount) {
    CParameterEnum savedConfig;
    CParameterStateEnum uncounted;
    Add(savedConfig, "SavedConfig", &kSavedConfig);
    Add(uncounted, "Uncounted", &kNone);
    EXPECT_EQ(savedConfig.Status(), eSTATUS_INVALID);
    EXPECT_EQ(savedConfig.put_Value(17), E_INVALIDARG);
    EXPECT_EQ(savedConfig.put_Value(16), S_OK);

    ULONG maximum = 0;
    EXPECT_EQ(uncounted.get_Maximum(&maximum), S_OK);
    EXPECT_EQ(maximum, 0xFFFFFFFFu);
    EXPECT_EQ(uncounted.put_Value(0), E_INVALIDARG);
}

TEST_F(Discrete, IntegerSettingStepsToAndStopsAtItsLimits) {
    CParameterIntegerSetting useDCPort, selectedFile;
    Add(useDCPort, "UseDCPort", &kUseDCPort);
    Add(selectedFile, "SelectedSavedFile", &kSelectedFile);
    ULONG value = 0;

    EXPECT_EQ(useDCPort.Increment(eSTEP_LARGE), S_OK);
    EXPECT_EQ(useDCPort.get_Value(&value), S_OK);
    EXPECT_EQ(value, 2u);
    EXPECT_EQ(useDCPort.Increment(eSTEP_SMALL), E_INVALIDARG);
    EXPECT_EQ(useDCPort.DecWithDepNoti(eSTEP_LARGE), S_OK);
    EXPECT_EQ(useDCPort.Value(), 1u);
    EXPECT_EQ(useDCPort.Decrement(eSTEP_SMALL), E_INVALIDARG);

    EXPECT_EQ(selectedFile.IncWithDepNoti(eSTEP_LARGE), S_OK);
    EXPECT_EQ(selectedFile.Value(), 32767u);
    ASSERT_EQ(selectedFile.put_Value(5), S_OK);
    EXPECT_EQ(selectedFile.Decrement(eSTEP_LARGE), S_OK);  // 5 - 10 clamps to 0
    EXPECT_EQ(selectedFile.Value(), 0u);
    ASSERT_EQ(selectedFile.put_Value(5), S_OK);
    EXPECT_EQ(selectedFile.Decrement(static_cast<eSTEP>(9)), S_OK);  // small
    EXPECT_EQ(selectedFile.Value(), 4u);

    // An invalid setting reports the read error, unless it is on the limit.
    ASSERT_EQ(selectedFile.put_Status(eSTATUS_INVALID), S_OK);
    EXPECT_EQ(selectedFile.Increment(eSTEP_SMALL), static_cast<HRESULT>(0x8007000D));

    ULONG nearest = 0;
    EXPECT_EQ(useDCPort.GetNearestValue(0, &nearest), S_OK);
    EXPECT_EQ(nearest, 1u);
    EXPECT_EQ(useDCPort.GetNearestValue(7, &nearest), S_OK);
    EXPECT_EQ(nearest, 2u);
}

TEST_F(Discrete, SignedStepClampAgainstUnsignedLimit) {
    CParameterIntegerSetting huge;
    Add(huge, "Huge", &kHuge);
    // The maximum 0xFFFFFFF0 compares as -16: any step up clamps onto it.
    EXPECT_EQ(huge.Increment(eSTEP_SMALL), S_OK);
    EXPECT_EQ(huge.Value(), 0xFFFFFFF0u);
    // Stepping down from there: 0xFFFFFFEF is -17 < 0, so it clamps to 0.
    EXPECT_EQ(huge.Decrement(eSTEP_SMALL), S_OK);
    EXPECT_EQ(huge.Value(), 0u);
}

class CBigSteps : public CParameterIntegerSetting {
public:
    LONG LargeStep() override { return 100; }
};

TEST_F(Discrete, RuleClassesSupplyTheirOwnSteps) {
    CBigSteps steps;
    Add(steps, "Steps", &kSelectedFile);
    ASSERT_EQ(steps.put_Value(1000), S_OK);
    EXPECT_EQ(steps.Increment(eSTEP_LARGE), S_OK);
    EXPECT_EQ(steps.Value(), 1100u);
    EXPECT_EQ(steps.Increment(eSTEP_SMALL), S_OK);
    EXPECT_EQ(steps.Value(), 1101u);
}

TEST_F(Discrete, IntegerRecordsAndPlainIntegers) {
    CParameterIntegerSetting fromPlainRecord;
    CParameterInteger count;
    Add(fromPlainRecord, "FromPlain", &kCount);
    Add(count, "Count", &kCount);
    // Limits 0 and 0 reject the record's own value.
    EXPECT_EQ(fromPlainRecord.Status(), eSTATUS_INVALID);
    EXPECT_EQ(fromPlainRecord.put_Value(0), S_OK);
    EXPECT_EQ(fromPlainRecord.put_Value(1), E_INVALIDARG);

    EXPECT_EQ(count.Value(), 7u);
    ULONG unused = 0;
    EXPECT_EQ(count.get_Minimum(&unused), E_NOTIMPL);
    EXPECT_EQ(count.put_Maximum(1), E_NOTIMPL);
    EXPECT_EQ(count.get_ValueEx(&unused), E_NOTIMPL);
    EXPECT_EQ(fromPlainRecord.put_ValueEx(1), E_NOTIMPL);
    EXPECT_EQ(count.Increment(eSTEP_SMALL), E_NOTIMPL);
    EXPECT_EQ(count.DecWithDepNoti(eSTEP_SMALL), E_NOTIMPL);

    // Reported as VT_UI4, published as VT_I4 with the same bits.
    log_.Take();
    EXPECT_EQ(count.put_Value(0xFFFFFFFFu), S_OK);
    EXPECT_EQ(count.CallbackData().vt, VT_I4);
    EXPECT_EQ(log_.Take(), Events{"s:Count=-1"});
}

TEST_F(Discrete, BooleanStoresAnyNonZeroAsTrue) {
    CParameterBoolean flag;
    CParameterBooleanNoReset noReset;
    Add(flag, "Flag", &kHighByteOnly);
    Add(noReset, "NoReset", &kNone);
    // Only the record's low byte is read.
    VARIANT_BOOL value = 1;
    EXPECT_EQ(flag.get_Value(&value), S_OK);
    EXPECT_EQ(value, VARIANT_FALSE);

    EXPECT_EQ(flag.put_Value(5), S_OK);
    EXPECT_EQ(flag.get_Value(&value), S_OK);
    EXPECT_EQ(value, VARIANT_TRUE);
    EXPECT_EQ(flag.CallbackData().boolVal, VARIANT_TRUE);
    EXPECT_EQ(log_.Take(), Events{"s:Flag=true"});

    EXPECT_EQ(noReset.Status(), eSTATUS_INVALID);
    EXPECT_EQ(noReset.SetValueNoCallback(3), S_OK);
    EXPECT_TRUE(noReset.GetValue());
    EXPECT_EQ(noReset.AssignValue(VARIANT_FALSE, 0), S_OK);
    EXPECT_EQ(noReset.get_Value(&value), S_OK);
    EXPECT_EQ(value, VARIANT_FALSE);
    EXPECT_EQ(log_.Take(), Events{});
}

}  // namespace
}  // namespace vorn::test
