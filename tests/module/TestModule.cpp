// The tests' component module: the generic server code of src/module over a
// table of two small classes, so that activation, registration and unloading
// are tested independently of the database. Exports the same four entry
// points as libvorndb.so (exports.map of src/module).
#include <atomic>
#include <new>

#include "TestIds.h"
#include "module/ServerModule.h"

#define VORN_MODULE_ENTRY EXTERN_C __attribute__((visibility("default")))

namespace {

// Holds the module lock from construction to final release, as the database
// object does.
class CTestWidget final : public IVornTestWidget {
public:
    CTestWidget() { vorn::module::LockModule(); }
    CTestWidget(const CTestWidget&) = delete;
    CTestWidget& operator=(const CTestWidget&) = delete;

    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        if (!ppv) return E_POINTER;
        if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IVornTestWidget)) {
            *ppv = static_cast<IVornTestWidget*>(this);
            AddRef();
            return S_OK;
        }
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++refs_; }
    STDMETHODIMP_(ULONG) Release() override {
        const ULONG left = --refs_;
        if (left == 0) delete this;
        return left;
    }
    STDMETHODIMP get_Answer(LONG* pValue) override {
        if (!pValue) return E_POINTER;
        *pValue = 42;
        return S_OK;
    }

private:
    ~CTestWidget() { vorn::module::UnlockModule(); }

    std::atomic<ULONG> refs_{0};
};

HRESULT CreateWidget(REFIID riid, void** ppv) {
    auto* widget = new (std::nothrow) CTestWidget();
    if (!widget) return E_OUTOFMEMORY;
    widget->AddRef();
    const HRESULT hr = widget->QueryInterface(riid, ppv);
    widget->Release();
    return hr;
}

HRESULT CreateNoMemory(REFIID, void**) { return E_OUTOFMEMORY; }

constexpr vorn::module::ClassEntry kClasses[] = {
    {&CLSID_VornTestWidget, &CreateWidget},
    {&CLSID_VornTestNoMemory, &CreateNoMemory},
};

const vorn::module::IdReplacement kIds[] = {{"CLSID", &CLSID_VornTestWidget}};

}  // namespace

VORN_MODULE_ENTRY HRESULT STDAPICALLTYPE DllGetClassObject(REFCLSID rclsid, REFIID riid, LPVOID* ppv) {
    return vorn::module::GetClassObject(kClasses, rclsid, riid, ppv);
}

VORN_MODULE_ENTRY HRESULT STDAPICALLTYPE DllCanUnloadNow() { return vorn::module::CanUnloadNow(); }

VORN_MODULE_ENTRY HRESULT STDAPICALLTYPE DllRegisterServer() {
    return vorn::module::RegisterServer("TESTMODULE", kIds);
}

VORN_MODULE_ENTRY HRESULT STDAPICALLTYPE DllUnregisterServer() {
    return vorn::module::UnregisterServer("TESTMODULE", kIds);
}
