// The process-wide name map: full name of every tree object -> the object.
//
// CHashTable is a chained hash table keyed by wide names. It is filled once,
// during the first reset of the tree (under the database lock), and then
// frozen; a frozen table never changes, so IDatabase::GetObject and friends
// read it without a lock. Freezing frees the names of all single-node
// buckets, and a lookup takes the last node of a chain without comparing its
// name: an unknown name that lands in a non-empty bucket therefore resolves
// to that bucket's last object. Clients depend on this, so it stays; only an
// empty bucket reports "not found". The hash sees the exact characters (no
// case folding); names inside one chain are compared ignoring case.
//
// CMapNameToObject wraps the table. There is one per process, created by the
// first call of NameMap() and deleted by DeleteNameMap() at the final release
// of the database object; it is never created again after that (a process
// hosts one database object in its lifetime), and NameMap() returns null from
// then on. The map never owns or reference-counts the objects.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>
#include <vector>

#include "vorn/platform.h"

namespace vorn {

class CDatabaseObjectImpl;

class CHashTable {
public:
    // Makes the bucket array for about `requestedSize` names; the bucket
    // count is derived from requestedSize x 1.2 by BucketCountFor.
    // Throws ComError(E_INVALIDARG) for a size whose bucket count would not
    // fit 16 bits. A failed bucket allocation leaves the table without
    // buckets: lookups find nothing and inserts throw E_OUTOFMEMORY.
    explicit CHashTable(WORD requestedSize);
    CHashTable(const CHashTable&) = delete;
    CHashTable& operator=(const CHashTable&) = delete;
    virtual ~CHashTable();

    // The bucket count for a requested size: a search upward from
    // requestedSize x 1.2 whose divisor is not reset between candidates, kept
    // exactly as it has always been (4096 gives the prime 4919, 100 gives
    // 123, which is not prime).
    static DWORD BucketCountFor(WORD requestedSize) noexcept;
    // h = h x 33 + u over the 16-bit code units up to the terminator.
    static DWORD Hash(LPCWSTR name) noexcept;
    // The same, continued over `more` from the hash `h` of what precedes it:
    // HashOn(Hash(a), b) == Hash(a + b).
    static DWORD HashOn(DWORD h, std::u16string_view more) noexcept {
        for (const char16_t c : more) h = h * 33u + static_cast<DWORD>(c);
        return h;
    }

    DWORD BucketOf(LPCWSTR name) const noexcept { return BucketOfHash(Hash(name)); }
    DWORD BucketOfHash(DWORD hash) const noexcept { return (hash & 0xFFFFu) % bucketCount_; }
    WORD BucketCount() const noexcept { return bucketCount_; }
    // Nodes ever added (wraps at 65536).
    WORD EntryCount() const noexcept { return entryCount_; }
    bool IsFrozen() const noexcept { return frozen_ != 0; }

    // Enters name -> object, replacing the object of a node whose name equals
    // `name` ignoring case. Does nothing once frozen. Throws std::bad_alloc
    // or ComError(E_OUTOFMEMORY).
    void Insert(LPCWSTR name, CDatabaseObjectImpl* object);
    // Insert with the name's hash and length known (`name` is still
    // terminated).
    void Insert(std::u16string_view name, DWORD hash, CDatabaseObjectImpl* object);
    // The object for `name`, or null when its bucket is empty (see above).
    CDatabaseObjectImpl* Lookup(LPCWSTR name) const noexcept;
    // Forgets the names of single-node buckets (a lookup there takes the node
    // without comparing) and refuses further inserts.
    void Freeze() noexcept;

private:
    struct Node {
        CDatabaseObjectImpl* object;
        char16_t* name;  // in the table's blocks; null after Freeze in a single-node bucket
        Node* next;
    };

    // Memory for the nodes and their names, taken from blocks that live as
    // long as the table: the map holds some 13 000 names, and one allocation
    // for each name and each node cost the first reset a tenth of its time.
    class CBlocks {
    public:
        // `bytes` aligned for a pointer; throws std::bad_alloc.
        void* Take(std::size_t bytes);

    private:
        static constexpr std::size_t kBlockSize = std::size_t{64} << 10;
        std::vector<std::unique_ptr<std::byte[]>> blocks_;
        std::size_t used_ = kBlockSize;  // in the last block
    };

    DWORD frozen_ = 0;
    WORD bucketCount_ = 0;
    WORD entryCount_ = 0;
    Node** buckets_ = nullptr;
    CBlocks blocks_;
};

class CMapNameToObject {
public:
    static constexpr WORD kRequestedSize = 4096;

    CMapNameToObject();
    CMapNameToObject(const CMapNameToObject&) = delete;
    CMapNameToObject& operator=(const CMapNameToObject&) = delete;
    virtual ~CMapNameToObject();

    CDatabaseObjectImpl* Lookup(LPCWSTR name) const noexcept { return table_ ? table_->Lookup(name) : nullptr; }
    // A null object is ignored. The second form takes the name's hash
    // (CHashTable::Hash) and length, known to the caller; `name` is still
    // terminated.
    void Insert(LPCWSTR name, CDatabaseObjectImpl* object);
    void Insert(std::u16string_view name, DWORD hash, CDatabaseObjectImpl* object);
    void Freeze() noexcept {
        if (table_) table_->Freeze();
    }
    bool IsFrozen() const noexcept { return table_ && table_->IsFrozen(); }
    const CHashTable* Table() const noexcept { return table_; }

private:
    CHashTable* table_;
};

// The process-wide map: created on the first call, null after DeleteNameMap.
// Throws std::bad_alloc if the map cannot be made.
CMapNameToObject* NameMap();
// Deletes the process-wide map for good (final release of the database).
void DeleteNameMap() noexcept;

}  // namespace vorn
