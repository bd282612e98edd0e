// The resource directory a module carries, the lookup of loaded modules shared
// by the loader (library.cpp) and the resource lookups (resource.cpp), which
// the registrar and the type-library loader use. Internal to the runtime.
//
// Layout. cmake/VornResources.cmake embeds each resource file with .incbin
// into the module's read-only data and lists them in an allocated ELF note,
// which the linker places in a PT_NOTE segment:
//
//   note header   namesz = 5, descsz, type = kResourceNoteType, name "VORN\0"
//                 padded to 4 bytes
//   descriptor    u32 version (= kResourceVersion), u32 count,
//                 count entries of { i32 type, i32 name, i32 data, u32 size }
//
// type, name and data are self-relative: the address of the field plus its
// value is the address of the target (a NUL-terminated type string, a
// NUL-terminated name string, the data). They are link-time constants, so the
// note needs no dynamic relocation and reads the same from memory and, through
// the PT_LOAD segments, from the file. Names and types are stored in upper
// case; a numeric identifier n is stored as "#n". A module may carry several
// such notes; they are searched in order.
#pragma once

#include <link.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "vorn/platform.h"

namespace vorn::rt {

inline constexpr std::uint32_t kResourceNoteType = 0x53455256;  // "VRES"
inline constexpr char kResourceNoteName[] = "VORN";
inline constexpr std::uint32_t kResourceVersion = 1;

struct ResourceEntry {
    std::int32_t type;
    std::int32_t name;
    std::int32_t data;
    std::uint32_t size;
};
static_assert(sizeof(ResourceEntry) == 16);

// The canonical form of a resource type or name argument: "#n" for
// MAKEINTRESOURCE(n) and for "#n" given as text (leading zeros dropped), the
// text in upper case otherwise. False for null or an empty string.
bool CanonicalResourceName(LPCSTR name, std::string* out);

// A loaded object as the dynamic loader lists it.
struct LoadedObject {
    HMODULE base = nullptr;  // where its first segment is mapped
    ElfW(Addr) bias = 0;     // dlpi_addr: add to a p_vaddr to get an address
    const ElfW(Phdr) * phdr = nullptr;
    ElfW(Half) phnum = 0;
    std::string path;  // empty for the executable
    bool mainProgram = false;
};

// Finds the loaded object whose base (or load bias) is `base`; null finds the
// executable. False when there is none.
bool FindLoadedObject(HMODULE base, LoadedObject* out);

// Finds the resource `name` of `type` (strings compared with ASCII letters
// folded, or MAKEINTRESOURCE numbers) in a loaded module (null: the
// executable) and sets *data to its bytes, which stay mapped as long as the
// module and are followed by a zero byte. ERROR_SUCCESS, or
// ERROR_RESOURCE_DATA_NOT_FOUND (the module has no resources),
// ERROR_RESOURCE_TYPE_NOT_FOUND, ERROR_RESOURCE_NAME_NOT_FOUND,
// ERROR_MOD_NOT_FOUND (not a loaded module), ERROR_INVALID_PARAMETER. Throws
// std::bad_alloc.
DWORD FindModuleResource(HMODULE module, LPCSTR name, LPCSTR type, std::string_view* data);

// Reads a resource from a module file without loading it (the
// LOAD_LIBRARY_AS_DATAFILE use of Windows). S_OK; the errors of
// FindModuleResource as HRESULTs; HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND) for
// a missing file; HRESULT_FROM_WIN32(ERROR_BAD_EXE_FORMAT) for a file that is
// not a 64-bit little-endian ELF object or whose directory points outside it
// (the failure text says which); E_INVALIDARG. Throws std::bad_alloc.
HRESULT ReadResourceFromFile(LPCSTR fileName, LPCSTR name, LPCSTR type, std::vector<BYTE>* data);

}  // namespace vorn::rt
