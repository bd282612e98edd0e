// Metadata of the database tree: every group interface with its members and
// dispatch identifiers, the parameter classes, the defaults records and the
// enumerations, as the schema (resources/schema/vorndb.schema) describes them.
//
// The tables are constant arrays filled by the generated Metadata.cpp; one
// table refers to another by position (an index), kNone standing for "none".
// The tree is described once per interface: an indexed child is one member
// with its element count, not one entry per element. Members of an interface
// are contiguous and in declaration order, so member i of an interface has
// dispatch identifier i + 1. Users: the type library, the command-line tool
// and the cross-process layer.
//
// Lookups by name are exact and case-sensitive, by binary search over the
// name indexes; all functions here are thread-safe (the tables are constant).
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "parameters/Defaults.h"
#include "vorn/platform.h"

namespace vorn::schema {

inline constexpr std::uint32_t kNone = 0xFFFFFFFFu;

// What a member is: a child group or a parameter of one value family.
enum class Family : std::uint8_t { Group, Boolean, Integer, Real, String, IntegerArray, RealArray, Buffer };

// The SDefaults* record kinds, as the parameter model tags its records.
using DefaultsKind = ::vorn::EDefaultsKind;

struct InterfaceInfo {
    const char* name;           // "IPhaseNoiseSettings"
    GUID iid;                   // IID_<name> of vorn/groups.h
    const char* base;           // the interface it derives from: "IGroup"
    std::uint32_t firstMember;  // index of its first member in SchemaMetadata::members
    std::uint32_t memberCount;
};

struct MemberInfo {
    const char* name;      // property name and name of the node in the tree
    std::uint32_t dispid;  // 1, 2, ... in declaration order
    Family family;
    std::uint32_t count;           // element count of an indexed child group; 0 when not indexed
    std::uint32_t childInterface;  // Group: index into interfaces; else kNone
    std::uint32_t enumeration;     // an integer listed by an enumeration: index into enumerations; else kNone
    std::uint32_t parameterClass;  // parameter: index into classes; group: kNone
    std::uint32_t defaults;        // parameter: index into defaults; group: kNone
};

struct ParameterClassInfo {
    const char* name;     // "CParameterHertz"
    Family family;        // the value family of the parameters of this class
    std::uint32_t base;   // index of the base class; kNone for a value class of its own
    const char* pending;  // area of the later work that gives the class its rule; nullptr when done
};

struct EnumerationInfo {
    const char* name;           // "eUNIT"
    std::uint32_t firstMember;  // index of its first member in SchemaMetadata::enumMembers
    std::uint32_t memberCount;
    bool outline;  // member names are this component's own, not published ones
};

struct EnumMemberInfo {
    const char* name;  // "eUNIT_HZ"
    std::int32_t value;
};

// One defaults record; the fields its kind does not have are zero (nullptr,
// kNone for the enumeration).
struct DefaultsInfo {
    const char* name;
    DefaultsKind kind;
    std::uint32_t enumeration;  // Enum, EnumValue naming their enumeration: its index; else kNone
    std::uint32_t unit;         // eUNIT value of Real* and array kinds
    std::uint32_t count;        // Enum, EnumValue: number of values; arrays: element capacity
    std::uint32_t value;        // BooleanValue (0, 1), IntegerValue*, EnumValue (index)
    std::uint32_t minimum;      // IntegerValueMinMax
    std::uint32_t maximum;
    double realValue;    // RealValue, RealValueMinMax, RealSettingIncDec
    double realMinimum;  // Real*MinMax*, RealSettingIncDec*
    double realMaximum;
    double smallStep;  // RealSettingIncDec*
    double largeStep;
    const char16_t* text;    // StringValue; nullptr otherwise
    std::uint32_t shape[5];  // Buffer
};

struct SchemaMetadata {
    const char* libraryName;
    GUID libid;
    std::uint16_t majorVersion;
    std::uint16_t minorVersion;
    std::uint32_t root;  // index of IRoot in interfaces
    std::span<const InterfaceInfo> interfaces;
    std::span<const MemberInfo> members;
    std::span<const ParameterClassInfo> classes;
    std::span<const DefaultsInfo> defaults;
    std::span<const EnumerationInfo> enumerations;
    std::span<const EnumMemberInfo> enumMembers;
    // Indexes into enumerations in ascending byte order of their names.
    std::span<const std::uint16_t> enumerationsByName;
};

// The tables of the schema the component was built from.
const SchemaMetadata& GetSchemaMetadata() noexcept;

// Index of the enumeration of that name; kNone when there is none.
std::uint32_t FindEnumeration(std::string_view name) noexcept;

// The members of an interface, or of an enumeration, in declaration order;
// empty for an index out of range.
std::span<const MemberInfo> MembersOf(std::uint32_t interfaceIndex) noexcept;
std::span<const EnumMemberInfo> MembersOfEnumeration(std::uint32_t enumerationIndex) noexcept;

// Name of the value interface of a family ("IParameterReal"); the base group
// interface "IGroup" for Family::Group.
const char* FamilyInterfaceName(Family family) noexcept;

}  // namespace vorn::schema
