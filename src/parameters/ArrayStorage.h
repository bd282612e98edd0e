// Storage for the value arrays of the tree.
//
// An array parameter allocates storage for its capacity once, at its first
// reset, and keeps it until the database goes. The trace arrays alone reserve
// several hundred megabytes, almost none of which is ever written. Taking
// that from the allocator block by block costs one mmap and one munmap per
// array, which was most of the time of creating and destroying a database.
// Large blocks therefore come from an arena that reserves address space in
// big chunks (pages are backed only once written, so resident memory stays
// small) and returns a chunk to the system when its last block is freed.
// Small blocks come from malloc. Thread-safe.
#pragma once

#include <cstddef>
#include <memory>

namespace vorn {

// Uninitialised storage of `bytes` bytes, aligned for any element type.
// Throws std::bad_alloc.
void* AllocateArrayStorage(std::size_t bytes);
// Frees what AllocateArrayStorage returned; null is ignored.
void FreeArrayStorage(void* block) noexcept;

struct ArrayStorageDeleter {
    void operator()(void* block) const noexcept { FreeArrayStorage(block); }
};

template <class T>
using ArrayStoragePtr = std::unique_ptr<T[], ArrayStorageDeleter>;

template <class T>
ArrayStoragePtr<T> MakeArrayStorage(std::size_t count) {
    return ArrayStoragePtr<T>(static_cast<T*>(AllocateArrayStorage(count * sizeof(T))));
}

}  // namespace vorn
