// The object tree without a database object: path lookup, faces, sink
// lists, group reset and dependency propagation. Names, parents and child
// lists are walked over the whole real tree by tests/schema.
#include <tuple>
#include <utility>
#include <vector>

#include "core/CoreTestSupport.h"
#include "core/HashTable.h"

using namespace vorn;
using namespace vorn::test;

// FindObject walks relative paths ignoring case; a component that names a
// leaf cannot be walked into. A group of this layer has no settings record,
// so no stream face; without a database owner, node references count nothing.
TEST(ObjectTree, FindObjectFacesAndReferencesWithoutAnOwner) {
    CTestRoot root;
    using Found = std::vector<CDatabaseObjectImpl*>;
    EXPECT_EQ((Found{root.FindObject(""), root.FindObject(nullptr), root.FindObject("noisefreqtablepreset[1].ALPHA"),
                     root.FindObject("Settings"), root.FindObject("Gain.Alpha"),
                     root.FindObject("NoiseFreqTablePreset"), root.FindObject("Settings.Gamma")}),
              (Found{&root, &root, &root.table[1].alpha, &root.settings, nullptr, nullptr, nullptr}));
    void* persist = &root;
    EXPECT_EQ(root.QueryInterface(IID_IPersistStream, &persist), E_NOINTERFACE);
    EXPECT_EQ(persist, nullptr);
    void* none = &root;
    EXPECT_EQ(root.gain.QueryInterface(IID_IGroup, &none), E_NOINTERFACE);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ((std::pair{root.gain.AddRef(), root.gain.Release()}), std::pair(1u, 1u));
}

TEST(ObjectTree, SinkListsRefuseDuplicatesAndCountReferences) {
    CTestRoot root;
    CountingSink sink;
    CTestLeaf& leaf = root.settings.alpha;
    CountingSink stranger;
    EXPECT_EQ((Results{leaf.RegisterNotification(&sink), leaf.RegisterNotification(&sink)}), (Results{S_OK, E_FAIL}));
    EXPECT_EQ(sink.refs, 2);
    EXPECT_EQ((Results{leaf.RegisterImmediateNotification(&sink), leaf.RegisterNotification(nullptr),
                       leaf.UnregisterNotification(nullptr), leaf.UnregisterImmediateNotification(&stranger),
                       leaf.UnregisterNotification(&stranger)}),
              (Results{S_OK, E_INVALIDARG, E_INVALIDARG, S_FALSE, S_FALSE}));
    EXPECT_EQ(std::pair(sink.refs.load(), stranger.refs.load()), std::pair(3, 1));
    EXPECT_EQ((Results{leaf.UnregisterImmediateNotification(&sink), leaf.UnregisterNotification(&sink),
                       leaf.UnregisterNotification(&sink)}),
              (Results{S_OK, S_OK, S_FALSE}));
    EXPECT_EQ(sink.refs, 1);

    // The lists' references go with the node.
    {
        CTestLeaf temporary;
        temporary.RegisterNotification(&sink);
        temporary.RegisterImmediateNotification(&sink);
        EXPECT_EQ(sink.refs, 3);
    }
    EXPECT_EQ(sink.refs, 1);
    EXPECT_EQ(sink.overReleases, 0);
}

TEST(ObjectTree, FirstResetEntersEveryFullNameAndAFailingChildStopsTheWalk) {
    CTestRoot root;
    ASSERT_EQ(root.Reset(), S_OK);
    EXPECT_TRUE(root.HoldsDefaults());
    CMapNameToObject* map = NameMap();
    for (CDatabaseObjectImpl* node : root.AllNodes()) {
        EXPECT_EQ(map->Lookup(node->FullNameW().c_str()), node) << node->FullName();
        if (auto* leaf = dynamic_cast<CTestLeaf*>(node)) {
            EXPECT_EQ(leaf->resets, 1);
        }
    }

    CTestRoot failing;
    failing.table[1].alpha.resetResult = E_ABORT;
    EXPECT_EQ(failing.Reset(), E_ABORT);
    EXPECT_FALSE(failing.HoldsDefaults());
    EXPECT_EQ(std::tuple(failing.table[0].beta.resets, failing.table[1].beta.resets, failing.gain.resets),
              std::tuple(1, 0, 0));
}

TEST(ObjectTree, ResetPutValueVisitsEachDependantOnceAlongCyclesAndAncestors) {
    CTestRoot root;
    CTestLeaf& alpha = root.settings.alpha;
    CTestLeaf& beta = root.settings.beta;
    // beta.AddDependant(&alpha) makes a cycle back to the source.
    EXPECT_EQ((Results{alpha.AddDependant(&beta), beta.AddDependant(&alpha), alpha.AddDependant(&beta),
                       alpha.AddDependant(nullptr)}),
              (Results{S_OK, S_OK, E_FAIL, E_INVALIDARG}));
    // beta carries on to table[0].alpha, which does not carry on further.
    beta.AddDependant(&root.table[0].alpha);
    root.table[0].alpha.travels = false;
    root.table[0].alpha.AddDependant(&root.table[0].beta);
    // Dependants of an ancestor hear of the change with the ancestor as source.
    root.settings.AddDependant(&root.gain);
    root.AddDependant(&beta);
    // Secondary dependants are recalculated once, unless already visited.
    root.AddSecondaryDependant(&root.table[1].alpha);
    root.settings.AddSecondaryDependant(&root.table[1].alpha);
    alpha.AddSecondaryDependant(&beta);

    EXPECT_EQ(alpha.ResetPutValue(), S_OK);
    EXPECT_EQ(alpha.resets, 1);
    using Sources = std::vector<std::vector<CDatabaseObjectImpl*>>;
    EXPECT_EQ((Sources{beta.changedBy, alpha.changedBy, root.table[0].alpha.changedBy, root.table[0].beta.changedBy,
                       root.gain.changedBy, root.table[1].alpha.recalculated, beta.recalculated}),
              (Sources{{&alpha}, {}, {&beta}, {}, {&root.settings}, {&root.settings}, {}}));

    // A failing reset propagates nothing.
    CTestLeaf& gain = root.gain;
    gain.resetResult = E_ABORT;
    gain.AddDependant(&root.table[2].beta);
    EXPECT_EQ(gain.ResetPutValue(), E_ABORT);
    EXPECT_TRUE(root.table[2].beta.changedBy.empty());
}
