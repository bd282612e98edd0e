// Class activation: CoCreateInstance, CLSIDFromProgID and
// CoFreeUnusedLibraries, over the registry and the module loader.
//
// Only modules registered with an absolute path (a Linux path from "/" or a
// drive path) are loaded: a relative one is refused with CO_E_BADPATH.
//
// Modules loaded for activation are kept in a process-wide table, one entry
// (one LoadLibraryA reference) per module, with their DllGetClassObject and
// DllCanUnloadNow. An entry counts the activations running through it, so
// CoFreeUnusedLibraries never unloads a module while one of its entry points
// is being called.
#include <map>
#include <mutex>

#include "diagnostic.h"
#include "internal.h"
#include "registry_store.h"
#include "vorn/rt/library.h"

using vorn::rt::reg::Key;
using vorn::rt::reg::Tree;

namespace {

using GetClassObjectFn = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, LPVOID*);
using CanUnloadNowFn = HRESULT(STDAPICALLTYPE*)();

struct LoadedServer {
    GetClassObjectFn getClassObject = nullptr;
    CanUnloadNowFn canUnloadNow = nullptr;
    ULONG activations = 0;
};

std::mutex gServersMutex;
std::map<HMODULE, LoadedServer>& Servers() {
    static auto* servers = new std::map<HMODULE, LoadedServer>();
    return *servers;
}

// The default string value of HKEY_CLASSES_ROOT\<path>: S_OK, S_FALSE when the
// key or value does not exist, or the registry's failure.
HRESULT ReadClassesString(const std::vector<std::string>& path, std::string* out) {
    out->clear();
    bool found = false;
    const LSTATUS status = vorn::rt::reg::Read([&](const Tree& tree) {
        const Key* classes = tree.localMachine.Walk(vorn::rt::reg::ClassesRootPath());
        const Key* key = classes ? classes->Walk(path) : nullptr;
        const vorn::rt::reg::Value* value = key ? key->FindValue("") : nullptr;
        if (value && (value->type == REG_SZ || value->type == REG_EXPAND_SZ)) {
            *out = vorn::rt::reg::StringFromData(value->data);
            found = true;
        }
        return LSTATUS(ERROR_SUCCESS);
    });
    if (status != ERROR_SUCCESS) return vorn::rt::reg::HresultFromRegistry(status);
    return found ? S_OK : S_FALSE;
}

// Loads the server module (or finds it loaded) and marks one activation as
// running through it.
HRESULT AcquireServer(const std::string& path, HMODULE* module, GetClassObjectFn* getClassObject) {
    HMODULE loaded = LoadLibraryA(path.c_str());
    if (!loaded) {
        const DWORD error = GetLastError();
        vorn::rt::SetErrorText("the class's server module " + path + " cannot be loaded: " + vorn::LastErrorText());
        return HRESULT_FROM_WIN32(error);
    }
    std::lock_guard<std::mutex> guard(gServersMutex);
    auto it = Servers().find(loaded);
    if (it != Servers().end()) {
        FreeLibrary(loaded);  // the table already holds this module's reference
    } else {
        LoadedServer server;
        server.getClassObject = reinterpret_cast<GetClassObjectFn>(GetProcAddress(loaded, "DllGetClassObject"));
        server.canUnloadNow = reinterpret_cast<CanUnloadNowFn>(GetProcAddress(loaded, "DllCanUnloadNow"));
        if (!server.getClassObject) {
            FreeLibrary(loaded);
            vorn::rt::SetErrorText("the module " + path + " does not export DllGetClassObject");
            return CO_E_ERRORINDLL;
        }
        it = Servers().emplace(loaded, server).first;
    }
    ++it->second.activations;
    *module = loaded;
    *getClassObject = it->second.getClassObject;
    return S_OK;
}

void ReleaseServer(HMODULE module) {
    std::lock_guard<std::mutex> guard(gServersMutex);
    auto it = Servers().find(module);
    if (it != Servers().end()) --it->second.activations;
}

// Finds the class's server, loads it, and calls use(DllGetClassObject) while
// the server is marked busy (so that CoFreeUnusedLibraries leaves it alone).
template <class Use>
HRESULT WithServer(REFCLSID rclsid, DWORD clsContext, Use use) noexcept {
    if (!vorn::rt::ComInitializedOnThisThread()) return CO_E_NOTINITIALIZED;
    if (!(clsContext & CLSCTX_INPROC_SERVER)) return REGDB_E_CLASSNOTREG;
    try {
        const std::string clsid = vorn::rt::GuidText(rclsid);
        std::string path;
        const HRESULT found = ReadClassesString({"CLSID", clsid, "InprocServer32"}, &path);
        if (FAILED(found)) return found;
        if (found == S_FALSE || path.empty()) {
            vorn::rt::SetErrorText("the class " + clsid + " is not registered");
            return REGDB_E_CLASSNOTREG;
        }
        // A relative path or a bare name would load whatever the working
        // directory or the loader's search path offers under that name.
        vorn::rt::HostPath host;
        if (!vorn::rt::MapWindowsPath(path.c_str(), &host) || host.path.front() != '/') {
            vorn::rt::SetErrorText("the class " + clsid + " is registered with the module path \"" + path +
                                   "\", which is not absolute; it is not loaded");
            return CO_E_BADPATH;
        }
        HMODULE module = nullptr;
        GetClassObjectFn getClassObject = nullptr;
        if (HRESULT hr = AcquireServer(path, &module, &getClassObject); FAILED(hr)) return hr;
        const HRESULT hr = use(getClassObject);
        ReleaseServer(module);
        return hr;
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
}

}  // namespace

// The object is created while the server is marked busy: until it exists and
// holds its module's lock, nothing else keeps the module loaded.
VORNAPI HRESULT WINAPI CoCreateInstance(REFCLSID rclsid, IUnknown* pUnkOuter, DWORD dwClsContext, REFIID riid,
                                        LPVOID* ppv) {
    vorn::rt::ClearErrorText();
    if (!ppv) return E_POINTER;
    *ppv = nullptr;
    return WithServer(rclsid, dwClsContext, [&](GetClassObjectFn getClassObject) {
        IClassFactory* factory = nullptr;
        HRESULT hr = getClassObject(rclsid, IID_IClassFactory, reinterpret_cast<void**>(&factory));
        if (FAILED(hr)) return hr;
        hr = factory->CreateInstance(pUnkOuter, riid, ppv);
        factory->Release();
        return hr;
    });
}

VORNAPI HRESULT WINAPI CLSIDFromProgID(LPCOLESTR lpszProgID, LPCLSID lpclsid) {
    vorn::rt::ClearErrorText();
    if (!lpszProgID || !lpclsid) return E_INVALIDARG;
    *lpclsid = CLSID_NULL;
    try {
        const std::string progId = vorn::Narrow(lpszProgID);
        std::vector<std::string> path;
        if (progId.empty() || vorn::rt::reg::SplitKeyPath(progId.c_str(), &path) != ERROR_SUCCESS || path.size() != 1)
            return CO_E_CLASSSTRING;
        path.push_back("CLSID");
        std::string text;
        const HRESULT found = ReadClassesString(path, &text);
        if (FAILED(found)) return found;
        if (found == S_FALSE) {
            vorn::rt::SetErrorText("the program identifier " + progId + " is not registered");
            return CO_E_CLASSSTRING;
        }
        if (!vorn::rt::ParseGuidText(text, lpclsid)) {
            vorn::rt::SetErrorText("the program identifier " + progId + " has a bad CLSID: " + text);
            return CO_E_CLASSSTRING;
        }
        return S_OK;
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
}

VORNAPI void WINAPI CoFreeUnusedLibraries() {
    std::lock_guard<std::mutex> guard(gServersMutex);
    for (auto it = Servers().begin(); it != Servers().end();) {
        const LoadedServer& server = it->second;
        if (server.activations == 0 && server.canUnloadNow && server.canUnloadNow() == S_OK) {
            FreeLibrary(it->first);
            it = Servers().erase(it);
        } else {
            ++it;
        }
    }
}
