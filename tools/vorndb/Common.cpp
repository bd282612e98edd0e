// Exit codes, HRESULT texts, text conversion and serialised output of the
// vorndb tool (see Common.h).
#include "Common.h"

#include <cstdio>
#include <mutex>
#include <ostream>

namespace vorndb {

namespace {

struct KnownResult {
    HRESULT hr;
    const char* name;
    const char* meaning;
};

// The results the database and the runtime return to this tool.
const KnownResult kKnownResults[] = {
    {S_OK, "S_OK", "success"},
    {S_FALSE, "S_FALSE", "nothing changed"},
    {E_INVALIDARG, "E_INVALIDARG", "the value is out of range or not accepted"},
    {HRESULT_FROM_WIN32(ERROR_INVALID_DATA), "ERROR_INVALID_DATA", "the parameter's value is invalid"},
    {E_NOTIMPL, "E_NOTIMPL", "not implemented for this object"},
    {E_NOINTERFACE, "E_NOINTERFACE", "no such object or interface"},
    {E_POINTER, "E_POINTER", "null pointer"},
    {E_ABORT, "E_ABORT", "timed out"},
    {E_FAIL, "E_FAIL", "unspecified failure (for a stream: not a settings stream)"},
    {E_UNEXPECTED, "E_UNEXPECTED", "unexpected failure"},
    {E_OUTOFMEMORY, "E_OUTOFMEMORY", "out of memory or capacity"},
    {E_ACCESSDENIED, "E_ACCESSDENIED", "access denied"},
    {HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND), "ERROR_FILE_NOT_FOUND", "file not found"},
    {HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND), "ERROR_PATH_NOT_FOUND", "path not found"},
    {HRESULT_FROM_WIN32(ERROR_HANDLE_EOF), "ERROR_HANDLE_EOF", "end of stream reached"},
    {HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND), "ERROR_MOD_NOT_FOUND", "module not found"},
    {HRESULT_FROM_WIN32(ERROR_BAD_EXE_FORMAT), "ERROR_BAD_EXE_FORMAT", "not a loadable module"},
    {REGDB_E_CLASSNOTREG, "REGDB_E_CLASSNOTREG", "class not registered"},
    {REGDB_E_READREGDB, "REGDB_E_READREGDB", "the registry cannot be read"},
    {CO_E_CLASSSTRING, "CO_E_CLASSSTRING", "program identifier not registered"},
    {CO_E_ERRORINDLL, "CO_E_ERRORINDLL", "the module has no DllGetClassObject"},
    {CLASS_E_CLASSNOTAVAILABLE, "CLASS_E_CLASSNOTAVAILABLE", "the module does not serve the class"},
    {TYPE_E_CANTLOADLIBRARY, "TYPE_E_CANTLOADLIBRARY", "the type library cannot be loaded"},
    {TYPE_E_ELEMENTNOTFOUND, "TYPE_E_ELEMENTNOTFOUND", "no such element in the type library"},
};

std::mutex& OutputMutex() {
    static std::mutex mutex;
    return mutex;
}

}  // namespace

std::string ReportedReason(IUnknown* object, REFIID iid) {
    vorn::ComPtr<ISupportErrorInfo> support;
    vorn::ComPtr<IErrorInfo> info;
    if (FAILED(object->QueryInterface(IID_ISupportErrorInfo, support.put_void())) ||
        support->InterfaceSupportsErrorInfo(iid) != S_OK || GetErrorInfo(0, info.put()) != S_OK)
        return "";
    BSTR description = nullptr;
    BSTR source = nullptr;
    info->GetDescription(&description);
    info->GetSource(&source);
    std::string reason = TakeBstr(description);
    const std::string from = TakeBstr(source);
    if (!reason.empty() && !from.empty()) reason += " (" + from + ")";
    return reason;
}

std::string DescribeHresult(HRESULT hr, IUnknown* object, REFIID iid) {
    char code[16];
    std::snprintf(code, sizeof code, "0x%08X", static_cast<unsigned>(hr));
    const KnownResult* known = nullptr;
    for (const KnownResult& result : kKnownResults)
        if (result.hr == hr) known = &result;
    std::string text = known ? std::string(code) + " " + known->name : std::string(code);
    const std::string reason = object && FAILED(hr) ? ReportedReason(object, iid) : "";
    if (!reason.empty()) return text + ": " + reason;
    return text + ": " + (known ? known->meaning : FAILED(hr) ? "failure" : "success");
}

std::string OffsetText(std::size_t offset) {
    char text[48];
    std::snprintf(text, sizeof text, "0x%zX (%zu)", offset, offset);
    return text;
}

std::string TakeBstr(BSTR text) {
    std::string result = vorn::Narrow(std::u16string_view(text, SysStringLen(text)));
    SysFreeString(text);
    return result;
}

void Print(const std::string& line) {
    std::lock_guard<std::mutex> lock(OutputMutex());
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

void PrintError(const std::string& line) {
    std::lock_guard<std::mutex> lock(OutputMutex());
    std::fflush(stdout);
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fputc('\n', stderr);
    std::fflush(stderr);
}

void PrintRaw(const std::string& text) {
    std::lock_guard<std::mutex> lock(OutputMutex());
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

void PrintTo(const std::function<void(const TextSink&)>& write) {
    std::lock_guard<std::mutex> lock(OutputMutex());
    write([](std::string_view text) { std::fwrite(text.data(), 1, text.size(), stdout); });
    std::fflush(stdout);
}

}  // namespace vorndb
