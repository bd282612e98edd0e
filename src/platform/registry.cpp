// RegGetValueA over the registry file (registry_store.h).
//
// Each call loads the file afresh, so a change made by another process is
// seen at once. Only the predefined keys are handles here: there is no
// RegOpenKeyEx, a subkey is named by lpSubKey. String data (stored as UTF-16)
// is returned as UTF-8, and counted in UTF-8 bytes.
#include <cstring>

#include "diagnostic.h"
#include "registry_store.h"

using vorn::rt::reg::Key;
using vorn::rt::reg::KeyPath;
using vorn::rt::reg::Tree;
using vorn::rt::reg::Value;

namespace {

// Where a predefined key lives; false for any other handle.
bool Describe(HKEY key, KeyPath* where) {
    if (key == HKEY_CLASSES_ROOT) {
        *where = KeyPath{vorn::rt::reg::Hive::LocalMachine, vorn::rt::reg::ClassesRootPath()};
    } else if (key == HKEY_LOCAL_MACHINE) {
        *where = KeyPath{vorn::rt::reg::Hive::LocalMachine, {}};
    } else if (key == HKEY_CURRENT_USER) {
        *where = KeyPath{vorn::rt::reg::Hive::CurrentUser, {}};
    } else {
        return false;
    }
    return true;
}

bool IsStringType(DWORD type) { return type == REG_SZ || type == REG_EXPAND_SZ || type == REG_MULTI_SZ; }

// The value's data as the caller sees it: strings in UTF-8.
std::vector<BYTE> ViewData(const Value& value) {
    if (!IsStringType(value.type)) return value.data;
    const std::string text = vorn::Narrow(vorn::rt::reg::UnitsOf(value.data));
    return std::vector<BYTE>(text.begin(), text.end());
}

// The RRF_RT_* flag that lets a value of `type` through.
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

LSTATUS GetValue(HKEY hKey, LPCSTR lpSubKey, LPCSTR lpValue, DWORD dwFlags, LPDWORD pdwType, PVOID pvData,
                 LPDWORD pcbData) {
    KeyPath where;
    if (!Describe(hKey, &where)) return ERROR_INVALID_HANDLE;
    if (LSTATUS s = vorn::rt::reg::SplitKeyPath(lpSubKey, &where.path); s != ERROR_SUCCESS) return s;
    DWORD type = REG_NONE;
    std::vector<BYTE> data;
    const LSTATUS status = vorn::rt::reg::Read([&](const Tree& tree) {
        const Key* key = tree.hive(where.hive).Walk(where.path);
        if (!key) return LSTATUS(ERROR_FILE_NOT_FOUND);
        const Value* value = key->FindValue(lpValue ? lpValue : "");
        if (!value) return LSTATUS(ERROR_FILE_NOT_FOUND);
        type = value->type;
        data = ViewData(*value);
        return LSTATUS(ERROR_SUCCESS);
    });
    if (status != ERROR_SUCCESS) return status;
    if ((dwFlags & RRF_RT_ANY) != RRF_RT_ANY && !(dwFlags & TypeFilterFlag(type))) return ERROR_UNSUPPORTED_TYPE;
    // Strings read through RegGetValue are always terminated.
    if ((type == REG_SZ || type == REG_EXPAND_SZ) && (data.empty() || data.back() != 0)) data.push_back(0);
    if (type == REG_MULTI_SZ) {
        while (data.size() < 2 || data[data.size() - 1] != 0 || data[data.size() - 2] != 0) data.push_back(0);
    }
    if (pdwType) *pdwType = type;
    if (!pcbData) return ERROR_SUCCESS;
    const auto needed = static_cast<DWORD>(data.size());
    if (pvData && *pcbData < needed) {
        *pcbData = needed;
        return ERROR_MORE_DATA;
    }
    if (pvData && needed) std::memcpy(pvData, data.data(), needed);
    *pcbData = needed;
    return ERROR_SUCCESS;
}

}  // namespace

VORNAPI LSTATUS WINAPI RegGetValueA(HKEY hKey, LPCSTR lpSubKey, LPCSTR lpValue, DWORD dwFlags, LPDWORD pdwType,
                                    PVOID pvData, LPDWORD pcbData) {
    if (pvData && !pcbData) return ERROR_INVALID_PARAMETER;
    try {
        vorn::rt::ClearErrorText();
        return GetValue(hKey, lpSubKey, lpValue, dwFlags, pdwType, pvData, pcbData);
    } catch (const std::bad_alloc&) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
}
