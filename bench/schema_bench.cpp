// Benchmarks of the whole database tree, beside a baseline in the same run:
//   - creating the database object (the whole tree built, named and given
//     its defaults records, the notification thread attached, PostConstruct,
//     the first Reset filling and freezing the name map) and destroying it,
//     against allocating and clearing a block of the object's size;
//   - the resident memory the creation adds, and the tree's node counts.
//
// A process hosts one database object in its lifetime, so every iteration
// runs in a child process of its own: the child times its creation and its
// destruction (wall clock, and the process's CPU time, which a loaded
// machine does not inflate) and reads /proc/self/statm before and after, and
// reports through a pipe; the fork itself is not timed.
#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>

#include "schema/Database.h"
#include "schema/GroupClasses.h"

using namespace vorn;

namespace {

using Clock = std::chrono::steady_clock;

// What one child measured.
struct Sample {
    double createSeconds = 0;
    double destroySeconds = 0;
    double createCpuSeconds = 0;  // the process's CPU time, all threads
    double destroyCpuSeconds = 0;
    double residentBefore = 0;  // bytes
    double residentAfter = 0;   // bytes, right after creation
    double groups = 0;          // the root included
    double parameters = 0;
    bool ok = false;
};

double ProcessCpuSeconds() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

double ResidentBytes() {
    long size = 0, resident = 0;
    if (FILE* f = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(f, "%ld %ld", &size, &resident) != 2) resident = 0;
        std::fclose(f);
    }
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

// Groups and parameters at and below `node`.
void CountNodes(CDatabaseObjectImpl& node, Sample& sample) {
    auto* group = dynamic_cast<CGroupImpl*>(&node);
    if (!group) {
        ++sample.parameters;
        return;
    }
    ++sample.groups;
    for (CDatabaseObjectImpl* const* child = group->Children(); *child; ++child) CountNodes(**child, sample);
}

// Runs `measure` (filling a Sample) in a child process; returns what it
// reported, or a sample with ok false.
template <class Measure>
Sample InChild(Measure measure) {
    int fds[2];
    Sample sample;
    if (pipe(fds) != 0) return sample;
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        Sample own = measure();
        const ssize_t written = write(fds[1], &own, sizeof own);
        _exit(written == static_cast<ssize_t>(sizeof own) ? 0 : 1);
    }
    close(fds[1]);
    if (pid > 0 && read(fds[0], &sample, sizeof sample) != static_cast<ssize_t>(sizeof sample)) sample.ok = false;
    close(fds[0]);
    int status = 0;
    if (pid > 0) waitpid(pid, &status, 0);
    return sample;
}

Sample CreateAndDestroy() {
    Sample sample;
    sample.residentBefore = ResidentBytes();
    IDatabase* db = nullptr;
    const double cpuStart = ProcessCpuSeconds();
    const auto start = Clock::now();
    const HRESULT hr = CreateDatabase(IID_IDatabase, reinterpret_cast<void**>(&db));
    const auto created = Clock::now();
    const double cpuCreated = ProcessCpuSeconds();
    if (FAILED(hr)) return sample;
    sample.residentAfter = ResidentBytes();
    CountNodes(TreeOf(db), sample);
    const double cpuCounted = ProcessCpuSeconds();
    const auto counted = Clock::now();
    db->Release();
    const auto destroyed = Clock::now();
    sample.destroyCpuSeconds = ProcessCpuSeconds() - cpuCounted;
    sample.createCpuSeconds = cpuCreated - cpuStart;
    sample.createSeconds = std::chrono::duration<double>(created - start).count();
    sample.destroySeconds = std::chrono::duration<double>(destroyed - counted).count();
    sample.ok = true;
    return sample;
}

void BM_CreateResetDestroyDatabase(benchmark::State& state) {
    Sample last;
    double create = 0, destroy = 0, createCpu = 0, destroyCpu = 0;
    for (auto _ : state) {
        last = InChild(CreateAndDestroy);
        if (!last.ok) {
            state.SkipWithError("creating the database failed");
            return;
        }
        create += last.createSeconds;
        destroy += last.destroySeconds;
        createCpu += last.createCpuSeconds;
        destroyCpu += last.destroyCpuSeconds;
        state.SetIterationTime(last.createSeconds + last.destroySeconds);
    }
    const double n = static_cast<double>(state.iterations());
    state.counters["create_ms"] = create / n * 1e3;
    state.counters["destroy_ms"] = destroy / n * 1e3;
    state.counters["create_cpu_ms"] = createCpu / n * 1e3;
    state.counters["destroy_cpu_ms"] = destroyCpu / n * 1e3;
    state.counters["resident_MB"] = (last.residentAfter - last.residentBefore) / (1 << 20);
    state.counters["object_MB"] = static_cast<double>(sizeof(CDatabaseImpl)) / (1 << 20);
    state.counters["groups"] = last.groups;
    state.counters["parameters"] = last.parameters;
}
BENCHMARK(BM_CreateResetDestroyDatabase)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(20);

// Baseline: a block of the database object's size, allocated, cleared and
// freed, in a child process as above.
void BM_AllocateClearFreeObjectSize(benchmark::State& state) {
    for (auto _ : state) {
        const Sample sample = InChild([] {
            Sample own;
            const auto start = Clock::now();
            auto block = std::make_unique<char[]>(sizeof(CDatabaseImpl));
            benchmark::DoNotOptimize(block.get());
            block.reset();
            own.createSeconds = std::chrono::duration<double>(Clock::now() - start).count();
            own.ok = true;
            return own;
        });
        state.SetIterationTime(sample.createSeconds);
    }
}
BENCHMARK(BM_AllocateClearFreeObjectSize)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(20);

}  // namespace
