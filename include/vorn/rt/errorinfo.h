// Error information: why a COM call failed, in words.
//
// An object that can say why a call failed answers ISupportErrorInfo; before
// it returns a failure it creates an error object (CreateErrorInfo), fills it
// through ICreateErrorInfo (the GUID of the interface called, the source that
// failed, a description) and places it in the calling thread's error slot
// (SetErrorInfo). A client that got a failure from such an object, and whose
// InterfaceSupportsErrorInfo for the interface it called answers S_OK, takes
// the error object with GetErrorInfo and reads it through IErrorInfo. The
// interfaces have their Windows IIDs and slot orders.
//
// The slot holds one reference. It is per thread; there are no apartments
// behind it (docs/platform.md). A thread's remaining error object is released
// when the thread ends.
#pragma once

#include "vorn/rt/oleauto.h"

VORN_DEFINE_GUID(IID_IErrorInfo, 0x1CF2B120, 0x547D, 0x101B, 0x8E, 0x65, 0x08, 0x00, 0x2B, 0x2B, 0xD1, 0x19);
VORN_DEFINE_GUID(IID_ICreateErrorInfo, 0x22F03340, 0x547D, 0x101B, 0x8E, 0x65, 0x08, 0x00, 0x2B, 0x2B, 0xD1, 0x19);
VORN_DEFINE_GUID(IID_ISupportErrorInfo, 0xDF0B3D60, 0x548F, 0x101B, 0x8E, 0x65, 0x08, 0x00, 0x2B, 0x2B, 0xD1, 0x19);

// Reading an error object. The texts are new BSTRs the caller frees (null
// when the text was never set); the help context is 0 unless set. A null
// out pointer gives E_INVALIDARG.
struct IErrorInfo : IUnknown {
    STDMETHOD(GetGUID)(GUID* pGUID) PURE;
    STDMETHOD(GetSource)(BSTR* pBstrSource) PURE;
    STDMETHOD(GetDescription)(BSTR* pBstrDescription) PURE;
    STDMETHOD(GetHelpFile)(BSTR* pBstrHelpFile) PURE;
    STDMETHOD(GetHelpContext)(DWORD* pdwHelpContext) PURE;
};
VORN_INTERFACE_IID(IErrorInfo, IID_IErrorInfo);

// Filling an error object. The texts are copied; null clears one. S_OK, or
// E_OUTOFMEMORY with the old text kept.
struct ICreateErrorInfo : IUnknown {
    STDMETHOD(SetGUID)(REFGUID rguid) PURE;
    STDMETHOD(SetSource)(LPOLESTR szSource) PURE;
    STDMETHOD(SetDescription)(LPOLESTR szDescription) PURE;
    STDMETHOD(SetHelpFile)(LPOLESTR szHelpFile) PURE;
    STDMETHOD(SetHelpContext)(DWORD dwHelpContext) PURE;
};
VORN_INTERFACE_IID(ICreateErrorInfo, IID_ICreateErrorInfo);

// Whether an object reports error information for calls through an interface:
// S_OK when it does, S_FALSE when it does not.
struct ISupportErrorInfo : IUnknown {
    STDMETHOD(InterfaceSupportsErrorInfo)(REFIID riid) PURE;
};
VORN_INTERFACE_IID(ISupportErrorInfo, IID_ISupportErrorInfo);

// A new, empty error object (GUID_NULL, no texts, help context 0) answering
// IUnknown, IErrorInfo and ICreateErrorInfo, with one reference. S_OK;
// E_INVALIDARG for a null pperrinfo; E_OUTOFMEMORY.
VORNAPI HRESULT WINAPI CreateErrorInfo(ICreateErrorInfo** pperrinfo);
// Places perrinfo (one reference added) in the calling thread's slot and
// releases what was there; null empties the slot. S_OK; E_INVALIDARG when
// dwReserved is not 0 (the slot is left as it was).
VORNAPI HRESULT WINAPI SetErrorInfo(DWORD dwReserved, IErrorInfo* perrinfo);
// Hands the calling thread's error object over with the slot's reference and
// empties the slot: S_OK. S_FALSE with *pperrinfo null when the slot is
// empty. E_INVALIDARG when dwReserved is not 0 or pperrinfo is null.
VORNAPI HRESULT WINAPI GetErrorInfo(DWORD dwReserved, IErrorInfo** pperrinfo);
