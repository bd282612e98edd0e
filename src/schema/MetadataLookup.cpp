// Lookups over the schema metadata tables (Metadata.h). The tables and the
// enumerations' sorted name index are generated; this file holds the searches.

#include <algorithm>

#include "schema/Metadata.h"

namespace vorn::schema {

std::uint32_t FindEnumeration(std::string_view name) noexcept {
    const SchemaMetadata& m = GetSchemaMetadata();
    auto it = std::lower_bound(
        m.enumerationsByName.begin(), m.enumerationsByName.end(), name,
        [&](std::uint16_t index, std::string_view key) { return std::string_view(m.enumerations[index].name) < key; });
    if (it == m.enumerationsByName.end() || std::string_view(m.enumerations[*it].name) != name) return kNone;
    return *it;
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
