// The registry: values under HKEY_CLASSES_ROOT, HKEY_LOCAL_MACHINE and
// HKEY_CURRENT_USER read with RegGetValueA, with the Win32 result codes and
// value types. Registration writes it (vorn/rt/registrar.h,
// RegisterTypeLib).
//
// Storage: one text file in the registry-export format ("Windows Registry
// Editor Version 5.00", [KEY] sections, "name"="value", @="default",
// dword:xxxxxxxx, hex(N):..). Its path is $VORN_REGISTRY, else
// $XDG_CONFIG_HOME/vorndb/registry.reg (XDG_CONFIG_HOME defaults to ~/.config);
// the variables are read on every call. A missing file is an empty registry;
// the first change creates the file and its directory. Every change is written
// at once and atomically (a temporary file renamed over the old one) under an
// exclusive lock on "<file>.lock", so processes that change the registry at the
// same time never lose each other's changes; a text that would not parse back
// as written is never put in place. A file that is empty or cannot be parsed
// fails every call with ERROR_BADDB and is never overwritten;
// VornGetLastErrorTextA (vorn/rt/diagnostic.h) then names the file and line.
//
// HKEY_CLASSES_ROOT is HKEY_LOCAL_MACHINE\SOFTWARE\Classes (there is no
// per-user class registration). Names of keys and values compare without
// regard to ASCII letter case and keep the case they were created with.
// RegGetValueA returns a Win32 error code (LSTATUS), never sets the last
// error. The differences from Windows are listed in docs/platform.md.
#pragma once

#include "vorn/rt/types.h"

struct HKEY__;
using HKEY = HKEY__*;
using LSTATUS = LONG;

// The predefined keys, with their Windows values.
#define HKEY_CLASSES_ROOT (reinterpret_cast<HKEY>(static_cast<ULONG_PTR>(static_cast<LONG>(0x80000000))))
#define HKEY_CURRENT_USER (reinterpret_cast<HKEY>(static_cast<ULONG_PTR>(static_cast<LONG>(0x80000001))))
#define HKEY_LOCAL_MACHINE (reinterpret_cast<HKEY>(static_cast<ULONG_PTR>(static_cast<LONG>(0x80000002))))

// Value types.
#define REG_NONE 0u
#define REG_SZ 1u
#define REG_EXPAND_SZ 2u
#define REG_BINARY 3u
#define REG_DWORD 4u
#define REG_MULTI_SZ 7u
#define REG_QWORD 11u

// RegGetValueA type filter.
#define RRF_RT_REG_NONE 0x00000001u
#define RRF_RT_REG_SZ 0x00000002u
#define RRF_RT_REG_EXPAND_SZ 0x00000004u
#define RRF_RT_REG_BINARY 0x00000008u
#define RRF_RT_REG_DWORD 0x00000010u
#define RRF_RT_REG_MULTI_SZ 0x00000020u
#define RRF_RT_REG_QWORD 0x00000040u
#define RRF_RT_ANY 0x0000FFFFu
#define RRF_NOEXPAND 0x10000000u

#ifndef ERROR_BAD_PATHNAME
#define ERROR_BAD_PATHNAME 161L
#endif
#ifndef ERROR_UNSUPPORTED_TYPE
#define ERROR_UNSUPPORTED_TYPE 1630L
#endif

// Reads a value of hKey\lpSubKey (lpSubKey may be null; hKey one of the
// predefined keys above, ERROR_INVALID_HANDLE otherwise) whose type passes
// dwFlags (RRF_RT_*); ERROR_UNSUPPORTED_TYPE otherwise. lpValue null or "" is
// the default value. pdwType, pvData and pcbData may be null; pvData without
// pcbData is ERROR_INVALID_PARAMETER. pvData null: *pcbData gets the size
// needed. Too small: ERROR_MORE_DATA with the size needed.
// ERROR_FILE_NOT_FOUND for a missing key or value, ERROR_BAD_PATHNAME for a
// path with an empty component or a leading "\", ERROR_BADDB for a damaged
// file. String data (REG_SZ, REG_EXPAND_SZ, REG_MULTI_SZ) is stored as UTF-16
// and returned as UTF-8, sizes counted in UTF-8 bytes; strings read through it
// are always terminated. REG_EXPAND_SZ is returned unexpanded (RRF_NOEXPAND is
// implied: there is no environment expansion).
VORNAPI LSTATUS WINAPI RegGetValueA(HKEY hKey, LPCSTR lpSubKey, LPCSTR lpValue, DWORD dwFlags, LPDWORD pdwType,
                                    PVOID pvData, LPDWORD pcbData);
