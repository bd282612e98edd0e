// Groups of the database tree.
//
// CGroupImpl is a node with children: a null-terminated table of child
// objects in declaration order, supplied by each concrete group through
// Children() (the virtual slot after PayloadSize). It resets, broadcasts
// PostConstruct and enumerates over that table and finds objects by relative
// path. It has no settings record: the stream layer's CStreamGroup
// (src/stream/NodeStream.h) adds one, with the IPersistStream face and the
// stream-mark check the database object forwards to its root.
//
// CGroupTemplate<I, &IID_I, Base> binds a concrete group class to its typed
// COM interface I (derived from IGroup): it supplies IUnknown for all faces
// and routes I's IDatabaseObject and IGroup slots to Base (CGroupImpl or a
// class derived from it).
// The concrete class derives from it, implements I's own property getters,
// constructs its members, names each with SetName(name, index, count, this)
// and returns them from Children().
//
// A group's first reset enters the full name of every child into the
// process-wide name map (while the map is not frozen), parents before their
// children; later resets enter nothing.
#pragma once

#include <string_view>

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
    CGroupImpl* AsGroup() noexcept override { return this; }
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
    // The child with this base name (compared ignoring case) and index (-1:
    // not an array element), or null. Formats and allocates nothing, for
    // rule classes binding their partners in PostConstruct.
    CDatabaseObjectImpl* FindChild(std::string_view baseName, LONG index = -1);

    // Set by a successful Reset, cleared by a load of settings.
    bool HoldsDefaults() const noexcept { return holdsDefaults_; }
    void ClearHoldsDefaults() noexcept { holdsDefaults_ = false; }

    // The group's IPersistStream face (no reference added), or null for a
    // group without a settings record.
    virtual IPersistStream* PersistStream() noexcept { return nullptr; }
    // IDatabase::PreLoad for a tree with this group at its root: S_OK when
    // the stream starts as a settings stream of this tree, E_FAIL when not,
    // E_NOTIMPL for a group without a settings record.
    virtual HRESULT PreLoad(IStream* stream);

protected:
    CGroupImpl() = default;
    // QueryInterface for IUnknown, IDatabaseObject and ISupportErrorInfo, and
    // IPersist and IPersistStream when the group has the face; E_NOINTERFACE
    // otherwise.
    HRESULT QueryGroupInterface(REFIID riid, void** ppv) noexcept;

private:
    bool holdsDefaults_ = false;
};

template <class I, const IID* piid, class Base = CGroupImpl>
class CGroupTemplate : public Base, public I {
public:
    using Interface = I;

    // IUnknown of every face. The typed interface and IGroup answer with the
    // I face; everything else as CGroupImpl does. Error information names
    // the typed interface.
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        if (ppv && (IsEqualIID(riid, *piid) || IsEqualIID(riid, IID_IGroup))) {
            *ppv = static_cast<I*>(this);
            Base::TreeAddRef();
            return S_OK;
        }
        return Base::QueryGroupInterface(riid, ppv);
    }
    STDMETHODIMP_(ULONG) AddRef() override { return Base::TreeAddRef(); }
    STDMETHODIMP_(ULONG) Release() override { return Base::TreeRelease(); }

    // IDatabaseObject and IGroup through the I face.
    STDMETHODIMP get_Name(BSTR* p) override { return Base::get_Name(p); }
    STDMETHODIMP get_FullName(BSTR* p) override { return Base::get_FullName(p); }
    STDMETHODIMP get_Parent(IDatabaseObject** pp) override { return Base::get_Parent(pp); }
    STDMETHODIMP EnumDependencies(IEnumUnknown** pp) override { return Base::EnumDependencies(pp); }
    STDMETHODIMP RegisterNotification(IDBNotification* p) override { return Base::RegisterNotification(p); }
    STDMETHODIMP UnregisterNotification(IDBNotification* p) override { return Base::UnregisterNotification(p); }
    STDMETHODIMP RegisterImmediateNotification(IDBNotification* p) override {
        return Base::RegisterImmediateNotification(p);
    }
    STDMETHODIMP UnregisterImmediateNotification(IDBNotification* p) override {
        return Base::UnregisterImmediateNotification(p);
    }
    STDMETHODIMP Reset() override { return Base::Reset(); }
    STDMETHODIMP ResetPutValue() override { return Base::ResetPutValue(); }
    STDMETHODIMP CleanNotificationQueue(IDBNotification* p, IUnknown* u, ULONG* n) override {
        return Base::CleanNotificationQueue(p, u, n);
    }
    STDMETHODIMP GetCallbackFinishStatus(VARIANT_BOOL* p) override { return Base::GetCallbackFinishStatus(p); }
    STDMETHODIMP GetThirdPartyUnknown(IUnknown** pp) override { return Base::GetThirdPartyUnknown(pp); }
    STDMETHODIMP Save(IStream* p) override { return Base::Save(p); }
    STDMETHODIMP Load(IStream* p) override { return Base::Load(p); }
    STDMETHODIMP EnumObjects(IEnumUnknown** pp) override { return Base::EnumChildren(pp); }

protected:
    CGroupTemplate() = default;
    const IID& ErrorInterface() const noexcept override { return *piid; }
};

}  // namespace vorn
