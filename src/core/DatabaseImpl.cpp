// CDatabaseImplBase: see DatabaseImpl.h.
#include "core/DatabaseImpl.h"

#include <sys/mman.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <new>
#include <string>
#include <utility>

#include "core/DBNotificationThread.h"
#include "core/DatabaseLock.h"
#include "vorn/database.h"

namespace vorn {

namespace {

// The module-wide flag IsHalvo reports; it is never set.
constexpr VARIANT_BOOL kHalvo = VARIANT_FALSE;

// The reference count while the object is being destroyed: references taken
// and dropped during destruction (a sink served at shut-down holding a node)
// never bring it to 0 again.
constexpr LONG kDestroying = 0x40000000;

std::atomic<LONG> g_liveObjects{0};

// Runs fn(object, sink) for a record whose object is a tree object.
template <class Fn>
void WithRecordObject(const SObjectData& record, Fn&& fn) {
    if (!record.pParamUnknown) return;
    vorn::ComPtr<IDatabaseObject> object;
    if (SUCCEEDED(record.pParamUnknown->QueryInterface(IID_IDatabaseObject, object.put_void())))
        fn(object.get(), record.pNotification);
}

}  // namespace

// ---------------------------------------------------------------------------
// Life
// ---------------------------------------------------------------------------
CDatabaseImplBase::CDatabaseImplBase() {
    map_ = NameMap();
    if (!map_) ThrowHr(E_UNEXPECTED, "a database object has already lived in this process");
    InitializeCriticalSection(&cs_);
    ++g_liveObjects;
}

CDatabaseImplBase::~CDatabaseImplBase() {
    DeleteCriticalSection(&cs_);
    --g_liveObjects;
}

LONG CDatabaseImplBase::LiveObjects() noexcept { return g_liveObjects.load(); }

void CDatabaseImplBase::BindTree(CGroupImpl& root, IUnknown* rootInterface) {
    root_ = &root;
    rootInterface_ = rootInterface;
    root.SetOwner(static_cast<IDatabase*>(this));
    CDBNotificationThread::Attach();
    attached_ = true;
}

void CDatabaseImplBase::ShutDown() noexcept {
    ReleaseLIUnknown();
    // The last detach delivers what is still queued (the tree is alive) and
    // joins the thread.
    if (attached_) CDBNotificationThread::Detach();
    attached_ = false;
    DeleteNameMap();
    map_ = nullptr;
    // The sinks of kept records are not released here: that is what
    // ReleaseObjectsViaCookie is for.
    cookies_.clear();
    ReleaseTypeLib(typeLib_);
    if (root_) root_->SetOwner(nullptr);
}

HRESULT CDatabaseImplBase::FinalConstruct(TypeLibLoader loader) {
    const HRESULT loaded = loader ? loader(&typeLib_) : S_OK;
    root_->PostConstruct();
    root_->PostConstruct2();
    Reset();
    return loaded;
}

namespace {

// Large pages are 2 MiB on this platform; a smaller object is not worth it.
constexpr std::size_t kLargePage = std::size_t{2} << 20;

// Under the sanitizers the object comes from the ordinary heap, which they
// watch (the leak checker would not look inside a mapping of its own, and
// would take everything the tree holds for leaked). GCC names them with
// macros; clang before 17 only answers __has_feature.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VORN_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define VORN_SANITIZED 1
#endif
#endif
#ifdef VORN_SANITIZED
constexpr bool kOwnMemory = false;
#else
constexpr bool kOwnMemory = true;
#endif

// The whole large pages the object takes: its last one too, so that no part
// of it falls back to small pages (at most 2 MiB more, of address space).
std::size_t LengthFor(std::size_t bytes) noexcept { return (bytes + kLargePage - 1) / kLargePage * kLargePage; }

}  // namespace

void* CDatabaseImplBase::operator new(std::size_t bytes) {
    if (!kOwnMemory || bytes < kLargePage) return ::operator new(bytes);
    // A mapping one large page longer, trimmed to a large-page boundary.
    const std::size_t length = LengthFor(bytes);
    void* mapped = mmap(nullptr, length + kLargePage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED) throw std::bad_alloc();
    const auto start = reinterpret_cast<std::uintptr_t>(mapped);
    const std::uintptr_t aligned = (start + kLargePage - 1) / kLargePage * kLargePage;
    if (aligned > start) munmap(mapped, aligned - start);
    munmap(reinterpret_cast<void*>(aligned + length), start + kLargePage - aligned);
    madvise(reinterpret_cast<void*>(aligned), length, MADV_HUGEPAGE);  // a hint: small pages when refused
    return reinterpret_cast<void*>(aligned);
}

void CDatabaseImplBase::operator delete(void* block, std::size_t bytes) noexcept {
    if (!block) return;
    if (!kOwnMemory || bytes < kLargePage)
        ::operator delete(block);
    else
        munmap(block, LengthFor(bytes));
}

HRESULT CDatabaseImplBase::FinishCreation(TypeLibLoader loader, REFIID riid, void** ppv) noexcept {
    InterlockedIncrement(&refs_);
    HRESULT hr = Guarded([&] { return FinalConstruct(loader); });
    InterlockedDecrement(&refs_);
    if (SUCCEEDED(hr)) hr = QueryInterface(riid, ppv);
    if (FAILED(hr)) Destroy();
    return hr;
}

void CDatabaseImplBase::Destroy() noexcept {
    InterlockedExchange(&refs_, kDestroying);
    delete this;
}

void CDatabaseImplBase::ReleaseTypeLib(ITypeLib*& typeLib) noexcept {
    if (typeLib) typeLib->Release();
    typeLib = nullptr;
}

// ---------------------------------------------------------------------------
// IUnknown
// ---------------------------------------------------------------------------
STDMETHODIMP CDatabaseImplBase::QueryInterface(REFIID riid, void** ppv) {
    if (!ppv) return E_POINTER;
    if (IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IDatabase)) {
        *ppv = static_cast<IDatabase*>(this);
    } else if (IsEqualIID(riid, IID_IPersist) || IsEqualIID(riid, IID_IPersistStream)) {
        *ppv = static_cast<IPersistStream*>(this);
    } else if (IsEqualIID(riid, IID_IDatabaseStatistics)) {
        *ppv = static_cast<IDatabaseStatistics*>(this);
    } else if (IsEqualIID(riid, IID_ISupportErrorInfo)) {
        *ppv = static_cast<ISupportErrorInfo*>(this);
    } else {
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
}

STDMETHODIMP_(ULONG) CDatabaseImplBase::AddRef() { return static_cast<ULONG>(InterlockedIncrement(&refs_)); }

STDMETHODIMP_(ULONG) CDatabaseImplBase::Release() {
    const LONG left = InterlockedDecrement(&refs_);
    if (left == 0) Destroy();
    return static_cast<ULONG>(left);
}

std::string CDatabaseImplBase::ErrorSourceName() const { return "Database"; }

const IID& CDatabaseImplBase::ErrorInterface() const noexcept { return IID_IDatabase; }

// ---------------------------------------------------------------------------
// Tree and names
// ---------------------------------------------------------------------------
STDMETHODIMP CDatabaseImplBase::get_Root(IRoot** ppRoot) {
    if (!ppRoot) return Fail(E_POINTER, "ppRoot is null");
    // The root's interface derives from IUnknown alone, so the face is an
    // IRoot* at the same address.
    rootInterface_->AddRef();
    *ppRoot = reinterpret_cast<IRoot*>(rootInterface_);
    return S_OK;
}

STDMETHODIMP CDatabaseImplBase::GetObject(LPWSTR pkszObjectName, IUnknown** ppUnknown) {
    return GetParameter(pkszObjectName, IID_IUnknown, reinterpret_cast<void**>(ppUnknown));
}

STDMETHODIMP CDatabaseImplBase::GetParameter(LPWSTR pkszObjectName, REFIID riid, void** ppv) {
    if (!ppv) return Fail(E_POINTER, "ppv is null");
    *ppv = nullptr;
    if (!pkszObjectName) return Fail(E_INVALIDARG, "pkszObjectName is null");
    CDatabaseObjectImpl* object = map_->Lookup(pkszObjectName);
    const HRESULT hr = object ? object->QueryInterface(riid, ppv) : E_NOINTERFACE;
    if (SUCCEEDED(hr)) return hr;
    return Guarded(*this, [&]() -> HRESULT {
        if (!object) ThrowHr(hr, "no object is named '" + Narrow(pkszObjectName) + "'");
        OLECHAR iid[40] = {};
        StringFromGUID2(riid, iid, 40);
        ThrowHr(hr, object->FullName() + " does not answer the interface " + Narrow(iid));
    });
}

STDMETHODIMP CDatabaseImplBase::GetObjects(ULONG udwCount, SGetObjectRequestData* paObjectRequestData,
                                           SGetObjectData* paObjectData) {
    if (udwCount && !paObjectRequestData) return Fail(E_POINTER, "paObjectRequestData is null");
    if (udwCount && !paObjectData) return Fail(E_POINTER, "paObjectData is null");
    for (ULONG i = 0; i < udwCount; ++i) paObjectData[i] = SGetObjectData{};
    return Guarded(*this, [&] {
        for (ULONG i = 0; i < udwCount; ++i) {
            const SGetObjectRequestData& request = paObjectRequestData[i];
            SGetObjectData& result = paObjectData[i];
            const IID* iid = nullptr;
            void** field = nullptr;
            switch (request.eParamClass) {
                case ePC_INTEGER:
                    iid = &IID_IParameterInteger;
                    field = reinterpret_cast<void**>(&result.pParamInteger);
                    break;
                case ePC_REAL:
                    iid = &IID_IParameterReal;
                    field = reinterpret_cast<void**>(&result.pParamReal);
                    break;
                case ePC_BOOLEAN:
                    iid = &IID_IParameterBoolean;
                    field = reinterpret_cast<void**>(&result.pParamBoolean);
                    break;
                case ePC_STRING:
                    iid = &IID_IParameterString;
                    field = reinterpret_cast<void**>(&result.pParamString);
                    break;
                default:
                    ThrowHr(E_INVALIDARG, "request " + std::to_string(i) + ": " +
                                              std::to_string(static_cast<LONG>(request.eParamClass)) +
                                              " is not a parameter class");
            }
            // Through the interface, so that an override would be used.
            ThrowIfFailed(static_cast<IDatabase*>(this)->GetParameter(request.bszObjectName, *iid, field));
        }
        return S_OK;
    });
}

STDMETHODIMP CDatabaseImplBase::GetTypeLib(ITypeLib** ppTypeLib) {
    if (!ppTypeLib) return Fail(E_POINTER, "ppTypeLib is null");
    *ppTypeLib = typeLib_;
    if (typeLib_) typeLib_->AddRef();
    return S_OK;
}

STDMETHODIMP CDatabaseImplBase::Reset() {
    return Guarded(*this, [&] {
        CWriteLock lock;
        root_->Reset();
        map_->Freeze();
        return S_OK;
    });
}

// ---------------------------------------------------------------------------
// Notifications
// ---------------------------------------------------------------------------
STDMETHODIMP CDatabaseImplBase::WaitForNotifications(ULONG udwTimeout) {
    CDBNotificationThread* thread = CDBNotificationThread::Instance();
    if (!thread) return Fail(E_UNEXPECTED, "the notification thread is not running");
    CWaitEvent* event = CWaitEvent::Create();
    if (!event) return Fail(E_UNEXPECTED, "no event to wait on can be made");
    const HRESULT posted = Guarded(*this, [&] {
        thread->PostWaitMarker(event);
        return S_OK;
    });
    DWORD waited = WAIT_FAILED;
    if (SUCCEEDED(posted)) waited = WaitForSingleObject(event->Handle(), udwTimeout);
    // A marker left behind by a timeout keeps the event alive until the
    // thread reaches it.
    event->Release();
    if (waited == WAIT_OBJECT_0) return S_OK;
    if (FAILED(posted)) return posted;
    if (waited == WAIT_TIMEOUT)
        return Fail(E_ABORT, "notifications were still queued after " + std::to_string(udwTimeout) + " ms");
    return Fail(E_UNEXPECTED, "waiting for the notification thread failed");
}

STDMETHODIMP CDatabaseImplBase::GetQueueSize(ULONG* pVal) {
    if (!pVal) return Fail(E_POINTER, "pVal is null");
    CDBNotificationThread* thread = CDBNotificationThread::Instance();
    *pVal = thread ? thread->QueueSize() : 0;
    return S_OK;
}

STDMETHODIMP CDatabaseImplBase::GetQueueStatistics(SQueueStatistics* pStatistics) {
    if (!pStatistics) return Fail(E_POINTER, "pStatistics is null");
    *pStatistics = {};
    if (CDBNotificationThread* thread = CDBNotificationThread::Instance()) {
        const QueueFigures figures = thread->Figures();
        *pStatistics = {figures.depth, figures.highWater, figures.coalesced, figures.backlogLimit};
    }
    return S_OK;
}

STDMETHODIMP CDatabaseImplBase::ClearCallbackQueue() {
    if (CDBNotificationThread* thread = CDBNotificationThread::Instance()) thread->Clear();
    return S_OK;
}

STDMETHODIMP CDatabaseImplBase::SuppressNotifications() {
    if (CDBNotificationThread* thread = CDBNotificationThread::Instance()) thread->SetSuppressed(true);
    return S_OK;
}

STDMETHODIMP CDatabaseImplBase::RestartNotifications() {
    if (CDBNotificationThread* thread = CDBNotificationThread::Instance()) thread->SetSuppressed(false);
    return S_OK;
}

// ---------------------------------------------------------------------------
// Bulk registration and cookies
// ---------------------------------------------------------------------------
STDMETHODIMP CDatabaseImplBase::RegisterObjects(ULONG udwCount, SObjectData* paParameterObjects,
                                                VARIANT_BOOL vbKeepData, ULONG* dwCookie) {
    if (udwCount && !paParameterObjects) return Fail(E_POINTER, "paParameterObjects is null");
    const bool keep = vbKeepData == VARIANT_TRUE;
    if (keep && !dwCookie) return Fail(E_POINTER, "dwCookie is null while the records are to be kept");
    for (ULONG i = 0; i < udwCount; ++i)
        WithRecordObject(paParameterObjects[i],
                         [](IDatabaseObject* object, IDBNotification* sink) { object->RegisterNotification(sink); });
    if (!keep) return S_OK;

    return Guarded(*this, [&] {
        CookieEntry entry{std::make_unique<SObjectData[]>(udwCount), udwCount};
        std::copy(paParameterObjects, paParameterObjects + udwCount, entry.records.get());
        for (ULONG i = 0; i < udwCount; ++i)
            if (entry.records[i].pNotification) entry.records[i].pNotification->AddRef();
        ULONG cookie = 0;
        try {
            CriticalSectionLock lock(cs_);
            cookies_.push_back(std::move(entry));
            cookie = static_cast<ULONG>(cookies_.size());
        } catch (...) {
            for (ULONG i = 0; i < udwCount; ++i)
                if (entry.records[i].pNotification) entry.records[i].pNotification->Release();
            throw;
        }
        *dwCookie = cookie;
        return S_OK;
    });
}

STDMETHODIMP CDatabaseImplBase::UnregisterObjects(ULONG udwCount, SObjectData* paParameterObjects) {
    if (udwCount && !paParameterObjects) return Fail(E_POINTER, "paParameterObjects is null");
    for (ULONG i = 0; i < udwCount; ++i)
        WithRecordObject(paParameterObjects[i],
                         [](IDatabaseObject* object, IDBNotification* sink) { object->UnregisterNotification(sink); });
    return S_OK;
}

std::vector<SObjectData> CDatabaseImplBase::CookieRecords(ULONG cookie) {
    CriticalSectionLock lock(cs_);
    if (cookie == 0 || cookie > cookies_.size()) return {};
    const CookieEntry& entry = cookies_[cookie - 1];
    if (!entry.records || entry.count == 0) return {};
    return std::vector<SObjectData>(entry.records.get(), entry.records.get() + entry.count);
}

HRESULT CDatabaseImplBase::ApplyToCookie(ULONG cookie, CookieAction action) {
    // The records are copied out so that no lock is held while sinks and
    // tree objects are called.
    Guarded([&] {
        for (const SObjectData& record : CookieRecords(cookie)) {
            switch (action) {
                case CookieAction::kRegister:
                    WithRecordObject(record, [](IDatabaseObject* object, IDBNotification* sink) {
                        object->RegisterNotification(sink);
                    });
                    break;
                case CookieAction::kUnregister:
                    WithRecordObject(record, [](IDatabaseObject* object, IDBNotification* sink) {
                        object->UnregisterNotification(sink);
                    });
                    break;
                case CookieAction::kRelease:
                    if (record.pNotification) record.pNotification->Release();
                    break;
            }
        }
        return S_OK;
    });
    // S_FALSE whatever happened: clients test for it.
    return S_FALSE;
}

STDMETHODIMP CDatabaseImplBase::RegisterObjectsViaCookie(ULONG dwCookie) {
    return ApplyToCookie(dwCookie, CookieAction::kRegister);
}

STDMETHODIMP CDatabaseImplBase::UnregisterObjectsViaCookie(ULONG dwCookie) {
    return ApplyToCookie(dwCookie, CookieAction::kUnregister);
}

STDMETHODIMP CDatabaseImplBase::ReleaseObjectsViaCookie(ULONG dwCookie) {
    return ApplyToCookie(dwCookie, CookieAction::kRelease);
}

// ---------------------------------------------------------------------------
// Streams
// ---------------------------------------------------------------------------
STDMETHODIMP CDatabaseImplBase::PreLoad(IStream* pstm) {
    if (!pstm) return Fail(E_POINTER, "pstm is null");
    return root_->PreLoad(pstm);
}

STDMETHODIMP CDatabaseImplBase::GetClassID(CLSID* pClassID) {
    if (!pClassID) return Fail(E_POINTER, "pClassID is null");
    *pClassID = CLSID_Database;
    return S_OK;
}

// The tree's stream is its root's.
STDMETHODIMP CDatabaseImplBase::IsDirty() {
    IPersistStream* persist = root_->PersistStream();
    return persist ? persist->IsDirty() : E_NOTIMPL;
}

STDMETHODIMP CDatabaseImplBase::Load(IStream* pStm) { return root_->Load(pStm); }

STDMETHODIMP CDatabaseImplBase::Save(IStream* pStm, BOOL fClearDirty) {
    IPersistStream* persist = root_->PersistStream();
    return persist ? persist->Save(pStm, fClearDirty) : E_NOTIMPL;
}

STDMETHODIMP CDatabaseImplBase::GetSizeMax(ULARGE_INTEGER* pcbSize) {
    IPersistStream* persist = root_->PersistStream();
    return persist ? persist->GetSizeMax(pcbSize) : E_NOTIMPL;
}

// ---------------------------------------------------------------------------
// The application's interface
// ---------------------------------------------------------------------------
STDMETHODIMP CDatabaseImplBase::SetLIUnknown(IUnknown* pLI) {
    if (pLI) pLI->AddRef();
    IUnknown* old = nullptr;
    {
        CriticalSectionLock lock(cs_);
        old = std::exchange(appUnknown_, pLI);
    }
    if (old) old->Release();
    return S_OK;
}

STDMETHODIMP CDatabaseImplBase::ReleaseLIUnknown() {
    IUnknown* old = nullptr;
    {
        CriticalSectionLock lock(cs_);
        old = std::exchange(appUnknown_, nullptr);
    }
    if (old) old->Release();
    return S_OK;
}

// Deliberately hands out nothing: the stored interface is the application's
// own business, and clients rely on this call leaving their variable as it
// was.
STDMETHODIMP CDatabaseImplBase::GetAppLIUnk(IUnknown**) { return S_OK; }

STDMETHODIMP CDatabaseImplBase::IsHalvo(VARIANT_BOOL* pvbResult) {
    if (!pvbResult) return Fail(E_POINTER, "pvbResult is null");
    *pvbResult = kHalvo;
    return S_OK;
}

}  // namespace vorn
