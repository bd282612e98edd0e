// A hostile, careless client of the whole database, for the sanitizers:
//
//     stress_client SECONDS [SEED]
//
// For SECONDS, against one database of the real tree: writers putting random
// values into random parameters (reals, integers, booleans, through their
// value interfaces), threads registering and unregistering short-lived sinks
// (queued and immediate; each sink is freed by its last release, so a call
// after it is a use after free), a sink that takes a millisecond per call on
// the root, a thread that clears the queue, waits for notifications and
// suppresses and restarts them, and a thread that saves the tree and loads it
// back. Then everything is released, and every sink must have been freed:
// exit 0, or 1 with the counts when one was not (a leaked or doubly released
// reference); the sanitizers abort on their own findings.
//
// Files: nodes whose names mention a file are left alone, so the run writes
// nothing outside the process.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "schema/Database.h"
#include "support/Sink.h"
#include "vorn/vorndb.h"

using namespace vorn;

namespace {

std::atomic<long> g_liveSinks{0};

// A sink that frees itself at its last release; `delay` per callback.
class Sink final : public IDBNotification {
public:
    explicit Sink(std::chrono::microseconds delay = {}) : delay_(delay) { ++g_liveSinks; }
    STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override { return vorn::test::QuerySink(this, riid, ppv); }
    STDMETHODIMP_(ULONG) AddRef() override { return ++refs_; }
    STDMETHODIMP_(ULONG) Release() override {
        const ULONG left = --refs_;
        if (left == 0) delete this;
        return left;
    }
    STDMETHODIMP Callback(IUnknown*) override { return S_OK; }
    STDMETHODIMP CallbackWithData(IUnknown* object, VARIANT) override {
        // Touch the object as a client would.
        ComPtr<IDatabaseObject> node;
        if (object && SUCCEEDED(object->QueryInterface(IID_IDatabaseObject, node.put_void()))) {
            BSTR name = nullptr;
            node->get_Name(&name);
            SysFreeString(name);
        }
        if (delay_.count()) std::this_thread::sleep_for(delay_);
        return S_OK;
    }
    STDMETHODIMP GetCallbackFileName(BSTR* name) override {
        *name = SysAllocStringLen(u"stress.dat", 10);
        return S_OK;
    }

private:
    ~Sink() { --g_liveSinks; }
    std::atomic<ULONG> refs_{1};
    std::chrono::microseconds delay_;
};

struct Nodes {
    std::vector<ComPtr<IDatabaseObject>> all;
    std::vector<ComPtr<IParameterReal>> reals;
    std::vector<ComPtr<IParameterInteger>> integers;
    std::vector<ComPtr<IParameterBoolean>> booleans;
};

void Collect(IDatabaseObject* node, Nodes& nodes) {
    BSTR name = nullptr;
    node->get_FullName(&name);
    const bool file = name && std::u16string_view(name).find(u"File") != std::u16string_view::npos;
    SysFreeString(name);
    if (file) return;
    nodes.all.emplace_back(node);
    ComPtr<IGroup> group;
    if (SUCCEEDED(node->QueryInterface(IID_IGroup, group.put_void()))) {
        ComPtr<IEnumUnknown> children;
        if (FAILED(group->EnumObjects(children.put()))) return;
        IUnknown* child = nullptr;
        while (children->Next(1, &child, nullptr) == S_OK) {
            ComPtr<IUnknown> held = ComPtr<IUnknown>::adopt(child);
            ComPtr<IDatabaseObject> object;
            if (SUCCEEDED(held.As(&object))) Collect(object.get(), nodes);
        }
        return;
    }
    ComPtr<IParameterReal> real;
    ComPtr<IParameterInteger> integer;
    ComPtr<IParameterBoolean> boolean;
    if (SUCCEEDED(node->QueryInterface(IID_IParameterReal, real.put_void())))
        nodes.reals.push_back(real);
    else if (SUCCEEDED(node->QueryInterface(IID_IParameterInteger, integer.put_void())))
        nodes.integers.push_back(integer);
    else if (SUCCEEDED(node->QueryInterface(IID_IParameterBoolean, boolean.put_void())))
        nodes.booleans.push_back(boolean);
}

template <class T>
T& Pick(std::vector<T>& items, std::mt19937& rng) {
    return items[std::uniform_int_distribution<std::size_t>(0, items.size() - 1)(rng)];
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: stress_client SECONDS [SEED]\n");
        return 2;
    }
    const auto duration = std::chrono::seconds(std::atoi(argv[1]));
    const unsigned seed = argc > 2 ? static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10)) : 1u;
    std::atomic<long> writes{0}, registrations{0}, clears{0}, saves{0};
    {
        ComPtr<IDatabase> db;
        if (FAILED(CreateDatabase(IID_IDatabase, db.put_void()))) {
            std::fprintf(stderr, "stress_client: cannot create the database\n");
            return 1;
        }
        ComPtr<IRoot> root;
        db->get_Root(root.put());
        ComPtr<IDatabaseObject> rootNode;
        root.As(&rootNode);
        Nodes nodes;
        Collect(rootNode.get(), nodes);
        db->RestartNotifications();

        Sink* slow = new Sink(std::chrono::milliseconds(1));
        rootNode->RegisterNotification(slow);

        std::atomic<bool> stop{false};
        std::vector<std::thread> threads;
        for (unsigned w = 0; w < 3; ++w)
            threads.emplace_back([&, w] {
                std::mt19937 rng(seed * 31 + w);
                std::uniform_real_distribution<double> value(-1e9, 1e9);
                while (!stop) {
                    switch (rng() % 3) {
                        case 0:
                            Pick(nodes.reals, rng)->put_Value(value(rng));
                            break;
                        case 1:
                            Pick(nodes.integers, rng)->put_Value(rng() % 64);
                            break;
                        default:
                            Pick(nodes.booleans, rng)->put_Value(rng() % 2 ? VARIANT_TRUE : VARIANT_FALSE);
                            break;
                    }
                    ++writes;
                }
            });
        for (unsigned r = 0; r < 2; ++r)
            threads.emplace_back([&, r] {
                std::mt19937 rng(seed * 57 + r);
                std::vector<std::pair<ComPtr<IDatabaseObject>, Sink*>> held;
                while (!stop) {
                    if (held.size() < 8 || rng() % 2) {
                        ComPtr<IDatabaseObject> node = Pick(nodes.all, rng);
                        auto* sink = new Sink();
                        const bool immediate = rng() % 4 == 0;
                        if (immediate ? SUCCEEDED(node->RegisterImmediateNotification(sink))
                                      : SUCCEEDED(node->RegisterNotification(sink)))
                            held.emplace_back(node, sink);
                        // The registration holds the sink from here on, or
                        // nothing does and it goes.
                        sink->Release();
                        ++registrations;
                    } else {
                        const std::size_t at = rng() % held.size();
                        auto& [node, sink] = held[at];
                        // Either list: the other answers S_FALSE.
                        node->UnregisterNotification(sink);
                        node->UnregisterImmediateNotification(sink);
                        held.erase(held.begin() + static_cast<std::ptrdiff_t>(at));
                    }
                }
                for (auto& [node, sink] : held) {
                    node->UnregisterNotification(sink);
                    node->UnregisterImmediateNotification(sink);
                }
            });
        threads.emplace_back([&] {
            std::mt19937 rng(seed * 91);
            while (!stop) {
                switch (rng() % 4) {
                    case 0:
                        db->ClearCallbackQueue();
                        break;
                    case 1:
                        db->WaitForNotifications(5);
                        break;
                    case 2:
                        db->SuppressNotifications();
                        std::this_thread::sleep_for(std::chrono::microseconds(200));
                        db->RestartNotifications();
                        break;
                    default: {
                        ULONG size = 0;
                        db->GetQueueSize(&size);
                        ComPtr<IDatabaseObject> node = Pick(nodes.all, rng);
                        VARIANT_BOOL done = VARIANT_FALSE;
                        node->GetCallbackFinishStatus(&done);
                    }
                }
                ++clears;
                std::this_thread::sleep_for(std::chrono::microseconds(100));
            }
        });
        threads.emplace_back([&] {
            std::mt19937 rng(seed * 13);
            while (!stop) {
                ComPtr<IDatabaseObject> node = Pick(nodes.all, rng);
                ComPtr<IStream> stream;
                if (SUCCEEDED(CreateStreamOnHGlobal(nullptr, TRUE, stream.put())) &&
                    SUCCEEDED(node->Save(stream.get()))) {
                    LARGE_INTEGER start{};
                    stream->Seek(start, STREAM_SEEK_SET, nullptr);
                    node->Load(stream.get());
                }
                ++saves;
            }
        });

        std::this_thread::sleep_for(duration);
        stop = true;
        for (std::thread& t : threads) t.join();
        rootNode->UnregisterNotification(slow);
        slow->Release();
        ULONG depth = 0;
        db->GetQueueSize(&depth);
        std::printf("writes %ld, registrations %ld, queue operations %ld, saves and loads %ld, queued at the end %lu\n",
                    writes.load(), registrations.load(), clears.load(), saves.load(),
                    static_cast<unsigned long>(depth));
    }
    // The database is gone, or going: a callback still under way may hold a
    // node, and then the database goes when it returns, on the notification
    // thread. Every record's reference is released by then.
    for (int i = 0; i < 1000 && g_liveSinks != 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (g_liveSinks != 0) {
        std::fprintf(stderr, "stress_client: %ld sinks were never freed\n", g_liveSinks.load());
        return 1;
    }
    return 0;
}
