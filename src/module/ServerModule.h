// The in-process server half of a component module: module-wide state, one
// generic class factory driven by a table of classes, and the work behind the
// four exported entry points. libvorndb.so builds its entry points on it
// (module.cpp); the tests build a small module of their own on the same code.
// Each module links its own copy, so every module has its own state.
//
// Module state: the module's instance handle (its HMODULE, recorded when the
// module is loaded, as DllMain's process attach does on Windows) and the
// module lock count (interlocked). Objects a class creates call LockModule()
// when they are constructed and UnlockModule() after their final release, or
// count themselves and hand their count to CanUnloadNow (the database object
// does); IClassFactory::LockServer locks and unlocks. DllCanUnloadNow is S_OK
// exactly when nothing holds the module.
//
// Class objects: one cached factory per class, made on the first
// DllGetClassObject for it and kept until the module is unloaded. A cached
// factory does not hold the module lock (only LockServer does), as on Windows.
//
// Registration: the module's registration script is its resource of type
// "REGISTRY"; it runs with %MODULE% set to the module's absolute path plus the
// replacements the module adds, and the module's type library (its resource
// TYPELIB 1) is registered with it, in one registry transaction.
//
// There is no proxy/stub layer on this platform: the entry points skip that
// step (docs/platform.md).
#pragma once

#include <span>
#include <string>

#include "vorn/platform.h"
#include "vorn/rt/registrar.h"

namespace vorn::module {

// Creates an object of one class and queries it for riid: S_OK or a failure,
// with *ppv null on failure. ppv is never null (the factory checks it first);
// aggregation has been refused or accepted by the factory already.
using Creator = HRESULT (*)(REFIID riid, void** ppv);

struct ClassEntry {
    const CLSID* clsid;
    Creator create;
};

// The module lock count.
void LockModule() noexcept;
void UnlockModule() noexcept;
LONG ModuleLockCount() noexcept;

// The module's own handle (the base address it is loaded at).
HMODULE ModuleInstance() noexcept;
// The module's absolute path; empty when it cannot be found.
std::string ModulePath();
// Loads the type library of the module's own file (its TYPELIB resource):
// the loader's HRESULT; HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND) when the
// module's path cannot be found.
HRESULT LoadModuleTypeLib(ITypeLib** ppTypeLib) noexcept;

// DllGetClassObject over `classes`: the cached class object of rclsid queried
// for riid. CLASS_E_CLASSNOTAVAILABLE for a class not in the table,
// E_INVALIDARG for a null ppv (*ppv is null on failure), E_OUTOFMEMORY, or the
// query's E_NOINTERFACE.
HRESULT GetClassObject(std::span<const ClassEntry> classes, REFCLSID rclsid, REFIID riid, void** ppv) noexcept;
// DllCanUnloadNow: S_OK when the lock count and `liveObjects` (objects that
// count themselves rather than calling LockModule) are both 0, else S_FALSE.
HRESULT CanUnloadNow(LONG liveObjects = 0) noexcept;

// A replacement of the registration script whose value is an identifier,
// written the way the registry holds them ("{XXXXXXXX-...}").
struct IdReplacement {
    const char* name;  // %name% in the script
    const GUID* id;
};

// DllRegisterServer: runs the REGISTRY resource `script` with %MODULE% and
// the identifiers, then registers the TYPELIB resource, both in one registry
// transaction: either both are written or, at the first failure (which is
// returned), neither.
HRESULT RegisterServer(LPCSTR script, std::span<const IdReplacement> ids) noexcept;
// DllUnregisterServer: runs the script in removal mode and unregisters the
// type library, in one registry transaction as above. What is not registered
// is skipped, so a module registered in part, or not at all, unregisters
// with S_OK.
HRESULT UnregisterServer(LPCSTR script, std::span<const IdReplacement> ids) noexcept;

}  // namespace vorn::module
