// CDatabaseObjectImpl: see DatabaseObjectImpl.h.
#include "core/DatabaseObjectImpl.h"

#include <atomic>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <unordered_set>
#include <vector>

#include "core/ComError.h"
#include "core/DBNotificationThread.h"
#include "core/DatabaseLock.h"

namespace vorn {

namespace {

// The one formatting buffer of get_Name, shared by every thread without a
// lock. Its characters are relaxed atomics so that sharing it is well defined;
// what a reader gets is still whatever text was written last.
constexpr std::size_t kNameBufferSize = 256;
std::atomic<char> g_nameBuffer[kNameBufferSize];

// "%s[%d]" through the shared buffer; returns the text read back from it.
std::string FormatIndexedName(const char* name, LONG index) {
    char text[kNameBufferSize];
    std::snprintf(text, sizeof text, "%s[%d]", name, static_cast<int>(index));
    for (std::size_t i = 0; i < kNameBufferSize; ++i) {
        g_nameBuffer[i].store(text[i], std::memory_order_relaxed);
        if (text[i] == '\0') break;
    }
    std::string shared;
    for (std::size_t i = 0; i + 1 < kNameBufferSize; ++i) {
        const char c = g_nameBuffer[i].load(std::memory_order_relaxed);
        if (c == '\0') break;
        shared.push_back(c);
    }
    return shared;
}

HRESULT ListResult(int result, HRESULT duplicate) {
    switch (result) {
        case CPointerList::kOk:
            return S_OK;
        case CPointerList::kNoMemory:
            return E_OUTOFMEMORY;
        case CPointerList::kDuplicate:
            return duplicate;
        case CPointerList::kAbsent:
            return S_FALSE;
        default:
            return E_FAIL;
    }
}

// Objects already handled by one propagation.
using VisitedSet = std::unordered_set<const CDatabaseObjectImpl*>;

// Dependants pass of PropagateChange, from `node`.
void PassDependants(CDatabaseObjectImpl* node, VisitedSet& visited) {
    // By index: a dependant's handler may add to the list it is walked from.
    const auto& list = node->Dependants();
    for (ULONG i = 0; i < list.Count(); ++i) {
        CDatabaseObjectImpl* dependant = list.GetAt(i);
        if (visited.count(dependant)) continue;
        const bool travels = dependant->OnDependencyChanged(node);
        visited.insert(dependant);
        if (travels) PassDependants(dependant, visited);
    }
    if (CDatabaseObjectImpl* parent = node->Parent()) PassDependants(parent, visited);
}

}  // namespace

BSTR NarrowToBstr(const char* text, std::size_t length) {
    if (length == 0) {
        BSTR empty = SysAllocStringLen(nullptr, 0);
        if (!empty) ThrowHr(E_OUTOFMEMORY, "no memory for the text of a name");
        return empty;
    }
    const std::u16string wide = Widen(std::string_view(text, length));
    BSTR result = SysAllocStringLen(wide.data(), static_cast<UINT>(wide.size()));
    if (!result) ThrowHr(E_OUTOFMEMORY, "no memory for the text of a name");
    return result;
}

CDatabaseObjectImpl::CDatabaseObjectImpl() { VariantInit(&callbackData_); }

CDatabaseObjectImpl::~CDatabaseObjectImpl() {
    for (IDBNotification* sink : queuedSinks_) sink->Release();
    for (IDBNotification* sink : immediateSinks_) sink->Release();
    VariantClear(&callbackData_);
}

void CDatabaseObjectImpl::SetName(const char* name, LONG index, LONG count, CDatabaseObjectImpl* parent) noexcept {
    name_ = name;
    index_ = index;
    count_ = count;
    parent_ = parent;
}

// ---------------------------------------------------------------------------
// Names
// ---------------------------------------------------------------------------
std::string CDatabaseObjectImpl::Name() const {
    if (!name_) return {};
    std::string text(name_);
    if (static_cast<DWORD>(index_) != 0xFFFFFFFFu) text += "[" + std::to_string(index_) + "]";
    return text;
}

std::string CDatabaseObjectImpl::FullName() const {
    std::vector<const CDatabaseObjectImpl*> path;
    for (const CDatabaseObjectImpl* node = this; node->parent_; node = node->parent_) path.push_back(node);
    std::string text;
    for (auto it = path.rbegin(); it != path.rend(); ++it) {
        if (it != path.rbegin()) text += '.';
        text += (*it)->Name();
    }
    return text;
}

void CDatabaseObjectImpl::AppendName(std::u16string& out) const {
    if (!name_) return;
    const std::size_t length = std::strlen(name_);
    char index[16];  // "[-2147483648]" at most
    char* indexEnd = index;
    if (static_cast<DWORD>(index_) != 0xFFFFFFFFu) {
        *indexEnd++ = '[';
        indexEnd = std::to_chars(indexEnd, index + sizeof index - 1, static_cast<int>(index_)).ptr;
        *indexEnd++ = ']';
    }
    const std::size_t at = out.size();
    out.resize(at + length + static_cast<std::size_t>(indexEnd - index));
    char16_t* to = out.data() + at;
    for (std::size_t i = 0; i < length; ++i) *to++ = static_cast<char16_t>(static_cast<unsigned char>(name_[i]));
    for (const char* c = index; c != indexEnd; ++c) *to++ = static_cast<char16_t>(*c);
}

void CDatabaseObjectImpl::AppendFullName(std::u16string& out) const {
    if (!parent_) return;
    if (parent_->parent_) {
        parent_->AppendFullName(out);
        out += u'.';
    }
    AppendName(out);
}

std::u16string CDatabaseObjectImpl::FullNameW() const {
    std::u16string out;
    AppendFullName(out);
    return out;
}

STDMETHODIMP CDatabaseObjectImpl::get_Name(BSTR* pbstrName) {
    if (!pbstrName) return Fail(E_POINTER, "pbstrName is null");
    return Guarded(*this, [&] {
        if (!name_) {
            *pbstrName = NarrowToBstr("", 0);
        } else if (static_cast<DWORD>(index_) != 0xFFFFFFFFu) {
            const std::string text = FormatIndexedName(name_, index_);
            *pbstrName = NarrowToBstr(text.data(), text.size());
        } else {
            *pbstrName = NarrowToBstr(name_, std::char_traits<char>::length(name_));
        }
        return S_OK;
    });
}

STDMETHODIMP CDatabaseObjectImpl::get_FullName(BSTR* pbstrFullName) {
    if (!pbstrFullName) return Fail(E_POINTER, "pbstrFullName is null");
    return Guarded(*this, [&] {
        const std::string text = FullName();
        *pbstrFullName = NarrowToBstr(text.data(), text.size());
        return S_OK;
    });
}

STDMETHODIMP CDatabaseObjectImpl::get_Parent(IDatabaseObject** ppParent) {
    if (!ppParent) return Fail(E_POINTER, "ppParent is null");
    *ppParent = parent_;
    if (!parent_) return S_FALSE;
    parent_->AddRef();
    return S_OK;
}

STDMETHODIMP CDatabaseObjectImpl::EnumDependencies(IEnumUnknown** ppEnum) {
    if (!ppEnum) return Fail(E_POINTER, "ppEnum is null");
    return Guarded(*this, [&] {
        CReadLock lock;
        std::vector<IUnknown*> snapshot;
        snapshot.reserve(dependants_.Count());
        for (CDatabaseObjectImpl* dependant : dependants_) snapshot.push_back(dependant->Identity());
        return VornCreateEnumUnknown(snapshot.data(), static_cast<ULONG>(snapshot.size()), ppEnum);
    });
}

// ---------------------------------------------------------------------------
// Sinks
// ---------------------------------------------------------------------------
HRESULT CDatabaseObjectImpl::AddSink(CTypedPointerList<IDBNotification>& list, IDBNotification* sink) {
    if (!sink) return Fail(E_INVALIDARG, "pNotification is null");
    return Guarded(*this, [&] {
        CWriteLock lock;
        const HRESULT hr = ListResult(list.Add(sink), E_FAIL);
        if (hr == S_OK) sink->AddRef();
        if (hr == E_FAIL) return Fail(hr, "the sink is already registered on this object");
        return hr;
    });
}

HRESULT CDatabaseObjectImpl::RemoveSink(CTypedPointerList<IDBNotification>& list, IDBNotification* sink, ULONG* left) {
    const HRESULT hr = ListResult(list.Remove(sink), E_FAIL);
    if (hr == S_OK) *left = sink->Release();
    return hr;
}

STDMETHODIMP CDatabaseObjectImpl::RegisterNotification(IDBNotification* pNotification) {
    return AddSink(queuedSinks_, pNotification);
}

STDMETHODIMP CDatabaseObjectImpl::RegisterImmediateNotification(IDBNotification* pNotification) {
    return AddSink(immediateSinks_, pNotification);
}

STDMETHODIMP CDatabaseObjectImpl::UnregisterImmediateNotification(IDBNotification* pNotification) {
    if (!pNotification) return Fail(E_INVALIDARG, "pNotification is null");
    return Guarded(*this, [&] {
        CWriteLock lock;
        ULONG left = 0;
        return RemoveSink(immediateSinks_, pNotification, &left);
    });
}

STDMETHODIMP CDatabaseObjectImpl::UnregisterNotification(IDBNotification* pNotification) {
    if (!pNotification) return Fail(E_INVALIDARG, "pNotification is null");
    return Guarded(*this, [&] {
        CWriteLock lock;
        ULONG left = 0;
        const HRESULT hr = RemoveSink(queuedSinks_, pNotification, &left);
        if (hr != S_OK || left == 0) return hr;
        // Records of this sink about this node that are still queued will
        // never be delivered now: settle the references they hold.
        ULONG dropped = 0;
        CleanNotificationQueue(pNotification, Identity(), &dropped);
        for (ULONG i = 0; i < dropped; ++i) pNotification->Release();
        return S_OK;
    });
}

STDMETHODIMP CDatabaseObjectImpl::CleanNotificationQueue(IDBNotification* pNotification, IUnknown* pUnknown,
                                                         ULONG* pdwNumReleases) {
    if (!pNotification) return S_FALSE;
    CDBNotificationThread* thread = CDBNotificationThread::Instance();
    const ULONG dropped = thread ? thread->Purge(pNotification, pUnknown) : 0;
    if (pdwNumReleases) *pdwNumReleases = dropped;
    return S_OK;
}

STDMETHODIMP CDatabaseObjectImpl::GetCallbackFinishStatus(VARIANT_BOOL* pvbComplete) {
    if (!pvbComplete) return Fail(E_POINTER, "pvbComplete is null");
    CDBNotificationThread* thread = CDBNotificationThread::Instance();
    auto pending = [thread](IUnknown* object) { return thread ? thread->PendingFor(object) : 0u; };

    *pvbComplete = VARIANT_FALSE;
    if (pending(Identity()) != 0) return S_OK;
    if (attached_ && pending(attached_) != 0) return S_OK;

    vorn::ComPtr<IEnumUnknown> dependants;
    HRESULT hr = EnumDependencies(dependants.put());
    if (FAILED(hr)) return hr;
    IUnknown* item = nullptr;
    while (dependants->Next(1, &item, nullptr) == S_OK) {
        vorn::ComPtr<IUnknown> unknown = vorn::ComPtr<IUnknown>::adopt(item);
        vorn::ComPtr<IDatabaseObject> dependant;
        hr = unknown.As(&dependant);
        if (FAILED(hr)) continue;
        IUnknown* third = nullptr;
        hr = dependant->GetThirdPartyUnknown(&third);
        ULONG count = third ? pending(third) : 0;
        if (count == 0) count = pending(unknown.get());
        if (count != 0) return hr;
    }
    if (!finishSource_ || finishSource_->GetFinishCount() == finishCount_) *pvbComplete = VARIANT_TRUE;
    return hr;
}

STDMETHODIMP CDatabaseObjectImpl::GetThirdPartyUnknown(IUnknown** ppUnknown) {
    if (!ppUnknown) return Fail(E_POINTER, "ppUnknown is null");
    *ppUnknown = attached_;
    return S_OK;
}

// ---------------------------------------------------------------------------
// Change path and dependants
// ---------------------------------------------------------------------------
void CDatabaseObjectImpl::NotifyChange() {
    CDBNotificationThread* thread = CDBNotificationThread::Instance();
    if (!thread || thread->Suppressed()) return;
    IUnknown* changed = Identity();
    CNotificationSectionLock section;
    for (CDatabaseObjectImpl* node = this; node; node = node->parent_) {
        for (IDBNotification* sink : node->queuedSinks_) thread->Enqueue(sink, changed, node->callbackData_);
        // Entered once on the first node and held up to the root (the
        // section is recursive; entering it again per node changes nothing).
        section.Enter();
        if (!node->immediateSinks_.Empty() && !thread->Suppressed()) node->CallImmediateSinks(changed);
    }
}

void CDatabaseObjectImpl::CallImmediateSinks(IUnknown* changed) {
    // A sink may unregister itself or others while being called: call a
    // snapshot, each sink held by a reference of its own.
    std::vector<IDBNotification*> sinks;
    sinks.reserve(immediateSinks_.Count());
    for (IDBNotification* sink : immediateSinks_) {
        sink->AddRef();
        sinks.push_back(sink);
    }
    for (IDBNotification* sink : sinks) sink->CallbackWithData(changed, callbackData_);
    for (IDBNotification* sink : sinks) sink->Release();
}

void CDatabaseObjectImpl::PropagateChange() {
    VisitedSet visited{this};
    PassDependants(this, visited);
    for (CDatabaseObjectImpl* node = this; node; node = node->parent_) {
        const auto& list = node->secondary_;
        for (ULONG i = 0; i < list.Count(); ++i) {
            CDatabaseObjectImpl* secondary = list.GetAt(i);
            if (!visited.insert(secondary).second) continue;
            secondary->Recalculate(node);
        }
    }
}

STDMETHODIMP CDatabaseObjectImpl::ResetPutValue() {
    return Guarded(*this, [&] {
        CWriteLock lock;
        const HRESULT hr = Reset();
        if (FAILED(hr)) return hr;
        PropagateChange();
        return S_OK;
    });
}

HRESULT CDatabaseObjectImpl::AddDependant(CDatabaseObjectImpl* object) {
    if (!object) return E_INVALIDARG;
    return ListResult(dependants_.Add(object), E_FAIL);
}

HRESULT CDatabaseObjectImpl::RemoveDependant(CDatabaseObjectImpl* object) {
    if (!object) return E_INVALIDARG;
    return ListResult(dependants_.Remove(object), E_FAIL);
}

HRESULT CDatabaseObjectImpl::AddSecondaryDependant(CDatabaseObjectImpl* object) {
    if (!object) return E_INVALIDARG;
    return ListResult(secondary_.Add(object), E_FAIL);
}

HRESULT CDatabaseObjectImpl::RemoveSecondaryDependant(CDatabaseObjectImpl* object) {
    if (!object) return E_INVALIDARG;
    return ListResult(secondary_.Remove(object), E_FAIL);
}

void CDatabaseObjectImpl::Recalculate(CDatabaseObjectImpl*) {}

bool CDatabaseObjectImpl::OnDependencyChanged(CDatabaseObjectImpl* source) {
    Recalculate(source);
    return true;
}

STDMETHODIMP CDatabaseObjectImpl::Save(IStream*) { return E_NOTIMPL; }
STDMETHODIMP CDatabaseObjectImpl::Load(IStream*) { return E_NOTIMPL; }
bool CDatabaseObjectImpl::LoadPayload(CDataStream&) { return true; }
void CDatabaseObjectImpl::SavePayload(CDataStream&) {}
DWORD CDatabaseObjectImpl::PayloadSize() { return 0; }

// ---------------------------------------------------------------------------
// IUnknown helpers
// ---------------------------------------------------------------------------
IUnknown* CDatabaseObjectImpl::Owner() const noexcept {
    const CDatabaseObjectImpl* node = this;
    while (node->parent_) node = node->parent_;
    return node->owner_;
}

ULONG CDatabaseObjectImpl::TreeAddRef() noexcept {
    IUnknown* owner = Owner();
    return owner ? owner->AddRef() : 1;
}

ULONG CDatabaseObjectImpl::TreeRelease() noexcept {
    IUnknown* owner = Owner();
    return owner ? owner->Release() : 1;
}

HRESULT CDatabaseObjectImpl::QueryNodeInterface(REFIID riid, void** ppv) noexcept {
    if (!ppv) return E_POINTER;
    if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IDatabaseObject)) {
        *ppv = static_cast<IDatabaseObject*>(this);
    } else if (IsEqualIID(riid, IID_ISupportErrorInfo)) {
        *ppv = static_cast<ISupportErrorInfo*>(this);
    } else {
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
}

// ---------------------------------------------------------------------------
// Error information
// ---------------------------------------------------------------------------
std::string CDatabaseObjectImpl::ErrorSourceName() const { return parent_ ? FullName() : "Root"; }

const IID& CDatabaseObjectImpl::ErrorInterface() const noexcept { return IID_IDatabaseObject; }

}  // namespace vorn
