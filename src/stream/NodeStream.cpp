// Settings stream persistence of the tree's nodes: see NodeStream.h.
#include "stream/NodeStream.h"

#include "core/DatabaseLock.h"

namespace vorn {

namespace {

// The group whose holds-defaults flag a load of `node` clears: the node
// itself when it is a group, else its parent.
CGroupImpl* GroupOf(CDatabaseObjectImpl& node) noexcept {
    if (CGroupImpl* group = node.AsGroup()) return group;
    return node.Parent() ? node.Parent()->AsGroup() : nullptr;
}

}  // namespace

HRESULT SaveToStream(CDatabaseObjectImpl& node, IStream* stream) noexcept {
    if (!stream) return node.Fail(E_POINTER, "the stream is null");
    return Guarded(node, [&] {
        CReadLock lock;
        CDataStream data(stream);
        data.WriteShort(kStreamMark);
        SaveRecord(data, node);
        data.Flush();
        return S_OK;
    });
}

HRESULT LoadFromStream(CDatabaseObjectImpl& node, IStream* stream) noexcept {
    if (!stream) return node.Fail(E_POINTER, "the stream is null");
    return Guarded(node, [&] {
        CWriteLock lock;
        CDataStream data(stream);
        ReadStreamMark(data);
        if (LoadRecord(data, node))
            if (CGroupImpl* group = GroupOf(node)) group->ClearHoldsDefaults();
        return S_OK;
    });
}

bool LoadRecord(CDataStream& stream, CDatabaseObjectImpl& node) {
    const SRecordHeader header = ReadRecordHeader(stream);
    if (!RecordNames(header, node)) {
        stream.SeekTo(header.start);
        return false;
    }
    return LoadNamedRecord(stream, node, header);
}

// ---------------------------------------------------------------------------
// Groups
// ---------------------------------------------------------------------------
DWORD CStreamGroup::PayloadSize() {
    DWORD size = sizeof(WORD) + sizeof(DWORD);
    for (CDatabaseObjectImpl* const* child = Children(); child && *child; ++child) size += RecordSizeOf(**child);
    return size;
}

void CStreamGroup::SavePayload(CDataStream& stream) {
    DWORD count = 0;
    for (CDatabaseObjectImpl* const* child = Children(); child && *child; ++child) ++count;
    stream.WriteShort(kGroupVersion);
    stream.WriteLong(count);
    for (CDatabaseObjectImpl* const* child = Children(); child && *child; ++child) SaveRecord(stream, **child);
}

// Each record goes to the first child, from the cursor on and wrapping round
// once, whose name it bears; the cursor then moves past that child, so
// records in child order match at the first try. The header is read once per
// record and compared with each child's name, which is what calling each
// child's LoadRecord in turn would do (LoadRecord is the same header-then-body
// sequence for every node), without reading it again for every child tried.
// A record nobody claims is skipped. When the group's record ends before the
// count is reached, loading stops there.
bool CStreamGroup::LoadPayload(CDataStream& stream) {
    if (stream.ReadShort() != kGroupVersion) return false;
    const DWORD count = stream.ReadLong();
    CDatabaseObjectImpl* const* children = Children();
    std::size_t childCount = 0;
    while (children && children[childCount]) ++childCount;

    std::size_t cursor = 0;
    for (DWORD record = 0; record < count; ++record) {
        if (stream.Position() + kRecordHeaderSize > stream.RecordEnd()) break;
        const SRecordHeader header = ReadRecordHeader(stream);
        bool claimed = false;
        for (std::size_t tried = 0; tried < childCount && !claimed; ++tried) {
            const std::size_t index = (cursor + tried) % childCount;
            if (!RecordNames(header, *children[index])) continue;
            claimed = LoadNamedRecord(stream, *children[index], header);
            cursor = index + 1;
        }
        if (!claimed) stream.SeekTo(header.End());
    }
    ClearHoldsDefaults();
    return true;
}

// ---------------------------------------------------------------------------
// The groups' IPersistStream
// ---------------------------------------------------------------------------
// A group's stream is the database's format: the class that reads it is the
// database object's.
STDMETHODIMP CStreamGroup::PersistFace::GetClassID(CLSID* pClassID) {
    if (!pClassID) return group_->Fail(E_POINTER, "pClassID is null");
    *pClassID = CLSID_Database;
    return S_OK;
}

STDMETHODIMP CStreamGroup::PersistFace::Load(IStream* pStm) {
    const HRESULT hr = LoadFromStream(*group_, pStm);
    group_->ClearHoldsDefaults();
    return hr;
}

// The clear-dirty flag means nothing here: a group is always saved whole.
STDMETHODIMP CStreamGroup::PersistFace::Save(IStream* pStm, BOOL) { return SaveToStream(*group_, pStm); }

STDMETHODIMP CStreamGroup::PersistFace::GetSizeMax(ULARGE_INTEGER* pcbSize) {
    if (!pcbSize) return E_POINTER;
    return Guarded([&] {
        pcbSize->QuadPart = static_cast<ULONGLONG>(RecordSizeOf(*group_)) + sizeof kStreamMark;
        return S_OK;
    });
}

HRESULT CStreamGroup::PreLoad(IStream* stream) {
    ULARGE_INTEGER start{};
    HRESULT hr = stream->Seek(LARGE_INTEGER{}, STREAM_SEEK_CUR, &start);
    if (FAILED(hr)) return hr;
    WORD mark = 0;
    ULONG read = 0;
    const HRESULT readResult = stream->Read(&mark, sizeof mark, &read);
    LARGE_INTEGER back{};
    back.QuadPart = static_cast<LONGLONG>(start.QuadPart);
    hr = stream->Seek(back, STREAM_SEEK_SET, nullptr);
    if (FAILED(readResult)) return readResult;
    if (FAILED(hr)) return hr;
    return read == sizeof mark && mark == kStreamMark ? S_OK : E_FAIL;
}

}  // namespace vorn
