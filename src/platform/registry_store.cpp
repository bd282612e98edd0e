// The registry's data model, text format and file transactions; see
// registry_store.h for the rules.
#include "registry_store.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "diagnostic.h"
#include "internal.h"

namespace vorn::rt::reg {

namespace {

constexpr std::string_view kHeader = "Windows Registry Editor Version 5.00";

char Fold(char c) noexcept { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

}  // namespace

bool FoldedLess::operator()(std::string_view a, std::string_view b) const noexcept {
    const std::size_t n = std::min(a.size(), b.size());
    for (std::size_t i = 0; i < n; ++i) {
        const auto x = static_cast<unsigned char>(Fold(a[i]));
        const auto y = static_cast<unsigned char>(Fold(b[i]));
        if (x != y) return x < y;
    }
    return a.size() < b.size();
}

bool FoldedEqual(std::string_view a, std::string_view b) noexcept {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (Fold(a[i]) != Fold(b[i])) return false;
    return true;
}

// ---------------------------------------------------------------------------
// Keys
// ---------------------------------------------------------------------------

const Value* Key::FindValue(std::string_view name) const noexcept {
    for (const Value& v : values_)
        if (FoldedEqual(v.name, name)) return &v;
    return nullptr;
}

void Key::SetValue(std::string_view name, DWORD type, std::vector<BYTE> data) {
    for (Value& v : values_) {
        if (FoldedEqual(v.name, name)) {
            v.type = type;
            v.data = std::move(data);
            return;
        }
    }
    values_.push_back(Value{std::string(name), type, std::move(data)});
}

bool Key::DeleteValue(std::string_view name) noexcept {
    auto it = std::find_if(values_.begin(), values_.end(), [&](const Value& v) { return FoldedEqual(v.name, name); });
    if (it == values_.end()) return false;
    values_.erase(it);
    return true;
}

Key* Key::FindSubkey(std::string_view name) const noexcept {
    auto it = subkeys_.find(name);
    return it == subkeys_.end() ? nullptr : it->second.get();
}

Key& Key::CreateSubkey(std::string_view name, bool* created) {
    auto it = subkeys_.find(name);
    if (created) *created = it == subkeys_.end();
    if (it != subkeys_.end()) return *it->second;
    auto key = std::make_unique<Key>(std::string(name));
    Key& result = *key;
    subkeys_.emplace(std::string(name), std::move(key));
    return result;
}

bool Key::RemoveSubkey(std::string_view name) noexcept {
    auto it = subkeys_.find(name);
    if (it == subkeys_.end()) return false;
    subkeys_.erase(it);
    return true;
}

void Key::Clear() noexcept {
    values_.clear();
    subkeys_.clear();
}

Key* Key::Walk(const std::vector<std::string>& path) const noexcept {
    const Key* key = this;
    for (const std::string& name : path) {
        key = key->FindSubkey(name);
        if (!key) return nullptr;
    }
    return const_cast<Key*>(key);
}

Key& Key::CreatePath(const std::vector<std::string>& path, bool* created) {
    Key* key = this;
    bool last = false;
    for (const std::string& name : path) key = &key->CreateSubkey(name, &last);
    if (created) *created = last;
    return *key;
}

const std::vector<std::string>& ClassesRootPath() {
    static const std::vector<std::string> path{"SOFTWARE", "Classes"};
    return path;
}

bool IsStorableName(std::string_view name) noexcept {
    for (char c : name)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) return false;
    return true;
}

LSTATUS SplitKeyPath(const char* text, std::vector<std::string>* out) {
    if (!text || !*text) return ERROR_SUCCESS;
    std::string_view rest(text);
    if (rest.front() == '\\') return ERROR_BAD_PATHNAME;
    if (rest.back() == '\\') rest.remove_suffix(1);
    while (!rest.empty()) {
        const std::size_t cut = rest.find('\\');
        std::string_view name = rest.substr(0, cut);
        if (name.empty()) return ERROR_BAD_PATHNAME;
        if (name.size() > 255) return ERROR_INVALID_PARAMETER;
        out->emplace_back(name);
        if (cut == std::string_view::npos) break;
        rest.remove_prefix(cut + 1);
    }
    return ERROR_SUCCESS;
}

std::u16string UnitsOf(std::string_view bytes) {
    std::u16string units(bytes.size() / 2, u'\0');
    for (std::size_t i = 0; i < units.size(); ++i)
        units[i] = static_cast<char16_t>(static_cast<unsigned char>(bytes[2 * i]) |
                                         (static_cast<unsigned char>(bytes[2 * i + 1]) << 8));
    return units;
}

std::u16string UnitsOf(const std::vector<BYTE>& data) {
    return UnitsOf(std::string_view(reinterpret_cast<const char*>(data.data()), data.size()));
}

std::vector<BYTE> StringData(std::string_view utf8) {
    const std::u16string wide = Widen(utf8);
    std::vector<BYTE> data((wide.size() + 1) * 2, 0);
    for (std::size_t i = 0; i < wide.size(); ++i) {
        data[2 * i] = static_cast<BYTE>(wide[i] & 0xFF);
        data[2 * i + 1] = static_cast<BYTE>(wide[i] >> 8);
    }
    return data;
}

std::string StringFromData(const std::vector<BYTE>& data) {
    const std::u16string units = UnitsOf(data);
    return Narrow(std::u16string_view(units).substr(0, units.find(u'\0')));
}

// ---------------------------------------------------------------------------
// Text format
// ---------------------------------------------------------------------------

namespace {

bool IsHighSurrogate(char16_t c) { return c >= 0xD800 && c <= 0xDBFF; }
bool IsLowSurrogate(char16_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

// Whether the data can be written as "text": UTF-16 with one terminator at the
// end, no other NUL, no line break and no lone surrogate (so that it reads
// back as the same bytes).
bool IsPlainString(const Value& v) {
    if (v.type != REG_SZ || v.data.size() < 2 || v.data.size() % 2 != 0) return false;
    const std::u16string text = UnitsOf(v.data);
    const std::size_t units = text.size();
    if (text[units - 1] != 0) return false;
    for (std::size_t i = 0; i + 1 < units; ++i) {
        const char16_t c = text[i];
        if (c == 0 || c == '\r' || c == '\n') return false;
        if (IsHighSurrogate(c)) {
            if (i + 2 >= units || !IsLowSurrogate(text[i + 1])) return false;
            ++i;
        } else if (IsLowSurrogate(c)) {
            return false;
        }
    }
    return true;
}

void AppendQuoted(std::string* out, std::string_view text) {
    out->push_back('"');
    for (char c : text) {
        if (c == '\\' || c == '"') out->push_back('\\');
        out->push_back(c);
    }
    out->push_back('"');
}

void AppendHex(std::string* out, const Value& v, std::size_t lineStart) {
    char buf[16];
    if (v.type == REG_BINARY) {
        *out += "hex:";
    } else {
        std::snprintf(buf, sizeof buf, "hex(%x):", static_cast<unsigned>(v.type));
        *out += buf;
    }
    for (std::size_t i = 0; i < v.data.size(); ++i) {
        std::snprintf(buf, sizeof buf, "%02x", v.data[i]);
        *out += buf;
        if (i + 1 < v.data.size()) {
            *out += ',';
            // Wrap long data the way the export tool does: "\" and a new line
            // indented by two spaces.
            if (out->size() - lineStart > 75) {
                *out += "\\\n  ";
                lineStart = out->size() - 2;
            }
        }
    }
}

void AppendValue(std::string* out, const Value& v) {
    const std::size_t lineStart = out->size();
    if (v.name.empty()) {
        out->push_back('@');
    } else {
        AppendQuoted(out, v.name);
    }
    out->push_back('=');
    if (IsPlainString(v)) {
        AppendQuoted(out, StringFromData(v.data));
    } else if (v.type == REG_DWORD && v.data.size() == 4) {
        char buf[16];
        const DWORD d = v.data[0] | (v.data[1] << 8) | (v.data[2] << 16) | (DWORD(v.data[3]) << 24);
        std::snprintf(buf, sizeof buf, "dword:%08x", static_cast<unsigned>(d));
        *out += buf;
    } else {
        AppendHex(out, v, lineStart);
    }
    out->push_back('\n');
}

void AppendKey(std::string* out, const Key& key, const std::string& path) {
    *out += '[';
    *out += path;
    *out += "]\n";
    for (const Value& v : key.values())
        if (v.name.empty()) AppendValue(out, v);
    for (const Value& v : key.values())
        if (!v.name.empty()) AppendValue(out, v);
    *out += '\n';
    for (const auto& [name, sub] : key.subkeys()) AppendKey(out, *sub, path + '\\' + sub->name());
}

// Reads the file text line by line and builds the tree.
class Parser {
public:
    Parser(std::string_view text, const std::string& fileName, Tree* tree)
        : text_(text), fileName_(fileName), tree_(tree) {}

    bool Run(std::string* error) {
        std::string_view line;
        bool sawHeader = false;
        while (NextLine(&line)) {
            std::string_view t = Trim(line);
            if (t.empty() || t.front() == ';') continue;
            if (!sawHeader) {
                if (t != kHeader) return Fail(error, "expected the header line \"" + std::string(kHeader) + "\"");
                sawHeader = true;
                continue;
            }
            if (t.front() == '[') {
                if (!Section(t, error)) return false;
            } else if (!ValueLine(t, error)) {
                return false;
            }
        }
        if (!sawHeader) {
            error->assign(fileName_ + ": the file is empty; a registry file starts with the line \"" +
                          std::string(kHeader) + "\"");
            return false;
        }
        return true;
    }

private:
    bool NextLine(std::string_view* line) {
        if (pos_ >= text_.size()) return false;
        std::size_t end = text_.find('\n', pos_);
        if (end == std::string_view::npos) end = text_.size();
        *line = text_.substr(pos_, end - pos_);
        if (!line->empty() && line->back() == '\r') line->remove_suffix(1);
        pos_ = end + 1;
        ++lineNo_;
        return true;
    }

    static std::string_view Trim(std::string_view s) {
        while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
        while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
        return s;
    }

    bool Fail(std::string* error, const std::string& what) const {
        error->assign(fileName_ + ":" + std::to_string(lineNo_) + ": " + what);
        return false;
    }

    // [HIVE\path] or [-HIVE\path].
    bool Section(std::string_view t, std::string* error) {
        if (t.back() != ']') return Fail(error, "a key line must end with \"]\"");
        t = t.substr(1, t.size() - 2);
        const bool remove = !t.empty() && t.front() == '-';
        if (remove) t.remove_prefix(1);
        const std::size_t cut = t.find('\\');
        const std::string_view hiveName = t.substr(0, cut);
        KeyPath where;
        if (hiveName == "HKEY_LOCAL_MACHINE") {
            where.hive = Hive::LocalMachine;
        } else if (hiveName == "HKEY_CURRENT_USER") {
            where.hive = Hive::CurrentUser;
        } else if (hiveName == "HKEY_CLASSES_ROOT") {
            where.path = ClassesRootPath();
        } else {
            return Fail(error, "unknown root key \"" + std::string(hiveName) + "\"");
        }
        if (cut != std::string_view::npos) {
            const std::string rest(t.substr(cut + 1));
            if (rest.empty() || SplitKeyPath(rest.c_str(), &where.path) != ERROR_SUCCESS)
                return Fail(error, "bad key path \"" + std::string(t) + "\"");
            if (!IsStorableName(rest)) return Fail(error, "a key name holds a control character");
        }
        Key& hive = tree_->hive(where.hive);
        current_ = nullptr;
        if (remove) {
            if (where.path.empty()) return Fail(error, "a root key cannot be deleted");
            const std::string last = where.path.back();
            where.path.pop_back();
            if (Key* parent = hive.Walk(where.path)) parent->RemoveSubkey(last);
            return true;
        }
        current_ = &hive.CreatePath(where.path);
        return true;
    }

    // A quoted string starting at s[0] == '"'; unescapes \\ and \". On
    // success advances s past the closing quote.
    bool Quoted(std::string_view* s, std::string* out, std::string* error) {
        out->clear();
        std::size_t i = 1;
        for (; i < s->size(); ++i) {
            char c = (*s)[i];
            if (c == '"') break;
            if (c == '\\') {
                if (i + 1 >= s->size() || ((*s)[i + 1] != '\\' && (*s)[i + 1] != '"'))
                    return Fail(error, "unknown escape in a quoted string (only \\\\ and \\\" are allowed)");
                c = (*s)[++i];
            }
            out->push_back(c);
        }
        if (i >= s->size()) return Fail(error, "missing closing quote");
        s->remove_prefix(i + 1);
        return true;
    }

    static int HexDigit(char c) {
        if (c >= '0' && c <= '9') return c - '0';
        c = Fold(c);
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        return -1;
    }

    // Comma-separated hex bytes, continued on the next line after a final "\".
    bool HexBytes(std::string_view s, std::vector<BYTE>* out, std::string* error) {
        for (;;) {
            s = Trim(s);
            bool more = false;
            if (!s.empty() && s.back() == '\\') {
                more = true;
                s = Trim(s.substr(0, s.size() - 1));
            }
            while (!s.empty()) {
                const std::size_t cut = s.find(',');
                std::string_view item = Trim(s.substr(0, cut));
                if (item.size() != 2 || HexDigit(item[0]) < 0 || HexDigit(item[1]) < 0)
                    return Fail(error, "bad hex byte \"" + std::string(item) + "\"");
                out->push_back(static_cast<BYTE>(HexDigit(item[0]) * 16 + HexDigit(item[1])));
                if (cut == std::string_view::npos) {
                    s = {};
                } else {
                    s.remove_prefix(cut + 1);
                    if (Trim(s).empty() && !more) return Fail(error, "hex data ends with \",\"");
                }
            }
            if (!more) return true;
            std::string_view next;
            if (!NextLine(&next)) return Fail(error, "hex data continues past the end of the file");
            s = next;
        }
    }

    bool ValueLine(std::string_view t, std::string* error) {
        std::string name;
        if (t.front() == '@') {
            t.remove_prefix(1);
        } else if (t.front() == '"') {
            if (!Quoted(&t, &name, error)) return false;
            if (name.empty()) return Fail(error, "an empty value name is written @");
            if (!IsStorableName(name)) return Fail(error, "a value name holds a control character");
        } else {
            return Fail(error, "expected [KEY], \"name\"=value or @=value");
        }
        t = Trim(t);
        if (t.empty() || t.front() != '=') return Fail(error, "expected \"=\" after the value name");
        t = Trim(t.substr(1));
        if (!current_) return Fail(error, "a value line must follow a [KEY] line");
        if (t == "-") {
            current_->DeleteValue(name);
            return true;
        }
        if (!t.empty() && t.front() == '"') {
            std::string text;
            if (!Quoted(&t, &text, error)) return false;
            if (!Trim(t).empty()) return Fail(error, "unexpected text after the closing quote");
            current_->SetValue(name, REG_SZ, StringData(text));
            return true;
        }
        if (t.substr(0, 6) == "dword:") {
            std::string_view digits = t.substr(6);
            if (digits.empty() || digits.size() > 8) return Fail(error, "a dword needs 1 to 8 hex digits");
            DWORD d = 0;
            for (char c : digits) {
                const int v = HexDigit(c);
                if (v < 0) return Fail(error, "bad hex digit in a dword");
                d = d * 16 + static_cast<DWORD>(v);
            }
            current_->SetValue(name, REG_DWORD,
                               {BYTE(d & 0xFF), BYTE((d >> 8) & 0xFF), BYTE((d >> 16) & 0xFF), BYTE(d >> 24)});
            return true;
        }
        if (t.substr(0, 3) == "hex") {
            t.remove_prefix(3);
            DWORD type = REG_BINARY;
            if (!t.empty() && t.front() == '(') {
                const std::size_t close = t.find(')');
                if (close == std::string_view::npos || close == 1 || close > 9)
                    return Fail(error, "bad value type in hex(...)");
                type = 0;
                for (char c : t.substr(1, close - 1)) {
                    const int v = HexDigit(c);
                    if (v < 0) return Fail(error, "bad value type in hex(...)");
                    type = type * 16 + static_cast<DWORD>(v);
                }
                t.remove_prefix(close + 1);
            }
            if (t.empty() || t.front() != ':') return Fail(error, "expected \":\" after hex");
            std::vector<BYTE> data;
            if (!HexBytes(t.substr(1), &data, error)) return false;
            current_->SetValue(name, type, std::move(data));
            return true;
        }
        return Fail(error, "unknown value data (expected \"text\", dword:, hex: or hex(N):)");
    }

    std::string_view text_;
    const std::string& fileName_;
    Tree* tree_;
    Key* current_ = nullptr;
    std::size_t pos_ = 0;
    int lineNo_ = 0;
};

}  // namespace

bool Parse(std::string_view text, const std::string& fileName, Tree* out, std::string* error) {
    std::string converted;
    if (text.size() >= 2 && static_cast<unsigned char>(text[0]) == 0xFF &&
        static_cast<unsigned char>(text[1]) == 0xFE) {
        if (text.size() % 2 != 0) {
            error->assign(fileName + ": UTF-16 text with an odd number of bytes");
            return false;
        }
        converted = Narrow(UnitsOf(text.substr(2)));
        text = converted;
    } else if (text.substr(0, 3) == "\xEF\xBB\xBF") {
        text.remove_prefix(3);
    }
    return Parser(text, fileName, out).Run(error);
}

std::string Serialize(const Tree& tree) {
    std::string out(kHeader);
    out += "\n\n";
    for (const Key* hive : {&tree.localMachine, &tree.currentUser}) {
        if (hive->values().empty() && hive->subkeys().empty()) continue;
        AppendKey(&out, *hive, hive->name());
    }
    return out;
}

// ---------------------------------------------------------------------------
// The file
// ---------------------------------------------------------------------------

namespace {

const char* NonEmptyEnv(const char* name) {
    const char* value = std::getenv(name);
    return value && *value ? value : nullptr;
}

// Reads the whole file. ENOENT/ENOTDIR: *exists = false, success. Other
// failures set the failure text and return their Win32 code.
LSTATUS ReadFileText(const std::string& path, std::string* text, bool* exists) {
    const int err = ReadWholeFile(path, text, std::string().max_size());
    *exists = err == 0;
    if (err == 0 || err == ENOENT || err == ENOTDIR) return ERROR_SUCCESS;
    SetErrorText("cannot read the registry file " + path + ": " + ErrnoText(err));
    return err == EACCES || err == EPERM ? ERROR_ACCESS_DENIED : ERROR_CANTREAD;
}

// Loads the file into *tree; ERROR_BADDB (with the failure text) when it is
// damaged.
LSTATUS Load(const std::string& path, Tree* tree, std::string* text, bool* exists) {
    if (LSTATUS status = ReadFileText(path, text, exists); status != ERROR_SUCCESS) return status;
    if (!*exists) return ERROR_SUCCESS;
    std::string error;
    if (!Parse(*text, path, tree, &error)) {
        SetErrorText("damaged registry file (left unchanged): " + error);
        return ERROR_BADDB;
    }
    return ERROR_SUCCESS;
}

// Writes `tree` to the file when its text differs from what the file held
// (`original`; nothing at all when the file did not exist and the tree is
// empty). The new text is parsed back first: a text the parser would not
// give back as it is, is never put in place (ERROR_CANTWRITE, the file stays
// as it was). The caller holds the lock, so temporary files of earlier
// writers that died before their rename are removed on the way.
LSTATUS Store(const std::string& path, const Tree& tree, const std::string& original, bool exists) {
    const std::string text = Serialize(tree);
    const bool empty = tree.localMachine.subkeys().empty() && tree.localMachine.values().empty() &&
                       tree.currentUser.subkeys().empty() && tree.currentUser.values().empty();
    if (exists ? text == original : empty) return ERROR_SUCCESS;
    Tree check;
    std::string error;
    if (!Parse(text, path, &check, &error) || Serialize(check) != text) {
        SetErrorText("the change is not written: the registry file would not read back as written" +
                     (error.empty() ? std::string() : ": " + error));
        return ERROR_CANTWRITE;
    }
    const int err = ReplaceFileContents(HostPathOf(path), text.data(), text.size(), true);
    if (err == 0) return ERROR_SUCCESS;
    SetErrorText("cannot write the registry file " + path + ": " + ErrnoText(err));
    return err == ENOSPC || err == EDQUOT ? ERROR_DISK_FULL : ERROR_CANTWRITE;
}

// Holds an exclusive flock on "<path>.lock" for its lifetime.
class FileLock {
public:
    explicit FileLock(const std::string& path) {
        fd_ = open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
        if (fd_ < 0) return;
        while (flock(fd_, LOCK_EX) != 0) {
            if (errno != EINTR) {
                close(fd_);
                fd_ = -1;
                return;
            }
        }
    }
    ~FileLock() {
        if (fd_ >= 0) close(fd_);
    }
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;
    bool held() const noexcept { return fd_ >= 0; }

private:
    int fd_ = -1;
};

}  // namespace

bool RegistryFilePath(std::string* out) {
    if (const char* explicitPath = NonEmptyEnv("VORN_REGISTRY")) {
        *out = explicitPath;
        return true;
    }
    if (const char* config = NonEmptyEnv("XDG_CONFIG_HOME"); config && config[0] == '/') {
        *out = std::string(config) + "/vorndb/registry.reg";
        return true;
    }
    const char* home = NonEmptyEnv("HOME");
    std::string homeDir;
    if (home) {
        homeDir = home;
    } else {
        passwd entry;
        passwd* found = nullptr;
        std::vector<char> buffer(16384);
        if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found || !*found->pw_dir) {
            SetErrorText("no registry file: neither VORN_REGISTRY, XDG_CONFIG_HOME nor a home directory is set");
            return false;
        }
        homeDir = found->pw_dir;
    }
    *out = homeDir + "/.config/vorndb/registry.reg";
    return true;
}

namespace {

// The file, its lock and its contents as one change (Update) or a
// transaction of the thread (BeginTransaction) found them.
struct Locked {
    std::string path;
    std::unique_ptr<FileLock> lock;
    Tree tree;
    std::string original;
    bool exists = false;
};

// Takes the lock and loads the file; ERROR_BADDB for a damaged one.
LSTATUS LockAndLoad(Locked* locked) {
    if (!RegistryFilePath(&locked->path)) return ERROR_PATH_NOT_FOUND;
    const std::size_t slash = locked->path.find_last_of('/');
    const std::string dir = slash == std::string::npos ? std::string() : locked->path.substr(0, slash);
    if (!dir.empty() && !MakeDirectories(dir, 0755)) {
        const int err = errno;
        SetErrorText("cannot create the registry directory " + dir + ": " + ErrnoText(err));
        return static_cast<LSTATUS>(Win32ErrorFromErrno(err));
    }
    locked->lock = std::make_unique<FileLock>(locked->path);
    if (!locked->lock->held()) {
        const int err = errno;
        SetErrorText("cannot lock the registry file " + locked->path + ".lock: " + ErrnoText(err));
        return static_cast<LSTATUS>(Win32ErrorFromErrno(err));
    }
    return Load(locked->path, &locked->tree, &locked->original, &locked->exists);
}

// The calling thread's open transaction: the file as it was when the
// transaction began, and the registry with the changes made since, as text.
struct Transaction {
    Locked locked;
    std::string changed;
    int depth = 1;
    bool abandoned = false;
};
VORN_RT_THREAD_LOCAL Transaction* tTransaction = nullptr;

}  // namespace

LSTATUS Read(const std::function<LSTATUS(const Tree&)>& reader) {
    Tree tree;
    if (tTransaction) {
        std::string error;
        Parse(tTransaction->changed, tTransaction->locked.path, &tree, &error);
        return reader(tree);
    }
    std::string path;
    if (!RegistryFilePath(&path)) return ERROR_PATH_NOT_FOUND;
    std::string text;
    bool exists = false;
    if (LSTATUS status = Load(path, &tree, &text, &exists); status != ERROR_SUCCESS) return status;
    return reader(tree);
}

LSTATUS Update(const std::function<LSTATUS(Tree&)>& writer) {
    if (tTransaction) {
        // A failing writer leaves the transaction as it was.
        Tree tree;
        std::string error;
        Parse(tTransaction->changed, tTransaction->locked.path, &tree, &error);
        if (LSTATUS status = writer(tree); status != ERROR_SUCCESS) return status;
        tTransaction->changed = Serialize(tree);
        return ERROR_SUCCESS;
    }
    Locked locked;
    if (LSTATUS status = LockAndLoad(&locked); status != ERROR_SUCCESS) return status;
    if (LSTATUS status = writer(locked.tree); status != ERROR_SUCCESS) return status;
    return Store(locked.path, locked.tree, locked.original, locked.exists);
}

LSTATUS BeginTransaction() {
    if (tTransaction) {
        ++tTransaction->depth;
        return ERROR_SUCCESS;
    }
    auto transaction = std::make_unique<Transaction>();
    if (LSTATUS status = LockAndLoad(&transaction->locked); status != ERROR_SUCCESS) return status;
    transaction->changed = Serialize(transaction->locked.tree);
    tTransaction = transaction.release();
    return ERROR_SUCCESS;
}

LSTATUS EndTransaction(bool commit) {
    Transaction* transaction = tTransaction;
    if (!transaction) return ERROR_INVALID_FUNCTION;
    if (!commit) transaction->abandoned = true;
    if (--transaction->depth > 0) return ERROR_SUCCESS;
    tTransaction = nullptr;
    const std::unique_ptr<Transaction> owned(transaction);  // releases the lock when done
    if (!commit) return ERROR_SUCCESS;
    if (transaction->abandoned) {
        SetErrorText("the registry transaction was abandoned by an inner step; nothing is written");
        return ERROR_CANCELLED;
    }
    Tree tree;
    std::string error;
    Parse(transaction->changed, transaction->locked.path, &tree, &error);
    return Store(transaction->locked.path, tree, transaction->locked.original, transaction->locked.exists);
}

HRESULT HresultFromRegistry(LSTATUS status) noexcept {
    switch (status) {
        case ERROR_BADDB:
            return REGDB_E_READREGDB;
        case ERROR_CANTWRITE:
        case ERROR_DISK_FULL:
            return REGDB_E_WRITEREGDB;
        default:
            return HRESULT_FROM_WIN32(static_cast<DWORD>(status));
    }
}

}  // namespace vorn::rt::reg
