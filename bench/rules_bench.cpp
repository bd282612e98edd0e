// Benchmarks of the rule classes on the real tree, each beside its baseline
// in the same run:
//   - a client setting marker 1's X on a trace of 102400 points (logarithmic,
//     1 Hz to 1 GHz), snapped to the nearest point, with AbsX, Y and Visible
//     following, and a large step of the marker (a decade and the first
//     point beyond), against std::lower_bound on the same points for the
//     same targets;
//   - a change of NoiseMeasType (PLL and baseband in turn: both selection
//     lists rebuilt, the axes clamped, their start/stop rule and the
//     remembered FFT window and sweep mode restored), against a write of an
//     enumeration setting that nothing follows;
//   - a measurement writing the 102400 levels of trace 1 while 8 or 100
//     checked limit lines of 100 points each judge it (their verdicts and
//     the overall one), against the same write while no measurement runs
//     (the lines are not judged then);
//   - the measurement couplings (docs/coupling.md), with the noise tables
//     loaded: a write of SignalFreq (1 GHz and 20 GHz in turn: harmonic,
//     AFC target, remembered tolerances, axis bound, VCO harmonics) and a
//     write of SweepMode (fast and highly averaged in turn: the table copied
//     into the user's table and the 25 segments, their times and the total),
//     against a write of a real setting that nothing follows.
// The database object of the process is made once (one per process); its
// notifications stay suppressed, as after creation.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

#include "Baselines.h"
#include "schema/Database.h"
#include "vorn/vorndb.h"

using namespace vorn;

namespace {

using vorn::bench::Parameter;

constexpr ULONG kPoints = 102400;
constexpr std::size_t kTargets = 4096;

struct Fixture {
    Fixture() {
        if (CreateDatabase(IID_IDatabase, db.put_void()) != S_OK) std::abort();
        for (ULONG i = 0; i < kPoints; ++i) points[i] = std::pow(10.0, 9.0 * i / (kPoints - 1));
        std::vector<double> levels(kPoints, -100.0);
        Parameter<IParameterRealArray>(db.get(), "MeasurementResults.PhaseNoiseResults.DisplayTrace[0].X")
            ->PutArray(kPoints, points.data());
        Parameter<IParameterRealArray>(db.get(), "MeasurementResults.PhaseNoiseResults.DisplayTrace[0].Y")
            ->PutArray(kPoints, levels.data());
        Parameter<IParameterInteger>(db.get(), "OptionStateInfo.CurrentGraphType")->put_Value(eGRAPH_PNOISEANALYSER);
        Parameter<IParameterBoolean>(db.get(), "Markers.PhaseNoiseMarker[0].Valid")->put_Value(VARIANT_TRUE);
        Parameter<IParameterBoolean>(db.get(), "Markers.PhaseNoiseMarker[0].On")->put_Value(VARIANT_TRUE);
        markerX = Parameter<IParameterReal>(db.get(), "Markers.PhaseNoiseMarker[0].X");
        Parameter<IParameterBoolean>(db.get(), "OptionStateInfo.LoadNoiseFreqTables")->put_Value(VARIANT_TRUE);
        // Targets spread over the decades, none on a point.
        std::srand(1);
        for (double& target : targets) target = std::pow(10.0, 9.0 * (std::rand() / (RAND_MAX + 1.0))) * 1.0000001;
    }

    ComPtr<IDatabase> db;
    ComPtr<IParameterReal> markerX;
    std::vector<double> points = std::vector<double>(kPoints);
    std::vector<double> targets = std::vector<double>(kTargets);
};

Fixture& TheFixture() {
    static Fixture fixture;
    return fixture;
}

void BM_MarkerSetXSnapped(benchmark::State& state) {
    Fixture& f = TheFixture();
    std::size_t i = 0;
    for (auto _ : state) {
        if (FAILED(f.markerX->put_Value(f.targets[i++ % kTargets]))) state.SkipWithError("put_Value failed");
    }
}
BENCHMARK(BM_MarkerSetXSnapped);

void BM_MarkerLargeStep(benchmark::State& state) {
    Fixture& f = TheFixture();
    f.markerX->put_Value(1e4);
    bool up = true;
    for (auto _ : state) {
        const HRESULT hr = up ? f.markerX->Increment(eSTEP_LARGE) : f.markerX->Decrement(eSTEP_LARGE);
        if (hr != S_OK) state.SkipWithError("the step did not move the marker");
        up = !up;
    }
}
BENCHMARK(BM_MarkerLargeStep);

void BM_BaselineLowerBound(benchmark::State& state) {
    Fixture& f = TheFixture();
    std::size_t i = 0;
    for (auto _ : state) {
        auto found = std::lower_bound(f.points.begin(), f.points.end(), f.targets[i++ % kTargets]);
        benchmark::DoNotOptimize(found);
    }
}
BENCHMARK(BM_BaselineLowerBound);

// Manual time: each iteration sets the stop index back to 30 GHz under the
// PLL type (not timed), then changes to baseband (which clamps it) and back
// to PLL; the time reported is that of one change, the mean of the two.
void BM_NoiseTypeChange(benchmark::State& state) {
    Fixture& f = TheFixture();
    ComPtr<IParameterInteger> type = Parameter<IParameterInteger>(f.db.get(), "OptionStateInfo.NoiseMeasType");
    ComPtr<IParameterInteger> stop =
        Parameter<IParameterInteger>(f.db.get(), "UserSettings.PhaseNoiseSettings.XAxisStop");
    for (auto _ : state) {
        stop->put_Value(24);
        const auto start = std::chrono::steady_clock::now();
        const HRESULT there = type->put_Value(eNOISETYPE_BASEBAND);
        const HRESULT back = type->put_Value(eNOISETYPE_PLL);
        const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
        if (there != S_OK || back != S_OK) state.SkipWithError("the noise type did not change");
        state.SetIterationTime(elapsed.count() / 2);
    }
}
BENCHMARK(BM_NoiseTypeChange)->UseManualTime();

void BM_BaselinePlainEnumWrite(benchmark::State& state) {
    Fixture& f = TheFixture();
    ComPtr<IParameterInteger> screen = Parameter<IParameterInteger>(f.db.get(), "DisplaySettings.ActiveScreen");
    ULONG next = eSCREEN_B;
    screen->put_Value(eSCREEN_A);
    for (auto _ : state) {
        if (screen->put_Value(next) != S_OK) state.SkipWithError("the screen did not change");
        next = next == eSCREEN_B ? eSCREEN_A : eSCREEN_B;
    }
}
BENCHMARK(BM_BaselinePlainEnumWrite);

// Lines 0 .. count-1 checked on trace 1: upper lines of 100 points over the
// trace's decades, a little above its levels, so every point is judged and
// every line passes.
void CheckLines(IDatabase* db, ULONG count) {
    std::vector<double> x(100), y(100, -90.0);
    for (ULONG k = 0; k < 100; ++k) x[k] = std::pow(10.0, 9.0 * k / 99);
    for (ULONG i = 0; i < count; ++i) {
        const std::string line = "LimitLineData.Line[" + std::to_string(i) + "].";
        Parameter<IParameterRealArray>(db, (line + "PointX").c_str())->PutArray(100, x.data());
        Parameter<IParameterRealArray>(db, (line + "PointY").c_str())->PutArray(100, y.data());
        Parameter<IParameterInteger>(db, (line + "PointCount").c_str())->put_Value(100);
        Parameter<IParameterBoolean>(db, (line + "Exists").c_str())->put_Value(VARIANT_TRUE);
        Parameter<IParameterBoolean>(db, (line + "CheckLimit").c_str())->put_Value(VARIANT_TRUE);
    }
}

// Writes trace 1's levels under measurement state `measuring`.
void WriteTraceLevels(benchmark::State& state, ULONG measuring) {
    Fixture& f = TheFixture();
    CheckLines(f.db.get(), static_cast<ULONG>(state.range(0)));
    Parameter<IParameterInteger>(f.db.get(), "OptionStateInfo.MeasurementState")->put_Value(measuring);
    auto levels = Parameter<IParameterRealArray>(f.db.get(), "MeasurementResults.PhaseNoiseResults.DisplayTrace[0].Y");
    auto overall = Parameter<IParameterInteger>(f.db.get(), "MeasurementResults.PhaseNoiseResults.PNoiseLLStatus");
    std::vector<double> y(kPoints, -100.0);
    for (auto _ : state) {
        y[0] = y[0] == -100.0 ? -101.0 : -100.0;
        if (levels->PutArray(kPoints, y.data()) != S_OK) state.SkipWithError("the trace was not written");
    }
    ULONG verdict = 0;
    if (measuring == eMEASSTATE_RUNNING && (overall->get_Value(&verdict) != S_OK || verdict != eLLRESULT_PASS))
        state.SkipWithError("the lines did not pass");
    Parameter<IParameterInteger>(f.db.get(), "OptionStateInfo.MeasurementState")->put_Value(eMEASSTATE_IDLE);
}

void BM_LimitLinesJudgeTrace(benchmark::State& state) { WriteTraceLevels(state, eMEASSTATE_RUNNING); }
BENCHMARK(BM_LimitLinesJudgeTrace)->Arg(8)->Arg(100);

void BM_BaselineTraceWriteIdle(benchmark::State& state) { WriteTraceLevels(state, eMEASSTATE_IDLE); }
BENCHMARK(BM_BaselineTraceWriteIdle)->Arg(8);
void BM_SignalFreqWrite(benchmark::State& state) {
    Fixture& f = TheFixture();
    ComPtr<IParameterReal> frequency =
        Parameter<IParameterReal>(f.db.get(), "UserSettings.PhaseNoiseSettings.SignalFreq");
    frequency->put_Value(20e9);
    bool high = false;
    for (auto _ : state) {
        if (frequency->put_Value(high ? 20e9 : 1e9) != S_OK) state.SkipWithError("SignalFreq did not change");
        high = !high;
    }
}
BENCHMARK(BM_SignalFreqWrite);

void BM_SweepModeWrite(benchmark::State& state) {
    Fixture& f = TheFixture();
    ComPtr<IParameterInteger> mode =
        Parameter<IParameterInteger>(f.db.get(), "UserSettings.PhaseNoiseSettings.SweepMode");
    mode->put_Value(0);
    ULONG next = 2;
    for (auto _ : state) {
        if (mode->put_Value(next) != S_OK) state.SkipWithError("SweepMode did not change");
        next = next == 2 ? 0 : 2;
    }
}
BENCHMARK(BM_SweepModeWrite);

void BM_BaselinePlainRealWrite(benchmark::State& state) {
    Fixture& f = TheFixture();
    ComPtr<IParameterReal> level = Parameter<IParameterReal>(f.db.get(), "UserSettings.PhaseNoiseSettings.YAxisTop");
    level->put_Value(-10.0);
    bool high = false;
    for (auto _ : state) {
        if (level->put_Value(high ? -10.0 : -20.0) != S_OK) state.SkipWithError("YAxisTop did not change");
        high = !high;
    }
}
BENCHMARK(BM_BaselinePlainRealWrite);

}  // namespace
