// System settings of the real tree: the handshake through the companion on
// assignment, the preset flag on reset and on loading, the instrument state
// kept by presets, and the analyzer's tuning values from the registry.

#include <tuple>

#include "schema/RuleTestSupport.h"
#include "support/ScopedRegistry.h"

using namespace vorn;
using namespace persist_test;
using namespace vorn::test;

namespace {

const std::string kExt = "InstrumentConfigInfo.ExtRefFrequency";  // real, 1 .. 20 MHz
const std::string kPath = "InstrumentConfigInfo.InputPath";       // enumeration of 3
const std::string kGpib = "InstrumentConfigInfo.GPIBAddress";
const std::string kFlag = "InstrumentConfigInfo.EnterViaRecall";

class SystemSettingsTest : public RuleTest {
protected:
    HRESULT LoadRecord(const std::string& setting, const CBytes& payload) {
        return Get<IDatabaseObject>(setting)->Load(
            NewStream(Stream(Record(setting.substr(setting.rfind('.') + 1), payload))).get());
    }
};

TEST_F(SystemSettingsTest, AssignmentAsksTheClientUnlessItHasTakenControl) {
    const std::string state = kExt + "State";
    Run({Set(state, eSTATE_INC_LARGE, S_OK), Set(kExt, 12e6, S_OK), Is(state, eSTATE_EDIT),
         Set(state, eSTATE_INC_LARGE, S_OK), Set(kExt, 30e6, E_INVALIDARG), Is(state, eSTATE_INC_LARGE),  // refused
         Set(state, eSTATE_COMPLETE, S_OK), Set(kExt, 13e6, S_OK), Is(state, eSTATE_COMPLETE)});
    ASSERT_EQ(Invalidate(state), S_OK);
    Run({Set(kExt, 14e6, S_OK), Is(state, NAN)});  // an unreadable companion is left alone
}

TEST_F(SystemSettingsTest, APresetKeepsValidSettingsUnlessTheFlagIsSet) {
    const std::string noise = "InstrumentConfigInfo.NoiseSource";
    const std::string port = "UserSettings.DCSettings.PortSettings.TuningPort1.EnablePort";  // before its State
    ASSERT_EQ(Invalidate(noise), S_OK);
    Run({Set(kExt, 12e6, S_OK), Set(kGpib, 7, S_OK), Set(port, true, S_OK), Set(kGpib + "State", eSTATE_COMPLETE),
         Set(noise + "State", eSTATE_INC_SMALL)});
    ASSERT_EQ(db_->Reset(), S_OK);
    Run({Is(kExt, 12e6), Is(kExt + "State", eSTATE_DEFAULT), Is(port, 1),
         Is(port + "State", eSTATE_DEFAULT),  // whichever of the pair comes first
         Is(kGpib, 7), Is(kGpib + "State", eSTATE_COMPLETE), Is(noise, 0),
         Is(noise + "State", eSTATE_EDIT),  // invalid: its default, whatever the flag
         Set(kFlag, true, S_OK)});
    ASSERT_EQ(db_->Reset(), S_OK);
    Run({Is(kFlag, 1),  // the flag itself survives the preset
         Is(kExt, 10e6), Is(kExt + "State", eSTATE_EDIT), Is(kGpib, 20), Is(kGpib + "State", eSTATE_COMPLETE)});
}

TEST_F(SystemSettingsTest, ASupplyVoltageStaysBetweenItsLimits) {
    const std::string port = "UserSettings.DCSettings.PortSettings.DCPort1.SupplyVoltage";
    const std::string min = port + "Min", max = port + "Max", current = port + "Current";  // 4.75, 5.25, 5.0
    const struct {
        std::string name;
        double value;
        HRESULT hr;
        double min, max, current;
        const char* reason;
    } cases[] = {
        {current, 5.3, E_INVALIDARG, 4.75, 5.25, 5.0, "5.3 V is above the maximum supply voltage 5.25 V"},
        {current, 4.7, E_INVALIDARG, 4.75, 5.25, 5.0, "4.7 V is below the minimum supply voltage 4.75 V"},
        {max, 4.7, E_INVALIDARG, 4.75, 5.25, 5.0, "4.7 V is below the minimum supply voltage 4.75 V"},
        {min, 5.3, E_INVALIDARG, 4.75, 5.25, 5.0, "5.3 V is above the maximum supply voltage 5.25 V"},
        {max, 4.9, S_OK, 4.75, 4.9, 4.9, nullptr},  // the current voltage follows a limit
        {min, 4.9, S_OK, 4.9, 4.9, 4.9, nullptr},
        {max, 12, S_OK, 4.9, 12, 4.9, nullptr},
        {current, 12, S_OK, 4.9, 12, 12, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name + " = " + std::to_string(c.value));
        Run({c.reason ? Refused(c.name, c.value, c.reason) : Set(c.name, c.value, c.hr)});
        EXPECT_EQ(std::make_tuple(Read(min), Read(max), Read(current)), std::make_tuple(c.min, c.max, c.current));
    }
    Run({Is(current + "State", eSTATE_EDIT)});
}

TEST_F(SystemSettingsTest, LoadingTakesTheCheckedPathOrTheQuietOne) {
    for (bool flag : {false, true}) {
        SCOPED_TRACE(flag);
        const double state = flag ? eSTATE_INC_LARGE : eSTATE_EDIT;
        Run({Set(kFlag, flag, S_OK), Set(kPath, 0, S_OK), Set(kPath + "State", eSTATE_INC_LARGE, S_OK),
             Set(kExt + "State", eSTATE_INC_LARGE, S_OK)});
        ASSERT_EQ(LoadRecord(kPath, IntegerPayload(true, 2)), S_OK);
        Run({Is(kPath, 2), Is(kPath + "State", state)});
        ASSERT_EQ(LoadRecord(kPath, IntegerPayload(true, 3)), S_OK);  // refused: kept, valid
        Run({Is(kPath, 2)});
        // The loaded limits stand before the value is checked.
        ASSERT_EQ(LoadRecord(kExt, RealSettingPayload(true, eUNIT_HZ, 25e6, 1e6, 30e6)), S_OK);
        Run({Is(kExt, 25e6), Is(kExt + "State", state)});
        ASSERT_EQ(LoadRecord(kPath, IntegerPayload(false)), S_OK);
        Run({Is(kPath, NAN)});
    }
}

TEST_F(SystemSettingsTest, InstrumentStateSurvivesAPreset) {
    const std::string mixer = "InstrumentConfigInfo.ExtMixerState", changed = mixer + "Changed";
    Run({Set(mixer, true, S_OK), Is(changed, 1), Set(changed, false, S_OK), Set(mixer, true, S_OK),
         Is(changed, 0),  // no change
         Set("OptionStateInfo.StartUp", true, S_OK), SetText("OptionStateInfo.VersionID", "2.4.1", S_OK)});
    ASSERT_EQ(db_->Reset(), S_OK);
    Run({Is(mixer, 1), Is("OptionStateInfo.StartUp", 1), IsText("OptionStateInfo.VersionID", "2.4.1")});
}

class AnalyzerTuning : public RuleTest {
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
    Run({Is("InstrumentConfigInfo.MaxRBW", 5e6), Is("InstrumentConfigInfo.AttStepSize", 10),
         Is("InstrumentConfigInfo.MaximumFrequency", 5e10),  // malformed: the default
         Is("InstrumentConfigInfo.MinRBW", 1.0)});
    EXPECT_NE(
        diagnostics.find("HKEY_LOCAL_MACHINE\\SOFTWARE\\Zelmwerk\\VORN\\Analyzer\\MaximumFrequency is a REG_DWORD "
                         "value, where a REG_SZ number is expected; InstrumentConfigInfo.MaximumFrequency "
                         "keeps its default\n"),
        std::string::npos)
        << diagnostics;
    EXPECT_NE(diagnostics.find("Analyzer\\MinRBW is \"1 kHz\", which is no finite number"), std::string::npos);
}

}  // namespace
