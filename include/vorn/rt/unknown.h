// The base COM interfaces: IUnknown, IClassFactory, the stream interfaces,
// IPersist/IPersistStream and IEnumUnknown, with their standard IIDs and the
// slot orders they have on Windows.
//
// Interfaces are abstract structs of pure virtual methods and nothing else, so
// that their vtables are the same in every module built by the same compiler.
// `VORN_UUIDOF(I)` yields the IID of an interface declared with
// VORN_INTERFACE_IID; `IID_PPV_ARGS(pp)` expands to that IID and `pp` as void**.
#pragma once

#include <type_traits>

#include "vorn/rt/types.h"

#define STDMETHOD(method) virtual HRESULT STDMETHODCALLTYPE method
#define STDMETHOD_(type, method) virtual type STDMETHODCALLTYPE method
#define STDMETHODIMP HRESULT STDMETHODCALLTYPE
#define STDMETHODIMP_(type) type STDMETHODCALLTYPE
#define PURE = 0

namespace vorn {
// Maps an interface type to its IID; specialised by VORN_INTERFACE_IID.
template <class Interface>
struct InterfaceId;
}  // namespace vorn

#define VORN_INTERFACE_IID(Interface, iidConstant)       \
    template <>                                          \
    struct vorn::InterfaceId<Interface> {                \
        static constexpr const IID& value = iidConstant; \
    }
// NOLINTNEXTLINE(bugprone-macro-parentheses): the argument is a type
#define VORN_UUIDOF(Interface) (::vorn::InterfaceId<std::remove_cv_t<Interface>>::value)
#define IID_PPV_ARGS(pp) VORN_UUIDOF(std::remove_cvref_t<decltype(**(pp))>), reinterpret_cast<void**>(pp)

VORN_DEFINE_GUID(IID_IUnknown, 0x00000000, 0x0000, 0x0000, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46);
VORN_DEFINE_GUID(IID_IClassFactory, 0x00000001, 0x0000, 0x0000, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46);
VORN_DEFINE_GUID(IID_ISequentialStream, 0x0c733a30, 0x2a1c, 0x11ce, 0xad, 0xe5, 0x00, 0xaa, 0x00, 0x44, 0x77, 0x3d);
VORN_DEFINE_GUID(IID_IStream, 0x0000000c, 0x0000, 0x0000, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46);
VORN_DEFINE_GUID(IID_IPersist, 0x0000010c, 0x0000, 0x0000, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46);
VORN_DEFINE_GUID(IID_IPersistStream, 0x00000109, 0x0000, 0x0000, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46);
VORN_DEFINE_GUID(IID_IEnumUnknown, 0x00000100, 0x0000, 0x0000, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46);

struct IUnknown {
    STDMETHOD(QueryInterface)(REFIID riid, void** ppvObject) PURE;
    STDMETHOD_(ULONG, AddRef)() PURE;
    STDMETHOD_(ULONG, Release)() PURE;
};
using LPUNKNOWN = IUnknown*;
VORN_INTERFACE_IID(IUnknown, IID_IUnknown);

struct IClassFactory : IUnknown {
    STDMETHOD(CreateInstance)(IUnknown* pUnkOuter, REFIID riid, void** ppvObject) PURE;
    STDMETHOD(LockServer)(BOOL fLock) PURE;
};
VORN_INTERFACE_IID(IClassFactory, IID_IClassFactory);

// Stream seek origins, Stat flags, commit flags and lock types.
enum STREAM_SEEK : DWORD { STREAM_SEEK_SET = 0, STREAM_SEEK_CUR = 1, STREAM_SEEK_END = 2 };
enum STATFLAG : DWORD { STATFLAG_DEFAULT = 0, STATFLAG_NONAME = 1, STATFLAG_NOOPEN = 2 };
enum STGTY : DWORD { STGTY_STORAGE = 1, STGTY_STREAM = 2, STGTY_LOCKBYTES = 3, STGTY_PROPERTY = 4 };
enum STGC : DWORD { STGC_DEFAULT = 0, STGC_OVERWRITE = 1, STGC_ONLYIFCURRENT = 2 };

// Storage access modes (grfMode).
#define STGM_READ 0x00000000L
#define STGM_WRITE 0x00000001L
#define STGM_READWRITE 0x00000002L
#define STGM_SHARE_DENY_NONE 0x00000040L
#define STGM_SHARE_DENY_READ 0x00000030L
#define STGM_SHARE_DENY_WRITE 0x00000020L
#define STGM_SHARE_EXCLUSIVE 0x00000010L
#define STGM_CREATE 0x00001000L
#define STGM_FAILIFTHERE 0x00000000L

struct STATSTG {
    LPOLESTR pwcsName;  // CoTaskMem-allocated; null with STATFLAG_NONAME
    DWORD type;         // STGTY_*
    ULARGE_INTEGER cbSize;
    FILETIME mtime;
    FILETIME ctime;
    FILETIME atime;
    DWORD grfMode;
    DWORD grfLocksSupported;
    CLSID clsid;
    DWORD grfStateBits;
    DWORD reserved;
};

struct ISequentialStream : IUnknown {
    STDMETHOD(Read)(void* pv, ULONG cb, ULONG* pcbRead) PURE;
    STDMETHOD(Write)(const void* pv, ULONG cb, ULONG* pcbWritten) PURE;
};
VORN_INTERFACE_IID(ISequentialStream, IID_ISequentialStream);

struct IStream : ISequentialStream {
    STDMETHOD(Seek)(LARGE_INTEGER dlibMove, DWORD dwOrigin, ULARGE_INTEGER* plibNewPosition) PURE;
    STDMETHOD(SetSize)(ULARGE_INTEGER libNewSize) PURE;
    STDMETHOD(CopyTo)(IStream* pstm, ULARGE_INTEGER cb, ULARGE_INTEGER* pcbRead, ULARGE_INTEGER* pcbWritten) PURE;
    STDMETHOD(Commit)(DWORD grfCommitFlags) PURE;
    STDMETHOD(Revert)() PURE;
    STDMETHOD(LockRegion)(ULARGE_INTEGER libOffset, ULARGE_INTEGER cb, DWORD dwLockType) PURE;
    STDMETHOD(UnlockRegion)(ULARGE_INTEGER libOffset, ULARGE_INTEGER cb, DWORD dwLockType) PURE;
    STDMETHOD(Stat)(STATSTG* pstatstg, DWORD grfStatFlag) PURE;
    STDMETHOD(Clone)(IStream** ppstm) PURE;
};
using LPSTREAM = IStream*;
VORN_INTERFACE_IID(IStream, IID_IStream);

struct IPersist : IUnknown {
    STDMETHOD(GetClassID)(CLSID* pClassID) PURE;
};
VORN_INTERFACE_IID(IPersist, IID_IPersist);

struct IPersistStream : IPersist {
    STDMETHOD(IsDirty)() PURE;
    STDMETHOD(Load)(IStream* pStm) PURE;
    STDMETHOD(Save)(IStream* pStm, BOOL fClearDirty) PURE;
    STDMETHOD(GetSizeMax)(ULARGE_INTEGER* pcbSize) PURE;
};
VORN_INTERFACE_IID(IPersistStream, IID_IPersistStream);

struct IEnumUnknown : IUnknown {
    STDMETHOD(Next)(ULONG celt, IUnknown** rgelt, ULONG* pceltFetched) PURE;
    STDMETHOD(Skip)(ULONG celt) PURE;
    STDMETHOD(Reset)() PURE;
    STDMETHOD(Clone)(IEnumUnknown** ppenum) PURE;
};
VORN_INTERFACE_IID(IEnumUnknown, IID_IEnumUnknown);

// Creates an IEnumUnknown over a snapshot of `count` objects. Each non-null
// object gets one reference, released when the last clone goes away.
// E_POINTER if ppEnum is null, E_OUTOFMEMORY.
VORNAPI HRESULT WINAPI VornCreateEnumUnknown(IUnknown* const* objects, ULONG count, IEnumUnknown** ppEnum);
