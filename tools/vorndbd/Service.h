// The database object served over D-Bus: the methods of io.vorndb.Database1
// on /io/vorndb/Database (docs/service.md), for any sd-bus connection the
// daemon attaches it to: the bus and every direct peer-to-peer client.
//
// Every method runs on the thread of the daemon's event loop, which owns the
// Session and every connection. A method decodes and checks all of its
// arguments (names resolved, values converted to the parameter's family,
// counts and sizes bounded, the caller's right to write) before its first
// write, so a refused call changes nothing in the tree. A refusal is the
// D-Bus error io.vorndb.Error.<Name> with the component's reason, or the
// daemon's own for what it refused before calling the component.
//
// Watching: Watch registers one queued sink per (client, node). The sinks run
// on the component's notification thread and only store the node's latest
// value into their client's pending map (under the client's mutex) and wake
// the loop through an eventfd; the loop drains every client's map into one
// Changed signal addressed to that client. Nothing but the loop thread ever
// touches sd-bus or the Service's own maps.
//
// Calls that wait (Save and Load on a client's descriptor,
// WaitForNotifications) keep a reference to their call and are answered
// later from the loop: Save and Load move their bytes with non-blocking I/O
// driven by sd-event, WaitForNotifications waits on one worker thread that
// only calls IDatabase::WaitForNotifications and wakes the loop.
#pragma once

#include <sys/types.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Session.h"

namespace vorndbd {

inline constexpr char kBusName[] = "io.vorndb.Database1";
inline constexpr char kObjectPath[] = "/io/vorndb/Database";
inline constexpr char kInterface[] = "io.vorndb.Database1";
inline constexpr char kErrorPrefix[] = "io.vorndb.Error.";

// Bounds on what one call may ask for.
inline constexpr std::size_t kMaxNameBytes = 1024;
inline constexpr std::size_t kMaxItems = 4096;
inline constexpr std::size_t kMaxStringBytes = 1u << 20;
inline constexpr std::size_t kMaxArrayElements = 1u << 20;
// Messages a client's connection may have queued unsent before its Changed
// batches are held back (and the next one marked overrun).
inline constexpr std::uint64_t kMaxQueuedBatches = 64;
// Messages a direct client's connection may have queued unsent (replies it
// does not read) before the daemon cuts it off.
inline constexpr std::uint64_t kMaxQueuedReplies = 256;
// The largest buffer trace a memfd carries (arrays are bounded by
// kMaxArrayElements).
inline constexpr std::size_t kMaxTraceBytes = std::size_t{64} << 20;
// The most a Load reads from its descriptor.
inline constexpr std::size_t kMaxStreamBytes = std::size_t{64} << 20;
// Save and Load calls under way at once, and how long one may take.
inline constexpr std::size_t kMaxTransfers = 16;
inline constexpr std::uint64_t kTransferSeconds = 60;
// WaitForNotifications calls waiting at once.
inline constexpr std::size_t kMaxWaits = 4096;

// A call the daemon refuses: the error name after its prefix ("UnknownName")
// and the message.
class Refusal : public std::runtime_error {
public:
    Refusal(std::string name, const std::string& message) : std::runtime_error(message), name_(std::move(name)) {}
    const std::string& name() const noexcept { return name_; }

private:
    std::string name_;
};

// A client connection to `address`: to a bus (busClient) or to the direct
// socket of a daemon; null when it cannot be made.
sd_bus* Connect(const std::string& address, bool busClient);

// The error name for a failing HRESULT of the component: "InvalidArgument"
// for E_INVALIDARG, "InvalidData", "NotImplemented", "AccessDenied",
// "OutOfMemory"; "Failed" for any other code.
const char* ErrorNameOf(HRESULT hr);

// Who may write: callers with one of `uids` as their effective uid, or with
// `gid` among their groups (when hasGroup).
struct WritePolicy {
    std::vector<uid_t> uids;
    bool hasGroup = false;
    gid_t gid = 0;
    bool Allows(uid_t uid, const std::vector<gid_t>& groups) const;
};

struct Wake;
struct Watcher;
class ChangeSink;
class NotificationWaiter;
class TraceCache;
class FileActions;

class Service {
public:
    // `event` is the loop that owns every connection; the Service adds its
    // wake-up eventfd to it. Throws std::system_error when it cannot.
    Service(vorndb::Session& session, WritePolicy policy, sd_event* event);
    // Unregisters every sink still registered.
    ~Service();
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    // Serves the object on `bus`; the slot removes it again. On a bus
    // connection it also follows NameOwnerChanged, so that a watching client
    // that leaves the bus loses its sinks. Returns the sd-bus result
    // (negative errno on failure).
    int Attach(sd_bus* bus, sd_bus_slot** slot);
    // Drops what is remembered about the callers of a connection that
    // closes, and unregisters their sinks.
    void Forget(sd_bus* bus);
    // When the last method call came in (the epoch before the first).
    std::chrono::steady_clock::time_point LastCall() const noexcept { return lastCall_; }

private:
    template <void (Service::*Method)(sd_bus_message*, sd_bus_message*)>
    static int Dispatch(sd_bus_message* call, void* self, sd_bus_error* error);

    void Get(sd_bus_message* call, sd_bus_message* reply);
    void GetText(sd_bus_message* call, sd_bus_message* reply);
    void GetMany(sd_bus_message* call, sd_bus_message* reply);
    void Set(sd_bus_message* call, sd_bus_message* reply);
    void SetMany(sd_bus_message* call, sd_bus_message* reply);
    void Describe(sd_bus_message* call, sd_bus_message* reply);
    void List(sd_bus_message* call, sd_bus_message* reply);
    void Reset(sd_bus_message* call, sd_bus_message* reply);
    void Watch(sd_bus_message* call, sd_bus_message* reply);
    void Unwatch(sd_bus_message* call, sd_bus_message* reply);
    void GetTrace(sd_bus_message* call, sd_bus_message* reply);
    void SetTrace(sd_bus_message* call, sd_bus_message* reply);
    void Save(sd_bus_message* call, sd_bus_message* reply);
    void Load(sd_bus_message* call, sd_bus_message* reply);
    void WaitForNotifications(sd_bus_message* call, sd_bus_message* reply);

    // The reply's contents of a write that went through.
    using Appender = std::function<void(sd_bus_message*)>;
    // Runs a write that starts a file action on the file-action worker and
    // answers the call when it is done (the call is deferred).
    void Defer(sd_bus_message* call, std::function<Appender()> write);
    void AnswerFileAction(std::uint64_t id, const Appender& append, const std::exception_ptr& failure);
    static int OnFileActions(sd_event_source* source, int fd, uint32_t events, void* self);

    // A watching client: its connection and unique name ("" on a direct
    // connection). Loop thread only, except `shared`.
    struct Client {
        std::shared_ptr<Watcher> shared;
        std::map<std::string, ChangeSink*> sinks;  // by full name, one reference each
        bool overrun = false;                      // a batch was held back since the last one sent
    };
    using ClientKey = std::pair<sd_bus*, std::string>;

    // A Save or Load moving its stream through the client's descriptor.
    struct Transfer;
    // A WaitForNotifications call waiting for its answer.
    struct Wait;

    // Starts moving a transfer's bytes; answers it when done.
    void Start(std::unique_ptr<Transfer> transfer);
    // Moves what the descriptor takes now; true when the transfer ended
    // (answered and gone).
    bool Step(Transfer& transfer);
    void Finish(Transfer& transfer);
    void EndTransfer(Transfer& transfer);
    static int OnTransferIo(sd_event_source* source, int fd, uint32_t events, void* transfer);
    static int OnTransferTimeout(sd_event_source* source, uint64_t usec, void* transfer);
    // Answers the waits whose notifications went through.
    void AnswerWaits();
    void EndWait(Wait& wait);
    static int OnWaited(sd_event_source* source, int fd, uint32_t events, void* self);
    static int OnWaitTimeout(sd_event_source* source, uint64_t usec, void* wait);
    // Drops a client's calls under way (its connection, or its unique name
    // on a bus connection, is gone).
    void DropCalls(sd_bus* bus, const std::string& sender);
    // Cuts off a direct client that lets more than kMaxQueuedReplies
    // messages queue unread.
    void CheckQueue(sd_bus* bus);

    // The names of an `as` argument, bounded, resolved and checked to have
    // a value; throws Refusal.
    std::vector<vorndb::Node> ReadWatchedNodes(sd_bus_message* call);
    // Unregisters a client's sinks and forgets it.
    void DropClient(std::map<ClientKey, Client>::iterator client);
    // Sends every client's pending changes (loop thread).
    void Drain();
    static int OnWake(sd_event_source* source, int fd, uint32_t events, void* self);
    static int OnRetry(sd_event_source* source, uint64_t usec, void* self);
    static int OnNameOwnerChanged(sd_bus_message* m, void* self, sd_bus_error* error);

    // The node of a full name taken from the call; throws Refusal.
    vorndb::Node ReadNode(sd_bus_message* call);
    vorndb::Node Resolve(const std::string& name);
    // Throws Refusal("AccessDenied") unless the caller may write.
    void CheckWriter(sd_bus_message* call);

    static const sd_bus_vtable kVtable[];
    vorndb::Session& session_;
    WritePolicy policy_;
    // Whether a caller may write, by connection and unique name ("" on a
    // direct connection). Unique names are never reused on a bus; a direct
    // connection's entry goes with Forget.
    std::map<std::pair<sd_bus*, std::string>, bool> writers_;
    // Watching clients by connection and unique name.
    std::map<ClientKey, Client> clients_;
    sd_event* event_;
    std::shared_ptr<Wake> wake_;  // shared with the sinks, which may outlive the Service
    sd_event_source* wakeSource_ = nullptr;
    sd_event_source* retrySource_ = nullptr;  // armed while a batch is held back
    bool deferred_ = false;                   // the running method answers later
    // GetTrace's array elements on their way into a memfd, kept between
    // calls up to kMaxKeptScratch bytes (8-byte words: aligned for both
    // element types).
    std::vector<std::uint64_t> scratch_;
    static constexpr std::size_t kMaxKeptScratch = std::size_t{1} << 20;
    std::unique_ptr<TraceCache> traces_;
    std::vector<std::unique_ptr<Transfer>> transfers_;
    std::vector<std::unique_ptr<Wait>> waits_;
    std::unique_ptr<NotificationWaiter> waiter_;  // started by the first wait
    sd_event_source* waitedSource_ = nullptr;
    // Writes with a file action: the worker (started by the first) and the
    // calls it has not answered yet, referenced, by number.
    std::unique_ptr<FileActions> fileActions_;
    sd_event_source* fileActionsSource_ = nullptr;
    std::map<std::uint64_t, sd_bus_message*> fileCalls_;
    std::uint64_t lastFileCall_ = 0;
    std::chrono::steady_clock::time_point lastCall_{};
};

}  // namespace vorndbd
