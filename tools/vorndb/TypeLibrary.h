// What the component's type library says, read once into plain tables.
//
// The tool learns the tree's interfaces, their members (dispatch identifier,
// name, indexed or not, the interface a member's getter returns, its
// documentation string) and the enumerations with their values from the type
// library that IDatabase::GetTypeLib hands out, and from nothing else. The
// tables are filled in the constructor and never change afterwards, so any
// thread may read them (the watch sinks do, on the notification thread).
//
// A node's member is found by following its full name from IRoot: each
// component ("Bands[3]" is member "Bands") selects a getter whose returned
// interface is the next component's owner. A member's enumeration is the one
// its documentation string names after "values: ".
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Values.h"
#include "vorn/platform.h"

namespace vorndb {

struct TypeMember {
    std::string name;
    MEMBERID id = 0;  // dispatch identifier, or the constant's member identifier
    std::string doc;
    bool indexed = false;    // takes "[in] unsigned long udwIndex"
    std::string target;      // the interface the getter returns ("IParameterReal", "IBands")
    std::int32_t value = 0;  // enumeration constant
};

struct TypeDescription {
    std::string name;
    TYPEKIND kind = TKIND_INTERFACE;
    GUID guid{};
    std::string base;  // interface: its base; class: its default interface; else ""
    std::string doc;
    std::vector<TypeMember> members;
};

class TypeLibrary {
public:
    // Reads every type of `library`. Throws ToolError(kExitFailure) naming the
    // failing call when the library cannot be read.
    explicit TypeLibrary(ITypeLib* library);

    // The type of that exact name, or null.
    const TypeDescription* Find(const std::string& name) const;
    // Every type's name, in library order.
    const std::vector<std::string>& Names() const { return names_; }
    // The library's own name and documentation.
    const std::string& LibraryName() const { return libraryName_; }

    // The interface of the group with that full name ("" is the root, IRoot);
    // null when the path does not follow the library's interfaces.
    const TypeDescription* InterfaceOf(const std::string& fullName) const;
    // The member that declares the node with that full name and, in *owner,
    // the interface it belongs to; null for the root or a path the library
    // does not describe.
    const TypeMember* MemberOf(const std::string& fullName, const TypeDescription** owner = nullptr) const;

    // The enumeration a member's documentation names ("eMEASSTATE"), or "".
    static std::string EnumerationOf(const TypeMember& member);
    // The constants of an enumeration; empty when there is no such enumeration.
    std::vector<EnumMember> EnumMembers(const std::string& enumName) const;

private:
    std::vector<TypeDescription> types_;
    std::vector<std::string> names_;
    std::map<std::string, std::size_t> byName_;
    std::string libraryName_;
};

// "interface", "enum", "coclass", "record", ... for a TYPEKIND.
const char* TypeKindName(TYPEKIND kind);
// "{xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}".
std::string GuidText(const GUID& guid);

}  // namespace vorndb
