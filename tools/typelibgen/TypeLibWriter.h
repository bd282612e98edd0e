// Builds a type library in the runtime's binary format (src/platform/
// typelib_format.h) from a description held in memory.
//
// The build describes the component's library from the schema metadata
// (typelibgen.cpp) and the tests describe small libraries of their own; both
// hand the description to WriteTypeLib. Names and documentation are UTF-8.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vorn/platform.h"
#include "vorn/typelib_format.h"

namespace vorn::typelib {

struct TypeRef {
    VARTYPE vt = VT_EMPTY;
    std::uint16_t pointers = 0;
    std::uint32_t href = kNoType;  // VT_USERDEFINED: index into Library::types
};

struct Param {
    std::string name;
    std::uint32_t flags = PARAMFLAG_NONE;
    TypeRef type;
};

struct Member {
    std::int32_t memberId = 0;
    std::string name;
    std::string doc;
    std::uint32_t invokeKind = 0;  // INVOKE_*; 0 for an enumeration constant
    std::int64_t value = 0;
    TypeRef type;
    std::vector<Param> params;
};

struct Type {
    GUID guid = GUID_NULL;
    TYPEKIND kind = TKIND_INTERFACE;
    std::uint32_t typeFlags = 0;
    std::string name;
    std::string doc;
    std::uint32_t base = kNoType;  // index into Library::types
    std::vector<Member> members;
};

struct Library {
    GUID libid = GUID_NULL;
    std::uint16_t majorVersion = 1;
    std::uint16_t minorVersion = 0;
    std::uint32_t lcid = 0;
    SYSKIND syskind = SYS_WIN64;
    std::uint32_t libFlags = 0;
    std::string name;
    std::string doc;
    std::vector<Type> types;
};

// The file's bytes. Throws std::invalid_argument when a type index (base,
// href) is out of range, a name is empty, or a table outgrows the format's
// 32-bit offsets.
std::vector<std::uint8_t> WriteTypeLib(const Library& library);

// Writes `bytes` to `path` unless the file already holds exactly them (so
// that an unchanged library does not rebuild what embeds it). Throws
// std::runtime_error naming the path when it cannot be written.
void WriteFileIfChanged(const std::string& path, const std::vector<std::uint8_t>& bytes);

}  // namespace vorn::typelib
