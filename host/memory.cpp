// Module memory: labelled blocks, plain blocks for tree nodes, structure
// instances, the per-label accounting and fault injection.
//
// Labelled blocks are tracked one by one (a map from address to size and
// label), so an unknown or freed block is refused without touching it.  Plain
// blocks and instances come from slot pools by 16-byte size class and carry no
// per-block record: a plain block is known by its chunk being registered and
// its bit being set.  Every allocation of every kind passes inject_fault first.
#include "state.hpp"

#include <cstdlib>
#include <cstring>
#include <new>

namespace zok::detail {

namespace {

constexpr size_t kMaxPooled = 256;

size_t size_class(size_t size) {
    return (size + 15) / 16; // 1..16
}

SlotPool* pool_for(std::vector<std::unique_ptr<SlotPool>>& pools, size_t size,
                   ChunkRegistry* registry) {
    size_t c = size_class(size == 0 ? 1 : size);
    if (pools.size() <= c)
        pools.resize(c + 1);
    if (!pools[c])
        pools[c] = std::make_unique<SlotPool>(c * 16, registry);
    return pools[c].get();
}

} // namespace

bool inject_fault(const char* label) {
    State& s = state();
    ++s.allocation_count;
    if (s.allocation_count == s.fail_at)
        return true;
    return !s.fail_labels.empty() && s.fail_labels.count(label) != 0;
}

LabelStats& stats_for(const char* label) {
    State& s = state();
    if (!label)
        label = "";
    // Labels are nearly always literals: the address finds them without hashing
    // the text; the text check guards against a reused buffer.
    auto hit = s.label_cache.find(label);
    if (hit != s.label_cache.end() && hit->second->label == label)
        return *hit->second;
    auto& slot = s.labels[label];
    if (!slot)
        slot = std::make_unique<LabelStats>(LabelStats{label, {}, 0});
    s.label_cache[label] = slot.get();
    return *slot;
}

void* alloc_instance_memory(size_t size) {
    State& s = state();
    if (size > kMaxPooled)
        return std::aligned_alloc(16, (size + 15) & ~size_t{15});
    return pool_for(s.instance_pools, size, nullptr)->allocate();
}

void free_instance_memory(void* p, size_t size) {
    State& s = state();
    if (size > kMaxPooled)
        std::free(p);
    else
        pool_for(s.instance_pools, size, nullptr)->release(p);
}

void free_all_memory(State& s) {
    for (auto& [block, info] : s.blocks_live)
        std::free(block);
    s.blocks_live.clear();
    s.plain_pools.clear();
    s.instance_pools.clear();
}

} // namespace zok::detail

using namespace zok::detail;

namespace {

void refuse_free(const void* block, const char* op) {
    raise(ZOK_ERR_BAD_FREE, ZOK_ACTION_ERROR,
          format("%s: block %p is not a live block (never allocated or already freed)", op, block) +
              where() + ".");
}

void free_labelled(void* block, const char* freeing_label, const char* op) {
    State& s = state();
    auto it = s.blocks_live.find(block);
    if (it == s.blocks_live.end())
        return refuse_free(block, op);
    LabelStats* stats = it->second.stats;
    stats->live.blocks -= 1;
    stats->live.bytes -= it->second.size;
    s.blocks_live.erase(it);
    std::free(block);
    if (freeing_label)
        ++stats_for(freeing_label).frees;
}

} // namespace

extern "C" {

void* host_mem_alloc(size_t size, const char* label) {
    State& s = state();
    LabelStats& stats = stats_for(label);
    if (inject_fault(stats.label.c_str()))
        return nullptr;
    void* block = std::malloc(size == 0 ? 1 : size);
    if (!block)
        return nullptr;
    try {
        s.blocks_live.emplace(block, State::Block{size, &stats});
    } catch (const std::bad_alloc&) {
        std::free(block);
        return nullptr;
    }
    stats.live.blocks += 1;
    stats.live.bytes += size;
    return block;
}

void host_mem_free(void* block) {
    free_labelled(block, nullptr, "host_mem_free");
}

void host_mem_free_tagged(void* block, const char* label) {
    free_labelled(block, label, "host_mem_free_tagged");
}

void* host_mem_alloc_plain(size_t size) {
    State& s = state();
    if (size == 0 || size > kMaxPooled) {
        raise(ZOK_ERR_BAD_ARGUMENT, ZOK_ACTION_RETURN,
              format("host_mem_alloc_plain: %zu bytes is not a node size (1 to %zu)", size,
                     kMaxPooled) +
                  where() + ".");
        return nullptr;
    }
    if (inject_fault(zok::kPlainLabel))
        return nullptr;
    void* block = pool_for(s.plain_pools, size, &s.plain_chunks)->allocate();
    if (block) {
        s.plain_stats->live.blocks += 1;
        s.plain_stats->live.bytes += SlotPool::owner(block)->slot_size();
    }
    return block;
}

void host_mem_free_labelled(void* block, const char* label) {
    State& s = state();
    auto base = reinterpret_cast<uintptr_t>(block) & ~(uintptr_t{SlotPool::kChunkSize} - 1);
    SlotPool* pool = s.plain_chunks.contains(base) ? SlotPool::owner(block) : nullptr;
    size_t bytes = pool ? pool->slot_size() : 0;
    if (!pool || !pool->release_in_chunk(block))
        return refuse_free(block, "host_mem_free_labelled");
    s.plain_stats->live.blocks -= 1;
    s.plain_stats->live.bytes -= bytes;
    if (label)
        ++stats_for(label).frees;
}

} // extern "C"
