// libFuzzer target: arbitrary bytes loaded as a settings stream into the
// whole tree of one database object, and into its DCSettings group (so that
// inputs written for a group reach it without the path from the root).
//
// Properties checked on every input, beyond AddressSanitizer's:
//   - a load returns S_OK or E_FAIL, the results a stream can cause (any
//     other result, E_UNEXPECTED from an escaped exception above all, is a
//     fault);
//   - whatever the loads left in the group, it saves (S_OK) and its own
//     stream loads back (S_OK) to the same bytes.
// The database object lives for the whole run (one per process), so the
// tree carries what earlier inputs loaded; that is the state real streams
// meet too.
//
// Build: a clang build with -DVORN_BUILD_FUZZ=ON (fuzz/CMakeLists.txt).
// Run:   persistence_fuzz -max_total_time=600 NEW_DIR fuzz/corpus/persistence
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "schema/Database.h"
#include "vorn/vorndb.h"

namespace {

using vorn::ComPtr;

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
            std::abort();
        std::u16string name = u"UserSettings.DCSettings";
        ComPtr<IUnknown> node;
        if (t.db->GetObject(name.data(), node.put()) != S_OK ||
            node->QueryInterface(IID_IDatabaseObject, t.group.put_void()) != S_OK)
            std::abort();
        return t;
    }();
    return target;
}

ComPtr<IStream> StreamOf(const void* data, std::size_t size) {
    ComPtr<IStream> stream;
    ULONG written = 0;
    if (CreateStreamOnHGlobal(nullptr, TRUE, stream.put()) != S_OK ||
        stream->Write(data, static_cast<ULONG>(size), &written) != S_OK ||
        stream->Seek(LARGE_INTEGER{}, STREAM_SEEK_SET, nullptr) != S_OK)
        std::abort();
    return stream;
}

std::vector<BYTE> Contents(IStream* stream) {
    HGLOBAL block = nullptr;
    if (GetHGlobalFromStream(stream, &block) != S_OK) std::abort();
    const auto* p = static_cast<const BYTE*>(GlobalLock(block));
    std::vector<BYTE> bytes(p, p + GlobalSize(block));
    GlobalUnlock(block);
    return bytes;
}

void Expect(bool condition, const char* what, HRESULT hr) {
    if (condition) return;
    std::fprintf(stderr, "persistence_fuzz: %s (0x%08x)\n", what, static_cast<unsigned>(hr));
    std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Target& t = TheTarget();
    HRESULT hr = t.root->Load(StreamOf(data, size).get());
    Expect(hr == S_OK || hr == E_FAIL, "loading into the root", hr);
    hr = t.group->Load(StreamOf(data, size).get());
    Expect(hr == S_OK || hr == E_FAIL, "loading into the group", hr);

    ComPtr<IStream> saved;
    Expect(CreateStreamOnHGlobal(nullptr, TRUE, saved.put()) == S_OK, "memory stream", E_OUTOFMEMORY);
    hr = t.group->Save(saved.get());
    Expect(hr == S_OK, "saving the group", hr);
    const std::vector<BYTE> first = Contents(saved.get());
    hr = t.group->Load(StreamOf(first.data(), first.size()).get());
    Expect(hr == S_OK, "loading the group's own stream", hr);
    ComPtr<IStream> again;
    Expect(CreateStreamOnHGlobal(nullptr, TRUE, again.put()) == S_OK, "memory stream", E_OUTOFMEMORY);
    Expect(t.group->Save(again.get()) == S_OK && Contents(again.get()) == first, "the group's stream changed", S_OK);
    return 0;
}
