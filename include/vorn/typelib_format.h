// The binary type-library format of this platform ("VTLB"), shared by the
// reader in the runtime (src/platform/typelib.cpp) and the writer the build
// uses (tools/typelibgen). Not installed: clients read libraries through
// LoadTypeLib.
//
// All numbers are little-endian; every offset is a byte offset from the start
// of the file; a string is a byte offset into the string area of a
// NUL-terminated UTF-8 text, or kNoString. Types refer to each other by their
// index in the type table (kNoType for none).
//
//   FileHeader                  at offset 0
//   TypeRecord[typeCount]       at typesOffset
//   MemberRecord[...]           each type's members, at its membersOffset
//   ParamRecord[...]            each member's parameters, at its paramsOffset
//   string area                 stringsSize bytes at stringsOffset
//
// A type is an enumeration (TKIND_ENUM: its members are constants with
// `value`), an interface (TKIND_INTERFACE: its members are methods with
// `invokeKind` and parameters; `base` is the interface it derives from), or a
// class (TKIND_COCLASS: `base` is its default interface; no members). Member
// and parameter types are TypeDescriptors: a VARTYPE, a number of pointer
// levels around it, and for VT_USERDEFINED the index of the type meant.
//
// The reader checks every offset, count, index and string against the file
// before it uses any of them; a file that fails a check is refused as a whole.
#pragma once

#include <cstdint>

namespace vorn::typelib {

inline constexpr char kMagic[4] = {'V', 'T', 'L', 'B'};
inline constexpr std::uint16_t kFormatVersion = 1;
inline constexpr std::uint32_t kNoString = 0xFFFFFFFFu;
inline constexpr std::uint32_t kNoType = 0xFFFFFFFFu;

struct TypeDescriptor {
    std::uint16_t vt;        // VARTYPE of the innermost type
    std::uint16_t pointers;  // levels of VT_PTR around it
    std::uint32_t href;      // VT_USERDEFINED: index of the type; else kNoType
};

struct FileHeader {
    char magic[4];
    std::uint16_t version;
    std::uint16_t reserved;
    std::uint8_t libid[16];  // GUID in its in-memory (little-endian) layout
    std::uint16_t majorVersion;
    std::uint16_t minorVersion;
    std::uint32_t lcid;
    std::uint32_t syskind;
    std::uint32_t libFlags;
    std::uint32_t name;
    std::uint32_t doc;
    std::uint32_t typeCount;
    std::uint32_t typesOffset;
    std::uint32_t stringsOffset;
    std::uint32_t stringsSize;
    std::uint32_t fileSize;
    std::uint32_t reserved2;  // keeps the type table 8-byte aligned
};

struct TypeRecord {
    std::uint8_t guid[16];
    std::uint32_t kind;       // TYPEKIND
    std::uint32_t typeFlags;  // TYPEFLAG_*
    std::uint32_t name;
    std::uint32_t doc;
    std::uint32_t base;  // kNoType when none
    std::uint32_t memberCount;
    std::uint32_t membersOffset;
    std::uint32_t reserved;
};

struct MemberRecord {
    std::int32_t memberId;  // dispatch identifier; for constants their position
    std::uint32_t name;
    std::uint32_t doc;
    std::uint32_t invokeKind;  // INVOKE_*; 0 for a constant
    std::int64_t value;        // constants
    TypeDescriptor type;       // a method's result, a constant's type
    std::uint32_t paramCount;
    std::uint32_t paramsOffset;
};

struct ParamRecord {
    std::uint32_t name;
    std::uint32_t flags;  // PARAMFLAG_*
    TypeDescriptor type;
};

static_assert(sizeof(TypeDescriptor) == 8);
static_assert(sizeof(FileHeader) == 72);
static_assert(sizeof(TypeRecord) == 48);
static_assert(sizeof(MemberRecord) == 40);
static_assert(sizeof(ParamRecord) == 16);

}  // namespace vorn::typelib
