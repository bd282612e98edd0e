// Many client threads against one database while the notification thread
// delivers: writers, (un)registering threads, a waiter and a queue clearer.
// Run under the tsan preset it must stay free of data races; in every preset
// each sink must end with exactly the reference it started with.
#include <chrono>
#include <thread>

#include "core/CoreTestSupport.h"

using namespace vorn;
using namespace vorn::test;

namespace {

// A small deterministic generator per thread.
struct Lcg {
    explicit Lcg(unsigned seed) : state(seed) {}
    unsigned Next(unsigned bound) {
        state = state * 1664525u + 1013904223u;
        return (state >> 8) % bound;
    }
    unsigned state;
};

}  // namespace

TEST(Stress, ConcurrentClientsLeaveNoRaceAndBalancedSinkReferences) {
    constexpr int kSinks = 6;
    constexpr auto kDuration = std::chrono::milliseconds(1500);
    CountingSink sinks[kSinks];
    int delivered = 0;
    {
        CTestRoot* root = nullptr;
        ComPtr<IDatabase> db = MakeDatabase(&root);
        ASSERT_TRUE(db);
        db->RestartNotifications();
        std::vector<CDatabaseObjectImpl*> nodes = root->AllNodes();
        nodes.push_back(root);
        for (int i = 0; i < kSinks; ++i) nodes[static_cast<std::size_t>(i)]->RegisterNotification(&sinks[i]);

        std::atomic<bool> stop{false};
        std::atomic<int> waits{0}, clears{0};
        std::vector<std::thread> threads;
        for (unsigned w = 0; w < 3; ++w) {
            threads.emplace_back([&, w] {
                Lcg rng(w + 1);
                while (!stop) Change(*nodes[rng.Next(static_cast<unsigned>(nodes.size()))]);
            });
        }
        for (unsigned r = 0; r < 2; ++r) {
            threads.emplace_back([&, r] {
                Lcg rng(100 + r);
                while (!stop) {
                    CDatabaseObjectImpl* node = nodes[rng.Next(static_cast<unsigned>(nodes.size()))];
                    CountingSink* sink = &sinks[rng.Next(kSinks)];
                    switch (rng.Next(4)) {
                        case 0:
                            node->RegisterNotification(sink);
                            break;
                        case 1:
                            node->UnregisterNotification(sink);
                            break;
                        case 2:
                            node->RegisterImmediateNotification(sink);
                            break;
                        default:
                            node->UnregisterImmediateNotification(sink);
                            break;
                    }
                }
            });
        }
        threads.emplace_back([&] {
            while (!stop) {
                const HRESULT hr = db->WaitForNotifications(5);
                EXPECT_TRUE(hr == S_OK || hr == E_ABORT) << std::hex << hr;
                ++waits;
            }
        });
        threads.emplace_back([&] {
            Lcg rng(7);
            while (!stop) {
                std::this_thread::sleep_for(std::chrono::microseconds(500));
                ULONG size = 0;
                db->GetQueueSize(&size);
                if (rng.Next(4) == 0) {
                    db->SuppressNotifications();
                    db->RestartNotifications();
                }
                db->ClearCallbackQueue();
                ++clears;
            }
        });
        std::this_thread::sleep_for(kDuration);
        stop = true;
        for (std::thread& t : threads) t.join();
        EXPECT_GT(waits, 0);
        EXPECT_GT(clears, 0);

        // Registrations left by the threads go with the tree; records left in
        // the queue are delivered when the database's final release joins
        // the notification thread.
        for (CountingSink& sink : sinks) delivered += sink.calls;
    }
    EXPECT_GT(delivered, 0);
    for (CountingSink& sink : sinks) {
        EXPECT_EQ(sink.refs, 1);
        EXPECT_EQ(sink.overReleases, 0);
    }
}
