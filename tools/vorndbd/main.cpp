// vorndbd: hosts one database and serves it over D-Bus, on a bus under the
// name io.vorndb.Database1 and on a direct peer-to-peer socket
// (docs/service.md).
//
// One thread: the sd-event loop owns the bus connection, the listening
// socket, every direct client's connection and the database; the watch sinks
// run on the component's notification thread and only wake the loop
// (Service.h). The loop runs
// until SIGTERM or SIGINT, or until the bus connection is lost. Exit codes:
// 0 after a signal, 1 when start-up fails (the message says why), 2 for a
// bad command line.
#include <grp.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-daemon.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "Service.h"

namespace {

constexpr char kUsage[] =
    "usage: vorndbd [--system | --session | --address ADDRESS | --no-bus] [--socket PATH]\n"
    "               [--write-uid UID]... [--write-group GROUP] [--spin-us N]\n";
// Direct clients served at once; more are refused at accept.
constexpr std::size_t kMaxDirectClients = 256;
// Messages a direct client's connection is pumped for at most once its
// authentication ends (see Daemon::OnAuthenticated).
constexpr int kMaxPumpedAfterAuth = 64;

struct Options {
    enum class Bus { System, Session, Address, None } bus = Bus::System;
    std::string address;
    std::string socket;
    vorndbd::WritePolicy policy;
    bool uidsGiven = false;
    // How long the loop polls without sleeping after a call (RunLoop).
    std::chrono::microseconds spin{200};
};

[[noreturn]] void Usage(const std::string& message) {
    std::fprintf(stderr, "vorndbd: %s\n%s", message.c_str(), kUsage);
    std::exit(2);
}

Options ParseOptions(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) Usage(arg + " needs a value");
            return argv[++i];
        };
        if (arg == "--system") {
            o.bus = Options::Bus::System;
        } else if (arg == "--session") {
            o.bus = Options::Bus::Session;
        } else if (arg == "--no-bus") {
            o.bus = Options::Bus::None;
        } else if (arg == "--address") {
            o.bus = Options::Bus::Address;
            o.address = value();
            // Never D-Bus over TCP: the credentials that decide who may write
            // exist only on local sockets.
            if (o.address.rfind("unix:", 0) != 0) Usage("only unix: addresses are served");
        } else if (arg == "--socket") {
            o.socket = value();
        } else if (arg == "--write-uid") {
            const std::string text = value();
            char* end = nullptr;
            const unsigned long uid = std::strtoul(text.c_str(), &end, 10);
            if (text.empty() || *end || uid > 0xFFFFFFFEul) Usage("not a uid: " + text);
            o.policy.uids.push_back(static_cast<uid_t>(uid));
            o.uidsGiven = true;
        } else if (arg == "--write-group") {
            const std::string name = value();
            const group* g = getgrnam(name.c_str());
            if (!g) Usage("no group named " + name);
            o.policy.hasGroup = true;
            o.policy.gid = g->gr_gid;
        } else if (arg == "--spin-us") {
            const std::string text = value();
            char* end = nullptr;
            const unsigned long us = std::strtoul(text.c_str(), &end, 10);
            if (text.empty() || *end || us > 100'000) Usage("--spin-us takes 0 to 100000, not " + text);
            o.spin = std::chrono::microseconds(us);
        } else if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            std::exit(0);
        } else {
            Usage("unknown argument " + arg);
        }
    }
    if (!o.uidsGiven) o.policy.uids = {0, geteuid()};
    if (o.socket.empty())
        if (const char* runtime = std::getenv("RUNTIME_DIRECTORY"); runtime && *runtime)
            o.socket = std::string(runtime) + "/vorndbd.socket";
    return o;
}

// The event loop. For `spin` after each method call it polls without
// sleeping: a client that calls again at once (a script's next get, the next
// write of a batch) then finds the loop awake instead of paying for waking an
// idle CPU, which on a virtual machine costs more than the call itself. With
// no call for that long the loop sleeps in epoll as sd_event_loop does.
// Returns the loop's exit code, or a negative errno.
int RunLoop(sd_event* event, const vorndbd::Service& service, std::chrono::microseconds spin) {
    for (;;) {
        if (sd_event_get_state(event) == SD_EVENT_FINISHED) {
            int code = 0;
            const int r = sd_event_get_exit_code(event, &code);
            return r < 0 ? r : code;
        }
        const bool awake = std::chrono::steady_clock::now() - service.LastCall() < spin;
        const int r = sd_event_run(event, awake ? 0 : UINT64_MAX);
        if (r < 0) return r;
    }
}

[[noreturn]] void Fail(const std::string& what, int r) {
    std::fprintf(stderr, "vorndbd: %s: %s\n", what.c_str(), std::strerror(r < 0 ? -r : r));
    std::exit(1);
}

class Daemon {
public:
    Daemon(sd_event* event, vorndbd::Service& service) : event_(event), service_(service) {
        int r = sd_event_add_defer(event_, &closer_, &Daemon::OnClose, this);
        if (r < 0) Fail("sd_event_add_defer", r);
        sd_event_source_set_enabled(closer_, SD_EVENT_OFF);
        if ((r = sd_event_add_post(event_, &authWatch_, &Daemon::OnAuthenticated, this)) < 0)
            Fail("sd_event_add_post", r);
        sd_event_source_set_enabled(authWatch_, SD_EVENT_OFF);
    }
    ~Daemon() {
        sd_event_source_unref(closer_);
        sd_event_source_unref(authWatch_);
        for (auto& [bus, slot] : direct_) Close(bus, slot);
        if (listener_) sd_event_source_unref(listener_);
        if (listenFd_ >= 0) close(listenFd_);
        if (!socketPath_.empty()) unlink(socketPath_.c_str());
        if (bus_) {
            sd_bus_release_name(bus_, vorndbd::kBusName);
            sd_bus_slot_unref(busSlot_);
            sd_bus_flush_close_unref(bus_);
        }
    }

    void OpenBus(const Options& o) {
        int r = 0;
        switch (o.bus) {
            case Options::Bus::System:
                r = sd_bus_open_system(&bus_);
                break;
            case Options::Bus::Session:
                r = sd_bus_open_user(&bus_);
                break;
            case Options::Bus::Address:
                if ((r = sd_bus_new(&bus_)) >= 0 && (r = sd_bus_set_address(bus_, o.address.c_str())) >= 0 &&
                    (r = sd_bus_set_bus_client(bus_, 1)) >= 0)
                    r = sd_bus_start(bus_);
                break;
            case Options::Bus::None:
                return;
        }
        if (r < 0) Fail("cannot connect to the bus", r);
        if ((r = sd_bus_set_exit_on_disconnect(bus_, 1)) < 0 || (r = sd_bus_attach_event(bus_, event_, 0)) < 0 ||
            (r = service_.Attach(bus_, &busSlot_)) < 0)
            Fail("cannot serve on the bus", r);
        if ((r = sd_bus_request_name(bus_, vorndbd::kBusName, 0)) < 0)
            Fail(std::string("cannot own the name ") + vorndbd::kBusName, r);
    }

    // The direct socket: the one systemd passed, else a new one at `path`
    // (none when both are absent).
    void OpenSocket(const std::string& path) {
        const int passed = sd_listen_fds(1);
        if (passed > 1) Fail("more than one socket passed", EINVAL);
        if (passed == 1) {
            listenFd_ = SD_LISTEN_FDS_START;
        } else if (!path.empty()) {
            sockaddr_un address{};
            if (path.size() >= sizeof address.sun_path) Fail("socket path too long: " + path, ENAMETOOLONG);
            address.sun_family = AF_UNIX;
            std::memcpy(address.sun_path, path.c_str(), path.size());
            struct stat st {};
            if (lstat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) unlink(path.c_str());
            listenFd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
            if (listenFd_ < 0) Fail("socket", errno);
            if (bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof address) < 0)
                Fail("cannot bind " + path, errno);
            socketPath_ = path;
            chmod(path.c_str(), 0660);
            if (listen(listenFd_, 64) < 0) Fail("listen", errno);
        } else {
            return;
        }
        const int r = sd_event_add_io(event_, &listener_, listenFd_, EPOLLIN, &Daemon::OnAccept, this);
        if (r < 0) Fail("cannot watch the socket", r);
    }

private:
    static int OnAccept(sd_event_source*, int fd, uint32_t, void* self) {
        static_cast<Daemon*>(self)->Accept(fd);
        return 0;
    }

    void Accept(int listenFd) {
        const int fd = accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) return;
        if (direct_.size() >= kMaxDirectClients) {
            close(fd);
            return;
        }
        sd_bus* bus = nullptr;
        sd_bus_slot* slot = nullptr;
        sd_id128_t id{};
        int r;
        if ((r = sd_bus_new(&bus)) < 0) {
            close(fd);
            return;
        }
        if ((r = sd_bus_set_fd(bus, fd, fd)) < 0) close(fd);
        if (r < 0 || (r = sd_id128_randomize(&id)) < 0 || (r = sd_bus_set_server(bus, 1, id)) < 0 ||
            (r = sd_bus_start(bus)) < 0 || (r = sd_bus_attach_event(bus, event_, 0)) < 0 ||
            (r = service_.Attach(bus, &slot)) < 0 ||
            (r = sd_bus_match_signal(bus, nullptr, nullptr, "/org/freedesktop/DBus/Local", "org.freedesktop.DBus.Local",
                                     "Disconnected", &Daemon::OnDisconnect, this)) < 0) {
            sd_bus_slot_unref(slot);
            sd_bus_close_unref(bus);
            return;
        }
        direct_[bus] = slot;
        authenticating_.insert(bus);
        sd_event_source_set_enabled(authWatch_, SD_EVENT_ON);
    }

    // A client may send its first call in the same packet as the BEGIN that
    // ends its authentication (libdbus does, when the call was queued before
    // the connection was up). sd-bus keeps those bytes in its read buffer
    // when it finishes the authentication and does not look at them again
    // until the socket becomes readable once more, which it never does while
    // the client waits for its reply. So after every dispatch of the loop
    // (a post source: it does not spin while a client is slow to
    // authenticate) each connection that has just become ready is processed
    // until its buffer is empty, at most kMaxPumpedAfterAuth messages; from
    // then on sd-bus's own I/O source serves it.
    static int OnAuthenticated(sd_event_source*, void* self) {
        auto* daemon = static_cast<Daemon*>(self);
        for (auto it = daemon->authenticating_.begin(); it != daemon->authenticating_.end();) {
            sd_bus* bus = *it;
            const int ready = sd_bus_is_ready(bus);
            if (ready == 0) {
                ++it;
                continue;
            }
            it = daemon->authenticating_.erase(it);
            for (int i = 0; ready > 0 && i < kMaxPumpedAfterAuth && sd_bus_process(bus, nullptr) > 0; ++i) {
            }
        }
        if (daemon->authenticating_.empty()) sd_event_source_set_enabled(daemon->authWatch_, SD_EVENT_OFF);
        return 0;
    }

    // A direct client went away (or sent what sd-bus cannot read): its
    // connection is closed from the loop, outside sd-bus's own dispatch.
    static int OnDisconnect(sd_bus_message* m, void* self, sd_bus_error*) {
        auto* daemon = static_cast<Daemon*>(self);
        daemon->closing_.push_back(sd_bus_message_get_bus(m));
        sd_event_source_set_enabled(daemon->closer_, SD_EVENT_ONESHOT);
        return 0;
    }

    static int OnClose(sd_event_source*, void* self) {
        auto* daemon = static_cast<Daemon*>(self);
        for (sd_bus* bus : daemon->closing_) {
            auto found = daemon->direct_.find(bus);
            if (found == daemon->direct_.end()) continue;
            sd_bus_slot* slot = found->second;
            daemon->direct_.erase(found);
            daemon->Close(bus, slot);
        }
        daemon->closing_.clear();
        return 0;
    }

    void Close(sd_bus* bus, sd_bus_slot* slot) {
        authenticating_.erase(bus);
        service_.Forget(bus);
        sd_bus_slot_unref(slot);
        sd_bus_detach_event(bus);
        sd_bus_flush_close_unref(bus);
    }

    std::vector<sd_bus*> closing_;
    // Direct connections whose authentication has not been seen to end.
    std::set<sd_bus*> authenticating_;
    sd_event_source* authWatch_ = nullptr;
    sd_event_source* closer_ = nullptr;
    sd_event* event_;
    vorndbd::Service& service_;
    sd_bus* bus_ = nullptr;
    sd_bus_slot* busSlot_ = nullptr;
    int listenFd_ = -1;
    std::string socketPath_;
    sd_event_source* listener_ = nullptr;
    std::map<sd_bus*, sd_bus_slot*> direct_;
};

}  // namespace

int main(int argc, char** argv) {
    const Options options = ParseOptions(argc, argv);
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    // A client that closes its socket must not kill the daemon.
    signal(SIGPIPE, SIG_IGN);

    sd_event* event = nullptr;
    int r = sd_event_default(&event);
    if (r < 0) Fail("sd_event_default", r);
    // A null handler ends the loop.
    if ((r = sd_event_add_signal(event, nullptr, SIGTERM, nullptr, nullptr)) < 0 ||
        (r = sd_event_add_signal(event, nullptr, SIGINT, nullptr, nullptr)) < 0)
        Fail("cannot handle signals", r);
    // WATCHDOG=1 from the loop when systemd asks for it.
    sd_event_set_watchdog(event, 1);

    int exitCode = 0;
    try {
        vorndb::Session session;
        // Notifications start suppressed (creation is a bulk change); the
        // watch sinks need them running.
        session.Database()->RestartNotifications();
        vorndbd::Service service(session, options.policy, event);
        {
            Daemon daemon(event, service);
            daemon.OpenBus(options);
            daemon.OpenSocket(options.socket);
            sd_notify(0, "READY=1\nSTATUS=serving");
            r = RunLoop(event, service, options.spin);
            sd_notify(0, "STOPPING=1");
            if (r < 0) {
                std::fprintf(stderr, "vorndbd: the event loop failed: %s\n", std::strerror(-r));
                exitCode = 1;
            }
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "vorndbd: %s\n", e.what());
        exitCode = 1;
    }
    sd_event_unref(event);
    return exitCode;
}
