// COM library initialisation for a thread.
//
// CoInitializeEx counts per thread: the first call on a thread returns S_OK,
// later ones S_FALSE; a call that asks for another concurrency model than the
// thread's first returns RPC_E_CHANGED_MODE. Every successful call is paired
// with one CoUninitialize. Apartments have no further meaning on this
// platform: every object is called directly (see docs/platform.md).
#pragma once

#include "vorn/rt/types.h"

#define COINIT_MULTITHREADED 0x0u
#define COINIT_APARTMENTTHREADED 0x2u
#define COINIT_DISABLE_OLE1DDE 0x4u
#define COINIT_SPEED_OVER_MEMORY 0x8u

VORNAPI HRESULT WINAPI CoInitializeEx(LPVOID pvReserved, DWORD dwCoInit);
VORNAPI void WINAPI CoUninitialize();

// ---------------------------------------------------------------------------
// Class activation
//
// Classes are found in the registry (vorn/rt/registry.h) the Windows way:
// HKEY_CLASSES_ROOT\CLSID\{clsid}\InprocServer32 names the module, whose
// DllGetClassObject hands out the class object. Only in-process servers exist
// on this platform. A module loaded for activation stays loaded until
// CoFreeUnusedLibraries finds that its DllCanUnloadNow returns S_OK.
// ---------------------------------------------------------------------------

struct IUnknown;

enum CLSCTX : DWORD {
    CLSCTX_INPROC_SERVER = 0x1,
    CLSCTX_INPROC_HANDLER = 0x2,
    CLSCTX_LOCAL_SERVER = 0x4,
    CLSCTX_REMOTE_SERVER = 0x10,
};
#define CLSCTX_INPROC (CLSCTX_INPROC_SERVER | CLSCTX_INPROC_HANDLER)
#define CLSCTX_SERVER (CLSCTX_INPROC_SERVER | CLSCTX_LOCAL_SERVER | CLSCTX_REMOTE_SERVER)
#define CLSCTX_ALL (CLSCTX_INPROC_SERVER | CLSCTX_INPROC_HANDLER | CLSCTX_LOCAL_SERVER | CLSCTX_REMOTE_SERVER)

// Gets the class object (IClassFactory) of rclsid from its in-process server
// and creates an instance. S_OK, or: CO_E_NOTINITIALIZED when the calling
// thread has not called CoInitializeEx; REGDB_E_CLASSNOTREG when the class has
// no InprocServer32 registration or dwClsContext does not include
// CLSCTX_INPROC_SERVER; REGDB_E_READREGDB for a damaged registry file;
// CO_E_BADPATH for a module path that is not absolute;
// HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND) when the module does not exist and
// HRESULT_FROM_WIN32(ERROR_BAD_EXE_FORMAT) when it cannot be loaded;
// CO_E_ERRORINDLL when it has no DllGetClassObject; E_POINTER for a null ppv;
// otherwise the module's own result. *ppv is null on failure. The failure
// text (vorn/rt/diagnostic.h) names the module.
VORNAPI HRESULT WINAPI CoCreateInstance(REFCLSID rclsid, IUnknown* pUnkOuter, DWORD dwClsContext, REFIID riid,
                                        LPVOID* ppv);
// The class identifier in HKEY_CLASSES_ROOT\<lpszProgID>\CLSID (the program
// identifier's own key; CurVer is not followed, as on Windows).
// CO_E_CLASSSTRING when the program identifier is not registered or its CLSID
// is not a braced GUID; E_INVALIDARG for null arguments; REGDB_E_READREGDB.
VORNAPI HRESULT WINAPI CLSIDFromProgID(LPCOLESTR lpszProgID, LPCLSID lpclsid);
// Unloads every module loaded by activation whose DllCanUnloadNow returns
// S_OK and that no activation is using at the moment. Unloading happens at
// once (there is no delay, and CoUninitialize unloads nothing).
VORNAPI void WINAPI CoFreeUnusedLibraries();
