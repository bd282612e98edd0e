// The object tree without a database object: path lookup, faces, sink
// lists, group reset and dependency propagation. Names, parents and child
// lists are walked over the whole real tree by tests/schema.
#include "core/CoreTestSupport.h"
#include "core/HashTable.h"

using namespace vorn;
using namespace vorn::test;

TEST(ObjectTree, FindObjectWalksRelativePathsIgnoringCase) {
    CTestRoot root;
    EXPECT_EQ(root.FindObject(""), &root);
    EXPECT_EQ(root.FindObject(nullptr), &root);
    EXPECT_EQ(root.FindObject("noisefreqtablepreset[1].ALPHA"), &root.table[1].alpha);
    EXPECT_EQ(root.FindObject("Settings"), &root.settings);
    // A component that names a leaf cannot be walked into.
    EXPECT_EQ(root.FindObject("Gain.Alpha"), nullptr);
    EXPECT_EQ(root.FindObject("NoiseFreqTablePreset"), nullptr);
    EXPECT_EQ(root.FindObject("Settings.Gamma"), nullptr);
}

TEST(ObjectTree, FacesOfThisLayerAndReferencesWithoutAnOwner) {
    CTestRoot root;
    // A group of this layer has no settings record, so no stream face.
    void* persist = &root;
    EXPECT_EQ(root.QueryInterface(IID_IPersistStream, &persist), E_NOINTERFACE);
    EXPECT_EQ(persist, nullptr);
    void* none = &root;
    EXPECT_EQ(root.gain.QueryInterface(IID_IGroup, &none), E_NOINTERFACE);
    EXPECT_EQ(none, nullptr);
    // Without a database owner, node references count nothing.
    EXPECT_EQ(root.gain.AddRef(), 1u);
    EXPECT_EQ(root.gain.Release(), 1u);
}

TEST(ObjectTree, SinkListsRefuseDuplicatesAndCountReferences) {
    CTestRoot root;
    CountingSink sink;
    CTestLeaf& leaf = root.settings.alpha;
    EXPECT_EQ(leaf.RegisterNotification(&sink), S_OK);
    EXPECT_EQ(leaf.RegisterNotification(&sink), E_FAIL);
    EXPECT_EQ(sink.refs, 2);
    EXPECT_EQ(leaf.RegisterImmediateNotification(&sink), S_OK);
    EXPECT_EQ(sink.refs, 3);
    EXPECT_EQ(leaf.RegisterNotification(nullptr), E_INVALIDARG);
    EXPECT_EQ(leaf.UnregisterNotification(nullptr), E_INVALIDARG);

    CountingSink stranger;
    EXPECT_EQ(leaf.UnregisterImmediateNotification(&stranger), S_FALSE);
    EXPECT_EQ(leaf.UnregisterNotification(&stranger), S_FALSE);
    EXPECT_EQ(stranger.refs, 1);

    EXPECT_EQ(leaf.UnregisterImmediateNotification(&sink), S_OK);
    EXPECT_EQ(leaf.UnregisterNotification(&sink), S_OK);
    EXPECT_EQ(leaf.UnregisterNotification(&sink), S_FALSE);
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
    EXPECT_EQ(failing.table[1].beta.resets, 0);
    EXPECT_EQ(failing.gain.resets, 0);
    EXPECT_EQ(failing.table[0].beta.resets, 1);
}

TEST(ObjectTree, ResetPutValueVisitsEachDependantOnceAlongCyclesAndAncestors) {
    CTestRoot root;
    CTestLeaf& alpha = root.settings.alpha;
    CTestLeaf& beta = root.settings.beta;
    ASSERT_EQ(alpha.AddDependant(&beta), S_OK);
    ASSERT_EQ(beta.AddDependant(&alpha), S_OK);  // a cycle back to the source
    EXPECT_EQ(alpha.AddDependant(&beta), E_FAIL);
    EXPECT_EQ(alpha.AddDependant(nullptr), E_INVALIDARG);
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
    EXPECT_EQ(beta.changedBy, std::vector<CDatabaseObjectImpl*>{&alpha});
    EXPECT_TRUE(alpha.changedBy.empty());
    EXPECT_EQ(root.table[0].alpha.changedBy, std::vector<CDatabaseObjectImpl*>{&beta});
    EXPECT_TRUE(root.table[0].beta.changedBy.empty());
    EXPECT_EQ(root.gain.changedBy, std::vector<CDatabaseObjectImpl*>{&root.settings});
    EXPECT_EQ(root.table[1].alpha.recalculated, std::vector<CDatabaseObjectImpl*>{&root.settings});
    EXPECT_TRUE(beta.recalculated.empty());

    // A failing reset propagates nothing.
    CTestLeaf& gain = root.gain;
    gain.resetResult = E_ABORT;
    gain.AddDependant(&root.table[2].beta);
    EXPECT_EQ(gain.ResetPutValue(), E_ABORT);
    EXPECT_TRUE(root.table[2].beta.changedBy.empty());
}
