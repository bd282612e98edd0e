// Guarded, and the database object: creation and final release, name
// resolution, bulk registration and cookies, notification control, and the
// small operations.
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "core/ComError.h"
#include "core/CoreTestSupport.h"
#include "core/HashTable.h"
#include "support/ErrorInfo.h"

using namespace vorn;
using namespace vorn::test;

namespace {

// A type library that only counts its references.
struct FakeTypeLib : ITypeLib {
    std::atomic<LONG> refs{1};
    STDMETHODIMP QueryInterface(REFIID, void** ppv) override {
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(++refs); }
    STDMETHODIMP_(ULONG) Release() override { return static_cast<ULONG>(--refs); }
    STDMETHODIMP_(UINT) GetTypeInfoCount() override { return 0; }
    STDMETHODIMP GetTypeInfo(UINT, ITypeInfo**) override { return E_NOTIMPL; }
    STDMETHODIMP GetTypeInfoType(UINT, TYPEKIND*) override { return E_NOTIMPL; }
    STDMETHODIMP GetTypeInfoOfGuid(REFGUID, ITypeInfo**) override { return E_NOTIMPL; }
    STDMETHODIMP GetLibAttr(TLIBATTR**) override { return E_NOTIMPL; }
    STDMETHODIMP GetTypeComp(ITypeComp**) override { return E_NOTIMPL; }
    STDMETHODIMP GetDocumentation(INT, BSTR*, BSTR*, DWORD*, BSTR*) override { return E_NOTIMPL; }
    STDMETHODIMP IsName(LPOLESTR, ULONG, BOOL*) override { return E_NOTIMPL; }
    STDMETHODIMP FindName(LPOLESTR, ULONG, ITypeInfo**, MEMBERID*, USHORT*) override { return E_NOTIMPL; }
    STDMETHODIMP_(void) ReleaseTLibAttr(TLIBATTR*) override {}
};

FakeTypeLib g_typeLib;

HRESULT LoadFakeTypeLib(ITypeLib** typeLib) {
    g_typeLib.AddRef();
    *typeLib = &g_typeLib;
    return S_OK;
}

HRESULT FailTypeLib(ITypeLib**) { return TYPE_E_CANTLOADLIBRARY; }

// The object GetObject gives for `name`: the last known node in its bucket.
CDatabaseObjectImpl* LastInBucket(CTestRoot& root, const std::u16string& name) {
    const CHashTable* table = NameMap()->Table();
    CDatabaseObjectImpl* last = nullptr;
    for (CDatabaseObjectImpl* node : root.AllNodes())
        if (table->BucketOf(node->FullNameW().c_str()) == table->BucketOf(name.c_str())) last = node;
    return last;
}

// GetObject's result and the object it gave (its reference released: the
// database keeps its nodes).
std::pair<HRESULT, IUnknown*> Lookup(IDatabase* db, std::u16string name) {
    ComPtr<IUnknown> found;
    const HRESULT hr = db->GetObject(name.data(), found.put());
    return {hr, found.get()};
}

// Waits for the queue to drain; fails the test if it does not within 10 s.
void Drain(IDatabase* db) { EXPECT_EQ(db->WaitForNotifications(10000), S_OK); }

}  // namespace

// The interface methods run their bodies through Guarded.
TEST(Guarded, TurnsExceptionsIntoResults) {
    EXPECT_EQ(Guarded([] { return S_FALSE; }), S_FALSE);
    EXPECT_EQ(Guarded([]() -> HRESULT { vorn::ThrowHr(E_ABORT); }), E_ABORT);
    EXPECT_EQ(Guarded([]() -> HRESULT { throw std::bad_alloc(); }), E_OUTOFMEMORY);
    EXPECT_EQ(Guarded([]() -> HRESULT { throw std::runtime_error("x"); }), E_UNEXPECTED);
}

TEST(Database, CreationBroadcastsResetsAndResolvesEveryFullName) {
    CTestRoot* root = nullptr;
    ComPtr<IDatabase> db = MakeDatabase(&root);
    ASSERT_TRUE(db);
    EXPECT_EQ(std::tuple(root->gain.postConstructs, root->gain.postConstructs2, root->table[3].beta.resets),
              std::tuple(1, 1, 1));
    EXPECT_TRUE(NameMap()->IsFrozen());
    for (CDatabaseObjectImpl* node : root->AllNodes())
        EXPECT_EQ(Lookup(db.get(), node->FullNameW()), std::pair(S_OK, node->Identity())) << node->FullName();
    // A later reset resets again but enters nothing new.
    const WORD entries = NameMap()->Table()->EntryCount();
    EXPECT_EQ(db->Reset(), S_OK);
    EXPECT_EQ(std::pair(root->table[3].beta.resets, NameMap()->Table()->EntryCount()), std::pair(2, entries));

    IRoot* face = nullptr;
    ASSERT_EQ(db->get_Root(&face), S_OK);
    EXPECT_EQ(static_cast<void*>(face), static_cast<void*>(static_cast<ITestRoot*>(root)));
    reinterpret_cast<IUnknown*>(face)->Release();
}

TEST(Database, NamesResolveByExactCaseAndUnknownNamesByTheirBucket) {
    CTestRoot* root = nullptr;
    ComPtr<IDatabase> db = MakeDatabase(&root);
    EXPECT_EQ(Lookup(db.get(), u"NoiseFreqTablePreset[1]"), std::pair(S_OK, root->table[1].Identity()));

    // Other case, other bucket: not found only when that bucket is empty;
    // otherwise whatever ends the bucket.
    for (std::u16string other : {std::u16string(u"noisefreqtablepreset[1]"), std::u16string(u"GAIN"),
                                 std::u16string(u"Settings.Alpha.Nothing"), std::u16string(u"")}) {
        CDatabaseObjectImpl* expected = LastInBucket(*root, other);
        EXPECT_EQ(Lookup(db.get(), other), expected ? std::pair(S_OK, expected->Identity())
                                                    : std::pair(E_NOINTERFACE, static_cast<IUnknown*>(nullptr)));
    }
    // An unknown name sharing a bucket with a known one resolves to it.
    const std::u16string unknown = Collider(*NameMap()->Table(), u"Gain", u"Unknown");
    EXPECT_EQ(Lookup(db.get(), unknown), std::pair(S_OK, LastInBucket(*root, u"Gain")->Identity()));
    IUnknown* found = nullptr;
    EXPECT_EQ(db->GetObject(nullptr, &found), E_INVALIDARG);
}

TEST(Database, FailuresClearTheOutputsAndNameWhatWasAskedFor) {
    CTestRoot* root = nullptr;
    ComPtr<IDatabase> db = MakeDatabase(&root);
    // A name whose bucket holds no object.
    std::u16string missing =
        FirstNumbered(u"Missing", [&](const std::u16string& n) { return !LastInBucket(*root, n); });
    std::u16string settings = u"Settings", gain = u"Gain", alpha = u"Settings.Alpha";
    SGetObjectRequestData requests[] = {
        {gain.data(), ePC_INTEGER}, {gain.data(), static_cast<PARAMETER_CLASS>(9)}, {gain.data(), ePC_INTEGER}};
    SGetObjectData results[3];
    void* out = nullptr;
    const struct {
        std::function<HRESULT()> call;
        HRESULT hr;
        std::string reason;
    } cases[] = {
        {[&] { return db->GetObject(missing.data(), reinterpret_cast<IUnknown**>(&out)); }, E_NOINTERFACE,
         "no object is named '" + std::string(missing.begin(), missing.end()) + "'"},
        // A group does not answer a value interface.
        {[&] { return db->GetParameter(settings.data(), IID_IParameterReal, &out); }, E_NOINTERFACE,
         "Settings does not answer the interface {BD922039-73EE-4ACD-9C45-EE0636DF2810}"},
        {[&] { return db->GetParameter(nullptr, IID_IUnknown, &out); }, E_INVALIDARG, "pkszObjectName is null"},
        // The requests before a failing one keep their results, the others are null.
        {[&] { return db->GetObjects(3, requests, results); }, E_INVALIDARG, "request 1: 9 is not a parameter class"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reason);
        std::memset(results, 0xCD, sizeof results);
        out = &out;
        EXPECT_EQ(c.call(), c.hr);
        EXPECT_TRUE(out == nullptr || c.reason.starts_with("request")) << "the out pointer was left";
        const SReportedError error = TakeError();
        EXPECT_EQ(std::tuple(error.source, error.guid), std::tuple("Database", IID_IDatabase));
        EXPECT_NE(error.description.find(c.reason), std::string::npos) << error.description;
    }
    EXPECT_EQ((std::vector<void*>{results[0].pParamInteger, results[0].pParamReal, results[1].pParamInteger,
                                  results[2].pParamInteger}),
              (std::vector<void*>{root->gain.Identity(), nullptr, nullptr, nullptr}));
    reinterpret_cast<IUnknown*>(results[0].pParamInteger)->Release();

    requests[1] = {alpha.data(), ePC_REAL};  // Settings.Alpha is no real parameter
    EXPECT_EQ(db->GetObjects(2, requests, results), E_NOINTERFACE);
    reinterpret_cast<IUnknown*>(results[0].pParamInteger)->Release();

    ComPtr<ISupportErrorInfo> support;
    ASSERT_EQ(db.As(&support), S_OK);
    EXPECT_EQ((Results{support->InterfaceSupportsErrorInfo(IID_IDatabase),
                       support->InterfaceSupportsErrorInfo(IID_IPersistStream)}),
              (Results{S_OK, S_OK}));
}

TEST(Database, CookiesCountFromOneAndTheirOperationsAnswerSFalse) {
    CountingSink first, second;
    CTestRoot* root = nullptr;
    ComPtr<IDatabase> db = MakeDatabase(&root);
    SObjectData records[3] = {
        {root->settings.alpha.Identity(), &first}, {root->gain.Identity(), &second}, {nullptr, &first}};
    const auto refs = [&] { return std::pair(first.refs.load(), second.refs.load()); };

    // Only VARIANT_TRUE keeps the records and hands out a cookie.
    ULONG kept = 77, other = 77, one = 0, two = 0;
    EXPECT_EQ((Results{db->RegisterObjects(3, records, VARIANT_FALSE, &kept),
                       db->RegisterObjects(1, records, static_cast<VARIANT_BOOL>(1), &other),
                       db->RegisterObjects(1, records, VARIANT_TRUE, &one),
                       db->RegisterObjects(3, records, VARIANT_TRUE, &two)}),
              (Results{S_OK, S_OK, S_OK, S_OK}));
    EXPECT_EQ((std::vector<ULONG>{kept, other, one, two}), (std::vector<ULONG>{77, 77, 1, 2}));
    // One list reference plus one per kept record.
    EXPECT_EQ(refs(), std::pair(1 + 1 + 3, 1 + 1 + 1));

    EXPECT_EQ(
        (Results{db->RegisterObjectsViaCookie(0), db->RegisterObjectsViaCookie(3), db->UnregisterObjectsViaCookie(2)}),
        (Results{S_FALSE, S_FALSE, S_FALSE}));
    EXPECT_EQ(refs(), std::pair(4, 2));
    EXPECT_EQ(db->RegisterObjectsViaCookie(2), S_FALSE);
    EXPECT_EQ(refs(), std::pair(5, 3));
    EXPECT_EQ((Results{db->ReleaseObjectsViaCookie(2), db->ReleaseObjectsViaCookie(1)}), (Results{S_FALSE, S_FALSE}));
    EXPECT_EQ(refs(), std::pair(2, 2));
    EXPECT_EQ(db->UnregisterObjects(3, records), S_OK);
    EXPECT_EQ(refs(), std::pair(1, 1));
    EXPECT_EQ(db->RegisterObjects(1, records, VARIANT_TRUE, nullptr), E_POINTER);
    db = nullptr;
    EXPECT_EQ(first.overReleases + second.overReleases, 0);
}

TEST(Database, NotificationsStartSuppressedAndWaitFollowsTheQueue) {
    CountingSink sink, blocker;
    Gate gate;
    blocker.gate = &gate;
    CTestRoot* root = nullptr;
    ComPtr<IDatabase> db = MakeDatabase(&root);
    root->settings.RegisterNotification(&sink);
    Change(root->settings.alpha);
    Drain(db.get());
    EXPECT_EQ(sink.calls, 0);

    EXPECT_EQ(db->RestartNotifications(), S_OK);
    root->gain.RegisterNotification(&blocker);
    Change(root->gain);
    blocker.WaitEntered(1);
    Change(root->settings.alpha);
    ULONG queued = 0, left = 9;
    EXPECT_EQ((Results{db->GetQueueSize(&queued), db->WaitForNotifications(0)}), (Results{S_OK, E_ABORT}));
    gate.Open();
    Drain(db.get());
    EXPECT_EQ(db->GetQueueSize(&left), S_OK);
    EXPECT_EQ(std::tuple(queued, left, sink.calls.load()), std::tuple(1u, 0u, 1));

    EXPECT_EQ(db->SuppressNotifications(), S_OK);
    Change(root->settings.alpha);
    Drain(db.get());
    EXPECT_EQ(sink.calls, 1);
    EXPECT_EQ(db->ClearCallbackQueue(), S_OK);
}

TEST(Database, ApplicationInterfaceIsKeptButNeverHandedOut) {
    CountingSink app, other;
    ComPtr<IDatabase> db = MakeDatabase();
    const auto refs = [&] { return std::pair(app.refs.load(), other.refs.load()); };
    IUnknown* given = &other;
    EXPECT_EQ((Results{db->SetLIUnknown(&app), db->GetAppLIUnk(&given)}), (Results{S_OK, S_OK}));
    EXPECT_EQ(std::pair(refs(), given), std::pair(std::pair(2, 1), static_cast<IUnknown*>(&other)));
    EXPECT_EQ(db->SetLIUnknown(&other), S_OK);
    EXPECT_EQ(refs(), std::pair(1, 2));
    EXPECT_EQ((Results{db->ReleaseLIUnknown(), db->SetLIUnknown(&app)}), (Results{S_OK, S_OK}));
    EXPECT_EQ(refs(), std::pair(2, 1));
    db = nullptr;  // the final release lets go of the stored interface
    EXPECT_EQ(refs(), std::pair(1, 1));
}

TEST(Database, ANodeReferenceKeepsTheDatabaseAlive) {
    CountingSink witness;  // released by the final release
    ComPtr<IDatabase> db = MakeDatabase();
    db->SetLIUnknown(&witness);
    std::u16string name = u"NoiseFreqTablePreset[2].Beta";
    IUnknown* node = nullptr;
    ASSERT_EQ(db->GetObject(name.data(), &node), S_OK);
    db = nullptr;
    EXPECT_EQ(witness.refs, 2);
    IDatabaseObject* parent = nullptr;
    ASSERT_EQ(static_cast<IDatabaseObject*>(node)->get_Parent(&parent), S_OK);
    node->Release();
    EXPECT_EQ(witness.refs, 2);
    parent->Release();
    EXPECT_EQ(witness.refs, 1);
}

// A sink may hold the last reference: the database then goes on the
// notification thread, which cannot wait for itself. It stops after that
// callback and drops the rest of the queue.
TEST(Database, TheLastReleaseMayComeFromACallback) {
    struct Releaser : CountingSink {
        STDMETHODIMP CallbackWithData(IUnknown* object, VARIANT data) override {
            if (IDatabase* last = db.exchange(nullptr)) last->Release();
            return CountingSink::CallbackWithData(object, data);
        }
        std::atomic<IDatabase*> db{nullptr};
    };
    Releaser sink;
    Gate gate;
    sink.gate = &gate;
    CTestRoot* root = nullptr;
    IDatabase* db = MakeDatabase(&root).detach();
    db->RestartNotifications();
    root->gain.RegisterNotification(&sink);
    for (int i = 0; i < 50; ++i) Change(root->gain);
    sink.WaitEntered(1);
    // From here on the sink's reference is the last, and this thread leaves
    // the tree alone: the second callback releases it.
    sink.db = db;
    gate.Open();
    for (int i = 0; i < 500 && CDatabaseImplBase::LiveObjects() != 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(CDatabaseImplBase::LiveObjects(), 0);
    for (int i = 0; i < 500 && sink.refs != 1; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(sink.refs, 1);
    EXPECT_EQ(sink.overReleases, 0);
}

// The type library is held once and released with the database; after it
// no second database can be made in the process.
TEST(Database, TypeLibraryIsHeldOnceAndOnlyOneDatabaseLivesPerProcess) {
    ComPtr<IDatabase> db;
    ASSERT_EQ(CTestDatabase::CreateInstance(IID_IDatabase, db.put_void(), &LoadFakeTypeLib), S_OK);
    EXPECT_EQ(g_typeLib.refs, 2);
    ITypeLib* typeLib = nullptr;
    EXPECT_EQ(db->GetTypeLib(&typeLib), S_OK);
    EXPECT_EQ(std::pair(typeLib, g_typeLib.refs.load()), std::pair(static_cast<ITypeLib*>(&g_typeLib), 3));
    typeLib->Release();
    EXPECT_EQ(db->GetTypeLib(nullptr), E_POINTER);

    ComPtr<IPersistStream> persist;
    ASSERT_EQ(db.As(&persist), S_OK);
    CLSID clsid{};
    EXPECT_EQ(persist->GetClassID(&clsid), S_OK);
    EXPECT_TRUE(IsEqualCLSID(clsid, CLSID_Database));
    ComPtr<IGroup> notMine;
    EXPECT_EQ(db.As(&notMine), E_NOINTERFACE);
    persist = nullptr;
    EXPECT_EQ(CTestDatabase::LiveObjects(), 1);
    db = nullptr;
    EXPECT_EQ(std::pair(CTestDatabase::LiveObjects(), g_typeLib.refs.load()), std::pair(0, 1));
    void* second = &second;
    EXPECT_EQ(CTestDatabase::CreateInstance(IID_IDatabase, &second), E_UNEXPECTED);
    EXPECT_EQ(second, nullptr);
}

// One database per process: a failed creation needs a process of its own.
TEST(Database, FailedTypeLibraryLoadFailsCreation) {
    void* failed = &failed;
    EXPECT_EQ(CTestDatabase::CreateInstance(IID_IDatabase, &failed, &FailTypeLib), TYPE_E_CANTLOADLIBRARY);
    EXPECT_EQ(failed, nullptr);
    EXPECT_EQ(CTestDatabase::CreateInstance(IID_IDatabase, nullptr), E_POINTER);
}
