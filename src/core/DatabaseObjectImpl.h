// CDatabaseObjectImpl: the base of every node of the database tree, group or
// parameter. It implements IDatabaseObject (naming, parent link, dependants,
// notification sinks, reset and persistence hooks) and the change path that
// serves the sinks; the concrete COM class supplies the three IUnknown slots.
//
// Nodes live inside the database object (members by value, built by their
// owner's constructor, named by SetName) and are not reference-counted for
// their lifetime: AddRef and Release of a node are forwarded to the object
// that owns the tree (SetOwner on the root), so a client's reference to any
// node keeps the database alive; a tree without owner counts nothing. The
// IUnknown a node hands out as its identity (GetObject, notifications,
// enumerators) is the IDatabaseObject at the start of this class.
//
// Every node answers ISupportErrorInfo and reports its failures as error
// information (core/ComError.h): the source is its full name ("Root" for the
// root), the GUID its interface's IID (the concrete classes say which).
//
// Virtual slots after IDatabaseObject's, in this order (the order is part of
// the binary layout the schema and parameter classes build on): destructor,
// AddDependant, PostConstruct, PostConstruct2, Recalculate,
// OnDependencyChanged, LoadPayload, SavePayload, PayloadSize.
//
// Persistence: the settings stream is the stream layer's (src/stream), which
// sits above this one. A node here has no record: Save and Load fail with
// E_NOTIMPL, and the payload hooks, which the stream layer calls with its
// CDataStream, read and write nothing. The node classes above (parameters,
// the stream layer's groups) override them.
//
// Locking: the sink lists change only under the database write lock, and the
// change path (NotifyChange) walks them with the database lock held by the
// caller, as every writer holds it. Dependants are added during construction
// and PostConstruct, before any client can reach the tree.
#pragma once

#include <string>

#include "core/ComError.h"
#include "core/PointerList.h"
#include "vorn/database.h"

namespace vorn {

class CDataStream;  // the settings stream reader/writer (src/stream); never used here

// What a node's GetCallbackFinishStatus compares against when nothing is
// pending: the node counts as finished when the source's current count equals
// the count given with SetFinishStatus.
class CFinishStatusSource {
public:
    virtual DWORD GetFinishCount() = 0;

protected:
    ~CFinishStatusSource() = default;
};

class CGroupImpl;

class CDatabaseObjectImpl : public IDatabaseObject, public CErrorInfoSource {
public:
    CDatabaseObjectImpl(const CDatabaseObjectImpl&) = delete;
    CDatabaseObjectImpl& operator=(const CDatabaseObjectImpl&) = delete;

    // -- IUnknown of every face, ISupportErrorInfo's too: the concrete class
    //    supplies it (see TreeAddRef, TreeRelease, QueryNodeInterface) -------
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override = 0;
    STDMETHODIMP_(ULONG) AddRef() override = 0;
    STDMETHODIMP_(ULONG) Release() override = 0;

    // -- IDatabaseObject ---------------------------------------------------
    // The base name, or "%s[%d]" with the index for an array element, or an
    // empty string without a name. The indexed text is formatted in one
    // process-wide buffer shared without a lock: threads calling at once may
    // see each other's text (clients rely on nothing better). S_OK;
    // E_POINTER for a null argument; E_OUTOFMEMORY.
    STDMETHODIMP get_Name(BSTR* pbstrName) override;
    // The names from below the root down to this node joined by "."; empty
    // for the root. S_OK; E_POINTER; E_OUTOFMEMORY.
    STDMETHODIMP get_FullName(BSTR* pbstrFullName) override;
    // The parent with one reference (S_OK), or null and S_FALSE for the root.
    STDMETHODIMP get_Parent(IDatabaseObject** ppParent) override;
    // Under the read lock, an enumerator over a snapshot of the dependants.
    STDMETHODIMP EnumDependencies(IEnumUnknown** ppEnum) override;
    // Under the write lock: S_OK (one reference added), E_INVALIDARG (null),
    // E_FAIL (already registered), E_OUTOFMEMORY.
    STDMETHODIMP RegisterNotification(IDBNotification* pNotification) override;
    // Under the write lock: S_OK (the list's reference released, and the
    // sink's records about this node still queued dropped and their
    // references released), S_FALSE (not registered), E_INVALIDARG,
    // E_OUTOFMEMORY, E_FAIL.
    STDMETHODIMP UnregisterNotification(IDBNotification* pNotification) override;
    STDMETHODIMP RegisterImmediateNotification(IDBNotification* pNotification) override;
    STDMETHODIMP UnregisterImmediateNotification(IDBNotification* pNotification) override;
    // Reset stays abstract: groups recurse, parameters restore defaults.
    // Under the write lock: Reset, then PropagateChange. Reset's failure is
    // returned as it is.
    STDMETHODIMP ResetPutValue() override;
    // S_FALSE for a null sink; else drops the sink's queued records about
    // pUnknown (any object when null), writes their number to
    // *pdwNumReleases (if given) and returns S_OK: the caller owes that many
    // releases of the sink.
    STDMETHODIMP CleanNotificationQueue(IDBNotification* pNotification, IUnknown* pUnknown,
                                        ULONG* pdwNumReleases) override;
    // VARIANT_FALSE while records about this node, its attached object or a
    // dependant (or the dependant's attached object) are queued; otherwise
    // VARIANT_TRUE, unless a finish-status source reports another count.
    // Returns the last result of the walk over the dependants (S_OK).
    STDMETHODIMP GetCallbackFinishStatus(VARIANT_BOOL* pvbComplete) override;
    // The attached object, no reference added. S_OK; E_POINTER.
    STDMETHODIMP GetThirdPartyUnknown(IUnknown** ppUnknown) override;
    // Settings stream (stream/DataStream.h). Save: under the read
    // lock, the stream mark and this node's record. Load: under the write
    // lock, E_FAIL for another stream mark, else the record; S_OK also when
    // the record is another node's (nothing changes then). E_POINTER for a
    // null stream; otherwise the HRESULT of whatever failed, the tree left as
    // far as the load got.
    STDMETHODIMP Save(IStream* pStm) override;
    STDMETHODIMP Load(IStream* pStm) override;

    // -- Internal virtual operations ---------------------------------------
    virtual ~CDatabaseObjectImpl();
    // Appends to the dependants: S_OK, E_INVALIDARG (null), E_FAIL
    // (already listed), E_OUTOFMEMORY.
    virtual HRESULT AddDependant(CDatabaseObjectImpl* object);
    // Broadcast over the tree once after construction, before the first
    // reset: rule classes look up and bind the objects they work with.
    virtual void PostConstruct() = 0;
    // Broadcast right after PostConstruct has reached every node: a second
    // phase for work that needs every binding of the first in place.
    virtual void PostConstruct2() = 0;
    // This node as a group, or null: the tree's lookups ask it at every step,
    // and a virtual call costs a fraction of a dynamic_cast.
    virtual CGroupImpl* AsGroup() noexcept { return nullptr; }
    // Derives this node's state from `source`. Does nothing here.
    virtual void Recalculate(CDatabaseObjectImpl* source);
    // A node this one depends on changed: Recalculate(source), then true
    // (the change travels on).
    virtual bool OnDependencyChanged(CDatabaseObjectImpl* source);
    // Settings stream payload hooks: nothing to read (true), nothing to
    // write, size 0.
    virtual bool LoadPayload(CDataStream& stream);
    virtual void SavePayload(CDataStream& stream);
    virtual DWORD PayloadSize();

    // -- Non-virtual operations --------------------------------------------
    // Called by the owner's constructor for each member. `name` must outlive
    // the node (a literal); index and count are -1 unless the node is one of
    // an array of like objects; parent is null only for the root.
    void SetName(const char* name, LONG index, LONG count, CDatabaseObjectImpl* parent) noexcept;
    // Runs the change path for this node: unless there is no notification
    // thread or notifications are suppressed, every queued sink on this node
    // and on each ancestor gets a record about this node with the data of
    // the node it is registered on, and every immediate sink is called at
    // once, under the notification critical section. The caller holds the
    // database lock. Throws ComError / bad_alloc when a record cannot be
    // queued (the sinks served so far keep their records).
    void NotifyChange();
    // Dependency propagation after a change of this node: depth first over
    // the dependants of this node and of each ancestor, each visited at most
    // once (OnDependencyChanged; a true result carries on from that
    // dependant), then Recalculate on the secondary dependants of this node
    // and each ancestor not yet visited. The caller holds the write lock.
    void PropagateChange();

    // Removal from the dependants: S_OK, S_FALSE (not listed),
    // E_INVALIDARG, E_OUTOFMEMORY, E_FAIL. The secondary list (objects only
    // recalculated, never propagating further) has the same pair.
    HRESULT RemoveDependant(CDatabaseObjectImpl* object);
    HRESULT AddSecondaryDependant(CDatabaseObjectImpl* object);
    HRESULT RemoveSecondaryDependant(CDatabaseObjectImpl* object);

    // The IUnknown clients see for this node.
    IUnknown* Identity() noexcept { return static_cast<IDatabaseObject*>(this); }
    // Narrow texts of the name and the full name (composed locally, not in
    // the shared buffer of get_Name).
    std::string Name() const;
    std::string FullName() const;
    // The same in UTF-16, appended to `out` without a narrow copy on the way
    // (the names of the tree are ASCII identifiers).
    std::u16string FullNameW() const;
    void AppendName(std::u16string& out) const;
    void AppendFullName(std::u16string& out) const;

    const char* BaseName() const noexcept { return name_; }
    LONG Index() const noexcept { return index_; }
    LONG Count() const noexcept { return count_; }
    CDatabaseObjectImpl* Parent() const noexcept { return parent_; }
    const CTypedPointerList<CDatabaseObjectImpl>& Dependants() const noexcept { return dependants_; }
    const CTypedPointerList<CDatabaseObjectImpl>& SecondaryDependants() const noexcept { return secondary_; }

    // The data handed to sinks registered on this node (parameters keep
    // their value here); VT_EMPTY by default. Change it under the write lock.
    VARIANT& CallbackData() noexcept { return callbackData_; }
    void SetThirdPartyUnknown(IUnknown* unknown) noexcept { attached_ = unknown; }
    void SetFinishStatus(CFinishStatusSource* source, DWORD count) noexcept {
        finishSource_ = source;
        finishCount_ = count;
    }
    // Size and stream position of this node's record in the last loaded
    // settings stream.
    DWORD RecordSize() const noexcept { return recordSize_; }
    DWORD RecordStart() const noexcept { return recordStart_; }
    void SetRecordPlace(DWORD start, DWORD size) noexcept {
        recordStart_ = start;
        recordSize_ = size;
    }
    // The object AddRef/Release of every node of this tree are forwarded to;
    // set on the root by the database object (null: nothing is counted).
    void SetOwner(IUnknown* owner) noexcept { owner_ = owner; }

protected:
    CDatabaseObjectImpl();

    // For the concrete classes' IUnknown: AddRef/Release forwarded to the
    // tree's owner (1 without owner), and QueryInterface for IUnknown,
    // IDatabaseObject and ISupportErrorInfo (E_NOINTERFACE otherwise,
    // E_POINTER for null ppv).
    ULONG TreeAddRef() noexcept;
    ULONG TreeRelease() noexcept;
    HRESULT QueryNodeInterface(REFIID riid, void** ppv) noexcept;

    // Error information: the full name ("Root" for the root) and
    // IID_IDatabaseObject; the concrete classes give their own interface.
    std::string ErrorSourceName() const override;
    const IID& ErrorInterface() const noexcept override;

private:
    HRESULT AddSink(CTypedPointerList<IDBNotification>& list, IDBNotification* sink);
    // Removes from `list` and releases the list's reference: the
    // Unregister... results, and the sink's remaining reference count.
    HRESULT RemoveSink(CTypedPointerList<IDBNotification>& list, IDBNotification* sink, ULONG* left);
    void CallImmediateSinks(IUnknown* changed);
    IUnknown* Owner() const noexcept;

    CFinishStatusSource* finishSource_ = nullptr;
    DWORD finishCount_ = 0;
    IUnknown* attached_ = nullptr;
    VARIANT callbackData_;
    DWORD recordSize_ = 0;
    DWORD recordStart_ = 0;
    const char* name_ = nullptr;
    LONG index_ = -1;
    LONG count_ = -1;
    CDatabaseObjectImpl* parent_ = nullptr;
    CTypedPointerList<CDatabaseObjectImpl> dependants_;
    CTypedPointerList<CDatabaseObjectImpl> secondary_;
    CTypedPointerList<IDBNotification> queuedSinks_;
    CTypedPointerList<IDBNotification> immediateSinks_;
    IUnknown* owner_ = nullptr;
};

// A new BSTR from narrow text in the current code page; throws
// ComError(E_OUTOFMEMORY).
BSTR NarrowToBstr(const char* text, std::size_t length);

}  // namespace vorn
