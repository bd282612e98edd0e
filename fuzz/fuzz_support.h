// What the libFuzzer targets share: reporting a broken property, checking a
// result against the set a function documents, memory streams, a scratch file
// for readers that take a path.
//
// Header only, so that every target can use it whichever copy of the runtime
// it links (the shared library, or vornrt_internal for the internal parsers).
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <string>
#include <vector>

#include "vorn/platform.h"

namespace vorn::fuzz {

// Prints what broke and aborts, so that libFuzzer reports the input as a
// crash and keeps it.
[[noreturn]] inline void Fail(const char* what, const std::string& detail = {}) {
    std::fprintf(stderr, "fuzz property broken: %s%s%s\n", what, detail.empty() ? "" : ": ", detail.c_str());
    std::abort();
}

inline void Expect(bool condition, const char* what) {
    if (!condition) Fail(what);
}

inline std::string HresultText(HRESULT hr) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(hr));
    return text;
}

// Fails unless `hr` is one of `allowed`.
inline void ExpectResult(HRESULT hr, std::initializer_list<HRESULT> allowed, const char* what) {
    for (HRESULT a : allowed)
        if (hr == a) return;
    Fail(what, "unexpected result " + HresultText(hr));
}

// A memory stream holding a copy of the bytes, positioned at its start.
inline ComPtr<IStream> StreamOf(const void* data, std::size_t size) {
    ComPtr<IStream> stream;
    ULONG written = 0;
    if (CreateStreamOnHGlobal(nullptr, TRUE, stream.put()) != S_OK ||
        stream->Write(data, static_cast<ULONG>(size), &written) != S_OK ||
        stream->Seek(LARGE_INTEGER{}, STREAM_SEEK_SET, nullptr) != S_OK)
        Fail("cannot make a memory stream");
    return stream;
}

// The whole contents of a memory stream.
inline std::vector<BYTE> Contents(IStream* stream) {
    HGLOBAL block = nullptr;
    if (GetHGlobalFromStream(stream, &block) != S_OK) Fail("a stream without a memory block");
    const auto* p = static_cast<const BYTE*>(GlobalLock(block));
    std::vector<BYTE> bytes(p, p + GlobalSize(block));
    GlobalUnlock(block);
    return bytes;
}

// One file in a directory of its own under $TMPDIR (or /tmp), rewritten with
// each input and removed with the directory when the process exits.
class ScratchFile {
public:
    explicit ScratchFile(const char* name) {
        const char* tmp = std::getenv("TMPDIR");
        std::string dir = std::string(tmp && *tmp ? tmp : "/tmp") + "/vorn-fuzz-XXXXXX";
        if (!mkdtemp(dir.data())) Fail("cannot make a scratch directory", dir);
        dir_ = dir;
        path_ = dir + "/" + name;
    }
    ~ScratchFile() {
        unlink(path_.c_str());
        rmdir(dir_.c_str());
    }
    ScratchFile(const ScratchFile&) = delete;
    ScratchFile& operator=(const ScratchFile&) = delete;

    const std::string& path() const { return path_; }

    void Write(const std::uint8_t* data, std::size_t size) const {
        std::FILE* file = std::fopen(path_.c_str(), "wb");
        if (!file || std::fwrite(data, 1, size, file) != size || std::fclose(file) != 0)
            Fail("cannot write the scratch file", path_);
    }

private:
    std::string dir_;
    std::string path_;
};

}  // namespace vorn::fuzz
