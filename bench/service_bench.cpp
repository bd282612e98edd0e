// The database served by vorndbd beside a plain unix-socket round trip
// measured in the same run:
//   - get and set of one real (UserSettings.PhaseNoiseSettings.SignalFreq)
//     over the direct socket and through a private dbus-daemon, against
//     BM_BaselineUnixRoundTrip: 64 bytes to an echo thread over a socketpair
//     and back. Each reports its median and 99th percentile (p50_us, p99_us)
//     from per-iteration times;
//   - a 400 KB trace (51,200 reals) through GetTrace, direct and through the
//     bus, against BM_BaselineUnixTrace: a small request answered with the
//     same 409,600 bytes over a socketpair (skipped while the daemon does not
//     serve GetTrace);
//   - in this process, a Service on the tool's Session served over
//     socketpairs, as the daemon serves its direct clients: the changes one
//     C++ watcher takes per second while the engine writes a real without
//     couplings (PhTraceSettings.TraceOffset; batches, entries, sequence gaps
//     and overruns counted), and the engine's write of that real with 1 and
//     8 remote watchers against the same write with none
//     (BM_BaselineWriteUnwatched).
// The daemon and the dbus-daemon are started once, with the module of the
// build; without dbus-daemon the benchmarks that need it are skipped with a
// message.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Service.h"
#include "Session.h"
#include "support/PrivateBus.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

constexpr char kBusName[] = "io.vorndb.Database1";
constexpr char kPath[] = "/io/vorndb/Database";
constexpr char kInterface[] = "io.vorndb.Database1";
constexpr char kReal[] = "UserSettings.PhaseNoiseSettings.SignalFreq";
// A real without couplings: the engine's writes of it cost the write alone.
constexpr char kPlainReal[] = "UserSettings.PhaseNoiseSettings.PhTraceSettings.TraceOffset";
constexpr char kTrace[] = "MeasurementResults.PhaseNoiseResults.DisplayTrace[0].Y";
constexpr std::size_t kTracePoints = 51200;
constexpr std::size_t kSmallMessage = 64;

// Per-iteration times of a benchmark, reported as its median and 99th
// percentile in microseconds.
class Percentiles {
public:
    void Add(Clock::duration d) { samples_.push_back(std::chrono::duration<double, std::micro>(d).count()); }
    void Report(benchmark::State& state) {
        if (samples_.empty()) return;
        std::sort(samples_.begin(), samples_.end());
        state.counters["p50_us"] = samples_[samples_.size() / 2];
        state.counters["p99_us"] = samples_[std::min(samples_.size() - 1, samples_.size() * 99 / 100)];
    }

private:
    std::vector<double> samples_;
};

// Runs `once` per iteration and reports the percentiles.
template <class F>
void Timed(benchmark::State& state, F&& once) {
    Percentiles p;
    for (auto _ : state) {
        const auto start = Clock::now();
        if (!once()) return;
        p.Add(Clock::now() - start);
    }
    p.Report(state);
}

bool OnPath(const std::string& program) {
    const char* path = std::getenv("PATH");
    std::string dirs = path ? path : "/usr/bin:/bin";
    for (std::size_t start = 0; start <= dirs.size();) {
        const std::size_t colon = std::min(dirs.find(':', start), dirs.size());
        if (access((dirs.substr(start, colon - start) + "/" + program).c_str(), X_OK) == 0) return true;
        start = colon + 1;
    }
    return false;
}

// A private dbus-daemon and vorndbd on it and on a direct socket, with one
// client connection to each path.
class Daemons {
public:
    static Daemons& Get() {
        static Daemons* daemons = new Daemons();  // stays for the whole run
        return *daemons;
    }

    // Why the daemons are not there ("" when they are).
    const std::string& missing() const { return missing_; }
    sd_bus* bus() const { return bus_; }
    sd_bus* direct() const { return direct_; }

    ~Daemons() = delete;

private:
    Daemons() {
        if (!OnPath("dbus-daemon")) {
            missing_ = "dbus-daemon is not installed: the service benchmarks need it";
            return;
        }
        dir_ = fs::temp_directory_path() / ("service_bench-" + std::to_string(getpid()));
        fs::create_directories(dir_);
        // The daemons' complaints (fd limits of an unprivileged dbus-daemon)
        // would mix with the benchmark's output.
        const std::string address = vorn::test::StartPrivateBus(dir_.string(), &busDaemon_, true);
        if (address.empty()) {
            Fail("dbus-daemon printed no address");
            return;
        }
        const std::string socket = (dir_ / "direct").string();
        setenv("VORN_REGISTRY", (dir_ / "registry.reg").c_str(), 1);
        setenv("VORNDB_MODULE", VORNDB_MODULE_PATH, 1);
        daemon_ = vorn::test::Spawn({VORNDBD_PATH, "--address", address, "--socket", socket}, -1, true);
        for (int i = 0; i < 500 && !bus_; ++i) {
            usleep(20'000);
            sd_bus* b = vorndbd::Connect(address, true);
            if (!b) continue;
            // Ready once it answers on the bus; then the socket is there too.
            sd_bus_error error{};
            sd_bus_message* reply = nullptr;
            if (sd_bus_call_method(b, kBusName, kPath, kInterface, "GetText", &error, &reply, "s", kReal) >= 0)
                bus_ = b;
            else
                sd_bus_flush_close_unref(b);
            sd_bus_error_free(&error);
            sd_bus_message_unref(reply);
        }
        if (!bus_) {
            Fail("vorndbd did not answer on the bus within 10 s");
            return;
        }
        direct_ = vorndbd::Connect("unix:path=" + socket, false);
        if (!direct_) {
            Fail("the direct socket refused a connection");
            return;
        }
        // The real has no default: it is invalid until written.
        sd_bus_error error{};
        sd_bus_message* reply = nullptr;
        if (sd_bus_call_method(direct_, nullptr, kPath, kInterface, "Set", &error, &reply, "sv", kReal, "d", 10e3) <
            0) {
            Fail(std::string("writing ") + kReal + " failed: " + (error.message ? error.message : "?"));
            sd_bus_error_free(&error);
            return;
        }
        sd_bus_message_unref(reply);
        std::atexit([] { Get().Stop(); });
    }

    void Fail(const std::string& why) {
        missing_ = why;
        Stop();
    }

    void Stop() {
        sd_bus_flush_close_unref(bus_);
        sd_bus_flush_close_unref(direct_);
        bus_ = direct_ = nullptr;
        for (pid_t* pid : {&daemon_, &busDaemon_})
            if (*pid > 0) {
                kill(*pid, SIGTERM);
                waitpid(*pid, nullptr, 0);
                *pid = 0;
            }
        std::error_code ignored;
        if (!dir_.empty()) fs::remove_all(dir_, ignored);
    }

    std::string missing_;
    fs::path dir_;
    pid_t busDaemon_ = 0, daemon_ = 0;
    sd_bus* bus_ = nullptr;
    sd_bus* direct_ = nullptr;
};

// The connection for a benchmark (direct or bus), or null after skipping it.
sd_bus* Connection(benchmark::State& state, bool onBus) {
    Daemons& d = Daemons::Get();
    if (!d.missing().empty()) {
        state.SkipWithError(d.missing().c_str());
        return nullptr;
    }
    return onBus ? d.bus() : d.direct();
}

// One call; false (and the benchmark skipped with the error) when it failed.
bool CallOk(benchmark::State& state, int r, sd_bus_error& error) {
    if (r >= 0) return true;
    const std::string message =
        std::string(error.name ? error.name : "") + ": " + (error.message ? error.message : std::strerror(-r));
    state.SkipWithError(message.c_str());
    sd_bus_error_free(&error);
    return false;
}

// Get and Set of one real ------------------------------------------------

void GetReal(benchmark::State& state, bool onBus) {
    sd_bus* bus = Connection(state, onBus);
    if (!bus) return;
    const char* destination = onBus ? kBusName : nullptr;
    Timed(state, [&] {
        sd_bus_error error{};
        sd_bus_message* reply = nullptr;
        double value = 0;
        const int r = sd_bus_call_method(bus, destination, kPath, kInterface, "Get", &error, &reply, "s", kReal);
        if (!CallOk(state, r, error)) return false;
        sd_bus_message_read(reply, "v", "d", &value);
        sd_bus_message_unref(reply);
        benchmark::DoNotOptimize(value);
        return true;
    });
}

void SetReal(benchmark::State& state, bool onBus) {
    sd_bus* bus = Connection(state, onBus);
    if (!bus) return;
    const char* destination = onBus ? kBusName : nullptr;
    double value = 10e3;
    Timed(state, [&] {
        value = value == 10e3 ? 20e3 : 10e3;  // every write changes the value
        sd_bus_error error{};
        sd_bus_message* reply = nullptr;
        const int r =
            sd_bus_call_method(bus, destination, kPath, kInterface, "Set", &error, &reply, "sv", kReal, "d", value);
        if (!CallOk(state, r, error)) return false;
        sd_bus_message_unref(reply);
        return true;
    });
}

void BM_DirectGetReal(benchmark::State& state) { GetReal(state, false); }
void BM_DirectSetReal(benchmark::State& state) { SetReal(state, false); }
void BM_BusGetReal(benchmark::State& state) { GetReal(state, true); }
void BM_BusSetReal(benchmark::State& state) { SetReal(state, true); }
BENCHMARK(BM_DirectGetReal)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DirectSetReal)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_BusGetReal)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_BusSetReal)->Unit(benchmark::kMicrosecond);

// GetTrace of 51,200 reals ----------------------------------------------

void GetTrace(benchmark::State& state, bool onBus) {
    sd_bus* bus = Connection(state, onBus);
    if (!bus) return;
    const char* destination = onBus ? kBusName : nullptr;
    static bool written = false;
    if (!written) {
        // The trace, written once over the direct socket.
        std::vector<double> points(kTracePoints);
        for (std::size_t i = 0; i < points.size(); ++i) points[i] = -60.0 - 1e-3 * static_cast<double>(i);
        sd_bus_message* call = nullptr;
        sd_bus_message* reply = nullptr;
        sd_bus_error error{};
        sd_bus* direct = Daemons::Get().direct();
        int r = sd_bus_message_new_method_call(direct, &call, nullptr, kPath, kInterface, "Set");
        if (r >= 0) r = sd_bus_message_append(call, "s", kTrace);
        if (r >= 0) r = sd_bus_message_open_container(call, 'v', "ad");
        if (r >= 0) r = sd_bus_message_append_array(call, 'd', points.data(), points.size() * sizeof(double));
        if (r >= 0) r = sd_bus_message_close_container(call);
        if (r >= 0) r = sd_bus_call(direct, call, 0, &error, &reply);
        sd_bus_message_unref(call);
        sd_bus_message_unref(reply);
        if (!CallOk(state, r, error)) return;
        written = true;
    }
    std::vector<double> points(kTracePoints);
    Timed(state, [&] {
        sd_bus_error error{};
        sd_bus_message* reply = nullptr;
        const int r = sd_bus_call_method(bus, destination, kPath, kInterface, "GetTrace", &error, &reply, "s", kTrace);
        if (r < 0 && error.name && std::strcmp(error.name, SD_BUS_ERROR_UNKNOWN_METHOD) == 0) {
            sd_bus_error_free(&error);
            state.SkipWithError("vorndbd does not serve GetTrace yet");
            return false;
        }
        if (!CallOk(state, r, error)) return false;
        const char* type = nullptr;
        int fd = -1;
        bool ok = sd_bus_message_read(reply, "s", &type) >= 0 && sd_bus_message_skip(reply, "at") >= 0 &&
                  sd_bus_message_read(reply, "h", &fd) >= 0;
        struct stat st {};
        ok = ok && fstat(fd, &st) == 0 && static_cast<std::size_t>(st.st_size) >= kTracePoints * sizeof(double) &&
             pread(fd, points.data(), kTracePoints * sizeof(double), 0) ==
                 static_cast<ssize_t>(kTracePoints * sizeof(double));
        sd_bus_message_unref(reply);
        if (!ok) {
            state.SkipWithError("GetTrace gave no readable memfd of 51,200 reals");
            return false;
        }
        benchmark::DoNotOptimize(points.data());
        return true;
    });
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kTracePoints * sizeof(double)));
}

void BM_DirectGetTrace(benchmark::State& state) { GetTrace(state, false); }
void BM_BusGetTrace(benchmark::State& state) { GetTrace(state, true); }
BENCHMARK(BM_DirectGetTrace)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_BusGetTrace)->Unit(benchmark::kMicrosecond);

// The baselines: a plain unix-socket round trip -------------------------

// An echo thread on one end of a socketpair: for every request of
// `requestBytes` it sends back `replyBytes`.
class Echo {
public:
    Echo(std::size_t requestBytes, std::size_t replyBytes) : request_(requestBytes), reply_(replyBytes, 'r') {
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds_);
        thread_ = std::thread([this] {
            std::vector<char> in(request_);
            while (ReadAll(fds_[1], in.data(), in.size()) && WriteAll(fds_[1], reply_.data(), reply_.size())) {
            }
        });
    }
    ~Echo() {
        shutdown(fds_[0], SHUT_RDWR);
        thread_.join();
        close(fds_[0]);
        close(fds_[1]);
    }
    int fd() const { return fds_[0]; }
    std::size_t request() const { return request_; }

    static bool ReadAll(int fd, char* data, std::size_t size) {
        for (std::size_t done = 0; done < size;) {
            const ssize_t n = read(fd, data + done, size - done);
            if (n <= 0) return false;
            done += static_cast<std::size_t>(n);
        }
        return true;
    }
    static bool WriteAll(int fd, const char* data, std::size_t size) {
        for (std::size_t done = 0; done < size;) {
            const ssize_t n = write(fd, data + done, size - done);
            if (n <= 0) return false;
            done += static_cast<std::size_t>(n);
        }
        return true;
    }

private:
    std::size_t request_;
    std::vector<char> reply_;
    int fds_[2] = {-1, -1};
    std::thread thread_;
};

void RoundTrips(benchmark::State& state, std::size_t replyBytes) {
    Echo echo(kSmallMessage, replyBytes);
    std::vector<char> request(kSmallMessage, 'q'), reply(replyBytes);
    Timed(state, [&] {
        if (!Echo::WriteAll(echo.fd(), request.data(), request.size()) ||
            !Echo::ReadAll(echo.fd(), reply.data(), reply.size())) {
            state.SkipWithError("the echo thread stopped");
            return false;
        }
        return true;
    });
}

void BM_BaselineUnixRoundTrip(benchmark::State& state) { RoundTrips(state, kSmallMessage); }
void BM_BaselineUnixTrace(benchmark::State& state) {
    RoundTrips(state, kTracePoints * sizeof(double));
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kTracePoints * sizeof(double)));
}
BENCHMARK(BM_BaselineUnixRoundTrip)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_BaselineUnixTrace)->Unit(benchmark::kMicrosecond);

// In this process: the Service on the tool's Session ---------------------

// Watchers of the engine's writes: client connections to a Service in this
// process, each over a socketpair the Service serves as the daemon serves a
// direct client. The Service's loop runs on its own thread; the clients are
// read by a reader thread while it runs (and used by the benchmark's thread
// only while it is stopped).
class InProcess {
public:
    static constexpr int kClients = 8;

    static InProcess& Get() {
        static InProcess* p = new InProcess();  // stays for the whole run (one database per process)
        return *p;
    }
    ~InProcess() = delete;

    IDatabase* database() { return session_->Database(); }
    sd_bus* client(int i) { return clients_[static_cast<std::size_t>(i)]; }

    // Makes clients [0, n) watch exactly `names` (and the others nothing).
    bool WatchOnly(int n, const std::vector<std::string>& names) {
        StopReader();
        for (int i = 0; i < kClients; ++i) {
            auto& watched = watched_[static_cast<std::size_t>(i)];
            const std::vector<std::string>& want = i < n ? names : std::vector<std::string>{};
            if (watched == want) continue;
            if (!watched.empty() && !Call(i, "Unwatch", watched)) return false;
            watched.clear();
            if (!want.empty() && !Call(i, "Watch", want)) return false;
            watched = want;
        }
        StartReader();
        return true;
    }

    // What the reader saw of client 0's Changed signals.
    struct Seen {
        std::uint64_t batches = 0, entries = 0, gaps = 0, overruns = 0, sequence = 0;
        std::map<std::string, double> latest;
    };
    Seen Snapshot() {
        std::lock_guard<std::mutex> lock(mutex_);
        return seen_;
    }
    void ResetSeen() {
        std::lock_guard<std::mutex> lock(mutex_);
        const std::uint64_t sequence = seen_.sequence;
        seen_ = Seen{};
        seen_.sequence = sequence;
    }

private:
    InProcess() {
        setenv("VORN_REGISTRY", (fs::temp_directory_path() / "service_bench-registry.reg").c_str(), 1);
        setenv("VORNDB_MODULE", VORNDB_MODULE_PATH, 1);
        session_ = std::make_unique<vorndb::Session>();
        session_->Database()->RestartNotifications();
        sd_event_new(&event_);
        service_ = std::make_unique<vorndbd::Service>(*session_, vorndbd::WritePolicy{{geteuid()}, false, 0}, event_);
        for (int i = 0; i < kClients; ++i) {
            int fds[2];
            socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds);
            sd_bus* server = nullptr;
            sd_bus_slot* slot = nullptr;
            sd_id128_t id{};
            sd_id128_randomize(&id);
            sd_bus_new(&server);
            sd_bus_set_fd(server, fds[0], fds[0]);
            sd_bus_set_server(server, 1, id);
            sd_bus_start(server);
            sd_bus_attach_event(server, event_, 0);
            service_->Attach(server, &slot);
            sd_bus* client = nullptr;
            sd_bus_new(&client);
            sd_bus_set_fd(client, fds[1], fds[1]);
            sd_bus_set_bus_client(client, 0);
            sd_bus_start(client);
            sd_bus_add_filter(client, nullptr, &InProcess::OnMessage, i == 0 ? this : nullptr);
            clients_.push_back(client);
        }
        watched_.resize(kClients);
        loop_ = std::thread([this] {
            while (!stopLoop_) sd_event_run(event_, 50'000);
        });
    }

    bool Call(int i, const char* method, const std::vector<std::string>& names) {
        sd_bus* bus = clients_[static_cast<std::size_t>(i)];
        sd_bus_message* call = nullptr;
        sd_bus_message* reply = nullptr;
        sd_bus_error error{};
        int r = sd_bus_message_new_method_call(bus, &call, nullptr, kPath, kInterface, method);
        if (r >= 0) r = sd_bus_message_open_container(call, 'a', "s");
        for (const std::string& name : names)
            if (r >= 0) r = sd_bus_message_append(call, "s", name.c_str());
        if (r >= 0) r = sd_bus_message_close_container(call);
        if (r >= 0) r = sd_bus_call(bus, call, 0, &error, &reply);
        if (r >= 0 && std::strcmp(method, "Watch") == 0 && i == 0) {
            std::uint64_t sequence = 0;
            sd_bus_message_read(reply, "t", &sequence);
            std::lock_guard<std::mutex> lock(mutex_);
            seen_.sequence = sequence;
        }
        sd_bus_error_free(&error);
        sd_bus_message_unref(call);
        sd_bus_message_unref(reply);
        return r >= 0;
    }

    void StartReader() {
        stopReader_ = false;
        reader_ = std::thread([this] {
            std::vector<pollfd> fds(clients_.size());
            while (!stopReader_) {
                for (std::size_t i = 0; i < clients_.size(); ++i) {
                    while (sd_bus_process(clients_[i], nullptr) > 0) {
                    }
                    fds[i] = {sd_bus_get_fd(clients_[i]), static_cast<short>(sd_bus_get_events(clients_[i])), 0};
                }
                poll(fds.data(), fds.size(), 10);
            }
        });
    }

    void StopReader() {
        if (!reader_.joinable()) return;
        stopReader_ = true;
        reader_.join();
    }

    // Client 0's Changed signals: batches, entries, the latest real per name,
    // sequence gaps and overrun flags.
    static int OnMessage(sd_bus_message* m, void* self, sd_bus_error*) {
        if (!self || !sd_bus_message_is_signal(m, kInterface, "Changed")) return 0;
        auto* p = static_cast<InProcess*>(self);
        std::uint64_t sequence = 0;
        int overrun = 0;
        if (sd_bus_message_read(m, "tb", &sequence, &overrun) < 0 || sd_bus_message_enter_container(m, 'a', "(sv)") < 0)
            return 0;
        std::lock_guard<std::mutex> lock(p->mutex_);
        Seen& s = p->seen_;
        ++s.batches;
        if (overrun) ++s.overruns;
        if (s.sequence && sequence > s.sequence + 1) s.gaps += sequence - s.sequence - 1;
        s.sequence = std::max(s.sequence, sequence);
        while (sd_bus_message_enter_container(m, 'r', "sv") > 0) {
            const char* name = nullptr;
            double value = 0;
            if (sd_bus_message_read(m, "s", &name) < 0) break;
            if (sd_bus_message_read(m, "v", "d", &value) < 0) sd_bus_message_skip(m, "v");
            s.latest[name] = value;
            ++s.entries;
            sd_bus_message_exit_container(m);
        }
        return 1;
    }

    std::unique_ptr<vorndb::Session> session_;
    sd_event* event_ = nullptr;
    std::unique_ptr<vorndbd::Service> service_;
    std::vector<sd_bus*> clients_;
    std::vector<std::vector<std::string>> watched_;
    std::thread loop_, reader_;
    std::atomic<bool> stopLoop_{false}, stopReader_{false};
    std::mutex mutex_;
    Seen seen_;
};

vorn::ComPtr<IParameterReal> RealParameter(IDatabase* db, const std::string& name) {
    std::u16string wide(name.begin(), name.end());
    vorn::ComPtr<IParameterReal> p;
    if (db->GetParameter(wide.data(), IID_IParameterReal, p.put_void()) != S_OK) std::abort();
    return p;
}

// The engine writes one watched real; the watcher (client 0) counts what it
// receives. One iteration: 10,000 writes of distinct values, then the wait
// until the last value written has reached the watcher (manual time).
void BM_NotifyOneWatcher(benchmark::State& state) {
    constexpr int kWrites = 10000;
    InProcess& p = InProcess::Get();
    if (!p.WatchOnly(1, {kPlainReal})) return state.SkipWithError("Watch failed");
    vorn::ComPtr<IParameterReal> real = RealParameter(p.database(), kPlainReal);
    p.ResetSeen();
    double value = 0;
    std::uint64_t written = 0;
    for (auto _ : state) {
        const auto start = Clock::now();
        for (int i = 0; i < kWrites; ++i) {
            value = value >= 100 ? -100 : value + 1e-3;
            real->put_Value(value);
        }
        written += kWrites;
        const auto deadline = Clock::now() + std::chrono::seconds(5);
        for (;;) {
            const InProcess::Seen seen = p.Snapshot();
            const auto it = seen.latest.find(kPlainReal);
            if (it != seen.latest.end() && it->second == value) break;
            if (Clock::now() > deadline) return state.SkipWithError("the last value did not reach the watcher in 5 s");
            std::this_thread::yield();
        }
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    }
    const InProcess::Seen seen = p.Snapshot();
    state.SetItemsProcessed(static_cast<std::int64_t>(written));
    state.counters["batches"] = static_cast<double>(seen.batches);
    state.counters["entries"] = static_cast<double>(seen.entries);
    state.counters["gaps"] = static_cast<double>(seen.gaps);
    state.counters["overruns"] = static_cast<double>(seen.overruns);
}
BENCHMARK(BM_NotifyOneWatcher)->UseManualTime()->Unit(benchmark::kMillisecond);

// The engine's write of a real that `watchers` remote clients watch.
void WriteWatched(benchmark::State& state, int watchers) {
    InProcess& p = InProcess::Get();
    if (!p.WatchOnly(watchers, {kPlainReal})) return state.SkipWithError("Watch failed");
    vorn::ComPtr<IParameterReal> real = RealParameter(p.database(), kPlainReal);
    double value = 0;
    for (auto _ : state) {
        value = value >= 100 ? -100 : value + 1e-3;
        real->put_Value(value);
    }
    // The notifications of the writes are delivered outside the timing.
    p.database()->WaitForNotifications(5000);
}

void BM_WriteWatched(benchmark::State& state) { WriteWatched(state, static_cast<int>(state.range(0))); }
void BM_BaselineWriteUnwatched(benchmark::State& state) { WriteWatched(state, 0); }
BENCHMARK(BM_WriteWatched)->Arg(1)->Arg(8);
BENCHMARK(BM_BaselineWriteUnwatched);

}  // namespace
