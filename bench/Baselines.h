// What the benchmarks share: baselines, each measured in the same run as the
// figures compared with it (bench/run_all pairs them through baselines.txt),
// and the lookup of a parameter by its full name.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include "vorn/vorndb.h"

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

// The parameter `name` of `db` through interface I; aborts the run when it
// is missing (a benchmark of a tree without it measures nothing).
template <class I>
ComPtr<I> Parameter(IDatabase* db, std::string_view name) {
    std::u16string wide(name.begin(), name.end());
    ComPtr<I> p;
    if (db->GetParameter(wide.data(), VORN_UUIDOF(I), p.put_void()) != S_OK) std::abort();
    return p;
}

}  // namespace vorn::bench
