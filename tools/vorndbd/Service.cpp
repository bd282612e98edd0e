// The methods of io.vorndb.Database1 (see Service.h, docs/service.md).
#include "Service.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <deque>
#include <mutex>
#include <new>
#include <system_error>
#include <variant>

#include "Names.h"

namespace vorndbd {

namespace {

using vorn::ComPtr;
using vorndb::Family;
using vorndb::Node;

// A value as it travels: by family (docs/service.md).
using Value = std::variant<bool, std::uint32_t, double, std::string, std::vector<ULONG>, std::vector<double>>;

// Throws the refusal of a failed sd-bus read or append (a message that does
// not hold what its signature says cannot reach a method: sd-bus checks it).
void Check(int r, const char* what) {
    if (r < 0) throw Refusal("Failed", std::string(what) + ": " + std::strerror(-r));
}

template <class I>
ComPtr<I> As(const Node& node) {
    ComPtr<I> p;
    node.object.As(&p);
    return p;
}

std::string ReadString(sd_bus_message* call) {
    const char* text = nullptr;
    Check(sd_bus_message_read_basic(call, 's', &text), "reading a string");
    return text;
}

template <class T>
std::vector<T> ReadArray(sd_bus_message* call, char type) {
    const void* data = nullptr;
    std::size_t bytes = 0;
    Check(sd_bus_message_read_array(call, type, &data, &bytes), "reading an array");
    if (bytes / sizeof(T) > kMaxArrayElements)
        throw Refusal("TooLarge", "an array of " + std::to_string(bytes / sizeof(T)) + " elements is more than the " +
                                      std::to_string(kMaxArrayElements) + " a call may carry");
    const T* first = static_cast<const T*>(data);
    return std::vector<T>(first, first + bytes / sizeof(T));
}

// Reads a variant of one of the types values travel in.
Value ReadVariant(sd_bus_message* call) {
    char type = 0;
    const char* contents = nullptr;
    Check(sd_bus_message_peek_type(call, &type, &contents), "reading a variant");
    if (type != SD_BUS_TYPE_VARIANT) throw Refusal("WrongType", "a value must be a variant");
    const std::string signature = contents ? contents : "";
    Check(sd_bus_message_enter_container(call, SD_BUS_TYPE_VARIANT, signature.c_str()), "reading a variant");
    Value value;
    if (signature == "b") {
        int v = 0;
        Check(sd_bus_message_read_basic(call, 'b', &v), "reading a boolean");
        value = v != 0;
    } else if (signature == "u") {
        std::uint32_t v = 0;
        Check(sd_bus_message_read_basic(call, 'u', &v), "reading an integer");
        value = v;
    } else if (signature == "d") {
        double v = 0;
        Check(sd_bus_message_read_basic(call, 'd', &v), "reading a real");
        value = v;
    } else if (signature == "s") {
        std::string v = ReadString(call);
        if (v.size() > kMaxStringBytes)
            throw Refusal("TooLarge", "a string of " + std::to_string(v.size()) + " bytes is more than the " +
                                          std::to_string(kMaxStringBytes) + " a value may have");
        value = std::move(v);
    } else if (signature == "au") {
        value = ReadArray<ULONG>(call, 'u');
    } else if (signature == "ad") {
        value = ReadArray<double>(call, 'd');
    } else {
        throw Refusal("WrongType", "a value of type '" + signature + "' is none of b, u, d, s, au, ad");
    }
    Check(sd_bus_message_exit_container(call), "reading a variant");
    return value;
}

const char* TypeOf(Family family) {
    switch (family) {
        case Family::Boolean:
            return "b";
        case Family::Integer:
            return "u";
        case Family::Real:
            return "d";
        case Family::String:
            return "s";
        case Family::IntegerArray:
            return "au";
        case Family::RealArray:
            return "ad";
        default:
            return "";
    }
}

eUNIT UnitOf(const Node& node) {
    eUNIT unit = eUNIT_NONE;
    if (node.family == Family::Real) As<IParameterReal>(node)->get_Units(&unit);
    if (node.family == Family::RealArray) As<IParameterRealArray>(node)->get_Units(&unit);
    return unit;
}

// Converts a value received for `node` to the node's family: its own type,
// or text read as the tool reads it. Throws Refusal.
Value Convert(vorndb::Session& session, const Node& node, Value value) {
    const char* want = TypeOf(node.family);
    if (!*want)
        throw Refusal("WrongType", node.fullName + " is a " + vorndb::FamilyName(node.family) + ": it takes no value");
    const std::size_t wantIndex = node.family == Family::Boolean        ? 0
                                  : node.family == Family::Integer      ? 1
                                  : node.family == Family::Real         ? 2
                                  : node.family == Family::String       ? 3
                                  : node.family == Family::IntegerArray ? 4
                                                                        : 5;
    if (value.index() == wantIndex) return value;
    if (!std::holds_alternative<std::string>(value))
        throw Refusal("WrongType", node.fullName + " takes a value of type '" + want + "' or text");
    const std::string& text = std::get<std::string>(value);
    try {
        switch (node.family) {
            case Family::Boolean:
                return vorndb::ParseBoolean(text);
            case Family::Integer: {
                const std::string enumeration = session.EnumerationOf(node);
                return enumeration.empty()
                           ? vorndb::ParseInteger(text)
                           : vorndb::ParseEnum(text, enumeration, session.Types()->EnumMembers(enumeration));
            }
            case Family::Real:
                return vorndb::ParseReal(text, UnitOf(node));
            case Family::IntegerArray: {
                std::vector<ULONG> values;
                for (const std::string& item : vorndb::SplitList(text)) values.push_back(vorndb::ParseInteger(item));
                return values;
            }
            default: {
                std::vector<double> values;
                const eUNIT unit = UnitOf(node);
                for (const std::string& item : vorndb::SplitList(text)) values.push_back(vorndb::ParseReal(item, unit));
                return values;
            }
        }
    } catch (const vorndb::ToolError& e) {
        throw Refusal("InvalidValue", node.fullName + ": " + e.what());
    }
}

// Throws the refusal for a failed call of the component on `node` through
// `iid`, with the reason the component gave.
[[noreturn]] void Refuse(HRESULT hr, IUnknown* object, REFIID iid) {
    std::string reason = object ? vorndb::ReportedReason(object, iid) : std::string();
    if (reason.empty()) reason = vorndb::DescribeHresult(hr);
    throw Refusal(ErrorNameOf(hr), reason);
}

// Writes a converted value; returns S_OK or S_FALSE and throws Refusal for a
// failure.
HRESULT Write(const Node& node, const Value& value) {
    HRESULT hr = E_UNEXPECTED;
    IID iid = IID_IUnknown;
    IUnknown* object = nullptr;
    switch (node.family) {
        case Family::Boolean: {
            ComPtr<IParameterBoolean> p = As<IParameterBoolean>(node);
            hr = p->put_Value(std::get<bool>(value) ? VARIANT_TRUE : VARIANT_FALSE);
            iid = IID_IParameterBoolean;
            object = p.get();
            break;
        }
        case Family::Integer: {
            ComPtr<IParameterInteger> p = As<IParameterInteger>(node);
            hr = p->put_Value(std::get<std::uint32_t>(value));
            iid = IID_IParameterInteger;
            object = p.get();
            break;
        }
        case Family::Real: {
            ComPtr<IParameterReal> p = As<IParameterReal>(node);
            hr = p->put_Value(std::get<double>(value));
            iid = IID_IParameterReal;
            object = p.get();
            break;
        }
        case Family::String: {
            ComPtr<IParameterString> p = As<IParameterString>(node);
            const std::u16string wide = vorn::Widen(std::get<std::string>(value));
            BSTR v = SysAllocStringLen(wide.data(), static_cast<UINT>(wide.size()));
            if (!v) throw std::bad_alloc();
            hr = p->put_Value(v);
            SysFreeString(v);
            iid = IID_IParameterString;
            object = p.get();
            break;
        }
        case Family::IntegerArray: {
            ComPtr<IParameterIntegerArray> p = As<IParameterIntegerArray>(node);
            const std::vector<ULONG>& v = std::get<std::vector<ULONG>>(value);
            hr = p->PutArray(static_cast<ULONG>(v.size()), v.data());
            iid = IID_IParameterIntegerArray;
            object = p.get();
            break;
        }
        case Family::RealArray: {
            ComPtr<IParameterRealArray> p = As<IParameterRealArray>(node);
            const std::vector<double>& v = std::get<std::vector<double>>(value);
            hr = p->PutArray(static_cast<ULONG>(v.size()), v.data());
            iid = IID_IParameterRealArray;
            object = p.get();
            break;
        }
        default:
            break;
    }
    if (FAILED(hr)) Refuse(hr, object, iid);
    return hr;
}

template <class T, class I>
std::vector<T> ReadElements(I* array, REFIID iid) {
    ULONG size = 0;
    HRESULT hr = array->get_Size(&size);
    if (FAILED(hr)) Refuse(hr, array, iid);
    std::vector<T> values(size);
    if (size && FAILED(hr = array->GetArray(size, values.data()))) Refuse(hr, array, iid);
    return values;
}

// The node's value; throws Refusal (InvalidData for an invalid value).
Value Read(const Node& node) {
    HRESULT hr = S_OK;
    switch (node.family) {
        case Family::Boolean: {
            ComPtr<IParameterBoolean> p = As<IParameterBoolean>(node);
            VARIANT_BOOL v = VARIANT_FALSE;
            if (FAILED(hr = p->get_Value(&v))) Refuse(hr, p.get(), IID_IParameterBoolean);
            return v != VARIANT_FALSE;
        }
        case Family::Integer: {
            ComPtr<IParameterInteger> p = As<IParameterInteger>(node);
            ULONG v = 0;
            if (FAILED(hr = p->get_Value(&v))) Refuse(hr, p.get(), IID_IParameterInteger);
            return static_cast<std::uint32_t>(v);
        }
        case Family::Real: {
            ComPtr<IParameterReal> p = As<IParameterReal>(node);
            double v = 0;
            if (FAILED(hr = p->get_Value(&v))) Refuse(hr, p.get(), IID_IParameterReal);
            return v;
        }
        case Family::String: {
            ComPtr<IParameterString> p = As<IParameterString>(node);
            BSTR v = nullptr;
            if (FAILED(hr = p->get_Value(&v))) Refuse(hr, p.get(), IID_IParameterString);
            return vorndb::TakeBstr(v);
        }
        case Family::IntegerArray:
            return ReadElements<ULONG>(As<IParameterIntegerArray>(node).get(), IID_IParameterIntegerArray);
        case Family::RealArray:
            return ReadElements<double>(As<IParameterRealArray>(node).get(), IID_IParameterRealArray);
        default:
            throw Refusal("WrongType",
                          node.fullName + " is a " + vorndb::FamilyName(node.family) + ": it has no value to read");
    }
}

void AppendVariant(sd_bus_message* reply, const Value& value) {
    struct Append {
        sd_bus_message* m;
        void operator()(bool v) const { Check(sd_bus_message_append(m, "v", "b", int(v)), "appending"); }
        void operator()(std::uint32_t v) const { Check(sd_bus_message_append(m, "v", "u", v), "appending"); }
        void operator()(double v) const { Check(sd_bus_message_append(m, "v", "d", v), "appending"); }
        void operator()(const std::string& v) const {
            Check(sd_bus_message_append(m, "v", "s", v.c_str()), "appending");
        }
        void operator()(const std::vector<ULONG>& v) const { Array('u', "au", v.data(), v.size() * sizeof(ULONG)); }
        void operator()(const std::vector<double>& v) const { Array('d', "ad", v.data(), v.size() * sizeof(double)); }
        void Array(char type, const char* signature, const void* data, std::size_t bytes) const {
            Check(sd_bus_message_open_container(m, 'v', signature), "appending");
            Check(sd_bus_message_append_array(m, type, data, bytes), "appending");
            Check(sd_bus_message_close_container(m), "appending");
        }
    };
    std::visit(Append{reply}, value);
}

template <class... Args>
void AppendEntry(sd_bus_message* reply, const char* key, const char* type, Args... args) {
    Check(sd_bus_message_append(reply, "{sv}", key, type, args...), "appending");
}

std::string StatusOf(const Node& node) {
    ComPtr<IParameter> p = As<IParameter>(node);
    eSTATUS status = eSTATUS_INVALID;
    if (!p || FAILED(p->get_Status(&status))) return "";
    return status == eSTATUS_VALID ? "valid" : "invalid";
}

// Throws TooLarge when a call carries more than kMaxItems items.
void CheckCount(std::size_t count) {
    if (count > kMaxItems)
        throw Refusal("TooLarge",
                      "a call may carry at most " + std::to_string(kMaxItems) + " items, not " + std::to_string(count));
}

// A watched node's value as a change carries it: an invalid value (after a
// reset) travels as s "" (docs/service.md).
Value WatchedValue(const Node& node) {
    try {
        return Read(node);
    } catch (const Refusal&) {
        return std::string();
    }
}

std::vector<std::string> ReadNames(sd_bus_message* call) {
    std::vector<std::string> names;
    Check(sd_bus_message_enter_container(call, 'a', "s"), "reading the names");
    for (;;) {
        const char* name = nullptr;
        const int got = sd_bus_message_read_basic(call, 's', &name);
        Check(got, "reading a name");
        if (got == 0) break;
        CheckCount(names.size() + 1);
        names.emplace_back(name);
    }
    Check(sd_bus_message_exit_container(call), "reading the names");
    return names;
}

}  // namespace

// The loop's wake-up: an eventfd written at most once between two drains.
// Shared by the Service and every sink, so the descriptor lives as long as a
// sink that may still write to it.
struct Wake {
    int fd = -1;
    std::atomic<bool> raised{false};
    ~Wake() {
        if (fd >= 0) close(fd);
    }
    // Called by a sink after storing a change.
    void Raise() {
        if (raised.exchange(true)) return;
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t n = write(fd, &one, sizeof one);
    }
};

// What a watching client's sinks share with the loop: its pending map and
// the sequence number of the last batch sent, both under `mutex`.
struct Watcher {
    std::shared_ptr<Wake> wake;
    std::mutex mutex;
    std::map<std::string, Value> pending;  // full name -> latest value
    std::uint64_t sequence = 0;
};

// The queued sink of one (client, node). Its callback runs on the
// notification thread: it reads the node's current value and stores it in
// the client's pending map, then wakes the loop. It never touches sd-bus.
class ChangeSink final : public IDBNotification {
public:
    ChangeSink(std::shared_ptr<Watcher> watcher, Node node) : watcher_(std::move(watcher)), node_(std::move(node)) {}

    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        if (!ppv) return E_POINTER;
        if (riid == IID_IUnknown || riid == IID_IDBNotification) {
            *ppv = static_cast<IDBNotification*>(this);
            AddRef();
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++references_; }
    STDMETHODIMP_(ULONG) Release() override {
        const ULONG left = --references_;
        if (left == 0) delete this;
        return left;
    }
    STDMETHODIMP Callback(IUnknown*) override { return Store(); }
    // The node's data is not used: the value is read under the client's
    // mutex, so a stored value is never older than a snapshot Watch took.
    STDMETHODIMP CallbackWithData(IUnknown*, VARIANT) override { return Store(); }
    STDMETHODIMP GetCallbackFileName(BSTR* bstrFileName) override {
        if (!bstrFileName) return E_POINTER;
        *bstrFileName = nullptr;
        return S_OK;
    }

    const Node& Watched() const { return node_; }
    // Stops storing; called under the watcher's mutex by Unwatch, so no
    // change of the node is stored once it returns.
    void Deactivate() { active_ = false; }

private:
    ~ChangeSink() = default;

    HRESULT Store() noexcept {
        try {
            {
                std::lock_guard<std::mutex> lock(watcher_->mutex);
                if (!active_) return S_OK;
                watcher_->pending[node_.fullName] = WatchedValue(node_);
            }
            watcher_->wake->Raise();
        } catch (...) {
            // No exception may leave a sink; a change lost to memory
            // exhaustion is found by the next one of the node.
        }
        return S_OK;
    }

    std::shared_ptr<Watcher> watcher_;
    Node node_;
    bool active_ = true;  // under watcher_->mutex
    std::atomic<ULONG> references_{1};
};

const char* ErrorNameOf(HRESULT hr) {
    switch (hr) {
        case E_INVALIDARG:
            return "InvalidArgument";
        case HRESULT_FROM_WIN32(ERROR_INVALID_DATA):
            return "InvalidData";
        case E_NOTIMPL:
            return "NotImplemented";
        case E_ACCESSDENIED:
            return "AccessDenied";
        case E_OUTOFMEMORY:
            return "OutOfMemory";
        default:
            return "Failed";
    }
}

bool WritePolicy::Allows(uid_t uid, const std::vector<gid_t>& groups) const {
    for (uid_t u : uids)
        if (u == uid) return true;
    if (hasGroup)
        for (gid_t g : groups)
            if (g == gid) return true;
    return false;
}

Service::Service(vorndb::Session& session, WritePolicy policy, sd_event* event)
    : session_(session), policy_(std::move(policy)), event_(event), wake_(std::make_shared<Wake>()) {
    wake_->fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wake_->fd < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
    const int r = sd_event_add_io(event_, &wakeSource_, wake_->fd, EPOLLIN, &Service::OnWake, this);
    if (r < 0) throw std::system_error(-r, std::generic_category(), "sd_event_add_io");
}

Service::~Service() {
    while (!clients_.empty()) DropClient(clients_.begin());
    sd_event_source_unref(retrySource_);
    sd_event_source_unref(wakeSource_);
}

template <void (Service::*Method)(sd_bus_message*, sd_bus_message*)>
int Service::Dispatch(sd_bus_message* call, void* self, sd_bus_error* error) {
    std::string name;
    std::string message;
    try {
        sd_bus_message* reply = nullptr;
        int r = sd_bus_message_new_method_return(call, &reply);
        if (r < 0) return r;
        try {
            (static_cast<Service*>(self)->*Method)(call, reply);
        } catch (...) {
            sd_bus_message_unref(reply);
            throw;
        }
        r = sd_bus_send(nullptr, reply, nullptr);
        sd_bus_message_unref(reply);
        return r;
    } catch (const Refusal& e) {
        name = e.name();
        message = e.what();
    } catch (const vorndb::ToolError& e) {
        name = e.code() == vorndb::kExitUnknownName ? "UnknownName"
               : e.code() == vorndb::kExitRejected  ? "InvalidValue"
                                                    : "Failed";
        message = e.what();
    } catch (const std::bad_alloc&) {
        name = "OutOfMemory";
        message = "the daemon is out of memory";
    } catch (const std::exception& e) {
        name = "Failed";
        message = e.what();
    }
    const std::string full = kErrorPrefix + name;
    sd_bus_error_set(error, full.c_str(), message.c_str());
    // sd_bus_error_set gives -EIO for a name it does not know, which tells
    // sd-bus to send the error set here.
    return -EIO;
}

const sd_bus_vtable Service::kVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_ARGS("Get", SD_BUS_ARGS("s", name), SD_BUS_RESULT("v", value), &Dispatch<&Service::Get>,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("GetText", SD_BUS_ARGS("s", name), SD_BUS_RESULT("s", value, "s", status, "s", limits),
                            &Dispatch<&Service::GetText>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("GetMany", SD_BUS_ARGS("as", names), SD_BUS_RESULT("a(isv)", results),
                            &Dispatch<&Service::GetMany>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("Set", SD_BUS_ARGS("s", name, "v", value), SD_BUS_RESULT("i", result),
                            &Dispatch<&Service::Set>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("SetMany", SD_BUS_ARGS("a(sv)", items), SD_BUS_RESULT("a(is)", results),
                            &Dispatch<&Service::SetMany>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("Describe", SD_BUS_ARGS("s", name), SD_BUS_RESULT("a{sv}", properties),
                            &Dispatch<&Service::Describe>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("List", SD_BUS_ARGS("s", name, "u", depth), SD_BUS_RESULT("a(ss)", nodes),
                            &Dispatch<&Service::List>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("Reset", SD_BUS_ARGS("s", name), SD_BUS_RESULT("i", result), &Dispatch<&Service::Reset>,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("Watch", SD_BUS_ARGS("as", names), SD_BUS_RESULT("t", sequence, "a(sv)", snapshot),
                            &Dispatch<&Service::Watch>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("Unwatch", SD_BUS_ARGS("as", names), SD_BUS_NO_RESULT, &Dispatch<&Service::Unwatch>,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL_WITH_ARGS("Changed", SD_BUS_ARGS("t", sequence, "b", overrun, "a(sv)", changes), 0),
    SD_BUS_VTABLE_END,
};

int Service::Attach(sd_bus* bus, sd_bus_slot** slot) {
    int r = sd_bus_add_object_vtable(bus, slot, kObjectPath, kInterface, kVtable, this);
    // A floating match: it lives as long as the connection.
    if (r >= 0 && sd_bus_is_bus_client(bus) > 0)
        r = sd_bus_match_signal(bus, nullptr, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                "NameOwnerChanged", &Service::OnNameOwnerChanged, this);
    return r;
}

void Service::Forget(sd_bus* bus) {
    for (auto it = writers_.begin(); it != writers_.end();) it = it->first.first == bus ? writers_.erase(it) : ++it;
    for (auto it = clients_.begin(); it != clients_.end();) {
        auto next = std::next(it);
        if (it->first.first == bus) DropClient(it);
        it = next;
    }
}

int Service::OnNameOwnerChanged(sd_bus_message* m, void* self, sd_bus_error*) {
    const char *name = nullptr, *from = nullptr, *to = nullptr;
    if (sd_bus_message_read(m, "sss", &name, &from, &to) < 0 || !name || name[0] != ':' || (to && *to)) return 0;
    auto* service = static_cast<Service*>(self);
    auto found = service->clients_.find({sd_bus_message_get_bus(m), name});
    if (found != service->clients_.end()) service->DropClient(found);
    return 0;
}

void Service::DropClient(std::map<ClientKey, Client>::iterator client) {
    for (auto& [name, sink] : client->second.sinks) {
        sink->Watched().object->UnregisterNotification(sink);
        {
            std::lock_guard<std::mutex> lock(client->second.shared->mutex);
            sink->Deactivate();
        }
        sink->Release();
    }
    clients_.erase(client);
}

int Service::OnWake(sd_event_source*, int fd, uint32_t, void* self) {
    auto* service = static_cast<Service*>(self);
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t n = read(fd, &count, sizeof count);
    // Lowered before draining: a change stored after this raises it again.
    service->wake_->raised = false;
    service->Drain();
    return 0;
}

int Service::OnRetry(sd_event_source*, uint64_t, void* self) {
    auto* service = static_cast<Service*>(self);
    sd_event_source_unref(service->retrySource_);
    service->retrySource_ = nullptr;
    service->Drain();
    return 0;
}

void Service::Drain() {
    bool heldBack = false;
    for (auto& [key, client] : clients_) {
        sd_bus* bus = key.first;
        std::uint64_t queued = 0;
        if (sd_bus_get_n_queued_write(bus, &queued) >= 0 && queued > kMaxQueuedBatches) {
            // Keep coalescing; the batch that is sent at last says so.
            std::lock_guard<std::mutex> lock(client.shared->mutex);
            if (!client.shared->pending.empty()) {
                client.overrun = true;
                heldBack = true;
            }
            continue;
        }
        std::map<std::string, Value> changes;
        std::uint64_t sequence = 0;
        {
            std::lock_guard<std::mutex> lock(client.shared->mutex);
            if (client.shared->pending.empty()) continue;
            changes.swap(client.shared->pending);
            sequence = ++client.shared->sequence;
        }
        sd_bus_message* signal = nullptr;
        int r = sd_bus_message_new_signal(bus, &signal, kObjectPath, kInterface, "Changed");
        if (r >= 0 && !key.second.empty()) r = sd_bus_message_set_destination(signal, key.second.c_str());
        try {
            Check(r, "making a signal");
            Check(sd_bus_message_append(signal, "tb", sequence, static_cast<int>(client.overrun)), "appending");
            Check(sd_bus_message_open_container(signal, 'a', "(sv)"), "appending");
            for (const auto& [name, value] : changes) {
                Check(sd_bus_message_open_container(signal, 'r', "sv"), "appending");
                Check(sd_bus_message_append(signal, "s", name.c_str()), "appending");
                AppendVariant(signal, value);
                Check(sd_bus_message_close_container(signal), "appending");
            }
            Check(sd_bus_message_close_container(signal), "appending");
            Check(sd_bus_send(bus, signal, nullptr), "sending");
            client.overrun = false;
        } catch (const std::exception&) {
            // Not sent (sd-bus's own queue is full, or memory): the batch is
            // lost, so the next one carries the overrun flag.
            client.overrun = true;
        }
        sd_bus_message_unref(signal);
    }
    if (heldBack && !retrySource_)
        sd_event_add_time_relative(event_, &retrySource_, CLOCK_MONOTONIC, 20'000, 5'000, &Service::OnRetry, this);
}

Node Service::Resolve(const std::string& name) {
    if (name.size() > kMaxNameBytes)
        throw Refusal("TooLarge", "a name of " + std::to_string(name.size()) + " bytes is longer than any in the tree");
    try {
        return session_.Resolve(name);
    } catch (const vorndb::ToolError& e) {
        if (e.code() == vorndb::kExitUnknownName) throw Refusal("UnknownName", e.what());
        throw;
    }
}

Node Service::ReadNode(sd_bus_message* call) { return Resolve(ReadString(call)); }

void Service::CheckWriter(sd_bus_message* call) {
    sd_bus* bus = sd_bus_message_get_bus(call);
    const char* sender = sd_bus_message_get_sender(call);
    const auto key = std::make_pair(bus, std::string(sender ? sender : ""));
    auto it = writers_.find(key);
    if (it == writers_.end()) {
        bool allowed = false;
        sd_bus_creds* creds = nullptr;
        if (sd_bus_query_sender_creds(call,
                                      SD_BUS_CREDS_UID | SD_BUS_CREDS_EUID | SD_BUS_CREDS_GID | SD_BUS_CREDS_EGID |
                                          SD_BUS_CREDS_SUPPLEMENTARY_GIDS,
                                      &creds) >= 0) {
            uid_t uid = 0;
            const bool known = sd_bus_creds_get_euid(creds, &uid) >= 0 || sd_bus_creds_get_uid(creds, &uid) >= 0;
            std::vector<gid_t> groups;
            gid_t gid = 0;
            if (sd_bus_creds_get_egid(creds, &gid) >= 0 || sd_bus_creds_get_gid(creds, &gid) >= 0)
                groups.push_back(gid);
            const gid_t* more = nullptr;
            const int n = sd_bus_creds_get_supplementary_gids(creds, &more);
            for (int i = 0; i < n; ++i) groups.push_back(more[i]);
            allowed = known && policy_.Allows(uid, groups);
            sd_bus_creds_unref(creds);
        }
        // Unique names are never reused, but a client may make many: keep
        // the memory bounded.
        if (writers_.size() >= 4096) writers_.clear();
        it = writers_.emplace(key, allowed).first;
    }
    if (!it->second) throw Refusal("AccessDenied", "this caller may read the database but not write it");
}

void Service::Get(sd_bus_message* call, sd_bus_message* reply) { AppendVariant(reply, Read(ReadNode(call))); }

std::vector<Node> Service::ReadWatchedNodes(sd_bus_message* call) {
    std::vector<Node> nodes;
    for (const std::string& name : ReadNames(call)) {
        Node node = Resolve(name);
        if (!*TypeOf(node.family))
            throw Refusal("WrongType", node.fullName + " is a " + vorndb::FamilyName(node.family) +
                                           ": only parameters with a value are watched");
        nodes.push_back(std::move(node));
    }
    return nodes;
}

void Service::Watch(sd_bus_message* call, sd_bus_message* reply) {
    const std::vector<Node> nodes = ReadWatchedNodes(call);
    const char* sender = sd_bus_message_get_sender(call);
    const ClientKey key(sd_bus_message_get_bus(call), sender ? sender : "");
    auto found = clients_.find(key);
    const bool added = found == clients_.end();
    if (added) {
        Client client;
        client.shared = std::make_shared<Watcher>();
        client.shared->wake = wake_;
        found = clients_.emplace(key, std::move(client)).first;
    }
    Client& client = found->second;
    // Register what is new; on a failure undo this call's registrations.
    std::vector<std::string> registered;
    auto undo = [&] {
        for (const std::string& name : registered) {
            ChangeSink* sink = client.sinks[name];
            sink->Watched().object->UnregisterNotification(sink);
            {
                std::lock_guard<std::mutex> lock(client.shared->mutex);
                sink->Deactivate();
                client.shared->pending.erase(name);
            }
            sink->Release();
            client.sinks.erase(name);
        }
        if (added) clients_.erase(found);
    };
    for (const Node& node : nodes) {
        if (client.sinks.count(node.fullName)) continue;
        if (client.sinks.size() >= kMaxItems) {
            undo();
            throw Refusal("TooLarge", "a client may watch at most " + std::to_string(kMaxItems) + " nodes");
        }
        auto* sink = new ChangeSink(client.shared, node);
        const HRESULT hr = node.object->RegisterNotification(sink);
        if (FAILED(hr)) {
            sink->Release();
            undo();
            Refuse(hr, node.object.get(), IID_IDatabaseObject);
        }
        client.sinks.emplace(node.fullName, sink);
        registered.push_back(node.fullName);
    }
    // The snapshot and the sequence number together: a change stored after
    // this is read after the snapshot and goes in a later batch; one stored
    // before is superseded by the snapshot and dropped.
    std::vector<std::pair<std::string, Value>> snapshot;
    std::uint64_t sequence = 0;
    {
        std::lock_guard<std::mutex> lock(client.shared->mutex);
        for (const Node& node : nodes) {
            client.shared->pending.erase(node.fullName);
            snapshot.emplace_back(node.fullName, WatchedValue(node));
        }
        sequence = client.shared->sequence;
    }
    Check(sd_bus_message_append(reply, "t", sequence), "appending");
    Check(sd_bus_message_open_container(reply, 'a', "(sv)"), "appending");
    for (const auto& [name, value] : snapshot) {
        Check(sd_bus_message_open_container(reply, 'r', "sv"), "appending");
        Check(sd_bus_message_append(reply, "s", name.c_str()), "appending");
        AppendVariant(reply, value);
        Check(sd_bus_message_close_container(reply), "appending");
    }
    Check(sd_bus_message_close_container(reply), "appending");
}

void Service::Unwatch(sd_bus_message* call, sd_bus_message*) {
    const std::vector<Node> nodes = ReadWatchedNodes(call);
    const char* sender = sd_bus_message_get_sender(call);
    auto found = clients_.find({sd_bus_message_get_bus(call), sender ? sender : ""});
    for (const Node& node : nodes)
        if (found == clients_.end() || !found->second.sinks.count(node.fullName))
            throw Refusal("NotWatched", node.fullName + " is not watched by this client");
    Client& client = found->second;
    for (const Node& node : nodes) {
        auto it = client.sinks.find(node.fullName);
        if (it == client.sinks.end()) continue;  // named twice in the call
        ChangeSink* sink = it->second;
        sink->Watched().object->UnregisterNotification(sink);
        {
            std::lock_guard<std::mutex> lock(client.shared->mutex);
            sink->Deactivate();
            client.shared->pending.erase(node.fullName);
        }
        sink->Release();
        client.sinks.erase(it);
    }
    if (client.sinks.empty()) clients_.erase(found);
}

void Service::GetText(sd_bus_message* call, sd_bus_message* reply) {
    const Node node = ReadNode(call);
    const vorndb::Reading r = session_.Read(node);
    Check(sd_bus_message_append(reply, "sss", r.value.c_str(), r.status.c_str(), r.limits.c_str()), "appending");
}

void Service::GetMany(sd_bus_message* call, sd_bus_message* reply) {
    std::vector<std::string> names;
    Check(sd_bus_message_enter_container(call, 'a', "s"), "reading the names");
    for (;;) {
        const char* name = nullptr;
        const int got = sd_bus_message_read_basic(call, 's', &name);
        Check(got, "reading a name");
        if (got == 0) break;
        CheckCount(names.size() + 1);
        names.emplace_back(name);
    }
    Check(sd_bus_message_open_container(reply, 'a', "(isv)"), "appending");
    for (const std::string& name : names) {
        HRESULT hr = S_OK;
        std::string reason;
        Value value = std::string();
        try {
            value = Read(Resolve(name));
        } catch (const Refusal& e) {
            hr = e.name() == "InvalidData" ? HRESULT_FROM_WIN32(ERROR_INVALID_DATA) : E_FAIL;
            reason = std::string(kErrorPrefix) + e.name() + ": " + e.what();
            value = std::string();
        }
        Check(sd_bus_message_open_container(reply, 'r', "isv"), "appending");
        Check(sd_bus_message_append(reply, "is", static_cast<std::int32_t>(hr), reason.c_str()), "appending");
        AppendVariant(reply, value);
        Check(sd_bus_message_close_container(reply), "appending");
    }
    Check(sd_bus_message_close_container(reply), "appending");
}

void Service::Set(sd_bus_message* call, sd_bus_message* reply) {
    const Node node = ReadNode(call);
    Value value = Convert(session_, node, ReadVariant(call));
    CheckWriter(call);
    Check(sd_bus_message_append(reply, "i", static_cast<std::int32_t>(Write(node, value))), "appending");
}

void Service::SetMany(sd_bus_message* call, sd_bus_message* reply) {
    std::vector<std::pair<Node, Value>> items;
    Check(sd_bus_message_enter_container(call, 'a', "(sv)"), "reading the items");
    int r;
    while ((r = sd_bus_message_enter_container(call, 'r', "sv")) > 0) {
        CheckCount(items.size() + 1);
        Node node = ReadNode(call);
        Value value = Convert(session_, node, ReadVariant(call));
        items.emplace_back(std::move(node), std::move(value));
        Check(sd_bus_message_exit_container(call), "reading an item");
    }
    Check(r, "reading an item");
    CheckWriter(call);
    Check(sd_bus_message_open_container(reply, 'a', "(is)"), "appending");
    for (const auto& [node, value] : items) {
        HRESULT hr = S_OK;
        std::string reason;
        try {
            hr = Write(node, value);
        } catch (const Refusal& e) {
            hr = E_FAIL;
            reason = std::string(kErrorPrefix) + e.name() + ": " + e.what();
        }
        Check(sd_bus_message_append(reply, "(is)", static_cast<std::int32_t>(hr), reason.c_str()), "appending");
        if (FAILED(hr)) break;
    }
    Check(sd_bus_message_close_container(reply), "appending");
}

void Service::Describe(sd_bus_message* call, sd_bus_message* reply) {
    const Node node = ReadNode(call);
    Check(sd_bus_message_open_container(reply, 'a', "{sv}"), "appending");
    AppendEntry(reply, "Name", "s", node.fullName.c_str());
    AppendEntry(reply, "Family", "s", vorndb::FamilyName(node.family));
    if (node.family != Family::Group) AppendEntry(reply, "Status", "s", StatusOf(node).c_str());
    if (node.family == Family::Real || node.family == Family::RealArray) {
        const eUNIT unit = UnitOf(node);
        AppendEntry(reply, "Unit", "s", vorndb::UnitSymbol(unit).c_str());
        AppendEntry(reply, "UnitCode", "u", static_cast<std::uint32_t>(unit));
    }
    if (node.family == Family::Real) {
        ComPtr<IParameterReal> p = As<IParameterReal>(node);
        double lo = 0, hi = 0;
        if (SUCCEEDED(p->get_Minimum(&lo)) && SUCCEEDED(p->get_Maximum(&hi))) {
            AppendEntry(reply, "Minimum", "d", lo);
            AppendEntry(reply, "Maximum", "d", hi);
        }
    }
    if (node.family == Family::Integer) {
        ComPtr<IParameterInteger> p = As<IParameterInteger>(node);
        ULONG lo = 0, hi = 0;
        if (SUCCEEDED(p->get_Minimum(&lo)) && SUCCEEDED(p->get_Maximum(&hi))) {
            AppendEntry(reply, "Minimum", "u", static_cast<std::uint32_t>(lo));
            AppendEntry(reply, "Maximum", "u", static_cast<std::uint32_t>(hi));
        }
        const std::string enumeration = session_.EnumerationOf(node);
        if (!enumeration.empty()) {
            AppendEntry(reply, "Enumeration", "s", enumeration.c_str());
            Check(sd_bus_message_open_container(reply, 'e', "sv"), "appending");
            Check(sd_bus_message_append(reply, "s", "Members"), "appending");
            Check(sd_bus_message_open_container(reply, 'v', "a(si)"), "appending");
            Check(sd_bus_message_open_container(reply, 'a', "(si)"), "appending");
            for (const vorndb::EnumMember& m : session_.Types()->EnumMembers(enumeration))
                Check(sd_bus_message_append(reply, "(si)", m.name.c_str(), m.value), "appending");
            Check(sd_bus_message_close_container(reply), "appending");
            Check(sd_bus_message_close_container(reply), "appending");
            Check(sd_bus_message_close_container(reply), "appending");
        }
    }
    if (node.family == Family::IntegerArray || node.family == Family::RealArray) {
        ULONG size = 0, capacity = 0;
        if (node.family == Family::IntegerArray) {
            ComPtr<IParameterIntegerArray> p = As<IParameterIntegerArray>(node);
            p->get_Size(&size);
            p->get_MaxSize(&capacity);
        } else {
            ComPtr<IParameterRealArray> p = As<IParameterRealArray>(node);
            p->get_Size(&size);
            p->get_MaxSize(&capacity);
        }
        AppendEntry(reply, "Size", "u", static_cast<std::uint32_t>(size));
        AppendEntry(reply, "MaxSize", "u", static_cast<std::uint32_t>(capacity));
    }
    Check(sd_bus_message_close_container(reply), "appending");
}

void Service::List(sd_bus_message* call, sd_bus_message* reply) {
    const Node top = ReadNode(call);
    std::uint32_t depth = 0;
    Check(sd_bus_message_read_basic(call, 'u', &depth), "reading the depth");
    std::deque<std::pair<Node, std::uint32_t>> pending{{top, 0}};
    Check(sd_bus_message_open_container(reply, 'a', "(ss)"), "appending");
    while (!pending.empty()) {
        auto [node, level] = std::move(pending.front());
        pending.pop_front();
        if (depth && level >= depth) continue;
        for (Node& child : session_.Children(node)) {
            Check(sd_bus_message_append(reply, "(ss)", child.fullName.c_str(), vorndb::FamilyName(child.family)),
                  "appending");
            if (child.family == Family::Group) pending.emplace_back(std::move(child), level + 1);
        }
    }
    Check(sd_bus_message_close_container(reply), "appending");
}

void Service::Reset(sd_bus_message* call, sd_bus_message* reply) {
    const Node node = ReadNode(call);
    CheckWriter(call);
    HRESULT hr;
    if (node.fullName.empty()) {
        if (FAILED(hr = session_.Database()->Reset())) Refuse(hr, session_.Database(), IID_IDatabase);
    } else {
        if (FAILED(hr = node.object->Reset())) Refuse(hr, node.object.get(), IID_IDatabaseObject);
    }
    Check(sd_bus_message_append(reply, "i", static_cast<std::int32_t>(hr)), "appending");
}

}  // namespace vorndbd
