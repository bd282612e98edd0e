// The array-storage arena: see ArrayStorage.h.
#include "parameters/ArrayStorage.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <new>
#include <vector>

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

struct Arena {
    std::mutex mutex;
    std::vector<Chunk> chunks;  // the last one is where new blocks go
};

// Never destroyed: arrays may be freed while static objects are torn down.
Arena& TheArena() {
    static Arena* arena = new Arena;
    return *arena;
}

}  // namespace

void* AllocateArrayStorage(std::size_t bytes) {
    if (bytes < kLargeBlock) {
        void* block = std::malloc(std::max<std::size_t>(bytes, 1));
        if (!block) throw std::bad_alloc();
        return block;
    }
    bytes = (bytes + kAlignment - 1) / kAlignment * kAlignment;
    Arena& arena = TheArena();
    std::lock_guard lock(arena.mutex);
    if (arena.chunks.empty() || arena.chunks.back().size - arena.chunks.back().used < bytes) {
        const std::size_t size = std::max(bytes, kChunkBytes);
        void* base = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (base == MAP_FAILED) throw std::bad_alloc();
        arena.chunks.push_back(Chunk{static_cast<char*>(base), size, 0, 0});
    }
    Chunk& chunk = arena.chunks.back();
    char* block = chunk.base + chunk.used;
    chunk.used += bytes;
    ++chunk.live;
    return block;
}

void FreeArrayStorage(void* block) noexcept {
    if (!block) return;
    Arena& arena = TheArena();
    {
        std::lock_guard lock(arena.mutex);
        auto* p = static_cast<char*>(block);
        auto chunk = std::find_if(arena.chunks.begin(), arena.chunks.end(),
                                  [p](const Chunk& c) { return p >= c.base && p < c.base + c.size; });
        if (chunk != arena.chunks.end()) {
            if (--chunk->live == 0) {
                munmap(chunk->base, chunk->size);
                arena.chunks.erase(chunk);
            }
            return;
        }
    }
    std::free(block);
}

}  // namespace vorn
