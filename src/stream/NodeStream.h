// Settings stream persistence of the tree's nodes: IDatabaseObject::Save and
// ::Load of every node with a record, and CStreamGroup, the group with a
// settings record (version, child count, the children's records matched by
// name) and the IPersistStream face the database object serves its tree
// through. The record format is DataStream.h's; each parameter class writes
// and reads its own payload.
#pragma once

#include "core/GroupImpl.h"
#include "stream/DataStream.h"

namespace vorn {

// The entry points of IDatabaseObject::Save and ::Load (and of the groups'
// IPersistStream), with the lock each takes: the stream mark and `node`'s
// record. Load: E_FAIL for another mark; S_OK when the record is another
// node's (the stream is left at the record's start). Both: E_POINTER for a
// null stream, else the HRESULT of whatever failed, with the tree left as
// far as the load got.
HRESULT SaveToStream(CDatabaseObjectImpl& node, IStream* stream) noexcept;
HRESULT LoadFromStream(CDatabaseObjectImpl& node, IStream* stream) noexcept;

// Reads one record that may be `node`'s: false, with the stream back at the
// record's start, when it bears another name; else the payload is loaded
// (LoadNamedRecord) and the result is true.
bool LoadRecord(CDataStream& stream, CDatabaseObjectImpl& node);

class CStreamGroup : public CGroupImpl {
public:
    // Settings stream payload: version 1, the child count and each child's
    // record in child order. Its size is 6 plus each child's record: 6 + name
    // length + the child's payload size. Loading matches the records to the
    // children by name, skips records no child bears, leaves children
    // without a record alone, refuses (false) another version, and clears
    // the holds-defaults flag.
    bool LoadPayload(CDataStream& stream) override;
    void SavePayload(CDataStream& stream) override;
    DWORD PayloadSize() override;
    STDMETHODIMP Save(IStream* pStm) override { return SaveToStream(*this, pStm); }
    STDMETHODIMP Load(IStream* pStm) override { return LoadFromStream(*this, pStm); }

    IPersistStream* PersistStream() noexcept override { return &persist_; }
    // S_OK when the stream's next word is the settings stream mark, else
    // E_FAIL (or the stream's failure); the position is left as it was.
    HRESULT PreLoad(IStream* stream) override;

protected:
    CStreamGroup() : persist_(this) {}

private:
    // The group's IPersistStream: Load and Save as the group's
    // IDatabaseObject ones (Load also clears the holds-defaults flag
    // whatever its result; Save ignores the clear-dirty flag); GetClassID is
    // CLSID_Database, whose object reads the format.
    class PersistFace final : public IPersistStream {
    public:
        explicit PersistFace(CStreamGroup* group) noexcept : group_(group) {}
        STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override { return group_->QueryInterface(riid, ppv); }
        STDMETHODIMP_(ULONG) AddRef() override { return group_->AddRef(); }
        STDMETHODIMP_(ULONG) Release() override { return group_->Release(); }
        STDMETHODIMP GetClassID(CLSID* pClassID) override;
        // Always S_OK: a group always has something to save.
        STDMETHODIMP IsDirty() override { return S_OK; }
        STDMETHODIMP Load(IStream* pStm) override;
        STDMETHODIMP Save(IStream* pStm, BOOL fClearDirty) override;
        // The record size plus the 2-byte stream mark; E_POINTER for null.
        STDMETHODIMP GetSizeMax(ULARGE_INTEGER* pcbSize) override;

    private:
        CStreamGroup* group_;
    };

    PersistFace persist_;
};

// A concrete group class with a settings record, bound to its interface I.
template <class I, const IID* piid>
using CStreamGroupTemplate = CGroupTemplate<I, piid, CStreamGroup>;

}  // namespace vorn
