// Benchmarks of the parameter model, each beside its baseline in the same run:
//   - put_Value of a real setting (no sinks, no dependants; notification
//     thread running and delivering) and get_Value of the same parameter,
//     against the database lock alone and a bare std::mutex lock/unlock
//     around a store;
//   - PutArray of 102400 doubles into a real array against a memcpy of the
//     same 819200 bytes.
//
// The parameters sit three groups below the root, as most settings of the
// real tree do, so the walks up the tree are paid as in the component.
#include <benchmark/benchmark.h>

#include <cstring>
#include <mutex>
#include <vector>

#include "Baselines.h"
#include "core/DBNotificationThread.h"
#include "core/DatabaseLock.h"
#include "core/GroupImpl.h"
#include "parameters/ParameterArray.h"
#include "parameters/ParameterReal.h"

using namespace vorn;

VORN_DEFINE_GUID(IID_IParamBenchGroup, 0x8a3c1e52, 0x07d4, 0x4b6f, 0xa1, 0x9e, 0x3d, 0x52, 0x7f, 0x10, 0xc4, 0x29);
struct IParamBenchGroup : IGroup {};

namespace {

constexpr ULONG kTracePoints = 102400;
constexpr SDefaultsRealValueMinMax kLevel{.unit = eUNIT_DBM, .value = 0.0, .minimum = -170.0, .maximum = 70.0};
constexpr SDefaultsRealArray kTrace{.maxSize = kTracePoints, .unit = eUNIT_DB};

// A group with one child.
class BenchGroup : public CGroupTemplate<IParamBenchGroup, &IID_IParamBenchGroup> {
public:
    void Hold(CDatabaseObjectImpl& child, const char* name) {
        child.SetName(name, -1, -1, this);
        children_[0] = &child;
    }
    CDatabaseObjectImpl* const* Children() override { return children_; }

private:
    CDatabaseObjectImpl* children_[2] = {nullptr, nullptr};
};

// root > MeasurementSettings > PhaseNoiseSettings > Settings > parameter
struct Tree {
    explicit Tree(CParameter& leaf, CDefaultsRef defaults) {
        root.SetName(nullptr, -1, -1, nullptr);
        root.Hold(measurement, "MeasurementSettings");
        measurement.Hold(phaseNoise, "PhaseNoiseSettings");
        phaseNoise.Hold(settings, "Settings");
        settings.Hold(leaf, "Leaf");
        leaf.SetDefaults(defaults);
        leaf.Reset();
    }
    BenchGroup root, measurement, phaseNoise, settings;
};

// The notification thread, attached and delivering, for one benchmark.
struct NotificationThread {
    NotificationThread() {
        CDBNotificationThread::Attach();
        CDBNotificationThread::Instance()->SetSuppressed(false);
    }
    ~NotificationThread() { CDBNotificationThread::Detach(); }
};

void BM_RealSettingPutValue(benchmark::State& state) {
    NotificationThread thread;
    CParameterRealSetting level;
    Tree tree(level, &kLevel);
    double value = 1.0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(level.put_Value(value));
        value = -value;  // always a change
    }
}
BENCHMARK(BM_RealSettingPutValue);

void BM_RealGetValue(benchmark::State& state) {
    NotificationThread thread;
    CParameterRealSetting level;
    Tree tree(level, &kLevel);
    double value = 0.0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(level.get_Value(&value));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_RealGetValue);

// The database read lock alone: what every get_Value pays before its own work.
void BM_BaselineDatabaseLock(benchmark::State& state) {
    for (auto _ : state) {
        CReadLock lock;
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_BaselineDatabaseLock);

void BM_BaselineMutexStore(benchmark::State& state) {
    std::mutex mutex;
    volatile double stored = 0.0;
    double value = 1.0;
    for (auto _ : state) {
        std::lock_guard<std::mutex> lock(mutex);
        stored = value;
        value = -value;
    }
    benchmark::DoNotOptimize(stored);
}
BENCHMARK(BM_BaselineMutexStore);

void BM_RealArrayPutArray(benchmark::State& state) {
    NotificationThread thread;
    CParameterRealArray trace;
    Tree tree(trace, &kTrace);
    std::vector<double> samples(kTracePoints, 1.5);
    for (auto _ : state) {
        benchmark::DoNotOptimize(trace.PutArray(kTracePoints, samples.data()));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kTracePoints * sizeof(double)));
}
BENCHMARK(BM_RealArrayPutArray);

void BM_BaselineMemcpy(benchmark::State& state) { vorn::bench::MemcpyDoubles(state, kTracePoints); }
BENCHMARK(BM_BaselineMemcpy);

}  // namespace
