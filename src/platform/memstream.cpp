// The memory stream: IStream over an HGLOBAL (CreateStreamOnHGlobal,
// GetHGlobalFromStream).
//
// The stream's bytes are the block's bytes and its size is the block's size:
// writes past the end and SetSize resize the block (new bytes zeroed, so a
// write after seeking past the end leaves zeros in the gap), and nothing else
// is kept aside. Stream sizes are limited to 32 bits, as Windows' memory
// streams are. A stream and its clones share a SharedBlock (the handle, whether
// the last of them frees it, and a mutex that serialises their calls); each
// has its own position, which may lie beyond the end. Reading at or past the
// end gives S_OK with fewer bytes. GetHGlobalFromStream recognises the
// runtime's memory streams through a private IID that only they answer.
#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>

#include "internal_com.h"
#include "vorn/platform.h"

namespace {

// Answered by MemoryStream::QueryInterface with the stream itself.
VORN_DEFINE_GUID(IID_VornMemoryStream, 0x6f1c2a4e, 0x93d0, 0x4b7a, 0x8e, 0x51, 0x2c, 0x7d, 0x90, 0x3b, 0xa4, 0x16);

constexpr ULONGLONG kMaxStreamSize = 0xFFFFFFFFu;

struct SharedBlock {
    SharedBlock(HGLOBAL h, bool owned) : handle(h), deleteOnRelease(owned) {}
    SharedBlock(const SharedBlock&) = delete;
    SharedBlock& operator=(const SharedBlock&) = delete;
    ~SharedBlock() {
        if (deleteOnRelease) GlobalFree(handle);
    }

    std::mutex mutex;
    const HGLOBAL handle;
    bool deleteOnRelease;
};

// GlobalLock/GlobalUnlock for the span of a copy.
class LockedBytes {
public:
    explicit LockedBytes(HGLOBAL handle) : handle_(handle), data_(static_cast<unsigned char*>(GlobalLock(handle))) {}
    LockedBytes(const LockedBytes&) = delete;
    LockedBytes& operator=(const LockedBytes&) = delete;
    ~LockedBytes() {
        if (data_) GlobalUnlock(handle_);
    }
    unsigned char* data() const { return data_; }

private:
    HGLOBAL handle_;
    unsigned char* data_;
};

class MemoryStream final : public vorn::rt::StreamBase {
public:
    MemoryStream(std::shared_ptr<SharedBlock> block, ULONGLONG position)
        : block_(std::move(block)), position_(position) {}

    HGLOBAL handle() const { return block_->handle; }

    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        if (ppv && IsEqualIID(riid, IID_VornMemoryStream)) {
            *ppv = static_cast<IStream*>(this);
            AddRef();
            return S_OK;
        }
        return StreamBase::QueryInterface(riid, ppv);
    }

    // Up to cb bytes from the position; fewer (maybe none) at the end.
    // STG_E_INVALIDPOINTER for a null pv with cb > 0.
    STDMETHODIMP Read(void* pv, ULONG cb, ULONG* pcbRead) override {
        if (!pv && cb > 0) return STG_E_INVALIDPOINTER;
        std::lock_guard lock(block_->mutex);
        const ULONGLONG size = GlobalSize(handle());
        ULONG count = 0;
        if (position_ < size) count = static_cast<ULONG>(std::min<ULONGLONG>(cb, size - position_));
        if (count > 0) {
            LockedBytes bytes(handle());
            if (!bytes.data()) return STG_E_INVALIDHANDLE;
            std::memcpy(pv, bytes.data() + position_, count);
            position_ += count;
        }
        if (pcbRead) *pcbRead = count;
        return S_OK;
    }

    // Writes cb bytes at the position, growing the block as needed.
    // STG_E_INVALIDPOINTER for a null pv with cb > 0; STG_E_MEDIUMFULL when
    // the stream would pass 4 GiB or the block cannot grow (nothing written).
    STDMETHODIMP Write(const void* pv, ULONG cb, ULONG* pcbWritten) override {
        if (pcbWritten) *pcbWritten = 0;
        if (cb == 0) return S_OK;
        if (!pv) return STG_E_INVALIDPOINTER;
        std::lock_guard lock(block_->mutex);
        const ULONGLONG end = position_ + cb;
        if (position_ > kMaxStreamSize || end > kMaxStreamSize) return STG_E_MEDIUMFULL;
        if (end > GlobalSize(handle()) && !vorn::rt::ResizeGlobal(handle(), end)) return STG_E_MEDIUMFULL;
        LockedBytes bytes(handle());
        if (!bytes.data()) return STG_E_INVALIDHANDLE;
        std::memcpy(bytes.data() + position_, pv, cb);
        position_ = end;
        if (pcbWritten) *pcbWritten = cb;
        return S_OK;
    }

    // Any non-negative position is allowed, also past the end.
    // STG_E_INVALIDFUNCTION for a bad origin or a negative result (position
    // unchanged). plibNewPosition, if given, gets the position either way.
    STDMETHODIMP Seek(LARGE_INTEGER dlibMove, DWORD dwOrigin, ULARGE_INTEGER* plibNewPosition) override {
        std::lock_guard lock(block_->mutex);
        ULONGLONG target;
        const HRESULT hr = SeekTarget(dlibMove, dwOrigin, position_, GlobalSize(handle()), &target);
        if (SUCCEEDED(hr)) position_ = target;
        if (plibNewPosition) plibNewPosition->QuadPart = position_;
        return hr;
    }

    // Resizes the block to exactly libNewSize bytes (added bytes zeroed); the
    // position stays. STG_E_INVALIDFUNCTION beyond 4 GiB, E_OUTOFMEMORY.
    STDMETHODIMP SetSize(ULARGE_INTEGER libNewSize) override {
        if (libNewSize.QuadPart > kMaxStreamSize) return STG_E_INVALIDFUNCTION;
        std::lock_guard lock(block_->mutex);
        if (!vorn::rt::ResizeGlobal(handle(), libNewSize.QuadPart)) return E_OUTOFMEMORY;
        return S_OK;
    }

    // STGTY_STREAM and the size; no name, times or mode.
    STDMETHODIMP Stat(STATSTG* pstatstg, DWORD grfStatFlag) override {
        const HRESULT hr = BeginStat(pstatstg, grfStatFlag);
        if (FAILED(hr)) return hr;
        std::lock_guard lock(block_->mutex);
        pstatstg->cbSize.QuadPart = GlobalSize(handle());
        return S_OK;
    }

    // A stream over the same block, starting at this stream's position.
    STDMETHODIMP Clone(IStream** ppstm) override {
        if (!ppstm) return STG_E_INVALIDPOINTER;
        std::lock_guard lock(block_->mutex);
        *ppstm = new (std::nothrow) MemoryStream(block_, position_);
        return *ppstm ? S_OK : E_OUTOFMEMORY;
    }

private:
    std::shared_ptr<SharedBlock> block_;
    ULONGLONG position_;  // guarded by block_->mutex
};

}  // namespace

// With a null hGlobal a new empty block is made; fDeleteOnRelease applies to
// it as to a given block (with FALSE the caller frees it, reaching it through
// GetHGlobalFromStream). E_INVALIDARG for a null ppstm or a handle that is
// not a live block, E_OUTOFMEMORY.
HRESULT WINAPI CreateStreamOnHGlobal(HGLOBAL hGlobal, BOOL fDeleteOnRelease, LPSTREAM* ppstm) {
    if (!ppstm) return E_INVALIDARG;
    *ppstm = nullptr;
    HGLOBAL handle = hGlobal;
    if (!handle) {
        handle = GlobalAlloc(GMEM_MOVEABLE, 0);
        if (!handle) return E_OUTOFMEMORY;
    } else if (LockedBytes check(handle); !check.data()) {
        return E_INVALIDARG;
    }
    try {
        auto block = std::make_shared<SharedBlock>(handle, false);
        *ppstm = new MemoryStream(block, 0);
        block->deleteOnRelease = fDeleteOnRelease != FALSE;
        return S_OK;
    } catch (const std::bad_alloc&) {
        if (!hGlobal) GlobalFree(handle);
        return E_OUTOFMEMORY;
    }
}

HRESULT WINAPI GetHGlobalFromStream(LPSTREAM pstm, HGLOBAL* phglobal) {
    if (!pstm || !phglobal) return E_INVALIDARG;
    void* raw = nullptr;
    if (FAILED(pstm->QueryInterface(IID_VornMemoryStream, &raw))) return E_INVALIDARG;
    auto* stream = static_cast<MemoryStream*>(static_cast<IStream*>(raw));
    *phglobal = stream->handle();
    stream->Release();
    return S_OK;
}
