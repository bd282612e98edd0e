// The tool's connection to the database object (see Session.h).
#include "Session.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "Names.h"
#include "StreamDump.h"
#include "vorn/messages.h"

#ifndef VORNDB_LIBDIR
#define VORNDB_LIBDIR "lib"
#endif

namespace vorndb {

namespace {

using vorn::ComPtr;

constexpr char16_t kProgId[] = u"Zelmwerk.VORN.Database";
constexpr char kModuleName[] = "libvorndb.so";
const HRESULT kInvalidData = HRESULT_FROM_WIN32(ERROR_INVALID_DATA);

static_assert(std::size(vorn::kMessageTexts) == eMESSAGE_MAX, "a text for every message");

// A message's text after its member, ": \"Level too low\""; empty for other
// enumerations, eMESSAGE_BLANK and values that are no message.
std::string MessageSuffix(const std::string& enumeration, std::uint32_t value) {
    if (enumeration != "eMESSAGE") return {};
    const char* text = vorn::MessageText(value);
    return text && *text ? std::string(": \"") + text + "\"" : std::string();
}

template <class I>
ComPtr<I> As(const Node& node) {
    ComPtr<I> p;
    node.object.As(&p);
    return p;
}

// Activation failures after which the module beside the tool is tried: the
// class is not registered, or its registered module cannot be loaded.
bool ClassUnavailable(HRESULT hr) {
    return hr == REGDB_E_CLASSNOTREG || hr == CO_E_CLASSSTRING || hr == REGDB_E_READREGDB ||
           hr == HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND) || hr == HRESULT_FROM_WIN32(ERROR_BAD_EXE_FORMAT) ||
           hr == CO_E_ERRORINDLL || hr == CO_E_BADPATH;
}

// Where the module installed beside the tool may be.
std::vector<std::string> ModuleCandidates() {
    std::vector<std::string> result;
    std::error_code ec;
    const std::filesystem::path exe = std::filesystem::canonical("/proc/self/exe", ec);
    if (ec) return result;
    const std::filesystem::path dir = exe.parent_path();
    for (const std::filesystem::path& p :
         {dir / ".." / VORNDB_LIBDIR / kModuleName, dir / ".." / "lib" / kModuleName, dir / kModuleName}) {
        const std::string s = p.lexically_normal().string();
        bool seen = false;
        for (const std::string& r : result) seen = seen || r == s;
        if (!seen) result.push_back(s);
    }
    return result;
}

// The database's type library; null when it has none.
std::unique_ptr<TypeLibrary> TypesOf(IDatabase* database) {
    ComPtr<ITypeLib> library;
    if (FAILED(database->GetTypeLib(library.put())) || !library) return nullptr;
    return std::make_unique<TypeLibrary>(library.get());
}

std::string InvalidText(HRESULT hr) { return hr == kInvalidData ? "<invalid>" : "<" + DescribeHresult(hr) + ">"; }

// The result of a write of `text`; a failure throws ToolError(kExitRejected)
// with the HRESULT, the parameter's reason (read first, as any other call may
// replace it) and the limits that `limits()` gives, if any.
template <class Limits>
HRESULT Checked(HRESULT hr, const Node& node, const std::string& text, Limits&& limits) {
    if (SUCCEEDED(hr)) return hr;
    std::string message = node.fullName + ": value '" + text + "' rejected: " + DescribeHresult(hr, node.object.get());
    const std::string range = limits();
    if (!range.empty()) message += "; limits " + range;
    throw ToolError(kExitRejected, message);
}

std::string NoLimits() { return ""; }

std::string StatusText(const Node& node) {
    ComPtr<IParameter> p = As<IParameter>(node);
    eSTATUS status = eSTATUS_INVALID;
    if (!p || FAILED(p->get_Status(&status))) return "?";
    return status == eSTATUS_VALID ? "valid" : "invalid";
}

template <class T, class I, class F>
void ReadArray(I* array, Reading& r, std::size_t maxItems, F format) {
    ULONG size = 0, capacity = 0;
    array->get_Size(&size);
    array->get_MaxSize(&capacity);
    std::vector<T> values(size);
    if (!size || FAILED(array->GetArray(size, values.data()))) values.clear();
    r.value = FormatList(
        values.size(), [&](std::size_t i) { return format(values[i]); }, maxItems);
    r.limits = "size " + std::to_string(size) + " of " + std::to_string(capacity);
}

}  // namespace

std::string OwnName(const std::string& fullName) {
    const std::size_t dot = fullName.rfind('.');
    return dot == std::string::npos ? fullName : fullName.substr(dot + 1);
}

Session::Session() { Activate(); }

Session::Session(ComPtr<IDatabase> database, std::string origin)
    : database_(std::move(database)), types_(TypesOf(database_.get())), origin_(std::move(origin)) {}

Session::~Session() {
    // The database first: its final release stops the notification thread,
    // whose sinks may still read the type library.
    database_.reset();
    types_.reset();
    // The module stays loaded: objects it made may be released by the
    // runtime's own static destructors after this point.
    if (comInitialised_) CoUninitialize();
}

void Session::Activate() {
    const HRESULT init = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (FAILED(init)) throw ToolError(kExitFailure, "CoInitializeEx failed: " + DescribeHresult(init));
    comInitialised_ = true;

    std::string attempts;
    const char* forced = std::getenv("VORNDB_MODULE");
    std::vector<std::string> modules;
    if (forced && *forced) {
        modules.push_back(forced);
    } else {
        CLSID clsid{};
        HRESULT hr = CLSIDFromProgID(kProgId, &clsid);
        if (SUCCEEDED(hr))
            hr = CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IDatabase, database_.put_void());
        if (SUCCEEDED(hr)) {
            origin_ = "registered class";
        } else if (!ClassUnavailable(hr)) {
            throw ToolError(kExitFailure, "creating the registered database class failed: " + DescribeHresult(hr) +
                                              " " + vorn::LastErrorText());
        } else {
            attempts = "\n  registered class: " + DescribeHresult(hr);
            modules = ModuleCandidates();
        }
    }
    for (const std::string& path : modules) {
        if (database_) break;
        if (!forced && !std::filesystem::exists(path)) {
            attempts += "\n  " + path + ": not found";
            continue;
        }
        HMODULE module = LoadLibraryA(path.c_str());
        if (!module) {
            attempts += "\n  " + path + ": cannot be loaded: " + vorn::LastErrorText();
            continue;
        }
        using GetClassObjectFn = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, LPVOID*);
        auto getClassObject = reinterpret_cast<GetClassObjectFn>(GetProcAddress(module, "DllGetClassObject"));
        if (!getClassObject) {
            attempts += "\n  " + path + ": has no DllGetClassObject";
            FreeLibrary(module);
            continue;
        }
        ComPtr<IClassFactory> factory;
        HRESULT hr = getClassObject(CLSID_Database, IID_IClassFactory, factory.put_void());
        if (SUCCEEDED(hr)) hr = factory->CreateInstance(nullptr, IID_IDatabase, database_.put_void());
        if (FAILED(hr)) {
            // The module stays loaded: its class factory may hold state.
            throw ToolError(kExitFailure, "creating the database from " + path + " failed: " + DescribeHresult(hr));
        }
        module_ = module;
        origin_ = path;
    }
    if (!database_) throw ToolError(kExitFailure, "cannot create the database object:" + attempts);
    types_ = TypesOf(database_.get());
}

Node Session::Root() {
    ComPtr<IRoot> root;
    const HRESULT hr = database_->get_Root(root.put());
    if (FAILED(hr) || !root)
        throw ToolError(kExitFailure, "IDatabase::get_Root failed: " + DescribeHresult(hr, database_.get()));
    return NodeOf(root.get());
}

Node Session::NodeOf(IUnknown* object) {
    Node node;
    object->QueryInterface(IID_IDatabaseObject, node.object.put_void());
    if (!node.object) throw ToolError(kExitFailure, "a tree object does not answer IDatabaseObject");
    BSTR fullName = nullptr;
    node.object->get_FullName(&fullName);
    node.fullName = TakeBstr(fullName);
    node.name = OwnName(node.fullName);
    ComPtr<IGroup> group;
    ComPtr<IParameter> parameter;
    if (SUCCEEDED(node.object.As(&group))) {
        node.family = Family::Group;
    } else if (SUCCEEDED(node.object.As(&parameter))) {
        USHORT type = 0;
        parameter->get_type(&type);
        node.family = FamilyOfTypeCode(type);
    }
    return node;
}

Node Session::Resolve(const std::string& fullName) {
    if (fullName.empty()) return Root();
    std::u16string wide = vorn::Widen(fullName);
    ComPtr<IUnknown> object;
    const HRESULT hr = database_->GetObject(wide.data(), object.put());
    if (SUCCEEDED(hr) && object) {
        Node node = NodeOf(object.get());
        // The name map may answer an unknown name with the object that ends
        // its bucket: only an exact match is the object asked for.
        if (node.fullName == fullName) return node;
    }
    throw ToolError(kExitUnknownName, UnknownNameMessage("name", fullName, ClosestNames(fullName, AllNames())));
}

std::vector<Node> Session::Children(const Node& node) {
    std::vector<Node> children;
    ComPtr<IGroup> group = As<IGroup>(node);
    if (!group) return children;
    ComPtr<IEnumUnknown> items;
    const HRESULT hr = group->EnumObjects(items.put());
    if (FAILED(hr) || !items)
        throw ToolError(kExitFailure,
                        node.fullName + ": IGroup::EnumObjects failed: " + DescribeHresult(hr, group.get()));
    for (;;) {
        IUnknown* batch[64] = {};
        ULONG fetched = 0;
        const HRESULT next = items->Next(64, batch, &fetched);
        for (ULONG i = 0; i < fetched; ++i) {
            ComPtr<IUnknown> child = ComPtr<IUnknown>::adopt(batch[i]);
            children.push_back(NodeOf(child.get()));
        }
        if (next != S_OK || fetched == 0) break;
    }
    return children;
}

void Session::Walk(const Node& node) {
    for (const Node& child : Children(node)) {
        allNames_.push_back(child.fullName);
        allOwnNames_.push_back(child.name);
        if (child.family == Family::Group) Walk(child);
    }
}

const std::vector<std::string>& Session::AllNames() {
    if (allNames_.empty()) Walk(Root());
    return allNames_;
}

std::vector<std::string> Session::NodesNamed(const std::string& name) {
    AllNames();
    std::vector<std::string> result;
    for (std::size_t i = 0; i < allOwnNames_.size(); ++i)
        if (allOwnNames_[i] == name) result.push_back(allNames_[i]);
    return result;
}

std::string Session::EnumerationOf(const Node& node) const {
    if (!types_ || node.family != Family::Integer) return {};
    const TypeMember* member = types_->MemberOf(node.fullName);
    return member ? TypeLibrary::EnumerationOf(*member) : std::string();
}

Reading Session::Read(const Node& node, std::size_t maxItems) {
    Reading r;
    if (node.family == Family::Group) return r;
    r.status = StatusText(node);
    switch (node.family) {
        case Family::Boolean: {
            ComPtr<IParameterBoolean> p = As<IParameterBoolean>(node);
            VARIANT_BOOL v = VARIANT_FALSE;
            const HRESULT hr = p->get_Value(&v);
            r.value = FAILED(hr) ? InvalidText(hr) : v ? "true" : "false";
            break;
        }
        case Family::Integer: {
            ComPtr<IParameterInteger> p = As<IParameterInteger>(node);
            ULONG v = 0, lo = 0, hi = 0;
            const HRESULT hr = p->get_Value(&v);
            const std::string enumeration = EnumerationOf(node);
            if (FAILED(hr))
                r.value = InvalidText(hr);
            else if (!enumeration.empty())
                r.value = FormatEnum(v, types_->EnumMembers(enumeration)) + MessageSuffix(enumeration, v);
            else
                r.value = std::to_string(v);
            if (SUCCEEDED(p->get_Minimum(&lo)) && SUCCEEDED(p->get_Maximum(&hi)))
                r.limits = "[" + std::to_string(lo) + " .. " + std::to_string(hi) + "]";
            break;
        }
        case Family::Real: {
            ComPtr<IParameterReal> p = As<IParameterReal>(node);
            eUNIT unit = eUNIT_NONE;
            p->get_Units(&unit);
            double v = 0, lo = 0, hi = 0;
            const HRESULT hr = p->get_Value(&v);
            r.value = FAILED(hr) ? InvalidText(hr) : FormatReal(v, unit);
            if (SUCCEEDED(p->get_Minimum(&lo)) && SUCCEEDED(p->get_Maximum(&hi)))
                r.limits = "[" + FormatReal(lo, unit) + " .. " + FormatReal(hi, unit) + "]";
            break;
        }
        case Family::String: {
            ComPtr<IParameterString> p = As<IParameterString>(node);
            BSTR v = nullptr;
            const HRESULT hr = p->get_Value(&v);
            r.value = FAILED(hr) ? InvalidText(hr) : QuoteString(TakeBstr(v));
            break;
        }
        case Family::IntegerArray: {
            ComPtr<IParameterIntegerArray> p = As<IParameterIntegerArray>(node);
            ReadArray<ULONG>(p.get(), r, maxItems, [](ULONG v) { return std::to_string(v); });
            break;
        }
        case Family::RealArray: {
            ComPtr<IParameterRealArray> p = As<IParameterRealArray>(node);
            eUNIT unit = eUNIT_NONE;
            p->get_Units(&unit);
            ReadArray<double>(p.get(), r, maxItems, [unit](double v) { return FormatReal(v, unit); });
            break;
        }
        case Family::Buffer: {
            ComPtr<IParameterBuffer> p = As<IParameterBuffer>(node);
            VARIANT_BOOL empty = VARIANT_TRUE;
            p->IsEmpty(&empty);
            r.value = empty ? "<no samples>" : "<samples attached>";
            break;
        }
        default:
            r.value = "<unknown value interface>";
            break;
    }
    return r;
}

std::string Session::FormatNotification(const Node& node, const VARIANT& data) {
    switch (data.vt) {
        case VT_BOOL:
            return data.boolVal ? "true" : "false";
        case VT_I4:
        case VT_UI4: {
            // Integers are published as VT_I4 with the value's bits.
            const std::uint32_t v = data.vt == VT_I4 ? static_cast<std::uint32_t>(data.lVal) : data.ulVal;
            const std::string enumeration = EnumerationOf(node);
            if (!enumeration.empty())
                return FormatEnum(v, types_->EnumMembers(enumeration)) + MessageSuffix(enumeration, v);
            return std::to_string(v);
        }
        case VT_R8: {
            eUNIT unit = eUNIT_NONE;
            if (ComPtr<IParameterReal> p = As<IParameterReal>(node)) p->get_Units(&unit);
            return FormatReal(data.dblVal, unit);
        }
        case VT_BSTR:
            return QuoteString(vorn::Narrow(std::u16string_view(data.bstrVal, SysStringLen(data.bstrVal))));
        default:
            return Read(node, 8).value;
    }
}

HRESULT Session::Write(const Node& node, const std::string& text) {
    try {
        return WriteParsed(node, text);
    } catch (const ToolError& e) {
        // Parse failures do not know the parameter: name it.
        if (e.code() != kExitRejected || std::string(e.what()).rfind(node.fullName, 0) == 0) throw;
        throw ToolError(kExitRejected, node.fullName + ": " + e.what());
    }
}

HRESULT Session::WriteParsed(const Node& node, const std::string& text) {
    switch (node.family) {
        case Family::Boolean: {
            const bool v = ParseBoolean(text);
            return Checked(As<IParameterBoolean>(node)->put_Value(v ? VARIANT_TRUE : VARIANT_FALSE), node, text,
                           NoLimits);
        }
        case Family::Integer: {
            ComPtr<IParameterInteger> p = As<IParameterInteger>(node);
            const std::string enumeration = EnumerationOf(node);
            const std::uint32_t v = enumeration.empty()
                                        ? ParseInteger(text)
                                        : ParseEnum(text, enumeration, types_->EnumMembers(enumeration));
            return Checked(p->put_Value(v), node, text, [&] { return Read(node).limits; });
        }
        case Family::Real: {
            ComPtr<IParameterReal> p = As<IParameterReal>(node);
            eUNIT unit = eUNIT_NONE;
            p->get_Units(&unit);
            return Checked(p->put_Value(ParseReal(text, unit)), node, text, [&] { return Read(node).limits; });
        }
        case Family::String: {
            const std::u16string wide = vorn::Widen(UnquoteString(text));
            BSTR v = SysAllocStringLen(wide.data(), static_cast<UINT>(wide.size()));
            const HRESULT hr = As<IParameterString>(node)->put_Value(v);
            SysFreeString(v);
            return Checked(hr, node, text, NoLimits);
        }
        case Family::IntegerArray: {
            std::vector<ULONG> values;
            for (const std::string& item : SplitList(text)) values.push_back(ParseInteger(item));
            const HRESULT hr =
                As<IParameterIntegerArray>(node)->PutArray(static_cast<ULONG>(values.size()), values.data());
            return Checked(hr, node, text, [&] { return Read(node, 1).limits; });
        }
        case Family::RealArray: {
            ComPtr<IParameterRealArray> p = As<IParameterRealArray>(node);
            eUNIT unit = eUNIT_NONE;
            p->get_Units(&unit);
            std::vector<double> values;
            for (const std::string& item : SplitList(text)) values.push_back(ParseReal(item, unit));
            const HRESULT hr = p->PutArray(static_cast<ULONG>(values.size()), values.data());
            return Checked(hr, node, text, [&] { return Read(node, 1).limits; });
        }
        default:
            ThrowNotSettable(node);
    }
}

Node Session::LoadSettings(const std::string& path) { return LoadStream(ReadFileBytes(path), path, true); }

Node Session::LoadStream(const std::vector<std::uint8_t>& bytes, const std::string& source, bool file) {
    const DecodedStream decoded = DecodeSettings(bytes, source, file);
    const std::string top = TopRecord(decoded).name;
    Node target;
    if (top.empty()) {
        target = Root();
    } else {
        const std::vector<std::string> candidates = NodesNamed(top);
        if (candidates.size() != 1) {
            std::string message = source + ": its top record '" + top + "' names ";
            if (candidates.empty()) message += "no node of the tree";
            for (std::size_t i = 0; i < candidates.size(); ++i)
                message += (i ? ", " : "several nodes: ") + candidates[i];
            throw ToolError(kExitFile, message);
        }
        target = Resolve(candidates[0]);
    }

    HGLOBAL block = GlobalAlloc(GMEM_MOVEABLE, decoded.bytes.size());
    if (!block) throw ToolError(kExitFailure, "out of memory reading " + source);
    std::memcpy(GlobalLock(block), decoded.bytes.data(), decoded.bytes.size());
    GlobalUnlock(block);
    ComPtr<IStream> stream;
    HRESULT hr = CreateStreamOnHGlobal(block, TRUE, stream.put());
    if (FAILED(hr)) {
        GlobalFree(block);
        throw ToolError(kExitFailure, "CreateStreamOnHGlobal failed: " + DescribeHresult(hr));
    }
    hr = database_->PreLoad(stream.get());
    if (FAILED(hr))
        throw ToolError(kExitFile, source + ": the database does not take it as a settings stream: " +
                                       DescribeHresult(hr, database_.get()));
    hr = target.object->Load(stream.get());
    if (FAILED(hr))
        throw ToolError(kExitFile, source + ": loading into '" + target.fullName +
                                       "' failed: " + DescribeHresult(hr, target.object.get()));
    refusedOnLoad_.clear();
    ForEachParameter(decoded, target.fullName, [&](const std::string& fullName, const StreamRecord& record) {
        if (!record.valid() || fullName.empty()) return;
        // A string of 0 characters loads as no value by design (the stream has
        // no null string of its own): not a value the database refused.
        if (record.typeCode == vorn::kTypeString && record.text.empty()) return;
        try {
            if (Read(Resolve(fullName)).status == "invalid") refusedOnLoad_.push_back(fullName);
        } catch (const ToolError&) {
            // A record the tree has no node for: the load skipped it.
        }
    });
    return target;
}

void Session::SaveSettings(const std::string& path, const Node& node) { WriteFileAtomically(path, SaveStream(node)); }

std::vector<std::uint8_t> Session::SaveStream(const Node& node) {
    ComPtr<IStream> stream;
    HRESULT hr = CreateStreamOnHGlobal(nullptr, TRUE, stream.put());
    if (FAILED(hr)) throw ToolError(kExitFailure, "CreateStreamOnHGlobal failed: " + DescribeHresult(hr));
    hr = node.object->Save(stream.get());
    const std::string what = node.fullName.empty() ? "the tree" : "'" + node.fullName + "'";
    if (FAILED(hr)) throw ToolError(kExitFile, "saving " + what + " failed: " + DescribeHresult(hr, node.object.get()));
    LARGE_INTEGER zero{};
    ULARGE_INTEGER end{};
    stream->Seek(zero, STREAM_SEEK_CUR, &end);
    HGLOBAL block = nullptr;
    hr = GetHGlobalFromStream(stream.get(), &block);
    if (FAILED(hr)) throw ToolError(kExitFailure, "GetHGlobalFromStream failed: " + DescribeHresult(hr));
    const auto* data = static_cast<const std::uint8_t*>(GlobalLock(block));
    std::vector<std::uint8_t> bytes(data, data + end.QuadPart);
    GlobalUnlock(block);
    return bytes;
}

void ThrowNotSettable(const Node& node) {
    if (node.family == Family::Group)
        throw ToolError(kExitRejected, node.fullName + " is a group: it has no value to set");
    if (node.family == Family::Buffer)
        throw ToolError(kExitRejected, node.fullName + " is a buffer parameter: its samples cannot be set from text");
    throw ToolError(kExitRejected, node.fullName + " has an unknown value interface");
}

DecodedStream DecodeSettings(const std::vector<std::uint8_t>& bytes, const std::string& source, bool file) {
    DecodedStream decoded = DecodeStream(bytes);
    if (!decoded.ok)
        throw ToolError(kExitFile, source + ": not a valid settings stream: at offset " +
                                       OffsetText(decoded.badOffset) + ": " + decoded.error +
                                       (file ? " ('vorndb dump " + source + "' shows the records)" : ""));
    return decoded;
}

std::vector<std::uint8_t> ReadFileBytes(const std::string& path) {
    // Non-blocking, so that opening a FIFO does not wait for a writer; only
    // a regular file is read, and only as many bytes as it has.
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) throw ToolError(kExitFile, path + ": cannot be opened: " + std::strerror(errno));
    struct stat st {};
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        throw ToolError(kExitFile, path + ": is not a regular file");
    }
    if (static_cast<std::uint64_t>(st.st_size) > kMaxFileBytes) {
        ::close(fd);
        throw ToolError(kExitFile, path + ": is larger than " + std::to_string(kMaxFileBytes >> 20) + " MiB");
    }
    std::vector<std::uint8_t> bytes(static_cast<std::size_t>(st.st_size));
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::read(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<std::size_t>(n);
    }
    ::close(fd);
    if (done != bytes.size()) throw ToolError(kExitFile, path + ": cannot be read");
    return bytes;
}

void WriteFileAtomically(const std::string& path, const std::vector<std::uint8_t>& bytes) {
    if (bytes.size() > 0xFFFFFFFFu) throw ToolError(kExitFile, path + ": cannot be written: larger than 4 GiB");
    if (!VornReplaceFileA(path.c_str(), bytes.data(), static_cast<DWORD>(bytes.size()), VORN_REPLACE_HOST_PATH))
        throw ToolError(kExitFile, "cannot write " + vorn::LastErrorText());
}

}  // namespace vorndb
