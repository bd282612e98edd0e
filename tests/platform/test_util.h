// Helpers shared by the runtime's tests:
//   - EXPECT_LAST_ERROR checks a Win32 call's failure result and last error;
//   - ReadAll/SeekTo for streams;
//   - ScratchDrives (support/ScratchDrives.h).
#pragma once

#include <gtest/gtest.h>

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
