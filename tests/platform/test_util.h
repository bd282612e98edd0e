// Helpers shared by the runtime's tests:
//   - EXPECT_LAST_ERROR checks a Win32 call's failure result and last error;
//   - CountedObject, an IUnknown that only counts its references, so a test
//     sees exactly how many AddRef/Release calls the code under test made (it
//     lives on the test's stack, starts with its owner's one reference and is
//     never deleted by Release);
//   - ReadAll/SeekTo for streams;
//   - ScratchDrives (support/ScratchDrives.h).
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "support/ScratchDrives.h"
#include "vorn/platform.h"

// Runs `call`, then expects the result `failed` and the last error `error`.
#define EXPECT_LAST_ERROR(call, failed, error)                         \
    do {                                                               \
        EXPECT_EQ((call), (failed)) << #call;                          \
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(error)) << #call; \
    } while (0)

namespace vorn::test {

using vorn::LastErrorText;

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
