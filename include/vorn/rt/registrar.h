// The registrar: runs a registration script (the registrar-script syntax of
// ATL's .rgs files) against the registry, to register or to unregister.
//
// Script:
//     HKCR                                   root: HKCR, HKLM, HKCU or their long names
//     {
//         NoRemove CLSID                     never removed when unregistering
//         {
//             ForceRemove {...} = s 'Text'   removed with everything below it, and
//             {                              replaced anew when registering
//                 InprocServer32 = s '%MODULE%'
//                 {
//                     val ThreadingModel = s 'Free'
//                 }
//             }
//         }
//         Delete Obsolete                    deleted (with its subtree) when registering
//     }
// A key is a name (a run of non-blank characters, or text in single quotes),
// optionally "= <value>" for its default value, optionally a block of named
// values ("val <name> = <value>") and subkeys. Values: s 'text' (REG_SZ),
// e 'text' (REG_EXPAND_SZ), d <number> or d '<number>' (REG_DWORD, decimal or
// 0x hex), b '<hex digits>' (REG_BINARY). In quoted text '' stands for one
// quote. Keywords compare without regard to letter case. %NAME% anywhere is
// replaced by the value given for NAME; %% is a single %.
//
// Registering creates every key and sets every value. Unregistering removes,
// per key of the script: nothing for NoRemove keys and keys marked Delete (but
// it descends into NoRemove keys); the whole subtree for ForceRemove keys;
// otherwise the key's script values, then its script subkeys, then the key
// itself if it has no subkeys left. Keys that do not exist are skipped.
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
// unregisters. S_OK; DISP_E_EXCEPTION for a syntax error or an unknown %NAME%
// (the failure text, vorn/rt/diagnostic.h, names the line); REGDB_E_READREGDB
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
