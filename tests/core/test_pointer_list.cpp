// CPointerList: exact growth, duplicate refusal, order-keeping removal.
#include <gtest/gtest.h>

#include <utility>
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
    using Results = std::vector<int>;
    EXPECT_EQ(list.Items(), nullptr);
    EXPECT_EQ((Results{list.Add(&a), list.Add(&b), list.Add(&a), list.Add(&c)}),
              (Results{CPointerList::kOk, CPointerList::kOk, CPointerList::kDuplicate, CPointerList::kOk}));
    EXPECT_EQ(ItemsOf(list), (std::vector<void*>{&a, &b, &c}));
    EXPECT_EQ(list.Items()[3], nullptr);
    EXPECT_EQ((Results{list.Remove(&b), list.Remove(&b)}), (Results{CPointerList::kOk, CPointerList::kAbsent}));
    EXPECT_EQ(ItemsOf(list), (std::vector<void*>{&a, &c}));
    EXPECT_EQ(std::pair(list.Contains(&b), list.Contains(&c)), std::pair(false, true));
    EXPECT_EQ((Results{list.Remove(&a), list.Remove(&c)}), (Results{CPointerList::kOk, CPointerList::kOk}));
    EXPECT_EQ(std::pair(list.Items(), list.Count()), std::pair(static_cast<void* const*>(nullptr), ULONG{0}));
    // Removed items may come back; RemoveAll forgets everything.
    EXPECT_EQ(list.Add(&b), CPointerList::kOk);
    std::vector<int*> visited;
    for (int* p : list) visited.push_back(p);
    EXPECT_EQ(visited, std::vector<int*>{&b});
    list.RemoveAll();
    EXPECT_EQ(std::pair(list.Items(), list.Contains(&b)), std::pair(static_cast<void* const*>(nullptr), false));
}
