// Global memory blocks and the runtime's IStream implementation: a growable
// memory stream over an HGLOBAL.
//
// An HGLOBAL is a movable block: GlobalLock gives its current address, which
// stays valid until GlobalUnlock, and GlobalSize gives its exact size in bytes
// (Windows may round the size up; this runtime never does). A memory stream
// made by CreateStreamOnHGlobal keeps its bytes in such a block; the block is
// always exactly as large as the stream (SetSize and writes past the end resize
// it), so GetHGlobalFromStream + GlobalLock + GlobalSize reach the stream's
// bytes. Clones share the block and have their own seek position.
#pragma once

#include "vorn/rt/unknown.h"

#define GMEM_FIXED 0x0000u
#define GMEM_MOVEABLE 0x0002u
#define GMEM_ZEROINIT 0x0040u
#define GHND (GMEM_MOVEABLE | GMEM_ZEROINIT)
#define GPTR (GMEM_FIXED | GMEM_ZEROINIT)

// Every block is movable and handle-based whatever the flags say; with
// GMEM_ZEROINIT the bytes start at zero. Null and GetLastError on failure.
VORNAPI HGLOBAL WINAPI GlobalAlloc(UINT uFlags, SIZE_T dwBytes);
// Returns null on success, the handle on failure (as Windows does).
VORNAPI HGLOBAL WINAPI GlobalFree(HGLOBAL hMem);
VORNAPI LPVOID WINAPI GlobalLock(HGLOBAL hMem);
VORNAPI BOOL WINAPI GlobalUnlock(HGLOBAL hMem);
VORNAPI SIZE_T WINAPI GlobalSize(HGLOBAL hMem);

// hGlobal null: a new empty block is made. Otherwise the stream starts with
// the block's bytes. Either way fDeleteOnRelease frees the block with the last
// stream (without it the caller frees the block, reached through
// GetHGlobalFromStream). E_INVALIDARG for a null ppstm or a handle that is not
// a live block, E_OUTOFMEMORY.
VORNAPI HRESULT WINAPI CreateStreamOnHGlobal(HGLOBAL hGlobal, BOOL fDeleteOnRelease, LPSTREAM* ppstm);
// E_INVALIDARG when pstm is not a stream made by CreateStreamOnHGlobal.
VORNAPI HRESULT WINAPI GetHGlobalFromStream(LPSTREAM pstm, HGLOBAL* phglobal);
