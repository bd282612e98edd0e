// The generated metadata of the database tree: the tables' invariants,
// enumerations, and the lookups over the tables against the identifiers of
// the public header. (Facts the schema file states once are not repeated
// here; the live tree tests read a sample of them through the tree.)

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

#include "schema/Metadata.h"
#include "vorn/groups.h"

using namespace vorn::schema;

namespace {

const SchemaMetadata& Meta() { return GetSchemaMetadata(); }

const DefaultsInfo& DefaultsOf(const MemberInfo& member) { return Meta().defaults[member.defaults]; }

bool SameGuid(const GUID& a, const GUID& b) { return std::memcmp(&a, &b, sizeof(GUID)) == 0; }

}  // namespace

// The tables' invariants: each interface's members follow the previous
// interface's and have unique names and dispatch identifiers 1, 2, ...; only
// groups are indexed and have child interfaces; a parameter's class is of its
// family (and so is a class's base), and an enumerated parameter's record has
// as many values as its enumeration.
TEST(SchemaTree, TablesAreConsistent) {
    const SchemaMetadata& m = Meta();
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
                EXPECT_EQ(member.parameterClass, kNone);
                EXPECT_EQ(member.defaults, kNone);
                continue;
            }
            EXPECT_EQ(member.count, 0u) << "only groups are indexed";
            EXPECT_EQ(member.childInterface, kNone);
            ASSERT_LT(member.parameterClass, m.classes.size());
            ASSERT_LT(member.defaults, m.defaults.size());
            EXPECT_EQ(m.classes[member.parameterClass].family, member.family);
            if (member.enumeration != kNone) {
                EXPECT_EQ(member.family, Family::Integer);
                EXPECT_EQ(DefaultsOf(member).count, m.enumerations[member.enumeration].memberCount);
            }
        }
    }
    EXPECT_EQ(next, m.members.size());
    for (const ParameterClassInfo& c : m.classes) {
        if (c.base != kNone) {
            EXPECT_EQ(m.classes[c.base].family, c.family) << c.name;
        }
    }
}

TEST(SchemaEnumerations, EnumeratorsAreUniqueAndUnitsNumberedInOrder) {
    const SchemaMetadata& m = Meta();
    std::set<std::string> enumerators;
    for (std::uint32_t i = 0; i < m.enumerations.size(); ++i)
        for (const EnumMemberInfo& member : MembersOfEnumeration(i))
            EXPECT_TRUE(enumerators.insert(member.name).second) << member.name;

    // Streams store units by number.
    std::span<const EnumMemberInfo> units = MembersOfEnumeration(FindEnumeration("eUNIT"));
    for (std::size_t i = 0; i < units.size(); ++i) EXPECT_EQ(units[i].value, static_cast<std::int32_t>(i));
    EXPECT_STREQ(units[eUNIT_HZ].name, "eUNIT_HZ");
}

// The lookups over the tables, and the metadata's identifiers against those
// of the public header.
TEST(SchemaLookups, ByNameAndIid) {
    const SchemaMetadata& m = Meta();
    for (std::uint32_t i = 0; i < m.interfaces.size(); ++i) {
        EXPECT_EQ(FindInterface(m.interfaces[i].name), i);
        EXPECT_EQ(FindInterfaceByIid(m.interfaces[i].iid), i) << "IIDs are unique";
    }
    for (std::uint32_t i = 0; i < m.classes.size(); ++i) EXPECT_EQ(FindParameterClass(m.classes[i].name), i);
    for (std::uint32_t i = 0; i < m.defaults.size(); ++i) EXPECT_EQ(FindDefaults(m.defaults[i].name), i);
    for (std::uint32_t i = 0; i < m.enumerations.size(); ++i) EXPECT_EQ(FindEnumeration(m.enumerations[i].name), i);

    EXPECT_EQ(FindInterface("iroot"), kNone) << "case-sensitive";
    EXPECT_EQ(FindInterface(""), kNone);
    EXPECT_EQ(FindInterface("IZZZ"), kNone);
    EXPECT_EQ(FindEnumeration("eUNIT_HZ"), kNone);
    EXPECT_EQ(FindMember(m.root, "Marker"), kNone);
    EXPECT_EQ(FindMember(kNone, "Markers"), kNone);
    EXPECT_TRUE(MembersOf(static_cast<std::uint32_t>(m.interfaces.size())).empty());
    EXPECT_TRUE(MembersOfEnumeration(kNone).empty());
    GUID unknown = IID_IRoot;
    unknown.Data1 ^= 1;
    EXPECT_EQ(FindInterfaceByIid(unknown), kNone);

    EXPECT_EQ(m.root, FindInterface("IRoot"));
    EXPECT_TRUE(SameGuid(m.interfaces[m.root].iid, IID_IRoot));
    EXPECT_TRUE(SameGuid(VORN_UUIDOF(IPhaseNoiseSettings), m.interfaces[FindInterface("IPhaseNoiseSettings")].iid));
    EXPECT_TRUE(
        SameGuid(VORN_UUIDOF(ITransducerFactorsData), m.interfaces[FindInterface("ITransducerFactorsData")].iid));
    EXPECT_TRUE(SameGuid(m.libid, LIBID_VORNDBLib));
    EXPECT_STREQ(m.libraryName, "VORNDBLib");
}
