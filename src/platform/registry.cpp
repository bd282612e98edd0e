// The Reg* functions over the registry file (registry_store.h).
//
// An open key handle records where its key lives (hive and path) and the
// access it was opened with; it does not pin the key. Each call loads the
// file afresh (a change made by another process is seen at once), resolves
// the handle's path, and for a change writes the file before returning. A
// handle whose key has been deleted meanwhile fails with ERROR_KEY_DELETED;
// if a key of the same path is created again, the handle reaches the new key.
// Handles are checked against the table of open handles, so a closed or
// made-up handle fails with ERROR_INVALID_HANDLE.
//
// The A functions take and return UTF-8 names and string data; the W
// functions UTF-16. Both run the same code on UTF-8 names (`Wide` says in which
// form string data crosses the boundary).
#include <cstring>
#include <mutex>
#include <unordered_map>

#include "diagnostic.h"
#include "internal.h"
#include "registry_store.h"

using vorn::rt::ClearErrorText;
using vorn::rt::reg::Key;
using vorn::rt::reg::KeyPath;
using vorn::rt::reg::Tree;
using vorn::rt::reg::Value;

struct HKEY__ {
    KeyPath where;
    REGSAM access;
};

namespace {

enum class Wide { No, Yes };

// Open handles. The predefined keys are not in the table.
std::mutex gHandlesMutex;
std::unordered_map<const HKEY__*, bool>& Handles() {
    static auto* handles = new std::unordered_map<const HKEY__*, bool>();
    return *handles;
}

// Where a handle's key lives and what it may do; false for a handle not open.
bool Describe(HKEY key, KeyPath* where, REGSAM* access) {
    if (key == HKEY_CLASSES_ROOT) {
        *where = KeyPath{vorn::rt::reg::Hive::LocalMachine, vorn::rt::reg::ClassesRootPath()};
    } else if (key == HKEY_LOCAL_MACHINE) {
        *where = KeyPath{vorn::rt::reg::Hive::LocalMachine, {}};
    } else if (key == HKEY_CURRENT_USER) {
        *where = KeyPath{vorn::rt::reg::Hive::CurrentUser, {}};
    } else {
        std::lock_guard<std::mutex> guard(gHandlesMutex);
        if (!key || !Handles().count(key)) return false;
        *where = key->where;
        *access = key->access;
        return true;
    }
    *access = KEY_ALL_ACCESS;
    return true;
}

bool IsPredefined(HKEY key) {
    return key == HKEY_CLASSES_ROOT || key == HKEY_LOCAL_MACHINE || key == HKEY_CURRENT_USER;
}

HKEY NewHandle(KeyPath where, REGSAM access) {
    auto* key = new HKEY__{std::move(where), access};
    std::lock_guard<std::mutex> guard(gHandlesMutex);
    Handles().emplace(key, true);
    return key;
}

// The base key of an operation: the handle's key, its path and access.
struct Base {
    KeyPath where;
    REGSAM access = 0;
    bool predefined = false;
};

LSTATUS GetBase(HKEY hKey, Base* base) {
    if (!Describe(hKey, &base->where, &base->access)) return ERROR_INVALID_HANDLE;
    base->predefined = IsPredefined(hKey);
    return ERROR_SUCCESS;
}

// The handle's key in a loaded tree. The predefined keys always exist (an
// empty HKEY_CLASSES_ROOT reads as an empty key); an opened key may have been
// deleted since (ERROR_KEY_DELETED).
LSTATUS Locate(const Tree& tree, const Base& base, const Key** key) {
    static const Key kEmpty("");
    *key = tree.hive(base.where.hive).Walk(base.where.path);
    if (!*key) {
        if (!base.predefined) return ERROR_KEY_DELETED;
        *key = &kEmpty;
    }
    return ERROR_SUCCESS;
}

LSTATUS LocateForChange(Tree& tree, const Base& base, Key** key) {
    Key& hive = tree.hive(base.where.hive);
    if (base.predefined) {
        *key = &hive.CreatePath(base.where.path);
        return ERROR_SUCCESS;
    }
    *key = hive.Walk(base.where.path);
    return *key ? ERROR_SUCCESS : ERROR_KEY_DELETED;
}

// Runs `body` with exceptions (allocation failures) turned into a Win32 code.
template <class Body>
LSTATUS Guard(Body&& body) noexcept {
    try {
        ClearErrorText();
        return body();
    } catch (const std::bad_alloc&) {
        return ERROR_NOT_ENOUGH_MEMORY;
    } catch (...) {
        return ERROR_INVALID_FUNCTION;
    }
}

bool IsStringType(DWORD type) { return type == REG_SZ || type == REG_EXPAND_SZ || type == REG_MULTI_SZ; }

// The value's data as the caller sees it: UTF-16 for W, UTF-8 for A.
std::vector<BYTE> ViewData(const Value& value, Wide wide) {
    if (wide == Wide::Yes || !IsStringType(value.type)) return value.data;
    std::u16string units;
    for (std::size_t i = 0; i + 1 < value.data.size(); i += 2)
        units.push_back(static_cast<char16_t>(value.data[i] | (value.data[i + 1] << 8)));
    const std::string text = vorn::rt::Utf8(units);
    return std::vector<BYTE>(text.begin(), text.end());
}

// The stored form of data the caller gives.
std::vector<BYTE> StoreData(DWORD type, const BYTE* data, DWORD size, Wide wide) {
    if (!data || size == 0) return {};
    if (wide == Wide::Yes || !IsStringType(type)) return std::vector<BYTE>(data, data + size);
    const std::u16string units = vorn::rt::Utf16(std::string_view(reinterpret_cast<const char*>(data), size));
    std::vector<BYTE> out(units.size() * 2);
    for (std::size_t i = 0; i < units.size(); ++i) {
        out[2 * i] = static_cast<BYTE>(units[i] & 0xFF);
        out[2 * i + 1] = static_cast<BYTE>(units[i] >> 8);
    }
    return out;
}

// Copies data out the RegQueryValueEx way.
LSTATUS CopyData(const std::vector<BYTE>& data, LPBYTE out, LPDWORD size) {
    if (out && !size) return ERROR_INVALID_PARAMETER;
    if (!size) return ERROR_SUCCESS;
    const DWORD needed = static_cast<DWORD>(data.size());
    if (!out) {
        *size = needed;
        return ERROR_SUCCESS;
    }
    if (*size < needed) {
        *size = needed;
        return ERROR_MORE_DATA;
    }
    if (needed) std::memcpy(out, data.data(), needed);
    *size = needed;
    return ERROR_SUCCESS;
}

// Copies a name out the RegEnumKeyEx way (sizes in characters of the form the
// caller uses).
template <class Char>
LSTATUS CopyName(const std::basic_string<Char>& name, Char* out, LPDWORD count) {
    if (!out || !count) return ERROR_INVALID_PARAMETER;
    if (*count <= name.size()) {
        *count = static_cast<DWORD>(name.size() + 1);
        return ERROR_MORE_DATA;
    }
    std::memcpy(out, name.c_str(), (name.size() + 1) * sizeof(Char));
    *count = static_cast<DWORD>(name.size());
    return ERROR_SUCCESS;
}

LSTATUS NameOut(const std::string& name, LPSTR out, LPDWORD count) { return CopyName(name, out, count); }
LSTATUS NameOut(const std::string& name, LPWSTR out, LPDWORD count) {
    return CopyName(vorn::rt::Utf16(name), out, count);
}

// The RRF_RT_* flag that lets a value of `type` through RegGetValueA.
DWORD TypeFilterFlag(DWORD type) {
    switch (type) {
        case REG_NONE:
            return RRF_RT_REG_NONE;
        case REG_SZ:
            return RRF_RT_REG_SZ;
        case REG_EXPAND_SZ:
            return RRF_RT_REG_EXPAND_SZ;
        case REG_BINARY:
            return RRF_RT_REG_BINARY;
        case REG_DWORD:
            return RRF_RT_REG_DWORD;
        case REG_MULTI_SZ:
            return RRF_RT_REG_MULTI_SZ;
        case REG_QWORD:
            return RRF_RT_REG_QWORD;
        default:
            return 0;  // other types pass only RRF_RT_ANY
    }
}

std::string Narrow(LPCWSTR text) { return text ? vorn::rt::Utf8(text) : std::string(); }

// ---------------------------------------------------------------------------
// The operations, on UTF-8 names
// ---------------------------------------------------------------------------

// Runs reader(key, base) on the handle's key in the file as it is now, after
// checking that the handle has `access` (0: no check).
template <class Reader>
LSTATUS ReadKey(HKEY hKey, REGSAM access, Reader&& reader) {
    return Guard([&] {
        Base base;
        if (LSTATUS s = GetBase(hKey, &base); s != ERROR_SUCCESS) return s;
        if (access && !(base.access & access)) return LSTATUS(ERROR_ACCESS_DENIED);
        return vorn::rt::reg::Read([&](const Tree& tree) {
            const Key* key;
            if (LSTATUS s = Locate(tree, base, &key); s != ERROR_SUCCESS) return s;
            return reader(*key, base);
        });
    });
}

// Runs writer(key, base) on the handle's key in one registry transaction; the
// file is written when the writer succeeds and changed something.
template <class Writer>
LSTATUS ChangeKey(HKEY hKey, REGSAM access, Writer&& writer) {
    return Guard([&] {
        Base base;
        if (LSTATUS s = GetBase(hKey, &base); s != ERROR_SUCCESS) return s;
        if (access && !(base.access & access)) return LSTATUS(ERROR_ACCESS_DENIED);
        return vorn::rt::reg::Update([&](Tree& tree) {
            Key* key;
            if (LSTATUS s = LocateForChange(tree, base, &key); s != ERROR_SUCCESS) return s;
            return writer(*key, base);
        });
    });
}

LSTATUS OpenKey(HKEY hKey, const char* subKey, REGSAM sam, PHKEY result) {
    if (!result) return ERROR_INVALID_PARAMETER;
    *result = nullptr;
    std::vector<std::string> path;
    if (LSTATUS s = vorn::rt::reg::SplitKeyPath(subKey, &path); s != ERROR_SUCCESS) return s;
    KeyPath where;
    const LSTATUS status = ReadKey(hKey, 0, [&](const Key& base, const Base& handle) {
        where = handle.where;
        const Key* key = &base;
        for (const std::string& name : path) {
            key = key->FindSubkey(name);
            if (!key) return LSTATUS(ERROR_FILE_NOT_FOUND);
            where.path.push_back(key->name());
        }
        return LSTATUS(ERROR_SUCCESS);
    });
    if (status == ERROR_SUCCESS) *result = NewHandle(std::move(where), sam);
    return status;
}

LSTATUS CreateKey(HKEY hKey, const char* subKey, DWORD options, REGSAM sam, PHKEY result, LPDWORD disposition) {
    if (!result) return ERROR_INVALID_PARAMETER;
    *result = nullptr;
    if (options != REG_OPTION_NON_VOLATILE) return ERROR_INVALID_PARAMETER;
    std::vector<std::string> path;
    if (LSTATUS s = vorn::rt::reg::SplitKeyPath(subKey, &path); s != ERROR_SUCCESS) return s;
    for (const std::string& name : path)
        if (!vorn::rt::reg::IsStorableName(name)) return ERROR_INVALID_PARAMETER;
    KeyPath where;
    bool created = false;
    const LSTATUS status = ChangeKey(hKey, path.empty() ? 0 : KEY_CREATE_SUB_KEY, [&](Key& base, const Base& handle) {
        where = handle.where;
        Key* key = &base;
        for (const std::string& name : path) {
            key = &key->CreateSubkey(name, &created);
            where.path.push_back(key->name());
        }
        return LSTATUS(ERROR_SUCCESS);
    });
    if (status != ERROR_SUCCESS) return status;
    if (disposition) *disposition = created ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
    *result = NewHandle(std::move(where), sam);
    return status;
}

LSTATUS QueryValue(HKEY hKey, const char* name, Wide wide, LPDWORD type, LPBYTE data, LPDWORD size) {
    return ReadKey(hKey, KEY_QUERY_VALUE, [&](const Key& key, const Base&) {
        const Value* value = key.FindValue(name ? name : "");
        if (!value) return LSTATUS(ERROR_FILE_NOT_FOUND);
        if (type) *type = value->type;
        return CopyData(ViewData(*value, wide), data, size);
    });
}

LSTATUS SetValue(HKEY hKey, const char* name, DWORD type, const BYTE* data, DWORD size, Wide wide) {
    if ((!data && size) || (name && !vorn::rt::reg::IsStorableName(name))) return ERROR_INVALID_PARAMETER;
    return ChangeKey(hKey, KEY_SET_VALUE, [&](Key& key, const Base&) {
        key.SetValue(name ? name : "", type, StoreData(type, data, size, wide));
        return LSTATUS(ERROR_SUCCESS);
    });
}

template <class Char>
LSTATUS EnumKey(HKEY hKey, DWORD index, Char* name, LPDWORD count, void* className, FILETIME* lastWrite) {
    if (className) return ERROR_INVALID_PARAMETER;
    return ReadKey(hKey, KEY_ENUMERATE_SUB_KEYS, [&](const Key& key, const Base&) {
        if (index >= key.subkeys().size()) return LSTATUS(ERROR_NO_MORE_ITEMS);
        auto it = key.subkeys().begin();
        std::advance(it, index);
        if (lastWrite) *lastWrite = FILETIME{0, 0};
        return NameOut(it->second->name(), name, count);
    });
}

template <class Char>
LSTATUS EnumValue(HKEY hKey, DWORD index, Char* name, LPDWORD count, Wide wide, LPDWORD type, LPBYTE data,
                  LPDWORD size) {
    return ReadKey(hKey, KEY_QUERY_VALUE, [&](const Key& key, const Base&) {
        if (index >= key.values().size()) return LSTATUS(ERROR_NO_MORE_ITEMS);
        const Value& value = key.values()[index];
        if (LSTATUS s = NameOut(value.name, name, count); s != ERROR_SUCCESS) return s;
        if (type) *type = value.type;
        return CopyData(ViewData(value, wide), data, size);
    });
}

// Deletes hKey\subKey: the whole tree, or (tree false) only a key without
// subkeys.
LSTATUS DeleteKey(HKEY hKey, const char* subKey, bool tree) {
    std::vector<std::string> path;
    if (LSTATUS s = vorn::rt::reg::SplitKeyPath(subKey, &path); s != ERROR_SUCCESS) return s;
    if (path.empty() && !tree) return ERROR_INVALID_PARAMETER;
    return ChangeKey(hKey, 0, [&](Key& key, const Base&) {
        if (path.empty()) {
            key.Clear();
            return LSTATUS(ERROR_SUCCESS);
        }
        const std::string last = path.back();
        path.pop_back();
        Key* parent = key.Walk(path);
        Key* victim = parent ? parent->FindSubkey(last) : nullptr;
        if (!victim) return LSTATUS(ERROR_FILE_NOT_FOUND);
        if (!tree && !victim->subkeys().empty()) return LSTATUS(ERROR_ACCESS_DENIED);
        parent->RemoveSubkey(last);
        return LSTATUS(ERROR_SUCCESS);
    });
}

LSTATUS DeleteValue(HKEY hKey, const char* name) {
    return ChangeKey(hKey, KEY_SET_VALUE, [&](Key& key, const Base&) {
        return key.DeleteValue(name ? name : "") ? LSTATUS(ERROR_SUCCESS) : LSTATUS(ERROR_FILE_NOT_FOUND);
    });
}

}  // namespace

// ---------------------------------------------------------------------------
// Exported functions
// ---------------------------------------------------------------------------

VORNAPI LSTATUS WINAPI RegOpenKeyExA(HKEY hKey, LPCSTR lpSubKey, DWORD, REGSAM samDesired, PHKEY phkResult) {
    return Guard([&] { return OpenKey(hKey, lpSubKey, samDesired, phkResult); });
}

VORNAPI LSTATUS WINAPI RegOpenKeyExW(HKEY hKey, LPCWSTR lpSubKey, DWORD, REGSAM samDesired, PHKEY phkResult) {
    return Guard([&] { return OpenKey(hKey, Narrow(lpSubKey).c_str(), samDesired, phkResult); });
}

VORNAPI LSTATUS WINAPI RegCreateKeyExA(HKEY hKey, LPCSTR lpSubKey, DWORD, LPSTR, DWORD dwOptions, REGSAM samDesired,
                                       SECURITY_ATTRIBUTES*, PHKEY phkResult, LPDWORD lpdwDisposition) {
    return Guard([&] { return CreateKey(hKey, lpSubKey, dwOptions, samDesired, phkResult, lpdwDisposition); });
}

VORNAPI LSTATUS WINAPI RegCreateKeyExW(HKEY hKey, LPCWSTR lpSubKey, DWORD, LPWSTR, DWORD dwOptions, REGSAM samDesired,
                                       SECURITY_ATTRIBUTES*, PHKEY phkResult, LPDWORD lpdwDisposition) {
    return Guard(
        [&] { return CreateKey(hKey, Narrow(lpSubKey).c_str(), dwOptions, samDesired, phkResult, lpdwDisposition); });
}

VORNAPI LSTATUS WINAPI RegCloseKey(HKEY hKey) {
    if (IsPredefined(hKey)) return ERROR_SUCCESS;
    {
        std::lock_guard<std::mutex> guard(gHandlesMutex);
        if (!hKey || !Handles().erase(hKey)) return ERROR_INVALID_HANDLE;
    }
    delete hKey;
    return ERROR_SUCCESS;
}

VORNAPI LSTATUS WINAPI RegQueryValueExA(HKEY hKey, LPCSTR lpValueName, LPDWORD, LPDWORD lpType, LPBYTE lpData,
                                        LPDWORD lpcbData) {
    return QueryValue(hKey, lpValueName, Wide::No, lpType, lpData, lpcbData);
}

VORNAPI LSTATUS WINAPI RegQueryValueExW(HKEY hKey, LPCWSTR lpValueName, LPDWORD, LPDWORD lpType, LPBYTE lpData,
                                        LPDWORD lpcbData) {
    return Guard([&] { return QueryValue(hKey, Narrow(lpValueName).c_str(), Wide::Yes, lpType, lpData, lpcbData); });
}

VORNAPI LSTATUS WINAPI RegSetValueExA(HKEY hKey, LPCSTR lpValueName, DWORD, DWORD dwType, const BYTE* lpData,
                                      DWORD cbData) {
    return SetValue(hKey, lpValueName, dwType, lpData, cbData, Wide::No);
}

VORNAPI LSTATUS WINAPI RegSetValueExW(HKEY hKey, LPCWSTR lpValueName, DWORD, DWORD dwType, const BYTE* lpData,
                                      DWORD cbData) {
    return Guard([&] { return SetValue(hKey, Narrow(lpValueName).c_str(), dwType, lpData, cbData, Wide::Yes); });
}

VORNAPI LSTATUS WINAPI RegGetValueA(HKEY hKey, LPCSTR lpSubKey, LPCSTR lpValue, DWORD dwFlags, LPDWORD pdwType,
                                    PVOID pvData, LPDWORD pcbData) {
    if (pvData && !pcbData) return ERROR_INVALID_PARAMETER;
    HKEY key = hKey;
    if (lpSubKey && *lpSubKey) {
        if (LSTATUS s = RegOpenKeyExA(hKey, lpSubKey, 0, KEY_QUERY_VALUE, &key); s != ERROR_SUCCESS) return s;
    }
    DWORD type = REG_NONE;
    LSTATUS status = Guard([&] {
        DWORD size = 0;
        LSTATUS s = RegQueryValueExA(key, lpValue, nullptr, &type, nullptr, &size);
        if (s != ERROR_SUCCESS) return s;
        if ((dwFlags & RRF_RT_ANY) != RRF_RT_ANY && !(dwFlags & TypeFilterFlag(type)))
            return LSTATUS(ERROR_UNSUPPORTED_TYPE);
        std::vector<BYTE> data(size);
        s = RegQueryValueExA(key, lpValue, nullptr, &type, data.data(), &size);
        if (s != ERROR_SUCCESS) return s;
        data.resize(size);
        // Strings read through RegGetValue are always terminated.
        if ((type == REG_SZ || type == REG_EXPAND_SZ) && (data.empty() || data.back() != 0)) data.push_back(0);
        if (type == REG_MULTI_SZ) {
            while (data.size() < 2 || data[data.size() - 1] != 0 || data[data.size() - 2] != 0) data.push_back(0);
        }
        return CopyData(data, static_cast<LPBYTE>(pvData), pcbData);
    });
    if (key != hKey) RegCloseKey(key);
    if (pdwType && (status == ERROR_SUCCESS || status == ERROR_MORE_DATA)) *pdwType = type;
    return status;
}

VORNAPI LSTATUS WINAPI RegEnumKeyExA(HKEY hKey, DWORD dwIndex, LPSTR lpName, LPDWORD lpcchName, LPDWORD, LPSTR lpClass,
                                     LPDWORD, FILETIME* lpftLastWriteTime) {
    return EnumKey(hKey, dwIndex, lpName, lpcchName, lpClass, lpftLastWriteTime);
}

VORNAPI LSTATUS WINAPI RegEnumKeyExW(HKEY hKey, DWORD dwIndex, LPWSTR lpName, LPDWORD lpcchName, LPDWORD,
                                     LPWSTR lpClass, LPDWORD, FILETIME* lpftLastWriteTime) {
    return EnumKey(hKey, dwIndex, lpName, lpcchName, lpClass, lpftLastWriteTime);
}

VORNAPI LSTATUS WINAPI RegEnumValueA(HKEY hKey, DWORD dwIndex, LPSTR lpValueName, LPDWORD lpcchValueName, LPDWORD,
                                     LPDWORD lpType, LPBYTE lpData, LPDWORD lpcbData) {
    return EnumValue(hKey, dwIndex, lpValueName, lpcchValueName, Wide::No, lpType, lpData, lpcbData);
}

VORNAPI LSTATUS WINAPI RegEnumValueW(HKEY hKey, DWORD dwIndex, LPWSTR lpValueName, LPDWORD lpcchValueName, LPDWORD,
                                     LPDWORD lpType, LPBYTE lpData, LPDWORD lpcbData) {
    return EnumValue(hKey, dwIndex, lpValueName, lpcchValueName, Wide::Yes, lpType, lpData, lpcbData);
}

VORNAPI LSTATUS WINAPI RegQueryInfoKeyA(HKEY hKey, LPSTR lpClass, LPDWORD lpcchClass, LPDWORD, LPDWORD lpcSubKeys,
                                        LPDWORD lpcbMaxSubKeyLen, LPDWORD lpcbMaxClassLen, LPDWORD lpcValues,
                                        LPDWORD lpcbMaxValueNameLen, LPDWORD lpcbMaxValueLen,
                                        LPDWORD lpcbSecurityDescriptor, FILETIME* lpftLastWriteTime) {
    return ReadKey(hKey, 0, [&](const Key& key, const Base&) {
        DWORD maxSubKey = 0, maxName = 0, maxData = 0;
        for (const auto& [name, sub] : key.subkeys())
            maxSubKey = std::max<DWORD>(maxSubKey, static_cast<DWORD>(sub->name().size()));
        for (const Value& v : key.values()) {
            maxName = std::max<DWORD>(maxName, static_cast<DWORD>(v.name.size()));
            maxData = std::max<DWORD>(maxData, static_cast<DWORD>(v.data.size()));
        }
        if (lpClass && lpcchClass && *lpcchClass) lpClass[0] = '\0';
        if (lpcchClass) *lpcchClass = 0;
        if (lpcSubKeys) *lpcSubKeys = static_cast<DWORD>(key.subkeys().size());
        if (lpcbMaxSubKeyLen) *lpcbMaxSubKeyLen = maxSubKey;
        if (lpcbMaxClassLen) *lpcbMaxClassLen = 0;
        if (lpcValues) *lpcValues = static_cast<DWORD>(key.values().size());
        if (lpcbMaxValueNameLen) *lpcbMaxValueNameLen = maxName;
        if (lpcbMaxValueLen) *lpcbMaxValueLen = maxData;
        if (lpcbSecurityDescriptor) *lpcbSecurityDescriptor = 0;
        if (lpftLastWriteTime) *lpftLastWriteTime = FILETIME{0, 0};
        return LSTATUS(ERROR_SUCCESS);
    });
}

VORNAPI LSTATUS WINAPI RegDeleteKeyA(HKEY hKey, LPCSTR lpSubKey) {
    return Guard([&] { return DeleteKey(hKey, lpSubKey, false); });
}

VORNAPI LSTATUS WINAPI RegDeleteKeyW(HKEY hKey, LPCWSTR lpSubKey) {
    return Guard([&] { return DeleteKey(hKey, Narrow(lpSubKey).c_str(), false); });
}

VORNAPI LSTATUS WINAPI RegDeleteTreeA(HKEY hKey, LPCSTR lpSubKey) {
    return Guard([&] { return DeleteKey(hKey, lpSubKey, true); });
}

VORNAPI LSTATUS WINAPI RegDeleteTreeW(HKEY hKey, LPCWSTR lpSubKey) {
    return Guard([&] { return DeleteKey(hKey, Narrow(lpSubKey).c_str(), true); });
}

VORNAPI LSTATUS WINAPI RegDeleteValueA(HKEY hKey, LPCSTR lpValueName) { return DeleteValue(hKey, lpValueName); }

VORNAPI LSTATUS WINAPI RegDeleteValueW(HKEY hKey, LPCWSTR lpValueName) {
    return Guard([&] { return DeleteValue(hKey, Narrow(lpValueName).c_str()); });
}

VORNAPI DWORD WINAPI VornGetRegistryPathA(LPSTR lpPath, DWORD nSize) {
    try {
        std::string path;
        if (!vorn::rt::reg::RegistryFilePath(&path)) {
            vorn::rt::SetLastErrorCode(ERROR_PATH_NOT_FOUND);
            return 0;
        }
        if (lpPath && nSize > path.size()) {
            std::memcpy(lpPath, path.c_str(), path.size() + 1);
            return static_cast<DWORD>(path.size());
        }
        return static_cast<DWORD>(path.size() + 1);
    } catch (const std::bad_alloc&) {
        vorn::rt::SetLastErrorCode(ERROR_NOT_ENOUGH_MEMORY);
        return 0;
    }
}
