// System settings of the real tree: the handshake through the companion on
// assignment, the preset flag on reset and on loading, the instrument state
// kept by presets, and the analyzer's tuning values from the registry.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "files/TreeAccess.h"
#include "schema/Database.h"
#include "stream/StreamBytes.h"
#include "support/ScopedRegistry.h"

using namespace vorn;
using namespace tree_access;
using namespace persist_test;

namespace {

constexpr char kConfig[] = "InstrumentConfigInfo.";
constexpr char kFlag[] = "InstrumentConfigInfo.EnterViaRecall";
constexpr char kTuningPort[] = "UserSettings.DCSettings.PortSettings.TuningPort1.EnablePort";  // before its State

class SystemSettingsTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(CreateDatabase(IID_IDatabase, db_.put_void()), S_OK); }

    IDatabase* db() { return db_.get(); }
    static std::string Config(const char* name) { return std::string(kConfig) + name; }
    void SetState(const std::string& setting, ULONG state) {
        ASSERT_EQ(Param<IParameterInteger>(db(), setting + "State")->put_Value(state), S_OK) << setting;
    }
    ULONG State(const std::string& setting) { return Integer(db(), setting + "State"); }
    void SetFlag(bool on) { ASSERT_EQ(Param<IParameterBoolean>(db(), kFlag)->put_Value(on ? -1 : 0), S_OK); }
    HRESULT LoadRecord(const std::string& setting, const CBytes& payload) {
        ComPtr<IDatabaseObject> node;
        EXPECT_EQ(Param<IParameter>(db(), setting)->QueryInterface(IID_IDatabaseObject, node.put_void()), S_OK);
        const std::string name = setting.substr(setting.rfind('.') + 1);
        return node->Load(NewStream(Stream(Record(name, payload))).get());
    }

    ComPtr<IDatabase> db_;
};

TEST_F(SystemSettingsTest, AssignmentAsksTheClientUnlessItHasTakenControl) {
    // Per setting of each family: an accepted write and a refused one (none
    // for the families without a check).
    const struct {
        const char* name;
        std::function<HRESULT(IDatabase*, const std::string&, bool refused)> write;
    } settings[] = {
        {"RefSignalSrc", [](IDatabase* d, const std::string& n,
                            bool r) { return r ? E_INVALIDARG : Param<IParameterBoolean>(d, n)->put_Value(-1); }},
        {"GPIBAddress", [](IDatabase* d, const std::string& n,
                           bool r) { return r ? E_INVALIDARG : Param<IParameterInteger>(d, n)->put_Value(7); }},
        {"ExtRefFrequency", [](IDatabase* d, const std::string& n,
                               bool r) { return Param<IParameterReal>(d, n)->put_Value(r ? 1e9 : 12e6); }},
        {"InputPath", [](IDatabase* d, const std::string& n,
                         bool r) { return Param<IParameterInteger>(d, n)->put_Value(r ? 3 : 1); }},
        {"CalGenLevel", [](IDatabase* d, const std::string& n,
                           bool r) { return Param<IParameterInteger>(d, n)->put_Value(r ? 99 : 1); }},
    };
    for (const auto& s : settings) {
        const std::string name = Config(s.name);
        SCOPED_TRACE(name);
        SetState(name, eSTATE_INC_LARGE);
        EXPECT_EQ(s.write(db(), name, false), S_OK);
        EXPECT_EQ(State(name), static_cast<ULONG>(eSTATE_EDIT));
        SetState(name, eSTATE_COMPLETE);
        EXPECT_TRUE(SUCCEEDED(s.write(db(), name, false)));
        EXPECT_EQ(State(name), static_cast<ULONG>(eSTATE_COMPLETE));
        SetState(name, eSTATE_INC_LARGE);
        EXPECT_EQ(s.write(db(), name, true), E_INVALIDARG);
        EXPECT_EQ(State(name), static_cast<ULONG>(eSTATE_INC_LARGE));
        ASSERT_EQ(Param<IParameter>(db(), name + "State")->put_Status(eSTATUS_INVALID), S_OK);
        EXPECT_TRUE(SUCCEEDED(s.write(db(), name, false)));  // an unreadable companion is left alone
        EXPECT_FALSE(Valid(db(), name + "State"));
    }
}

TEST_F(SystemSettingsTest, APresetKeepsValidSettingsUnlessTheFlagIsSet) {
    const std::string ext = Config("ExtRefFrequency"), gpib = Config("GPIBAddress"), noise = Config("NoiseSource");
    ASSERT_EQ(Param<IParameterReal>(db(), ext)->put_Value(12e6), S_OK);
    ASSERT_EQ(Param<IParameterInteger>(db(), gpib)->put_Value(7), S_OK);
    ASSERT_EQ(Param<IParameterBoolean>(db(), kTuningPort)->put_Value(-1), S_OK);
    ASSERT_EQ(Param<IParameter>(db(), noise)->put_Status(eSTATUS_INVALID), S_OK);
    SetState(gpib, eSTATE_COMPLETE);
    SetState(noise, eSTATE_INC_SMALL);

    ASSERT_EQ(db()->Reset(), S_OK);
    EXPECT_EQ(Real(db(), ext), 12e6);
    EXPECT_EQ(State(ext), static_cast<ULONG>(eSTATE_DEFAULT));
    EXPECT_EQ(Boolean(db(), kTuningPort), 1);
    EXPECT_EQ(State(kTuningPort), static_cast<ULONG>(eSTATE_DEFAULT));  // whichever of the pair comes first
    EXPECT_EQ(Integer(db(), gpib), 7u);
    EXPECT_EQ(State(gpib), static_cast<ULONG>(eSTATE_COMPLETE));
    EXPECT_EQ(Boolean(db(), noise), 0);  // invalid: its default, whatever the flag
    EXPECT_EQ(State(noise), static_cast<ULONG>(eSTATE_EDIT));

    SetFlag(true);
    ASSERT_EQ(db()->Reset(), S_OK);
    EXPECT_EQ(Boolean(db(), kFlag), 1);  // the flag itself survives the preset
    EXPECT_EQ(Real(db(), ext), 10e6);
    EXPECT_EQ(State(ext), static_cast<ULONG>(eSTATE_EDIT));
    EXPECT_EQ(Integer(db(), gpib), 20u);
    EXPECT_EQ(State(gpib), static_cast<ULONG>(eSTATE_COMPLETE));
}

TEST_F(SystemSettingsTest, LoadingTakesTheCheckedPathOrTheQuietOne) {
    const std::string path = Config("InputPath"), ext = Config("ExtRefFrequency");
    for (bool flag : {false, true}) {
        SCOPED_TRACE(flag ? "flag set" : "flag clear");
        SetFlag(flag);
        ASSERT_EQ(Param<IParameterInteger>(db(), path)->put_Value(0), S_OK);
        SetState(path, eSTATE_INC_LARGE);
        ASSERT_EQ(LoadRecord(path, IntegerPayload(true, 2)), S_OK);
        EXPECT_EQ(Integer(db(), path), 2u);
        EXPECT_EQ(State(path), static_cast<ULONG>(flag ? eSTATE_INC_LARGE : eSTATE_EDIT));
        // A refused value keeps what the setting holds, valid.
        ASSERT_EQ(LoadRecord(path, IntegerPayload(true, 3)), S_OK);
        EXPECT_EQ(Integer(db(), path), 2u);
        // The loaded limits stand before the value is checked.
        SetState(ext, eSTATE_INC_LARGE);
        ASSERT_EQ(LoadRecord(ext, RealSettingPayload(true, eUNIT_HZ, 25e6, 1e6, 30e6)), S_OK);
        EXPECT_EQ(Real(db(), ext), 25e6);
        EXPECT_EQ(State(ext), static_cast<ULONG>(flag ? eSTATE_INC_LARGE : eSTATE_EDIT));
        ASSERT_EQ(LoadRecord(path, IntegerPayload(false)), S_OK);
        EXPECT_FALSE(Valid(db(), path));
    }
}

TEST_F(SystemSettingsTest, InstrumentStateSurvivesAPreset) {
    const std::string mixer = Config("ExtMixerState"), changed = Config("ExtMixerStateChanged");
    const auto put = [&](const std::string& name, bool on) {
        ASSERT_EQ(Param<IParameterBoolean>(db(), name)->put_Value(on ? -1 : 0), S_OK);
    };
    put(mixer, true);
    EXPECT_EQ(Boolean(db(), changed), 1);
    put(changed, false);
    put(mixer, true);  // no change
    EXPECT_EQ(Boolean(db(), changed), 0);

    put("OptionStateInfo.StartUp", true);
    put("OptionStateInfo.Measuring", true);
    BSTR version = SysAllocString(u"2.4.1");
    ASSERT_EQ(Param<IParameterString>(db(), "OptionStateInfo.VersionID")->put_Value(version), S_OK);
    SysFreeString(version);
    ASSERT_EQ(db()->Reset(), S_OK);
    EXPECT_EQ(Boolean(db(), mixer), 1);
    EXPECT_EQ(Boolean(db(), "OptionStateInfo.StartUp"), 1);
    EXPECT_EQ(Boolean(db(), "OptionStateInfo.Measuring"), 0);
    BSTR text = Read<BSTR, IParameterString>(db(), "OptionStateInfo.VersionID");
    EXPECT_EQ(std::u16string(text, SysStringLen(text)), u"2.4.1");
    SysFreeString(text);
}

TEST(AnalyzerTuning, ValuesComeFromTheRegistryAndMalformedOnesAreReported) {
    ScopedRegistry registry;
    registry.Write(
        "Windows Registry Editor Version 5.00\r\n\r\n"
        "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Zelmwerk\\VORN\\Analyzer]\r\n"
        "\"MaxRBW\"=\" 5e6 \"\r\n"
        "\"AttStepSize\"=dword:0000000a\r\n"
        "\"MaximumFrequency\"=dword:00000001\r\n"
        "\"MinRBW\"=\"1 kHz\"\r\n");
    ::testing::internal::CaptureStderr();
    ComPtr<IDatabase> db;
    ASSERT_EQ(CreateDatabase(IID_IDatabase, db.put_void()), S_OK);
    const std::string diagnostics = ::testing::internal::GetCapturedStderr();

    EXPECT_EQ(Real(db.get(), "InstrumentConfigInfo.MaxRBW"), 5e6);
    EXPECT_EQ(Integer(db.get(), "InstrumentConfigInfo.AttStepSize"), 10u);
    EXPECT_EQ(Real(db.get(), "InstrumentConfigInfo.MaximumFrequency"), 5e10);
    EXPECT_EQ(Real(db.get(), "InstrumentConfigInfo.MinRBW"), 1.0);
    EXPECT_NE(
        diagnostics.find("HKEY_LOCAL_MACHINE\\SOFTWARE\\Zelmwerk\\VORN\\Analyzer\\MaximumFrequency is a REG_DWORD "
                         "value, where a REG_SZ number is expected; InstrumentConfigInfo.MaximumFrequency "
                         "keeps its default\n"),
        std::string::npos)
        << diagnostics;
    EXPECT_NE(diagnostics.find("Analyzer\\MinRBW is \"1 kHz\", which is no finite number"), std::string::npos)
        << diagnostics;

    ASSERT_EQ(Param<IParameterReal>(db.get(), "InstrumentConfigInfo.MaxRBW")->put_Value(1), S_OK);
    ASSERT_EQ(db->Reset(), S_OK);
    EXPECT_EQ(Real(db.get(), "InstrumentConfigInfo.MaxRBW"), 5e6);
}

}  // namespace
