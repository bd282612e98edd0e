// Benchmarks of the noise frequency tables and the system settings, each
// beside its baseline in the same run:
//   - the full load of all sixteen built-in tables into the tree
//     (OptionStateInfo.LoadNoiseFreqTables = true: every value through its
//     row's put_Value, the manual tables' user tables reset and row counts
//     written), against finding and parsing the same sixteen texts without
//     the tree;
//   - a preset of the whole tree (IDatabase::Reset) with the preset flag
//     clear, so that every system setting keeps its value and tells its
//     companion, against the same preset with the flag set, where every
//     system setting takes its default again.
// One database object serves the whole process.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "files/NoiseTables.h"
#include "schema/Database.h"

using namespace vorn;

namespace {

IDatabase* Database() {
    static ComPtr<IDatabase> db = [] {
        ComPtr<IDatabase> made;
        if (CreateDatabase(IID_IDatabase, made.put_void()) != S_OK) std::abort();
        return made;
    }();
    return db.get();
}

ComPtr<IParameterBoolean> Boolean(const char16_t* name) {
    ComPtr<IParameterBoolean> p;
    if (Database()->GetParameter(const_cast<char16_t*>(name), IID_IParameterBoolean, p.put_void()) != S_OK)
        std::abort();
    return p;
}

void BM_LoadNoiseTables(benchmark::State& state) {
    ComPtr<IParameterBoolean> load = Boolean(u"OptionStateInfo.LoadNoiseFreqTables");
    for (auto _ : state)
        if (load->put_Value(VARIANT_TRUE) != S_OK) state.SkipWithError("the load failed");
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kNoiseTableCount));
}
BENCHMARK(BM_LoadNoiseTables)->Unit(benchmark::kMicrosecond);

void BM_BaselineParseNoiseTables(benchmark::State& state) {
    std::vector<SNoiseTableRow> rows;
    std::string reason;
    std::size_t parsed = 0;
    for (auto _ : state) {
        for (ULONG t = 0; t < kNoiseTableCount; ++t) {
            std::string_view text;
            if (FAILED(NoiseTableText(t, text, reason)) || FAILED(ParseNoiseTable(text, rows, reason)))
                state.SkipWithError(reason.c_str());
            parsed += rows.size();
        }
        benchmark::DoNotOptimize(parsed);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kNoiseTableCount));
}
BENCHMARK(BM_BaselineParseNoiseTables)->Unit(benchmark::kMicrosecond);

void Preset(benchmark::State& state, bool flag) {
    if (Boolean(u"InstrumentConfigInfo.EnterViaRecall")->put_Value(flag ? VARIANT_TRUE : VARIANT_FALSE) != S_OK)
        std::abort();
    for (auto _ : state)
        if (Database()->Reset() != S_OK) state.SkipWithError("the preset failed");
}

void BM_PresetKeepingSystemSettings(benchmark::State& state) { Preset(state, false); }
BENCHMARK(BM_PresetKeepingSystemSettings)->Unit(benchmark::kMillisecond);

void BM_BaselinePresetToDefaults(benchmark::State& state) { Preset(state, true); }
BENCHMARK(BM_BaselinePresetToDefaults)->Unit(benchmark::kMillisecond);

}  // namespace
