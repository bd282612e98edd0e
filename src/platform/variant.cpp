// VARIANT initialisation, clearing and copying.
//
// A variant owns its BSTR and one reference on its VT_UNKNOWN / VT_DISPATCH
// pointer; scalar values (including VT_DECIMAL, which fills the whole
// variant) own nothing. A VT_BYREF variant owns nothing either: clearing it
// forgets the pointer and copying it copies the pointer. Arrays and records
// (VT_ARRAY without VT_BYREF, VT_RECORD) and types a variant cannot hold are
// refused with DISP_E_BADVARTYPE before anything is changed.
#include "vorn/platform.h"

namespace {

// Types that may stand alone in a variant.
bool IsPlainType(VARTYPE vt) {
    switch (vt) {
        case VT_EMPTY:
        case VT_NULL:
        case VT_I2:
        case VT_I4:
        case VT_R4:
        case VT_R8:
        case VT_CY:
        case VT_DATE:
        case VT_BSTR:
        case VT_DISPATCH:
        case VT_ERROR:
        case VT_BOOL:
        case VT_UNKNOWN:
        case VT_DECIMAL:
        case VT_I1:
        case VT_UI1:
        case VT_UI2:
        case VT_UI4:
        case VT_I8:
        case VT_UI8:
        case VT_INT:
        case VT_UINT:
            return true;
        default:
            return false;
    }
}

// Whether this runtime can clear and copy a variant of type vt.
bool IsSupportedType(VARTYPE vt) {
    if (!(vt & VT_BYREF)) return IsPlainType(vt);
    if (vt & (VT_VECTOR | VT_RESERVED)) return false;
    const VARTYPE base = vt & VT_TYPEMASK;
    if (base == VT_EMPTY || base == VT_NULL) return false;
    return base == VT_VARIANT || IsPlainType(base);
}

}  // namespace

void WINAPI VariantInit(VARIANTARG* pvarg) {
    if (pvarg) pvarg->vt = VT_EMPTY;
}

// Frees what the variant owns and leaves it VT_EMPTY. E_INVALIDARG for a
// null pvarg, DISP_E_BADVARTYPE (variant untouched) for an unsupported type.
HRESULT WINAPI VariantClear(VARIANTARG* pvarg) {
    if (!pvarg) return E_INVALIDARG;
    if (!IsSupportedType(pvarg->vt)) return DISP_E_BADVARTYPE;
    switch (pvarg->vt) {
        case VT_BSTR:
            SysFreeString(pvarg->bstrVal);
            break;
        case VT_UNKNOWN:
        case VT_DISPATCH:  // IDispatch starts with IUnknown: punkVal reaches both
            if (pvarg->punkVal) pvarg->punkVal->Release();
            break;
        default:
            break;
    }
    pvarg->vt = VT_EMPTY;
    return S_OK;
}

// Copies src into dest after clearing dest; a BSTR is duplicated with its
// length, an interface gets AddRef. dest == src does nothing.
// E_INVALIDARG for a null argument; DISP_E_BADVARTYPE (dest untouched) when
// src has an unsupported type; the error of clearing dest; E_OUTOFMEMORY
// (dest left VT_EMPTY) when the BSTR cannot be copied.
HRESULT WINAPI VariantCopy(VARIANTARG* pvargDest, const VARIANTARG* pvargSrc) {
    if (!pvargDest || !pvargSrc) return E_INVALIDARG;
    if (!IsSupportedType(pvargSrc->vt)) return DISP_E_BADVARTYPE;
    if (pvargDest == pvargSrc) return S_OK;
    const HRESULT cleared = VariantClear(pvargDest);
    if (FAILED(cleared)) return cleared;

    switch (pvargSrc->vt) {
        case VT_BSTR: {
            BSTR copy = nullptr;
            if (pvargSrc->bstrVal) {
                copy = SysAllocStringLen(pvargSrc->bstrVal, SysStringLen(pvargSrc->bstrVal));
                if (!copy) return E_OUTOFMEMORY;
            }
            *pvargDest = *pvargSrc;
            pvargDest->bstrVal = copy;
            break;
        }
        case VT_UNKNOWN:
        case VT_DISPATCH:
            if (pvargSrc->punkVal) pvargSrc->punkVal->AddRef();
            *pvargDest = *pvargSrc;
            break;
        default:
            *pvargDest = *pvargSrc;
            break;
    }
    return S_OK;
}
