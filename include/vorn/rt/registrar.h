// The registrar: applies a registration script to the registry, to register
// or to unregister.
//
// A script is a registry file (the export text format that the registry file
// itself has, docs/platform.md) in which %NAME% anywhere stands for the value
// given for NAME (%% is one %):
//     Windows Registry Editor Version 5.00
//     [-HKEY_CLASSES_ROOT\CLSID\%CLSID%]          deleted first, with its subtree
//     [HKEY_CLASSES_ROOT\CLSID\%CLSID%]
//     @="Text"
//     [HKEY_CLASSES_ROOT\CLSID\%CLSID%\InprocServer32]
//     @="%MODULE%"
//     "ThreadingModel"="Free"
// In a key line a replacement must hold no "\" (it would reach another key);
// elsewhere it stands in quoted text and its "\" and """ are escaped. No
// replacement holds a line break.
//
// Registering imports the script as a registry file is imported: its [-KEY]
// sections delete, its [KEY] sections create the key and set the values that
// follow, in order. Unregistering removes every key that the script gives a
// value, with everything below it; keys it only leads through stay. Keys that
// do not exist are skipped.
//
// The whole script is read before anything changes, and all of its changes are
// written to the registry file in one step: a script either takes effect
// completely or not at all.
#pragma once

#include "vorn/rt/types.h"

#ifndef DISP_E_EXCEPTION
#define DISP_E_EXCEPTION _HRESULT_TYPEDEF_(0x80020009L)
#endif

// One replacement: %szKey% in the script becomes szData. An array of them ends
// with an entry whose szKey is null.
struct VORN_REGMAP_ENTRY {
    LPCSTR szKey;
    LPCSTR szData;
};

// Runs the script (UTF-8) held in the module's resource lpName of type
// "REGISTRY" (hModule null: the executable). bRegister TRUE registers, FALSE
// unregisters. S_OK; DISP_E_EXCEPTION for a syntax error, an unknown %NAME% or
// a replacement that does not fit (the failure text, vorn/rt/diagnostic.h,
// names the line); REGDB_E_READREGDB
// for a damaged registry file; REGDB_E_WRITEREGDB when the file cannot be
// written; E_OUTOFMEMORY; the resource lookup's errors as HRESULTs
// (HRESULT_FROM_WIN32(ERROR_RESOURCE_NAME_NOT_FOUND), ...).
VORNAPI HRESULT WINAPI VornRegistrarRunResourceA(HMODULE hModule, LPCSTR lpName, const VORN_REGMAP_ENTRY* replacements,
                                                 BOOL bRegister);

// Registration in one step. Between VornRegistrarBeginTransaction and
// VornRegistrarEndTransaction, every registry change the calling thread makes
// (Reg* calls, registrar scripts, RegisterTypeLib, UnRegisterTypeLib) goes to
// a private copy of the registry, which that thread's own reads see, while it
// holds the registry's lock: other writers wait, other readers see the file as
// it was. VornRegistrarEndTransaction(TRUE) then writes every change in one
// atomic replacement of the file; FALSE drops them all. Both calls must be
// made on one thread. A transaction begun inside another only nests: its
// TRUE end does nothing yet, its FALSE end makes the outer TRUE end write
// nothing and return E_ABORT.
//
// Begin: S_OK; REGDB_E_READREGDB for a damaged registry file, or the failure
// to lock the file. End: S_OK; REGDB_E_WRITEREGDB when the file cannot be
// written (it is left as it was); E_ABORT as above; E_UNEXPECTED without a
// transaction.
VORNAPI HRESULT WINAPI VornRegistrarBeginTransaction();
VORNAPI HRESULT WINAPI VornRegistrarEndTransaction(BOOL bCommit);
