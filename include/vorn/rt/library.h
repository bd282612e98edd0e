// Modules (shared objects): LoadLibraryA, FreeLibrary, GetProcAddress and
// GetModuleHandleExA.
//
// An HMODULE is the base address of the loaded object (where its first
// segment, the ELF header, is mapped), as on Windows; null in the functions
// that accept it means the executable. GetModuleFileNameA (vorn/rt/file.h)
// gives a module's path.
//
// Resources are data files embedded into a module at build time (the CMake
// function vorn_embed_resources) and listed in a resource directory that the
// module carries in an ELF note; see docs/platform.md. A resource has a type
// and a name, each a string (compared without regard to ASCII letter case) or
// a 16-bit number given with MAKEINTRESOURCE (or as the string "#<number>").
// Resource data stays mapped as long as the module is loaded and is followed
// by a zero byte that is not counted in its size.
//
// Failures set the last error; the loader also leaves its reason in the
// failure text (vorn/rt/diagnostic.h).
#pragma once

#include "vorn/rt/types.h"

// Windows declares INT_PTR (*)(); void (*)() is the type GCC lets code cast to
// any function type without a warning, which is what callers of
// GetProcAddress do.
using FARPROC = void (*)();

#define GET_MODULE_HANDLE_EX_FLAG_PIN 0x00000001u
#define GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT 0x00000002u
#define GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS 0x00000004u

#ifndef ERROR_BAD_EXE_FORMAT
#define ERROR_BAD_EXE_FORMAT 193L
#endif

// Loads a module (dlopen with RTLD_NOW | RTLD_LOCAL) or adds a reference to a
// loaded one. A name with a separator is a path (Windows forms are mapped as
// in vorn/rt/file.h); a bare name is searched the way the dynamic loader
// searches. Null with ERROR_MOD_NOT_FOUND (no such file),
// ERROR_BAD_EXE_FORMAT (not a loadable object, or its own dependencies fail),
// ERROR_INVALID_PARAMETER (null or empty name).
VORNAPI HMODULE WINAPI LoadLibraryA(LPCSTR lpLibFileName);
// Drops one reference taken by LoadLibraryA or GetModuleHandleExA; the module
// is unloaded with its last reference. FALSE with ERROR_MOD_NOT_FOUND for a
// handle that is not a loaded module. A module that was loaded with the
// program (not through LoadLibraryA) stays; the call succeeds.
VORNAPI BOOL WINAPI FreeLibrary(HMODULE hLibModule);
// The address of the function or variable the module itself exports under
// lpProcName (symbols the module only imports are not found, as on Windows).
// Null with ERROR_PROC_NOT_FOUND; ERROR_MOD_NOT_FOUND for a handle that is not
// a loaded module. There are no ordinals: a MAKEINTRESOURCE name fails with
// ERROR_PROC_NOT_FOUND.
VORNAPI FARPROC WINAPI GetProcAddress(HMODULE hModule, LPCSTR lpProcName);
// With GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, lpModuleName is an address
// inside the module; otherwise it is the module's path (with a "/") or file
// name (without), or null for the executable. Unless
// GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT is given, the module gets a
// reference that FreeLibrary drops; GET_MODULE_HANDLE_EX_FLAG_PIN keeps it
// loaded for good. FALSE with ERROR_MOD_NOT_FOUND, ERROR_INVALID_PARAMETER.
VORNAPI BOOL WINAPI GetModuleHandleExA(DWORD dwFlags, LPCSTR lpModuleName, HMODULE* phModule);
// As GetModuleHandleExA with GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT.
VORNAPI HMODULE WINAPI GetModuleHandleA(LPCSTR lpModuleName);

// Numeric resource names and types.
#define MAKEINTRESOURCEA(i) (reinterpret_cast<LPSTR>(static_cast<ULONG_PTR>(static_cast<WORD>(i))))
#define MAKEINTRESOURCE MAKEINTRESOURCEA
#define IS_INTRESOURCE(r) ((reinterpret_cast<ULONG_PTR>(r) >> 16) == 0)

// Finds a resource of the module (null: the executable). Null with
// ERROR_RESOURCE_DATA_NOT_FOUND (the module has no resources),
// ERROR_RESOURCE_TYPE_NOT_FOUND, ERROR_RESOURCE_NAME_NOT_FOUND,
// ERROR_MOD_NOT_FOUND (not a loaded module), ERROR_INVALID_PARAMETER.
VORNAPI HRSRC WINAPI FindResourceA(HMODULE hModule, LPCSTR lpName, LPCSTR lpType);
// The resource's data (there is nothing to load: it is mapped with the module).
// Null with ERROR_INVALID_HANDLE for a null hResInfo.
VORNAPI HGLOBAL WINAPI LoadResource(HMODULE hModule, HRSRC hResInfo);
// The data's address: hResData itself.
VORNAPI LPVOID WINAPI LockResource(HGLOBAL hResData);
// The data's size in bytes; 0 with ERROR_INVALID_HANDLE for a null hResInfo.
VORNAPI DWORD WINAPI SizeofResource(HMODULE hModule, HRSRC hResInfo);
