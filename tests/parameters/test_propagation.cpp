// The change path as clients observe it: the order of sink calls (the
// parameter's own sinks with its value, then each ancestor's with that
// ancestor's own data, empty for these groups) interleaved with the
// depth-first dependency propagation through the tree, the visited list that
// handles each object once (cycles end), the recalculation list whose members
// do not pass a change on, and queued delivery with each sink's own data.
#include <initializer_list>

#include "ParameterTestTree.h"

namespace vorn::test {
namespace {

constexpr SDefaultsRealValue kZero{.unit = eUNIT_NONE, .value = 0.0};
constexpr SDefaultsRealValueMinMax kLimited{.unit = eUNIT_DB, .value = 5.0, .minimum = 0.0, .maximum = 75.0};

// root
//   g1: src (plain real), r1 (+1), set (real setting)
//   g2: r3 (+100), r5 (+1000), r6 (+10000)
//   r2 (+10)
// The sinks come before the tree, which releases them when it goes.
class Propagation : public NotifyingTest {
protected:
    Propagation() {
        root_.SetName(nullptr, -1, -1, nullptr);
        root_.Add(g1_, "g1");
        root_.Add(g2_, "g2");
        root_.Add(r2_, "r2");
        root_.Add(a_, "a");
        root_.Add(b_, "b");
        root_.Add(w_, "w");
        g1_.Add(src_, "src");
        g1_.Add(r1_, "r1");
        g1_.Add(set_, "set");
        g2_.Add(r3_, "r3");
        g2_.Add(r5_, "r5");
        g2_.Add(r6_, "r6");
        for (CParameter* p : std::initializer_list<CParameter*>{&src_, &r1_, &r2_, &r3_, &r5_, &r6_, &a_, &b_, &w_})
            p->SetDefaults(&kZero);
        set_.SetDefaults(&kLimited);
    }

    void SetUp() override {
        NotifyingTest::SetUp();
        ASSERT_EQ((Results{root_.Reset(), root_.RegisterImmediateNotification(&top_)}), Results(2, S_OK));
        log_.Take();
    }

    CRecordingSink top_{log_, "top"}, s_{log_, "s"}, g_{log_, "g"}, q_{log_, "q"};
    CTestGroup root_, g1_, g2_;
    CParameterReal src_, w_;
    CParameterRealSetting set_;
    CRecordingRule r1_{log_, 1}, r2_{log_, 10}, r3_{log_, 100}, r5_{log_, 1000}, r6_{log_, 10000}, a_{log_, 1},
        b_{log_, 1};
};

TEST_F(Propagation, DepthFirstThroughDependantsAndAncestorsThenRecalculationList) {
    ASSERT_EQ(
        (Results{src_.AddDependant(&r1_), src_.AddDependant(&r2_), r1_.AddDependant(&r3_), g2_.AddDependant(&r2_),
                 src_.AddSecondaryDependant(&r5_), r5_.AddDependant(&r6_), src_.RegisterImmediateNotification(&s_),
                 g2_.RegisterImmediateNotification(&g_), r5_.RegisterImmediateNotification(&q_)}),
        Results(9, S_OK));

    ASSERT_EQ(src_.put_Value(1.0), S_OK);
    // r2 is reached first through r3's ancestor g2 and is then not handled
    // again from src's own list; r5 is recalculated last and r6, its
    // dependant, never hears of it.
    EXPECT_EQ(log_.Take(), (Events{"s:src=1", "top:src=empty",                  //
                                   "dep r1(src)", "top:r1=empty",               //
                                   "dep r3(r1)", "g:r3=empty", "top:r3=empty",  //
                                   "dep r2(g2)",                                //
                                   "recalc r5(src)", "q:r5=1001", "g:r5=empty", "top:r5=empty"}));
    EXPECT_EQ(r1_.Value(), 2.0);
    EXPECT_EQ(r3_.Value(), 102.0);
    EXPECT_EQ(r2_.Value(), 0.0);
    EXPECT_EQ(r6_.Value(), 0.0);
}

TEST_F(Propagation, CycleEndsWithEachRuleHandledOnce) {
    ASSERT_EQ((Results{w_.AddDependant(&a_), a_.AddDependant(&b_), b_.AddDependant(&a_)}), Results(3, S_OK));

    EXPECT_EQ(Told(w_.put_Value(1.0)),
              std::pair(S_OK, Events{"top:w=empty", "dep a(w)", "top:a=empty", "dep b(a)", "top:b=empty"}));
    EXPECT_EQ(a_.Value(), 2.0);
    EXPECT_EQ(b_.Value(), 3.0);

    // Written directly, a is in the visited list from the start: b hears of
    // it once, and b's change does not come back to a.
    EXPECT_EQ(Told(a_.put_Value(7.0)), std::pair(S_OK, Events{"top:a=empty", "dep b(a)", "top:b=empty"}));
    EXPECT_EQ(b_.Value(), 8.0);
}

TEST_F(Propagation, AGroupsDependantsHearOfEachMembersChange) {
    // Neither set nor its siblings have dependants of their own.
    ASSERT_EQ((Results{g1_.AddDependant(&r3_), g1_.AddSecondaryDependant(&r5_)}), Results(2, S_OK));
    EXPECT_EQ(Told(set_.put_Value(6.0)), std::pair(S_OK, Events{"top:set=empty", "dep r3(g1)", "recalc r5(g1)"}));
}

// An unchanged setting and a failed write tell nobody; Reset propagates only
// through ResetPutValue; the AssignValue flags select check, notification
// and propagation.
TEST_F(Propagation, WhichWritesNotifyAndPropagate) {
    ASSERT_EQ((Results{set_.AddDependant(&r1_), set_.put_Value(5.0)}), (Results{S_OK, S_FALSE}));
    EXPECT_EQ(Told(set_.put_Value(80.0)), std::pair(E_INVALIDARG, Events{}));
    EXPECT_EQ(Told(set_.put_Value(6.0)), std::pair(S_OK, Events{"top:set=empty", "dep r1(set)", "top:r1=empty"}));
    EXPECT_EQ(Told(set_.Reset()), std::pair(S_OK, Events{"top:set=empty"}));
    ASSERT_EQ(set_.put_Value(6.0), S_OK);
    log_.Take();
    EXPECT_EQ(Told(set_.ResetPutValue()), std::pair(S_OK, Events{"top:set=empty", "dep r1(set)", "top:r1=empty"}));

    // 1: checked and told, not propagated.
    EXPECT_EQ(Told(set_.AssignValue(7.0, 1)), std::pair(S_OK, Events{"top:set=empty"}));
    EXPECT_EQ(set_.AssignValue(80.0, 1), E_INVALIDARG);
    // 2: unchecked and silent, but propagated: the limits do not apply.
    EXPECT_EQ(Told(set_.AssignValue(80.0, 2)), std::pair(S_OK, Events{"dep r1(set)", "top:r1=empty"}));
    EXPECT_EQ(r1_.Value(), 81.0);
    EXPECT_EQ(State(set_), "80 valid 80");
    // 3: as put_Value; the range check comes before the equality test.
    EXPECT_EQ(set_.AssignValue(80.0, 3), E_INVALIDARG);
    EXPECT_EQ(Told(set_.AssignValue(8.0, 3)), std::pair(S_OK, Events{"top:set=empty", "dep r1(set)", "top:r1=empty"}));
    // 0 on an invalid parameter: valid again, nobody told.
    ASSERT_EQ(set_.put_Status(eSTATUS_INVALID), S_OK);
    log_.Take();
    EXPECT_EQ(Told(set_.AssignValue(9.0, 0)), std::pair(S_OK, Events{}));
    EXPECT_EQ(State(set_), "9 valid 9");
    // Other bits are not read.
    EXPECT_EQ(Told(set_.AssignValue(10.0, 0xFFFFFFFCu)), std::pair(S_OK, Events{}));
}

TEST_F(Propagation, QueuedSinksGetTheDataOfTheNodeTheyAreRegisteredOn) {
    CRecordingSink onParameter(log_, "qp"), onGroup(log_, "qg");
    ASSERT_EQ((Results{src_.RegisterNotification(&onParameter), g1_.RegisterNotification(&onGroup), src_.put_Value(1.0),
                       src_.put_Value(2.0)}),
              Results(4, S_OK));
    FlushNotifications();
    // Queued records arrive in order, two changes two callbacks; the group's
    // sink gets the group's (empty) data.
    Events queued;
    for (std::string& event : log_.Take())
        if (event.rfind("top:", 0) != 0) queued.push_back(std::move(event));
    EXPECT_EQ(queued, (Events{"qp:src=1", "qg:src=empty", "qp:src=2", "qg:src=empty"}));
    EXPECT_EQ(src_.UnregisterNotification(&onParameter), S_OK);
    EXPECT_EQ(g1_.UnregisterNotification(&onGroup), S_OK);
    EXPECT_EQ(onParameter.References(), 1u);
}

}  // namespace
}  // namespace vorn::test
