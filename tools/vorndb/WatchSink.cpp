// The shell's notification sink (see WatchSink.h).
#include "WatchSink.h"

namespace vorndb {

namespace {

// The identity (IUnknown) of a COM object, without keeping a reference.
IUnknown* Identity(IUnknown* object) {
    IUnknown* identity = nullptr;
    if (!object || FAILED(object->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&identity)))) return nullptr;
    identity->Release();
    return identity;
}

}  // namespace

WatchSink::WatchSink(Session& session, Node watched)
    : session_(session), watched_(std::move(watched)), identity_(Identity(watched_.object.get())) {}

STDMETHODIMP WatchSink::QueryInterface(REFIID riid, void** ppv) {
    if (!ppv) return E_POINTER;
    if (riid == IID_IUnknown || riid == IID_IDBNotification) {
        *ppv = static_cast<IDBNotification*>(this);
        AddRef();
        return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
}

STDMETHODIMP_(ULONG) WatchSink::AddRef() { return ++references_; }

STDMETHODIMP_(ULONG) WatchSink::Release() {
    const ULONG left = --references_;
    if (left == 0) delete this;
    return left;
}

STDMETHODIMP WatchSink::Callback(IUnknown* pParameterUnknown) {
    VARIANT empty;
    VariantInit(&empty);
    return CallbackWithData(pParameterUnknown, empty);
}

STDMETHODIMP WatchSink::CallbackWithData(IUnknown* pParameterUnknown, VARIANT vData) {
    ++calls_;
    if (!pParameterUnknown) return S_OK;
    // No exception may leave a sink: a failure becomes the printed line.
    try {
        const Node changed = session_.NodeOf(pParameterUnknown);
        VARIANT none;
        VariantInit(&none);
        const bool self = Identity(pParameterUnknown) == identity_;
        Print("watch: " + changed.fullName + " = " + session_.FormatNotification(changed, self ? vData : none));
    } catch (const std::exception& e) {
        PrintError(std::string("vorndb: watch: ") + e.what());
    }
    return S_OK;
}

STDMETHODIMP WatchSink::GetCallbackFileName(BSTR* bstrFileName) {
    if (!bstrFileName) return E_POINTER;
    *bstrFileName = nullptr;
    return S_OK;
}

}  // namespace vorndb
