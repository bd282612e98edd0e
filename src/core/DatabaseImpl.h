// The database object: the one creatable object of the component, owner of
// the whole tree and the client's entry point (IDatabase), plus stream
// persistence of the whole tree (IPersistStream, forwarded to the root).
//
// CDatabaseImplBase holds all the logic; CDatabaseImplT<Root> holds the root
// group by value (and with it every node of the tree, in the same
// allocation) and supplies creation. Root is a CGroupTemplate-derived class
// whose interface is IRoot for the real tree; get_Root hands out that face.
// The component serves `CDatabaseImplT<CDatabaseRoot>`; tests use small trees
// of their own.
//
// Life: CreateInstance allocates and constructs (the tree is built, the
// process-wide name map made, the notification thread attached), then runs
// final construction with the reference count held at 1 (type library,
// PostConstruct and PostConstruct2 broadcasts, first Reset, which fills and
// freezes the name map). AddRef/Release of any node are forwarded here, so
// the object lives while any client reference to it or to a node exists. The
// final release detaches the notification thread (the last detach delivers
// what is queued and joins it), deletes the name map for good, frees the
// cookie table (without releasing its sinks), releases the type library and
// destroys the tree. One database object per process: once one has been
// destroyed, creating another fails with E_UNEXPECTED.
//
// Concurrency: free-threaded. Name lookups read the frozen map without a
// lock; Reset takes the database lock; the cookie table and the stored
// application interface are guarded by the object's own critical section,
// which is never held while calling out.
//
// Failures are reported as error information (core/ComError.h) with the
// source "Database" and the GUID IID_IDatabase.
#pragma once

#include <memory>
#include <vector>

#include "core/ComError.h"
#include "core/GroupImpl.h"
#include "core/HashTable.h"

namespace vorn {

class CDatabaseImplBase : public IDatabase, public IPersistStream, public IDatabaseStatistics, public CErrorInfoSource {
public:
    // Loads the type library for final construction; its HRESULT becomes the
    // result of creation. Null: no type library (GetTypeLib hands out null).
    using TypeLibLoader = HRESULT (*)(ITypeLib** ppTypeLib);

    CDatabaseImplBase(const CDatabaseImplBase&) = delete;
    CDatabaseImplBase& operator=(const CDatabaseImplBase&) = delete;

    // The database object holds the whole tree, some megabytes that creation
    // writes from end to end: it takes memory of its own, aligned so that the
    // system can back it with large pages, which saves most of the page
    // faults of a creation (docs/core.md). Throws std::bad_alloc.
    static void* operator new(std::size_t bytes);
    static void operator delete(void* block, std::size_t bytes) noexcept;

    // -- IUnknown: IUnknown, IDatabase, IPersist, IPersistStream,
    //    IDatabaseStatistics, ISupportErrorInfo -------------------------------
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override;
    STDMETHODIMP_(ULONG) AddRef() override;
    STDMETHODIMP_(ULONG) Release() override;

    // -- IDatabase (results in vorn/database.h; null out pointers give
    //    E_POINTER) --------------------------------------------------------
    STDMETHODIMP get_Root(IRoot** ppRoot) override;
    STDMETHODIMP GetObject(LPWSTR pkszObjectName, IUnknown** ppUnknown) override;
    STDMETHODIMP GetTypeLib(ITypeLib** ppTypeLib) override;
    STDMETHODIMP Reset() override;
    STDMETHODIMP WaitForNotifications(ULONG udwTimeout) override;
    STDMETHODIMP GetObjects(ULONG udwCount, SGetObjectRequestData* paObjectRequestData,
                            SGetObjectData* paObjectData) override;
    STDMETHODIMP GetParameter(LPWSTR pkszObjectName, REFIID riid, void** ppv) override;
    STDMETHODIMP RegisterObjects(ULONG udwCount, SObjectData* paParameterObjects, VARIANT_BOOL vbKeepData,
                                 ULONG* dwCookie) override;
    STDMETHODIMP UnregisterObjects(ULONG udwCount, SObjectData* paParameterObjects) override;
    STDMETHODIMP RegisterObjectsViaCookie(ULONG dwCookie) override;
    STDMETHODIMP UnregisterObjectsViaCookie(ULONG dwCookie) override;
    STDMETHODIMP ReleaseObjectsViaCookie(ULONG dwCookie) override;
    STDMETHODIMP GetQueueSize(ULONG* pVal) override;
    STDMETHODIMP ClearCallbackQueue() override;
    STDMETHODIMP PreLoad(IStream* pstm) override;
    STDMETHODIMP SuppressNotifications() override;
    STDMETHODIMP RestartNotifications() override;
    STDMETHODIMP SetLIUnknown(IUnknown* pLI) override;
    STDMETHODIMP ReleaseLIUnknown() override;
    STDMETHODIMP GetAppLIUnk(IUnknown** ppLI) override;
    STDMETHODIMP IsHalvo(VARIANT_BOOL* pvbResult) override;

    // -- IPersistStream: the whole tree, through the root group -------------
    STDMETHODIMP GetClassID(CLSID* pClassID) override;
    STDMETHODIMP IsDirty() override;
    STDMETHODIMP Load(IStream* pStm) override;
    STDMETHODIMP Save(IStream* pStm, BOOL fClearDirty) override;
    STDMETHODIMP GetSizeMax(ULARGE_INTEGER* pcbSize) override;

    // -- IDatabaseStatistics -------------------------------------------------
    STDMETHODIMP GetQueueStatistics(SQueueStatistics* pStatistics) override;

    // The root group (for the component's own code and tests).
    CGroupImpl& RootGroup() noexcept { return *root_; }

    // Database objects constructed and not yet destroyed in this process: the
    // module's share of its lock count (DllCanUnloadNow).
    static LONG LiveObjects() noexcept;

protected:
    // Throws ComError(E_UNEXPECTED) when the process's name map is gone (a
    // database object has already lived and died in this process).
    CDatabaseImplBase();
    virtual ~CDatabaseImplBase();

    // Called by the derived constructor once the tree is built: binds the
    // root (its typed face as `rootInterface`), makes the tree forward its
    // references here and attaches the notification thread (throws
    // ComError(E_FAIL) if it cannot start).
    void BindTree(CGroupImpl& root, IUnknown* rootInterface);
    // Called by the derived destructor before the tree is destroyed: the
    // final-release steps that need the tree alive.
    void ShutDown() noexcept;
    // Final construction and the interface query of creation; destroys the
    // object and returns the failure if either fails.
    HRESULT FinishCreation(TypeLibLoader loader, REFIID riid, void** ppv) noexcept;

    std::string ErrorSourceName() const override;
    const IID& ErrorInterface() const noexcept override;

private:
    struct CookieEntry {
        std::unique_ptr<SObjectData[]> records;  // sinks hold one reference each
        ULONG count = 0;
    };
    enum class CookieAction { kRegister, kUnregister, kRelease };

    HRESULT FinalConstruct(TypeLibLoader loader);
    // The records kept under a cookie (copied under the object's lock), or
    // empty for a cookie that is 0, unknown or holds nothing.
    std::vector<SObjectData> CookieRecords(ULONG cookie);
    HRESULT ApplyToCookie(ULONG cookie, CookieAction action);
    // Destroys the object whatever its reference count.
    void Destroy() noexcept;
    static void ReleaseTypeLib(ITypeLib*& typeLib) noexcept;

    LONG refs_ = 0;
    CRITICAL_SECTION cs_;  // guards cookies_ and appUnknown_
    CGroupImpl* root_ = nullptr;
    IUnknown* rootInterface_ = nullptr;
    CMapNameToObject* map_ = nullptr;
    ITypeLib* typeLib_ = nullptr;
    std::vector<CookieEntry> cookies_;  // cookie n is cookies_[n - 1]
    IUnknown* appUnknown_ = nullptr;
    bool attached_ = false;
};

template <class Root>
class CDatabaseImplT final : public CDatabaseImplBase {
public:
    // Creates a database object and queries it for riid: S_OK, E_POINTER
    // (null ppv), E_OUTOFMEMORY, E_FAIL (notification thread), E_UNEXPECTED
    // (a second database object in this process), the type-library loader's
    // failure, or the query's E_NOINTERFACE. *ppv is null on failure.
    static HRESULT CreateInstance(REFIID riid, void** ppv, TypeLibLoader loader = nullptr) noexcept {
        if (!ppv) return E_POINTER;
        *ppv = nullptr;
        CDatabaseImplT* db = nullptr;
        const HRESULT hr = Guarded([&] {
            db = new CDatabaseImplT();  // NOLINT(bugprone-unhandled-exception-at-new): under Guarded
            return S_OK;
        });
        if (FAILED(hr)) return hr;
        return db->FinishCreation(loader, riid, ppv);
    }

    Root& TypedRoot() noexcept { return root_; }

private:
    CDatabaseImplT() { BindTree(root_, static_cast<typename Root::Interface*>(&root_)); }
    ~CDatabaseImplT() override { ShutDown(); }

    Root root_;
};

}  // namespace vorn
