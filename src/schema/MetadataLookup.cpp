// Lookups over the schema metadata tables (Metadata.h). The tables and their
// sorted name indexes are generated; this file holds the searches only.

#include <algorithm>
#include <cstring>

#include "schema/Metadata.h"

namespace vorn::schema {
namespace {

// Binary search of `name` in `byName`, an index into `table` sorted by the
// names of its rows; returns the table index or kNone.
template <class Row>
std::uint32_t FindByName(std::span<const Row> table, std::span<const std::uint16_t> byName,
                         std::string_view name) noexcept {
    auto it = std::lower_bound(byName.begin(), byName.end(), name, [&](std::uint16_t index, std::string_view key) {
        return std::string_view(table[index].name) < key;
    });
    if (it == byName.end() || std::string_view(table[*it].name) != name) return kNone;
    return *it;
}

}  // namespace

std::uint32_t FindInterface(std::string_view name) noexcept {
    return FindByName(GetSchemaMetadata().interfaces, GetSchemaMetadata().interfacesByName, name);
}

std::uint32_t FindParameterClass(std::string_view name) noexcept {
    return FindByName(GetSchemaMetadata().classes, GetSchemaMetadata().classesByName, name);
}

std::uint32_t FindDefaults(std::string_view name) noexcept {
    return FindByName(GetSchemaMetadata().defaults, GetSchemaMetadata().defaultsByName, name);
}

std::uint32_t FindEnumeration(std::string_view name) noexcept {
    return FindByName(GetSchemaMetadata().enumerations, GetSchemaMetadata().enumerationsByName, name);
}

std::uint32_t FindInterfaceByIid(const GUID& iid) noexcept {
    const SchemaMetadata& m = GetSchemaMetadata();
    for (std::uint32_t i = 0; i < m.interfaces.size(); ++i) {
        if (std::memcmp(&m.interfaces[i].iid, &iid, sizeof(GUID)) == 0) return i;
    }
    return kNone;
}

std::span<const MemberInfo> MembersOf(std::uint32_t interfaceIndex) noexcept {
    const SchemaMetadata& m = GetSchemaMetadata();
    if (interfaceIndex >= m.interfaces.size()) return {};
    const InterfaceInfo& iface = m.interfaces[interfaceIndex];
    return m.members.subspan(iface.firstMember, iface.memberCount);
}

std::span<const EnumMemberInfo> MembersOfEnumeration(std::uint32_t enumerationIndex) noexcept {
    const SchemaMetadata& m = GetSchemaMetadata();
    if (enumerationIndex >= m.enumerations.size()) return {};
    const EnumerationInfo& e = m.enumerations[enumerationIndex];
    return m.enumMembers.subspan(e.firstMember, e.memberCount);
}

std::uint32_t FindMember(std::uint32_t interfaceIndex, std::string_view name) noexcept {
    std::span<const MemberInfo> members = MembersOf(interfaceIndex);
    for (const MemberInfo& member : members) {
        if (std::string_view(member.name) == name) {
            return static_cast<std::uint32_t>(&member - GetSchemaMetadata().members.data());
        }
    }
    return kNone;
}

const char* FamilyInterfaceName(Family family) noexcept {
    switch (family) {
        case Family::Group:
            return "IGroup";
        case Family::Boolean:
            return "IParameterBoolean";
        case Family::Integer:
            return "IParameterInteger";
        case Family::Real:
            return "IParameterReal";
        case Family::String:
            return "IParameterString";
        case Family::IntegerArray:
            return "IParameterIntegerArray";
        case Family::RealArray:
            return "IParameterRealArray";
        case Family::Buffer:
            return "IParameterBuffer";
    }
    return "";
}

}  // namespace vorn::schema
