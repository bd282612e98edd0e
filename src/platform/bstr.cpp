// BSTR allocation with the Windows memory layout.
//
// One malloc block holds a 4-byte byte length, the data and two zero bytes;
// the BSTR points at the data, 4 bytes into the block. The byte length is the
// only length: data may hold NULs. Lengths whose allocation would not fit in a
// positive 32-bit size are refused with null, as on Windows. A null BSTR is
// the empty string to every reader here.
//
// Windows leaves the storage of SysAllocStringLen(nullptr, n) uninitialised;
// here it is zeroed.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include "vorn/platform.h"

namespace {

constexpr std::size_t kMaxByteLength = 0x7FFFFFFFu - sizeof(DWORD) - sizeof(OLECHAR);

// A new BSTR of byteLength bytes copied from `source`, or zeroed when source
// is null. Null when byteLength is too large or memory is short.
BSTR AllocateBytes(const void* source, std::size_t byteLength) {
    if (byteLength > kMaxByteLength) return nullptr;
    auto* block = static_cast<unsigned char*>(std::malloc(sizeof(DWORD) + byteLength + sizeof(OLECHAR)));
    if (!block) return nullptr;
    const auto prefix = static_cast<DWORD>(byteLength);
    std::memcpy(block, &prefix, sizeof prefix);
    unsigned char* data = block + sizeof(DWORD);
    if (source) {
        std::memcpy(data, source, byteLength);
    } else {
        std::memset(data, 0, byteLength);
    }
    data[byteLength] = 0;
    data[byteLength + 1] = 0;
    return reinterpret_cast<BSTR>(data);
}

unsigned char* BlockOf(BSTR bstr) { return reinterpret_cast<unsigned char*>(bstr) - sizeof(DWORD); }

DWORD ByteLengthOf(BSTR bstr) {
    DWORD prefix;
    std::memcpy(&prefix, BlockOf(bstr), sizeof prefix);
    return prefix;
}

}  // namespace

// ui characters from strIn (which may hold NULs); zeroed characters when
// strIn is null.
BSTR WINAPI SysAllocStringLen(const OLECHAR* strIn, UINT ui) {
    return AllocateBytes(strIn, std::size_t{ui} * sizeof(OLECHAR));
}

void WINAPI SysFreeString(BSTR bstrString) {
    if (bstrString) std::free(BlockOf(bstrString));
}

// Characters (byte length / 2, rounded down); 0 for null.
UINT WINAPI SysStringLen(BSTR pbstr) { return pbstr ? ByteLengthOf(pbstr) / sizeof(OLECHAR) : 0; }

UINT WINAPI SysStringByteLen(BSTR bstr) { return bstr ? ByteLengthOf(bstr) : 0; }
