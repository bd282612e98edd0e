// CHashTable and CMapNameToObject: see HashTable.h.
#include "core/HashTable.h"

#include <atomic>
#include <cstring>
#include <mutex>
#include <new>

#include "core/ComError.h"

namespace vorn {

DWORD CHashTable::BucketCountFor(WORD requestedSize) noexcept {
    // The divisor d runs on across candidates instead of restarting at 2, so
    // a candidate is only tested against divisors above those already used.
    DWORD c = static_cast<DWORD>(requestedSize * 1.2);
    DWORD d = 1;
    DWORD e = c + 1;
    bool composite = false;
    do {
        composite = false;
        while (d != e) {
            if (c % d == 0 && d != c && d != 1) composite = true;
            ++d;
            if (composite) break;
        }
        if (composite) {
            c = e;
            e = e + 1;
        }
    } while (d != e);
    return c;
}

DWORD CHashTable::Hash(LPCWSTR name) noexcept {
    DWORD h = 0;
    if (name)
        for (; *name; ++name) h = h * 33u + static_cast<DWORD>(*name);
    return h;
}

CHashTable::CHashTable(WORD requestedSize) {
    const DWORD count = BucketCountFor(requestedSize);
    if (count == 0 || count > 0xFFFFu) ThrowHr(E_INVALIDARG, "hash table size out of range");
    bucketCount_ = static_cast<WORD>(count);
    buckets_ = new (std::nothrow) Node*[count]();
}

// The nodes and names go with their blocks.
CHashTable::~CHashTable() { delete[] buckets_; }

void* CHashTable::CBlocks::Take(std::size_t bytes) {
    bytes = (bytes + alignof(Node) - 1) / alignof(Node) * alignof(Node);
    if (bytes > kBlockSize / 4) {  // a long name: a block of its own, kept ahead of the one being filled
        blocks_.insert(blocks_.begin(), std::unique_ptr<std::byte[]>(new std::byte[bytes]));
        return blocks_.front().get();
    }
    if (kBlockSize - used_ < bytes) {
        blocks_.push_back(std::unique_ptr<std::byte[]>(new std::byte[kBlockSize]));
        used_ = 0;
    }
    void* taken = blocks_.back().get() + used_;
    used_ += bytes;
    return taken;
}

namespace {

// lstrcmpiW(stored, name) == 0, with the common case inline: names of one
// chain mostly share a long prefix and differ in ASCII letters, and the
// runtime's comparison folds every character through a call.
bool SameName(const char16_t* stored, LPCWSTR name) noexcept {
    if (!stored) return false;
    if (!name) name = u"";
    auto lower = [](char16_t c) { return c >= u'A' && c <= u'Z' ? static_cast<char16_t>(c + 32) : c; };
    for (;; ++stored, ++name) {
        const char16_t a = *stored;
        const char16_t b = *name;
        if (a == b) {
            if (a == 0) return true;
            continue;
        }
        if (a >= 0x80 || b >= 0x80) return lstrcmpiW(stored, name) == 0;
        if (lower(a) != lower(b)) return false;
    }
}

}  // namespace

void CHashTable::Insert(LPCWSTR name, CDatabaseObjectImpl* object) {
    const std::u16string_view text = name ? std::u16string_view(name) : std::u16string_view(u"");
    Insert(text, Hash(name), object);
}

void CHashTable::Insert(std::u16string_view name, DWORD hash, CDatabaseObjectImpl* object) {
    if (frozen_) return;
    if (!buckets_) ThrowHr(E_OUTOFMEMORY, "name map has no buckets");
    Node** link = &buckets_[BucketOfHash(hash)];
    for (Node* node = *link; node; node = node->next) {
        if (SameName(node->name, name.data())) {
            node->object = object;
            return;
        }
        link = &node->next;
    }
    auto* copy = static_cast<char16_t*>(blocks_.Take((name.size() + 1) * sizeof(char16_t)));
    if (!name.empty()) std::memcpy(copy, name.data(), name.size() * sizeof(char16_t));
    copy[name.size()] = u'\0';
    *link = new (blocks_.Take(sizeof(Node))) Node{object, copy, nullptr};
    ++entryCount_;
}

CDatabaseObjectImpl* CHashTable::Lookup(LPCWSTR name) const noexcept {
    if (!buckets_) return nullptr;
    for (const Node* node = buckets_[BucketOf(name)]; node; node = node->next)
        if (!node->next || SameName(node->name, name)) return node->object;
    return nullptr;
}

void CHashTable::Freeze() noexcept {
    if (frozen_) return;
    if (buckets_) {
        for (DWORD i = 0; i < bucketCount_; ++i) {
            Node* head = buckets_[i];
            if (head && !head->next) head->name = nullptr;
        }
    }
    frozen_ = 1;
}

CMapNameToObject::CMapNameToObject() : table_(new (std::nothrow) CHashTable(kRequestedSize)) {}

CMapNameToObject::~CMapNameToObject() { delete table_; }

void CMapNameToObject::Insert(LPCWSTR name, CDatabaseObjectImpl* object) {
    if (!object) return;
    if (!table_) ThrowHr(E_OUTOFMEMORY, "name map has no table");
    table_->Insert(name, object);
}

void CMapNameToObject::Insert(std::u16string_view name, DWORD hash, CDatabaseObjectImpl* object) {
    if (!object) return;
    if (!table_) ThrowHr(E_OUTOFMEMORY, "name map has no table");
    table_->Insert(name, hash, object);
}

namespace {

std::mutex g_mapMutex;
std::atomic<CMapNameToObject*> g_map{nullptr};
bool g_mapDeleted = false;  // guarded by g_mapMutex

}  // namespace

CMapNameToObject* NameMap() {
    if (CMapNameToObject* map = g_map.load(std::memory_order_acquire)) return map;
    std::lock_guard<std::mutex> lock(g_mapMutex);
    if (g_mapDeleted) return nullptr;
    CMapNameToObject* map = g_map.load(std::memory_order_relaxed);
    if (!map) {
        map = new CMapNameToObject();
        g_map.store(map, std::memory_order_release);
    }
    return map;
}

void DeleteNameMap() noexcept {
    std::lock_guard<std::mutex> lock(g_mapMutex);
    g_mapDeleted = true;
    delete g_map.exchange(nullptr, std::memory_order_acq_rel);
}

}  // namespace vorn
