// typelibgen: writes the component's type library (the TYPELIB resource of
// libvorndb.so) from the schema metadata and the core interface headers.
//
//   typelibgen OUTPUT.tlb
//
// Contents, in this order (a type's index is its HREFTYPE):
//   - the core interfaces: IDatabaseObject, IGroup, IDatabase, IDBNotification,
//     IParameter and the value interfaces, with their IIDs and bases. Their
//     methods are declared in C++ headers only, so these entries carry no
//     members;
//   - every enumeration of the schema with its constants (member identifiers
//     0x40000000 + position, as MIDL numbers them);
//   - every group interface of the schema with one property getter per member:
//     dispatch identifier, name, "[in] unsigned long udwIndex" for indexed
//     children, and "[out, retval]" the member's interface; the documentation
//     string says what the member is (family, element count, enumeration);
//   - the class Database (CLSID_Database) with IDatabase as its default
//     interface.
// The output is rewritten only when its bytes change. Exit status 0 on
// success, 1 with a message on stderr otherwise.
#include <cstdio>
#include <exception>
#include <map>
#include <stdexcept>
#include <string>

#include "TypeLibWriter.h"
#include "schema/Metadata.h"
#include "vorn/database.h"
#include "vorn/parameter.h"

namespace {

using vorn::schema::Family;
using namespace vorn::typelib;

constexpr std::int32_t kFirstConstantId = 0x40000000;

struct CoreInterface {
    const char* name;
    const IID* iid;
    const char* base;
    const char* doc;
};

const CoreInterface kCoreInterfaces[] = {
    {"IDatabaseObject", &IID_IDatabaseObject, nullptr, "Every node of the database tree"},
    {"IGroup", &IID_IGroup, "IDatabaseObject", "Every group of the database tree"},
    {"IDatabase", &IID_IDatabase, nullptr, "The database object"},
    {"IDBNotification", &IID_IDBNotification, nullptr, "Notification sink implemented by clients"},
    {"IParameter", &IID_IParameter, "IDatabaseObject", "Common to every parameter value interface"},
    {"IParameterBoolean", &IID_IParameterBoolean, "IParameter", "Boolean parameter"},
    {"IParameterInteger", &IID_IParameterInteger, "IParameter", "Integer or enumeration parameter"},
    {"IParameterReal", &IID_IParameterReal, "IParameter", "Real parameter"},
    {"IParameterString", &IID_IParameterString, "IParameter", "String parameter"},
    {"IParameterIntegerArray", &IID_IParameterIntegerArray, "IParameter", "Integer array parameter"},
    {"IParameterRealArray", &IID_IParameterRealArray, "IParameter", "Real array parameter"},
    {"IParameterBuffer", &IID_IParameterBuffer, "IParameter", "Multi-dimensional float buffer parameter"},
};

const char* FamilyWord(Family family) {
    switch (family) {
        case Family::Group:
            return "group";
        case Family::Boolean:
            return "boolean parameter";
        case Family::Integer:
            return "integer parameter";
        case Family::Real:
            return "real parameter";
        case Family::String:
            return "string parameter";
        case Family::IntegerArray:
            return "integer array parameter";
        case Family::RealArray:
            return "real array parameter";
        case Family::Buffer:
            return "buffer parameter";
    }
    return "member";
}

Library Describe(const vorn::schema::SchemaMetadata& schema) {
    Library lib;
    lib.libid = schema.libid;
    lib.majorVersion = schema.majorVersion;
    lib.minorVersion = schema.minorVersion;
    lib.name = schema.libraryName;
    lib.doc = "VORN Database Component Type Library";

    std::map<std::string, std::uint32_t> index;  // type name -> index
    auto add = [&](Type type) {
        index[type.name] = static_cast<std::uint32_t>(lib.types.size());
        lib.types.push_back(std::move(type));
    };
    auto find = [&](const std::string& name) {
        auto it = index.find(name);
        if (it == index.end()) throw std::invalid_argument("no type named " + name);
        return it->second;
    };

    for (const CoreInterface& core : kCoreInterfaces) {
        Type type;
        type.guid = *core.iid;
        type.kind = TKIND_INTERFACE;
        type.name = core.name;
        type.doc = core.doc;
        if (core.base) type.base = find(core.base);
        add(std::move(type));
    }

    for (const vorn::schema::EnumerationInfo& e : schema.enumerations) {
        Type type;
        type.kind = TKIND_ENUM;
        type.name = e.name;
        for (std::uint32_t i = 0; i < e.memberCount; ++i) {
            const vorn::schema::EnumMemberInfo& m = schema.enumMembers[e.firstMember + i];
            Member constant;
            constant.memberId = kFirstConstantId + static_cast<std::int32_t>(i);
            constant.name = m.name;
            constant.value = m.value;
            constant.type.vt = VT_I4;
            type.members.push_back(std::move(constant));
        }
        add(std::move(type));
    }

    // Group interfaces refer to each other in any order: enter all names first.
    const std::uint32_t firstGroup = static_cast<std::uint32_t>(lib.types.size());
    for (std::size_t i = 0; i < schema.interfaces.size(); ++i)
        index[schema.interfaces[i].name] = firstGroup + static_cast<std::uint32_t>(i);
    for (const vorn::schema::InterfaceInfo& iface : schema.interfaces) {
        Type type;
        type.guid = iface.iid;
        type.kind = TKIND_INTERFACE;
        type.name = iface.name;
        type.base = find(iface.base);
        for (std::uint32_t i = 0; i < iface.memberCount; ++i) {
            const vorn::schema::MemberInfo& m = schema.members[iface.firstMember + i];
            Member getter;
            getter.memberId = static_cast<std::int32_t>(m.dispid);
            getter.name = m.name;
            getter.invokeKind = INVOKE_PROPERTYGET;
            getter.type.vt = VT_HRESULT;
            std::string doc = FamilyWord(m.family);
            if (m.count) {
                doc += ", " + std::to_string(m.count) + " elements";
                getter.params.push_back(Param{"udwIndex", PARAMFLAG_FIN, TypeRef{VT_UI4, 0, kNoType}});
            }
            if (m.enumeration != vorn::schema::kNone) {
                doc += "; values: ";
                doc += schema.enumerations[m.enumeration].name;
            }
            getter.doc = doc;
            const std::uint32_t target = m.family == Family::Group ? firstGroup + m.childInterface
                                                                   : find(vorn::schema::FamilyInterfaceName(m.family));
            getter.params.push_back(
                Param{"ppVal", PARAMFLAG_FOUT | PARAMFLAG_FRETVAL, TypeRef{VT_USERDEFINED, 2, target}});
            type.members.push_back(std::move(getter));
        }
        lib.types.push_back(std::move(type));
    }

    Type database;
    database.guid = CLSID_Database;
    database.kind = TKIND_COCLASS;
    database.name = "Database";
    database.doc = "VORN Database Component";
    database.base = find("IDatabase");
    add(std::move(database));
    return lib;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: typelibgen OUTPUT.tlb\n");
        return 1;
    }
    try {
        WriteFileIfChanged(argv[1], WriteTypeLib(Describe(vorn::schema::GetSchemaMetadata())));
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "typelibgen: %s\n", e.what());
        return 1;
    }
}
