// Type libraries: ITypeLib and ITypeInfo with the Windows slot orders and
// descriptor structures, and loading and registering a library.
//
// The runtime reads type libraries in its own compact binary form (written by
// the component's build from its schema) rather than the Windows format; the
// interfaces and structures a client sees are the Windows ones. What is
// answered and what returns E_NOTIMPL is listed in docs/platform.md.
#pragma once

#include "vorn/rt/oleauto.h"

using HREFTYPE = DWORD;

enum TYPEKIND : INT {
    TKIND_ENUM = 0,
    TKIND_RECORD,
    TKIND_MODULE,
    TKIND_INTERFACE,
    TKIND_DISPATCH,
    TKIND_COCLASS,
    TKIND_ALIAS,
    TKIND_UNION,
    TKIND_MAX
};
enum SYSKIND : INT { SYS_WIN16 = 0, SYS_WIN32, SYS_MAC, SYS_WIN64 };
enum FUNCKIND : INT { FUNC_VIRTUAL = 0, FUNC_PUREVIRTUAL, FUNC_NONVIRTUAL, FUNC_STATIC, FUNC_DISPATCH };
enum INVOKEKIND : INT { INVOKE_FUNC = 1, INVOKE_PROPERTYGET = 2, INVOKE_PROPERTYPUT = 4, INVOKE_PROPERTYPUTREF = 8 };
enum CALLCONV : INT {
    CC_FASTCALL = 0,
    CC_CDECL = 1,
    CC_MSCPASCAL,
    CC_PASCAL = CC_MSCPASCAL,
    CC_MACPASCAL,
    CC_STDCALL,
    CC_FPFASTCALL,
    CC_SYSCALL,
    CC_MPWCDECL,
    CC_MPWPASCAL,
    CC_MAX
};
enum VARKIND : INT { VAR_PERINSTANCE = 0, VAR_STATIC, VAR_CONST, VAR_DISPATCH };

#define MEMBERID_NIL (-1)
#define PARAMFLAG_NONE 0x00
#define PARAMFLAG_FIN 0x01
#define PARAMFLAG_FOUT 0x02
#define PARAMFLAG_FLCID 0x04
#define PARAMFLAG_FRETVAL 0x08
#define PARAMFLAG_FOPT 0x10
#define TYPEFLAG_FDUAL 0x40
#define TYPEFLAG_FOLEAUTOMATION 0x100
#define LIBFLAG_FHASDISKIMAGE 0x08

struct ARRAYDESC;
struct TYPEDESC {
    union {
        TYPEDESC* lptdesc;   // VT_PTR, VT_SAFEARRAY
        ARRAYDESC* lpadesc;  // VT_CARRAY
        HREFTYPE hreftype;   // VT_USERDEFINED
    };
    VARTYPE vt;
};

struct IDLDESC {
    ULONG_PTR dwReserved;
    USHORT wIDLFlags;
};
struct PARAMDESCEX {
    ULONG cBytes;
    VARIANTARG varDefaultValue;
};
struct PARAMDESC {
    PARAMDESCEX* pparamdescex;
    USHORT wParamFlags;
};
struct ELEMDESC {
    TYPEDESC tdesc;
    union {
        IDLDESC idldesc;
        PARAMDESC paramdesc;
    };
};

struct TYPEATTR {
    GUID guid;
    LCID lcid;
    DWORD dwReserved;
    MEMBERID memidConstructor;
    MEMBERID memidDestructor;
    LPOLESTR lpstrSchema;
    ULONG cbSizeInstance;
    TYPEKIND typekind;
    WORD cFuncs;
    WORD cVars;
    WORD cImplTypes;
    WORD cbSizeVft;
    WORD cbAlignment;
    WORD wTypeFlags;
    WORD wMajorVerNum;
    WORD wMinorVerNum;
    TYPEDESC tdescAlias;
    IDLDESC idldescType;
};

struct FUNCDESC {
    MEMBERID memid;
    SCODE* lprgscode;
    ELEMDESC* lprgelemdescParam;
    FUNCKIND funckind;
    INVOKEKIND invkind;
    CALLCONV callconv;
    SHORT cParams;
    SHORT cParamsOpt;
    SHORT oVft;
    SHORT cScodes;
    ELEMDESC elemdescFunc;
    WORD wFuncFlags;
};

struct VARDESC {
    MEMBERID memid;
    LPOLESTR lpstrSchema;
    union {
        ULONG oInst;
        VARIANT* lpvarValue;  // VAR_CONST: the constant (enumeration values)
    };
    ELEMDESC elemdescVar;
    WORD wVarFlags;
    VARKIND varkind;
};

struct TLIBATTR {
    GUID guid;
    LCID lcid;
    SYSKIND syskind;
    WORD wMajorVerNum;
    WORD wMinorVerNum;
    WORD wLibFlags;
};

struct DISPPARAMS {
    VARIANTARG* rgvarg;
    DISPID* rgdispidNamedArgs;
    UINT cArgs;
    UINT cNamedArgs;
};

struct EXCEPINFO {
    WORD wCode;
    WORD wReserved;
    BSTR bstrSource;
    BSTR bstrDescription;
    BSTR bstrHelpFile;
    DWORD dwHelpContext;
    PVOID pvReserved;
    HRESULT(STDMETHODCALLTYPE* pfnDeferredFillIn)(EXCEPINFO*);
    SCODE scode;
};

VORN_DEFINE_GUID(IID_ITypeLib, 0x00020402, 0x0000, 0x0000, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46);
VORN_DEFINE_GUID(IID_ITypeInfo, 0x00020401, 0x0000, 0x0000, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46);
VORN_DEFINE_GUID(IID_ITypeComp, 0x00020403, 0x0000, 0x0000, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46);

struct ITypeLib;
struct ITypeComp;

struct ITypeInfo : IUnknown {
    STDMETHOD(GetTypeAttr)(TYPEATTR** ppTypeAttr) PURE;
    STDMETHOD(GetTypeComp)(ITypeComp** ppTComp) PURE;
    STDMETHOD(GetFuncDesc)(UINT index, FUNCDESC** ppFuncDesc) PURE;
    STDMETHOD(GetVarDesc)(UINT index, VARDESC** ppVarDesc) PURE;
    STDMETHOD(GetNames)(MEMBERID memid, BSTR* rgBstrNames, UINT cMaxNames, UINT* pcNames) PURE;
    STDMETHOD(GetRefTypeOfImplType)(UINT index, HREFTYPE* pRefType) PURE;
    STDMETHOD(GetImplTypeFlags)(UINT index, INT* pImplTypeFlags) PURE;
    STDMETHOD(GetIDsOfNames)(LPOLESTR* rgszNames, UINT cNames, MEMBERID* pMemId) PURE;
    STDMETHOD(Invoke)
    (PVOID pvInstance, MEMBERID memid, WORD wFlags, DISPPARAMS* pDispParams, VARIANT* pVarResult, EXCEPINFO* pExcepInfo,
     UINT* puArgErr) PURE;
    STDMETHOD(GetDocumentation)
    (MEMBERID memid, BSTR* pBstrName, BSTR* pBstrDocString, DWORD* pdwHelpContext, BSTR* pBstrHelpFile) PURE;
    STDMETHOD(GetDllEntry)
    (MEMBERID memid, INVOKEKIND invKind, BSTR* pBstrDllName, BSTR* pBstrName, WORD* pwOrdinal) PURE;
    STDMETHOD(GetRefTypeInfo)(HREFTYPE hRefType, ITypeInfo** ppTInfo) PURE;
    STDMETHOD(AddressOfMember)(MEMBERID memid, INVOKEKIND invKind, PVOID* ppv) PURE;
    STDMETHOD(CreateInstance)(IUnknown* pUnkOuter, REFIID riid, PVOID* ppvObj) PURE;
    STDMETHOD(GetMops)(MEMBERID memid, BSTR* pBstrMops) PURE;
    STDMETHOD(GetContainingTypeLib)(ITypeLib** ppTLib, UINT* pIndex) PURE;
    STDMETHOD_(void, ReleaseTypeAttr)(TYPEATTR* pTypeAttr) PURE;
    STDMETHOD_(void, ReleaseFuncDesc)(FUNCDESC* pFuncDesc) PURE;
    STDMETHOD_(void, ReleaseVarDesc)(VARDESC* pVarDesc) PURE;
};
VORN_INTERFACE_IID(ITypeInfo, IID_ITypeInfo);

struct ITypeLib : IUnknown {
    STDMETHOD_(UINT, GetTypeInfoCount)() PURE;
    STDMETHOD(GetTypeInfo)(UINT index, ITypeInfo** ppTInfo) PURE;
    STDMETHOD(GetTypeInfoType)(UINT index, TYPEKIND* pTKind) PURE;
    STDMETHOD(GetTypeInfoOfGuid)(REFGUID guid, ITypeInfo** ppTinfo) PURE;
    STDMETHOD(GetLibAttr)(TLIBATTR** ppTLibAttr) PURE;
    STDMETHOD(GetTypeComp)(ITypeComp** ppTComp) PURE;
    // index -1 documents the library itself.
    STDMETHOD(GetDocumentation)
    (INT index, BSTR* pBstrName, BSTR* pBstrDocString, DWORD* pdwHelpContext, BSTR* pBstrHelpFile) PURE;
    STDMETHOD(IsName)(LPOLESTR szNameBuf, ULONG lHashVal, BOOL* pfName) PURE;
    STDMETHOD(FindName)
    (LPOLESTR szNameBuf, ULONG lHashVal, ITypeInfo** ppTInfo, MEMBERID* rgMemId, USHORT* pcFound) PURE;
    STDMETHOD_(void, ReleaseTLibAttr)(TLIBATTR* pTLibAttr) PURE;
};
VORN_INTERFACE_IID(ITypeLib, IID_ITypeLib);
using LPTYPELIB = ITypeLib*;

// ---------------------------------------------------------------------------
// Loading and registering type libraries
//
// A type library file is either the runtime's binary form (written by the
// component's build) or a module that carries it as its resource TYPELIB 1,
// read from the file without loading the module. The library a client gets
// answers GetTypeInfoCount, GetTypeInfo, GetTypeInfoType, GetTypeInfoOfGuid,
// GetLibAttr, GetDocumentation, IsName and FindName; its type infos answer
// GetTypeAttr, GetFuncDesc, GetVarDesc, GetNames, GetDocumentation,
// GetRefTypeOfImplType, GetImplTypeFlags, GetIDsOfNames, GetRefTypeInfo,
// GetContainingTypeLib and (for a class) CreateInstance. The other methods
// return E_NOTIMPL; see docs/platform.md.
// ---------------------------------------------------------------------------

#ifndef TYPE_E_REGISTRYACCESS
#define TYPE_E_REGISTRYACCESS _HRESULT_TYPEDEF_(0x8002801CL)
#endif
#ifndef TYPE_E_WRONGTYPEKIND
#define TYPE_E_WRONGTYPEKIND _HRESULT_TYPEDEF_(0x8002802AL)
#endif
#define IMPLTYPEFLAG_FDEFAULT 0x1

// Loads the library in szFile (a Windows-form path is mapped as in
// vorn/rt/file.h). S_OK; TYPE_E_CANTLOADLIBRARY for a file that is missing,
// unreadable, damaged or a module without a TYPELIB resource (the failure text,
// vorn/rt/diagnostic.h, says which); E_INVALIDARG for null arguments;
// E_OUTOFMEMORY. LoadTypeLib never registers the library.
VORNAPI HRESULT WINAPI LoadTypeLib(LPCOLESTR szFile, ITypeLib** pptlib);
// Writes HKEY_CLASSES_ROOT\TypeLib\{LIBID}\<major.minor> (default value: the
// library's documentation string, else its name; FLAGS; HELPDIR: szHelpDir or
// the file's directory; <lcid>\win64: szFullPath) and, for each interface
// flagged oleautomation or dual, Interface\{IID} with its name,
// ProxyStubClsid32 and TypeLib. All keys are written in one step. S_OK;
// E_INVALIDARG for a null library or path; registry failures as
// REGDB_E_READREGDB / REGDB_E_WRITEREGDB / HRESULT_FROM_WIN32.
VORNAPI HRESULT WINAPI RegisterTypeLib(ITypeLib* ptlib, LPCOLESTR szFullPath, LPCOLESTR szHelpDir);
// Removes what RegisterTypeLib wrote for that version, locale and system
// kind; the version key goes with its last locale, the library key with its
// last version, and the Interface keys of the library's version with the
// version key. TYPE_E_REGISTRYACCESS when that registration does not exist.
VORNAPI HRESULT WINAPI UnRegisterTypeLib(REFGUID libID, WORD wVerMajor, WORD wVerMinor, LCID lcid, SYSKIND syskind);
