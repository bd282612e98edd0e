// The database component's core interfaces: the database object (IDatabase),
// the node interface every object of the tree answers (IDatabaseObject), the
// group interface (IGroup) and the client-implemented notification sink
// (IDBNotification), with the records and the enumeration of the bulk
// operations and the class identifier of the database object.
//
// Slot orders are those of the type library and must never change: clients
// built against an older header call through the same vtable positions.
// Properties are get_X / put_X methods; every method returns an HRESULT.
//
// The typed group interfaces, IRoot among them, and the value interfaces of
// the parameters (IParameterReal, ...) are declared in their own headers
// (vorn/groups.h, vorn/parameter.h); the IIDs of the value interfaces are
// here, for GetObjects and GetParameter.
#pragma once

#include "vorn/platform.h"

struct ITypeLib;
struct IRoot;
struct IParameterInteger;
struct IParameterReal;
struct IParameterBoolean;
struct IParameterString;

// The class identifier of the database object ("Zelmwerk.VORN.Database").
VORN_DEFINE_GUID(CLSID_Database, 0xb5027613, 0xe275, 0x433f, 0x89, 0xb3, 0x3f, 0xfa, 0x8a, 0x35, 0x0f, 0xa4);

VORN_DEFINE_GUID(IID_IParameter, 0xbeb2e213, 0x9077, 0x47e2, 0xad, 0x41, 0xe6, 0x13, 0x85, 0xc7, 0xd3, 0x23);
VORN_DEFINE_GUID(IID_IParameterBoolean, 0x9fa58041, 0xef83, 0x4783, 0xb9, 0xf4, 0xb8, 0xea, 0x4e, 0x19, 0x56, 0xe0);
VORN_DEFINE_GUID(IID_IParameterInteger, 0x58896d4d, 0x5849, 0x420c, 0xba, 0x4d, 0xd8, 0x23, 0xfd, 0x30, 0x99, 0x39);
VORN_DEFINE_GUID(IID_IParameterReal, 0xbd922039, 0x73ee, 0x4acd, 0x9c, 0x45, 0xee, 0x06, 0x36, 0xdf, 0x28, 0x10);
VORN_DEFINE_GUID(IID_IParameterString, 0x3441ac78, 0x3467, 0x4078, 0xa8, 0x75, 0x5f, 0x7f, 0x57, 0x02, 0x7b, 0x38);
VORN_DEFINE_GUID(IID_IParameterIntegerArray, 0x21cc649f, 0x4bfb, 0x4276, 0x86, 0x3c, 0xe3, 0x0c, 0x6c, 0xa5, 0xdd,
                 0x7b);
VORN_DEFINE_GUID(IID_IParameterRealArray, 0x91b1f8f0, 0x3446, 0x45e6, 0xbd, 0x0a, 0xc9, 0xa7, 0xd4, 0x55, 0x42, 0x44);
VORN_DEFINE_GUID(IID_IParameterBuffer, 0x07056662, 0x023d, 0x4fda, 0xb2, 0x21, 0x92, 0x79, 0x35, 0x3b, 0xe4, 0x16);

VORN_DEFINE_GUID(IID_IDBNotification, 0x4ec2914c, 0xad9d, 0x424a, 0x88, 0x11, 0xec, 0xe0, 0x21, 0xd4, 0x22, 0x61);
VORN_DEFINE_GUID(IID_IDatabaseObject, 0x039728e0, 0x6ceb, 0x45c6, 0x96, 0x63, 0x12, 0xaf, 0xee, 0xf1, 0xc1, 0x3d);
VORN_DEFINE_GUID(IID_IGroup, 0xa97864f4, 0x45de, 0x48a9, 0xa7, 0x2a, 0xdd, 0xd4, 0x40, 0x89, 0x6b, 0xa8);
VORN_DEFINE_GUID(IID_IDatabase, 0xdf83bd1d, 0x1d39, 0x4137, 0x9d, 0xdb, 0x9f, 0xb5, 0x52, 0x71, 0x65, 0x9a);

// The class of value interface asked for by one request of
// IDatabase::GetObjects.
enum PARAMETER_CLASS : LONG { ePC_INTEGER = 0, ePC_REAL = 1, ePC_BOOLEAN = 2, ePC_STRING = 3 };

// One request of IDatabase::GetObjects: the full name of a parameter and the
// value interface wanted.
struct SGetObjectRequestData {
    LPWSTR bszObjectName;
    PARAMETER_CLASS eParamClass;
};

// One result of IDatabase::GetObjects: the field matching the request's class
// holds the interface (one reference, released by the caller); the others are
// null.
struct SGetObjectData {
    IParameterReal* pParamReal;
    IParameterInteger* pParamInteger;
    IParameterBoolean* pParamBoolean;
    IParameterString* pParamString;
};

struct IDBNotification;

// One record of IDatabase::RegisterObjects / UnregisterObjects: a tree object
// and the sink to (un)register on it.
struct SObjectData {
    IUnknown* pParamUnknown;
    IDBNotification* pNotification;
};

// The notification sink a client implements and registers on any node. The
// database calls CallbackWithData, with the object that changed and the data
// of the node the sink is registered on, and GetCallbackFileName when it
// drops a queued notification; it never calls Callback.
struct IDBNotification : IUnknown {
    STDMETHOD(Callback)(IUnknown* pParameterUnknown) PURE;
    STDMETHOD(CallbackWithData)(IUnknown* pParameterUnknown, VARIANT vData) PURE;
    STDMETHOD(GetCallbackFileName)(BSTR* bstrFileName) PURE;
};
VORN_INTERFACE_IID(IDBNotification, IID_IDBNotification);

// Every node of the tree, group or parameter.
struct IDatabaseObject : IUnknown {
    // The node's own name; an array element is "Name[index]". A new BSTR.
    STDMETHOD(get_Name)(BSTR* pbstrName) PURE;
    // The names below the root down to this node, joined by "."; empty for
    // the root. A new BSTR.
    STDMETHOD(get_FullName)(BSTR* pbstrFullName) PURE;
    // The parent with one reference; the root has none: null and S_FALSE.
    STDMETHOD(get_Parent)(IDatabaseObject** ppParent) PURE;
    // A snapshot of the objects that depend on this one.
    STDMETHOD(EnumDependencies)(IEnumUnknown** ppEnum) PURE;
    // Sinks served through the notification thread: S_OK, E_INVALIDARG for
    // null, E_FAIL when already registered, E_OUTOFMEMORY.
    STDMETHOD(RegisterNotification)(IDBNotification* pNotification) PURE;
    // S_OK (pending notifications of the sink about this node are dropped),
    // S_FALSE when not registered, E_INVALIDARG for null.
    STDMETHOD(UnregisterNotification)(IDBNotification* pNotification) PURE;
    // Sinks called at once on the writing thread; results as above.
    STDMETHOD(RegisterImmediateNotification)(IDBNotification* pNotification) PURE;
    STDMETHOD(UnregisterImmediateNotification)(IDBNotification* pNotification) PURE;
    // Back to the defaults (a group: everything below it).
    STDMETHOD(Reset)() PURE;
    // Reset, then tell the objects that depend on this one.
    STDMETHOD(ResetPutValue)() PURE;
    // Drops the queued notifications of a sink (about pUnknown, or about any
    // object when it is null) and reports how many; the caller owes that
    // many releases of the sink. A null sink: S_FALSE.
    STDMETHOD(CleanNotificationQueue)(IDBNotification* pNotification, IUnknown* pUnknown, ULONG* pdwNumReleases) PURE;
    // VARIANT_TRUE when no notification about this node or its dependants is
    // pending.
    STDMETHOD(GetCallbackFinishStatus)(VARIANT_BOOL* pvbComplete) PURE;
    // The object attached to this node, no reference added.
    STDMETHOD(GetThirdPartyUnknown)(IUnknown** ppUnknown) PURE;
    // The node and everything below it as a settings stream.
    STDMETHOD(Save)(IStream* pStm) PURE;
    STDMETHOD(Load)(IStream* pStm) PURE;
};
VORN_INTERFACE_IID(IDatabaseObject, IID_IDatabaseObject);

// Every group; the typed group interfaces (IRoot, ...) derive from it.
struct IGroup : IDatabaseObject {
    // A snapshot of the group's children in declaration order.
    STDMETHOD(EnumObjects)(IEnumUnknown** ppEnum) PURE;
};
VORN_INTERFACE_IID(IGroup, IID_IGroup);

// The database object: the client's entry point.
struct IDatabase : IUnknown {
    // The root group with one reference.
    STDMETHOD(get_Root)(IRoot** ppRoot) PURE;
    // The object with this exact full name (one reference), or E_NOINTERFACE
    // and null when the name's bucket of the name map is empty.
    STDMETHOD(GetObject)(LPWSTR pkszObjectName, IUnknown** ppUnknown) PURE;
    // The type library (null if none was loaded); E_POINTER for a null
    // argument.
    STDMETHOD(GetTypeLib)(ITypeLib** ppTypeLib) PURE;
    // Resets the whole tree; always S_OK.
    STDMETHOD(Reset)() PURE;
    // Waits until everything queued before the call was delivered or
    // dropped: S_OK, E_ABORT on timeout (ms; INFINITE waits for ever).
    STDMETHOD(WaitForNotifications)(ULONG udwTimeout) PURE;
    // GetParameter for each request in turn; the first failure stops.
    STDMETHOD(GetObjects)
    (ULONG udwCount, SGetObjectRequestData* paObjectRequestData, SGetObjectData* paObjectData) PURE;
    // The object with this full name, queried for riid.
    STDMETHOD(GetParameter)(LPWSTR pkszObjectName, REFIID riid, void** ppv) PURE;
    // Registers each record's sink for queued notification on its object;
    // with vbKeepData == VARIANT_TRUE keeps a copy under a new cookie.
    STDMETHOD(RegisterObjects)
    (ULONG udwCount, SObjectData* paParameterObjects, VARIANT_BOOL vbKeepData, ULONG* dwCookie) PURE;
    STDMETHOD(UnregisterObjects)(ULONG udwCount, SObjectData* paParameterObjects) PURE;
    // The cookie operations return S_FALSE, also on success.
    STDMETHOD(RegisterObjectsViaCookie)(ULONG dwCookie) PURE;
    STDMETHOD(UnregisterObjectsViaCookie)(ULONG dwCookie) PURE;
    STDMETHOD(ReleaseObjectsViaCookie)(ULONG dwCookie) PURE;
    // Records in the notification queue (a snapshot).
    STDMETHOD(GetQueueSize)(ULONG* pVal) PURE;
    STDMETHOD(ClearCallbackQueue)() PURE;
    // S_OK when the stream starts with a settings stream, else E_FAIL; the
    // position is left as it was.
    STDMETHOD(PreLoad)(IStream* pstm) PURE;
    STDMETHOD(SuppressNotifications)() PURE;
    STDMETHOD(RestartNotifications)() PURE;
    // Stores the application's interface (one reference; null allowed).
    STDMETHOD(SetLIUnknown)(IUnknown* pLI) PURE;
    STDMETHOD(ReleaseLIUnknown)() PURE;
    // Does nothing: the stored interface is not handed out here.
    STDMETHOD(GetAppLIUnk)(IUnknown** ppLI) PURE;
    // Always VARIANT_FALSE.
    STDMETHOD(IsHalvo)(VARIANT_BOOL* pvbResult) PURE;
};
VORN_INTERFACE_IID(IDatabase, IID_IDatabase);

VORN_DEFINE_GUID(IID_IDatabaseStatistics, 0x2647a1fb, 0xef92, 0x41a0, 0x96, 0xd8, 0x37, 0xa9, 0xe3, 0x90, 0x35, 0x66);

// Figures of the notification queue.
struct SQueueStatistics {
    ULONG udwDepth;          // records queued now (GetQueueSize)
    ULONG udwHighWater;      // the most records queued at once since the queue started
    ULONGLONG uqwCoalesced;  // records of sinks over their backlog limit merged into a queued record
    ULONG udwBacklogLimit;   // records of one sink in the queue before coalescing starts
};

// Answered by the database object beside IDatabase: how the notification
// queue is doing. A sink that falls behind its writers by more than the
// backlog limit has its further records about an object merged into one
// still queued about the same object with the same data; it then learns of
// the latest change when that record is delivered.
struct IDatabaseStatistics : IUnknown {
    // S_OK; E_POINTER for null. All zero while no notification thread runs.
    STDMETHOD(GetQueueStatistics)(SQueueStatistics* pStatistics) PURE;
};
VORN_INTERFACE_IID(IDatabaseStatistics, IID_IDatabaseStatistics);
