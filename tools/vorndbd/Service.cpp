// The methods of io.vorndb.Database1 (see Service.h, docs/service.md).
#include "Service.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <mutex>
#include <new>
#include <set>
#include <system_error>
#include <thread>
#include <type_traits>
#include <variant>

#include "FileActions.h"
#include "Names.h"
#include "vorn/buffer.h"

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

// The export's file names are used as they are given; every other file the
// tree writes is composed onto a drive. A client of the daemon may name only
// drive paths ("D:\User\trace.csv"), which cannot leave the daemon's drive
// directories (docs/platform.md), or nothing (no export).
Value CheckedFileName(const Node& node, Value value) {
    static constexpr std::string_view kExportFiles[] = {"OtherSettings.NewTraceFile", "OtherSettings.NewSpursFile"};
    if (std::find(std::begin(kExportFiles), std::end(kExportFiles), node.fullName) == std::end(kExportFiles))
        return value;
    const std::string& name = std::get<std::string>(value);
    const bool onDrive = name.size() >= 2 && std::isalpha(static_cast<unsigned char>(name[0])) && name[1] == ':';
    if (!name.empty() && !onDrive)
        throw Refusal("AccessDenied", node.fullName + ": the daemon writes files only on its drives (a path such as " +
                                          "D:\\User\\trace.csv), not '" + name + "'");
    return value;
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
    if (value.index() == wantIndex) return CheckedFileName(node, std::move(value));
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

// Writes `count` elements into an array parameter of their type (Set and
// SetTrace): S_OK or S_FALSE, Refusal for a failure.
template <class T>
HRESULT WriteElements(const Node& node, const T* elements, std::size_t count) {
    using Array = std::conditional_t<std::is_same_v<T, double>, IParameterRealArray, IParameterIntegerArray>;
    ComPtr<Array> p = As<Array>(node);
    // An empty array still passes a pointer (the component refuses a null one).
    static const T kNone{};
    const HRESULT hr = p->PutArray(static_cast<ULONG>(count), count ? elements : &kNone);
    if (FAILED(hr)) Refuse(hr, p.get(), VORN_UUIDOF(Array));
    return hr;
}

// Writes a converted value; returns S_OK or S_FALSE and throws Refusal for a
// failure. A success beyond S_FALSE that comes with a reason is a file the
// write's action could not write (the export's result 6): the value is
// stored, and the reason travels as the refusal FileNotWritten.
HRESULT Write(const Node& node, const Value& value) {
    SetErrorInfo(0, nullptr);
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
            const std::vector<ULONG>& v = std::get<std::vector<ULONG>>(value);
            return WriteElements(node, v.data(), v.size());
        }
        case Family::RealArray: {
            const std::vector<double>& v = std::get<std::vector<double>>(value);
            return WriteElements(node, v.data(), v.size());
        }
        default:
            break;
    }
    if (FAILED(hr)) Refuse(hr, object, iid);
    if (hr != S_OK && hr != S_FALSE && object) {
        const std::string reason = vorndb::ReportedReason(object, iid);
        if (!reason.empty()) throw Refusal("FileNotWritten", reason);
    }
    return hr;
}

// Whether a write to the node starts a file action: the export, a settings
// file's save, name or selection, and every member of a limit line or a
// transducer factor, whose file is written on a change.
bool StartsFileAction(const std::string& fullName) {
    static constexpr std::string_view kGroups[] = {"LimitLineData.Line[", "TransducerFactorsData.Factor["};
    static constexpr std::string_view kNames[] = {"ExportedTrace",   "SaveFile",          "SaveFileName",
                                                  "CalibrationFile", "SelectedSavedFile", "SelectedCalibrationFile"};
    for (std::string_view group : kGroups)
        if (fullName.starts_with(group)) return true;
    const std::size_t dot = fullName.rfind('.');
    const std::string_view base = std::string_view(fullName).substr(dot == std::string::npos ? 0 : dot + 1);
    return std::find(std::begin(kNames), std::end(kNames), base) != std::end(kNames);
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

// The seals a trace's memfd carries: with these its size and bytes cannot
// change under the reader.
constexpr int kTraceSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE;

using SampleBuffer = CBuffer<float, 4>;

// A descriptor closed when it goes.
struct OwnedFd {
    int fd = -1;
    explicit OwnedFd(int f = -1) : fd(f) {}
    OwnedFd(const OwnedFd&) = delete;
    OwnedFd& operator=(const OwnedFd&) = delete;
    ~OwnedFd() {
        if (fd >= 0) close(fd);
    }
};

// A read-only or writable shared mapping of a whole descriptor (none for 0
// bytes), unmapped when it goes.
struct Mapping {
    void* data = nullptr;
    std::size_t size = 0;
    Mapping(int fd, std::size_t bytes, bool writable) : size(bytes) {
        if (!bytes) return;
        // Populated at once: one fault per page would cost more than the copy.
        void* p = mmap(nullptr, bytes, writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED | MAP_POPULATE, fd, 0);
        if (p == MAP_FAILED) throw Refusal("Failed", std::string("mapping the memfd: ") + std::strerror(errno));
        data = p;
    }
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;
    ~Mapping() {
        if (data) munmap(data, size);
    }
};

// A memfd holding `bytes` bytes from `data`, sealed with kTraceSeals and
// F_SEAL_SEAL. Written with pwrite rather than through a mapping: here a
// fresh 400 KB mapping (page faults, then unmapping) cost twice the write.
// pwrite leaves the descriptor's offset at 0, where the client reads from.
// Throws Refusal.
int MakeTrace(const void* data, std::size_t bytes) {
    OwnedFd fd(memfd_create("vorndb-trace", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (fd.fd < 0) throw Refusal("Failed", std::string("memfd_create: ") + std::strerror(errno));
    for (std::size_t done = 0; done < bytes;) {
        const ssize_t n = pwrite(fd.fd, static_cast<const char*>(data) + done, bytes - done, static_cast<off_t>(done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0)
            throw Refusal("OutOfMemory", "a memfd of " + std::to_string(bytes) + " bytes: " + std::strerror(errno));
        done += static_cast<std::size_t>(n);
    }
    if (fcntl(fd.fd, F_ADD_SEALS, kTraceSeals | F_SEAL_SEAL) < 0)
        throw Refusal("Failed", std::string("sealing the memfd: ") + std::strerror(errno));
    const int result = fd.fd;
    fd.fd = -1;
    return result;
}

}  // namespace

// The array traces handed out last, by full name. A memfd is sealed, so the
// one made for a value serves every later GetTrace of the node while the
// elements are the same bytes: a new memfd costs fresh pages (allocated,
// zeroed, freed when the last client closes it), which here was more than
// the whole call otherwise. Each client gets its own open file description
// of the memfd (reopened through /proc/self/fd), so that one client's read
// offset is not another's. At most kEntries entries of at most kMaxBytes.
class TraceCache {
public:
    static constexpr std::size_t kEntries = 8;
    static constexpr std::size_t kMaxBytes = std::size_t{1} << 20;

    ~TraceCache() {
        for (Entry& e : entries_) Drop(e);
    }
    // A descriptor of the memfd holding exactly these bytes for `name`, or
    // -1 when there is none.
    int Find(const std::string& name, const void* data, std::size_t bytes) {
        for (Entry& e : entries_) {
            if (e.name != name || e.bytes != bytes || (bytes && std::memcmp(e.map, data, bytes) != 0)) continue;
            const std::string path = "/proc/self/fd/" + std::to_string(e.fd);
            return open(path.c_str(), O_RDONLY | O_CLOEXEC);
        }
        return -1;
    }
    // Keeps `fd` (not taken: a copy is made) as the memfd of `name`.
    void Keep(const std::string& name, int fd, std::size_t bytes) {
        if (bytes > kMaxBytes) return;
        Entry e{name, fcntl(fd, F_DUPFD_CLOEXEC, 3), nullptr, bytes};
        if (e.fd < 0) return;
        if (bytes) {
            void* p = mmap(nullptr, bytes, PROT_READ, MAP_SHARED, e.fd, 0);
            if (p == MAP_FAILED) {
                close(e.fd);
                return;
            }
            e.map = p;
        }
        for (auto it = entries_.begin(); it != entries_.end(); ++it)
            if (it->name == name) {
                Drop(*it);
                entries_.erase(it);
                break;
            }
        if (entries_.size() >= kEntries) {
            Drop(entries_.back());
            entries_.pop_back();
        }
        entries_.insert(entries_.begin(), e);
    }

private:
    struct Entry {
        std::string name;
        int fd;
        void* map;
        std::size_t bytes;
    };
    static void Drop(Entry& e) {
        if (e.map) munmap(e.map, e.bytes);
        close(e.fd);
    }
    std::vector<Entry> entries_;  // the most recent first
};

namespace {

// The buffers the daemon attached to buffer parameters that had none. A
// parameter keeps the buffer object's address, not only a reference to its
// samples, so these objects are never freed (the database outlives the
// Service); one whose last reference went (its parameter took another
// buffer) is used again, so there are at most as many as buffer parameters.
std::vector<SampleBuffer*>& OwnedBuffers() {
    static auto* buffers = new std::vector<SampleBuffer*>;
    return *buffers;
}

// Writes samples into a buffer parameter: copied onto the attached buffer as
// IParameterBuffer::Assign does (the buffer the engine holds keeps its
// identity), or, with none attached, attached in a buffer of the daemon's.
// S_OK or the component's refusal.
HRESULT WriteSamples(const Node& node, const float* samples, ULONG rows, ULONG valuesPerRow) {
    ComPtr<IParameterBuffer> p = As<IParameterBuffer>(node);
    SampleBuffer incoming{CDim(rows), CDim(valuesPerRow)};
    if (rows && valuesPerRow) std::memcpy(incoming.Data(), samples, std::size_t{rows} * valuesPerRow * sizeof(float));
    incoming.SetUsedCount(rows);
    ULONG_PTR attached = 0;
    HRESULT hr;
    if (SUCCEEDED(p->GetDescriptor(&attached))) {
        hr = p->Assign(incoming.Cookie());
    } else {
        std::vector<SampleBuffer*>& owned = OwnedBuffers();
        auto free = std::find_if(owned.begin(), owned.end(), [](SampleBuffer* b) { return b->RefCount() == 0; });
        SampleBuffer* target = nullptr;
        if (free != owned.end()) {
            target = *free;
        } else {
            owned.reserve(owned.size() + 1);
            target = new SampleBuffer{CDim(0), CDim(0)};
            target->Release();  // no reference until attached
            owned.push_back(target);
        }
        target->CopyFrom(incoming);
        hr = p->Attach(target->Cookie());
    }
    if (FAILED(hr)) Refuse(hr, p.get(), IID_IParameterBuffer);
    return hr;
}

// The descriptor of an `h` argument, duplicated (the call keeps its own).
int ReadFd(sd_bus_message* call) {
    int fd = -1;
    Check(sd_bus_message_read_basic(call, 'h', &fd), "reading a descriptor");
    const int copy = fcntl(fd, F_DUPFD_CLOEXEC, 3);
    if (copy < 0) throw Refusal("Failed", std::string("duplicating the descriptor: ") + std::strerror(errno));
    return copy;
}

std::string ShapeText(const std::vector<std::uint64_t>& shape) {
    std::string text = "[";
    for (std::size_t i = 0; i < shape.size(); ++i) text += (i ? ", " : "") + std::to_string(shape[i]);
    return text + "]";
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

// What a watching client's sinks share with the loop: the nodes changed since
// its last batch and the sequence number of that batch, both under `mutex`.
struct Watcher {
    std::shared_ptr<Wake> wake;
    std::mutex mutex;
    std::set<std::string> pending;  // full names
    std::uint64_t sequence = 0;
};

// The queued sink of one (client, node). Its callback runs on the
// notification thread: it enters the node in the client's pending set and
// wakes the loop, which reads the node's value when it sends the batch. The
// sink never takes the database's lock (so the writer it follows never waits
// for it) and never touches sd-bus.
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
    // The node's data is not used: the loop reads the value it sends, so a
    // batch never carries a value older than a snapshot Watch took.
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
                watcher_->pending.insert(node_.fullName);
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

sd_bus* Connect(const std::string& address, bool busClient) {
    sd_bus* bus = nullptr;
    if (sd_bus_new(&bus) < 0) return nullptr;
    if (sd_bus_set_address(bus, address.c_str()) < 0 || sd_bus_set_bus_client(bus, busClient) < 0 ||
        sd_bus_start(bus) < 0) {
        sd_bus_unref(bus);
        return nullptr;
    }
    return bus;
}

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
    // The worker first: the answers it holds refer to the calls below.
    fileActions_.reset();
    sd_event_source_disable_unref(fileActionsSource_);
    for (auto& [id, call] : fileCalls_) sd_bus_message_unref(call);
    waits_.clear();
    transfers_.clear();
    sd_event_source_disable_unref(waitedSource_);
    waiter_.reset();
    while (!clients_.empty()) DropClient(clients_.begin());
    sd_event_source_unref(retrySource_);
    sd_event_source_unref(wakeSource_);
}

namespace {

// The refusal a failed call answers with, for the exception it ended in.
Refusal RefusalOf(const std::exception_ptr& failure) {
    try {
        std::rethrow_exception(failure);
    } catch (const Refusal& e) {
        return e;
    } catch (const vorndb::ToolError& e) {
        return Refusal(e.code() == vorndb::kExitUnknownName ? "UnknownName"
                       : e.code() == vorndb::kExitRejected  ? "InvalidValue"
                                                            : "Failed",
                       e.what());
    } catch (const std::bad_alloc&) {
        return Refusal("OutOfMemory", "the daemon is out of memory");
    } catch (const std::exception& e) {
        return Refusal("Failed", e.what());
    } catch (...) {
        return Refusal("Failed", "an unknown failure");
    }
}

// Answers a deferred call with a refusal.
void ReplyRefusal(sd_bus_message* call, const Refusal& refusal) {
    const std::string name = kErrorPrefix + refusal.name();
    sd_bus_error error{};
    sd_bus_error_set(&error, name.c_str(), refusal.what());
    sd_bus_reply_method_error(call, &error);
    sd_bus_error_free(&error);
}

}  // namespace

template <void (Service::*Method)(sd_bus_message*, sd_bus_message*)>
int Service::Dispatch(sd_bus_message* call, void* self, sd_bus_error* error) {
    try {
        sd_bus_message* reply = nullptr;
        int r = sd_bus_message_new_method_return(call, &reply);
        if (r < 0) return r;
        auto* service = static_cast<Service*>(self);
        service->lastCall_ = std::chrono::steady_clock::now();
        service->deferred_ = false;
        try {
            (service->*Method)(call, reply);
        } catch (...) {
            sd_bus_message_unref(reply);
            throw;
        }
        // A deferred call is answered when it completes.
        r = service->deferred_ ? 1 : sd_bus_send(nullptr, reply, nullptr);
        sd_bus_message_unref(reply);
        service->CheckQueue(sd_bus_message_get_bus(call));
        return r;
    } catch (...) {
        const Refusal refusal = RefusalOf(std::current_exception());
        const std::string full = kErrorPrefix + refusal.name();
        sd_bus_error_set(error, full.c_str(), refusal.what());
    }
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
    SD_BUS_METHOD_WITH_ARGS("GetTrace", SD_BUS_ARGS("s", name), SD_BUS_RESULT("s", type, "at", shape, "h", data),
                            &Dispatch<&Service::GetTrace>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("SetTrace", SD_BUS_ARGS("s", name, "at", shape, "h", data), SD_BUS_RESULT("i", result),
                            &Dispatch<&Service::SetTrace>, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("Save", SD_BUS_ARGS("s", name, "h", fd), SD_BUS_NO_RESULT, &Dispatch<&Service::Save>,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("Load", SD_BUS_ARGS("h", fd), SD_BUS_RESULT("s", name), &Dispatch<&Service::Load>,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD_WITH_ARGS("WaitForNotifications", SD_BUS_ARGS("u", milliseconds), SD_BUS_RESULT("b", drained),
                            &Dispatch<&Service::WaitForNotifications>, SD_BUS_VTABLE_UNPRIVILEGED),
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
    DropCalls(bus, "");
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
    service->DropCalls(sd_bus_message_get_bus(m), name);
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
        std::set<std::string> changed;
        std::uint64_t sequence = 0;
        {
            std::lock_guard<std::mutex> lock(client.shared->mutex);
            if (client.shared->pending.empty()) continue;
            changed.swap(client.shared->pending);
            sequence = ++client.shared->sequence;
        }
        sd_bus_message* signal = nullptr;
        int r = sd_bus_message_new_signal(bus, &signal, kObjectPath, kInterface, "Changed");
        if (r >= 0 && !key.second.empty()) r = sd_bus_message_set_destination(signal, key.second.c_str());
        try {
            Check(r, "making a signal");
            Check(sd_bus_message_append(signal, "tb", sequence, static_cast<int>(client.overrun)), "appending");
            Check(sd_bus_message_open_container(signal, 'a', "(sv)"), "appending");
            // The values as they are now: a change after this read enters
            // the node again, for the next batch.
            for (const std::string& name : changed) {
                const auto sink = client.sinks.find(name);
                if (sink == client.sinks.end()) continue;  // unwatched meanwhile
                Check(sd_bus_message_open_container(signal, 'r', "sv"), "appending");
                Check(sd_bus_message_append(signal, "s", name.c_str()), "appending");
                AppendVariant(signal, WatchedValue(sink->second->Watched()));
                Check(sd_bus_message_close_container(signal), "appending");
            }
            Check(sd_bus_message_close_container(signal), "appending");
            Check(sd_bus_send(bus, signal, nullptr), "sending");
            client.overrun = false;
            CheckQueue(bus);
        } catch (const std::exception&) {
            // Not sent (sd-bus's own queue is full, or memory): the batch is
            // lost, so the next one carries the overrun flag.
            client.overrun = true;
        }
        sd_bus_message_unref(signal);
    }
    if (heldBack && !retrySource_)
        sd_event_add_time_relative(event_, &retrySource_, CLOCK_MONOTONIC, 20'000, 5'000, &Service::OnRetry, this);
    AnswerWaits();
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
    // The snapshot and the sequence number together: a change entered after
    // this is read after the snapshot and goes in a later batch; one entered
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
    const std::vector<std::string> names = ReadNames(call);
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
    auto write = [node, value = std::move(value)]() -> Appender {
        const auto result = static_cast<std::int32_t>(Write(node, value));
        return [result](sd_bus_message* out) { Check(sd_bus_message_append(out, "i", result), "appending"); };
    };
    if (StartsFileAction(node.fullName)) return Defer(call, std::move(write));
    write()(reply);
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
    const bool fileAction =
        std::any_of(items.begin(), items.end(), [](const auto& item) { return StartsFileAction(item.first.fullName); });
    auto writeAll = [items = std::move(items)]() -> Appender {
        std::vector<std::pair<std::int32_t, std::string>> results;
        for (const auto& [node, value] : items) {
            HRESULT hr = S_OK;
            std::string reason;
            try {
                hr = Write(node, value);
            } catch (const Refusal& e) {
                hr = E_FAIL;
                reason = std::string(kErrorPrefix) + e.name() + ": " + e.what();
            }
            results.emplace_back(static_cast<std::int32_t>(hr), std::move(reason));
            if (FAILED(hr)) break;
        }
        return [results = std::move(results)](sd_bus_message* out) {
            Check(sd_bus_message_open_container(out, 'a', "(is)"), "appending");
            for (const auto& [hr, reason] : results)
                Check(sd_bus_message_append(out, "(is)", hr, reason.c_str()), "appending");
            Check(sd_bus_message_close_container(out), "appending");
        };
    };
    if (fileAction) return Defer(call, std::move(writeAll));
    writeAll()(reply);
}

void Service::Defer(sd_bus_message* call, std::function<Appender()> write) {
    if (!fileActions_) {
        auto actions = std::make_unique<FileActions>();
        const int r =
            sd_event_add_io(event_, &fileActionsSource_, actions->Fd(), EPOLLIN, &Service::OnFileActions, this);
        if (r < 0) throw Refusal("Failed", std::string("watching the file actions: ") + std::strerror(-r));
        fileActions_ = std::move(actions);
    }
    const std::uint64_t id = ++lastFileCall_;
    fileCalls_.emplace(id, sd_bus_message_ref(call));
    auto work = [this, id, write = std::move(write)]() -> FileActions::Answer {
        Appender append;
        std::exception_ptr failure;
        try {
            append = write();
        } catch (...) {
            failure = std::current_exception();
        }
        return [this, id, append = std::move(append), failure] { AnswerFileAction(id, append, failure); };
    };
    try {
        fileActions_->Post(std::move(work));
    } catch (...) {
        // Not queued: the call is answered now, with the refusal.
        sd_bus_message_unref(fileCalls_[id]);
        fileCalls_.erase(id);
        throw;
    }
    deferred_ = true;
}

int Service::OnFileActions(sd_event_source*, int, uint32_t, void* self) {
    for (const FileActions::Answer& answer : static_cast<Service*>(self)->fileActions_->Finished()) answer();
    return 0;
}

void Service::AnswerFileAction(std::uint64_t id, const Appender& append, const std::exception_ptr& failure) {
    const auto found = fileCalls_.find(id);
    if (found == fileCalls_.end()) return;  // its client left
    sd_bus_message* call = found->second;
    fileCalls_.erase(found);
    if (!failure) {
        sd_bus_message* reply = nullptr;
        try {
            Check(sd_bus_message_new_method_return(call, &reply), "answering");
            append(reply);
            sd_bus_send(nullptr, reply, nullptr);
        } catch (...) {
            ReplyRefusal(call, RefusalOf(std::current_exception()));
        }
        sd_bus_message_unref(reply);
    } else {
        ReplyRefusal(call, RefusalOf(failure));
    }
    CheckQueue(sd_bus_message_get_bus(call));
    sd_bus_message_unref(call);
}

void Service::Describe(sd_bus_message* call, sd_bus_message* reply) {
    const Node node = ReadNode(call);
    Check(sd_bus_message_open_container(reply, 'a', "{sv}"), "appending");
    AppendEntry(reply, "Name", "s", node.fullName.c_str());
    AppendEntry(reply, "Family", "s", vorndb::FamilyName(node.family));
    if (node.family != Family::Group) AppendEntry(reply, "Status", "s", StatusOf(node).c_str());
    if (*TypeOf(node.family)) {
        std::uint32_t watchers = 0;
        for (const auto& [key, client] : clients_) watchers += client.sinks.count(node.fullName) ? 1 : 0;
        AppendEntry(reply, "Watchers", "u", watchers);
    }
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
        Check(sd_bus_message_append(reply, "i", static_cast<std::int32_t>(hr)), "appending");
        return;
    }
    // A node is reset as a write: its dependants and watchers are told.
    auto reset = [node]() -> Appender {
        const HRESULT result = node.object->ResetPutValue();
        if (FAILED(result)) Refuse(result, node.object.get(), IID_IDatabaseObject);
        return [result](sd_bus_message* out) {
            Check(sd_bus_message_append(out, "i", static_cast<std::int32_t>(result)), "appending");
        };
    };
    if (StartsFileAction(node.fullName)) return Defer(call, std::move(reset));
    reset()(reply);
}

// --- Traces through a sealed memfd -------------------------------------------

void Service::GetTrace(sd_bus_message* call, sd_bus_message* reply) {
    const Node node = ReadNode(call);
    const char* type = "";
    std::vector<std::uint64_t> shape;
    int fd = -1;
    switch (node.family) {
        case Family::RealArray:
        case Family::IntegerArray: {
            const bool real = node.family == Family::RealArray;
            ComPtr<IParameterRealArray> reals;
            ComPtr<IParameterIntegerArray> integers;
            ULONG size = 0;
            HRESULT hr;
            if (real) {
                reals = As<IParameterRealArray>(node);
                if (FAILED(hr = reals->get_Size(&size))) Refuse(hr, reals.get(), IID_IParameterRealArray);
            } else {
                integers = As<IParameterIntegerArray>(node);
                if (FAILED(hr = integers->get_Size(&size))) Refuse(hr, integers.get(), IID_IParameterIntegerArray);
            }
            type = real ? "d" : "u";
            shape = {size};
            // The elements land in a buffer kept between calls, then go into
            // the memfd with one write.
            const std::size_t bytes = std::size_t{size} * (real ? sizeof(double) : sizeof(ULONG));
            scratch_.resize((bytes + 7) / 8);
            if (size) {
                hr = real ? reals->GetArray(size, reinterpret_cast<double*>(scratch_.data()))
                          : integers->GetArray(size, reinterpret_cast<ULONG*>(scratch_.data()));
                if (FAILED(hr))
                    real ? Refuse(hr, reals.get(), IID_IParameterRealArray)
                         : Refuse(hr, integers.get(), IID_IParameterIntegerArray);
            }
            if (!traces_) traces_ = std::make_unique<TraceCache>();
            fd = traces_->Find(node.fullName, scratch_.data(), bytes);
            if (fd < 0) {
                fd = MakeTrace(scratch_.data(), bytes);
                traces_->Keep(node.fullName, fd, bytes);
            }
            if (scratch_.capacity() * 8 > kMaxKeptScratch) std::vector<std::uint64_t>().swap(scratch_);
            break;
        }
        case Family::Buffer: {
            ComPtr<IParameterBuffer> p = As<IParameterBuffer>(node);
            ULONG_PTR cookie = 0;
            const SampleBuffer* buffer =
                SUCCEEDED(p->GetDescriptor(&cookie)) ? SampleBuffer::FromCookie(cookie) : nullptr;
            const ULONG rows = buffer ? buffer->UsedCount() : 0;
            const ULONG valuesPerRow = buffer ? buffer->SecondExtent() : 0;
            const std::size_t bytes = std::size_t{rows} * valuesPerRow * sizeof(float);
            if (buffer && (bytes > buffer->AllocatedBytes() || (bytes && !buffer->Data())))
                throw Refusal("InvalidData", node.fullName + ": the attached buffer's " + std::to_string(rows) +
                                                 " used rows exceed its storage");
            type = "f";
            shape = {rows, valuesPerRow};
            fd = MakeTrace(bytes ? buffer->Data() : nullptr, bytes);
            break;
        }
        default:
            throw Refusal("WrongType", node.fullName + " is a " + vorndb::FamilyName(node.family) +
                                           ": traces are real arrays, integer arrays and buffers");
    }
    const OwnedFd trace(fd);
    Check(sd_bus_message_append(reply, "s", type), "appending");
    Check(sd_bus_message_append_array(reply, 't', shape.data(), shape.size() * sizeof(std::uint64_t)), "appending");
    Check(sd_bus_message_append(reply, "h", trace.fd), "appending");
}

void Service::SetTrace(sd_bus_message* call, sd_bus_message* reply) {
    const Node node = ReadNode(call);
    const std::vector<std::uint64_t> shape = ReadArray<std::uint64_t>(call, 't');
    const OwnedFd data(ReadFd(call));
    std::size_t elementBytes = 0;
    std::size_t rank = 1;
    switch (node.family) {
        case Family::RealArray:
            elementBytes = sizeof(double);
            break;
        case Family::IntegerArray:
            elementBytes = sizeof(ULONG);
            break;
        case Family::Buffer:
            elementBytes = sizeof(float);
            rank = 2;
            break;
        default:
            throw Refusal("WrongType", node.fullName + " is a " + vorndb::FamilyName(node.family) +
                                           ": traces are real arrays, integer arrays and buffers");
    }
    if (shape.size() != rank)
        throw Refusal("InvalidValue", node.fullName + " takes a trace of the shape " +
                                          (rank == 1 ? "[count]" : "[rows, valuesPerRow]") + ", not " +
                                          ShapeText(shape));
    CheckWriter(call);

    const int seals = fcntl(data.fd, F_GET_SEALS);
    if (seals < 0)
        throw Refusal("WrongType", "the trace's descriptor is not a memfd that allows sealing (" +
                                       std::string(std::strerror(errno)) + ")");
    if ((seals & kTraceSeals) != kTraceSeals)
        throw Refusal("WrongType",
                      "the trace's memfd lacks the seals F_SEAL_SHRINK, F_SEAL_GROW and F_SEAL_WRITE: an unsealed "
                      "descriptor could change under the daemon");
    // The limits before the product, which then cannot overflow.
    if (rank == 1 && shape[0] > kMaxArrayElements)
        throw Refusal("TooLarge", "a trace of " + std::to_string(shape[0]) + " elements is more than the " +
                                      std::to_string(kMaxArrayElements) + " a call may carry");
    if (rank == 2 &&
        (shape[0] > kMaxTraceBytes || shape[1] > kMaxTraceBytes || shape[0] * shape[1] > kMaxTraceBytes / elementBytes))
        throw Refusal("TooLarge", "a buffer trace of the shape " + ShapeText(shape) + " is more than the " +
                                      std::to_string(kMaxTraceBytes) + " bytes a call may carry");
    const std::size_t count = rank == 1 ? shape[0] : shape[0] * shape[1];
    const std::size_t expected = count * elementBytes;
    struct stat st {};
    if (fstat(data.fd, &st) < 0) throw Refusal("Failed", std::string("fstat of the memfd: ") + std::strerror(errno));
    if (static_cast<std::uint64_t>(st.st_size) != expected)
        throw Refusal("InvalidValue", "the trace's memfd holds " + std::to_string(st.st_size) + " bytes; the shape " +
                                          ShapeText(shape) + " needs " + std::to_string(expected));

    const Mapping map(data.fd, expected, false);
    HRESULT hr;
    if (node.family == Family::RealArray)
        hr = WriteElements(node, static_cast<const double*>(map.data), count);
    else if (node.family == Family::IntegerArray)
        hr = WriteElements(node, static_cast<const ULONG*>(map.data), count);
    else
        hr = WriteSamples(node, static_cast<const float*>(map.data), static_cast<ULONG>(shape[0]),
                          static_cast<ULONG>(shape[1]));
    Check(sd_bus_message_append(reply, "i", static_cast<std::int32_t>(hr)), "appending");
}

// --- Save and Load through a descriptor ---------------------------------------

struct Service::Transfer {
    Service* service = nullptr;
    sd_bus_message* call = nullptr;  // referenced
    int fd = -1;
    bool load = false;
    bool pollable = false;            // a pipe or socket: moved as the descriptor is ready
    std::vector<std::uint8_t> bytes;  // Save: the stream; Load: what was read
    std::size_t done = 0;
    sd_event_source* io = nullptr;
    sd_event_source* timer = nullptr;
    ~Transfer() {
        sd_event_source_disable_unref(io);
        sd_event_source_disable_unref(timer);
        if (fd >= 0) close(fd);
        sd_bus_message_unref(call);
    }
};

namespace {

// Answers `call` with a refusal.
// The descriptor of a Save or Load, checked to be a pipe, a socket or a
// regular file; true for one that is moved as it becomes ready (made
// non-blocking).
bool PrepareStreamFd(int fd) {
    struct stat st {};
    if (fstat(fd, &st) < 0) throw Refusal("Failed", std::string("fstat of the descriptor: ") + std::strerror(errno));
    if (S_ISREG(st.st_mode)) return false;
    if (!S_ISFIFO(st.st_mode) && !S_ISSOCK(st.st_mode))
        throw Refusal("WrongType", "the descriptor is neither a pipe, a socket nor a regular file");
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0)
        throw Refusal("Failed", std::string("making the descriptor non-blocking: ") + std::strerror(errno));
    return true;
}

}  // namespace

void Service::Save(sd_bus_message* call, sd_bus_message*) {
    const Node node = ReadNode(call);
    auto transfer = std::make_unique<Transfer>();
    transfer->fd = ReadFd(call);
    if (transfers_.size() >= kMaxTransfers)
        throw Refusal("TooLarge", "the daemon moves at most " + std::to_string(kMaxTransfers) +
                                      " streams at once; try again when one has ended");
    transfer->pollable = PrepareStreamFd(transfer->fd);
    transfer->bytes = session_.SaveStream(node);
    transfer->call = sd_bus_message_ref(call);
    Start(std::move(transfer));
}

void Service::Load(sd_bus_message* call, sd_bus_message*) {
    auto transfer = std::make_unique<Transfer>();
    transfer->fd = ReadFd(call);
    CheckWriter(call);
    if (transfers_.size() >= kMaxTransfers)
        throw Refusal("TooLarge", "the daemon moves at most " + std::to_string(kMaxTransfers) +
                                      " streams at once; try again when one has ended");
    transfer->pollable = PrepareStreamFd(transfer->fd);
    transfer->load = true;
    transfer->call = sd_bus_message_ref(call);
    Start(std::move(transfer));
}

void Service::Start(std::unique_ptr<Transfer> transfer) {
    transfer->service = this;
    Transfer& t = *transfer;
    transfers_.push_back(std::move(transfer));
    deferred_ = true;
    if (Step(t)) return;
    int r = sd_event_add_io(event_, &t.io, t.fd, t.load ? EPOLLIN : EPOLLOUT, &Service::OnTransferIo, &t);
    if (r >= 0)
        r = sd_event_add_time_relative(event_, &t.timer, CLOCK_MONOTONIC, kTransferSeconds * 1'000'000, 0,
                                       &Service::OnTransferTimeout, &t);
    if (r < 0) {
        ReplyRefusal(t.call, Refusal("Failed", std::string("watching the descriptor: ") + std::strerror(-r)));
        EndTransfer(t);
    }
}

bool Service::Step(Transfer& t) {
    try {
        for (;;) {
            ssize_t n;
            if (t.load) {
                if (t.done > kMaxStreamBytes)
                    throw Refusal("TooLarge", "the stream is longer than the " + std::to_string(kMaxStreamBytes) +
                                                  " bytes a Load reads");
                const std::size_t room =
                    std::min<std::size_t>(std::max<std::size_t>(t.done, 65536), kMaxStreamBytes + 1 - t.done);
                t.bytes.resize(t.done + room);
                n = read(t.fd, t.bytes.data() + t.done, room);
                t.bytes.resize(t.done + std::max<ssize_t>(n, 0));
                if (n == 0) break;
            } else {
                if (t.done == t.bytes.size()) break;
                n = write(t.fd, t.bytes.data() + t.done, t.bytes.size() - t.done);
            }
            if (n > 0) {
                t.done += static_cast<std::size_t>(n);
                continue;
            }
            if (n < 0 && errno == EINTR) continue;
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) && t.pollable) return false;
            throw Refusal("Failed", std::string(t.load ? "reading the stream" : "writing the stream") +
                                        " failed after " + std::to_string(t.done) +
                                        " bytes: " + std::strerror(n < 0 ? errno : EIO));
        }
        Finish(t);
    } catch (const Refusal& e) {
        ReplyRefusal(t.call, e);
    } catch (const std::bad_alloc&) {
        ReplyRefusal(t.call, Refusal("OutOfMemory", "the daemon is out of memory"));
    } catch (const std::exception& e) {
        ReplyRefusal(t.call, Refusal("Failed", e.what()));
    }
    EndTransfer(t);
    return true;
}

void Service::Finish(Transfer& t) {
    if (!t.load) {
        sd_bus_reply_method_return(t.call, "");
        return;
    }
    std::string name;
    try {
        name = session_.LoadStream(t.bytes, "the stream").fullName;
    } catch (const vorndb::ToolError& e) {
        throw Refusal(e.code() == vorndb::kExitFile ? "InvalidStream" : "Failed", e.what());
    }
    sd_bus_reply_method_return(t.call, "s", name.c_str());
}

void Service::EndTransfer(Transfer& t) {
    sd_bus* bus = sd_bus_message_get_bus(t.call);
    auto found = std::find_if(transfers_.begin(), transfers_.end(), [&](const auto& p) { return p.get() == &t; });
    if (found != transfers_.end()) transfers_.erase(found);
    CheckQueue(bus);
}

int Service::OnTransferIo(sd_event_source*, int, uint32_t, void* transfer) {
    auto* t = static_cast<Transfer*>(transfer);
    t->service->Step(*t);
    return 0;
}

int Service::OnTransferTimeout(sd_event_source*, uint64_t, void* transfer) {
    auto* t = static_cast<Transfer*>(transfer);
    ReplyRefusal(t->call, Refusal("TimedOut", "the descriptor took " + std::to_string(t->done) + " bytes" +
                                                  (t->load ? "" : " of " + std::to_string(t->bytes.size())) + " in " +
                                                  std::to_string(kTransferSeconds) + " s"));
    t->service->EndTransfer(*t);
    return 0;
}

// --- WaitForNotifications -----------------------------------------------------

// The one thread that waits for the component's notification queue
// (IDatabase::WaitForNotifications blocks its caller). A request made at
// generation g is through once a wait started after it returned; the thread
// then raises its eventfd for the loop.
class NotificationWaiter {
public:
    NotificationWaiter(IDatabase* database) : database_(database) {
        fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (fd_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
        thread_ = std::thread([this] { Run(); });
    }
    ~NotificationWaiter() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stop_ = true;
        }
        wake_.notify_one();
        thread_.join();
        close(fd_);
    }
    int Fd() const { return fd_; }
    // The generation a wait asked for now is through at.
    std::uint64_t Request() {
        std::lock_guard<std::mutex> lock(mutex_);
        const std::uint64_t generation = ++requested_;
        wake_.notify_one();
        return generation;
    }
    // The last generation through, and the result of its wait.
    std::pair<std::uint64_t, HRESULT> Through() {
        std::lock_guard<std::mutex> lock(mutex_);
        return {through_, result_};
    }

private:
    void Run() {
        const HRESULT init = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            wake_.wait(lock, [&] { return stop_ || requested_ > through_; });
            if (stop_) break;
            const std::uint64_t generation = requested_;
            lock.unlock();
            HRESULT hr;
            // In slices, so that the daemon can stop.
            do {
                hr = database_->WaitForNotifications(100);
            } while (hr == E_ABORT && !Stopping());
            lock.lock();
            through_ = generation;
            result_ = hr;
            const std::uint64_t one = 1;
            [[maybe_unused]] const ssize_t n = write(fd_, &one, sizeof one);
        }
        lock.unlock();
        if (SUCCEEDED(init)) CoUninitialize();
    }
    bool Stopping() {
        std::lock_guard<std::mutex> lock(mutex_);
        return stop_;
    }

    IDatabase* database_;
    int fd_ = -1;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::uint64_t requested_ = 0;
    std::uint64_t through_ = 0;
    HRESULT result_ = S_OK;
    bool stop_ = false;
    std::thread thread_;
};

struct Service::Wait {
    Service* service = nullptr;
    sd_bus_message* call = nullptr;  // referenced
    ClientKey client;
    std::uint64_t generation = 0;
    sd_event_source* timer = nullptr;
    ~Wait() {
        sd_event_source_disable_unref(timer);
        sd_bus_message_unref(call);
    }
};

void Service::WaitForNotifications(sd_bus_message* call, sd_bus_message*) {
    std::uint32_t milliseconds = 0;
    Check(sd_bus_message_read_basic(call, 'u', &milliseconds), "reading the time");
    if (waits_.size() >= kMaxWaits)
        throw Refusal("TooLarge", "at most " + std::to_string(kMaxWaits) + " WaitForNotifications calls wait at once");
    if (!waiter_) {
        auto waiter = std::make_unique<NotificationWaiter>(session_.Database());
        const int r = sd_event_add_io(event_, &waitedSource_, waiter->Fd(), EPOLLIN, &Service::OnWaited, this);
        if (r < 0) throw Refusal("Failed", std::string("watching the waiter: ") + std::strerror(-r));
        waiter_ = std::move(waiter);
    }
    auto wait = std::make_unique<Wait>();
    wait->service = this;
    const char* sender = sd_bus_message_get_sender(call);
    wait->client = {sd_bus_message_get_bus(call), sender ? sender : ""};
    const int r = sd_event_add_time_relative(event_, &wait->timer, CLOCK_MONOTONIC, std::uint64_t{milliseconds} * 1000,
                                             0, &Service::OnWaitTimeout, wait.get());
    if (r < 0) throw Refusal("Failed", std::string("arming the time limit: ") + std::strerror(-r));
    wait->call = sd_bus_message_ref(call);
    wait->generation = waiter_->Request();
    waits_.push_back(std::move(wait));
    deferred_ = true;
}

int Service::OnWaited(sd_event_source*, int fd, uint32_t, void* self) {
    auto* service = static_cast<Service*>(self);
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t n = read(fd, &count, sizeof count);
    // The sinks have stored what the waits ask for: send it first.
    service->Drain();
    return 0;
}

void Service::AnswerWaits() {
    if (waits_.empty() || !waiter_) return;
    const auto [through, result] = waiter_->Through();
    for (std::size_t i = 0; i < waits_.size();) {
        Wait& wait = *waits_[i];
        if (wait.generation > through) {
            ++i;
            continue;
        }
        if (FAILED(result)) {
            ReplyRefusal(wait.call, Refusal(ErrorNameOf(result), "the notifications cannot be waited for: " +
                                                                     vorndb::DescribeHresult(result)));
            EndWait(wait);
            continue;
        }
        // Drained when the client's batch went out: nothing pending (a batch
        // held back by a full queue keeps the call waiting).
        auto client = clients_.find(wait.client);
        bool drained = client == clients_.end();
        if (!drained) {
            std::lock_guard<std::mutex> lock(client->second.shared->mutex);
            drained = client->second.shared->pending.empty();
        }
        if (!drained) {
            ++i;
            continue;
        }
        sd_bus_reply_method_return(wait.call, "b", 1);
        EndWait(wait);
    }
}

// Forgets a wait (answered already, or its client gone).
void Service::EndWait(Wait& wait) {
    sd_bus* bus = sd_bus_message_get_bus(wait.call);
    auto found = std::find_if(waits_.begin(), waits_.end(), [&](const auto& p) { return p.get() == &wait; });
    if (found != waits_.end()) waits_.erase(found);
    CheckQueue(bus);
}

int Service::OnWaitTimeout(sd_event_source*, uint64_t, void* wait) {
    auto* w = static_cast<Wait*>(wait);
    sd_bus_reply_method_return(w->call, "b", 0);
    w->service->EndWait(*w);
    return 0;
}

void Service::DropCalls(sd_bus* bus, const std::string& sender) {
    auto gone = [&](sd_bus_message* call) {
        const char* from = sd_bus_message_get_sender(call);
        return sd_bus_message_get_bus(call) == bus && (sender.empty() || sender == (from ? from : ""));
    };
    std::erase_if(transfers_, [&](const auto& t) { return gone(t->call); });
    std::erase_if(waits_, [&](const auto& w) { return gone(w->call); });
    // A file action under way still runs; its answer is dropped.
    for (auto it = fileCalls_.begin(); it != fileCalls_.end();) {
        if (!gone(it->second)) {
            ++it;
            continue;
        }
        sd_bus_message_unref(it->second);
        it = fileCalls_.erase(it);
    }
}

void Service::CheckQueue(sd_bus* bus) {
    std::uint64_t queued = 0;
    if (sd_bus_is_server(bus) <= 0 || sd_bus_get_n_queued_write(bus, &queued) < 0 || queued <= kMaxQueuedReplies)
        return;
    // Shut down, the socket reads as closed: sd-bus reports the connection
    // lost, and the daemon closes it as it closes any that leaves.
    const int fd = sd_bus_get_fd(bus);
    if (fd >= 0) shutdown(fd, SHUT_RDWR);
}

}  // namespace vorndbd
