// Fixed-size slot pools (see pool.hpp for the layout and its invariant).
#include "pool.hpp"

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <new>

namespace zok::detail {

void ChunkRegistry::add(uintptr_t base) {
    bases_.insert(std::upper_bound(bases_.begin(), bases_.end(), base), base);
}

void ChunkRegistry::remove(uintptr_t base) {
    auto it = std::lower_bound(bases_.begin(), bases_.end(), base);
    if (it != bases_.end() && *it == base)
        bases_.erase(it);
}

bool ChunkRegistry::contains(uintptr_t base) const {
    return std::binary_search(bases_.begin(), bases_.end(), base);
}

SlotPool::SlotPool(size_t slot_size, ChunkRegistry* registry)
    : slot_size_((slot_size + 15) & ~size_t{15}),
      slot_reciprocal_(((uint64_t{1} << 32) + slot_size_ - 1) / slot_size_), registry_(registry) {
    first_offset_ = (sizeof(Chunk) + 63) & ~size_t{63};
    slots_per_chunk_ = std::min((kChunkSize - first_offset_) / slot_size_, Chunk::kWords * 64);
}

SlotPool::~SlotPool() {
    for (Chunk* c : chunks_) {
        if (registry_)
            registry_->remove(reinterpret_cast<uintptr_t>(c));
        unpoison(c, kChunkSize);
        std::free(c);
    }
}

unsigned char* SlotPool::slot_at(Chunk* c, size_t i) const {
    return reinterpret_cast<unsigned char*>(c) + first_offset_ + i * slot_size_;
}

SlotPool::Chunk* SlotPool::new_chunk() {
    void* mem = std::aligned_alloc(kChunkSize, kChunkSize);
    if (!mem)
        return nullptr;
    try {
        chunks_.reserve(chunks_.size() + 1);
        if (registry_)
            registry_->add(reinterpret_cast<uintptr_t>(mem));
    } catch (const std::bad_alloc&) {
        std::free(mem);
        return nullptr;
    }
    auto* c = new (mem) Chunk{};
    c->pool = this;
    // Bits past the last slot stay set, so the search never hands them out.
    for (size_t i = slots_per_chunk_; i < Chunk::kWords * 64; ++i)
        c->bits[i / 64] |= uint64_t{1} << (i % 64);
    chunks_.push_back(c);
    poison(slot_at(c, 0), slots_per_chunk_ * slot_size_);
    link_free(c);
    return c;
}

void SlotPool::free_chunk(Chunk* c) {
    unlink_free(c);
    chunks_.erase(std::find(chunks_.begin(), chunks_.end(), c));
    if (registry_)
        registry_->remove(reinterpret_cast<uintptr_t>(c));
    unpoison(c, kChunkSize);
    std::free(c);
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

void* SlotPool::allocate() {
    Chunk* c = free_head_ ? free_head_ : new_chunk();
    if (!c)
        return nullptr;
    for (size_t w = c->hint; w < Chunk::kWords; ++w) {
        if (c->bits[w] == ~uint64_t{0})
            continue;
        size_t bit = static_cast<size_t>(std::countr_one(c->bits[w]));
        c->bits[w] |= uint64_t{1} << bit;
        c->hint = static_cast<uint32_t>(w);
        if (++c->used == slots_per_chunk_)
            unlink_free(c);
        ++live_;
        unsigned char* slot = slot_at(c, w * 64 + bit);
        unpoison(slot, slot_size_);
        return slot;
    }
    std::abort(); // a chunk on the free list always has a free slot
}

SlotPool::Chunk* SlotPool::chunk_of(const void* p) const {
    auto base = reinterpret_cast<uintptr_t>(p) & ~(uintptr_t{kChunkSize} - 1);
    return reinterpret_cast<Chunk*>(base);
}

long SlotPool::index_in(const Chunk* c, const void* p) const {
    auto offset = reinterpret_cast<uintptr_t>(p) - reinterpret_cast<uintptr_t>(c);
    if (offset < first_offset_)
        return -1;
    offset -= first_offset_;
    // Exact for offsets below 2^16 and slots below 2^16 bytes: no division needed.
    auto i = static_cast<size_t>((offset * slot_reciprocal_) >> 32);
    if (i * slot_size_ != offset || i >= slots_per_chunk_)
        return -1;
    return ((c->bits[i / 64] >> (i % 64)) & 1) ? static_cast<long>(i) : -1;
}

SlotPool* SlotPool::owner(const void* p) {
    auto base = reinterpret_cast<uintptr_t>(p) & ~(uintptr_t{kChunkSize} - 1);
    return reinterpret_cast<const Chunk*>(base)->pool;
}

bool SlotPool::is_live(const void* p) const {
    auto base = reinterpret_cast<uintptr_t>(p) & ~(uintptr_t{kChunkSize} - 1);
    if (!registry_ || !registry_->contains(base))
        return false;
    const Chunk* c = chunk_of(p);
    return c->pool == this && index_in(c, p) >= 0;
}

bool SlotPool::release(void* slot) {
    auto base = reinterpret_cast<uintptr_t>(slot) & ~(uintptr_t{kChunkSize} - 1);
    if (registry_ && (!registry_->contains(base) || chunk_of(slot)->pool != this))
        return false;
    return release_in_chunk(slot);
}

bool SlotPool::release_in_chunk(void* slot) {
    Chunk* c = chunk_of(slot);
    long i = index_in(c, slot);
    if (i < 0)
        return false;
    size_t w = static_cast<size_t>(i) / 64;
    c->bits[w] &= ~(uint64_t{1} << (static_cast<size_t>(i) % 64));
    c->hint = std::min(c->hint, static_cast<uint32_t>(w));
    bool was_full = c->used == slots_per_chunk_;
    --c->used;
    --live_;
    poison(slot, slot_size_);
    if (was_full)
        link_free(c);
    // Keep one empty chunk as a spare; give back the others.
    if (c->used == 0 && (c->prev_free || c->next_free))
        free_chunk(c);
    return true;
}

} // namespace zok::detail
