// vorndbd end to end: each test starts a private dbus-daemon and the daemon
// against it, waits for READY=1 on a notify socket of its own, and drives the
// daemon as a C++ client over the bus and over the direct socket (every
// behaviour on both), and with busctl as an independent client.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "Service.h"
#include "support/PrivateBus.h"

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

const std::string kFreq = "UserSettings.PhaseNoiseSettings.SignalFreq";  // real, Hz, 20 Hz .. 50 GHz
const std::string kRbw = "UserSettings.PhaseNoiseSettings.RbwToVbw";     // enumeration eRBWTOVBW, 0 .. 2
const std::string kAutoscale = "UserSettings.PhaseNoiseSettings.Autoscale";
const std::string kScreen = "DisplaySettings.ScreenTraceConfig";                     // integer array, capacity 2
const std::string kRawX = "MeasurementResults.PhaseNoiseResults.RawTrace[0].X";      // real array, capacity 102400
const std::string kColors = "EquipSettings.BaseColors";                              // integer array, capacity 64
const std::string kIData = "MeasurementResults.PhaseNoiseResults.PLLResults.IData";  // buffer, none attached
constexpr char kPath[] = "/io/vorndb/Database";
constexpr char kIface[] = "io.vorndb.Database1";

using vorn::test::Spawn;

// Ends a process with SIGTERM; its exit status (-1 if it did not exit).
int Stop(pid_t pid) {
    if (pid <= 0) return -1;
    kill(pid, SIGTERM);
    int status = 0;
    for (int i = 0; i < 3000; ++i) {
        if (waitpid(pid, &status, WNOHANG) == pid) return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        std::this_thread::sleep_for(10ms);
    }
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    return -1;
}

// The outcome of one call: the error's name and message, or the reply.
struct Outcome {
    std::string error;
    std::string message;
    sd_bus_message* reply = nullptr;
    Outcome() = default;
    Outcome(Outcome&& o) noexcept
        : error(std::move(o.error)), message(std::move(o.message)), reply(std::exchange(o.reply, nullptr)) {}
    ~Outcome() { sd_bus_message_unref(reply); }
};

// One Changed signal: its sequence number, overrun flag, and the changes
// (real values by name; the names of all changes in order).
struct Batch {
    std::uint64_t sequence = 0;
    bool overrun = false;
    std::map<std::string, double> reals;
    std::vector<std::string> names;
};

// Reads an a(sv) of changes or a snapshot into `batch`.
void ReadChanges(sd_bus_message* m, Batch& batch) {
    sd_bus_message_enter_container(m, 'a', "(sv)");
    while (sd_bus_message_enter_container(m, 'r', "sv") > 0) {
        const char* name = nullptr;
        sd_bus_message_read(m, "s", &name);
        batch.names.push_back(name);
        const char* contents = nullptr;
        sd_bus_message_peek_type(m, nullptr, &contents);
        double v = 0;
        if (contents && std::string(contents) == "d" && sd_bus_message_read(m, "v", "d", &v) >= 0)
            batch.reals[name] = v;
        else
            sd_bus_message_skip(m, "v");
        sd_bus_message_exit_container(m);
    }
    sd_bus_message_exit_container(m);
}

// Collects the Changed signals a connection receives, with a filter (no
// match rule: the daemon addresses them to the client).
struct ChangeLog {
    std::vector<Batch> batches;
    sd_bus_slot* slot = nullptr;
    explicit ChangeLog(sd_bus* bus) { sd_bus_add_filter(bus, &slot, &ChangeLog::OnMessage, this); }
    ~ChangeLog() { sd_bus_slot_unref(slot); }
    static int OnMessage(sd_bus_message* m, void* self, sd_bus_error*) {
        if (!sd_bus_message_is_signal(m, "io.vorndb.Database1", "Changed")) return 0;
        Batch batch;
        int overrun = 0;
        sd_bus_message_read(m, "tb", &batch.sequence, &overrun);
        batch.overrun = overrun != 0;
        ReadChanges(m, batch);
        static_cast<ChangeLog*>(self)->batches.push_back(std::move(batch));
        return 0;
    }
};

// Processes `bus` until `done` holds or 10 s pass; whether it held.
bool Pump(sd_bus* bus, const std::function<bool()>& done) {
    const auto end = std::chrono::steady_clock::now() + 10s;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end) return false;
        if (sd_bus_process(bus, nullptr) > 0) continue;
        sd_bus_wait(bus, 50'000);
    }
    return true;
}

// A memfd holding `bytes`, sealed with `seals`.
int Memfd(const std::vector<char>& bytes, int seals) {
    const int fd = memfd_create("trace", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (fd < 0 || write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()) ||
        (seals && fcntl(fd, F_ADD_SEALS, seals) < 0))
        ADD_FAILURE() << "cannot make a memfd";
    return fd;
}

constexpr int kSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE;

// Everything a descriptor holds from its start.
std::vector<char> Contents(int fd) {
    std::vector<char> bytes;
    char chunk[65536];
    for (ssize_t n; (n = pread(fd, chunk, sizeof chunk, static_cast<off_t>(bytes.size()))) > 0;)
        bytes.insert(bytes.end(), chunk, chunk + n);
    return bytes;
}

// Everything a pipe gives until its writers close it.
std::vector<char> Drink(int fd) {
    std::vector<char> bytes;
    char chunk[65536];
    for (ssize_t n; (n = read(fd, chunk, sizeof chunk)) > 0;) bytes.insert(bytes.end(), chunk, chunk + n);
    return bytes;
}

class ServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = fs::temp_directory_path() / ("vorndbd-test-" + std::to_string(getpid()));
        fs::remove_all(dir_);
        fs::create_directories(dir_);
        busAddress_ = vorn::test::StartPrivateBus(dir_.string(), &busDaemon_);
        ASSERT_GT(busDaemon_, 0) << "dbus-daemon cannot be started";
        ASSERT_NE(busAddress_, "") << "dbus-daemon printed no address";
        directAddress_ = "unix:path=" + (dir_ / "direct").string();
    }

    void TearDown() override {
        sd_bus_flush_close_unref(bus_);
        sd_bus_flush_close_unref(direct_);
        if (daemon_ > 0) Stop(daemon_);
        Stop(busDaemon_);
        fs::remove_all(dir_);
    }

    // Starts vorndbd and waits for READY=1; then connects both clients.
    void StartDaemon(const std::vector<std::string>& extra = {}) {
        const std::string notifyPath = (dir_ / "notify").string();
        const int notify = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, notifyPath.c_str(), sizeof address.sun_path - 1);
        ASSERT_EQ(bind(notify, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        timeval timeout{60, 0};
        setsockopt(notify, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
        setenv("NOTIFY_SOCKET", notifyPath.c_str(), 1);
        setenv("VORN_REGISTRY", (dir_ / "registry.reg").c_str(), 1);
        setenv("VORNDB_MODULE", VORNDB_MODULE_PATH, 1);
        setenv("VORN_DRIVES", (dir_ / "drives").c_str(), 1);
        std::vector<std::string> argv = {VORNDBD_PATH, "--address", busAddress_, "--socket",
                                         (dir_ / "direct").string()};
        argv.insert(argv.end(), extra.begin(), extra.end());
        daemon_ = Spawn(argv);
        unsetenv("NOTIFY_SOCKET");
        ASSERT_GT(daemon_, 0);
        char message[256] = {};
        const ssize_t n = recv(notify, message, sizeof message - 1, 0);
        close(notify);
        ASSERT_GT(n, 0) << "vorndbd sent nothing to the notify socket";
        ASSERT_NE(std::strstr(message, "READY=1"), nullptr) << message;
        bus_ = vorndbd::Connect(busAddress_, true);
        direct_ = vorndbd::Connect(directAddress_, false);
        ASSERT_TRUE(bus_ && direct_);
    }

    // Calls `method` with arguments appended by `append`.
    template <class Append>
    Outcome CallWith(sd_bus* bus, const char* method, Append append) {
        Outcome out;
        sd_bus_message* call = nullptr;
        const char* destination = sd_bus_is_bus_client(bus) > 0 ? "io.vorndb.Database1" : nullptr;
        EXPECT_GE(sd_bus_message_new_method_call(bus, &call, destination, kPath, kIface, method), 0);
        append(call);
        sd_bus_error error{};
        if (sd_bus_call(bus, call, 10'000'000, &error, &out.reply) < 0) {
            out.error = error.name ? error.name : "";
            out.message = error.message ? error.message : "";
        }
        sd_bus_error_free(&error);
        sd_bus_message_unref(call);
        return out;
    }

    // Calls `method` with the arguments of sd_bus_message_append.
    template <class... Args>
    Outcome Call(sd_bus* bus, const char* method, const char* types, Args... args) {
        return CallWith(bus, method, [&](sd_bus_message* m) { sd_bus_message_append(m, types, args...); });
    }

    // The value of a real parameter, read with Get.
    double GetReal(sd_bus* bus, const std::string& name) {
        const Outcome out = Call(bus, "Get", "s", name.c_str());
        double v = -1;
        EXPECT_EQ(out.error, "") << out.message;
        if (out.reply) sd_bus_message_read(out.reply, "v", "d", &v);
        return v;
    }

    std::string GetText(sd_bus* bus, const std::string& name) {
        const Outcome out = Call(bus, "GetText", "s", name.c_str());
        const char *value = "", *status = "", *limits = "";
        if (out.reply) sd_bus_message_read(out.reply, "sss", &value, &status, &limits);
        return out.error.empty() ? value : out.error;
    }

    std::vector<sd_bus*> Clients() { return {bus_, direct_}; }

    // Calls `method` with the array `names`; a Watch reply's sequence number
    // and snapshot land in `snapshot`.
    Outcome CallNames(sd_bus* bus, const char* method, const std::vector<std::string>& names,
                      Batch* snapshot = nullptr) {
        Outcome out = CallWith(bus, method, [&](sd_bus_message* m) {
            sd_bus_message_open_container(m, 'a', "s");
            for (const std::string& n : names) sd_bus_message_append(m, "s", n.c_str());
            sd_bus_message_close_container(m);
        });
        if (snapshot && out.reply) {
            sd_bus_message_read(out.reply, "t", &snapshot->sequence);
            ReadChanges(out.reply, *snapshot);
        }
        return out;
    }

    // Set of `name` to a variant of `type`: "d" the real, "u" the number 7,
    // "s" the text.
    Outcome SetValue(sd_bus* bus, const std::string& name, const char* type, const std::string& text, double real) {
        if (*type == 'd') return Call(bus, "Set", "sv", name.c_str(), "d", real);
        if (*type == 'u') return Call(bus, "Set", "sv", name.c_str(), "u", 7u);
        return Call(bus, "Set", "sv", name.c_str(), "s", text.c_str());
    }

    void SetReal(sd_bus* bus, const std::string& name, double value) {
        const Outcome out = Call(bus, "Set", "sv", name.c_str(), "d", value);
        EXPECT_EQ(out.error, "") << out.message;
    }

    // SetTrace of `name` with a memfd of `bytes` sealed with `seals`.
    Outcome SetTrace(sd_bus* bus, const std::string& name, const std::vector<std::uint64_t>& shape,
                     const std::vector<char>& bytes, int seals) {
        const int fd = Memfd(bytes, seals);
        Outcome out = CallWith(bus, "SetTrace", [&](sd_bus_message* m) {
            sd_bus_message_append(m, "s", name.c_str());
            sd_bus_message_append_array(m, 't', shape.data(), shape.size() * sizeof(std::uint64_t));
            sd_bus_message_append(m, "h", fd);
        });
        close(fd);
        return out;
    }

    // GetTrace of `name`: its type letter, shape and bytes; checks the seals.
    std::string GetTrace(sd_bus* bus, const std::string& name, std::vector<std::uint64_t>& shape,
                         std::vector<char>& bytes) {
        const Outcome out = Call(bus, "GetTrace", "s", name.c_str());
        if (!out.reply) return out.error;
        const char* type = "";
        const void* data = nullptr;
        std::size_t size = 0;
        int fd = -1;
        sd_bus_message_read(out.reply, "s", &type);
        sd_bus_message_read_array(out.reply, 't', &data, &size);
        sd_bus_message_read(out.reply, "h", &fd);
        const auto* first = static_cast<const std::uint64_t*>(data);
        shape.assign(first, first + size / sizeof(std::uint64_t));
        EXPECT_EQ(fcntl(fd, F_GET_SEALS), kSeals | F_SEAL_SEAL);
        bytes = Contents(fd);
        return type;
    }

    // The keys Describe answers for `name`, and the number of clients
    // watching it.
    std::vector<std::string> Describe(sd_bus* bus, const std::string& name, std::uint32_t* watchers = nullptr) {
        const Outcome out = Call(bus, "Describe", "s", name.c_str());
        std::vector<std::string> keys;
        sd_bus_message_enter_container(out.reply, 'a', "{sv}");
        while (out.reply && sd_bus_message_enter_container(out.reply, 'e', "sv") > 0) {
            const char* key = nullptr;
            sd_bus_message_read(out.reply, "s", &key);
            keys.push_back(key);
            if (watchers && keys.back() == "Watchers")
                sd_bus_message_read(out.reply, "v", "u", watchers);
            else
                sd_bus_message_skip(out.reply, "v");
            sd_bus_message_exit_container(out.reply);
        }
        return keys;
    }

    std::uint32_t Watchers(sd_bus* bus, const std::string& name) {
        std::uint32_t watchers = 0;
        Describe(bus, name, &watchers);
        return watchers;
    }
    fs::path dir_;
    std::string busAddress_, directAddress_;
    pid_t busDaemon_ = -1, daemon_ = -1;
    sd_bus* bus_ = nullptr;
    sd_bus* direct_ = nullptr;
};

// Writes: typed or as text, with the HRESULT back (S_FALSE for no change).
TEST_F(ServiceTest, WritesRunThroughTheParametersAndReturnTheirResult) {
    StartDaemon();
    struct Case {
        std::string name;
        const char* type;  // of the variant
        std::string text;  // for "s"
        double real;       // for "d"
        int result;
        std::string readBack;
    };
    const Case cases[] = {
        {kFreq, "s", "10 kHz", 0, 0, "10 kHz"},
        {kFreq, "s", "10kHz", 0, 1, "10 kHz"},
        {kFreq, "d", "", 10e3, 1, "10 kHz"},
        {kFreq, "d", "", 2.5e6, 0, "2.5 MHz"},
        {kRbw, "s", "1to1", 0, 0, "eRBWTOVBW_1TO1 (1)"},
        {kAutoscale, "s", "off", 0, 0, "false"},
        {kScreen, "s", "1, 2", 0, 0, "[1, 2]"},
        // A line's member starts its file's write: answered from the worker.
        {"LimitLineData.Line[0].XShift", "d", "", 3, 0, "3"},
    };
    for (sd_bus* bus : Clients()) {
        const Outcome reset = Call(bus, "Reset", "s", "");
        ASSERT_EQ(reset.error, "") << reset.message;
        for (const Case& c : cases) {
            SCOPED_TRACE(c.name + " " + c.text + (bus == bus_ ? " (bus)" : " (direct)"));
            const Outcome out = SetValue(bus, c.name, c.type, c.text, c.real);
            ASSERT_EQ(out.error, "") << out.message;
            int result = -1;
            sd_bus_message_read(out.reply, "i", &result);
            EXPECT_EQ(result, c.result);
            EXPECT_EQ(GetText(bus, c.name), c.readBack);
        }
    }
    EXPECT_DOUBLE_EQ(GetReal(direct_, kFreq), 2.5e6);

    // Export files only on the daemon's drives; one that cannot be written:
    // the value is stored, and the component's reason comes back as
    // FileNotWritten.
    for (sd_bus* bus : Clients()) {
        const Outcome outside = Call(bus, "Set", "sv", "OtherSettings.NewTraceFile", "s", "/tmp/x.csv");
        EXPECT_EQ(outside.error, "io.vorndb.Error.AccessDenied");
        EXPECT_NE(outside.message.find("only on its drives"), std::string::npos) << outside.message;
        const Outcome named = Call(bus, "Set", "sv", "OtherSettings.NewTraceFile", "s", "D:\\NoSuchDirectory\\x.csv");
        ASSERT_EQ(named.error, "") << named.message;
        const Outcome exported = Call(bus, "Set", "sv", "OtherSettings.ExportedTrace", "b", 1);
        EXPECT_EQ(exported.error, "io.vorndb.Error.FileNotWritten");
        EXPECT_NE(exported.message.find("x.csv cannot be written"), std::string::npos) << exported.message;
    }
}

// A refused write names the error and the reason and changes nothing.
TEST_F(ServiceTest, RefusedWritesLeaveTheTreeUnchanged) {
    StartDaemon();
    struct Case {
        std::string name;
        const char* type;
        std::string text;
        double real;
        std::string error;
        std::string reason;
    };
    const Case cases[] = {
        {kFreq, "d", "", 100e9, "io.vorndb.Error.InvalidArgument", "100 GHz is above the upper limit 50 GHz"},
        {kFreq, "s", "ten", 0, "io.vorndb.Error.InvalidValue", "cannot read 'ten'"},
        {kFreq, "u", "", 0, "io.vorndb.Error.WrongType", "takes a value of type 'd' or text"},
        {kRbw, "s", "3", 0, "io.vorndb.Error.InvalidArgument", "3 is not a member of the enumeration"},
        {kScreen, "s", "1,2,3", 0, "io.vorndb.Error.", ""},
        {"UserSettings.PhaseNoiseSettings", "s", "1", 0, "io.vorndb.Error.WrongType", "it takes no value"},
        {"UserSettings.PhaseNoiseSettings.SignalFrq", "d", "", 1e3, "io.vorndb.Error.UnknownName", kFreq},
    };
    for (sd_bus* bus : Clients()) {
        const std::string before = GetText(bus, kFreq) + GetText(bus, kRbw) + GetText(bus, kScreen);
        for (const Case& c : cases) {
            SCOPED_TRACE(c.name + " " + c.text + (bus == bus_ ? " (bus)" : " (direct)"));
            const Outcome out = SetValue(bus, c.name, c.type, c.text, c.real);
            EXPECT_EQ(out.error.rfind(c.error, 0), 0u) << out.error << ": " << out.message;
            EXPECT_NE(out.message.find(c.reason), std::string::npos) << out.message;
        }
        EXPECT_EQ(GetText(bus, kFreq) + GetText(bus, kRbw) + GetText(bus, kScreen), before);
    }
}

// SetMany checks every item before writing any; a parameter's refusal stops
// the writes there.
TEST_F(ServiceTest, SetManyChecksEveryItemFirst) {
    StartDaemon();
    const std::string before = GetText(bus_, kFreq);
    const Outcome refused = Call(bus_, "SetMany", "a(sv)", 2, kFreq.c_str(), "s", "1 kHz", "No.Such.Name", "d", 1.0);
    EXPECT_EQ(refused.error, "io.vorndb.Error.UnknownName");
    EXPECT_EQ(GetText(bus_, kFreq), before);

    const Outcome partial = Call(direct_, "SetMany", "a(sv)", 3, kFreq.c_str(), "s", "1 kHz", kFreq.c_str(), "d", 1e12,
                                 kRbw.c_str(), "u", 2u);
    ASSERT_EQ(partial.error, "") << partial.message;
    std::vector<std::pair<int, std::string>> results;
    sd_bus_message_enter_container(partial.reply, 'a', "(is)");
    int hr;
    const char* reason;
    while (sd_bus_message_read(partial.reply, "(is)", &hr, &reason) > 0) results.emplace_back(hr, reason);
    ASSERT_EQ(results.size(), 2u);
    EXPECT_EQ(results[0].first, 0);
    EXPECT_LT(results[1].first, 0);
    EXPECT_NE(results[1].second.find("InvalidArgument"), std::string::npos) << results[1].second;
    EXPECT_EQ(GetText(bus_, kFreq), "1 kHz");
}

// Describe and List answer what a client needs to show a node.
TEST_F(ServiceTest, DescribeAndListShowTheTree) {
    StartDaemon();
    EXPECT_EQ(Describe(bus_, kRbw), (std::vector<std::string>{"Name", "Family", "Status", "Watchers", "Minimum",
                                                              "Maximum", "Enumeration", "Members"}));
    const Outcome listed = Call(direct_, "List", "su", "", 1u);
    ASSERT_EQ(listed.error, "") << listed.message;
    std::vector<std::string> names;
    sd_bus_message_enter_container(listed.reply, 'a', "(ss)");
    const char *name, *family;
    while (sd_bus_message_read(listed.reply, "(ss)", &name, &family) > 0) names.push_back(name);
    EXPECT_EQ(names.front(), "InstrumentConfigInfo");
    EXPECT_NE(std::find(names.begin(), names.end(), "UserSettings"), names.end());
    for (const std::string& n : names) EXPECT_EQ(n.find('.'), std::string::npos) << n;
}

// Callers outside the writers read but may not write.
TEST_F(ServiceTest, ReadersGetAccessDenied) {
    StartDaemon({"--write-uid", "4242"});
    const std::string before = GetText(bus_, kFreq);
    const int fd = Memfd(std::vector<char>(8), kSeals);
    for (sd_bus* bus : Clients()) {
        const Outcome refused[] = {Call(bus, "Set", "sv", kFreq.c_str(), "s", "1 kHz"), Call(bus, "Reset", "s", ""),
                                   Call(bus, "Load", "h", fd), SetTrace(bus, kRawX, {1}, std::vector<char>(8), kSeals)};
        for (const Outcome& out : refused) EXPECT_EQ(out.error, "io.vorndb.Error.AccessDenied") << out.message;
        EXPECT_EQ(GetText(bus, kFreq), before);
    }
    close(fd);
}

// Hostile input: oversized calls are refused, a client that sends garbage is
// cut off, and the others are still served.
TEST_F(ServiceTest, HostileClientsAreRefusedAndOthersServed) {
    StartDaemon();
    SetReal(bus_, kFreq, 1e3);
    EXPECT_EQ(CallNames(direct_, "GetMany", std::vector<std::string>(4097, kFreq)).error, "io.vorndb.Error.TooLarge");
    EXPECT_EQ(Call(bus_, "Get", "s", std::string(5000, 'x').c_str()).error, "io.vorndb.Error.TooLarge");
    EXPECT_EQ(Call(bus_, "Get", "u", 1u).error, "org.freedesktop.DBus.Error.InvalidArgs");
    for (const char* garbage : {"\0AUTH EXTERNAL 30\r\nBEGIN\r\nxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx", "\0"}) {
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, (dir_ / "direct").c_str(), sizeof address.sun_path - 1);
        ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_GT(write(fd, garbage, std::strlen(garbage + 1) + 1), 0);
        close(fd);
    }
    for (sd_bus* bus : Clients()) EXPECT_DOUBLE_EQ(GetReal(bus, kFreq), 1e3);
}

// busctl, an independent client, sees the interface, the values and the
// errors.
TEST_F(ServiceTest, BusctlSeesTheInterface) {
    StartDaemon();
    auto run = [&](const std::string& args) {
        const std::string command = "busctl --address=" + busAddress_ + " " + args + " 2>&1";
        std::string output;
        FILE* pipe = popen(command.c_str(), "r");
        char buffer[4096];
        for (std::size_t n; pipe && (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) output.append(buffer, n);
        if (pipe) pclose(pipe);
        return output;
    };
    const std::string call = std::string("call io.vorndb.Database1 ") + kPath + " " + kIface + " ";
    const std::string introspection = run(std::string("introspect io.vorndb.Database1 ") + kPath + " " + kIface);
    for (const char* method :
         {".Get ", ".GetText ", ".GetMany ", ".Set ", ".SetMany ", ".Describe ", ".List ", ".Reset ", ".Watch ",
          ".Unwatch ", ".GetTrace ", ".SetTrace ", ".Save ", ".Load ", ".WaitForNotifications ", ".Changed "})
        EXPECT_NE(introspection.find(method), std::string::npos) << method << "\n" << introspection;
    EXPECT_EQ(run(call + "Set sv " + kFreq + " s '3 kHz'"), "i 0\n");
    EXPECT_EQ(run(call + "GetText s " + kFreq), "sss \"3 kHz\" \"valid\" \"[20 Hz .. 50 GHz]\"\n");
    EXPECT_NE(run(call + "Set sv " + kFreq + " d 1e99").find("above the upper limit 50 GHz"), std::string::npos);
    EXPECT_EQ(run(call + "Reset s ''"), "i 0\n");
    EXPECT_EQ(run(call + "GetText s " + kFreq), "sss \"<invalid>\" \"invalid\" \"[20 Hz .. 50 GHz]\"\n");
}

// Watch answers a snapshot with its sequence number; later writes arrive as
// numbered batches carrying the latest value, quick writes coalesced; a
// second Watch of a node is idempotent, so one Unwatch stops its changes.
TEST_F(ServiceTest, WatchGivesASnapshotThenCoalescedBatches) {
    StartDaemon();
    for (sd_bus* bus : Clients()) {
        SCOPED_TRACE(bus == bus_ ? "bus" : "direct");
        SetReal(bus, kFreq, 1e3);
        ChangeLog log(bus);
        Batch snapshot, snapshotAgain;
        const Outcome watched = CallNames(bus, "Watch", {kFreq, kRbw}, &snapshot);
        ASSERT_EQ(watched.error, "") << watched.message;
        EXPECT_EQ(snapshot.names, (std::vector<std::string>{kFreq, kRbw}));
        EXPECT_DOUBLE_EQ(snapshot.reals[kFreq], 1e3);
        const Outcome again = CallNames(bus, "Watch", {kFreq}, &snapshotAgain);
        ASSERT_EQ(again.error, "") << again.message;
        EXPECT_EQ(snapshotAgain.sequence, snapshot.sequence);

        constexpr int kWrites = 50;
        for (int i = 1; i <= kWrites; ++i) SetReal(bus, kFreq, 1e3 + i);
        ASSERT_TRUE(
            Pump(bus, [&] { return !log.batches.empty() && log.batches.back().reals[kFreq] == 1e3 + kWrites; }));
        EXPECT_LE(log.batches.size(), static_cast<std::size_t>(kWrites));
        double last = 1e3;
        for (std::size_t i = 0; i < log.batches.size(); ++i) {
            const Batch& b = log.batches[i];
            EXPECT_EQ(b.sequence, snapshot.sequence + 1 + i);
            EXPECT_FALSE(b.overrun);
            EXPECT_EQ(b.names, std::vector<std::string>{kFreq});
            // A batch holds the value at the time its change was taken in,
            // so a later batch may repeat the latest value, never go back.
            EXPECT_GE(b.reals.at(kFreq), last);
            last = b.reals.at(kFreq);
        }

        const Outcome unwatched = CallNames(bus, "Unwatch", {kFreq});
        ASSERT_EQ(unwatched.error, "") << unwatched.message;
        // Batches sent before the reply may still wait in the client's
        // queue; none may come after it.
        while (sd_bus_process(bus, nullptr) > 0) {
        }
        const std::size_t before = log.batches.size();
        SetReal(bus, kFreq, 5e3);
        Call(bus, "Set", "sv", kRbw.c_str(), "u", bus == bus_ ? 1u : 2u);  // still watched: marks the end
        ASSERT_TRUE(Pump(bus, [&] {
            return log.batches.size() > before &&
                   std::count(log.batches.back().names.begin(), log.batches.back().names.end(), kRbw);
        }));
        for (std::size_t i = before; i < log.batches.size(); ++i)
            EXPECT_EQ(log.batches[i].names, std::vector<std::string>{kRbw}) << "batch " << i;
    }
}

// Refused watch calls name the error and change nothing.
TEST_F(ServiceTest, RefusedWatchCallsChangeNothing) {
    StartDaemon();
    ChangeLog log(direct_);
    const Outcome watched = CallNames(direct_, "Watch", {kFreq});
    ASSERT_EQ(watched.error, "") << watched.message;
    struct Case {
        const char* method;
        std::vector<std::string> names;
        std::string error;
    };
    const Case cases[] = {
        {"Watch", {kRbw, "No.Such.Name"}, "io.vorndb.Error.UnknownName"},
        {"Watch", {"UserSettings.PhaseNoiseSettings"}, "io.vorndb.Error.WrongType"},
        {"Unwatch", {kFreq, kRbw}, "io.vorndb.Error.NotWatched"},
        {"Unwatch", {"No.Such.Name"}, "io.vorndb.Error.UnknownName"},
    };
    for (const Case& c : cases) {
        const Outcome out = CallNames(direct_, c.method, c.names);
        EXPECT_EQ(out.error, c.error) << c.method << " " << c.names.back() << ": " << out.message;
    }
    // The node watched before is still watched, and kRbw was never watched.
    Call(direct_, "Set", "sv", kRbw.c_str(), "u", 1u);
    SetReal(direct_, kFreq, 7e3);
    ASSERT_TRUE(Pump(direct_, [&] { return !log.batches.empty() && log.batches.back().reals[kFreq] == 7e3; }));
    for (const Batch& b : log.batches) EXPECT_EQ(b.names, std::vector<std::string>{kFreq});
}

// Traces travel as sealed memfds both ways, a real array of 51,200 elements
// (the 400 KB case) among them; a buffer with none attached gets one, and
// the next write copies onto it.
TEST_F(ServiceTest, TracesRoundTripThroughSealedMemfds) {
    StartDaemon();
    struct Case {
        std::string name;
        std::string type;
        std::vector<std::uint64_t> shape;
        std::size_t elementBytes;
    };
    const Case cases[] = {
        {kRawX, "d", {51200}, 8}, {kColors, "u", {5}, 4}, {kIData, "f", {3, 4}, 4},
        {kIData, "f", {2, 5}, 4}, {kRawX, "d", {0}, 8},
    };
    for (sd_bus* bus : Clients()) {
        for (const Case& c : cases) {
            SCOPED_TRACE(c.name + (bus == bus_ ? " (bus)" : " (direct)"));
            std::size_t count = 1;
            for (std::uint64_t extent : c.shape) count *= extent;
            std::vector<char> bytes(count * c.elementBytes);
            for (std::size_t i = 0; i < count; ++i) {
                const double real = 1.5 * static_cast<double>(i) + (bus == bus_);
                const float sample = static_cast<float>(real);
                const std::uint32_t integer = static_cast<std::uint32_t>(i) * 7 + (bus == bus_);
                std::memcpy(&bytes[i * c.elementBytes],
                            c.type == "d"   ? static_cast<const void*>(&real)
                            : c.type == "f" ? static_cast<const void*>(&sample)
                                            : static_cast<const void*>(&integer),
                            c.elementBytes);
            }
            const Outcome set = SetTrace(bus, c.name, c.shape, bytes, kSeals);
            ASSERT_EQ(set.error, "") << set.message;
            std::vector<std::uint64_t> shape;
            std::vector<char> back;
            EXPECT_EQ(GetTrace(bus, c.name, shape, back), c.type);
            EXPECT_EQ(shape, c.shape);
            EXPECT_TRUE(back == bytes);
        }
    }
}

// An unchanged trace read again comes in the same memfd, but each reader
// gets its own file offset.
TEST_F(ServiceTest, AnUnchangedTraceIsReadFromItsStart) {
    StartDaemon();
    const Outcome set = SetTrace(direct_, kRawX, {3}, std::vector<char>(24, 5), kSeals);
    ASSERT_EQ(set.error, "") << set.message;
    std::vector<Outcome> gets;
    std::vector<struct stat> files(2);
    for (int i = 0; i < 2; ++i) {
        gets.push_back(Call(i ? bus_ : direct_, "GetTrace", "s", kRawX.c_str()));
        ASSERT_EQ(gets[i].error, "") << gets[i].message;
        int fd = -1;
        sd_bus_message_skip(gets[i].reply, "sat");
        sd_bus_message_read(gets[i].reply, "h", &fd);
        fstat(fd, &files[i]);
        char bytes[64];
        EXPECT_EQ(read(fd, bytes, sizeof bytes), 24) << "reader " << i;
    }
    EXPECT_EQ(files[0].st_ino, files[1].st_ino);
}

// A trace that is not sealed, does not match its shape or its parameter, or
// exceeds the limits is refused with the reason, and nothing changes.
TEST_F(ServiceTest, RefusedTracesChangeNothing) {
    StartDaemon();
    const std::vector<char> two(2 * sizeof(std::uint32_t), 1);
    const Outcome first = SetTrace(direct_, kColors, {2}, two, kSeals);
    ASSERT_EQ(first.error, "") << first.message;
    struct Case {
        std::string name;
        std::vector<std::uint64_t> shape;
        std::size_t bytes;
        int seals;
        std::string error;
        std::string reason;
    };
    const Case cases[] = {
        {kColors, {3}, 12, 0, "WrongType", "an unsealed descriptor could change under the daemon"},
        {kColors, {3}, 12, F_SEAL_SHRINK | F_SEAL_GROW, "WrongType", "lacks the seals"},
        {kColors, {3}, 16, kSeals, "InvalidValue", "holds 16 bytes; the shape [3] needs 12"},
        {kColors, {3, 1}, 12, kSeals, "InvalidValue", "takes a trace of the shape [count], not [3, 1]"},
        {kColors, {65}, 260, kSeals, "InvalidArgument", ""},
        {kColors, {1u << 21}, 4, kSeals, "TooLarge", "2097152 elements"},
        {kIData, {1u << 20, 1u << 20}, 4, kSeals, "TooLarge", "[1048576, 1048576]"},
        {kFreq, {1}, 8, kSeals, "WrongType", "traces are real arrays, integer arrays and buffers"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name + " " + c.reason);
        const Outcome out = SetTrace(direct_, c.name, c.shape, std::vector<char>(c.bytes, 2), c.seals);
        EXPECT_EQ(out.error, "io.vorndb.Error." + c.error) << out.message;
        EXPECT_NE(out.message.find(c.reason), std::string::npos) << out.message;
    }
    int pipeFds[2];
    ASSERT_EQ(pipe2(pipeFds, O_CLOEXEC), 0);
    const Outcome notMemfd = Call(bus_, "SetTrace", "sath", kColors.c_str(), 1u, std::uint64_t{2}, pipeFds[0]);
    close(pipeFds[0]);
    close(pipeFds[1]);
    EXPECT_EQ(notMemfd.error, "io.vorndb.Error.WrongType");
    EXPECT_NE(notMemfd.message.find("not a memfd"), std::string::npos) << notMemfd.message;
    std::vector<std::uint64_t> shape;
    std::vector<char> back;
    EXPECT_EQ(GetTrace(bus_, kColors, shape, back), "u");
    EXPECT_TRUE(back == two);
}

// Save writes the settings stream into a pipe as the reader takes it (the
// whole tree is larger than a pipe holds); Load reads it back; a damaged
// stream is refused before anything is loaded.
TEST_F(ServiceTest, SaveAndLoadThroughPipes) {
    StartDaemon();
    auto save = [&](sd_bus* bus, const std::string& name) {
        int fds[2];
        EXPECT_EQ(pipe2(fds, O_CLOEXEC), 0);
        std::vector<char> bytes;
        std::thread reader([&] { bytes = Drink(fds[0]); });
        const Outcome out = Call(bus, "Save", "sh", name.c_str(), fds[1]);
        close(fds[1]);
        reader.join();
        close(fds[0]);
        EXPECT_EQ(out.error, "") << out.message;
        return bytes;
    };
    auto load = [&](sd_bus* bus, const std::vector<char>& bytes) {
        int fds[2];
        EXPECT_EQ(pipe2(fds, O_CLOEXEC), 0);
        std::thread writer([&] {
            EXPECT_EQ(write(fds[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
            close(fds[1]);
        });
        Outcome out = Call(bus, "Load", "h", fds[0]);
        writer.join();
        close(fds[0]);
        return out;
    };
    for (sd_bus* bus : Clients()) {
        SCOPED_TRACE(bus == bus_ ? "bus" : "direct");
        SetReal(bus, kFreq, 1e3);
        const std::vector<char> tree = save(bus, "");
        EXPECT_GT(tree.size(), 200'000u);
        const std::vector<char> group = save(bus, "UserSettings.PhaseNoiseSettings");
        SetReal(bus, kFreq, 5e3);
        const Outcome loaded = load(bus, group);
        ASSERT_EQ(loaded.error, "") << loaded.message;
        const char* name = "";
        sd_bus_message_read(loaded.reply, "s", &name);
        EXPECT_STREQ(name, "UserSettings.PhaseNoiseSettings");
        EXPECT_DOUBLE_EQ(GetReal(bus, kFreq), 1e3);

        SetReal(bus, kFreq, 7e3);
        const Outcome damaged = load(bus, std::vector<char>(tree.begin(), tree.begin() + tree.size() / 2));
        EXPECT_EQ(damaged.error, "io.vorndb.Error.InvalidStream");
        EXPECT_NE(damaged.message.find("offset"), std::string::npos) << damaged.message;
        EXPECT_DOUBLE_EQ(GetReal(bus, kFreq), 7e3);
        EXPECT_EQ(load(bus, tree).error, "");
        EXPECT_DOUBLE_EQ(GetReal(bus, kFreq), 1e3);
    }
}

// WaitForNotifications answers once the batches of every change made before
// it are sent: they arrive before the reply.
TEST_F(ServiceTest, WaitForNotificationsAnswersAfterTheBatches) {
    StartDaemon();
    for (sd_bus* bus : Clients()) {
        SCOPED_TRACE(bus == bus_ ? "bus" : "direct");
        ChangeLog log(bus);
        const Outcome watched = CallNames(bus, "Watch", {kFreq});
        ASSERT_EQ(watched.error, "") << watched.message;
        for (int i = 1; i <= 20; ++i) SetReal(bus == bus_ ? direct_ : bus_, kFreq, 3e3 + i);
        const Outcome waited = Call(bus, "WaitForNotifications", "u", 5000u);
        ASSERT_EQ(waited.error, "") << waited.message;
        int drained = 0;
        sd_bus_message_read(waited.reply, "b", &drained);
        EXPECT_TRUE(drained);
        while (sd_bus_process(bus, nullptr) > 0) {
        }
        ASSERT_FALSE(log.batches.empty());
        EXPECT_EQ(log.batches.back().reals[kFreq], 3e3 + 20);
        CallNames(bus, "Unwatch", {kFreq});
    }
}

// A direct watcher that stops reading has its batches held back (the next
// one says overrun) while the others are served; one that leaves its
// replies unread is cut off.
TEST_F(ServiceTest, ClientsThatStopReadingAreHeldBackOrCutOff) {
    StartDaemon();
    // Batches and replies of 400 KB: sd-bus gives its sockets buffers of
    // megabytes, which a few dozen of these fill.
    std::vector<char> trace(51200 * sizeof(double), 0);
    sd_bus* stalled = vorndbd::Connect(directAddress_, false);
    ASSERT_NE(stalled, nullptr);
    ChangeLog log(stalled);
    const Outcome watched = CallNames(stalled, "Watch", {kRawX, kFreq});
    ASSERT_EQ(watched.error, "") << watched.message;
    for (int i = 1; i <= 300; ++i) {
        trace[0] = static_cast<char>(i);
        const Outcome set = SetTrace(bus_, kRawX, {51200}, trace, kSeals);
        ASSERT_EQ(set.error, "") << set.message;
        // Answered once the loop has drained every client's batch: one
        // batch per write, however fast the loop.
        Call(bus_, "WaitForNotifications", "u", 5000u);
    }
    SetReal(bus_, kFreq, 1234);
    ASSERT_TRUE(Pump(stalled, [&] { return !log.batches.empty() && log.batches.back().reals[kFreq] == 1234; }));
    EXPECT_LT(log.batches.size(), 300u);
    EXPECT_TRUE(std::any_of(log.batches.begin(), log.batches.end(), [](const Batch& b) { return b.overrun; }));
    for (std::size_t i = 1; i < log.batches.size(); ++i)
        EXPECT_EQ(log.batches[i].sequence, log.batches[i - 1].sequence + 1);
    sd_bus_flush_close_unref(stalled);

    sd_bus* flooding = vorndbd::Connect(directAddress_, false);
    ASSERT_NE(flooding, nullptr);
    for (int i = 0; i < 1000; ++i) {
        sd_bus_message* call = nullptr;
        sd_bus_message_new_method_call(flooding, &call, nullptr, kPath, kIface, "Get");
        sd_bus_message_append(call, "s", kRawX.c_str());
        std::uint64_t cookie = 0;  // asks for a reply
        const int r = sd_bus_send(flooding, call, &cookie);
        sd_bus_message_unref(call);
        if (r < 0 || sd_bus_flush(flooding) < 0) break;
    }
    // It has not read a reply: the daemon shuts its connection down.
    pollfd hangUp{sd_bus_get_fd(flooding), POLLRDHUP, 0};
    EXPECT_EQ(poll(&hangUp, 1, 20'000), 1);
    EXPECT_TRUE(hangUp.revents & (POLLRDHUP | POLLHUP));
    sd_bus_close_unref(flooding);
    EXPECT_DOUBLE_EQ(GetReal(direct_, kFreq), 1234);
}

// A client that leaves loses its watches and its calls under way (a Load
// from a stalled pipe, which never held up the loop); the other clients'
// watches go on.
TEST_F(ServiceTest, ALeavingClientLosesItsWatchesAndCalls) {
    StartDaemon();
    signal(SIGPIPE, SIG_IGN);
    ChangeLog log(bus_);
    const Outcome watched = CallNames(bus_, "Watch", {kFreq});
    ASSERT_EQ(watched.error, "") << watched.message;
    for (bool busClient : {true, false}) {
        SCOPED_TRACE(busClient ? "bus" : "direct");
        sd_bus* leaving = vorndbd::Connect(busClient ? busAddress_ : directAddress_, busClient);
        ASSERT_NE(leaving, nullptr);
        const Outcome out = CallNames(leaving, "Watch", {kFreq});
        ASSERT_EQ(out.error, "") << out.message;
        EXPECT_EQ(Watchers(direct_, kFreq), 2u);
        int fds[2];
        ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
        sd_bus_message* load = nullptr;
        sd_bus_message_new_method_call(leaving, &load, busClient ? "io.vorndb.Database1" : nullptr, kPath, kIface,
                                       "Load");
        sd_bus_message_append(load, "h", fds[0]);
        ASSERT_GE(sd_bus_call_async(leaving, nullptr, load, nullptr, nullptr, 0), 0);
        sd_bus_message_unref(load);
        sd_bus_flush(leaving);
        SetReal(direct_, kFreq, 4e3);
        sd_bus_close_unref(leaving);
        const auto end = std::chrono::steady_clock::now() + 10s;
        while (Watchers(direct_, kFreq) != 1 && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(10ms);
        EXPECT_EQ(Watchers(direct_, kFreq), 1u);
        // The daemon gave the Load up with its copy of the pipe's read end:
        // with ours closed there is no reader left.
        close(fds[0]);
        EXPECT_EQ(write(fds[1], "x", 1), -1);
        EXPECT_EQ(errno, EPIPE);
        close(fds[1]);
        for (int i = 0; i < 20; ++i) SetReal(direct_, kFreq, 2e3 + i);
        ASSERT_TRUE(Pump(bus_, [&] { return !log.batches.empty() && log.batches.back().reals[kFreq] == 2e3 + 19; }));
        EXPECT_FALSE(log.batches.back().overrun);
        log.batches.clear();
    }
}

// SIGTERM ends the daemon cleanly: exit 0, its socket removed.
TEST_F(ServiceTest, StopsCleanlyOnSigterm) {
    StartDaemon();
    EXPECT_EQ(Stop(daemon_), 0);
    daemon_ = -1;
    EXPECT_FALSE(fs::exists(dir_ / "direct"));
}

}  // namespace
