// Helpers shared by the runtime's tests:
//   - EXPECT_LAST_ERROR checks a Win32 call's failure result and last error;
//   - CountedObject, an IUnknown that only counts its references, so a test
//     sees exactly how many AddRef/Release calls the code under test made (it
//     lives on the test's stack, starts with its owner's one reference and is
//     never deleted by Release);
//   - ReadAll/SeekTo for streams;
//   - ScratchDrives, a fixture that gives each test its own, empty drive
//     directories. CTest runs the test cases as parallel processes and points
//     VORN_DRIVES at one directory of the build tree for all of them; the
//     fixture moves VORN_DRIVES to a subdirectory named after the test and the
//     process id, which does not exist yet (so drive directories are made on
//     demand, as on a fresh machine), and removes it afterwards.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <string>

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

class ScratchDrives : public ::testing::Test {
protected:
    void SetUp() override {
        const char* outer = std::getenv("VORN_DRIVES");
        std::filesystem::path base = outer && *outer ? outer : std::filesystem::temp_directory_path().string();
        const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
        drives_ = base / (std::string(info->test_suite_name()) + "-" + info->name() + "-" + std::to_string(getpid()));
        std::filesystem::remove_all(drives_);
        ASSERT_EQ(setenv("VORN_DRIVES", drives_.c_str(), 1), 0);
    }

    void TearDown() override {
        std::error_code ignored;
        std::filesystem::remove_all(drives_, ignored);
    }

    std::filesystem::path drives_;
};

}  // namespace vorn::test
