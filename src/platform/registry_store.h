// The registry's data model, its text file and the file transactions behind
// the Reg* functions (registry.cpp), the registrar and type-library
// registration. Internal to the runtime.
//
// Model: two hives (HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER), each a tree of
// keys. A key keeps its values in the order they were first written and its
// subkeys ordered by name with ASCII letter case folded; names are unique under
// that folding and keep the case they were created with. String values
// (REG_SZ, REG_EXPAND_SZ, REG_MULTI_SZ) hold UTF-16LE bytes, as Windows stores
// them. HKEY_CLASSES_ROOT is HKEY_LOCAL_MACHINE\SOFTWARE\Classes.
//
// File: the registry-export text format. Serialize writes UTF-8 with "\n"
// line ends: the header line, then every key as a [HIVE\path] section
// (depth first, in subkey order), its default value first as @=, then the
// named values. Parse reads the same, and also what a person or another tool
// writes: UTF-8 (with or without a byte-order mark) or UTF-16LE with its mark,
// "\r\n" line ends, ";" comment lines, [HKEY_CLASSES_ROOT\..] sections,
// repeated sections (merged), continuation lines of hex data, and the
// deletion forms [-KEY] and "name"=-.
//
// Transactions: Read loads the file and hands the tree to a reader; Update
// takes the exclusive lock, loads, lets a writer change the tree and, when
// the writer succeeds and the text differs, writes the file atomically
// (ReplaceFileContents, internal.h), after checking that the new text parses
// back to itself. A damaged file makes both fail with ERROR_BADDB before the
// callback runs and sets the failure text (diagnostic.h) to
// "<file>:<line>: <what>". A thread may also group changes: between
// BeginTransaction and EndTransaction it holds the lock, its Updates change a
// private copy, its Reads see that copy, and the end writes everything in one
// replacement of the file, or nothing.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "vorn/rt/registry.h"

namespace vorn::rt::reg {

// Orders names with ASCII letters folded to lower case.
struct FoldedLess {
    using is_transparent = void;
    bool operator()(std::string_view a, std::string_view b) const noexcept;
};
bool FoldedEqual(std::string_view a, std::string_view b) noexcept;

struct Value {
    std::string name;  // "" is the default value
    DWORD type = REG_NONE;
    std::vector<BYTE> data;
};

class Key {
public:
    explicit Key(std::string name) : name_(std::move(name)) {}

    const std::string& name() const noexcept { return name_; }
    const std::vector<Value>& values() const noexcept { return values_; }
    const std::map<std::string, std::unique_ptr<Key>, FoldedLess>& subkeys() const noexcept { return subkeys_; }

    const Value* FindValue(std::string_view name) const noexcept;
    // Replaces the value's type and data, or appends a new value.
    void SetValue(std::string_view name, DWORD type, std::vector<BYTE> data);
    // False when there is no such value.
    bool DeleteValue(std::string_view name) noexcept;

    Key* FindSubkey(std::string_view name) const noexcept;
    // The subkey, created when missing; *created (may be null) tells which.
    Key& CreateSubkey(std::string_view name, bool* created = nullptr);
    // Removes the subkey with everything below it; false when there is none.
    bool RemoveSubkey(std::string_view name) noexcept;
    // Removes every value and subkey.
    void Clear() noexcept;

    // The key at `path` below this one, or null.
    Key* Walk(const std::vector<std::string>& path) const noexcept;
    // The key at `path`, creating what is missing; *created tells whether the
    // last component was new.
    Key& CreatePath(const std::vector<std::string>& path, bool* created = nullptr);

private:
    std::string name_;
    std::vector<Value> values_;
    std::map<std::string, std::unique_ptr<Key>, FoldedLess> subkeys_;
};

enum class Hive { LocalMachine, CurrentUser };

struct Tree {
    Key localMachine{"HKEY_LOCAL_MACHINE"};
    Key currentUser{"HKEY_CURRENT_USER"};
    Key& hive(Hive h) noexcept { return h == Hive::LocalMachine ? localMachine : currentUser; }
    const Key& hive(Hive h) const noexcept { return h == Hive::LocalMachine ? localMachine : currentUser; }
};

// Where a key lives: its hive and the key names below the hive.
struct KeyPath {
    Hive hive = Hive::LocalMachine;
    std::vector<std::string> path;
};

// The path of HKEY_CLASSES_ROOT inside HKEY_LOCAL_MACHINE.
const std::vector<std::string>& ClassesRootPath();

// Whether `name` may name a new key or value: it holds no control character
// (below U+0020, or U+007F). A line feed or carriage return could not be
// written into the file's lines, and Windows allows only printable
// characters in key names.
bool IsStorableName(std::string_view name) noexcept;

// Splits a "\"-separated key path into `out` (appending). Null or "" adds
// nothing; a trailing "\" is ignored. ERROR_BAD_PATHNAME for a leading "\"
// or an empty component, ERROR_INVALID_PARAMETER for a component longer than
// 255 characters.
LSTATUS SplitKeyPath(const char* text, std::vector<std::string>* out);

// Parses the text of a registry file. On failure returns false with `error`
// set to "<fileName>:<line>: <what>" (or "<fileName>: <what>").
bool Parse(std::string_view text, const std::string& fileName, Tree* out, std::string* error);
std::string Serialize(const Tree& tree);

// Helpers for string data: the UTF-16 code units of little-endian bytes (an
// odd last byte is dropped), UTF-8 text as terminated UTF-16LE bytes, and back
// (the text up to the first terminator).
std::u16string UnitsOf(std::string_view bytes);
std::u16string UnitsOf(const std::vector<BYTE>& data);
std::vector<BYTE> StringData(std::string_view utf8);
std::string StringFromData(const std::vector<BYTE>& data);

// The registry file of this process now; false (with the failure text set)
// when no location can be determined.
bool RegistryFilePath(std::string* out);

LSTATUS Read(const std::function<LSTATUS(const Tree&)>& reader);
LSTATUS Update(const std::function<LSTATUS(Tree&)>& writer);

// A transaction of the calling thread (see above). Begin takes the lock and
// loads the file (its failures as Update's); a Begin inside an open
// transaction only nests. End(false) abandons the changes; at the outermost
// End(true) they are written (Update's failures), unless an inner End(false)
// abandoned the transaction (ERROR_CANCELLED, nothing written). End without
// Begin is ERROR_INVALID_FUNCTION. The lock is held from the outermost Begin
// to its End, so other writers wait meanwhile; readers in other threads and
// processes see the file as it was.
LSTATUS BeginTransaction();
LSTATUS EndTransaction(bool commit);

// The HRESULT that COM-level callers (registrar, activation, type-library
// registration) return for a registry failure: ERROR_BADDB gives
// REGDB_E_READREGDB, a file that cannot be written (ERROR_CANTWRITE,
// ERROR_DISK_FULL) REGDB_E_WRITEREGDB, anything else HRESULT_FROM_WIN32.
HRESULT HresultFromRegistry(LSTATUS status) noexcept;

}  // namespace vorn::rt::reg
