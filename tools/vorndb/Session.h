// The tool's connection to one database object: activation, checked name
// resolution, reading and writing values, and settings files.
//
// Activation goes through the runtime like any client's: the class of the
// program identifier "Zelmwerk.VORN.Database" is created with
// CoCreateInstance. When that class is not registered (or its registered
// module cannot be loaded), the module installed beside the tool is used
// directly: libvorndb.so in ../<libdir> or ../lib relative to the
// executable, or in the executable's own directory, loaded with LoadLibraryA
// and asked for its class factory through DllGetClassObject; nothing is
// written to the registry. The environment variable VORNDB_MODULE names a
// module to use instead of both.
//
// Only public interfaces are used: IDatabase, IDatabaseObject, IGroup, the
// value interfaces, and the type library for enumerations and members.
//
// Names are checked: IDatabase::GetObject may hand out a known object for an
// unknown name that shares its hash bucket, so Resolve compares the full
// name of the object it got with the name asked for, and reports an unknown
// name with the closest existing names.
//
// One Session per process (the component hosts one database per process).
// NodeOf, Read, FormatNotification, EnumerationOf and Types may be used from
// the notification thread (the watch sinks do); everything else belongs to the
// thread that made the Session.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Common.h"
#include "StreamDump.h"
#include "TypeLibrary.h"
#include "Values.h"
#include "vorn/vorndb.h"

namespace vorndb {

// One node of the tree.
struct Node {
    vorn::ComPtr<IDatabaseObject> object;
    std::string fullName;  // "" for the root
    std::string name;      // own name, "Bands[2]"
    Family family = Family::Unknown;
};

// The last component of a full name: "Bands[2]" of "Trace.Bands[2]".
std::string OwnName(const std::string& fullName);
// A full name in messages: "<root>" for the root.
inline std::string Label(const std::string& fullName) { return fullName.empty() ? "<root>" : fullName; }
inline std::string Label(const Node& node) { return Label(node.fullName); }

// A node's value as the tool prints it.
struct Reading {
    std::string value;   // "1.5 MHz", "true", "\"text\"", "<invalid>"; "" for a group
    std::string status;  // "valid" / "invalid"; "" for a group
    std::string limits;  // "[1 kHz .. 50 GHz]", "[0 .. 8]", "size 3 of 400"; may be ""
};

class Session {
public:
    // Creates the database object (see above) and reads its type library.
    // Throws ToolError(kExitFailure) saying which attempts failed and why.
    Session();
    // A session over a database made by the caller (the daemon's fuzz
    // target links the component itself); no module is loaded.
    Session(vorn::ComPtr<IDatabase> database, std::string origin);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    IDatabase* Database() const { return database_.get(); }
    // The type library; null when the database has none.
    const TypeLibrary* Types() const { return types_.get(); }
    // How the database was created: "registered class" or the module path.
    const std::string& Origin() const { return origin_; }

    Node Root();
    // The node with exactly this full name ("" is the root). Throws
    // ToolError(kExitUnknownName) with suggestions otherwise.
    Node Resolve(const std::string& fullName);
    // The node behind a tree object (any interface of it).
    Node NodeOf(IUnknown* object);
    // The node's children in declaration order; none for a parameter.
    std::vector<Node> Children(const Node& node);
    // Every full name in the tree, groups and parameters, in tree order
    // (walked once, then cached).
    const std::vector<std::string>& AllNames();
    // The full names of the nodes whose own name is `name`.
    std::vector<std::string> NodesNamed(const std::string& name);

    // The node's value, status and limits. Arrays show at most maxItems
    // elements (0: all). Never throws for an invalid value ("<invalid>").
    Reading Read(const Node& node, std::size_t maxItems = 0);
    // A notification's data, formatted for the changed node: the value in
    // `data` when it carries one, else the node's current value.
    std::string FormatNotification(const Node& node, const VARIANT& data);
    // Parses `text` for the node's family (units, enumeration members,
    // booleans, quoted strings, comma lists) and writes it. Returns S_OK or
    // S_FALSE (unchanged). Throws ToolError(kExitRejected) when the text cannot
    // be read or the parameter refuses it (with the HRESULT's meaning and the
    // limits), also for groups and buffers.
    HRESULT Write(const Node& node, const std::string& text);
    // The enumeration of an integer node, from the type library ("" if none).
    std::string EnumerationOf(const Node& node) const;

    // Loads a settings file into the node its top record names (the root for
    // an unnamed record, else the one node of that name). Throws
    // ToolError(kExitFile) for a file that cannot be read, is damaged (with the
    // first bad offset), names no node or several, or that the database
    // refuses. Returns the node loaded.
    Node LoadSettings(const std::string& path);
    // LoadSettings of a stream in memory; `source` names it in the errors
    // (DecodeSettings). A stream the decoder refuses is refused before
    // anything is loaded.
    Node LoadStream(const std::vector<std::uint8_t>& bytes, const std::string& source, bool file = false);
    // The parameters whose valid stored value the last LoadSettings could not
    // store (the database loaded them as invalid), by full name.
    const std::vector<std::string>& RefusedOnLoad() const { return refusedOnLoad_; }
    // Saves the node into a settings file: the stream is made in memory and
    // written to a temporary file in the same directory that replaces `path`
    // only when complete. Throws ToolError(kExitFile).
    void SaveSettings(const std::string& path, const Node& node);
    // The settings stream of the node, as SaveSettings writes it. Throws
    // ToolError(kExitFile) when the node cannot be saved.
    std::vector<std::uint8_t> SaveStream(const Node& node);

private:
    void Activate();
    HRESULT WriteParsed(const Node& node, const std::string& text);
    void Walk(const Node& node);

    HMODULE module_ = nullptr;
    vorn::ComPtr<IDatabase> database_;
    std::unique_ptr<TypeLibrary> types_;
    std::string origin_;
    bool comInitialised_ = false;
    std::vector<std::string> allNames_;
    std::vector<std::string> allOwnNames_;
    std::vector<std::string> refusedOnLoad_;
};

// The largest file the tool reads: far above any settings file (the whole
// tree with its traces is a few megabytes).
inline constexpr std::uint64_t kMaxFileBytes = 256ull << 20;

// The refusal of a write to a node without a value set from text: a group, a
// buffer or an unknown value interface (ToolError(kExitRejected)).
[[noreturn]] void ThrowNotSettable(const Node& node);

// `bytes` decoded as a settings stream. Throws ToolError(kExitFile) for a
// damaged one, with the offset of its first bad byte: `source` names it and,
// for a file (`source` its path), the message says how to see its records.
DecodedStream DecodeSettings(const std::vector<std::uint8_t>& bytes, const std::string& source, bool file);

// The bytes of a regular file of at most kMaxFileBytes; throws
// ToolError(kExitFile) naming the file otherwise (a device, a FIFO, a
// directory, a file that cannot be read).
std::vector<std::uint8_t> ReadFileBytes(const std::string& path);
// Writes bytes to `path` (a Linux path) through a temporary file in the same
// directory, flushed and renamed over `path` (VornReplaceFileA). Throws
// ToolError(kExitFile); on failure `path` is unchanged and no temporary file
// is left.
void WriteFileAtomically(const std::string& path, const std::vector<std::uint8_t>& bytes);

}  // namespace vorndb
