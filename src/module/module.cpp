// Entry points of the component module. The class table is empty until the
// database class is served, so every class request is refused.
#include "vorn/platform.h"

#define VORN_MODULE_ENTRY EXTERN_C __attribute__((visibility("default")))

VORN_MODULE_ENTRY HRESULT STDAPICALLTYPE DllGetClassObject(REFCLSID, REFIID, LPVOID* ppv) {
    if (ppv) *ppv = nullptr;
    return CLASS_E_CLASSNOTAVAILABLE;
}

VORN_MODULE_ENTRY HRESULT STDAPICALLTYPE DllCanUnloadNow() { return S_OK; }

VORN_MODULE_ENTRY HRESULT STDAPICALLTYPE DllRegisterServer() { return E_NOTIMPL; }

VORN_MODULE_ENTRY HRESULT STDAPICALLTYPE DllUnregisterServer() { return E_NOTIMPL; }
