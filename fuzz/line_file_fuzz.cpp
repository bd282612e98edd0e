// libFuzzer target: arbitrary bytes read as a limit-line file and as a
// transducer-factor file (LoadLineFileBytes) into the collections of one
// database object.
//
// Properties checked on every input, beyond AddressSanitizer's:
//   - the read returns S_OK or E_FAIL (any other result, E_UNEXPECTED from
//     an escaped exception above all, is a fault);
//   - a refusal names the file and a byte offset within the input, and
//     leaves the member the input's index names exactly as it was (no line
//     is ever half loaded);
//   - an accepted input leaves a member whose own file reads back (S_OK).
// ZLM_SYSTEM_ROOT_RW is unset, so nothing is written to the disk. The
// database object lives for the whole run (one per process).
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "files/LineFiles.h"
#include "files/TreeLinks.h"
#include "fuzz_support.h"
#include "schema/Database.h"
#include "schema/GroupClasses.h"

namespace {

using vorn::ComPtr;
using vorn::fuzz::Expect;
using vorn::fuzz::ExpectResult;

struct Target {
    ComPtr<IDatabase> db;
    vorn::CGroupImpl* collections[2] = {};
};

const vorn::SLineFileKind* const kKinds[2] = {&vorn::kLimitLineFiles, &vorn::kTransducerFactorFiles};

Target& TheTarget() {
    static Target target = [] {
        Target t;
        unsetenv(vorn::kLineFilesRootVariable);
        if (vorn::CreateDatabase(IID_IDatabase, t.db.put_void()) != S_OK)
            vorn::fuzz::Fail("cannot create the database");
        for (int k = 0; k < 2; ++k) {
            t.collections[k] = vorn::FindPath<vorn::CGroupImpl>(&vorn::TreeOf(t.db.get()), kKinds[k]->collection);
            if (!t.collections[k]) vorn::fuzz::Fail("no collection", kKinds[k]->collection);
        }
        return t;
    }();
    return target;
}

// The file bytes of the member of `index`, or nothing beyond the members.
std::vector<BYTE> MemberBytes(vorn::CGroupImpl& collection, const vorn::SLineFileKind& kind, WORD index) {
    vorn::CDatabaseObjectImpl* member = collection.FindChild(kind.member, index);
    return member ? vorn::LineFileBytes(*member, index) : std::vector<BYTE>();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Target& t = TheTarget();
    WORD index = 0;
    if (size >= 4) std::memcpy(&index, data + 2, sizeof index);
    for (int k = 0; k < 2; ++k) {
        const vorn::SLineFileKind& kind = *kKinds[k];
        const std::string fileName = std::string("F") + kind.extension;
        const std::vector<BYTE> before = MemberBytes(*t.collections[k], kind, index);
        std::string reason;
        const HRESULT hr = vorn::LoadLineFileBytes(*t.collections[k], kind, data, size, fileName, reason);
        ExpectResult(hr, {S_OK, E_FAIL}, "reading a line file");
        if (FAILED(hr)) {
            Expect(reason.find(std::string("the ") + kind.what + " " + fileName + ", offset 0x") == 0,
                   "a refusal names the file and an offset");
            const std::size_t at = reason.find('(');
            Expect(at != std::string::npos && std::strtoull(reason.c_str() + at + 1, nullptr, 10) <= size,
                   "the offset lies within the input");
            Expect(MemberBytes(*t.collections[k], kind, index) == before, "a refused file changed its member");
            continue;
        }
        const std::vector<BYTE> own = MemberBytes(*t.collections[k], kind, index);
        ExpectResult(vorn::LoadLineFileBytes(*t.collections[k], kind, own.data(), own.size(), fileName, reason), {S_OK},
                     "reading back the member's own file");
    }
    return 0;
}
