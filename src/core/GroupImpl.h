// Groups of the database tree.
//
// CGroupImpl is a node with children: a null-terminated table of child
// objects in declaration order, supplied by each concrete group through
// Children() (the virtual slot after PayloadSize). It resets, broadcasts
// PostConstruct and enumerates over that table, finds objects by relative
// path, and answers stream persistence through an IPersistStream face of its
// own (a member object whose IUnknown is the group's).
//
// CGroupTemplate<I, &IID_I> binds a concrete group class to its typed COM
// interface I (derived from IGroup): it supplies IUnknown for all faces and
// routes I's IDatabaseObject and IGroup slots to the CGroupImpl behaviour.
// The concrete class derives from it, implements I's own property getters,
// constructs its members, names each with SetName(name, index, count, this)
// and returns them from Children().
//
// A group's first reset enters the full name of every child into the
// process-wide name map (while the map is not frozen), parents before their
// children; later resets enter nothing.
#pragma once

#include "core/DatabaseObjectImpl.h"

namespace vorn {

class CGroupImpl : public CDatabaseObjectImpl {
public:
    // Under the write lock, for each child in order: enter its full name into
    // the name map unless the map is frozen, then reset it. The first failing
    // child stops the walk and its result is returned; otherwise the group
    // holds its defaults and the result is S_OK.
    STDMETHODIMP Reset() override;
    // Forwarded to each child in order.
    void PostConstruct() override;
    void PostConstruct2() override;
    // Settings stream payload (persistence/ObjectPersistence.cpp): version 1,
    // the child count and each child's record in child order. Its size is 6
    // plus each child's record: 6 + name length + the child's payload size.
    // Loading matches the records to the children by name, skips records no
    // child bears, leaves children without a record alone, refuses (false)
    // another version, and clears the holds-defaults flag.
    bool LoadPayload(CDataStream& stream) override;
    void SavePayload(CDataStream& stream) override;
    DWORD PayloadSize() override;

    // The children in declaration order, null-terminated.
    virtual CDatabaseObjectImpl* const* Children() = 0;

    // IGroup::EnumObjects: an enumerator over a snapshot of the children.
    // E_POINTER for a null argument; E_OUTOFMEMORY.
    HRESULT EnumChildren(IEnumUnknown** ppEnum) noexcept;
    // The object at a relative path of "."-separated names as get_Name gives
    // them ("Table[2].Gain"), compared ignoring case: the first child whose
    // name matches the first component, then on in it (it must be a group).
    // Null or empty path: this group. Null when nothing matches.
    CDatabaseObjectImpl* FindObject(const char* path);

    // Set by a successful Reset, cleared by a load of settings.
    bool HoldsDefaults() const noexcept { return holdsDefaults_; }
    void ClearHoldsDefaults() noexcept { holdsDefaults_ = false; }

    // Size of this group's record in a settings stream.
    DWORD RecordSizeForSave();
    IPersistStream* PersistStream() noexcept { return &persist_; }

protected:
    CGroupImpl() : persist_(this) {}
    // QueryInterface for IUnknown, IDatabaseObject, ISupportErrorInfo,
    // IPersist and IPersistStream; E_NOINTERFACE otherwise.
    HRESULT QueryGroupInterface(REFIID riid, void** ppv) noexcept;

private:
    // The group's IPersistStream: Load and Save as the group's
    // IDatabaseObject ones (Load also clears the holds-defaults flag
    // whatever its result; Save ignores the clear-dirty flag); GetClassID is
    // CLSID_Database, whose object reads the format.
    class PersistFace final : public IPersistStream {
    public:
        explicit PersistFace(CGroupImpl* group) noexcept : group_(group) {}
        STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override;
        STDMETHODIMP_(ULONG) AddRef() override;
        STDMETHODIMP_(ULONG) Release() override;
        STDMETHODIMP GetClassID(CLSID* pClassID) override;
        // Always S_OK: a group always has something to save.
        STDMETHODIMP IsDirty() override;
        STDMETHODIMP Load(IStream* pStm) override;
        STDMETHODIMP Save(IStream* pStm, BOOL fClearDirty) override;
        // The record size plus the 2-byte stream mark; E_POINTER for null.
        STDMETHODIMP GetSizeMax(ULARGE_INTEGER* pcbSize) override;

    private:
        CGroupImpl* group_;
    };

    PersistFace persist_;
    bool holdsDefaults_ = false;
};

template <class I, const IID* piid>
class CGroupTemplate : public CGroupImpl, public I {
public:
    using Interface = I;

    // IUnknown of every face. The typed interface and IGroup answer with the
    // I face; everything else as CGroupImpl does. Error information names
    // the typed interface.
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        if (ppv && (IsEqualIID(riid, *piid) || IsEqualIID(riid, IID_IGroup))) {
            *ppv = static_cast<I*>(this);
            TreeAddRef();
            return S_OK;
        }
        return QueryGroupInterface(riid, ppv);
    }
    STDMETHODIMP_(ULONG) AddRef() override { return TreeAddRef(); }
    STDMETHODIMP_(ULONG) Release() override { return TreeRelease(); }

    // IDatabaseObject and IGroup through the I face.
    STDMETHODIMP get_Name(BSTR* p) override { return CGroupImpl::get_Name(p); }
    STDMETHODIMP get_FullName(BSTR* p) override { return CGroupImpl::get_FullName(p); }
    STDMETHODIMP get_Parent(IDatabaseObject** pp) override { return CGroupImpl::get_Parent(pp); }
    STDMETHODIMP EnumDependencies(IEnumUnknown** pp) override { return CGroupImpl::EnumDependencies(pp); }
    STDMETHODIMP RegisterNotification(IDBNotification* p) override { return CGroupImpl::RegisterNotification(p); }
    STDMETHODIMP UnregisterNotification(IDBNotification* p) override { return CGroupImpl::UnregisterNotification(p); }
    STDMETHODIMP RegisterImmediateNotification(IDBNotification* p) override {
        return CGroupImpl::RegisterImmediateNotification(p);
    }
    STDMETHODIMP UnregisterImmediateNotification(IDBNotification* p) override {
        return CGroupImpl::UnregisterImmediateNotification(p);
    }
    STDMETHODIMP Reset() override { return CGroupImpl::Reset(); }
    STDMETHODIMP ResetPutValue() override { return CGroupImpl::ResetPutValue(); }
    STDMETHODIMP CleanNotificationQueue(IDBNotification* p, IUnknown* u, ULONG* n) override {
        return CGroupImpl::CleanNotificationQueue(p, u, n);
    }
    STDMETHODIMP GetCallbackFinishStatus(VARIANT_BOOL* p) override { return CGroupImpl::GetCallbackFinishStatus(p); }
    STDMETHODIMP GetThirdPartyUnknown(IUnknown** pp) override { return CGroupImpl::GetThirdPartyUnknown(pp); }
    STDMETHODIMP Save(IStream* p) override { return CGroupImpl::Save(p); }
    STDMETHODIMP Load(IStream* p) override { return CGroupImpl::Load(p); }
    STDMETHODIMP EnumObjects(IEnumUnknown** pp) override { return EnumChildren(pp); }

protected:
    CGroupTemplate() = default;
    const IID& ErrorInterface() const noexcept override { return *piid; }
};

}  // namespace vorn
