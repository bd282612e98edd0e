// The registry: keys and values under HKEY_CLASSES_ROOT, HKEY_LOCAL_MACHINE and
// HKEY_CURRENT_USER with the Win32 functions, result codes and value types.
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
// as written is never put in place (ERROR_CANTWRITE). A file that is empty or cannot be
// parsed fails every call with ERROR_BADDB and is never overwritten;
// VornGetLastErrorTextA (vorn/rt/diagnostic.h) then names the file and line.
//
// HKEY_CLASSES_ROOT is HKEY_LOCAL_MACHINE\SOFTWARE\Classes (there is no
// per-user class registration). Names of keys and values compare without
// regard to ASCII letter case and keep the case they were created with.
// Functions return a Win32 error code (LSTATUS), never set the last error.
// The differences from Windows are listed in docs/platform.md.
#pragma once

#include "vorn/rt/types.h"

struct HKEY__;
using HKEY = HKEY__*;
using PHKEY = HKEY*;
using LSTATUS = LONG;
using REGSAM = DWORD;
struct SECURITY_ATTRIBUTES;

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
#define REG_DWORD_LITTLE_ENDIAN 4u
#define REG_DWORD_BIG_ENDIAN 5u
#define REG_LINK 6u
#define REG_MULTI_SZ 7u
#define REG_QWORD 11u
#define REG_QWORD_LITTLE_ENDIAN 11u

// Access rights. Query needs KEY_QUERY_VALUE, set and delete of values
// KEY_SET_VALUE, creating a subkey KEY_CREATE_SUB_KEY, enumerating subkeys
// KEY_ENUMERATE_SUB_KEYS; otherwise ERROR_ACCESS_DENIED. WOW64 flags are accepted
// and ignored (there is one view of the registry).
#define KEY_QUERY_VALUE 0x0001u
#define KEY_SET_VALUE 0x0002u
#define KEY_CREATE_SUB_KEY 0x0004u
#define KEY_ENUMERATE_SUB_KEYS 0x0008u
#define KEY_NOTIFY 0x0010u
#define KEY_CREATE_LINK 0x0020u
#define KEY_WOW64_64KEY 0x0100u
#define KEY_WOW64_32KEY 0x0200u
#define KEY_READ 0x20019u
#define KEY_WRITE 0x20006u
#define KEY_EXECUTE 0x20019u
#define KEY_ALL_ACCESS 0xF003Fu

#define REG_OPTION_NON_VOLATILE 0x0000u
#define REG_OPTION_VOLATILE 0x0001u
#define REG_CREATED_NEW_KEY 1u
#define REG_OPENED_EXISTING_KEY 2u

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

// Opens an existing key. lpSubKey null or "" opens a new handle to hKey itself.
// ERROR_FILE_NOT_FOUND when the key does not exist, ERROR_BAD_PATHNAME for a
// path with an empty component or a leading "\", ERROR_INVALID_HANDLE for a
// handle that is not open, ERROR_KEY_DELETED when hKey's key was deleted since
// it was opened, ERROR_BADDB for a damaged file. *phkResult is null on failure.
VORNAPI LSTATUS WINAPI RegOpenKeyExA(HKEY hKey, LPCSTR lpSubKey, DWORD ulOptions, REGSAM samDesired, PHKEY phkResult);
VORNAPI LSTATUS WINAPI RegOpenKeyExW(HKEY hKey, LPCWSTR lpSubKey, DWORD ulOptions, REGSAM samDesired, PHKEY phkResult);
// Opens a key, creating it and any missing keys above it. lpClass and
// lpSecurityAttributes are ignored; dwOptions must be REG_OPTION_NON_VOLATILE
// (ERROR_INVALID_PARAMETER otherwise: volatile keys are not offered).
// *lpdwDisposition (may be null) tells REG_CREATED_NEW_KEY from
// REG_OPENED_EXISTING_KEY. Errors as RegOpenKeyExA, plus ERROR_ACCESS_DENIED
// without KEY_CREATE_SUB_KEY on hKey or when the file cannot be written, and
// ERROR_INVALID_PARAMETER for a key name holding a control character (below
// U+0020, or U+007F), which the file could not carry.
VORNAPI LSTATUS WINAPI RegCreateKeyExA(HKEY hKey, LPCSTR lpSubKey, DWORD Reserved, LPSTR lpClass, DWORD dwOptions,
                                       REGSAM samDesired, SECURITY_ATTRIBUTES* lpSecurityAttributes, PHKEY phkResult,
                                       LPDWORD lpdwDisposition);
VORNAPI LSTATUS WINAPI RegCreateKeyExW(HKEY hKey, LPCWSTR lpSubKey, DWORD Reserved, LPWSTR lpClass, DWORD dwOptions,
                                       REGSAM samDesired, SECURITY_ATTRIBUTES* lpSecurityAttributes, PHKEY phkResult,
                                       LPDWORD lpdwDisposition);
// Closes a handle from RegOpenKeyEx/RegCreateKeyEx. Closing a predefined key
// succeeds and does nothing. ERROR_INVALID_HANDLE for a handle not open.
VORNAPI LSTATUS WINAPI RegCloseKey(HKEY hKey);

// Reads a value (lpValueName null or "" is the default value). lpType, lpData
// and lpcbData may be null; lpData without lpcbData is ERROR_INVALID_PARAMETER.
// lpData null: *lpcbData gets the size needed. Too small: ERROR_MORE_DATA with
// the size needed. ERROR_FILE_NOT_FOUND for a missing value. String data
// (REG_SZ, REG_EXPAND_SZ, REG_MULTI_SZ) is stored as UTF-16; the A function
// converts it to UTF-8 and counts UTF-8 bytes.
VORNAPI LSTATUS WINAPI RegQueryValueExA(HKEY hKey, LPCSTR lpValueName, LPDWORD lpReserved, LPDWORD lpType,
                                        LPBYTE lpData, LPDWORD lpcbData);
VORNAPI LSTATUS WINAPI RegQueryValueExW(HKEY hKey, LPCWSTR lpValueName, LPDWORD lpReserved, LPDWORD lpType,
                                        LPBYTE lpData, LPDWORD lpcbData);
// Writes a value of type dwType with cbData bytes of lpData (which, for string
// types, should include the terminator, as on Windows). The A function takes
// string data as UTF-8; any data is stored. ERROR_INVALID_PARAMETER for a
// null lpData with a non-zero cbData, and for a value name holding a control
// character (as RegCreateKeyExA).
VORNAPI LSTATUS WINAPI RegSetValueExA(HKEY hKey, LPCSTR lpValueName, DWORD Reserved, DWORD dwType, const BYTE* lpData,
                                      DWORD cbData);
VORNAPI LSTATUS WINAPI RegSetValueExW(HKEY hKey, LPCWSTR lpValueName, DWORD Reserved, DWORD dwType, const BYTE* lpData,
                                      DWORD cbData);
// Reads a value of hKey\lpSubKey (lpSubKey may be null) whose type passes
// dwFlags (RRF_RT_*); ERROR_UNSUPPORTED_TYPE otherwise. Strings read through it
// are always terminated. REG_EXPAND_SZ is returned unexpanded (RRF_NOEXPAND is
// implied: there is no environment expansion).
VORNAPI LSTATUS WINAPI RegGetValueA(HKEY hKey, LPCSTR lpSubKey, LPCSTR lpValue, DWORD dwFlags, LPDWORD pdwType,
                                    PVOID pvData, LPDWORD pcbData);

// Enumerates subkeys in name order (ASCII case folded). lpcchName holds the
// buffer size in characters and gets the length without terminator.
// ERROR_NO_MORE_ITEMS past the end, ERROR_MORE_DATA when the name does not fit.
// lpClass must be null; lpftLastWriteTime (may be null) is zeroed: no write
// times are kept.
VORNAPI LSTATUS WINAPI RegEnumKeyExA(HKEY hKey, DWORD dwIndex, LPSTR lpName, LPDWORD lpcchName, LPDWORD lpReserved,
                                     LPSTR lpClass, LPDWORD lpcchClass, FILETIME* lpftLastWriteTime);
VORNAPI LSTATUS WINAPI RegEnumKeyExW(HKEY hKey, DWORD dwIndex, LPWSTR lpName, LPDWORD lpcchName, LPDWORD lpReserved,
                                     LPWSTR lpClass, LPDWORD lpcchClass, FILETIME* lpftLastWriteTime);
// Enumerates values in the order they were first written. Name as
// RegEnumKeyExA; type and data as RegQueryValueExA.
VORNAPI LSTATUS WINAPI RegEnumValueA(HKEY hKey, DWORD dwIndex, LPSTR lpValueName, LPDWORD lpcchValueName,
                                     LPDWORD lpReserved, LPDWORD lpType, LPBYTE lpData, LPDWORD lpcbData);
VORNAPI LSTATUS WINAPI RegEnumValueW(HKEY hKey, DWORD dwIndex, LPWSTR lpValueName, LPDWORD lpcchValueName,
                                     LPDWORD lpReserved, LPDWORD lpType, LPBYTE lpData, LPDWORD lpcbData);
// Counts and maximum lengths (characters without terminator; value data in
// bytes as the W functions see it). Any out pointer may be null; the class
// and security-descriptor outputs are zero.
VORNAPI LSTATUS WINAPI RegQueryInfoKeyA(HKEY hKey, LPSTR lpClass, LPDWORD lpcchClass, LPDWORD lpReserved,
                                        LPDWORD lpcSubKeys, LPDWORD lpcbMaxSubKeyLen, LPDWORD lpcbMaxClassLen,
                                        LPDWORD lpcValues, LPDWORD lpcbMaxValueNameLen, LPDWORD lpcbMaxValueLen,
                                        LPDWORD lpcbSecurityDescriptor, FILETIME* lpftLastWriteTime);

// Deletes a key that has no subkeys (ERROR_ACCESS_DENIED when it has some,
// ERROR_FILE_NOT_FOUND when it does not exist). lpSubKey must name a key below
// hKey (ERROR_INVALID_PARAMETER for null or "").
VORNAPI LSTATUS WINAPI RegDeleteKeyA(HKEY hKey, LPCSTR lpSubKey);
VORNAPI LSTATUS WINAPI RegDeleteKeyW(HKEY hKey, LPCWSTR lpSubKey);
// Deletes a key with everything below it. lpSubKey null or "": deletes the
// subkeys and values of hKey but keeps hKey.
VORNAPI LSTATUS WINAPI RegDeleteTreeA(HKEY hKey, LPCSTR lpSubKey);
VORNAPI LSTATUS WINAPI RegDeleteTreeW(HKEY hKey, LPCWSTR lpSubKey);
// ERROR_FILE_NOT_FOUND when the value does not exist.
VORNAPI LSTATUS WINAPI RegDeleteValueA(HKEY hKey, LPCSTR lpValueName);
VORNAPI LSTATUS WINAPI RegDeleteValueW(HKEY hKey, LPCWSTR lpValueName);

// The path of the registry file this process uses now (see above), as
// GetEnvironmentVariableA returns sizes: the length without terminator when it
// fits, else the size needed; 0 with ERROR_PATH_NOT_FOUND (last error) when no
// location can be determined.
VORNAPI DWORD WINAPI VornGetRegistryPathA(LPSTR lpPath, DWORD nSize);
