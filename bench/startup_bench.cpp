// Start-up: the first creation of the database in a fresh process. Each
// iteration starts startup_probe anew with posix_spawn (a new program image,
// nothing inherited warm from this process) against a registry in which the
// module is registered, and reads what the probe measured from entering its
// main to the creation's return (first_create_ms) and to the final release's
// return (release_ms, as a counter). The iteration's time is the probe's
// whole process, spawn to exit; the baseline is the same probe creating
// nothing.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

extern char** environ;

namespace {

struct Probe {
    double createMicros = 0;
    double releaseMicros = 0;
    double wallSeconds = 0;
    bool ok = false;
};

Probe RunProbe(bool none) {
    Probe probe;
    int out[2];
    if (pipe(out) != 0) return probe;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, out[0]);
    std::string path = VORN_STARTUP_PROBE;
    std::string flag = "--none";
    char* argv[] = {path.data(), none ? flag.data() : nullptr, nullptr};
    const auto start = std::chrono::steady_clock::now();
    pid_t pid = 0;
    const int spawned = posix_spawn(&pid, path.c_str(), &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    char text[128] = {};
    std::size_t got = 0;
    for (ssize_t n; spawned == 0 && (n = read(out[0], text + got, sizeof text - 1 - got)) > 0;)
        got += static_cast<std::size_t>(n);
    close(out[0]);
    int status = -1;
    if (spawned != 0 || waitpid(pid, &status, 0) != pid) return probe;
    probe.wallSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    probe.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0 &&
               std::sscanf(text, "%lf %lf", &probe.createMicros, &probe.releaseMicros) == 2;
    return probe;
}

// The module registered once, in a registry of this run's own.
void RegisterModule() {
    static const bool registered = [] {
        const std::string registry = "/tmp/vorn_startup_bench." + std::to_string(getpid()) + ".reg";
        setenv("VORN_REGISTRY", registry.c_str(), 1);
        const std::string command = std::string(VORN_REGSVR) + " " + VORN_MODULE + " > /dev/null";
        return std::system(command.c_str()) == 0;
    }();
    if (!registered) std::fprintf(stderr, "startup_bench: the module could not be registered\n");
}

void RunSamples(benchmark::State& state, bool none) {
    RegisterModule();
    double create = 0, release = 0;
    for (auto _ : state) {
        const Probe probe = RunProbe(none);
        if (!probe.ok) {
            state.SkipWithError("startup_probe failed");
            return;
        }
        state.SetIterationTime(probe.wallSeconds);
        create += probe.createMicros;
        release += probe.releaseMicros - probe.createMicros;
    }
    const double n = static_cast<double>(state.iterations());
    state.counters["first_create_ms"] = create / n / 1000.0;
    state.counters["release_ms"] = release / n / 1000.0;
}

void BM_FirstCreationInFreshProcess(benchmark::State& state) { RunSamples(state, false); }
BENCHMARK(BM_FirstCreationInFreshProcess)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(30);

void BM_BaselineFreshProcess(benchmark::State& state) { RunSamples(state, true); }
BENCHMARK(BM_BaselineFreshProcess)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(30);

}  // namespace
