// The live tree the generated group classes build: the root, and the
// defaults of DCPort1, DCPort2 and MeasurementControl in full and of
// PhaseNoiseSettings in a sample, read through the value interfaces right
// after creation. test_whole_tree.cpp checks every node against the metadata
// (names, indexes and their bounds, child tables).

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "schema/Database.h"
#include "schema/GroupClasses.h"
#include "support/Text.h"
#include "vorn/vorndb.h"

using namespace vorn;

namespace {

using vorn::test::TakeText;

// Names of a group's children as EnumObjects lists them.
std::vector<std::string> ChildNames(IGroup* group) {
    std::vector<std::string> names;
    ComPtr<IEnumUnknown> children;
    EXPECT_EQ(group->EnumObjects(children.put()), S_OK);
    IUnknown* child = nullptr;
    while (children && children->Next(1, &child, nullptr) == S_OK) {
        ComPtr<IDatabaseObject> object;
        child->QueryInterface(IID_IDatabaseObject, object.put_void());
        child->Release();
        BSTR text = nullptr;
        object->get_Name(&text);
        names.push_back(TakeText(text));
    }
    return names;
}

class SchemaTree : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(CreateDatabase(IID_IDatabase, db_.put_void()), S_OK);
        ASSERT_EQ(db_->get_Root(root_.put()), S_OK);
    }

    template <class I>
    ComPtr<I> Get(const char* fullName) {
        std::u16string wide(fullName, fullName + std::char_traits<char>::length(fullName));
        ComPtr<I> object;
        EXPECT_EQ(db_->GetParameter(wide.data(), VORN_UUIDOF(I), object.put_void()), S_OK) << fullName;
        return object;
    }

    ComPtr<IDatabase> db_;
    ComPtr<IRoot> root_;
};

TEST_F(SchemaTree, TheRootHasNoNameAndNoParent) {
    BSTR text = nullptr;
    EXPECT_EQ(root_->get_FullName(&text), S_OK);
    EXPECT_EQ(TakeText(text), "");
    ComPtr<IDatabaseObject> parent;
    EXPECT_EQ(root_->get_Parent(parent.put()), S_FALSE);
    EXPECT_EQ(parent.get(), nullptr);
    EXPECT_EQ(root_->get_NoiseFreqTable(0, nullptr), E_POINTER);
    EXPECT_EQ(root_->get_Markers(nullptr), E_POINTER);
}

// What the defaults of one parameter give right after creation.
struct Expected {
    const char* name;         // below the group
    char family;              // 'b'oolean, 'i'nteger, 'r'eal, 's'tring
    double value = 0;         // boolean (0, 1), integer, real
    double minimum = NAN;     // checked when given
    double maximum = NAN;     // for an enumeration: the number of values - 1
    eUNIT unit = eUNIT_NONE;  // reals
    bool valid = true;        // false: the reset leaves no value
    const char16_t* text = nullptr;
};

class SchemaDefaults : public SchemaTree {
protected:
    // Checks each row's parameter, and that the group's members stand in
    // the rows' order (indexed children counted once).
    void ExpectGroup(const std::string& group, const std::vector<Expected>& rows) {
        std::vector<std::string> members;
        for (const std::string& child : ChildNames(Get<IGroup>(group.c_str()).get())) {
            std::string base = child.substr(0, child.find('['));
            if (members.empty() || members.back() != base) members.push_back(base);
        }
        std::vector<std::string> names;
        for (const Expected& row : rows) names.emplace_back(row.name);
        EXPECT_EQ(members, names) << group;
        for (const Expected& row : rows) Check(group + "." + row.name, row);
    }

    void Check(const std::string& name, const Expected& row) {
        SCOPED_TRACE(name);
        const char* full = name.c_str();
        switch (row.family) {
            case 'b': {
                VARIANT_BOOL value = 0;
                EXPECT_EQ(Get<IParameterBoolean>(full)->get_Value(&value), S_OK);
                EXPECT_EQ(value, row.value ? VARIANT_TRUE : VARIANT_FALSE);
                break;
            }
            case 'i': {
                ComPtr<IParameterInteger> p = Get<IParameterInteger>(full);
                ULONG value = 0, limit = 0;
                EXPECT_EQ(p->get_Value(&value), S_OK);
                EXPECT_EQ(value, static_cast<ULONG>(row.value));
                if (!std::isnan(row.minimum)) {
                    EXPECT_EQ(p->get_Minimum(&limit), S_OK);
                    EXPECT_EQ(limit, static_cast<ULONG>(row.minimum));
                }
                if (!std::isnan(row.maximum)) {
                    EXPECT_EQ(p->get_Maximum(&limit), S_OK);
                    EXPECT_EQ(limit, static_cast<ULONG>(row.maximum));
                }
                break;
            }
            case 'r': {
                ComPtr<IParameterReal> p = Get<IParameterReal>(full);
                double value = -1, limit = 0;
                eUNIT unit = eUNIT_NONE;
                EXPECT_EQ(p->get_Value(&value), row.valid ? S_OK : kInvalidData);
                if (row.valid) {
                    EXPECT_EQ(value, row.value);
                }
                EXPECT_EQ(p->get_Units(&unit), S_OK);
                EXPECT_EQ(unit, row.unit);
                if (!std::isnan(row.minimum)) {
                    EXPECT_EQ(p->get_Minimum(&limit), S_OK);
                    EXPECT_EQ(limit, row.minimum);
                    EXPECT_EQ(p->get_Maximum(&limit), S_OK);
                    EXPECT_EQ(limit, row.maximum);
                }
                break;
            }
            case 's': {
                BSTR text = nullptr;
                const HRESULT hr = Get<IParameterString>(full)->get_Value(&text);
                EXPECT_EQ(hr, row.text ? S_OK : kInvalidData);
                if (row.text) {
                    EXPECT_EQ(std::u16string(text, SysStringLen(text)), row.text);
                }
                SysFreeString(text);
                break;
            }
            default:
                break;
        }
    }
};

Expected State(const char* name) { return {name, 'i', 0, NAN, 8}; }  // eSTATE: nine values, the first

TEST_F(SchemaDefaults, GroupsGivenInFull) {
    std::vector<Expected> rows = {
        State("EnablePortState"),
        {"EnablePort", 'b', 0},
        State("SupplyVoltageMinState"),
        {"SupplyVoltageMin", 'r', 4.75, 0, 1000, eUNIT_VOLT},
        State("SupplyVoltageMaxState"),
        {"SupplyVoltageMax", 'r', 5.25, 0, 1000, eUNIT_VOLT},
        State("SupplyVoltageCurrentState"),
        {"SupplyVoltageCurrent", 'r', 5.0, 0, 1000, eUNIT_VOLT},
        State("SupplyVoltageMeasState"),
        State("SupplyCurrentMaxState"),
        {"SupplyCurrentMax", 'r', 0.05, 0, 1000, eUNIT_AMPS},
        {"PushingVoltage", 'r', 0.1, 0.001, 1000, eUNIT_VOLT},
    };
    ExpectGroup("UserSettings.DCSettings.PortSettings.DCPort1", rows);
    // DCPort2: the same members, without SupplyVoltageMeasState.
    std::erase_if(rows, [](const Expected& row) { return std::string(row.name) == "SupplyVoltageMeasState"; });
    ExpectGroup("UserSettings.DCSettings.PortSettings.DCPort2", rows);

    const auto& port = TreeOf(db_.get()).UserSettings.DCSettings.PortSettings.DCPort1;
    EXPECT_EQ(port.PushingVoltage.SmallStep(), 0.001);
    EXPECT_EQ(port.PushingVoltage.LargeStep(), 0.01);

    ExpectGroup("MeasurementControl", {
                                          {"PhaseNoiseSubSequence", 'i', 0, NAN, 2},
                                          {"InputStatus", 'i', 1, NAN, 1},
                                          {"OutputStatus", 'i', 0, NAN, 2},
                                          {"Sequence", 'i', 0, NAN, 29},
                                          {"DisplayActive", 'b', 0},
                                          {"GuiInitiated", 'b', 0},
                                      });

    // A sample of PhaseNoiseSettings, one row per kind of default; values
    // kept on reset: a fresh database holds none.
    const Expected sample[] = {
        {.name = "SignalFreq", .family = 'r', .minimum = 20, .maximum = 5e10, .unit = eUNIT_HZ, .valid = false},
        {"SignalMultiplier", 'r', 1, -1024, 1024},
        {"VerifySignal", 'b', 1},
        {"FreqTolerance", 'r', 1000, 1, 1e6, eUNIT_HZ},
        {"AFCMaxIterations", 'i', 10, 1, 99999},
        // The selection list of the PLL type and the 30 MHz offset table.
        {.name = "XAxisStartStrings",
         .family = 's',
         .text = u"0.01 Hz:0.03 Hz:0.1 Hz:0.3 Hz:1 Hz:3 Hz:10 Hz:30 Hz:100 Hz:300 Hz:1 kHz:3 kHz:10 kHz:30 kHz:100 kHz:"
                 u"300 kHz:1 MHz:3 MHz:10 MHz:30 MHz:100 MHz:300 MHz:1 GHz:3 GHz:10 GHz"},
        {"YAxisTop", 'r', -60, -200, 200, eUNIT_DBC_HZ},
        {"RbwToVbw", 'i', 2, 0, 2},
        {"TotalMeasTimeEx", 'r', 0, NAN, NAN, eUNIT_SEC},
        {.name = "TransducerFactorNames", .family = 's', .text = u"** None **"},
    };
    for (const Expected& row : sample) Check(std::string("UserSettings.PhaseNoiseSettings.") + row.name, row);
    const auto& settings = TreeOf(db_.get()).UserSettings.PhaseNoiseSettings;
    EXPECT_EQ(settings.SignalMultiplier.SmallStep(), 1.0);
    EXPECT_EQ(settings.SignalMultiplier.LargeStep(), 1.0);
    for (const CParameterRealSettingIncDec* p : {&settings.YAxisTop, &settings.YAxisRange, &settings.PeakExcursion}) {
        EXPECT_EQ(p->SmallStep(), 1.0) << p->Name();
        EXPECT_EQ(p->LargeStep(), 10.0) << p->Name();
    }
}

}  // namespace
