// The trace export on the real tree beside its baseline in the same run:
//   - all eight phase-noise traces of 102400 points each (logarithmic, 1 Hz
//     to 1 GHz) with the header, written to a file in a temporary directory
//     through OtherSettings.ExportedTrace;
//   - the baseline: the same points printed with snprintf("%.6f;%.6f;\r\n")
//     into one string and written with fwrite, the least any text export of
//     them does.
// The database object of the process is made once (one per process).
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "Baselines.h"
#include "schema/Database.h"
#include "vorn/vorndb.h"

using namespace vorn;

namespace {

using vorn::bench::Parameter;

constexpr ULONG kPoints = 102400;
constexpr int kTraces = 8;

struct Fixture {
    Fixture() {
        directory = std::filesystem::temp_directory_path() / ("export_bench-" + std::to_string(getpid()));
        std::filesystem::create_directories(directory);
        file = (directory / "traces.csv").string();
        if (CreateDatabase(IID_IDatabase, db.put_void()) != S_OK) std::abort();
        for (ULONG i = 0; i < kPoints; ++i) {
            x[i] = std::pow(10.0, 9.0 * i / (kPoints - 1));
            y[i] = -60.0 - 10.0 * std::log10(x[i]);
        }
        for (int t = 0; t < kTraces; ++t) {
            const std::string trace = "MeasurementResults.PhaseNoiseResults.DisplayTrace[" + std::to_string(t) + "].";
            Parameter<IParameterRealArray>(db.get(), trace + "X")->PutArray(kPoints, x.data());
            Parameter<IParameterRealArray>(db.get(), trace + "Y")->PutArray(kPoints, y.data());
        }
        Parameter<IParameterInteger>(db.get(), "OptionStateInfo.CurrentGraphType")->put_Value(eGRAPH_PNOISEPLL);
        Parameter<IParameterBoolean>(db.get(), "OtherSettings.TraceExportAllTraces")->put_Value(VARIANT_TRUE);
        const std::u16string path(file.begin(), file.end());
        BSTR name = SysAllocStringLen(path.data(), static_cast<UINT>(path.size()));
        Parameter<IParameterString>(db.get(), "OtherSettings.NewTraceFile")->put_Value(name);
        SysFreeString(name);
        exported = Parameter<IParameterBoolean>(db.get(), "OtherSettings.ExportedTrace");
    }
    ~Fixture() {
        std::error_code ignored;
        std::filesystem::remove_all(directory, ignored);
    }

    std::filesystem::path directory;
    std::string file;
    ComPtr<IDatabase> db;
    ComPtr<IParameterBoolean> exported;
    std::vector<double> x = std::vector<double>(kPoints);
    std::vector<double> y = std::vector<double>(kPoints);
};

Fixture& TheFixture() {
    static Fixture fixture;
    return fixture;
}

void BM_ExportEightTraces(benchmark::State& state) {
    Fixture& f = TheFixture();
    for (auto _ : state)
        if (f.exported->put_Value(VARIANT_TRUE) != S_OK) state.SkipWithError("the export failed");
    state.SetItemsProcessed(state.iterations() * kTraces * kPoints);
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(std::filesystem::file_size(f.file)));
}
BENCHMARK(BM_ExportEightTraces)->Unit(benchmark::kMillisecond);

void BM_BaselinePrintAndWrite(benchmark::State& state) {
    Fixture& f = TheFixture();
    const std::string file = (f.directory / "baseline.csv").string();
    for (auto _ : state) {
        std::string text;
        char line[128];
        for (int t = 0; t < kTraces; ++t)
            for (ULONG i = 0; i < kPoints; ++i)
                text.append(
                    line, static_cast<std::size_t>(std::snprintf(line, sizeof line, "%.6f;%.6f;\r\n", f.x[i], f.y[i])));
        std::FILE* out = std::fopen(file.c_str(), "wb");
        if (!out || std::fwrite(text.data(), 1, text.size(), out) != text.size()) state.SkipWithError("fwrite failed");
        if (out) std::fclose(out);
    }
    state.SetItemsProcessed(state.iterations() * kTraces * kPoints);
}
BENCHMARK(BM_BaselinePrintAndWrite)->Unit(benchmark::kMillisecond);

}  // namespace
