// System settings of the real tree: the handshake through the companion on
// assignment, the preset flag on reset and on loading, the instrument state
// kept by presets, and the analyzer's tuning values from the registry.
#include <gtest/gtest.h>

#include <tuple>

#include "schema/RuleTestSupport.h"
#include "stream/StreamBytes.h"
#include "support/ErrorInfo.h"
#include "support/ScopedRegistry.h"

using namespace vorn;
using namespace persist_test;

namespace {

constexpr char kExt[] = "InstrumentConfigInfo.ExtRefFrequency";  // real, 1 .. 20 MHz
constexpr char kPath[] = "InstrumentConfigInfo.InputPath";       // enumeration of 3
constexpr char kGpib[] = "InstrumentConfigInfo.GPIBAddress";
constexpr char kFlag[] = "InstrumentConfigInfo.EnterViaRecall";

class SystemSettingsTest : public vorn::test::RuleTest {
protected:
    void SetState(const std::string& setting, ULONG state) { ASSERT_EQ(Write(setting + "State", state), S_OK); }
    double State(const std::string& setting) { return Read(setting + "State"); }
    HRESULT LoadRecord(const std::string& setting, const CBytes& payload) {
        return Get<IDatabaseObject>(setting)->Load(
            NewStream(Stream(Record(setting.substr(setting.rfind('.') + 1), payload))).get());
    }
};

TEST_F(SystemSettingsTest, AssignmentAsksTheClientUnlessItHasTakenControl) {
    SetState(kExt, eSTATE_INC_LARGE);
    EXPECT_EQ(Write(kExt, 12e6), S_OK);
    EXPECT_EQ(State(kExt), ULONG(eSTATE_EDIT));
    SetState(kExt, eSTATE_INC_LARGE);
    EXPECT_EQ(Write(kExt, 30e6), E_INVALIDARG);  // refused: the companion stays
    EXPECT_EQ(State(kExt), ULONG(eSTATE_INC_LARGE));
    SetState(kExt, eSTATE_COMPLETE);
    EXPECT_EQ(Write(kExt, 13e6), S_OK);
    EXPECT_EQ(State(kExt), ULONG(eSTATE_COMPLETE));
    ASSERT_EQ(Invalidate(std::string(kExt) + "State"), S_OK);
    EXPECT_EQ(Write(kExt, 14e6), S_OK);  // an unreadable companion is left alone
    EXPECT_FALSE(Valid(std::string(kExt) + "State"));
}

TEST_F(SystemSettingsTest, APresetKeepsValidSettingsUnlessTheFlagIsSet) {
    const std::string noise = "InstrumentConfigInfo.NoiseSource";
    const std::string port = "UserSettings.DCSettings.PortSettings.TuningPort1.EnablePort";  // before its State
    ASSERT_EQ(Write(kExt, 12e6), S_OK);
    ASSERT_EQ(Write(kGpib, 7), S_OK);
    ASSERT_EQ(Write(port, true), S_OK);
    ASSERT_EQ(Invalidate(noise), S_OK);
    SetState(kGpib, eSTATE_COMPLETE);
    SetState(noise, eSTATE_INC_SMALL);

    ASSERT_EQ(db_->Reset(), S_OK);
    EXPECT_EQ(Read(kExt), 12e6);
    EXPECT_EQ(State(kExt), ULONG(eSTATE_DEFAULT));
    EXPECT_EQ(Read(port), 1);
    EXPECT_EQ(State(port), ULONG(eSTATE_DEFAULT));  // whichever of the pair comes first
    EXPECT_EQ(Read(kGpib), 7u);
    EXPECT_EQ(State(kGpib), ULONG(eSTATE_COMPLETE));
    EXPECT_EQ(Read(noise), 0);  // invalid: its default, whatever the flag
    EXPECT_EQ(State(noise), ULONG(eSTATE_EDIT));

    ASSERT_EQ(Write(kFlag, true), S_OK);
    ASSERT_EQ(db_->Reset(), S_OK);
    EXPECT_EQ(Read(kFlag), 1);  // the flag itself survives the preset
    EXPECT_EQ(Read(kExt), 10e6);
    EXPECT_EQ(State(kExt), ULONG(eSTATE_EDIT));
    EXPECT_EQ(Read(kGpib), 20u);
    EXPECT_EQ(State(kGpib), ULONG(eSTATE_COMPLETE));
}

TEST_F(SystemSettingsTest, ASupplyVoltageStaysBetweenItsLimits) {
    const std::string port = "UserSettings.DCSettings.PortSettings.DCPort1.SupplyVoltage";
    const std::string min = port + "Min", max = port + "Max", current = port + "Current";  // 4.75, 5.25, 5.0
    struct Case {
        std::string name;
        double value;
        HRESULT hr;
        double min, max, current;
        const char* reason;
    };
    const Case cases[] = {
        {current, 5.3, E_INVALIDARG, 4.75, 5.25, 5.0, "5.3 V is above the maximum supply voltage 5.25 V"},
        {current, 4.7, E_INVALIDARG, 4.75, 5.25, 5.0, "4.7 V is below the minimum supply voltage 4.75 V"},
        {max, 4.7, E_INVALIDARG, 4.75, 5.25, 5.0, "4.7 V is below the minimum supply voltage 4.75 V"},
        {min, 5.3, E_INVALIDARG, 4.75, 5.25, 5.0, "5.3 V is above the maximum supply voltage 5.25 V"},
        {max, 4.9, S_OK, 4.75, 4.9, 4.9, nullptr},  // the current voltage follows a limit
        {min, 4.9, S_OK, 4.9, 4.9, 4.9, nullptr},
        {max, 12, S_OK, 4.9, 12, 4.9, nullptr},
        {current, 12, S_OK, 4.9, 12, 12, nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name + " = " + std::to_string(c.value));
        EXPECT_EQ(Write(c.name, c.value), c.hr);
        if (c.reason) {
            EXPECT_NE(vorn::test::TakeError().description.find(c.reason), std::string::npos);
        }
        EXPECT_EQ(std::make_tuple(Read(min), Read(max), Read(current)), std::make_tuple(c.min, c.max, c.current));
    }
    EXPECT_EQ(State(current), ULONG(eSTATE_EDIT));
}

TEST_F(SystemSettingsTest, LoadingTakesTheCheckedPathOrTheQuietOne) {
    for (bool flag : {false, true}) {
        SCOPED_TRACE(flag);
        ASSERT_EQ(Write(kFlag, flag), S_OK);
        ASSERT_EQ(Write(kPath, 0), S_OK);
        SetState(kPath, eSTATE_INC_LARGE);
        SetState(kExt, eSTATE_INC_LARGE);
        ASSERT_EQ(LoadRecord(kPath, IntegerPayload(true, 2)), S_OK);
        EXPECT_EQ(Read(kPath), 2u);
        EXPECT_EQ(State(kPath), ULONG(flag ? eSTATE_INC_LARGE : eSTATE_EDIT));
        ASSERT_EQ(LoadRecord(kPath, IntegerPayload(true, 3)), S_OK);  // refused: kept, valid
        EXPECT_EQ(Read(kPath), 2u);
        // The loaded limits stand before the value is checked.
        ASSERT_EQ(LoadRecord(kExt, RealSettingPayload(true, eUNIT_HZ, 25e6, 1e6, 30e6)), S_OK);
        EXPECT_EQ(Read(kExt), 25e6);
        EXPECT_EQ(State(kExt), ULONG(flag ? eSTATE_INC_LARGE : eSTATE_EDIT));
        ASSERT_EQ(LoadRecord(kPath, IntegerPayload(false)), S_OK);
        EXPECT_FALSE(Valid(kPath));
    }
}

TEST_F(SystemSettingsTest, InstrumentStateSurvivesAPreset) {
    const std::string mixer = "InstrumentConfigInfo.ExtMixerState", changed = mixer + "Changed";
    ASSERT_EQ(Write(mixer, true), S_OK);
    EXPECT_EQ(Read(changed), 1);
    ASSERT_EQ(Write(changed, false), S_OK);
    ASSERT_EQ(Write(mixer, true), S_OK);  // no change
    EXPECT_EQ(Read(changed), 0);

    ASSERT_EQ(Write("OptionStateInfo.StartUp", true), S_OK);
    BSTR version = SysAllocStringLen(u"2.4.1", 5);
    ASSERT_EQ(Get<IParameterString>("OptionStateInfo.VersionID")->put_Value(version), S_OK);
    SysFreeString(version);
    ASSERT_EQ(db_->Reset(), S_OK);
    EXPECT_EQ(Read(mixer), 1);
    EXPECT_EQ(Read("OptionStateInfo.StartUp"), 1);
    EXPECT_TRUE(Valid("OptionStateInfo.VersionID"));
}

class AnalyzerTuning : public vorn::test::RuleTest {
protected:
    void SetUp() override {}  // the registry first: the test calls CreateTree
    ScopedRegistry registry_;
};

TEST_F(AnalyzerTuning, ValuesComeFromTheRegistryAndMalformedOnesAreReported) {
    registry_.Write(
        "Windows Registry Editor Version 5.00\r\n\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Zelmwerk\\VORN\\Analyzer]\r\n"
        "\"MaxRBW\"=\" 5e6 \"\r\n\"AttStepSize\"=dword:0000000a\r\n"
        "\"MaximumFrequency\"=dword:00000001\r\n\"MinRBW\"=\"1 kHz\"\r\n");
    ::testing::internal::CaptureStderr();
    CreateTree();
    const std::string diagnostics = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(Read("InstrumentConfigInfo.MaxRBW"), 5e6);
    EXPECT_EQ(Read("InstrumentConfigInfo.AttStepSize"), 10u);
    EXPECT_EQ(Read("InstrumentConfigInfo.MaximumFrequency"), 5e10);  // malformed: the default
    EXPECT_EQ(Read("InstrumentConfigInfo.MinRBW"), 1.0);
    EXPECT_NE(
        diagnostics.find("HKEY_LOCAL_MACHINE\\SOFTWARE\\Zelmwerk\\VORN\\Analyzer\\MaximumFrequency is a REG_DWORD "
                         "value, where a REG_SZ number is expected; InstrumentConfigInfo.MaximumFrequency "
                         "keeps its default\n"),
        std::string::npos)
        << diagnostics;
    EXPECT_NE(diagnostics.find("Analyzer\\MinRBW is \"1 kHz\", which is no finite number"), std::string::npos);
}

}  // namespace
