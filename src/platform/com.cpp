// The COM library of the runtime.
//
// Initialisation: CoInitializeEx and CoUninitialize count per thread. The
// first successful call fixes the thread's concurrency model and returns S_OK;
// later calls with the same model return S_FALSE and are counted too; a call
// with the other model fails with RPC_E_CHANGED_MODE and is not counted. When
// the count drops back to zero the thread is uninitialised and may choose a
// model again. Apartments have no further meaning here: there is no message
// loop and no marshalling between apartments; every object is called directly
// on the caller's thread.
//
// Class activation, the class registry and module resources are further files
// of this library; activation asks ComInitializedOnThisThread() (internal.h)
// before doing any work.
#include "internal.h"

namespace {

// Flags CoInitializeEx knows; other bits fail with E_INVALIDARG.
constexpr DWORD kKnownCoInitFlags = COINIT_APARTMENTTHREADED | COINIT_DISABLE_OLE1DDE | COINIT_SPEED_OVER_MEMORY;

struct ComThreadState {
    ULONG initCount = 0;
    DWORD model = COINIT_MULTITHREADED;  // meaningful while initCount > 0
};

VORN_RT_THREAD_LOCAL ComThreadState tCom;

}  // namespace

namespace vorn::rt {

bool ComInitializedOnThisThread() noexcept { return tCom.initCount > 0; }

}  // namespace vorn::rt

// ---------------------------------------------------------------------------
// Initialisation
// ---------------------------------------------------------------------------

// pvReserved must be null (E_INVALIDARG otherwise, as for unknown flags).
VORNAPI HRESULT WINAPI CoInitializeEx(LPVOID pvReserved, DWORD dwCoInit) {
    if (pvReserved || (dwCoInit & ~kKnownCoInitFlags)) return E_INVALIDARG;
    DWORD model = dwCoInit & COINIT_APARTMENTTHREADED;
    if (tCom.initCount == 0) {
        tCom.model = model;
        tCom.initCount = 1;
        return S_OK;
    }
    if (model != tCom.model) return RPC_E_CHANGED_MODE;
    ++tCom.initCount;
    return S_FALSE;
}

// An unpaired call (the thread is not initialised) does nothing, as on Windows.
VORNAPI void WINAPI CoUninitialize() {
    if (tCom.initCount > 0) --tCom.initCount;
}
