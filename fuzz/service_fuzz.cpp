// libFuzzer target: the daemon's method decoder (tools/vorndbd/Service.h)
// driven by calls built from the input, against one Service served on an
// in-process connection pair (the server end as the daemon attaches a direct
// client, the client end as a direct client) with one sd-event loop running
// both.
//
// An input is a run of calls. Each call takes, in order: a byte choosing the
// method (the methods of io.vorndb.Database1 as its introspection lists
// them, sorted, and one name the object does not have); a byte choosing the
// signature (below 192: the method's own; else up to four argument kinds
// chosen by the following bytes); then each argument's value:
//   s   a byte: below 128 one of kWords, below 250 that many printable bytes
//       taken from the input, else a name of thousands of bytes
//   u i 4 bytes; t d 8 bytes (any double, NaN and infinities included); b 1
//   v   a byte choosing b, u, d, s, au, ad, as or ay, then that value
//   arrays: a count byte (below 200: up to 15, else one of kCounts, up to
//       past every limit), then the elements (from the input up to 15)
//   h   a byte: a sealed memfd, an unsealed one (both with contents and
//       seals from the input), a pipe's read end holding bytes from the input
//       and closed for writing, or a pipe's write end drained as the call runs
// Missing bytes read as zeros.
//
// Properties checked on every call, beyond AddressSanitizer's:
//   - every call is answered (a reply or an error) within 20 s;
//   - a refused call of a method that writes (Set, SetMany, Reset, SetTrace,
//     Load) leaves the tree as it was: its whole settings stream is the same
//     bytes before and after. A Load the component itself stopped part way
//     ("loading into ... failed") is exempt: the component keeps what it
//     loaded before the damage (docs/persistence.md).
// The database lives for the whole run, so the tree carries what earlier
// accepted calls wrote.
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Service.h"
#include "fuzz_support.h"
#include "schema/Database.h"
#include "vorn/vorndb.h"

namespace {

using vorn::fuzz::Fail;

const char* const kWords[] = {
    "",
    "UserSettings.PhaseNoiseSettings.SignalFreq",
    "UserSettings.PhaseNoiseSettings.RbwToVbw",
    "UserSettings.PhaseNoiseSettings.Autoscale",
    "DisplaySettings.ScreenTraceConfig",
    "MeasurementResults.PhaseNoiseResults.RawTrace[0].X",
    "EquipSettings.BaseColors",
    "MeasurementResults.PhaseNoiseResults.PLLResults.IData",
    "UserSettings.PhaseNoiseSettings",
    "UserSettings",
    "No.Such.Name",
    "userSettings.phaseNoiseSettings.signalFreq",
    "MeasurementResults.PhaseNoiseResults.PLLResults.QData",
    "10 kHz",
    "eRBWTOVBW_1TO1",
    "1, 2",
    "true",
    "1e308 THz",
};
constexpr std::uint32_t kCounts[] = {16, 64, 65, 4096, 4097, 51200, 102401, 1048577};
// The argument kinds a fuzzer-chosen signature draws from.
const char* const kKinds[] = {"s", "u", "d", "b", "t", "i", "h", "v", "as", "a(sv)", "at", "ad", "au", "ay"};
const char* const kVariants[] = {"b", "u", "d", "s", "au", "ad", "as", "ay"};
const std::set<std::string> kWriters = {"Set", "SetMany", "Reset", "SetTrace", "Load"};

class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
    bool Empty() const { return at_ >= size_; }
    std::uint8_t Byte() { return at_ < size_ ? data_[at_++] : 0; }
    std::uint64_t Number(int bytes) {
        std::uint64_t v = 0;
        for (int i = 0; i < bytes; ++i) v |= std::uint64_t{Byte()} << (8 * i);
        return v;
    }
    std::string Bytes(std::size_t n) {
        std::string s;
        for (std::size_t i = 0; i < n; ++i) s.push_back(static_cast<char>(Byte()));
        return s;
    }

private:
    const std::uint8_t* data_;
    std::size_t size_;
    std::size_t at_ = 0;
};

// A method of the interface and the kinds of its arguments.
struct Method {
    std::string name;
    std::vector<std::string> kinds;
};

// Splits a D-Bus signature into the kinds above ("sa(sv)" -> s, a(sv)).
std::vector<std::string> KindsOf(const std::string& signature) {
    std::vector<std::string> kinds;
    for (std::size_t i = 0; i < signature.size();) {
        std::size_t end = i + 1;
        if (signature[i] == 'a') end = signature[i + 1] == '(' ? signature.find(')', i) + 1 : i + 2;
        kinds.push_back(signature.substr(i, end - i));
        i = end;
    }
    return kinds;
}

struct World {
    std::unique_ptr<vorndb::Session> session;
    sd_event* event = nullptr;
    std::unique_ptr<vorndbd::Service> service;
    sd_bus* server = nullptr;
    sd_bus* client = nullptr;
    sd_bus_slot* slot = nullptr;
    std::vector<Method> methods;
    std::vector<int> drained;  // pipe read ends emptied while a call runs
    // Everything released in order at exit, the database last (as the daemon
    // does), so that the leak check sees a clean end.
    ~World() {
        sd_bus_slot_unref(slot);
        sd_bus_flush_close_unref(client);
        sd_bus_flush_close_unref(server);
        service.reset();
        sd_event_unref(event);
        session.reset();
    }
};

// The reply of a call, or null with `error` set.
struct Answer {
    bool done = false;
    std::string error;
    std::string message;
    sd_bus_message* reply = nullptr;
    ~Answer() { sd_bus_message_unref(reply); }
};

int OnReply(sd_bus_message* m, void* answer, sd_bus_error*) {
    auto* a = static_cast<Answer*>(answer);
    a->done = true;
    if (const sd_bus_error* e = sd_bus_message_get_error(m)) {
        a->error = e->name ? e->name : "";
        a->message = e->message ? e->message : "";
    } else {
        a->reply = sd_bus_message_ref(m);
    }
    return 0;
}

// Sends `call` and runs the loop until it is answered.
void Run(World& w, sd_bus_message* call, Answer& answer) {
    sd_bus_slot* slot = nullptr;
    if (sd_bus_call_async(w.client, &slot, call, &OnReply, &answer, 30'000'000) < 0) {
        answer.done = true;
        answer.error = "not sent";
        return;
    }
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    char sink[65536];
    while (!answer.done) {
        if (std::chrono::steady_clock::now() > end) Fail("a call got no answer");
        sd_event_run(w.event, 10'000);
        for (int fd : w.drained)
            while (read(fd, sink, sizeof sink) > 0) {
            }
    }
    sd_bus_slot_unref(slot);
}

World& TheWorld() {
    static std::unique_ptr<World> world = [] {
        auto w = std::make_unique<World>();
        vorn::ComPtr<IDatabase> database;
        if (vorn::CreateDatabase(IID_IDatabase, database.put_void()) != S_OK) Fail("cannot create the database");
        database->RestartNotifications();
        w->session = std::make_unique<vorndb::Session>(database, "fuzz");
        if (sd_event_new(&w->event) < 0) Fail("sd_event_new");
        w->service = std::make_unique<vorndbd::Service>(*w->session, vorndbd::WritePolicy{{0, geteuid()}}, w->event);
        int pair[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair) < 0) Fail("socketpair");
        sd_id128_t id{};
        if (sd_bus_new(&w->server) < 0 || sd_bus_set_fd(w->server, pair[0], pair[0]) < 0 ||
            sd_id128_randomize(&id) < 0 || sd_bus_set_server(w->server, 1, id) < 0 || sd_bus_start(w->server) < 0 ||
            sd_bus_attach_event(w->server, w->event, 0) < 0 || w->service->Attach(w->server, &w->slot) < 0)
            Fail("cannot serve the connection");
        if (sd_bus_new(&w->client) < 0 || sd_bus_set_fd(w->client, pair[1], pair[1]) < 0 ||
            sd_bus_start(w->client) < 0 || sd_bus_attach_event(w->client, w->event, 0) < 0)
            Fail("cannot connect");
        // The methods as the object lists them.
        sd_bus_message* call = nullptr;
        sd_bus_message_new_method_call(w->client, &call, nullptr, vorndbd::kObjectPath,
                                       "org.freedesktop.DBus.Introspectable", "Introspect");
        Answer answer;
        Run(*w, call, answer);
        sd_bus_message_unref(call);
        const char* xml = nullptr;
        if (!answer.reply || sd_bus_message_read(answer.reply, "s", &xml) < 0) Fail("no introspection");
        const std::string text = xml;
        std::size_t at = text.find(std::string("<interface name=\"") + vorndbd::kInterface);
        const std::size_t end = text.find("</interface>", at);
        while ((at = text.find("<method name=\"", at)) < end) {
            at += 14;
            Method m{text.substr(at, text.find('"', at) - at), {}};
            const std::size_t close = text.find("</method>", at);
            std::string signature;
            for (std::size_t arg = at; (arg = text.find("<arg type=\"", arg)) < close; ++arg) {
                const std::size_t type = arg + 11;
                const std::size_t tag = text.find("/>", arg);
                if (text.substr(arg, tag - arg).find("direction=\"in\"") != std::string::npos)
                    signature += text.substr(type, text.find('"', type) - type);
            }
            m.kinds = KindsOf(signature);
            w->methods.push_back(std::move(m));
        }
        std::sort(w->methods.begin(), w->methods.end(),
                  [](const Method& a, const Method& b) { return a.name < b.name; });
        if (w->methods.size() < 15) Fail("the introspection lists too few methods", text);
        return w;
    }();
    return *world;
}

std::string String(Input& in) {
    const std::uint8_t b = in.Byte();
    if (b < 128) return kWords[b % std::size(kWords)];
    if (b < 250) {
        std::string s = in.Bytes(in.Byte());
        for (char& c : s) c = static_cast<char>(0x20 + (static_cast<unsigned char>(c) % 0x5F));
        return s;
    }
    return std::string(1024 + in.Number(2) % 4096, 'x');
}

std::uint32_t Count(Input& in) {
    const std::uint8_t c = in.Byte();
    return c < 200 ? c % 16 : kCounts[c % std::size(kCounts)];
}

// A descriptor for an `h` argument; the caller closes it after the call.
int Descriptor(World& w, Input& in, std::vector<int>& close) {
    const std::uint8_t kind = in.Byte() % 4;
    const std::string bytes = in.Bytes(in.Number(2));
    if (kind < 2) {
        const int fd = memfd_create("fuzz", MFD_CLOEXEC | MFD_ALLOW_SEALING);
        if (fd < 0 || write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) Fail("memfd");
        lseek(fd, 0, SEEK_SET);
        const int seals = kind == 0 ? F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE : in.Byte() & 0xF;
        fcntl(fd, F_ADD_SEALS, seals);
        close.push_back(fd);
        return fd;
    }
    int fds[2];
    if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) < 0) Fail("pipe");
    fcntl(fds[1], F_SETPIPE_SZ, 1 << 16);
    close.push_back(fds[0]);
    close.push_back(fds[1]);
    if (kind == 2) {
        if (write(fds[1], bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()) && !bytes.empty())
            Fail("filling a pipe");
        ::close(fds[1]);
        close.pop_back();
        return fds[0];
    }
    w.drained.push_back(fds[0]);
    return fds[1];
}

void Append(World& w, sd_bus_message* m, const std::string& kind, Input& in, std::vector<int>& fds);

void AppendArray(sd_bus_message* m, char element, Input& in) {
    const std::uint32_t count = Count(in);
    if (element == 's') {
        sd_bus_message_open_container(m, 'a', "s");
        for (std::uint32_t i = 0; i < count; ++i)
            sd_bus_message_append(m, "s", i < 16 ? String(in).c_str() : kWords[i % std::size(kWords)]);
        sd_bus_message_close_container(m);
        return;
    }
    const std::size_t size = element == 'y' ? 1 : element == 'u' ? 4 : 8;
    std::vector<std::uint8_t> bytes(count * size);
    for (std::size_t i = 0; i < std::min<std::size_t>(bytes.size(), 16 * size); ++i) bytes[i] = in.Byte();
    for (std::size_t i = 16 * size; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(i);
    if (element == 'd')  // past the input's elements, plain reals
        for (std::size_t i = 16; i < count; ++i) {
            const double v = static_cast<double>(i);
            std::memcpy(&bytes[i * 8], &v, 8);
        }
    sd_bus_message_append_array(m, element, bytes.data(), bytes.size());
}

void Append(World& w, sd_bus_message* m, const std::string& kind, Input& in, std::vector<int>& fds) {
    if (kind == "s") {
        sd_bus_message_append(m, "s", String(in).c_str());
    } else if (kind == "u" || kind == "i") {
        const auto v = static_cast<std::uint32_t>(in.Number(4));
        sd_bus_message_append_basic(m, kind[0], &v);
    } else if (kind == "t" || kind == "d") {
        const std::uint64_t v = in.Number(8);
        sd_bus_message_append_basic(m, kind[0], &v);
    } else if (kind == "b") {
        const int v = in.Byte() & 1;
        sd_bus_message_append_basic(m, 'b', &v);
    } else if (kind == "h") {
        const int fd = Descriptor(w, in, fds);
        sd_bus_message_append_basic(m, 'h', &fd);
    } else if (kind == "v") {
        const std::string inner = kVariants[in.Byte() % std::size(kVariants)];
        sd_bus_message_open_container(m, 'v', inner.c_str());
        Append(w, m, inner, in, fds);
        sd_bus_message_close_container(m);
    } else if (kind == "a(sv)") {
        const std::uint32_t count = std::min<std::uint32_t>(Count(in), 4097);
        sd_bus_message_open_container(m, 'a', "(sv)");
        for (std::uint32_t i = 0; i < count; ++i) {
            sd_bus_message_open_container(m, 'r', "sv");
            Append(w, m, "s", in, fds);
            Append(w, m, "v", in, fds);
            sd_bus_message_close_container(m);
        }
        sd_bus_message_close_container(m);
    } else {
        AppendArray(m, kind[1], in);
    }
}

std::vector<std::uint8_t> Tree(World& w) { return w.session->SaveStream(w.session->Root()); }

}  // namespace

// The world is made before the first input, so that what it allocates is
// not taken for a leak of that input.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // As in the daemon: a peer that closed its end must not end the process.
    signal(SIGPIPE, SIG_IGN);
    TheWorld();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    World& w = TheWorld();
    Input in(data, size);
    for (int calls = 0; calls < 8 && !in.Empty(); ++calls) {
        const std::uint8_t choice = in.Byte();
        const bool known = choice % (w.methods.size() + 1) < w.methods.size();
        const Method* method = known ? &w.methods[choice % (w.methods.size() + 1)] : nullptr;
        std::vector<std::string> kinds = method ? method->kinds : std::vector<std::string>{"s"};
        if (in.Byte() >= 192) {
            kinds.assign(in.Byte() % 5, "");
            for (std::string& k : kinds) k = kKinds[in.Byte() % std::size(kKinds)];
        }
        sd_bus_message* call = nullptr;
        if (sd_bus_message_new_method_call(w.client, &call, nullptr, vorndbd::kObjectPath, vorndbd::kInterface,
                                           method ? method->name.c_str() : "NoSuchMethod") < 0)
            Fail("cannot make a call");
        std::vector<int> fds;
        for (const std::string& kind : kinds) Append(w, call, kind, in, fds);
        const bool writes = method && kWriters.count(method->name);
        const std::vector<std::uint8_t> before = writes ? Tree(w) : std::vector<std::uint8_t>();
        // A call sd-bus would not build (an array past its limit) is not
        // sent; the rest go out as built.
        Answer answer;
        Run(w, call, answer);
        sd_bus_message_unref(call);
        for (int fd : fds) close(fd);
        w.drained.clear();
        if (writes && answer.done && !answer.reply && answer.error != "not sent" &&
            answer.message.find("' failed: ") == std::string::npos && Tree(w) != before)
            Fail("a refused call changed the tree", method->name + ": " + answer.error + ": " + answer.message);
    }
    return 0;
}
