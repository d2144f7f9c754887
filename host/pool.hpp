// Fixed-size slot pools: the allocator under tree nodes, temporaries and
// structure instances.
//
// A ChunkSource carves 64 KiB chunks, aligned to 64 KiB, from regions of up to
// 8 MiB that it takes from the C allocator, and keeps every chunk it made until
// it goes: a chunk that a pool gives back serves the next pool that asks, so
// rebuilding a large structure touches no new pages.  Regions ask for huge
// pages (granted where the system allows), which makes first use and random
// access of a large pool much cheaper.
// Invariant: the source's bitmap has a chunk's bit set exactly while a pool
// holds the chunk, so whether an address belongs to a held chunk takes a few
// loads and never reads the address itself.
//
// A SlotPool takes chunks from its source.  Each chunk opens with a header
// (owning pool, links of the pool's list of chunks with room, the chain of
// freed slots, a bitmap of live slots); the slots follow.  Invariant: a slot is
// live exactly when its bit is set; a free slot is either on its chunk's freed
// chain (linked through its first word by slot index) or at or past the
// chunk's `fresh` mark; a chunk is on the pool's list exactly when it has a
// free slot.  Slots carry no per-slot header, so a 48-byte node costs under a
// byte of overhead.  In a sanitizer build free slots and spare chunks are
// poisoned, so a use after free is reported at the faulting access.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

// The address sanitizer is on: GCC says so with a macro, clang as a feature.
#if defined(__SANITIZE_ADDRESS__)
#define ZOK_HOST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZOK_HOST_ASAN 1
#endif
#endif

#if defined(ZOK_HOST_ASAN)
#include <sanitizer/asan_interface.h>
#endif

namespace zok::detail {

// Marks memory the program must not touch (a no-op without the address sanitizer).
inline void poison([[maybe_unused]] const volatile void* p, [[maybe_unused]] size_t n) {
#if defined(ZOK_HOST_ASAN)
    ASAN_POISON_MEMORY_REGION(p, n);
#endif
}

inline void unpoison([[maybe_unused]] const volatile void* p, [[maybe_unused]] size_t n) {
#if defined(ZOK_HOST_ASAN)
    ASAN_UNPOISON_MEMORY_REGION(p, n);
#endif
}

class ChunkSource {
public:
    static constexpr size_t kChunkSize = size_t{64} * 1024;

    ChunkSource() = default;
    ~ChunkSource();
    ChunkSource(const ChunkSource&) = delete;
    ChunkSource& operator=(const ChunkSource&) = delete;

    // A chunk for a pool (contents unspecified), or null when memory runs out.
    void* take();
    // Takes back a chunk from take(), for the next take().
    void give_back(void* chunk);

    // Whether `p` lies in a chunk that a pool holds.
    bool holds(const void* p) const {
        auto a = reinterpret_cast<uintptr_t>(p);
        for (const Leaf& leaf : leaves_)
            if (leaf.window == a >> kLeafShift) {
                auto i = (a >> kChunkShift) & (kChunksPerLeaf - 1);
                return (leaf.bits[i / 64] >> (i % 64)) & 1;
            }
        return false;
    }

private:
    static constexpr unsigned kChunkShift = 16;
    static constexpr unsigned kLeafShift = 32; // one leaf of the bitmap covers 4 GiB
    static constexpr size_t kChunksPerLeaf = size_t{1} << (kLeafShift - kChunkShift);
    static constexpr size_t kMaxRegionChunks = 128;

    // The held-chunk bits of one 4 GiB window of the address space.  Regions
    // cluster, so a source has one or two windows.
    struct Leaf {
        uintptr_t window;
        std::unique_ptr<uint64_t[]> bits;
    };
    struct Region {
        void* base;
        size_t chunks;
    };

    bool add_region();
    uint64_t& held_word(uintptr_t chunk);

    std::vector<Leaf> leaves_;
    std::vector<Region> regions_; // what the C allocator gave, for the destructor
    std::vector<void*> spare_;    // given-back chunks; capacity for every chunk made
    size_t made_ = 0;             // chunks in all regions
    unsigned char* fresh_ = nullptr;
    unsigned char* fresh_end_ = nullptr;
    size_t region_chunks_ = 4; // the next region's size, doubling up to the limit
};

class SlotPool;

// The header that opens each chunk of a slot pool.
struct SlotChunk {
    static constexpr size_t kWords = 64;            // room for 4096 slots of 16 bytes
    static constexpr uint32_t kNone = ~uint32_t{0}; // end of the freed chain
    SlotPool* pool;
    SlotChunk* prev_free;
    SlotChunk* next_free;
    uint32_t freed; // the most recently freed slot, or kNone
    uint32_t fresh; // slots from here on were never handed out
    uint32_t used;
    uint32_t index; // in the pool's chunks_
    bool on_free_list;
    uint64_t bits[kWords];
};

class SlotPool {
public:
    SlotPool(size_t slot_size, ChunkSource& source);
    ~SlotPool();
    SlotPool(const SlotPool&) = delete;
    SlotPool& operator=(const SlotPool&) = delete;

    // A fresh slot (contents unspecified), or null when memory runs out.
    void* allocate();
    // Frees a slot this pool handed out; false for anything else (unknown or
    // already freed), leaving the pool unchanged.
    bool release(void* slot) {
        return source_.holds(slot) && owner(slot) == this && release_in_chunk(slot);
    }
    // The same for an address whose chunk the source holds for this pool.
    bool release_in_chunk(void* slot);
    // Whether `p` is a live slot of this pool.
    bool is_live(const void* p) const {
        return source_.holds(p) && owner(p) == this && live_index(chunk_of(p), p) >= 0;
    }
    // The pool that holds the chunk of `p`; only for addresses whose chunk the
    // source holds.
    static SlotPool* owner(const void* p);

    size_t slot_size() const { return slot_size_; }
    size_t live() const { return live_; }

private:
    using Chunk = SlotChunk;
    static constexpr size_t kFirstOffset = (sizeof(Chunk) + 63) & ~size_t{63};

    static Chunk* chunk_of(const void* p) {
        auto base = reinterpret_cast<uintptr_t>(p) & ~(uintptr_t{ChunkSource::kChunkSize} - 1);
        return reinterpret_cast<Chunk*>(base);
    }
    unsigned char* slot_at(Chunk* c, size_t i) const {
        return reinterpret_cast<unsigned char*>(c) + kFirstOffset + i * slot_size_;
    }
    long live_index(const Chunk* c, const void* p) const;
    Chunk* new_chunk();
    void retire_chunk(Chunk* c);
    void link_free(Chunk* c);
    void unlink_free(Chunk* c);
    // A chunk whose last slot was just freed, or that was full before.
    void rehome(Chunk* c, bool was_full);

    size_t slot_size_;
    uint64_t slot_reciprocal_; // ceil(2^32 / slot_size_): offsets divide by multiplying
    size_t slots_per_chunk_;
    ChunkSource& source_;
    Chunk* free_head_ = nullptr;
    std::vector<Chunk*> chunks_; // every chunk held; a chunk knows its index here
    size_t live_ = 0;
};

// A write after free broke a freed slot's link: the pool cannot go on.
[[noreturn]] void corrupt_chain();

inline SlotPool* SlotPool::owner(const void* p) {
    return chunk_of(p)->pool;
}

inline void* SlotPool::allocate() {
    Chunk* c = free_head_;
    if (!c) [[unlikely]] {
        c = new_chunk();
        if (!c)
            return nullptr;
    }
    size_t i;
    unsigned char* slot;
    if (c->freed != Chunk::kNone) {
        i = c->freed;
        if (i >= slots_per_chunk_ || ((c->bits[i / 64] >> (i % 64)) & 1)) [[unlikely]]
            corrupt_chain();
        slot = slot_at(c, i);
        unpoison(slot, slot_size_);
        std::memcpy(&c->freed, slot, sizeof c->freed);
    } else {
        i = c->fresh++;
        slot = slot_at(c, i);
        unpoison(slot, slot_size_);
    }
    c->bits[i / 64] |= uint64_t{1} << (i % 64);
    if (++c->used == slots_per_chunk_) [[unlikely]]
        unlink_free(c);
    ++live_;
    return slot;
}

inline long SlotPool::live_index(const Chunk* c, const void* p) const {
    auto offset = reinterpret_cast<uintptr_t>(p) - reinterpret_cast<uintptr_t>(c) - kFirstOffset;
    // Exact for offsets below 2^16 and slots below 2^16 bytes: no division
    // needed.  An address inside the header wraps to a huge offset and fails.
    auto i = static_cast<size_t>((offset * slot_reciprocal_) >> 32);
    if (i * slot_size_ != offset || i >= slots_per_chunk_)
        return -1;
    return ((c->bits[i / 64] >> (i % 64)) & 1) ? static_cast<long>(i) : -1;
}

inline bool SlotPool::release_in_chunk(void* slot) {
    Chunk* c = chunk_of(slot);
    long li = live_index(c, slot);
    if (li < 0)
        return false;
    auto i = static_cast<uint32_t>(li);
    c->bits[i / 64] &= ~(uint64_t{1} << (i % 64));
    std::memcpy(slot, &c->freed, sizeof c->freed);
    c->freed = i;
    poison(slot, slot_size_);
    bool was_full = c->used == slots_per_chunk_;
    --c->used;
    --live_;
    if (was_full || c->used == 0) [[unlikely]]
        rehome(c, was_full);
    return true;
}

} // namespace zok::detail
