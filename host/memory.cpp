// Module memory: labelled blocks, plain blocks for tree nodes, structure
// instances, the per-label accounting and fault injection.
//
// Labelled blocks are tracked one by one (a map from address to size and
// label), so an unknown or freed block is refused without touching it.  Plain
// blocks and instances come from slot pools by 16-byte size class and carry no
// per-block record: a plain block is known by its chunk being held in the
// plain chunk source and its bit being set.  Labels are counted by address
// where the text cannot change (see stats_for), so the node paths never
// compare texts.  Every allocation of every kind passes inject_fault first.
#include "state.hpp"

#include <dlfcn.h>
#include <link.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

namespace zok::detail {

namespace {

[[gnu::noinline]] SlotPool& new_pool(std::unique_ptr<SlotPool>& pool, size_t slot_size,
                                     ChunkSource& source) {
    pool = std::make_unique<SlotPool>(slot_size, source);
    return *pool;
}

} // namespace

SlotPool& pool_for(State::Pools& pools, size_t size, ChunkSource& source) {
    size_t c = (std::max<size_t>(size, 1) + 15) / 16; // 1..16
    return pools[c] ? *pools[c] : new_pool(pools[c], c * 16, source);
}

namespace {

// The loaded object whose read-only segment holds all of a text, if any.
struct ReadOnlyProbe {
    uintptr_t begin, end;
    bool found = false;
    std::string object; // its file name ("" for the program itself)
};

int probe_object(dl_phdr_info* info, size_t, void* data) {
    auto& probe = *static_cast<ReadOnlyProbe*>(data);
    for (ElfW(Half) i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr)& ph = info->dlpi_phdr[i];
        uintptr_t start = info->dlpi_addr + ph.p_vaddr;
        if (ph.p_type != PT_LOAD || probe.begin < start || probe.begin - start >= ph.p_memsz)
            continue;
        probe.found = !(ph.p_flags & PF_W) && probe.end - start <= ph.p_filesz;
        probe.object = info->dlpi_name ? info->dlpi_name : "";
        return 1;
    }
    return 0;
}

// Whether a text lies in a read-only segment of a loaded object (a literal,
// say).  Such an object is kept loaded while the host runs, so the text stays
// what it is and its address alone names it.
bool pin_read_only(State& s, const char* text) {
    auto begin = reinterpret_cast<uintptr_t>(text);
    ReadOnlyProbe probe{begin, begin + std::strlen(text) + 1, false, {}};
    dl_iterate_phdr(probe_object, &probe);
    if (!probe.found)
        return false;
    if (!probe.object.empty()) {
        void* handle = dlopen(probe.object.c_str(), RTLD_LAZY | RTLD_NOLOAD);
        if (!handle)
            return false;
        try {
            s.label_objects.push_back(handle);
        } catch (const std::bad_alloc&) {
            dlclose(handle);
            throw;
        }
    }
    return true;
}

} // namespace

bool fails_by_label(const char* label) {
    return state().fail_labels.count(label) != 0;
}

LabelStats& stats_for_text(const char* label) {
    State& s = state();
    auto [known, added] = s.label_by_address.try_emplace(label, nullptr);
    try {
        if (!known->second) {
            auto& stats = s.labels[label];
            if (!stats)
                stats = std::make_unique<LabelStats>(LabelStats{label, {}, 0});
            if (!added || !pin_read_only(s, label))
                return *stats;
            known->second = stats.get();
        }
    } catch (...) {
        if (added)
            s.label_by_address.erase(known);
        throw;
    }
    s.label_hits[label_hit_index(label)] = {label, known->second};
    return *known->second;
}

void* alloc_instance_memory(size_t size) {
    State& s = state();
    if (size > kMaxPooled)
        return std::aligned_alloc(16, (size + 15) & ~size_t{15});
    return pool_for(s.instance_pools, size, s.instance_chunks).allocate();
}

void free_instance_memory(void* p, size_t size) {
    State& s = state();
    if (size > kMaxPooled)
        std::free(p);
    else
        pool_for(s.instance_pools, size, s.instance_chunks).release(p);
}

void free_all_memory(State& s) {
    for (auto& [block, info] : s.blocks_live)
        std::free(block);
    s.blocks_live.clear();
    for (auto& pool : s.plain_pools)
        pool.reset();
    for (auto& pool : s.instance_pools)
        pool.reset();
    for (auto& pool : s.text_pools)
        pool.reset();
    for (const char* text : s.long_texts)
        std::free(const_cast<char*>(text));
    s.long_texts.clear();
    s.label_hits = {};
    s.label_by_address.clear();
    for (void* object : s.label_objects)
        dlclose(object);
    s.label_objects.clear();
}

} // namespace zok::detail

using namespace zok::detail;

namespace {

[[gnu::cold, gnu::noinline]] void refuse_free(const void* block, const char* op) {
    raise(ZOK_ERR_BAD_FREE, ZOK_ACTION_ERROR,
          format("%s: block %p is not a live block (never allocated or already freed)", op, block) +
              where() + ".");
}

[[gnu::cold, gnu::noinline]] void* refuse_node_size(size_t size) {
    raise(
        ZOK_ERR_BAD_ARGUMENT, ZOK_ACTION_WARN,
        format("host_mem_alloc_plain: %zu bytes is not a node size (1 to %zu)", size, kMaxPooled) +
            where() + ".");
    return nullptr;
}

void free_labelled(void* block, const char* freeing_label, const char* op) {
    State& s = state();
    auto it = s.blocks_live.find(block);
    if (it == s.blocks_live.end())
        return refuse_free(block, op);
    LabelStats* frees = freeing_label ? &stats_for(freeing_label) : nullptr;
    LabelStats* stats = it->second.stats;
    stats->live.blocks -= 1;
    stats->live.bytes -= it->second.size;
    s.blocks_live.erase(it);
    std::free(block);
    if (frees)
        ++frees->frees;
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
    if (size == 0 || size > kMaxPooled) [[unlikely]]
        return refuse_node_size(size);
    if (inject_fault(zok::kPlainLabel)) [[unlikely]]
        return nullptr;
    SlotPool& pool = pool_for(s.plain_pools, size, s.plain_chunks);
    void* block = pool.allocate();
    if (block) [[likely]] {
        s.plain_stats->live.blocks += 1;
        s.plain_stats->live.bytes += pool.slot_size();
    }
    return block;
}

void host_mem_free_labelled(void* block, const char* label) {
    State& s = state();
    if (!s.plain_chunks.holds(block)) [[unlikely]]
        return refuse_free(block, "host_mem_free_labelled");
    LabelStats* frees = label ? &stats_for(label) : nullptr;
    SlotPool* pool = SlotPool::owner(block);
    if (!pool->release_in_chunk(block)) [[unlikely]]
        return refuse_free(block, "host_mem_free_labelled");
    s.plain_stats->live.blocks -= 1;
    s.plain_stats->live.bytes -= pool->slot_size();
    if (frees)
        ++frees->frees;
}

} // extern "C"
