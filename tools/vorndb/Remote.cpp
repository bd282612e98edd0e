// The remote backend (Remote.h): sd-bus calls to a running vorndbd.
//
// One connection, used from the tool's one thread. Calls are synchronous;
// Changed signals that arrive meanwhile wait in sd-bus's queue and are read
// by Deliver, which a filter hands them to. A call's failure is a D-Bus error:
// the daemon's io.vorndb.Error.<Name> becomes a DaemonError (name without the
// prefix, message), which the methods turn into the tool's own messages; a
// method the daemon does not serve, a daemon that is not there and a broken
// connection become ToolError(kExitFailure) at once.
#include "Remote.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <utility>

#include "Values.h"

namespace vorndb {

namespace {

constexpr char kBusName[] = "io.vorndb.Database1";
constexpr char kObjectPath[] = "/io/vorndb/Database";
constexpr char kInterface[] = "io.vorndb.Database1";
constexpr char kErrorPrefix[] = "io.vorndb.Error.";
// Messages read from the connection at most per Deliver.
constexpr int kMaxProcessed = 100000;
// A call's timeout; `wait` adds its own time to it.
constexpr std::uint64_t kCallTimeoutUs = 60'000'000;

// A refusal by the daemon: its error name without the prefix
// ("UnknownName"), or the whole D-Bus error name for other errors.
struct DaemonError {
    std::string name;
    std::string message;
};

Family FamilyNamed(const std::string& name) {
    for (Family f : {Family::Group, Family::Boolean, Family::Integer, Family::Real, Family::String,
                     Family::IntegerArray, Family::RealArray, Family::Buffer})
        if (name == FamilyName(f)) return f;
    return Family::Unknown;
}

bool HasValue(Family f) { return f != Family::Group && f != Family::Buffer && f != Family::Unknown; }

// The HRESULT behind a daemon error name that stands for one; 0 for the
// daemon's own refusals and for "Failed", whose code is in its message.
HRESULT HresultOf(const std::string& name) {
    if (name == "InvalidArgument") return E_INVALIDARG;
    if (name == "InvalidData") return HRESULT_FROM_WIN32(ERROR_INVALID_DATA);
    if (name == "NotImplemented") return E_NOTIMPL;
    if (name == "AccessDenied") return E_ACCESSDENIED;
    if (name == "OutOfMemory") return E_OUTOFMEMORY;
    return 0;
}

// The failure as DescribeHresult words it in the tool's own process: the
// code and its name, then the component's reason ("0x80070057 E_INVALIDARG:
// 100 GHz is above ..."). The daemon sends the reason alone, or the whole
// description when the component gave none.
std::string Described(const DaemonError& e) {
    const HRESULT hr = HresultOf(e.name);
    if (!hr || e.message.rfind("0x", 0) == 0) return e.message;
    const std::string generic = DescribeHresult(hr);
    return generic.substr(0, generic.find(": ")) + ": " + e.message;
}

// An array's text as Session::Read gives it with at most maxItems elements,
// from the text of all of them ("[1, 2, 3]").
std::string Shortened(const std::string& text, std::size_t maxItems) {
    if (maxItems == 0 || text.size() < 2 || text.front() != '[' || text.back() != ']') return text;
    const std::string inner = text.substr(1, text.size() - 2);
    std::vector<std::string> items;
    for (std::size_t start = 0; !inner.empty();) {
        const std::size_t comma = inner.find(", ", start);
        items.push_back(inner.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
        if (comma == std::string::npos) break;
        start = comma + 2;
    }
    if (items.size() <= maxItems) return text;
    return FormatList(
        items.size(), [&](std::size_t i) { return items[i]; }, maxItems);
}

// A socket path as a D-Bus address value: bytes outside the unescaped set
// as %XX.
std::string AddressEscaped(const std::string& path) {
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    for (const unsigned char c : path) {
        if (std::isalnum(c) || std::strchr("-_/.\\*", c)) {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += kHex[c >> 4];
            out += kHex[c & 15];
        }
    }
    return out;
}

// An sd-bus message released at the end of its scope.
class Message {
public:
    Message() = default;
    explicit Message(sd_bus_message* m) : m_(m) {}
    ~Message() { sd_bus_message_unref(m_); }
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;
    Message(Message&& other) noexcept : m_(std::exchange(other.m_, nullptr)) {}
    sd_bus_message* get() const { return m_; }
    sd_bus_message** put() { return &m_; }

private:
    sd_bus_message* m_ = nullptr;
};

// A memory file handed to the daemon, closed at the end of its scope.
struct MemoryFile {
    explicit MemoryFile(const char* name) : fd(memfd_create(name, MFD_CLOEXEC)) {
        if (fd < 0) throw ToolError(kExitFailure, std::string("memfd_create failed: ") + std::strerror(errno));
    }
    ~MemoryFile() { close(fd); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;
    const int fd;
};

class RemoteBackend final : public Backend {
public:
    RemoteBackend(sd_bus* bus, std::string where, bool onBus)
        : bus_(bus), where_(std::move(where)), destination_(onBus ? kBusName : nullptr) {
        Check(sd_bus_add_filter(bus_, nullptr, &RemoteBackend::OnMessage, this), "adding the signal filter");
    }
    ~RemoteBackend() override { sd_bus_flush_close_unref(bus_); }

    Node Resolve(const std::string& fullName) override {
        if (fullName.empty()) return {nullptr, "", "", Family::Group};
        Message call = NewCall("Describe");
        Check(sd_bus_message_append(call.get(), "s", fullName.c_str()), "Describe");
        Message reply = Call(call, "Describe", [&](const DaemonError& e) -> ToolError { return Generic(e, ""); });
        Node node{nullptr, fullName, OwnName(fullName), Family::Unknown};
        sd_bus_message* m = reply.get();
        Check(sd_bus_message_enter_container(m, 'a', "{sv}"), "reading Describe");
        while (Check(sd_bus_message_enter_container(m, 'e', "sv"), "reading Describe") > 0) {
            const char* key = nullptr;
            Check(sd_bus_message_read(m, "s", &key), "reading Describe");
            if (std::strcmp(key, "Family") == 0) {
                const char* family = nullptr;
                Check(sd_bus_message_read(m, "v", "s", &family), "reading Describe");
                node.family = FamilyNamed(family);
            } else {
                Check(sd_bus_message_skip(m, "v"), "reading Describe");
            }
            Check(sd_bus_message_exit_container(m), "reading Describe");
        }
        return node;
    }

    std::vector<Node> Children(const Node& node) override {
        std::vector<Node> children;
        if (node.family != Family::Group) return children;
        for (auto& [name, family] : List(node.fullName, 1)) children.push_back({nullptr, name, OwnName(name), family});
        return children;
    }

    Reading Read(const Node& node, std::size_t maxItems) override {
        Reading r;
        if (node.family == Family::Group) return r;
        Message call = NewCall("GetText");
        Check(sd_bus_message_append(call.get(), "s", node.fullName.c_str()), "GetText");
        Message reply = Call(call, "GetText", [&](const DaemonError& e) { return Generic(e, node.fullName); });
        const char *value = nullptr, *status = nullptr, *limits = nullptr;
        Check(sd_bus_message_read(reply.get(), "sss", &value, &status, &limits), "reading GetText");
        r.value = value;
        r.status = status;
        r.limits = limits;
        if (node.family == Family::IntegerArray || node.family == Family::RealArray)
            r.value = Shortened(r.value, maxItems);
        return r;
    }

    HRESULT Write(const Node& node, const std::string& text) override {
        if (!HasValue(node.family)) ThrowNotSettable(node);
        // A string goes verbatim: the quotes and escapes the tool reads are
        // taken off here.
        std::string value = text;
        if (node.family == Family::String) {
            try {
                value = UnquoteString(text);
            } catch (const ToolError& e) {
                throw ToolError(e.code(), node.fullName + ": " + e.what());
            }
        }
        Message call = NewCall("Set");
        Check(sd_bus_message_append(call.get(), "sv", node.fullName.c_str(), "s", value.c_str()), "Set");
        Message reply = Call(call, "Set", [&](const DaemonError& e) -> ToolError {
            if (e.name == "UnknownName") return ToolError(kExitUnknownName, e.message);
            if (e.name == "InvalidValue") return ToolError(kExitRejected, e.message);
            std::string message = node.fullName + ": value '" + text + "' rejected: " + Described(e);
            if (node.family != Family::Boolean && node.family != Family::String) {
                std::string limits;
                try {
                    limits = Read(node, 1).limits;
                } catch (const ToolError&) {
                }
                if (!limits.empty()) message += "; limits " + limits;
            }
            return ToolError(kExitRejected, message);
        });
        std::int32_t result = 0;
        Check(sd_bus_message_read(reply.get(), "i", &result), "reading Set");
        return static_cast<HRESULT>(result);
    }

    void Export(const Node& trigger, const std::string& path) override {
        Message call = NewCall("Set");
        Check(sd_bus_message_append(call.get(), "sv", trigger.fullName.c_str(), "b", 1), "Set");
        // A file the export could not write comes back as FileNotWritten
        // with the component's reason and, last, its source, which the tool
        // does not print for an export.
        Message reply = Call(call, "Set", [&](const DaemonError& e) {
            if (e.name == "FileNotWritten") {
                const std::string source = " (" + trigger.fullName + ")";
                std::string reason = e.message;
                if (reason.ends_with(source)) reason.resize(reason.size() - source.size());
                return ToolError(kExitFile, "export: " + reason);
            }
            return ToolError(e.name == "UnknownName" ? kExitUnknownName : kExitFailure, "export: " + Described(e));
        });
        std::int32_t result = 0;
        Check(sd_bus_message_read(reply.get(), "i", &result), "reading Set");
        if ((result & 6) == 6) throw ToolError(kExitFile, "export: " + path + " was not written");
    }

    void Reset(const Node* node) override {
        const std::string name = node ? node->fullName : std::string();
        Message call = NewCall("Reset");
        Check(sd_bus_message_append(call.get(), "s", name.c_str()), "Reset");
        Call(call, "Reset", [&](const DaemonError& e) {
            if (e.name == "UnknownName") return ToolError(kExitUnknownName, e.message);
            return ToolError(kExitFailure, "reset " + (node ? Label(name) : "the whole tree") + ": " + Described(e));
        });
    }

    void Save(const std::string& path, const Node& node) override {
        const MemoryFile file("vorndb-save");
        Message call = NewCall("Save");
        Check(sd_bus_message_append(call.get(), "sh", node.fullName.c_str(), file.fd), "Save");
        const std::string what = node.fullName.empty() ? "the tree" : "'" + node.fullName + "'";
        Call(call, "Save", [&](const DaemonError& e) {
            if (e.name == "UnknownName") return ToolError(kExitUnknownName, e.message);
            return ToolError(kExitFile, "saving " + what + " failed: " + Described(e));
        });
        WriteFileAtomically(path, ReadDescriptor(file.fd, "the settings stream the daemon wrote"));
    }

    Node Load(const std::string& path) override {
        const std::vector<std::uint8_t> bytes = ReadFileBytes(path);
        // A damaged file is refused here, as a local load refuses it, before
        // the daemon sees it.
        DecodeSettings(bytes, path, true);
        const MemoryFile file("vorndb-load");
        for (std::size_t done = 0; done < bytes.size();) {
            const ssize_t n = write(file.fd, bytes.data() + done, bytes.size() - done);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) throw ToolError(kExitFailure, std::string("writing a memfd failed: ") + std::strerror(errno));
            done += static_cast<std::size_t>(n);
        }
        lseek(file.fd, 0, SEEK_SET);
        Message call = NewCall("Load");
        Check(sd_bus_message_append(call.get(), "h", file.fd), "Load");
        Message reply =
            Call(call, "Load", [&](const DaemonError& e) { return ToolError(kExitFile, path + ": " + Described(e)); });
        const char* name = nullptr;
        Check(sd_bus_message_read(reply.get(), "s", &name), "reading Load");
        return Resolve(name);
    }

    bool Watch(const Node& node) override {
        for (const auto& w : watches_)
            if (w.first == node.fullName) return false;
        // A group is watched as every parameter with a value below it.
        std::vector<std::pair<std::string, Family>> parameters;
        if (node.family == Family::Group) {
            for (auto& item : List(node.fullName, 0))
                if (HasValue(item.second)) parameters.push_back(std::move(item));
        } else {
            parameters.emplace_back(node.fullName, node.family);
        }
        std::vector<std::string> names;
        names.reserve(parameters.size());
        for (const auto& p : parameters) names.push_back(p.first);
        if (!names.empty()) {
            Message call = NewCall("Watch");
            AppendNames(call.get(), names, "Watch");
            Message reply = Call(call, "Watch", [&](const DaemonError& e) {
                if (e.name == "UnknownName") return ToolError(kExitUnknownName, e.message);
                return ToolError(kExitFailure, "watch " + Label(node.fullName) + ": " + e.message);
            });
            std::uint64_t sequence = 0;
            Check(sd_bus_message_read(reply.get(), "t", &sequence), "reading Watch");
            if (sequence > sequence_) sequence_ = sequence;
        }
        for (const auto& [name, family] : parameters) {
            families_[name] = family;
            ++references_[name];
        }
        watches_.emplace_back(node.fullName, std::move(names));
        return true;
    }

    std::vector<std::string> Watched() const override {
        std::vector<std::string> names;
        for (const auto& w : watches_) names.push_back(w.first);
        return names;
    }

    void Unwatch(const std::string* fullName) override {
        std::vector<std::string> released;
        for (auto it = watches_.begin(); it != watches_.end();) {
            if (fullName && it->first != *fullName) {
                ++it;
                continue;
            }
            for (const std::string& name : it->second)
                if (--references_[name] == 0) {
                    references_.erase(name);
                    families_.erase(name);
                    released.push_back(name);
                }
            it = watches_.erase(it);
        }
        if (released.empty()) return;
        Message call = NewCall("Unwatch");
        AppendNames(call.get(), released, "Unwatch");
        Call(call, "Unwatch", [&](const DaemonError& e) { return ToolError(kExitFailure, "unwatch: " + e.message); });
    }

    void Wait(ULONG ms) override {
        Message call = NewCall("WaitForNotifications");
        Check(sd_bus_message_append(call.get(), "u", static_cast<std::uint32_t>(ms)), "WaitForNotifications");
        const std::uint64_t timeout = ms == INFINITE ? UINT64_MAX : kCallTimeoutUs + std::uint64_t{ms} * 1000;
        Message reply = Call(
            call, "WaitForNotifications",
            [&](const DaemonError& e) { return ToolError(kExitFailure, "wait: " + Described(e)); }, timeout);
        int drained = 0;
        Check(sd_bus_message_read(reply.get(), "b", &drained), "reading WaitForNotifications");
        // The daemon sends this client's batch before the reply, so it is
        // already in sd-bus's queue.
        Deliver();
        if (!drained)
            throw ToolError(kExitFailure, "wait: notifications still pending after " + std::to_string(ms) + " ms");
    }

    void Deliver() override {
        // Bounded, so that a flood of messages cannot hold the tool here.
        for (int i = 0; i < kMaxProcessed && sd_bus_process(bus_, nullptr) > 0; ++i) {
        }
        std::vector<std::string> changed;
        changed.swap(changed_);
        pending_.clear();
        for (const std::string& name : changed) {
            const auto family = families_.find(name);
            if (family == families_.end()) continue;  // unwatched since
            try {
                Print("watch: " + name + " = " + Read({nullptr, name, OwnName(name), family->second}, 8).value);
            } catch (const ToolError& e) {
                PrintError(std::string("vorndb: watch: ") + e.what());
            }
        }
        if (!lost_.empty()) {
            PrintError("vorndb: watch: " + lost_ + "; the values printed are the latest");
            lost_.clear();
        }
    }

    void Finish(ULONG ms) noexcept override {
        if (watches_.empty()) return;
        try {
            if (ms) Wait(ms);
        } catch (...) {
        }
        try {
            Unwatch(nullptr);
        } catch (...) {
        }
    }

private:
    static int Check(int r, const char* what) {
        if (r < 0) throw ToolError(kExitFailure, std::string(what) + ": " + std::strerror(-r));
        return r;
    }

    Message NewCall(const char* method) {
        Message call;
        Check(sd_bus_message_new_method_call(bus_, call.put(), destination_, kObjectPath, kInterface, method), method);
        return call;
    }

    // Sends the call and returns the reply. A refusal by the daemon is
    // turned into the ToolError `refused` makes of it; anything else throws
    // ToolError(kExitFailure) saying what went wrong where.
    template <class Refused>
    Message Call(const Message& call, const char* method, Refused&& refused, std::uint64_t timeout = kCallTimeoutUs) {
        sd_bus_error error{};
        Message reply;
        const int r = sd_bus_call(bus_, call.get(), timeout, &error, reply.put());
        if (r >= 0) return reply;
        const std::string name = error.name ? error.name : "";
        const std::string message = error.message ? error.message : std::strerror(-r);
        sd_bus_error_free(&error);
        if (name.rfind(kErrorPrefix, 0) == 0) throw refused(DaemonError{name.substr(sizeof kErrorPrefix - 1), message});
        if (name == SD_BUS_ERROR_UNKNOWN_METHOD)
            throw ToolError(kExitFailure, "vorndbd on " + where_ + " does not serve " + method + " yet: " + message);
        if (name == SD_BUS_ERROR_SERVICE_UNKNOWN || name == SD_BUS_ERROR_NAME_HAS_NO_OWNER)
            throw ToolError(kExitFailure, "vorndbd is not running on " + where_ + ": " + message);
        throw ToolError(kExitFailure, std::string(method) + " on " + where_ + " failed: " + message);
    }

    // A refusal of a read: an unknown name keeps its own message and code.
    static ToolError Generic(const DaemonError& e, const std::string& fullName) {
        if (e.name == "UnknownName") return ToolError(kExitUnknownName, e.message);
        return ToolError(kExitFailure, (fullName.empty() ? "" : fullName + ": ") + Described(e));
    }

    std::vector<std::pair<std::string, Family>> List(const std::string& fullName, std::uint32_t depth) {
        Message call = NewCall("List");
        Check(sd_bus_message_append(call.get(), "su", fullName.c_str(), depth), "List");
        Message reply = Call(call, "List", [&](const DaemonError& e) { return Generic(e, fullName); });
        std::vector<std::pair<std::string, Family>> items;
        Check(sd_bus_message_enter_container(reply.get(), 'a', "(ss)"), "reading List");
        const char *name = nullptr, *family = nullptr;
        while (Check(sd_bus_message_read(reply.get(), "(ss)", &name, &family), "reading List") > 0)
            items.emplace_back(name, FamilyNamed(family));
        return items;
    }

    static void AppendNames(sd_bus_message* call, const std::vector<std::string>& names, const char* what) {
        Check(sd_bus_message_open_container(call, 'a', "s"), what);
        for (const std::string& name : names) Check(sd_bus_message_append(call, "s", name.c_str()), what);
        Check(sd_bus_message_close_container(call), what);
    }

    // The whole content of a descriptor the daemon wrote, at most
    // kMaxFileBytes.
    static std::vector<std::uint8_t> ReadDescriptor(int fd, const std::string& what) {
        struct stat st {};
        if (fstat(fd, &st) != 0) throw ToolError(kExitFile, what + ": " + std::strerror(errno));
        if (static_cast<std::uint64_t>(st.st_size) > kMaxFileBytes)
            throw ToolError(kExitFile, what + " is larger than " + std::to_string(kMaxFileBytes >> 20) + " MiB");
        std::vector<std::uint8_t> bytes(static_cast<std::size_t>(st.st_size));
        std::size_t done = 0;
        while (done < bytes.size()) {
            const ssize_t n = pread(fd, bytes.data() + done, bytes.size() - done, static_cast<off_t>(done));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) throw ToolError(kExitFile, what + " cannot be read");
            done += static_cast<std::size_t>(n);
        }
        return bytes;
    }

    // Takes in a Changed signal: the names it carries are printed by Deliver
    // with their value then; a gap in the sequence numbers or the overrun
    // flag means batches were lost, which Deliver reports.
    static int OnMessage(sd_bus_message* m, void* self, sd_bus_error*) {
        auto* backend = static_cast<RemoteBackend*>(self);
        if (!sd_bus_message_is_signal(m, kInterface, "Changed")) return 0;
        std::uint64_t sequence = 0;
        int overrun = 0;
        if (sd_bus_message_read(m, "tb", &sequence, &overrun) < 0 || sd_bus_message_enter_container(m, 'a', "(sv)") < 0)
            return 0;
        while (sd_bus_message_enter_container(m, 'r', "sv") > 0) {
            const char* name = nullptr;
            if (sd_bus_message_read(m, "s", &name) < 0 || sd_bus_message_skip(m, "v") < 0) break;
            // Only watched names, each once until printed: bounded by the
            // watches whatever the daemon sends.
            if (backend->families_.count(name) && backend->pending_.insert(name).second)
                backend->changed_.emplace_back(name);
            sd_bus_message_exit_container(m);
        }
        if (overrun)
            backend->lost_ = "the daemon held back changes (overrun)";
        else if (backend->sequence_ && sequence > backend->sequence_ + 1)
            backend->lost_ = std::to_string(sequence - backend->sequence_ - 1) + " batches of changes lost";
        if (sequence > backend->sequence_) backend->sequence_ = sequence;
        return 1;
    }

    sd_bus* bus_;
    std::string where_;
    const char* destination_;  // the bus name, or none on the direct socket
    std::vector<std::pair<std::string, std::vector<std::string>>> watches_;  // name watched, parameters below
    std::map<std::string, Family> families_;                                 // the parameters watched
    std::map<std::string, unsigned> references_;                             // watches per parameter
    std::vector<std::string> changed_;                                       // from Changed, not printed yet
    std::set<std::string> pending_;                                          // the names in changed_
    std::uint64_t sequence_ = 0;
    std::string lost_;
};

}  // namespace

std::string DefaultSocketPath() {
    const char* runtime = std::getenv("RUNTIME_DIRECTORY");
    return runtime && *runtime ? std::string(runtime) + "/vorndbd.socket" : std::string("/run/vorndb/vorndbd.socket");
}

std::unique_ptr<Backend> ConnectRemote(const RemoteOptions& options) {
    sd_bus* bus = nullptr;
    std::string where;
    std::string address;  // a connection of its own: the socket or a bus given by address
    int r = 0;
    const bool onBus = options.path == RemoteOptions::Path::Bus;
    if (!onBus) {
        const std::string path = options.socket.empty() ? DefaultSocketPath() : options.socket;
        where = "the socket " + path;
        address = "unix:path=" + AddressEscaped(path);
    } else if (options.bus == RemoteOptions::Bus::System) {
        where = "the system bus";
        r = sd_bus_open_system(&bus);
    } else if (options.bus == RemoteOptions::Bus::Session) {
        where = "the session bus";
        r = sd_bus_open_user(&bus);
    } else {
        where = "the bus at " + options.address;
        if (options.address.rfind("unix:", 0) != 0)
            throw ToolError(kExitUsage, "--address: only unix: addresses are used, not '" + options.address + "'");
        address = options.address;
    }
    if (!address.empty() && (r = sd_bus_new(&bus)) >= 0 && (r = sd_bus_set_address(bus, address.c_str())) >= 0 &&
        (r = sd_bus_set_bus_client(bus, onBus)) >= 0)
        r = sd_bus_start(bus);
    if (r < 0) {
        sd_bus_unref(bus);
        throw ToolError(kExitFailure, "cannot connect to vorndbd on " + where + ": " + std::strerror(-r));
    }
    return std::make_unique<RemoteBackend>(bus, where, onBus);
}

}  // namespace vorndb
