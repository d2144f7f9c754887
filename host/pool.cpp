// Chunk sources and fixed-size slot pools (see pool.hpp for the layout and its
// invariants).
#include "pool.hpp"

#include <sys/mman.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace zok::detail {

ChunkSource::~ChunkSource() {
    for (const Region& r : regions_) {
        unpoison(r.base, r.chunks * kChunkSize);
        std::free(r.base);
    }
}

bool ChunkSource::add_region() {
    size_t chunks = region_chunks_;
    void* region = std::aligned_alloc(kChunkSize, chunks * kChunkSize);
    if (!region)
        return false;
    auto first = reinterpret_cast<uintptr_t>(region);
    auto last = first + chunks * kChunkSize - 1;
    try {
        spare_.reserve(made_ + chunks);
        regions_.reserve(regions_.size() + 1);
        for (uintptr_t a : {first, last}) {
            uintptr_t window = a >> kLeafShift;
            if (std::none_of(leaves_.begin(), leaves_.end(),
                             [&](const Leaf& leaf) { return leaf.window == window; })) {
                leaves_.push_back({window, std::make_unique<uint64_t[]>(kChunksPerLeaf / 64)});
            }
        }
    } catch (const std::bad_alloc&) {
        std::free(region); // a window added here stays: it is empty
        return false;
    }
    madvise(region, chunks * kChunkSize, MADV_HUGEPAGE);
    regions_.push_back({region, chunks});
    made_ += chunks;
    fresh_ = static_cast<unsigned char*>(region);
    fresh_end_ = fresh_ + chunks * kChunkSize;
    region_chunks_ = std::min(chunks * 2, kMaxRegionChunks);
    return true;
}

uint64_t& ChunkSource::held_word(uintptr_t chunk) {
    auto leaf = std::find_if(leaves_.begin(), leaves_.end(),
                             [&](const Leaf& l) { return l.window == chunk >> kLeafShift; });
    auto i = (chunk >> kChunkShift) & (kChunksPerLeaf - 1);
    return leaf->bits[i / 64];
}

void* ChunkSource::take() {
    void* chunk;
    if (!spare_.empty()) {
        chunk = spare_.back();
        spare_.pop_back();
        unpoison(chunk, kChunkSize);
    } else {
        if (fresh_ == fresh_end_ && !add_region())
            return nullptr;
        chunk = fresh_;
        fresh_ += kChunkSize;
    }
    auto a = reinterpret_cast<uintptr_t>(chunk);
    held_word(a) |= uint64_t{1} << ((a >> kChunkShift) % 64);
    return chunk;
}

void ChunkSource::give_back(void* chunk) {
    auto a = reinterpret_cast<uintptr_t>(chunk);
    held_word(a) &= ~(uint64_t{1} << ((a >> kChunkShift) % 64));
    poison(chunk, kChunkSize);
    spare_.push_back(chunk); // never reallocates: the capacity covers every chunk made
}

SlotPool::SlotPool(size_t slot_size, ChunkSource& source)
    : slot_size_((slot_size + 15) & ~size_t{15}),
      slot_reciprocal_(((uint64_t{1} << 32) + slot_size_ - 1) / slot_size_),
      slots_per_chunk_(
          std::min((ChunkSource::kChunkSize - kFirstOffset) / slot_size_, Chunk::kWords * 64)),
      source_(source) {}

SlotPool::~SlotPool() {
    for (Chunk* c : chunks_)
        source_.give_back(c);
}

void corrupt_chain() {
    std::fputs("zok host: a freed block was written to; its pool is corrupt\n", stderr);
    std::abort();
}

SlotPool::Chunk* SlotPool::new_chunk() {
    void* mem = source_.take();
    if (!mem)
        return nullptr;
    try {
        chunks_.push_back(static_cast<Chunk*>(mem));
    } catch (const std::bad_alloc&) {
        source_.give_back(mem);
        return nullptr;
    }
    auto* c = new (mem) Chunk{};
    c->pool = this;
    c->freed = Chunk::kNone;
    c->index = static_cast<uint32_t>(chunks_.size() - 1);
    poison(slot_at(c, 0), ChunkSource::kChunkSize - kFirstOffset);
    link_free(c);
    return c;
}

void SlotPool::rehome(Chunk* c, bool was_full) {
    if (was_full)
        link_free(c);
    else if (c->prev_free || c->next_free)
        retire_chunk(c); // another chunk has room: keep at most one empty chunk
}

// Gives an empty chunk back to the source.
void SlotPool::retire_chunk(Chunk* c) {
    unlink_free(c);
    Chunk* moved = chunks_.back();
    moved->index = c->index;
    chunks_[c->index] = moved;
    chunks_.pop_back();
    source_.give_back(c);
}

void SlotPool::link_free(Chunk* c) {
    c->prev_free = nullptr;
    c->next_free = free_head_;
    if (free_head_)
        free_head_->prev_free = c;
    free_head_ = c;
    c->on_free_list = true;
}

void SlotPool::unlink_free(Chunk* c) {
    if (!c->on_free_list)
        return;
    if (c->prev_free)
        c->prev_free->next_free = c->next_free;
    else
        free_head_ = c->next_free;
    if (c->next_free)
        c->next_free->prev_free = c->prev_free;
    c->on_free_list = false;
}

} // namespace zok::detail
