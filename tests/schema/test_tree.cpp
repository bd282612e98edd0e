// The live tree the generated group classes build: the root, and a sample of
// the defaults of PhaseNoiseSettings, one parameter per kind of default, read
// through the value interfaces right after creation. test_whole_tree.cpp
// checks every node against the metadata (names, indexes and their bounds,
// child tables).

#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "schema/Database.h"
#include "schema/GroupClasses.h"
#include "schema/RuleTestSupport.h"
#include "support/Text.h"
#include "vorn/vorndb.h"

using namespace vorn;

namespace {

using vorn::test::TakeText;

class SchemaTree : public vorn::test::RuleTest {
protected:
    void SetUp() override {
        RuleTest::SetUp();
        ASSERT_EQ(db_->get_Root(root_.put()), S_OK);
    }
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

// The defaults records are data of the schema file: one parameter per kind of
// default shows that the generated records reach the parameters; the group
// member lists are checked against the metadata by test_whole_tree.cpp.
TEST_F(SchemaDefaults, OneParameterOfEachKindOfDefault) {
    // Values kept on reset: a fresh database holds none.
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
