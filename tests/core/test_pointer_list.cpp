// CPointerList: exact growth, duplicate refusal, order-keeping removal.
#include <gtest/gtest.h>

#include <vector>

#include "core/PointerList.h"

using vorn::CPointerList;

namespace {

std::vector<void*> ItemsOf(const CPointerList& list) {
    std::vector<void*> items;
    if (void* const* p = list.Items())
        for (; *p; ++p) items.push_back(*p);
    return items;
}

}  // namespace

TEST(PointerList, AddRefusesDuplicatesRemoveKeepsOrderAndTheLastRemovalFreesTheArray) {
    int a = 0, b = 0, c = 0;
    vorn::CTypedPointerList<int> list;
    EXPECT_EQ(list.Items(), nullptr);
    EXPECT_EQ(list.Add(&a), CPointerList::kOk);
    EXPECT_EQ(list.Add(&b), CPointerList::kOk);
    EXPECT_EQ(list.Add(&a), CPointerList::kDuplicate);
    EXPECT_EQ(list.Add(&c), CPointerList::kOk);
    EXPECT_EQ(ItemsOf(list), (std::vector<void*>{&a, &b, &c}));
    EXPECT_EQ(list.Items()[3], nullptr);
    EXPECT_EQ(list.Remove(&b), CPointerList::kOk);
    EXPECT_EQ(list.Remove(&b), CPointerList::kAbsent);
    EXPECT_EQ(ItemsOf(list), (std::vector<void*>{&a, &c}));
    EXPECT_FALSE(list.Contains(&b));
    EXPECT_TRUE(list.Contains(&c));
    EXPECT_EQ(list.Remove(&a), CPointerList::kOk);
    EXPECT_EQ(list.Remove(&c), CPointerList::kOk);
    EXPECT_EQ(list.Items(), nullptr);
    EXPECT_EQ(list.Count(), 0u);
    // Removed items may come back; RemoveAll forgets everything.
    EXPECT_EQ(list.Add(&b), CPointerList::kOk);
    int visits = 0;
    for (int* p : list) {
        EXPECT_EQ(p, &b);
        ++visits;
    }
    EXPECT_EQ(visits, 1);
    list.RemoveAll();
    EXPECT_EQ(list.Items(), nullptr);
    EXPECT_FALSE(list.Contains(&b));
}
