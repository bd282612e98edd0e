// OLE Automation pieces: task memory, BSTR, VARIANT and SAFEARRAYBOUND.
//
// A BSTR points at UTF-16 text that is preceded by a 4-byte byte length and
// followed by a 16-bit terminator, exactly as on Windows, so a BSTR made in one
// module may be freed in another. Embedded NULs are allowed; SysStringLen, not
// the terminator, gives the length. A null BSTR is the empty string.
//
// VARIANT has the Windows x64 layout (24 bytes: vt, three reserved words, a
// 16-byte union). VariantCopy and VariantClear handle the scalar types, BSTR,
// VT_UNKNOWN and VT_DISPATCH, and VT_BYREF of those (shallowly: the pointer is
// copied, nothing is freed); any other type (arrays, records) is refused with
// DISP_E_BADVARTYPE, because the component never stores one.
#pragma once

#include "vorn/rt/unknown.h"

// Task memory: one allocator for every module (malloc underneath).
// CoTaskMemRealloc(nullptr, cb) allocates.
VORNAPI LPVOID WINAPI CoTaskMemRealloc(LPVOID pv, SIZE_T cb);
VORNAPI void WINAPI CoTaskMemFree(LPVOID pv);

// BSTR. Allocation failure and lengths that overflow the 32-bit byte prefix
// return null.
// SysAllocStringLen copies ui characters (zeroed ones for a null strIn).
VORNAPI BSTR WINAPI SysAllocStringLen(const OLECHAR* strIn, UINT ui);
VORNAPI void WINAPI SysFreeString(BSTR bstrString);
VORNAPI UINT WINAPI SysStringLen(BSTR pbstr);
VORNAPI UINT WINAPI SysStringByteLen(BSTR bstr);

// Variant types.
enum VARENUM : VARTYPE {
    VT_EMPTY = 0,
    VT_NULL = 1,
    VT_I2 = 2,
    VT_I4 = 3,
    VT_R4 = 4,
    VT_R8 = 5,
    VT_CY = 6,
    VT_DATE = 7,
    VT_BSTR = 8,
    VT_DISPATCH = 9,
    VT_ERROR = 10,
    VT_BOOL = 11,
    VT_VARIANT = 12,
    VT_UNKNOWN = 13,
    VT_DECIMAL = 14,
    VT_I1 = 16,
    VT_UI1 = 17,
    VT_UI2 = 18,
    VT_UI4 = 19,
    VT_I8 = 20,
    VT_UI8 = 21,
    VT_INT = 22,
    VT_UINT = 23,
    VT_VOID = 24,
    VT_HRESULT = 25,
    VT_PTR = 26,
    VT_SAFEARRAY = 27,
    VT_CARRAY = 28,
    VT_USERDEFINED = 29,
    VT_LPSTR = 30,
    VT_LPWSTR = 31,
    VT_RECORD = 36,
    VT_VECTOR = 0x1000,
    VT_ARRAY = 0x2000,
    VT_BYREF = 0x4000,
    VT_RESERVED = 0x8000,
    VT_TYPEMASK = 0x0fff,
};

union CY {
    struct {
        DWORD Lo;
        LONG Hi;
    } s;
    LONGLONG int64;
};

struct IDispatch;  // declared with the type-library interfaces

struct VARIANT {
    VARTYPE vt;
    WORD wReserved1;
    WORD wReserved2;
    WORD wReserved3;
    union {
        LONGLONG llVal;
        LONG lVal;
        BYTE bVal;
        SHORT iVal;
        FLOAT fltVal;
        DOUBLE dblVal;
        VARIANT_BOOL boolVal;
        SCODE scode;
        CY cyVal;
        DATE date;
        BSTR bstrVal;
        IUnknown* punkVal;
        IDispatch* pdispVal;
        CHAR cVal;
        USHORT uiVal;
        ULONG ulVal;
        ULONGLONG ullVal;
        INT intVal;
        UINT uintVal;
        PVOID byref;
        struct {
            PVOID pvRecord;
            PVOID pRecInfo;
        } brecVal;
    };
};
using VARIANTARG = VARIANT;
using LPVARIANT = VARIANT*;
static_assert(sizeof(VARIANT) == 24, "VARIANT must keep the Windows x64 layout");

#define V_VT(v) ((v)->vt)
#define V_BSTR(v) ((v)->bstrVal)
#define V_I4(v) ((v)->lVal)
#define V_UI4(v) ((v)->ulVal)
#define V_R8(v) ((v)->dblVal)
#define V_BOOL(v) ((v)->boolVal)
#define V_UNKNOWN(v) ((v)->punkVal)

// VariantInit sets VT_EMPTY. VariantClear frees what the variant owns (BSTR,
// one interface reference) and leaves VT_EMPTY; DISP_E_BADVARTYPE for types it
// cannot free, the variant then being left as it was. VariantCopy clears the
// destination first, then deep-copies (new BSTR, AddRef on interfaces);
// E_OUTOFMEMORY if a BSTR cannot be copied (destination left VT_EMPTY).
// VariantCopy with pvargDest == pvargSrc does nothing and returns S_OK. Null
// arguments give E_INVALIDARG.
VORNAPI void WINAPI VariantInit(VARIANTARG* pvarg);
VORNAPI HRESULT WINAPI VariantClear(VARIANTARG* pvarg);
VORNAPI HRESULT WINAPI VariantCopy(VARIANTARG* pvargDest, const VARIANTARG* pvargSrc);

struct SAFEARRAYBOUND {
    ULONG cElements;
    LONG lLbound;
};
