// The registrar: parses a registration script (syntax in vorn/rt/registrar.h)
// into a tree of key entries, then applies it to the registry in one
// transaction (registry_store.h), registering or unregistering.
//
// Parsing comes first and completely, so a syntax error anywhere changes
// nothing. Replacements (%NAME%) are made line by line before tokenising; a
// replacement value must not contain a line break, so line numbers in messages
// are those of the script as written.
#include "vorn/rt/registrar.h"

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "diagnostic.h"
#include "registrar_script.h"
#include "registry_store.h"
#include "resource_format.h"

using vorn::rt::reg::Key;
using vorn::rt::reg::Tree;

namespace {

struct ScriptValue {
    DWORD type = REG_NONE;
    std::vector<BYTE> data;
};

struct ScriptKey {
    enum class Mode { Plain, NoRemove, ForceRemove, Delete };
    Mode mode = Mode::Plain;
    std::string name;
    bool hasDefault = false;
    ScriptValue defaultValue;
    std::vector<std::pair<std::string, ScriptValue>> values;  // "val" entries
    std::vector<ScriptKey> subkeys;
};

struct ScriptRoot {
    vorn::rt::reg::Hive hive = vorn::rt::reg::Hive::LocalMachine;
    std::vector<std::string> path;  // of the root key inside its hive
    std::vector<ScriptKey> keys;
};

struct Token {
    std::string text;
    bool quoted = false;
    int line = 0;
};

// Thrown by the parser; carries the message for the failure text.
struct SyntaxError {
    std::string message;
};

[[noreturn]] void Fail(int line, const std::string& what) {
    throw SyntaxError{"registration script, line " + std::to_string(line) + ": " + what};
}

bool Equal(const std::string& a, const char* b) { return vorn::rt::reg::FoldedEqual(a, b); }

// Replaces %NAME% in one line.
std::string Replace(const std::string& line, int lineNo, const VORN_REGMAP_ENTRY* map) {
    std::string out;
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (line[i] != '%') {
            out.push_back(line[i]);
            continue;
        }
        const std::size_t close = line.find('%', i + 1);
        if (close == std::string::npos) Fail(lineNo, "a % without its closing %");
        const std::string name = line.substr(i + 1, close - i - 1);
        i = close;
        if (name.empty()) {
            out.push_back('%');
            continue;
        }
        const VORN_REGMAP_ENTRY* entry = map;
        while (entry && entry->szKey && !Equal(name, entry->szKey)) ++entry;
        if (!entry || !entry->szKey) Fail(lineNo, "no replacement is given for %" + name + "%");
        const char* data = entry->szData ? entry->szData : "";
        if (std::strpbrk(data, "\r\n")) Fail(lineNo, "the replacement for %" + name + "% holds a line break");
        out += data;
    }
    return out;
}

std::vector<Token> Tokenize(const std::string& script, const VORN_REGMAP_ENTRY* map) {
    std::vector<Token> tokens;
    std::size_t pos = 0;
    int lineNo = 0;
    while (pos < script.size()) {
        std::size_t end = script.find('\n', pos);
        if (end == std::string::npos) end = script.size();
        ++lineNo;
        const std::string line = Replace(script.substr(pos, end - pos), lineNo, map);
        pos = end + 1;
        for (std::size_t i = 0; i < line.size();) {
            const char c = line[i];
            if (c == ' ' || c == '\t' || c == '\r') {
                ++i;
            } else if (c == '\'') {
                Token token{"", true, lineNo};
                for (++i;; ++i) {
                    if (i >= line.size()) Fail(lineNo, "a quoted text is not closed on its line");
                    if (line[i] == '\'') {
                        if (i + 1 < line.size() && line[i + 1] == '\'') {
                            token.text.push_back('\'');
                            ++i;
                            continue;
                        }
                        ++i;
                        break;
                    }
                    token.text.push_back(line[i]);
                }
                tokens.push_back(std::move(token));
            } else {
                const std::size_t stop = line.find_first_of(" \t\r'", i);
                const std::size_t n = (stop == std::string::npos ? line.size() : stop) - i;
                tokens.push_back(Token{line.substr(i, n), false, lineNo});
                i += n;
            }
        }
    }
    return tokens;
}

class ScriptParser {
public:
    explicit ScriptParser(std::vector<Token> tokens) : tokens_(std::move(tokens)) {}

    std::vector<ScriptRoot> Parse() {
        std::vector<ScriptRoot> roots;
        while (!AtEnd()) {
            const Token& name = Next("a root key");
            ScriptRoot root;
            if (name.quoted) Fail(name.line, "a root key is not quoted");
            if (Equal(name.text, "HKCR") || Equal(name.text, "HKEY_CLASSES_ROOT")) {
                root.path = vorn::rt::reg::ClassesRootPath();
            } else if (Equal(name.text, "HKCU") || Equal(name.text, "HKEY_CURRENT_USER")) {
                root.hive = vorn::rt::reg::Hive::CurrentUser;
            } else if (!Equal(name.text, "HKLM") && !Equal(name.text, "HKEY_LOCAL_MACHINE")) {
                Fail(name.line, "unknown root key '" + name.text + "' (HKCR, HKLM or HKCU)");
            }
            Expect("{");
            while (!Peek("}")) root.keys.push_back(KeyEntry());
            Expect("}");
            roots.push_back(std::move(root));
        }
        return roots;
    }

private:
    bool AtEnd() const { return pos_ >= tokens_.size(); }
    int LastLine() const { return tokens_.empty() ? 1 : tokens_.back().line; }

    const Token& Next(const char* what) {
        if (AtEnd()) Fail(LastLine(), std::string("the script ends where ") + what + " was expected");
        return tokens_[pos_++];
    }
    bool Peek(const char* text) const {
        if (AtEnd()) Fail(LastLine(), std::string("the script ends where '") + text + "' was expected");
        return !tokens_[pos_].quoted && tokens_[pos_].text == text;
    }
    void Expect(const char* text) {
        const Token& token = Next(text);
        if (token.quoted || token.text != text)
            Fail(token.line, std::string("expected '") + text + "' but found '" + token.text + "'");
    }
    bool IsPunctuation(const Token& token) const {
        return !token.quoted && (token.text == "{" || token.text == "}" || token.text == "=");
    }
    const Token& Name(const char* what) {
        const Token& token = Next(what);
        if (IsPunctuation(token)) Fail(token.line, std::string("expected ") + what + " but found '" + token.text + "'");
        if (token.text.empty()) Fail(token.line, std::string("an empty ") + what);
        return token;
    }

    static int HexDigit(char c) {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    }

    // <type letter> <data>
    ScriptValue Value() {
        const Token& type = Name("a value type (s, e, d or b)");
        const Token& data = Next("the value's data");
        if (IsPunctuation(data)) Fail(data.line, "expected the value's data but found '" + data.text + "'");
        ScriptValue value;
        if (Equal(type.text, "s") || Equal(type.text, "e")) {
            if (!data.quoted) Fail(data.line, "string data must be quoted: '" + data.text + "'");
            value.type = Equal(type.text, "s") ? REG_SZ : REG_EXPAND_SZ;
            value.data = vorn::rt::reg::StringData(data.text);
        } else if (Equal(type.text, "d")) {
            const std::string& t = data.text;
            const bool hex = t.size() > 2 && t[0] == '0' && (t[1] == 'x' || t[1] == 'X');
            unsigned long long n = 0;
            for (std::size_t i = hex ? 2 : 0; i < t.size(); ++i) {
                const int digit = hex ? HexDigit(t[i]) : (t[i] >= '0' && t[i] <= '9' ? t[i] - '0' : -1);
                if (digit < 0 || n > 0xFFFFFFFFull) Fail(data.line, "bad number '" + t + "'");
                n = n * (hex ? 16 : 10) + static_cast<unsigned>(digit);
            }
            if (t.empty() || n > 0xFFFFFFFFull) Fail(data.line, "bad number '" + t + "'");
            value.type = REG_DWORD;
            value.data = {BYTE(n & 0xFF), BYTE((n >> 8) & 0xFF), BYTE((n >> 16) & 0xFF), BYTE((n >> 24) & 0xFF)};
        } else if (Equal(type.text, "b")) {
            const std::string& t = data.text;
            if (t.size() % 2 != 0) Fail(data.line, "binary data needs an even number of hex digits");
            for (std::size_t i = 0; i < t.size(); i += 2) {
                if (HexDigit(t[i]) < 0 || HexDigit(t[i + 1]) < 0) Fail(data.line, "bad hex digits '" + t + "'");
                value.data.push_back(static_cast<BYTE>(HexDigit(t[i]) * 16 + HexDigit(t[i + 1])));
            }
            value.type = REG_BINARY;
        } else {
            Fail(type.line, "unknown value type '" + type.text + "' (s, e, d or b)");
        }
        return value;
    }

    ScriptKey KeyEntry() {
        ScriptKey key;
        const Token* name = &Name("a key name");
        if (!name->quoted) {
            if (Equal(name->text, "NoRemove")) key.mode = ScriptKey::Mode::NoRemove;
            if (Equal(name->text, "ForceRemove")) key.mode = ScriptKey::Mode::ForceRemove;
            if (Equal(name->text, "Delete")) key.mode = ScriptKey::Mode::Delete;
            if (Equal(name->text, "val")) Fail(name->line, "'val' belongs inside a key's block");
            if (key.mode != ScriptKey::Mode::Plain) name = &Name("a key name");
        }
        if (name->text.find('\\') != std::string::npos) Fail(name->line, "a key name holds no '\\'");
        if (!vorn::rt::reg::IsStorableName(name->text)) Fail(name->line, "a key name holds no control character");
        key.name = name->text;
        if (!AtEnd() && Peek("=")) {
            Expect("=");
            key.hasDefault = true;
            key.defaultValue = Value();
        }
        if (!AtEnd() && Peek("{")) {
            Expect("{");
            while (!Peek("}")) {
                const Token& next = tokens_[pos_];
                if (!next.quoted && Equal(next.text, "val")) {
                    ++pos_;
                    const Token& valueToken = Name("a value name");
                    if (!vorn::rt::reg::IsStorableName(valueToken.text))
                        Fail(valueToken.line, "a value name holds no control character");
                    std::string valueName = valueToken.text;
                    Expect("=");
                    key.values.emplace_back(std::move(valueName), Value());
                } else {
                    key.subkeys.push_back(KeyEntry());
                }
            }
            Expect("}");
        }
        return key;
    }

    std::vector<Token> tokens_;
    std::size_t pos_ = 0;
};

void Register(Key& parent, const ScriptKey& entry) {
    if (entry.mode == ScriptKey::Mode::Delete) {
        parent.RemoveSubkey(entry.name);
        return;
    }
    if (entry.mode == ScriptKey::Mode::ForceRemove) parent.RemoveSubkey(entry.name);
    Key& key = parent.CreateSubkey(entry.name);
    if (entry.hasDefault) key.SetValue("", entry.defaultValue.type, entry.defaultValue.data);
    for (const auto& [name, value] : entry.values) key.SetValue(name, value.type, value.data);
    for (const ScriptKey& sub : entry.subkeys) Register(key, sub);
}

void Unregister(Key& parent, const ScriptKey& entry) {
    Key* key = parent.FindSubkey(entry.name);
    if (!key || entry.mode == ScriptKey::Mode::Delete) return;
    if (entry.mode == ScriptKey::Mode::ForceRemove) {
        parent.RemoveSubkey(entry.name);
        return;
    }
    for (const auto& [name, value] : entry.values) key->DeleteValue(name);
    for (const ScriptKey& sub : entry.subkeys) Unregister(*key, sub);
    if (entry.mode == ScriptKey::Mode::Plain && key->subkeys().empty()) parent.RemoveSubkey(entry.name);
}

HRESULT Run(const std::string& script, const VORN_REGMAP_ENTRY* replacements, bool registering) {
    std::vector<ScriptRoot> roots;
    try {
        roots = ScriptParser(Tokenize(script, replacements)).Parse();
    } catch (const SyntaxError& error) {
        vorn::rt::SetErrorText(error.message);
        return DISP_E_EXCEPTION;
    }
    const LSTATUS status = vorn::rt::reg::Update([&](Tree& tree) {
        for (const ScriptRoot& root : roots) {
            Key& hive = tree.hive(root.hive);
            if (registering) {
                Key& base = hive.CreatePath(root.path);
                for (const ScriptKey& key : root.keys) Register(base, key);
            } else if (Key* base = hive.Walk(root.path)) {
                for (const ScriptKey& key : root.keys) Unregister(*base, key);
            }
        }
        return LSTATUS(ERROR_SUCCESS);
    });
    return vorn::rt::reg::HresultFromRegistry(status);
}

}  // namespace

VORNAPI HRESULT WINAPI VornRegistrarRunResourceA(HMODULE hModule, LPCSTR lpName, const VORN_REGMAP_ENTRY* replacements,
                                                 BOOL bRegister) {
    vorn::rt::ClearErrorText();
    try {
        std::string_view script;
        if (const DWORD error = vorn::rt::FindModuleResource(hModule, lpName, "REGISTRY", &script)) {
            vorn::rt::SetErrorText("the module has no registration script resource");
            return HRESULT_FROM_WIN32(error);
        }
        return Run(std::string(script), replacements, bRegister != FALSE);
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
}

VORNAPI HRESULT WINAPI VornRegistrarBeginTransaction() {
    vorn::rt::ClearErrorText();
    try {
        return vorn::rt::reg::HresultFromRegistry(vorn::rt::reg::BeginTransaction());
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
}

VORNAPI HRESULT WINAPI VornRegistrarEndTransaction(BOOL bCommit) {
    try {
        const LSTATUS status = vorn::rt::reg::EndTransaction(bCommit != FALSE);
        if (status == ERROR_INVALID_FUNCTION) return E_UNEXPECTED;
        if (status == ERROR_CANCELLED) return E_ABORT;
        return vorn::rt::reg::HresultFromRegistry(status);
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
}

bool vorn::rt::ParseRegistrationScript(const std::string& script, const VORN_REGMAP_ENTRY* replacements,
                                       std::string* error) {
    try {
        ScriptParser(Tokenize(script, replacements)).Parse();
        return true;
    } catch (const SyntaxError& failure) {
        *error = failure.message;
        return false;
    }
}
