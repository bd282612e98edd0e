// Baselines shared by the benchmarks. Each is measured in the same run as the
// figures compared with it (bench/run_all pairs them through baselines.txt).
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <vector>

namespace vorn::bench {

// memcpy of `points` doubles: the bandwidth that array writes, saves and
// loads are held against.
inline void MemcpyDoubles(benchmark::State& state, std::size_t points) {
    std::vector<double> samples(points, 1.5);
    std::vector<double> target(points, 0.0);
    for (auto _ : state) {
        std::memcpy(target.data(), samples.data(), points * sizeof(double));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * points * sizeof(double)));
}

}  // namespace vorn::bench
