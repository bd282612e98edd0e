// The registrar: applies a registration script, a registry file's text with
// %NAME% replacements (syntax in vorn/rt/registrar.h), to the registry in one
// transaction (registry_store.h), registering or unregistering.
//
// The replacements are made first and the whole text is parsed before the
// registry changes, so an error anywhere changes nothing. Replacements are
// made line by line; a replacement value holds no line break, so line numbers
// in messages are those of the script as written.
#include "vorn/rt/registrar.h"

#include <cstring>
#include <string>
#include <string_view>

#include "diagnostic.h"
#include "registry_store.h"
#include "resource_format.h"

using vorn::rt::reg::Key;
using vorn::rt::reg::Tree;

namespace {

constexpr char kScriptName[] = "registration script";

// Thrown while replacing; carries the failure text.
struct ScriptError {
    std::string message;
};

[[noreturn]] void Fail(int line, const std::string& what) {
    throw ScriptError{std::string(kScriptName) + ":" + std::to_string(line) + ": " + what};
}

// The value given for %name%, written as the line needs it: inside a key
// line it must not reach another key (no "\"); elsewhere it stands in quoted
// text, so "\" and """ are escaped.
std::string Replacement(std::string_view name, bool keyLine, int lineNo, const VORN_REGMAP_ENTRY* map) {
    const VORN_REGMAP_ENTRY* entry = map;
    while (entry && entry->szKey && !vorn::rt::reg::FoldedEqual(name, entry->szKey)) ++entry;
    if (!entry || !entry->szKey) Fail(lineNo, "no replacement is given for %" + std::string(name) + "%");
    const std::string_view data = entry->szData ? entry->szData : "";
    if (data.find_first_of("\r\n") != std::string_view::npos)
        Fail(lineNo, "the replacement for %" + std::string(name) + "% holds a line break");
    if (keyLine && data.find('\\') != std::string_view::npos)
        Fail(lineNo, "the replacement for %" + std::string(name) + "% in a key holds a \"\\\"");
    if (keyLine) return std::string(data);
    std::string escaped;
    for (const char c : data) {
        if (c == '\\' || c == '"') escaped.push_back('\\');
        escaped.push_back(c);
    }
    return escaped;
}

// The script with every %NAME% replaced (%% is one %).
std::string Replaced(std::string_view script, const VORN_REGMAP_ENTRY* map) {
    std::string out;
    int lineNo = 1;
    bool keyLine = false, lineStart = true;
    for (std::size_t i = 0; i < script.size(); ++i) {
        const char c = script[i];
        if (lineStart && c != ' ' && c != '\t') {
            keyLine = c == '[';
            lineStart = false;
        }
        if (c == '\n') {
            ++lineNo;
            lineStart = true;
        }
        if (c != '%') {
            out.push_back(c);
            continue;
        }
        const std::size_t close = script.find('%', i + 1);
        const std::size_t lineEnd = script.find('\n', i);
        if (close == std::string_view::npos || close > lineEnd) Fail(lineNo, "a % without its closing %");
        const std::string_view name = script.substr(i + 1, close - i - 1);
        out += name.empty() ? "%" : Replacement(name, keyLine, lineNo, map);
        i = close;
    }
    return out;
}

// Unregistering: every key to which the script gives a value goes, with
// everything below it; a key the script only passes through stays.
void Unregister(Key& registry, const Key& script) {
    for (const auto& [name, sub] : script.subkeys()) {
        Key* present = registry.FindSubkey(name);
        if (!present) continue;
        if (sub->values().empty())
            Unregister(*present, *sub);
        else
            registry.RemoveSubkey(name);
    }
}

HRESULT Run(std::string_view script, const VORN_REGMAP_ENTRY* replacements, bool registering) {
    std::string text;
    try {
        text = Replaced(script, replacements);
    } catch (const ScriptError& error) {
        vorn::rt::SetErrorText(error.message);
        return DISP_E_EXCEPTION;
    }
    Tree own;
    std::string error;
    if (!vorn::rt::reg::Parse(text, kScriptName, &own, &error)) {
        vorn::rt::SetErrorText(error);
        return DISP_E_EXCEPTION;
    }
    const LSTATUS status = vorn::rt::reg::Update([&](Tree& tree) {
        if (registering) {
            // The script is applied as a registry file is imported: its [-KEY]
            // sections delete, its [KEY] sections create and set, in order.
            std::string unexpected;
            return vorn::rt::reg::Parse(text, kScriptName, &tree, &unexpected) ? LSTATUS(ERROR_SUCCESS)
                                                                               : LSTATUS(ERROR_BADDB);
        }
        Unregister(tree.localMachine, own.localMachine);
        Unregister(tree.currentUser, own.currentUser);
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
        return Run(script, replacements, bRegister != FALSE);
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
