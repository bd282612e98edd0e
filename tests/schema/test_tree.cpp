// The generated metadata of the database tree (the tables' invariants and
// their identifiers against the public header) and the live tree the
// generated group classes build: the root, and a sample of the defaults of
// PhaseNoiseSettings, one parameter per kind of default, read through the
// value interfaces right after creation. test_whole_tree.cpp checks every
// node against the metadata (names, indexes and their bounds, classes,
// interfaces, child tables). Facts the schema file states once are not
// repeated here.

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <sstream>
#include <string>
#include <tuple>

#include "schema/GroupClasses.h"
#include "schema/Metadata.h"
#include "schema/RuleTestSupport.h"
#include "support/Text.h"

using namespace vorn;
using namespace vorn::schema;
using namespace vorn::test;

namespace {

bool SameGuid(const GUID& a, const GUID& b) { return std::memcmp(&a, &b, sizeof(GUID)) == 0; }

// The tables' invariants: each interface's members follow the previous
// interface's and have unique names and dispatch identifiers 1, 2, ...; only
// groups are indexed and have child interfaces; a parameter's class is of its
// family (and so is a class's base), and an enumerated parameter's record has
// as many values as its enumeration.
TEST(SchemaMetadata, TablesAreConsistent) {
    const SchemaMetadata& m = GetSchemaMetadata();
    std::uint32_t next = 0;
    for (std::uint32_t i = 0; i < m.interfaces.size(); ++i) {
        const InterfaceInfo& iface = m.interfaces[i];
        EXPECT_EQ(iface.firstMember, next) << iface.name;
        EXPECT_STREQ(iface.base, "IGroup");
        next += iface.memberCount;
        std::set<std::string> names;
        std::uint32_t dispid = 1;
        for (const MemberInfo& member : MembersOf(i)) {
            SCOPED_TRACE(std::string(iface.name) + "." + member.name);
            EXPECT_TRUE(names.insert(member.name).second) << "twice";
            EXPECT_EQ(member.dispid, dispid++);
            if (member.family == Family::Group) {
                EXPECT_EQ(std::tie(member.parameterClass, member.defaults), std::tie(kNone, kNone));
                continue;
            }
            EXPECT_EQ(std::tie(member.count, member.childInterface), std::tuple(0u, kNone))
                << "only groups are indexed";
            ASSERT_LT(member.parameterClass, m.classes.size());
            ASSERT_LT(member.defaults, m.defaults.size());
            EXPECT_EQ(m.classes[member.parameterClass].family, member.family);
            if (member.enumeration != kNone) {
                EXPECT_EQ(member.family, Family::Integer);
                EXPECT_EQ(m.defaults[member.defaults].count, m.enumerations[member.enumeration].memberCount);
            }
        }
    }
    EXPECT_EQ(next, m.members.size());
    for (const ParameterClassInfo& c : m.classes) {
        EXPECT_TRUE(c.base == kNone || m.classes[c.base].family == c.family) << c.name;
    }

    // Streams store units by number; the metadata's identifiers are the
    // header's (the interfaces below the root are checked by the tree walk).
    std::span<const EnumMemberInfo> units = MembersOfEnumeration(FindEnumeration("eUNIT"));
    for (std::size_t i = 0; i < units.size(); ++i) EXPECT_EQ(units[i].value, static_cast<std::int32_t>(i));
    EXPECT_STREQ(units[eUNIT_HZ].name, "eUNIT_HZ");
    EXPECT_TRUE(SameGuid(m.interfaces[m.root].iid, IID_IRoot));
    EXPECT_TRUE(SameGuid(m.libid, LIBID_VORNDBLib));
    EXPECT_STREQ(m.libraryName, "VORNDBLib");
}

class SchemaTree : public RuleTest {
protected:
    // "value [minimum, maximum] unit" of a Boolean, integer or real parameter
    // ("nan": no value; the limits and unit where it has them).
    std::string Describe(const std::string& name) {
        std::ostringstream out;
        out << Read(name);
        if (auto integer = As<IParameterInteger>(name)) {
            ULONG low = 0, high = 0;
            EXPECT_EQ(integer->get_Minimum(&low) | integer->get_Maximum(&high), S_OK);
            out << " [" << low << ", " << high << "]";
        } else if (auto real = As<IParameterReal>(name)) {
            double low = 0, high = 0;
            eUNIT unit = eUNIT_NONE;
            EXPECT_EQ(real->get_Units(&unit), S_OK);
            if (real->get_Minimum(&low) == S_OK && real->get_Maximum(&high) == S_OK)
                out << " [" << low << ", " << high << "]";
            out << " " << MembersOfEnumeration(FindEnumeration("eUNIT"))[unit].name;
        }
        return out.str();
    }
};

TEST_F(SchemaTree, TheRootHasNoNameAndNoParent) {
    ComPtr<IRoot> root;
    ASSERT_EQ(db_->get_Root(root.put()), S_OK);
    BSTR text = nullptr;
    EXPECT_EQ(root->get_FullName(&text), S_OK);
    EXPECT_EQ(TakeText(text), "");
    ComPtr<IDatabaseObject> parent;
    EXPECT_EQ(root->get_Parent(parent.put()), S_FALSE);
    EXPECT_EQ(parent.get(), nullptr);
    EXPECT_EQ(root->get_NoiseFreqTable(0, nullptr), E_POINTER);
    EXPECT_EQ(root->get_Markers(nullptr), E_POINTER);
}

// The defaults records are data of the schema file: one parameter per kind of
// default shows that the generated records reach the parameters.
TEST_F(SchemaTree, OneParameterOfEachKindOfDefault) {
    const std::string settings = "UserSettings.PhaseNoiseSettings.";
    const struct {
        const char* name;
        const char* expected;
    } sample[] = {
        {"SignalFreq", "nan [20, 5e+10] eUNIT_HZ"},  // kept on reset: a fresh database holds none
        {"SignalMultiplier", "1 [-1024, 1024] eUNIT_NONE"},
        {"VerifySignal", "1"},
        {"FreqTolerance", "1000 [1, 1e+06] eUNIT_HZ"},
        {"AFCMaxIterations", "10 [1, 99999]"},
        {"YAxisTop", "-60 [-200, 200] eUNIT_DBC_HZ"},
        {"RbwToVbw", "2 [0, 2]"},           // an enumeration: its values
        {"TotalMeasTimeEx", "0 eUNIT_SEC"}  // no limits,
    };
    for (const auto& row : sample) EXPECT_EQ(Describe(settings + row.name), row.expected) << row.name;
    // The selection list of the PLL type and the 30 MHz offset table.
    Run({IsText(settings + "XAxisStartStrings",
                "0.01 Hz:0.03 Hz:0.1 Hz:0.3 Hz:1 Hz:3 Hz:10 Hz:30 Hz:100 Hz:300 Hz:1 kHz:3 kHz:10 kHz:30 kHz:100 kHz:"
                "300 kHz:1 MHz:3 MHz:10 MHz:30 MHz:100 MHz:300 MHz:1 GHz:3 GHz:10 GHz"),
         IsText(settings + "TransducerFactorNames", "** None **")});
    const auto& tree = TreeOf(db_.get()).UserSettings.PhaseNoiseSettings;
    for (const auto& [p, small, large] :
         {std::tuple<const CParameterRealSettingIncDec*, double, double>{&tree.SignalMultiplier, 1.0, 1.0},
          {&tree.YAxisTop, 1.0, 10.0},
          {&tree.YAxisRange, 1.0, 10.0},
          {&tree.PeakExcursion, 1.0, 10.0}})
        EXPECT_EQ(std::pair(p->SmallStep(), p->LargeStep()), std::pair(small, large)) << p->Name();
}

}  // namespace
