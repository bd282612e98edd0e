// libFuzzer target: arbitrary bytes loaded as a settings stream into the
// whole tree of one database object, and into its DCSettings group (so that
// inputs written for a group reach it without the path from the root).
//
// Properties checked on every input, beyond AddressSanitizer's:
//   - a load returns S_OK or E_FAIL, the results a stream can cause (any
//     other result, E_UNEXPECTED from an escaped exception above all, is a
//     fault);
//   - whatever the loads left in the group, it saves (S_OK) and its own
//     stream loads back (S_OK) to the same bytes after one round.
// The database object lives for the whole run (one per process), so the
// tree carries what earlier inputs loaded; that is the state real streams
// meet too.
//
// Inputs go up to the size of a whole-tree stream (about 323 KB; run with
// -max_len=340000, docs/fuzzing.md).
#include <cstdint>
#include <vector>

#include "fuzz_support.h"
#include "schema/Database.h"
#include "vorn/vorndb.h"

namespace {

using vorn::ComPtr;
using vorn::fuzz::Contents;
using vorn::fuzz::Expect;
using vorn::fuzz::ExpectResult;
using vorn::fuzz::StreamOf;

struct Target {
    ComPtr<IDatabase> db;
    ComPtr<IPersistStream> root;
    ComPtr<IDatabaseObject> group;
};

Target& TheTarget() {
    static Target target = [] {
        Target t;
        if (vorn::CreateDatabase(IID_IDatabase, t.db.put_void()) != S_OK ||
            t.db->QueryInterface(IID_IPersistStream, t.root.put_void()) != S_OK)
            vorn::fuzz::Fail("cannot create the database");
        std::u16string name = u"UserSettings.DCSettings";
        ComPtr<IUnknown> node;
        if (t.db->GetObject(name.data(), node.put()) != S_OK ||
            node->QueryInterface(IID_IDatabaseObject, t.group.put_void()) != S_OK)
            vorn::fuzz::Fail("no DCSettings group");
        return t;
    }();
    return target;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Target& t = TheTarget();
    ExpectResult(t.root->Load(StreamOf(data, size).get()), {S_OK, E_FAIL}, "loading into the root");
    ExpectResult(t.group->Load(StreamOf(data, size).get()), {S_OK, E_FAIL}, "loading into the group");

    // The group's stream, loaded back, gives the same bytes: after one round,
    // since loading a system setting tells its companion eSTATE_EDIT (the
    // handshake), and a companion stored before its setting may change once.
    const auto save = [&] {
        ComPtr<IStream> saved;
        Expect(CreateStreamOnHGlobal(nullptr, TRUE, saved.put()) == S_OK, "memory stream");
        ExpectResult(t.group->Save(saved.get()), {S_OK}, "saving the group");
        return Contents(saved.get());
    };
    const auto reload = [&](const std::vector<BYTE>& bytes) {
        ExpectResult(t.group->Load(StreamOf(bytes.data(), bytes.size()).get()), {S_OK},
                     "loading the group's own stream");
    };
    reload(save());
    const std::vector<BYTE> settled = save();
    reload(settled);
    Expect(save() == settled, "the group's stream changed");
    return 0;
}
