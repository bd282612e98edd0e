// The name map's hash table: bucket count, hash, chain lookup and freezing.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>

#include "core/CoreTestSupport.h"
#include "core/HashTable.h"

using vorn::CDatabaseObjectImpl;
using vorn::CHashTable;
using vorn::test::Collider;

namespace {

// Distinct fake object addresses; the table never dereferences them.
CDatabaseObjectImpl* Obj(std::uintptr_t n) { return reinterpret_cast<CDatabaseObjectImpl*>(n * 16); }

}  // namespace

// The bucket count keeps its divisor running across candidates: 100 gives
// 123 = 3 x 41. The hash sees the exact code units.
TEST(HashTable, BucketCountAndHash) {
    EXPECT_EQ(std::tuple(CHashTable::BucketCountFor(4096), CHashTable::BucketCountFor(100)), std::tuple(4919u, 123u));
    EXPECT_EQ(std::tuple(CHashTable(4096).BucketCount(), CHashTable(100).BucketCount()), std::tuple(4919, 123));
    EXPECT_EQ(CHashTable::Hash(u"A"), 65u);
    EXPECT_EQ(CHashTable::Hash(u"AB"), 65u * 33u + 66u);
    EXPECT_EQ(CHashTable(4096).BucketOf(u"AB"), 2211u);
    // Code units above 0xFF count with their full value, and the 32-bit sum wraps.
    EXPECT_EQ(CHashTable::Hash(u"\u20AC"), 0x20ACu);
    DWORD h = 0;
    for (char16_t c : std::u16string(u"MeasurementSettings.SignalFrequency")) h = h * 33u + c;
    EXPECT_EQ(CHashTable::Hash(u"MeasurementSettings.SignalFrequency"), h);
}

TEST(HashTable, InsertReplacesAKnownNameButKeepsCaseVariantsApart) {
    CHashTable table(4096);
    table.Insert(u"X", Obj(1));
    table.Insert(u"x", Obj(2));
    table.Insert(u"X", Obj(3));
    EXPECT_EQ(std::tuple(table.EntryCount(), table.Lookup(u"X"), table.Lookup(u"x")), std::tuple(2, Obj(3), Obj(2)));
}

TEST(HashTable, LookupTakesTheLastNodeOfAChainWithoutComparing) {
    CHashTable table(4096);
    table.Insert(u"Settings.Alpha", Obj(1));
    const std::u16string second = Collider(table, u"Settings.Alpha");
    table.Insert(second.c_str(), Obj(2));
    EXPECT_EQ(std::tuple(table.EntryCount(), table.Lookup(u"Settings.Alpha"), table.Lookup(second.c_str())),
              std::tuple(2, Obj(1), Obj(2)));
    // An unknown name in that bucket resolves to the chain's last object.
    const std::u16string unknown = Collider(table, second, u"Unknown");
    EXPECT_EQ(table.Lookup(unknown.c_str()), Obj(2));
    // Only an empty bucket reports "not found".
    const std::u16string elsewhere = u"Y";
    ASSERT_NE(table.BucketOf(elsewhere.c_str()), table.BucketOf(second.c_str()));
    EXPECT_EQ(table.Lookup(elsewhere.c_str()), nullptr);
}

TEST(HashTable, FreezeKeepsChainNamesAndRefusesInserts) {
    CHashTable table(100);
    table.Insert(u"Single", Obj(1));
    table.Insert(u"First", Obj(2));
    const std::u16string second = Collider(table, u"First");
    table.Insert(second.c_str(), Obj(3));
    ASSERT_NE(table.BucketOf(u"Single"), table.BucketOf(u"First"));
    table.Freeze();
    EXPECT_TRUE(table.IsFrozen());

    // A single-node bucket has no name left: any name hashing there finds it.
    EXPECT_EQ(table.Lookup(Collider(table, u"Single").c_str()), Obj(1));
    // A longer chain still tells its names apart.
    EXPECT_EQ(std::tuple(table.Lookup(u"First"), table.Lookup(second.c_str())), std::tuple(Obj(2), Obj(3)));

    const WORD entries = table.EntryCount();
    table.Insert(u"Single", Obj(9));
    table.Insert(u"Later", Obj(9));
    EXPECT_EQ(std::tuple(table.EntryCount(), table.Lookup(u"Single")), std::tuple(entries, Obj(1)));
}

TEST(NameMap, IgnoresNullObjectsAndIsGoneForGoodOnceDeleted) {
    vorn::CMapNameToObject* map = vorn::NameMap();
    ASSERT_NE(map, nullptr);
    EXPECT_EQ(vorn::NameMap(), map);
    map->Insert(u"Nothing", nullptr);
    EXPECT_EQ(std::tuple(map->Table()->EntryCount(), map->Table()->BucketCount()), std::tuple(0, 4919));
    vorn::DeleteNameMap();
    EXPECT_EQ(vorn::NameMap(), nullptr);
}
