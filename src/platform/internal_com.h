// Internal pieces shared by the runtime's own COM objects (enumerator, memory
// stream) and the resizing of global memory blocks behind the memory stream.
//
// ComObject<I> is the base of every runtime object: it implements one
// single-inheritance interface chain I (IEnumUnknown, IStream), holds an atomic
// reference count that starts at one (the creator's reference) and deletes the
// object on the last Release. StreamBase adds the IStream methods that do not
// depend on where the bytes live. Nothing here is exported from
// libvornrt.so.
#pragma once

#include <atomic>
#include <initializer_list>

#include "vorn/platform.h"

namespace vorn::rt {

template <class Interface>
class ComObject : public Interface {
public:
    ComObject() = default;
    ComObject(const ComObject&) = delete;
    ComObject& operator=(const ComObject&) = delete;

    STDMETHODIMP_(ULONG) AddRef() override { return refs_.fetch_add(1, std::memory_order_relaxed) + 1; }
    STDMETHODIMP_(ULONG) Release() override {
        const ULONG left = refs_.fetch_sub(1, std::memory_order_acq_rel) - 1;
        if (left == 0) delete this;
        return left;
    }

protected:
    virtual ~ComObject() = default;

    // QueryInterface over the interface chain: every IID in `chain` must name
    // Interface or one of its bases, so the one object pointer serves them all.
    // E_POINTER for a null ppv (checked first); E_NOINTERFACE with *ppv null
    // for any other IID.
    HRESULT QueryChain(REFIID riid, void** ppv, std::initializer_list<const IID*> chain) {
        if (!ppv) return E_POINTER;
        for (const IID* iid : chain) {
            if (IsEqualIID(riid, *iid)) {
                *ppv = static_cast<Interface*>(this);
                AddRef();
                return S_OK;
            }
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }

private:
    std::atomic<ULONG> refs_{1};
};

// The IStream methods that do not depend on where the bytes live.
// QueryInterface answers IUnknown, ISequentialStream and IStream; Commit and
// Revert succeed without doing anything; byte-range locking is refused with
// STG_E_INVALIDFUNCTION; CopyTo copies through Read and the target's Write.
class StreamBase : public ComObject<IStream> {
public:
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        return QueryChain(riid, ppv, {&IID_IUnknown, &IID_ISequentialStream, &IID_IStream});
    }
    // Reads up to cb bytes from this stream and writes what was read to pstm,
    // in chunks. Stops at the end of this stream (S_OK) or at the first
    // failing Read/Write (its HRESULT; STG_E_MEDIUMFULL if the target took
    // fewer bytes than offered). pcbRead/pcbWritten get the totals and may be
    // null. STG_E_INVALIDPOINTER for a null pstm.
    STDMETHODIMP CopyTo(IStream* pstm, ULARGE_INTEGER cb, ULARGE_INTEGER* pcbRead, ULARGE_INTEGER* pcbWritten) override;
    STDMETHODIMP Commit(DWORD) override { return S_OK; }
    STDMETHODIMP Revert() override { return S_OK; }
    STDMETHODIMP LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return STG_E_INVALIDFUNCTION; }
    STDMETHODIMP UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return STG_E_INVALIDFUNCTION; }

protected:
    // Seek arithmetic: the position `move` bytes from the origin (SET: 0,
    // CUR: current, END: end) into *target. STG_E_INVALIDFUNCTION for an
    // unknown origin or a result below zero or beyond INT64_MAX; *target is
    // then untouched.
    static HRESULT SeekTarget(LARGE_INTEGER move, DWORD origin, ULONGLONG current, ULONGLONG end, ULONGLONG* target);
    // Checks Stat's arguments and zeroes *statstg with type STGTY_STREAM.
    // STG_E_INVALIDPOINTER for a null statstg, STG_E_INVALIDFLAG for a flag
    // other than STATFLAG_DEFAULT/NONAME/NOOPEN.
    static HRESULT BeginStat(STATSTG* statstg, DWORD statFlag);
};

// Resizes a global memory block to exactly `bytes` bytes (the bytes added at
// the end are zeroed) and returns the same handle; the data may move. Null
// with ERROR_INVALID_HANDLE for a bad handle, ERROR_NOT_ENOUGH_MEMORY when the
// memory cannot be had; the block is then unchanged.
HGLOBAL ResizeGlobal(HGLOBAL handle, SIZE_T bytes);

}  // namespace vorn::rt
