// The database tree the generated code builds, right after the database
// object was created: the whole tree walked over the schema metadata (what
// it checks of every node: docs/schema.md, "Tests"), the root, and a sample
// of the defaults of PhaseNoiseSettings, one parameter per kind of default.
// The metadata's own invariants are checked by the generator's tests
// (tools/schemagen); here only what the tree and the header share with it.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <iterator>
#include <sstream>
#include <typeinfo>

#include "files/TreeLinks.h"
#include "parameters/Parameter.h"
#include "schema/GroupClasses.h"
#include "schema/Metadata.h"
#include "schema/RuleTestSupport.h"
#include "schema/TypedGetters.h"
#include "support/Text.h"

using namespace vorn;
using namespace vorn::schema;
using namespace vorn::test;

namespace {

bool SameGuid(const GUID& a, const GUID& b) { return std::memcmp(&a, &b, sizeof(GUID)) == 0; }

// Streams store units by number; the metadata's identifiers are the header's
// (those of the interfaces below the root are queried by the walk).
TEST(SchemaMetadata, UnitsAndIdentifiersAreTheHeaders) {
    const SchemaMetadata& m = GetSchemaMetadata();
    std::span<const EnumMemberInfo> units = MembersOfEnumeration(FindEnumeration("eUNIT"));
    for (std::size_t i = 0; i < units.size(); ++i) EXPECT_EQ(units[i].value, static_cast<std::int32_t>(i));
    EXPECT_STREQ(units[eUNIT_HZ].name, "eUNIT_HZ");
    EXPECT_TRUE(SameGuid(m.interfaces[m.root].iid, IID_IRoot));
    EXPECT_TRUE(SameGuid(m.libid, LIBID_VORNDBLib));
    EXPECT_STREQ(m.libraryName, "VORNDBLib");
}

// A value no getter writes: an out pointer preset to it shows whether a
// failing getter stored its null.
void* const kUntouched = reinterpret_cast<void*>(std::uintptr_t{1});

IUnknown* IdentityOf(IUnknown* object) {
    ComPtr<IUnknown> identity;
    if (FAILED(object->QueryInterface(IID_IUnknown, identity.put_void()))) return nullptr;
    return identity.get();  // the tree keeps it alive
}

// The interface a node of each family answers, in the order of Family (a
// group's is its own group interface, IGroup here).
const IID* const kFamilyInterfaces[] = {
    &IID_IGroup,           &IID_IParameterBoolean,      &IID_IParameterInteger,   &IID_IParameterReal,
    &IID_IParameterString, &IID_IParameterIntegerArray, &IID_IParameterRealArray, &IID_IParameterBuffer};
static_assert(std::size(kFamilyInterfaces) == static_cast<std::size_t>(Family::Buffer) + 1);

class TreeWalk {
public:
    explicit TreeWalk(IDatabase* db) : db_(db) {}

    // Walks the group `group` (of interface number `iface`, full name `path`)
    // and everything below it.
    void Group(IUnknown* group, std::uint32_t iface, const std::string& path) {
        ++groups;
        reached[iface] = true;
        std::vector<IUnknown*> handedOut;
        const InterfaceInfo& info = meta_.interfaces[iface];
        for (std::uint32_t number = 0; number < info.memberCount; ++number) {
            const MemberInfo& member = meta_.members[info.firstMember + number];
            for (ULONG i = 0; i < (member.count ? member.count : 1); ++i) {
                const std::string name = member.name + (member.count ? "[" + std::to_string(i) + "]" : "");
                const std::string full = path.empty() ? name : path + "." + name;
                void* out = kUntouched;
                if (TypedGetters()[iface](group, number, i, &out) != S_OK || !out || out == kUntouched) {
                    Fault(full, "the typed getter failed");
                    continue;
                }
                auto* node = static_cast<IUnknown*>(out);
                node->Release();  // the tree keeps it alive
                handedOut.push_back(IdentityOf(node));
                CheckNode(node, group, member, i, name, full);
                if (member.family == Family::Group)
                    Group(node, member.childInterface, full);
                else
                    ++parameters;
            }
            // An indexed child's getter at its count and at the largest index.
            for (ULONG index : {static_cast<ULONG>(member.count), ~ULONG{0}}) {
                void* out = kUntouched;
                if (member.count && (TypedGetters()[iface](group, number, index, &out) != E_INVALIDARG || out))
                    Fault(path + "." + member.name + "[" + std::to_string(index) + "]", "not refused");
            }
        }
        ComPtr<IGroup> typed;
        ComPtr<IEnumUnknown> children;
        if (FAILED(group->QueryInterface(IID_IGroup, typed.put_void())) || typed->EnumObjects(children.put()) != S_OK)
            return Fault(path, "no EnumObjects");
        std::vector<IUnknown*> listed;
        for (IUnknown* child = nullptr; children->Next(1, &child, nullptr) == S_OK; child->Release())
            listed.push_back(IdentityOf(child));
        if (listed != handedOut) Fault(path, "EnumObjects differs from the getters");
    }

    std::size_t groups = 0, parameters = 0;
    std::vector<bool> reached = std::vector<bool>(GetSchemaMetadata().interfaces.size());  // by interface number
    std::vector<std::string> faults;

private:
    void Fault(const std::string& where, const std::string& what) {
        if (faults.size() < 50) faults.push_back(where + ": " + what);
    }

    // What the node says of itself against what the metadata says of it.
    void CheckNode(IUnknown* node, IUnknown* group, const MemberInfo& member, ULONG index, const std::string& name,
                   const std::string& full) {
        const IID& iid = member.family == Family::Group ? meta_.interfaces[member.childInterface].iid
                                                        : *kFamilyInterfaces[static_cast<std::size_t>(member.family)];
        ComPtr<IUnknown> face;
        ComPtr<IDatabaseObject> object, parent;
        ComPtr<IUnknown> found;
        BSTR ownName = nullptr, ownFullName = nullptr;
        std::u16string wide(full.begin(), full.end());
        if (FAILED(node->QueryInterface(iid, face.put_void())) || face.get() != node ||
            FAILED(node->QueryInterface(IID_IDatabaseObject, object.put_void())))
            return Fault(full, "not the face of its interface");
        object->get_Name(&ownName);
        object->get_FullName(&ownFullName);
        const auto& impl = *static_cast<CDatabaseObjectImpl*>(object.get());
        std::ostringstream got, expected;
        got << TakeText(ownName) << " " << TakeText(ownFullName) << " "
            << (object->get_Parent(parent.put()) == S_OK && IdentityOf(parent.get()) == IdentityOf(group)) << " "
            << (db_->GetObject(wide.data(), found.put()) == S_OK && found.get() == IdentityOf(node)) << " "
            << impl.Index() << "/" << impl.Count();
        expected << name << " " << full << " 1 1 " << (member.count ? static_cast<LONG>(index) : -1) << "/"
                 << (member.count ? static_cast<LONG>(member.count) : -1);
        if (member.family != Family::Group) {
            const CDefaultsRef defaults = static_cast<const CParameter&>(impl).Defaults();
            const std::string cls = meta_.classes[member.parameterClass].name;  // vorn::cls, mangled
            got << " " << typeid(impl).name() << " " << static_cast<int>(defaults.Kind()) << " " << bool(defaults);
            expected << " N4vorn" << cls.size() << cls << "E " << static_cast<int>(meta_.defaults[member.defaults].kind)
                     << " 1";
        }
        if (got.str() != expected.str()) Fault(full, "\"" + got.str() + "\", not \"" + expected.str() + "\"");
    }

    IDatabase* db_;
    const SchemaMetadata& meta_ = GetSchemaMetadata();
};

TEST(SchemaWholeTree, EveryNodeReachableNamedAndResolvable) {
    ComPtr<IDatabase> db;
    ASSERT_EQ(CreateDatabase(IID_IDatabase, db.put_void()), S_OK);
    ComPtr<IRoot> root;
    ASSERT_EQ(db->get_Root(root.put()), S_OK);
    ASSERT_EQ(TypedGetters().size(), GetSchemaMetadata().interfaces.size());

    // Every getter adds the reference the walk releases: the database's
    // count is the same after the walk.
    db->AddRef();
    const ULONG referencesBefore = db->Release();
    TreeWalk walk(db.get());
    walk.Group(root.get(), GetSchemaMetadata().root, "");
    db->AddRef();
    EXPECT_EQ(db->Release(), referencesBefore);
    for (const std::string& fault : walk.faults) ADD_FAILURE() << fault;

    for (std::uint32_t i = 0; i < walk.reached.size(); ++i)
        EXPECT_TRUE(walk.reached[i]) << GetSchemaMetadata().interfaces[i].name << " is not in the tree";
    EXPECT_GE(walk.parameters, 10000u);
    RecordProperty("groups", static_cast<int>(walk.groups));
    RecordProperty("parameters", static_cast<int>(walk.parameters));
}

class SchemaTree : public RuleTest {
protected:
    // "value [minimum, maximum] unit steps small/large" of a Boolean, integer
    // or real parameter ("nan": no value; the limits, unit and steps where it
    // has them).
    std::string Describe(const std::string& name) {
        std::ostringstream out;
        out << Read(name);
        if (const auto [low, high] = Limits(name); !std::isnan(low)) out << " [" << low << ", " << high << "]";
        if (auto real = As<IParameterReal>(name)) {
            eUNIT unit = eUNIT_NONE;
            EXPECT_EQ(real->get_Units(&unit), S_OK);
            out << " " << MembersOfEnumeration(FindEnumeration("eUNIT"))[unit].name;
            if (auto* p = FindPath<CParameterRealSettingIncDec>(&TreeOf(db_.get()), name))
                out << " steps " << p->SmallStep() << "/" << p->LargeStep();
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
        {"SignalMultiplier", "1 [-1024, 1024] eUNIT_NONE steps 1/1"},
        {"VerifySignal", "1"},
        {"FreqTolerance", "1000 [1, 1e+06] eUNIT_HZ"},
        {"AFCMaxIterations", "10 [1, 99999]"},
        {"YAxisTop", "-60 [-200, 200] eUNIT_DBC_HZ steps 1/10"},
        {"YAxisRange", "100 [1, 400] eUNIT_DB steps 1/10"},
        {"PeakExcursion", "0 [-200, 200] eUNIT_DBC_HZ steps 1/10"},
        {"RbwToVbw", "2 [0, 2]"},            // an enumeration: its values
        {"TotalMeasTimeEx", "0 eUNIT_SEC"},  // no limits
    };
    for (const auto& row : sample) EXPECT_EQ(Describe(settings + row.name), row.expected) << row.name;
    // The selection list of the PLL type and the 30 MHz offset table.
    Run({IsText(settings + "XAxisStartStrings",
                "0.01 Hz:0.03 Hz:0.1 Hz:0.3 Hz:1 Hz:3 Hz:10 Hz:30 Hz:100 Hz:300 Hz:1 kHz:3 kHz:10 kHz:30 kHz:100 kHz:"
                "300 kHz:1 MHz:3 MHz:10 MHz:30 MHz:100 MHz:300 MHz:1 GHz:3 GHz:10 GHz"),
         IsText(settings + "TransducerFactorNames", "** None **")});
}

}  // namespace
