// Test support for the core: a small tree of groups and leaves, a database
// type over it, and notification sinks that count their references and calls
// (Counts gives them as one text).
//
// Tree (names as the name map holds them):
//   (root)                    CTestRoot, interface ITestRoot
//     Settings                CTestGroup: Alpha, Beta
//     NoiseFreqTablePreset[0..3]   CTestGroup each: Alpha, Beta
//     Gain                    CTestLeaf (also answers IParameterInteger)
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "core/DatabaseImpl.h"
#include "core/DatabaseLock.h"
#include "core/GroupImpl.h"
#include "core/HashTable.h"
#include "support/Sink.h"
#include "support/TreeSupport.h"
#include "vorn/database.h"

VORN_DEFINE_GUID(IID_ITestRoot, 0x824b2223, 0x28d3, 0x4337, 0x84, 0xa3, 0x25, 0xeb, 0xd3, 0x56, 0x1d, 0x2c);
VORN_DEFINE_GUID(IID_ITestGroup, 0x889bcd67, 0xc75b, 0x4deb, 0xa3, 0x54, 0x26, 0xd8, 0x08, 0xce, 0x04, 0xa0);

struct ITestRoot : IGroup {};
struct ITestGroup : IGroup {};

namespace vorn::test {

// A leaf that records what the tree does to it.
class CTestLeaf : public CDatabaseObjectImpl {
public:
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
        // Pretends to be an integer parameter so that GetObjects finds one;
        // the face is never called as such.
        if (ppv && answersInteger && IsEqualIID(riid, IID_IParameterInteger)) {
            *ppv = static_cast<IDatabaseObject*>(this);
            AddRef();
            return S_OK;
        }
        return QueryNodeInterface(riid, ppv);
    }
    STDMETHODIMP_(ULONG) AddRef() override { return TreeAddRef(); }
    STDMETHODIMP_(ULONG) Release() override { return TreeRelease(); }
    STDMETHODIMP Reset() override {
        ++resets;
        return resetResult;
    }
    void PostConstruct() override { ++postConstructs; }
    void PostConstruct2() override { ++postConstructs2; }
    void Recalculate(CDatabaseObjectImpl* source) override { recalculated.push_back(source); }
    bool OnDependencyChanged(CDatabaseObjectImpl* source) override {
        changedBy.push_back(source);
        return travels;
    }

    HRESULT resetResult = S_OK;
    bool travels = true;
    bool answersInteger = false;
    int resets = 0;
    int postConstructs = 0;
    int postConstructs2 = 0;
    std::vector<CDatabaseObjectImpl*> recalculated;
    std::vector<CDatabaseObjectImpl*> changedBy;
};

class CTestGroup : public CAddedChildren<CGroupTemplate<ITestGroup, &IID_ITestGroup>> {
public:
    CTestGroup() {
        Add(alpha, "Alpha");
        Add(beta, "Beta");
    }

    CTestLeaf alpha;
    CTestLeaf beta;
};

class CTestRoot : public CAddedChildren<CGroupTemplate<ITestRoot, &IID_ITestRoot>> {
public:
    CTestRoot() {
        Add(settings, "Settings");
        for (LONG i = 0; i < 4; ++i) Add(table[i], "NoiseFreqTablePreset", i, 4);
        Add(gain, "Gain");
        gain.answersInteger = true;
    }

    // Every node below the root, parents before children.
    std::vector<CDatabaseObjectImpl*> AllNodes() {
        std::vector<CDatabaseObjectImpl*> nodes{&settings, &settings.alpha, &settings.beta};
        for (CTestGroup& t : table) nodes.insert(nodes.end(), {&t, &t.alpha, &t.beta});
        nodes.push_back(&gain);
        return nodes;
    }

    CTestGroup settings;
    CTestGroup table[4];
    CTestLeaf gain;
};

using CTestDatabase = CDatabaseImplT<CTestRoot>;

// Creates a test database (one per test process); fails the test if it
// cannot.
inline ComPtr<IDatabase> MakeDatabase(CTestRoot** root = nullptr) {
    ComPtr<IDatabase> db;
    EXPECT_EQ(CTestDatabase::CreateInstance(IID_IDatabase, db.put_void()), S_OK);
    if (root && db) *root = &static_cast<CTestDatabase*>(db.get())->TypedRoot();
    return db;
}

// A one-shot gate a sink can wait at inside its callback.
class Gate {
public:
    void Open() {
        std::lock_guard<std::mutex> lock(m_);
        open_ = true;
        cv_.notify_all();
    }
    void Wait() {
        std::unique_lock<std::mutex> lock(m_);
        cv_.wait(lock, [&] { return open_; });
    }

private:
    std::mutex m_;
    std::condition_variable cv_;
    bool open_ = false;
};

// A notification sink owned by the test (one reference of its own, never
// deleted by Release) that counts references and calls. With `gate` set,
// each callback first reports that it was entered, then waits for the gate.
class CountingSink : public IDBNotification {
public:
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override { return vorn::test::QuerySink(this, riid, ppv); }
    STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(++refs); }
    STDMETHODIMP_(ULONG) Release() override {
        const LONG left = --refs;
        if (left < 1) ++overReleases;
        return static_cast<ULONG>(left);
    }
    STDMETHODIMP Callback(IUnknown*) override {
        ++plainCallbacks;
        return S_OK;
    }
    STDMETHODIMP CallbackWithData(IUnknown* object, VARIANT data) override {
        CheckAlive();
        {
            std::lock_guard<std::mutex> lock(m_);
            objects_.push_back(object);
            data_.push_back(data.vt == VT_I4 ? data.lVal : -1);
            ++entered_;
            cv_.notify_all();
        }
        if (gate) gate->Wait();
        ++calls;
        return S_OK;
    }
    STDMETHODIMP GetCallbackFileName(BSTR* name) override {
        CheckAlive();
        ++fileNameQueries;
        *name = SysAllocStringLen(u"sink.dat", 8);
        CheckAlive();
        return S_OK;
    }

    // Waits until `n` callbacks have been entered.
    void WaitEntered(int n) {
        std::unique_lock<std::mutex> lock(m_);
        cv_.wait(lock, [&] { return entered_ >= n; });
    }
    std::vector<IUnknown*> Objects() {
        std::lock_guard<std::mutex> lock(m_);
        return objects_;
    }
    std::vector<LONG> Data() {
        std::lock_guard<std::mutex> lock(m_);
        return data_;
    }

    std::atomic<LONG> refs{1};
    std::atomic<int> calls{0};
    std::atomic<int> plainCallbacks{0};
    std::atomic<int> fileNameQueries{0};
    std::atomic<int> overReleases{0};
    // Calls made while no reference was held: a real sink would have been
    // freed by then.
    std::atomic<int> callsWhileDead{0};
    Gate* gate = nullptr;

private:
    void CheckAlive() {
        if (refs.load() <= 0) ++callsWhileDead;
    }

    std::mutex m_;
    std::condition_variable cv_;
    int entered_ = 0;
    std::vector<IUnknown*> objects_;
    std::vector<LONG> data_;
};

// A sink's counters as one text: "calls=1 refs=2 names=0 over=0" (names:
// GetCallbackFileName calls; over: releases below its own reference).
inline std::string Counts(const CountingSink& sink) {
    return "calls=" + std::to_string(sink.calls) + " refs=" + std::to_string(sink.refs) +
           " names=" + std::to_string(sink.fileNameQueries) + " over=" + std::to_string(sink.overReleases);
}

// The first of `prefix` followed by 0, 1, 2, ... for which `wanted` holds;
// fails the test and gives "" when a million do not.
template <class Wanted>
std::u16string FirstNumbered(const char16_t* prefix, Wanted wanted) {
    for (int i = 0; i < 1000000; ++i) {
        std::u16string name = prefix;
        for (char c : std::to_string(i)) name.push_back(static_cast<char16_t>(c));
        if (wanted(name)) return name;
    }
    ADD_FAILURE() << "no name found";
    return {};
}

// A name other than `name` that lands in the same bucket of `table`.
inline std::u16string Collider(const CHashTable& table, const std::u16string& name, const char16_t* prefix = u"Z") {
    return FirstNumbered(prefix, [&](const std::u16string& candidate) {
        return candidate != name && table.BucketOf(candidate.c_str()) == table.BucketOf(name.c_str());
    });
}

// Results of several calls, compared as one list in call order.
using Results = std::vector<HRESULT>;

// Runs the change path of `node` as a writer does: under the write lock.
inline void Change(CDatabaseObjectImpl& node) {
    CWriteLock lock;
    node.NotifyChange();
}

}  // namespace vorn::test
