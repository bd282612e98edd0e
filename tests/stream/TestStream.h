// An IStream over a byte vector that fails on request, for the failure paths
// of the settings stream: reads or writes fail (STG_E_ACCESSDENIED) once a
// number of bytes has passed, writes may be taken only in part, and positions
// may be reported beyond 4 GiB (the vector then starts at `base`). It has no
// Stat, so a reader learns its size by seeking to the end.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstring>
#include <vector>

#include "vorn/platform.h"

namespace persist_test {

class CTestStream final : public IStream {
public:
    explicit CTestStream(std::vector<BYTE> bytes = {}) : bytes_(std::move(bytes)) {}

    ULONGLONG base = 0;            // position of bytes_[0]
    std::size_t readLimit = ~0u;   // reading beyond this many bytes fails
    std::size_t writeLimit = ~0u;  // writing beyond this many bytes fails
    bool shortWrites = false;      // a write beyond the limit takes what fits, S_OK

    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        if (!ppv) return E_POINTER;
        const bool mine =
            IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IStream) || IsEqualIID(riid, IID_ISequentialStream);
        *ppv = mine ? static_cast<IStream*>(this) : nullptr;
        if (mine) AddRef();
        return mine ? S_OK : E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++refs_; }
    STDMETHODIMP_(ULONG) Release() override { return --refs_; }  // lives on the test's stack

    STDMETHODIMP Read(void* pv, ULONG cb, ULONG* pcbRead) override {
        if (pcbRead) *pcbRead = 0;
        if (at_ + cb > readLimit) return STG_E_ACCESSDENIED;
        const std::size_t n = at_ < bytes_.size() ? std::min<std::size_t>(cb, bytes_.size() - at_) : 0;
        if (n) std::memcpy(pv, bytes_.data() + at_, n);
        at_ += n;
        if (pcbRead) *pcbRead = static_cast<ULONG>(n);
        return S_OK;
    }
    STDMETHODIMP Write(const void* pv, ULONG cb, ULONG* pcbWritten) override {
        if (pcbWritten) *pcbWritten = 0;
        std::size_t n = cb;
        if (at_ + cb > writeLimit) {
            if (!shortWrites) return STG_E_ACCESSDENIED;
            n = writeLimit > at_ ? writeLimit - at_ : 0;
        }
        if (bytes_.size() < at_ + n) bytes_.resize(at_ + n);
        if (n) std::memcpy(bytes_.data() + at_, pv, n);
        at_ += n;
        if (pcbWritten) *pcbWritten = static_cast<ULONG>(n);
        return S_OK;
    }
    STDMETHODIMP Seek(LARGE_INTEGER move, DWORD origin, ULARGE_INTEGER* pos) override {
        LONGLONG from = origin == STREAM_SEEK_SET   ? 0
                        : origin == STREAM_SEEK_CUR ? static_cast<LONGLONG>(base + at_)
                                                    : static_cast<LONGLONG>(base + bytes_.size());
        const LONGLONG to = from + move.QuadPart;
        if (to < static_cast<LONGLONG>(base)) return STG_E_INVALIDFUNCTION;
        at_ = static_cast<std::size_t>(to - static_cast<LONGLONG>(base));
        if (pos) pos->QuadPart = base + at_;
        return S_OK;
    }
    // Not needed by the settings stream.
    STDMETHODIMP SetSize(ULARGE_INTEGER) override { return E_NOTIMPL; }
    STDMETHODIMP CopyTo(IStream*, ULARGE_INTEGER, ULARGE_INTEGER*, ULARGE_INTEGER*) override { return E_NOTIMPL; }
    STDMETHODIMP Commit(DWORD) override { return E_NOTIMPL; }
    STDMETHODIMP Revert() override { return E_NOTIMPL; }
    STDMETHODIMP LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return E_NOTIMPL; }
    STDMETHODIMP UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return E_NOTIMPL; }
    STDMETHODIMP Stat(STATSTG*, DWORD) override { return E_NOTIMPL; }
    STDMETHODIMP Clone(IStream**) override { return E_NOTIMPL; }

    ULONG References() const { return refs_; }

private:
    std::vector<BYTE> bytes_;
    std::size_t at_ = 0;
    std::atomic<ULONG> refs_{1};
};

}  // namespace persist_test
