// The array-storage arena: see ArrayStorage.h.
#include "parameters/ArrayStorage.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <new>
#include <type_traits>

namespace vorn {

namespace {

// Blocks of at least this size come from the arena. Under AddressSanitizer
// every block comes from malloc, so that an overrun of one array into the
// next is still caught.
#if defined(__SANITIZE_ADDRESS__)
constexpr std::size_t kLargeBlock = SIZE_MAX;
#else
constexpr std::size_t kLargeBlock = std::size_t{64} << 10;
#endif
// Address space reserved at a time; a larger block gets a chunk of its own.
constexpr std::size_t kChunkBytes = std::size_t{64} << 20;
constexpr std::size_t kAlignment = 64;

struct Chunk {
    char* base;
    std::size_t size;
    std::size_t used;  // bytes handed out from the start, never reused
    std::size_t live;  // blocks not yet freed
};

// More chunks than a database ever needs; past them blocks come from malloc.
constexpr std::size_t kMaxChunks = 64;

// Constant-initialised and trivially destructible: valid from before the
// first allocation to after the last free, whatever the order of static
// destruction, and nothing of it is left on the heap when the module unloads.
struct Arena {
    std::mutex mutex;
    Chunk chunks[kMaxChunks];
    std::size_t count;  // chunks in use; the last one is where new blocks go
};
static_assert(std::is_trivially_destructible_v<Arena>);
constinit Arena theArena{};

Chunk* ChunkHolding(const void* block) {
    const char* p = static_cast<const char*>(block);
    for (std::size_t i = 0; i < theArena.count; ++i)
        if (p >= theArena.chunks[i].base && p < theArena.chunks[i].base + theArena.chunks[i].size)
            return &theArena.chunks[i];
    return nullptr;
}

void* AllocateSmall(std::size_t bytes) {
    void* block = std::malloc(std::max<std::size_t>(bytes, 1));
    if (!block) throw std::bad_alloc();
    return block;
}

}  // namespace

void* AllocateArrayStorage(std::size_t bytes) {
    if (bytes < kLargeBlock) return AllocateSmall(bytes);
    bytes = (bytes + kAlignment - 1) / kAlignment * kAlignment;
    std::lock_guard lock(theArena.mutex);
    Chunk* chunk = theArena.count ? &theArena.chunks[theArena.count - 1] : nullptr;
    if (!chunk || chunk->size - chunk->used < bytes) {
        if (theArena.count == kMaxChunks) return AllocateSmall(bytes);
        const std::size_t size = std::max(bytes, kChunkBytes);
        void* base = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (base == MAP_FAILED) throw std::bad_alloc();
        chunk = &theArena.chunks[theArena.count++];
        *chunk = Chunk{static_cast<char*>(base), size, 0, 0};
    }
    char* block = chunk->base + chunk->used;
    chunk->used += bytes;
    ++chunk->live;
    return block;
}

void FreeArrayStorage(void* block) noexcept {
    if (!block) return;
    {
        std::lock_guard lock(theArena.mutex);
        if (Chunk* chunk = ChunkHolding(block)) {
            if (--chunk->live == 0) {
                munmap(chunk->base, chunk->size);
                *chunk = theArena.chunks[--theArena.count];
            }
            return;
        }
    }
    std::free(block);
}

}  // namespace vorn
