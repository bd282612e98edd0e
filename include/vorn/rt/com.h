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
VORNAPI HRESULT WINAPI CoInitialize(LPVOID pvReserved);
VORNAPI void WINAPI CoUninitialize();
