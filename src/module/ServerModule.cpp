// Module state, the generic class factory and the registration steps of a
// component module; see ServerModule.h.
#include "module/ServerModule.h"

#include <atomic>
#include <climits>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace vorn::module {

namespace {

std::atomic<LONG> gLockCount{0};

// The module that contains this code, found from an address inside it.
HMODULE FindOwnModule() noexcept {
    HMODULE module = nullptr;
    GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<LPCSTR>(&FindOwnModule), &module);
    return module;
}

// Recorded when the module is loaded.
const HMODULE gInstance = FindOwnModule();

// The class object of one class. Its reference count only keeps the factory
// itself alive; the module lock is taken by LockServer alone.
class ClassFactory final : public IClassFactory {
public:
    explicit ClassFactory(Creator create) noexcept : create_(create) {}
    ClassFactory(const ClassFactory&) = delete;
    ClassFactory& operator=(const ClassFactory&) = delete;

    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        if (!ppv) return E_POINTER;
        if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IClassFactory)) {
            *ppv = static_cast<IClassFactory*>(this);
            AddRef();
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return refs_.fetch_add(1, std::memory_order_relaxed) + 1; }
    STDMETHODIMP_(ULONG) Release() override {
        const ULONG left = refs_.fetch_sub(1, std::memory_order_acq_rel) - 1;
        if (left == 0) delete this;
        return left;
    }

    // ppv null: E_POINTER and nothing is created. An outer unknown is accepted
    // only together with IID_IUnknown (the classes of this module are then
    // created on their own; they do not aggregate); any other riid with an
    // outer unknown is CLASS_E_NOAGGREGATION.
    STDMETHODIMP CreateInstance(IUnknown* pUnkOuter, REFIID riid, void** ppv) override {
        if (!ppv) return E_POINTER;
        *ppv = nullptr;
        if (pUnkOuter && !IsEqualIID(riid, IID_IUnknown)) return CLASS_E_NOAGGREGATION;
        const HRESULT hr = create_(riid, ppv);
        if (FAILED(hr)) *ppv = nullptr;
        return hr;
    }
    STDMETHODIMP LockServer(BOOL fLock) override {
        if (fLock) {
            LockModule();
        } else {
            UnlockModule();
        }
        return S_OK;
    }

private:
    ~ClassFactory() = default;

    std::atomic<ULONG> refs_{1};
    Creator create_;
};

// The cached class objects, by class identifier; each holds one reference
// until the module is unloaded.
class FactoryCache {
public:
    ~FactoryCache() {
        for (auto& [clsid, factory] : factories_) factory->Release();
    }

    // The class object of `entry` with one reference added for the caller;
    // null when out of memory.
    IClassFactory* Get(const ClassEntry& entry) noexcept {
        std::lock_guard<std::mutex> guard(mutex_);
        try {
            IClassFactory*& factory = factories_[entry.clsid];
            if (!factory) factory = new ClassFactory(entry.create);
            factory->AddRef();
            return factory;
        } catch (const std::bad_alloc&) {
            return nullptr;
        }
    }

private:
    std::mutex mutex_;
    std::map<const CLSID*, IClassFactory*> factories_;
};

FactoryCache gFactories;

// Runs the registration script with %MODULE% and the identifiers.
HRESULT RunScript(LPCSTR script, std::span<const IdReplacement> ids, const std::string& path, BOOL registering) {
    std::vector<std::string> texts;
    texts.reserve(ids.size());
    for (const IdReplacement& id : ids) {
        OLECHAR wide[40];
        StringFromGUID2(*id.id, wide, 40);
        texts.push_back(Narrow(wide));
    }
    std::vector<VORN_REGMAP_ENTRY> map;
    for (std::size_t i = 0; i < ids.size(); ++i) map.push_back({ids[i].name, texts[i].c_str()});
    map.push_back({"MODULE", path.c_str()});
    map.push_back({nullptr, nullptr});
    return VornRegistrarRunResourceA(ModuleInstance(), script, map.data(), registering);
}

}  // namespace

void LockModule() noexcept { gLockCount.fetch_add(1, std::memory_order_relaxed); }
void UnlockModule() noexcept { gLockCount.fetch_sub(1, std::memory_order_acq_rel); }
LONG ModuleLockCount() noexcept { return gLockCount.load(std::memory_order_acquire); }

HMODULE ModuleInstance() noexcept { return gInstance; }

std::string ModulePath() {
    char path[PATH_MAX];
    const DWORD n = GetModuleFileNameA(ModuleInstance(), path, sizeof path);
    if (n == 0 || n >= sizeof path) return {};
    char absolute[PATH_MAX];
    return realpath(path, absolute) ? std::string(absolute) : std::string(path);
}

HRESULT LoadModuleTypeLib(ITypeLib** ppTypeLib) noexcept {
    if (!ppTypeLib) return E_POINTER;
    *ppTypeLib = nullptr;
    try {
        const std::string path = ModulePath();
        if (path.empty()) return HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND);
        return LoadTypeLib(Widen(path).c_str(), ppTypeLib);
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    }
}

HRESULT GetClassObject(std::span<const ClassEntry> classes, REFCLSID rclsid, REFIID riid, void** ppv) noexcept {
    if (!ppv) return E_INVALIDARG;
    *ppv = nullptr;
    for (const ClassEntry& entry : classes) {
        if (!IsEqualCLSID(*entry.clsid, rclsid)) continue;
        IClassFactory* factory = gFactories.Get(entry);
        if (!factory) return E_OUTOFMEMORY;
        const HRESULT hr = factory->QueryInterface(riid, ppv);
        factory->Release();
        return hr;
    }
    return CLASS_E_CLASSNOTAVAILABLE;
}

HRESULT CanUnloadNow(LONG liveObjects) noexcept { return ModuleLockCount() == 0 && liveObjects == 0 ? S_OK : S_FALSE; }

// Runs `steps` as one registry transaction: written when they succeed,
// dropped when they fail, so the registry never holds part of them.
template <class Steps>
HRESULT InOneTransaction(Steps steps) noexcept {
    HRESULT hr = VornRegistrarBeginTransaction();
    if (FAILED(hr)) return hr;
    try {
        hr = steps();
    } catch (const std::bad_alloc&) {
        hr = E_OUTOFMEMORY;
    }
    const HRESULT ended = VornRegistrarEndTransaction(SUCCEEDED(hr));
    return FAILED(hr) ? hr : ended;
}

HRESULT RegisterServer(LPCSTR script, std::span<const IdReplacement> ids) noexcept {
    return InOneTransaction([&]() -> HRESULT {
        const std::string path = ModulePath();
        if (path.empty()) return HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND);
        if (HRESULT hr = RunScript(script, ids, path, TRUE); FAILED(hr)) return hr;
        ITypeLib* typeLib = nullptr;
        if (HRESULT hr = LoadModuleTypeLib(&typeLib); FAILED(hr)) return hr;
        const HRESULT hr = RegisterTypeLib(typeLib, Widen(path).c_str(), nullptr);
        typeLib->Release();
        return hr;
    });
}

HRESULT UnregisterServer(LPCSTR script, std::span<const IdReplacement> ids) noexcept {
    return InOneTransaction([&]() -> HRESULT {
        const std::string path = ModulePath();
        if (path.empty()) return HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND);
        if (HRESULT hr = RunScript(script, ids, path, FALSE); FAILED(hr)) return hr;
        ITypeLib* typeLib = nullptr;
        if (HRESULT hr = LoadModuleTypeLib(&typeLib); FAILED(hr)) return hr;
        TLIBATTR* attr = nullptr;
        HRESULT hr = typeLib->GetLibAttr(&attr);
        if (SUCCEEDED(hr)) {
            hr = UnRegisterTypeLib(attr->guid, attr->wMajorVerNum, attr->wMinorVerNum, attr->lcid, attr->syskind);
            typeLib->ReleaseTLibAttr(attr);
        }
        typeLib->Release();
        // A library that is not registered (a module registered in part, or
        // not at all) leaves nothing to remove.
        return hr == TYPE_E_REGISTRYACCESS ? S_OK : hr;
    });
}

}  // namespace vorn::module
