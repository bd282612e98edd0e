// The analyzer's tuning values from the registry: see AnalyzerTuning.h.
#include "files/AnalyzerTuning.h"

#include <cmath>
#include <cstring>
#include <vector>

#include "files/Numbers.h"

namespace vorn {

namespace {

std::string TypeName(DWORD type) {
    static constexpr const char* kNames[] = {"REG_NONE",   "REG_SZ",      "REG_EXPAND_SZ",
                                             "REG_BINARY", "REG_DWORD",   "REG_DWORD_BIG_ENDIAN",
                                             "REG_LINK",   "REG_MULTI_SZ"};
    if (type < std::size(kNames)) return kNames[type];
    return type == REG_QWORD ? "REG_QWORD" : "type " + std::to_string(type);
}

// The value's type and its bytes: S_OK, S_FALSE when missing, E_INVALIDARG
// with `problem` when it cannot be read.
HRESULT ReadRaw(const char* name, DWORD& type, std::vector<BYTE>& data, std::string& problem) {
    DWORD size = 0;
    LSTATUS status = RegGetValueA(HKEY_LOCAL_MACHINE, kAnalyzerTuningKey, name, RRF_RT_ANY, &type, nullptr, &size);
    if (status == ERROR_SUCCESS) {
        data.resize(size);
        status = RegGetValueA(HKEY_LOCAL_MACHINE, kAnalyzerTuningKey, name, RRF_RT_ANY, &type,
                              size ? data.data() : nullptr, &size);
        data.resize(size);
    }
    if (status == ERROR_FILE_NOT_FOUND) return S_FALSE;
    if (status == ERROR_SUCCESS) return S_OK;
    problem = "unreadable (Win32 error " + std::to_string(status) + ")";
    return E_INVALIDARG;
}

std::string WrongType(DWORD type, const char* expected) {
    return "a " + TypeName(type) + " value, where " + expected + " is expected";
}

}  // namespace

HRESULT ReadTuningValue(const char* name, ULONG& value, std::string& problem) {
    DWORD type = REG_NONE;
    std::vector<BYTE> data;
    const HRESULT hr = ReadRaw(name, type, data, problem);
    if (hr != S_OK) return hr;
    if (type != REG_DWORD || data.size() != sizeof(DWORD)) {
        problem = WrongType(type, "a REG_DWORD");
        return E_INVALIDARG;
    }
    std::memcpy(&value, data.data(), sizeof value);
    return S_OK;
}

HRESULT ReadTuningValue(const char* name, double& value, std::string& problem) {
    DWORD type = REG_NONE;
    std::vector<BYTE> data;
    const HRESULT hr = ReadRaw(name, type, data, problem);
    if (hr != S_OK) return hr;
    if (type != REG_SZ) {
        problem = WrongType(type, "a REG_SZ number");
        return E_INVALIDARG;
    }
    // The text up to its terminator (RegGetValueA terminates it).
    data.push_back(0);
    const std::string text(reinterpret_cast<const char*>(data.data()));
    char* end = nullptr;
    const double read = StrtodC(text.c_str(), &end);
    const bool number = end != text.c_str();
    while (*end == ' ' || *end == '\t') ++end;
    if (!number || *end != '\0' || !std::isfinite(read)) {
        problem = "\"" + text + "\", which is no finite number";
        return E_INVALIDARG;
    }
    value = read;
    return S_OK;
}

}  // namespace vorn
