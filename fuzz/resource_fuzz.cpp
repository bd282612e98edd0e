// libFuzzer target: arbitrary bytes as a module file whose resources are read
// without loading it (ReadResourceFromFile, src/platform/resource.cpp:
// the ELF program headers, the resource directory notes and the PT_LOAD
// segments they point into).
//
// Properties checked on every input, beyond AddressSanitizer's:
//   - a lookup returns S_OK, ERROR_BAD_EXE_FORMAT, one of the three
//     resource-not-found errors (as HRESULTs) or E_OUTOFMEMORY;
//   - a resource found is no larger than the file; a failed lookup leaves
//     no data;
//   - the spellings of one name or type that the canonical form merges
//     ("#1" and MAKEINTRESOURCE(1), "typelib" and "TYPELIB") find the same
//     resource with the same bytes.
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz_support.h"
#include "resource_format.h"
#include "vorn/platform.h"

namespace {

using vorn::fuzz::Expect;
using vorn::fuzz::ExpectResult;

struct Found {
    HRESULT hr = E_FAIL;
    std::vector<BYTE> bytes;
};

Found Lookup(const char* file, LPCSTR name, LPCSTR type, std::size_t fileSize) {
    Found found;
    found.hr = vorn::rt::ReadResourceFromFile(file, name, type, &found.bytes);
    ExpectResult(found.hr,
                 {S_OK, HRESULT_FROM_WIN32(ERROR_BAD_EXE_FORMAT), HRESULT_FROM_WIN32(ERROR_RESOURCE_DATA_NOT_FOUND),
                  HRESULT_FROM_WIN32(ERROR_RESOURCE_TYPE_NOT_FOUND), HRESULT_FROM_WIN32(ERROR_RESOURCE_NAME_NOT_FOUND),
                  E_OUTOFMEMORY},
                 "ReadResourceFromFile");
    Expect(found.hr == S_OK || found.bytes.empty(), "a failed lookup with data");
    Expect(found.bytes.size() <= fileSize, "a resource larger than its file");
    return found;
}

void ExpectSame(const Found& a, const Found& b, const char* what) { Expect(a.hr == b.hr && a.bytes == b.bytes, what); }

const vorn::fuzz::ScratchFile& File() {
    static const vorn::fuzz::ScratchFile file("input.so");
    return file;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const vorn::fuzz::ScratchFile& file = File();
    file.Write(data, size);
    const char* path = file.path().c_str();

    const Found typelib = Lookup(path, MAKEINTRESOURCE(1), "TYPELIB", size);
    ExpectSame(typelib, Lookup(path, "#1", "typelib", size), "\"#1\" \"typelib\" and 1 \"TYPELIB\" differ");
    ExpectSame(typelib, Lookup(path, "#0001", "TypeLib", size), "\"#0001\" \"TypeLib\" and 1 \"TYPELIB\" differ");

    const Found registry = Lookup(path, MAKEINTRESOURCE(101), "REGISTRY", size);
    ExpectSame(registry, Lookup(path, "#101", "Registry", size), "\"#101\" and 101 differ");

    const Found text = Lookup(path, "Greeting", "Text", size);
    ExpectSame(text, Lookup(path, "GREETING", "TEXT", size), "\"Greeting\" and \"GREETING\" differ");

    const Found numeric = Lookup(path, MAKEINTRESOURCE(7), MAKEINTRESOURCE(10), size);
    ExpectSame(numeric, Lookup(path, "#7", "#10", size), "\"#7\" \"#10\" and 7 10 differ");
    return 0;
}
