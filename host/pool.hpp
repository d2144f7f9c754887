// Fixed-size slot pools: the allocator under tree nodes, temporaries, heap
// records and structure instances.
//
// A pool carves slots from 64 KiB chunks aligned to 64 KiB.  Each chunk opens
// with a header (owning pool, free-list links, a bitmap of live slots); the
// slots follow.  Invariant: a slot is live exactly when its bit is set; chunks
// with at least one free slot are on the pool's free list; an address is one of
// ours only when its chunk base is registered and it falls on a slot boundary.
// Slots carry no per-slot header, so a 48-byte node costs well under a byte of
// overhead.  In a sanitizer build free slots are poisoned, so a use after free
// is reported at the faulting access.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#endif

namespace zok::detail {

// Marks memory the program must not touch (a no-op without the address sanitizer).
inline void poison([[maybe_unused]] const volatile void* p, [[maybe_unused]] size_t n) {
#if defined(__SANITIZE_ADDRESS__)
    ASAN_POISON_MEMORY_REGION(p, n);
#endif
}

inline void unpoison([[maybe_unused]] const volatile void* p, [[maybe_unused]] size_t n) {
#if defined(__SANITIZE_ADDRESS__)
    ASAN_UNPOISON_MEMORY_REGION(p, n);
#endif
}

// The sorted chunk bases of one or more pools: decides whether an address
// belongs to them without a hash lookup or a per-block record.
class ChunkRegistry {
public:
    void add(uintptr_t base);
    void remove(uintptr_t base);
    bool contains(uintptr_t base) const;

private:
    std::vector<uintptr_t> bases_;
};

class SlotPool {
public:
    static constexpr size_t kChunkSize = 64 * 1024;

    SlotPool(size_t slot_size, ChunkRegistry* registry);
    ~SlotPool();
    SlotPool(const SlotPool&) = delete;
    SlotPool& operator=(const SlotPool&) = delete;

    // A fresh slot (contents unspecified), or null when memory runs out.
    void* allocate();
    // Frees a slot this pool handed out; false for anything else (unknown or
    // already freed), leaving the pool unchanged.
    bool release(void* slot);
    // The same for an address already known to lie in one of this pool's chunks.
    bool release_in_chunk(void* slot);
    // Whether `p` is a live slot of this pool.  Needs a registry.
    bool is_live(const void* p) const;
    // The pool that owns the chunk of `p`; only for addresses already known to
    // be in a registered chunk.
    static SlotPool* owner(const void* p);

    size_t slot_size() const { return slot_size_; }
    size_t live() const { return live_; }

private:
    struct Chunk;
    Chunk* chunk_of(const void* p) const;
    long index_in(const Chunk* c, const void* p) const;
    Chunk* new_chunk();
    void free_chunk(Chunk* c);
    void link_free(Chunk* c);
    void unlink_free(Chunk* c);
    unsigned char* slot_at(Chunk* c, size_t i) const;

    size_t slot_size_;
    uint64_t slot_reciprocal_; // ceil(2^32 / slot_size_): offsets divide by multiplying
    size_t slots_per_chunk_;
    size_t first_offset_;
    ChunkRegistry* registry_;
    Chunk* free_head_ = nullptr;
    std::vector<Chunk*> chunks_;
    size_t live_ = 0;
};

struct SlotPool::Chunk {
    static constexpr size_t kWords = 64; // room for 4096 slots of 16 bytes
    SlotPool* pool;
    Chunk* prev_free;
    Chunk* next_free;
    uint32_t used;
    uint32_t hint; // no free slot lies in a word below this one
    bool on_free_list;
    uint64_t bits[kWords];
};

} // namespace zok::detail
