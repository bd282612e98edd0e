// Test helpers for the runtime's COM pieces: an IUnknown that only counts its
// references, so a test can see exactly how many AddRef/Release calls the code
// under test made, and stream helpers that read a whole stream back.
//
// A CountedObject lives on the test's stack and starts with the one reference
// its owner holds; it is never deleted by Release.
#pragma once

#include <atomic>
#include <string>

#include "vorn/platform.h"

namespace vorn::test {

class CountedObject : public IUnknown {
public:
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        if (!ppv) return E_POINTER;
        if (!IsEqualIID(riid, IID_IUnknown)) {
            *ppv = nullptr;
            return E_NOINTERFACE;
        }
        *ppv = this;
        AddRef();
        return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++refs_; }
    STDMETHODIMP_(ULONG) Release() override { return --refs_; }

    ULONG refs() const { return refs_; }

private:
    std::atomic<ULONG> refs_{1};
};

// The bytes of `stream` from the start to the end; the position is left at
// the end. Empty on a failing Seek or Read.
inline std::string ReadAll(IStream* stream) {
    LARGE_INTEGER start{};
    if (FAILED(stream->Seek(start, STREAM_SEEK_SET, nullptr))) return {};
    std::string bytes;
    char chunk[256];
    ULONG got = 0;
    do {
        if (FAILED(stream->Read(chunk, sizeof chunk, &got))) return {};
        bytes.append(chunk, got);
    } while (got > 0);
    return bytes;
}

// Seeks `stream` and returns the new position (ULLONG_MAX when Seek fails).
inline ULONGLONG SeekTo(IStream* stream, LONGLONG offset, DWORD origin) {
    LARGE_INTEGER move;
    move.QuadPart = offset;
    ULARGE_INTEGER position;
    return SUCCEEDED(stream->Seek(move, origin, &position)) ? position.QuadPart : ~0ULL;
}

}  // namespace vorn::test
