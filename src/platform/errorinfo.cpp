// Error information: the error object (IErrorInfo and ICreateErrorInfo on one
// object) and the per-thread error slot of SetErrorInfo / GetErrorInfo.
//
// The error object keeps its texts as BSTRs under a mutex of its own, so a
// client may read it on another thread than the one that filled it. The slot
// is a thread-local holding one reference; the thread's last error object is
// released when the thread ends (its thread-local destructor).
#include <atomic>
#include <mutex>
#include <new>
#include <utility>

#include "internal.h"

namespace {

class ErrorObject final : public IErrorInfo, public ICreateErrorInfo {
public:
    ErrorObject() = default;
    ErrorObject(const ErrorObject&) = delete;
    ErrorObject& operator=(const ErrorObject&) = delete;

    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        if (!ppv) return E_POINTER;
        if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IErrorInfo)) {
            *ppv = static_cast<IErrorInfo*>(this);
        } else if (IsEqualIID(riid, IID_ICreateErrorInfo)) {
            *ppv = static_cast<ICreateErrorInfo*>(this);
        } else {
            *ppv = nullptr;
            return E_NOINTERFACE;
        }
        AddRef();
        return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return refs_.fetch_add(1, std::memory_order_relaxed) + 1; }
    STDMETHODIMP_(ULONG) Release() override {
        const ULONG left = refs_.fetch_sub(1, std::memory_order_acq_rel) - 1;
        if (left == 0) delete this;
        return left;
    }

    // -- IErrorInfo --------------------------------------------------------
    STDMETHODIMP GetGUID(GUID* pGUID) override {
        if (!pGUID) return E_INVALIDARG;
        std::lock_guard lock(mutex_);
        *pGUID = guid_;
        return S_OK;
    }
    STDMETHODIMP GetSource(BSTR* pBstrSource) override { return Copy(source_, pBstrSource); }
    STDMETHODIMP GetDescription(BSTR* pBstrDescription) override { return Copy(description_, pBstrDescription); }
    STDMETHODIMP GetHelpFile(BSTR* pBstrHelpFile) override { return Copy(helpFile_, pBstrHelpFile); }
    STDMETHODIMP GetHelpContext(DWORD* pdwHelpContext) override {
        if (!pdwHelpContext) return E_INVALIDARG;
        std::lock_guard lock(mutex_);
        *pdwHelpContext = helpContext_;
        return S_OK;
    }

    // -- ICreateErrorInfo --------------------------------------------------
    STDMETHODIMP SetGUID(REFGUID rguid) override {
        std::lock_guard lock(mutex_);
        guid_ = rguid;
        return S_OK;
    }
    STDMETHODIMP SetSource(LPOLESTR szSource) override { return Store(source_, szSource); }
    STDMETHODIMP SetDescription(LPOLESTR szDescription) override { return Store(description_, szDescription); }
    STDMETHODIMP SetHelpFile(LPOLESTR szHelpFile) override { return Store(helpFile_, szHelpFile); }
    STDMETHODIMP SetHelpContext(DWORD dwHelpContext) override {
        std::lock_guard lock(mutex_);
        helpContext_ = dwHelpContext;
        return S_OK;
    }

private:
    ~ErrorObject() {
        SysFreeString(source_);
        SysFreeString(description_);
        SysFreeString(helpFile_);
    }

    // A new copy of `text` (null stays null).
    HRESULT Copy(BSTR text, BSTR* out) {
        if (!out) return E_INVALIDARG;
        std::lock_guard lock(mutex_);
        *out = nullptr;
        if (!text) return S_OK;
        *out = SysAllocStringLen(text, SysStringLen(text));
        return *out ? S_OK : E_OUTOFMEMORY;
    }
    HRESULT Store(BSTR& field, LPOLESTR text) {
        BSTR copy = nullptr;
        if (text && !(copy = SysAllocStringLen(text, static_cast<UINT>(std::char_traits<OLECHAR>::length(text)))))
            return E_OUTOFMEMORY;
        std::lock_guard lock(mutex_);
        SysFreeString(std::exchange(field, copy));
        return S_OK;
    }

    std::atomic<ULONG> refs_{1};
    std::mutex mutex_;
    GUID guid_ = GUID_NULL;
    BSTR source_ = nullptr;
    BSTR description_ = nullptr;
    BSTR helpFile_ = nullptr;
    DWORD helpContext_ = 0;
};

// The calling thread's error slot.
struct ErrorSlot {
    IErrorInfo* info = nullptr;
    ~ErrorSlot() {
        if (info) info->Release();
    }
};

VORN_RT_THREAD_LOCAL ErrorSlot tErrorSlot;

}  // namespace

VORNAPI HRESULT WINAPI CreateErrorInfo(ICreateErrorInfo** pperrinfo) {
    if (!pperrinfo) return E_INVALIDARG;
    auto* object = new (std::nothrow) ErrorObject();
    *pperrinfo = object;
    return object ? S_OK : E_OUTOFMEMORY;
}

VORNAPI HRESULT WINAPI SetErrorInfo(DWORD dwReserved, IErrorInfo* perrinfo) {
    if (dwReserved != 0) return E_INVALIDARG;
    if (perrinfo) perrinfo->AddRef();
    // Added before the old one is released: they may be the same object.
    IErrorInfo* old = std::exchange(tErrorSlot.info, perrinfo);
    if (old) old->Release();
    return S_OK;
}

VORNAPI HRESULT WINAPI GetErrorInfo(DWORD dwReserved, IErrorInfo** pperrinfo) {
    if (dwReserved != 0 || !pperrinfo) return E_INVALIDARG;
    *pperrinfo = std::exchange(tErrorSlot.info, nullptr);
    return *pperrinfo ? S_OK : S_FALSE;
}
