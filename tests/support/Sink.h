// The QueryInterface every test sink shares: it answers IUnknown and
// IDBNotification with `sink` (one reference added), nothing else.
#pragma once

#include "vorn/database.h"

namespace vorn::test {

inline HRESULT QuerySink(IDBNotification* sink, REFIID riid, void** ppv) {
    if (!ppv) return E_POINTER;
    if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IDBNotification)) {
        *ppv = sink;
        sink->AddRef();
        return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
}

}  // namespace vorn::test
