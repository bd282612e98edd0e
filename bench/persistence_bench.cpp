// Benchmarks of the settings stream, each beside its baseline in the same run:
//   - IPersistStream::Save of the whole tree of the real schema (defaults, no
//     trace data) into a memory stream, and Load of that stream back, against
//     a memcpy of the same number of bytes;
//   - IDatabaseObject::Save and ::Load of a real array of 102400 values
//     (819200 bytes of samples) against a memcpy of those bytes.
// The memory streams are reused across iterations (rewound, their blocks
// already grown), as a caller saving the same tree repeatedly would.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "Baselines.h"
#include "parameters/ParameterArray.h"
#include "schema/Database.h"
#include "stream/NodeStream.h"

using namespace vorn;

VORN_DEFINE_GUID(IID_IPersistBenchGroup, 0x6e2d41b7, 0x93a8, 0x4c5f, 0xb0, 0x1d, 0x58, 0x7a, 0xe3, 0x26, 0x9c, 0x41);
struct IPersistBenchGroup : IGroup {};

namespace {

constexpr ULONG kTracePoints = 102400;
constexpr SDefaultsRealArray kTrace{.maxSize = kTracePoints, .unit = eUNIT_DB};

// The database object of this process (one per process), made on first use.
IPersistStream* WholeTree() {
    static ComPtr<IPersistStream> persist = [] {
        ComPtr<IDatabase> db;
        ComPtr<IPersistStream> p;
        if (CreateDatabase(IID_IDatabase, db.put_void()) != S_OK ||
            db->QueryInterface(IID_IPersistStream, p.put_void()) != S_OK)
            std::abort();
        return p;
    }();
    return persist.get();
}

ComPtr<IStream> NewStream() {
    ComPtr<IStream> stream;
    if (CreateStreamOnHGlobal(nullptr, TRUE, stream.put()) != S_OK) std::abort();
    return stream;
}

void Rewind(IStream* stream) { stream->Seek(LARGE_INTEGER{}, STREAM_SEEK_SET, nullptr); }

SIZE_T StreamSize(IStream* stream) {
    HGLOBAL block = nullptr;
    GetHGlobalFromStream(stream, &block);
    return GlobalSize(block);
}

void BM_SaveWholeTree(benchmark::State& state) {
    IPersistStream* tree = WholeTree();
    ComPtr<IStream> stream = NewStream();
    for (auto _ : state) {
        Rewind(stream.get());
        if (tree->Save(stream.get(), TRUE) != S_OK) state.SkipWithError("save failed");
    }
    state.counters["bytes"] = static_cast<double>(StreamSize(stream.get()));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * StreamSize(stream.get())));
}
BENCHMARK(BM_SaveWholeTree)->Unit(benchmark::kMillisecond);

void BM_LoadWholeTree(benchmark::State& state) {
    IPersistStream* tree = WholeTree();
    ComPtr<IStream> stream = NewStream();
    tree->Save(stream.get(), TRUE);
    for (auto _ : state) {
        Rewind(stream.get());
        if (tree->Load(stream.get()) != S_OK) state.SkipWithError("load failed");
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * StreamSize(stream.get())));
}
BENCHMARK(BM_LoadWholeTree)->Unit(benchmark::kMillisecond);

// A memcpy of as many bytes as the whole tree's stream has.
void BM_BaselineCopyTreeStream(benchmark::State& state) {
    ComPtr<IStream> stream = NewStream();
    WholeTree()->Save(stream.get(), TRUE);
    const std::vector<char> source(StreamSize(stream.get()), 1);
    std::vector<char> target(source.size());
    for (auto _ : state) {
        std::memcpy(target.data(), source.data(), source.size());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * source.size()));
}
BENCHMARK(BM_BaselineCopyTreeStream)->Unit(benchmark::kMillisecond);

// root > Trace, a real array holding 102400 values.
class BenchGroup : public CStreamGroupTemplate<IPersistBenchGroup, &IID_IPersistBenchGroup> {
public:
    CDatabaseObjectImpl* const* Children() override { return children_; }
    CDatabaseObjectImpl* children_[2] = {nullptr, nullptr};
};

struct TraceTree {
    TraceTree() {
        root.SetName(nullptr, -1, -1, nullptr);
        trace.SetName("Trace", -1, -1, &root);
        root.children_[0] = &trace;
        trace.SetDefaults(&kTrace);
        trace.Reset();
        std::vector<double> values(kTracePoints);
        for (ULONG i = 0; i < kTracePoints; ++i) values[i] = 0.5 * i;
        trace.PutArray(kTracePoints, values.data());
    }
    BenchGroup root;
    CParameterRealArray trace;
};

void BM_SaveRealArray(benchmark::State& state) {
    TraceTree tree;
    ComPtr<IStream> stream = NewStream();
    for (auto _ : state) {
        Rewind(stream.get());
        if (tree.trace.Save(stream.get()) != S_OK) state.SkipWithError("save failed");
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kTracePoints * sizeof(double)));
}
BENCHMARK(BM_SaveRealArray);

void BM_LoadRealArray(benchmark::State& state) {
    TraceTree tree;
    ComPtr<IStream> stream = NewStream();
    tree.trace.Save(stream.get());
    for (auto _ : state) {
        Rewind(stream.get());
        if (tree.trace.Load(stream.get()) != S_OK) state.SkipWithError("load failed");
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kTracePoints * sizeof(double)));
}
BENCHMARK(BM_LoadRealArray);

void BM_BaselineMemcpy(benchmark::State& state) { vorn::bench::MemcpyDoubles(state, kTracePoints); }
BENCHMARK(BM_BaselineMemcpy);

}  // namespace
