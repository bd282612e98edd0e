// Benchmarks of the database core, each beside its baseline in the same run:
//   - full-name lookup through IDatabase::GetObject (and the bare name map)
//     against std::unordered_map<std::u16string, void*>::find;
//   - the writer's cost of one change with one queued sink, with and without
//     taking the database lock, against a bare std::mutex lock/unlock, and
//     beside the machine's cache line round trip between two threads;
//   - the same against a sink a thousand times slower than the writer, with
//     the queue's figures and the memory it takes;
//   - delivery rate of the notification thread to a sink that does nothing.
//
// The tree: 20 groups of 50 leaves below the root, named like the real
// schema's ("GroupOfSettings07.SettingParameter33", about 40 characters).
#include <benchmark/benchmark.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "core/DatabaseImpl.h"
#include "core/DatabaseLock.h"

using namespace vorn;

VORN_DEFINE_GUID(IID_IBenchGroup, 0x5e0b8a21, 0x3c4f, 0x4d1a, 0x9b, 0x7e, 0x11, 0x2a, 0x6c, 0x40, 0x8e, 0x13);
struct IBenchGroup : IGroup {};

namespace {

constexpr int kGroups = 20;
constexpr int kLeaves = 50;

class BenchLeaf : public CDatabaseObjectImpl {
public:
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override { return QueryNodeInterface(riid, ppv); }
    STDMETHODIMP_(ULONG) AddRef() override { return TreeAddRef(); }
    STDMETHODIMP_(ULONG) Release() override { return TreeRelease(); }
    STDMETHODIMP Reset() override { return S_OK; }
    void PostConstruct() override {}
    void PostConstruct2() override {}
};

// A group whose children are made at construction: names are kept here.
template <int N, class Child>
class BenchGroup : public CGroupTemplate<IBenchGroup, &IID_IBenchGroup> {
public:
    explicit BenchGroup(const char* pattern) {
        for (int i = 0; i < N; ++i) {
            char name[64];
            std::snprintf(name, sizeof name, pattern, i);
            names_[i] = name;
            children_[i] = &members_[i];
        }
        for (int i = 0; i < N; ++i) members_[i].SetName(names_[i].c_str(), -1, -1, this);
        children_[N] = nullptr;
    }
    CDatabaseObjectImpl* const* Children() override { return children_; }
    Child& Member(int i) { return members_[i]; }

private:
    std::string names_[N];
    Child members_[N];
    CDatabaseObjectImpl* children_[N + 1];
};

class SettingsGroup : public BenchGroup<kLeaves, BenchLeaf> {
public:
    SettingsGroup() : BenchGroup("SettingParameter%02d") {}
};

class BenchRoot : public BenchGroup<kGroups, SettingsGroup> {
public:
    BenchRoot() : BenchGroup("GroupOfSettings%02d") {}
};

using BenchDatabase = CDatabaseImplT<BenchRoot>;

// A sink that does nothing but count its references. On a cache line of its
// own, as a sink on the heap would be: on the benchmark's stack it would
// share a line with the writer's locals, and every release by the
// notification thread would take that line away from the writer.
class alignas(64) NullSink : public IDBNotification {
public:
    STDMETHODIMP QueryInterface(REFIID, void** ppv) override {
        *ppv = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return refs_.fetch_add(1, std::memory_order_relaxed) + 1; }
    STDMETHODIMP_(ULONG) Release() override { return refs_.fetch_sub(1, std::memory_order_acq_rel) - 1; }
    STDMETHODIMP Callback(IUnknown*) override { return S_OK; }
    STDMETHODIMP CallbackWithData(IUnknown*, VARIANT) override { return S_OK; }
    STDMETHODIMP GetCallbackFileName(BSTR*) override { return S_OK; }

private:
    std::atomic<ULONG> refs_{1};
};

// A sink whose callback waits until it is opened (holds the thread while
// records pile up).
class GateSink : public NullSink {
public:
    STDMETHODIMP CallbackWithData(IUnknown*, VARIANT) override {
        std::unique_lock<std::mutex> lock(m_);
        entered_ = true;
        cv_.notify_all();
        cv_.wait(lock, [&] { return open_; });
        return S_OK;
    }
    void WaitEntered() {
        std::unique_lock<std::mutex> lock(m_);
        cv_.wait(lock, [&] { return entered_; });
    }
    void Open() {
        std::lock_guard<std::mutex> lock(m_);
        open_ = true;
        cv_.notify_all();
    }
    void Close() {
        std::lock_guard<std::mutex> lock(m_);
        open_ = false;
        entered_ = false;
    }

private:
    std::mutex m_;
    std::condition_variable cv_;
    bool entered_ = false;
    bool open_ = false;
};

struct Fixture {
    Fixture() {
        BenchDatabase::CreateInstance(IID_IDatabase, db.put_void());
        root = &static_cast<BenchDatabase*>(db.get())->TypedRoot();
        for (int g = 0; g < kGroups; ++g)
            for (int l = 0; l < kLeaves; ++l) {
                std::u16string name = root->Member(g).Member(l).FullNameW();
                map.emplace(name, &root->Member(g).Member(l));
                names.push_back(std::move(name));
            }
        db->RestartNotifications();
    }
    ComPtr<IDatabase> db;
    BenchRoot* root = nullptr;
    std::vector<std::u16string> names;
    std::unordered_map<std::u16string, void*> map;
};

Fixture& TheFixture() {
    static Fixture* fixture = new Fixture();  // one database per process
    return *fixture;
}

// ---------------------------------------------------------------------------
// Lookup
// ---------------------------------------------------------------------------
void BM_UnorderedMapFind(benchmark::State& state) {
    Fixture& f = TheFixture();
    std::size_t i = 0;
    for (auto _ : state) {
        auto it = f.map.find(f.names[i]);
        benchmark::DoNotOptimize(it->second);
        if (++i == f.names.size()) i = 0;
    }
}
BENCHMARK(BM_UnorderedMapFind);

void BM_GetObjectAndRelease(benchmark::State& state) {
    Fixture& f = TheFixture();
    std::size_t i = 0;
    for (auto _ : state) {
        IUnknown* object = nullptr;
        f.db->GetObject(f.names[i].data(), &object);
        benchmark::DoNotOptimize(object);
        object->Release();
        if (++i == f.names.size()) i = 0;
    }
}
BENCHMARK(BM_GetObjectAndRelease);

void BM_NameMapLookup(benchmark::State& state) {
    Fixture& f = TheFixture();
    CMapNameToObject* map = NameMap();
    std::size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(map->Lookup(f.names[i].c_str()));
        if (++i == f.names.size()) i = 0;
    }
}
BENCHMARK(BM_NameMapLookup);

// ---------------------------------------------------------------------------
// Writer's cost of a change
// ---------------------------------------------------------------------------
void BM_MutexLockUnlock(benchmark::State& state) {
    std::mutex m;
    for (auto _ : state) {
        m.lock();
        m.unlock();
    }
}
BENCHMARK(BM_MutexLockUnlock);

// Two threads hand one cache line back and forth. Not a baseline of any one
// benchmark but of the machine: a change's hand-over to the notification
// thread moves a few lines between processors, and what a move costs
// depends on where the machine runs the two threads (on the virtual
// machines measured, the round trip was either about 65 or about 330 ns).
void BM_BaselineCacheLineRoundTrip(benchmark::State& state) {
    alignas(64) std::atomic<int> turn{0};  // 1: the partner's turn, 2: stop
    std::thread partner([&] {
        for (;;) {
            int now = turn.load(std::memory_order_acquire);
            if (now == 2) return;
            if (now == 1)
                turn.store(0, std::memory_order_release);
            else
                YieldProcessor();
        }
    });
    for (auto _ : state) {
        turn.store(1, std::memory_order_release);
        while (turn.load(std::memory_order_acquire) != 0) YieldProcessor();
    }
    turn.store(2, std::memory_order_release);
    partner.join();
}
BENCHMARK(BM_BaselineCacheLineRoundTrip);

void BM_DatabaseLock(benchmark::State& state) {
    for (auto _ : state) {
        CWriteLock lock;
    }
}
BENCHMARK(BM_DatabaseLock);

// One queued sink on the changed leaf; the notification thread delivers
// meanwhile. Argument 0: the caller already holds the database lock (as a
// value write does for its whole change path); 1: the lock is taken for
// every change.
void BM_ChangeOneQueuedSink(benchmark::State& state) {
    Fixture& f = TheFixture();
    NullSink sink;
    BenchLeaf& leaf = f.root->Member(3).Member(7);
    leaf.RegisterNotification(&sink);
    const bool lockEach = state.range(0) != 0;
    {
        CWriteLock outer;
        if (lockEach) outer.Release();
        for (auto _ : state) {
            if (lockEach) {
                CWriteLock lock;
                leaf.NotifyChange();
            } else {
                leaf.NotifyChange();
            }
        }
    }
    f.db->WaitForNotifications(INFINITE);
    leaf.UnregisterNotification(&sink);
}
BENCHMARK(BM_ChangeOneQueuedSink)->ArgName("lock_each")->Arg(0)->Arg(1);

// A sink a thousand times slower than the writer (100 us a call): the queue
// grows to the sink's backlog limit, then the writer's further changes of the
// leaf are coalesced. Reports the queue's figures and the resident memory the
// run added; the unloaded cost is BM_ChangeOneQueuedSink/lock_each:1.
class SlowSink : public NullSink {
public:
    STDMETHODIMP CallbackWithData(IUnknown*, VARIANT) override {
        std::this_thread::sleep_for(std::chrono::microseconds(100));
        return S_OK;
    }
};

double ResidentMiB() {
    long pages = 0, resident = 0;
    if (FILE* f = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
        std::fclose(f);
    }
    return static_cast<double>(resident) * 4096.0 / (1024.0 * 1024.0);
}

void BM_ChangeSlowSink(benchmark::State& state) {
    Fixture& f = TheFixture();
    SlowSink sink;
    BenchLeaf& leaf = f.root->Member(4).Member(9);
    leaf.RegisterNotification(&sink);
    // From the first run on: the queue's containers keep their capacity.
    static const double before = ResidentMiB();
    ComPtr<IDatabaseStatistics> statistics;
    f.db->QueryInterface(IID_IDatabaseStatistics, statistics.put_void());
    SQueueStatistics start{}, end{};
    statistics->GetQueueStatistics(&start);
    for (auto _ : state) {
        CWriteLock lock;
        leaf.NotifyChange();
    }
    statistics->GetQueueStatistics(&end);
    state.counters["queue_depth"] = end.udwDepth;
    state.counters["coalesced_share"] =
        static_cast<double>(end.uqwCoalesced - start.uqwCoalesced) / static_cast<double>(state.iterations());
    state.counters["added_MiB"] = ResidentMiB() - before;
    f.db->ClearCallbackQueue();
    f.db->WaitForNotifications(INFINITE);
    leaf.UnregisterNotification(&sink);
}
BENCHMARK(BM_ChangeSlowSink);

// ---------------------------------------------------------------------------
// Delivery rate
// ---------------------------------------------------------------------------
// Per iteration: the thread is held at a gate while `batch` records pile up,
// then released; the time until the queue has drained is measured.
void BM_DeliveryToNullSink(benchmark::State& state) {
    Fixture& f = TheFixture();
    const int batch = static_cast<int>(state.range(0));
    NullSink sink;
    GateSink gate;
    BenchLeaf& leaf = f.root->Member(5).Member(1);
    BenchLeaf& gateLeaf = f.root->Member(6).Member(1);
    leaf.RegisterNotification(&sink);
    gateLeaf.RegisterNotification(&gate);
    for (auto _ : state) {
        gate.Close();
        {
            CWriteLock lock;
            gateLeaf.NotifyChange();
            gate.WaitEntered();
            for (int i = 0; i < batch; ++i) leaf.NotifyChange();
        }
        const auto start = std::chrono::steady_clock::now();
        gate.Open();
        f.db->WaitForNotifications(INFINITE);
        const auto stop = std::chrono::steady_clock::now();
        state.SetIterationTime(std::chrono::duration<double>(stop - start).count());
    }
    state.SetItemsProcessed(state.iterations() * batch);
    leaf.UnregisterNotification(&sink);
    gateLeaf.UnregisterNotification(&gate);
}
BENCHMARK(BM_DeliveryToNullSink)->Arg(200000)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
