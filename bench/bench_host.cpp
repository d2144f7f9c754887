// The reference host's own costs under module operations: heap look-up, the
// node cycle of a heap-backed tree, plain node allocation, a method call, and
// the same ordered map kept in plain memory and in heap variables.
#include <algorithm>
#include <cstring>
#include <numeric>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "host.hpp"
#include "maps/map.hpp"
#include "maps/maph.hpp"

extern "C" int32_t ZOK_Load();
extern "C" void ZOK_ResetSession();

namespace {

uint32_t new_long(int32_t v) {
    zok_var value{};
    value.type = ZOK_T_LONG;
    value.value.long_val = v;
    return host_heap_var_new(ZOK_HEAP_POINTER, &value, ZOK_HEAP_NEW_COPY, ZOK_ACTION_ERROR)->id;
}

// Random look-ups among live identifiers, with the next identifier moved high.
void BM_heap_lookup(benchmark::State& state) {
    zok::Host host;
    host.set_next_heap_id(0xf0000000u);
    std::vector<uint32_t> ids;
    for (int64_t i = 0; i < state.range(0); ++i)
        ids.push_back(new_long(static_cast<int32_t>(i)));
    std::shuffle(ids.begin(), ids.end(), std::mt19937(1));
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(host_heap_var(ids[i])->var.value.long_val);
        i = i + 1 == ids.size() ? 0 : i + 1;
    }
}
BENCHMARK(BM_heap_lookup)->Arg(1000)->Arg(1000000);

// Making and freeing one tree node the way the heap-backed tree does.
void BM_heap_node_cycle(benchmark::State& state) {
    zok::Host host;
    zok_struct_def* node = host.define_struct("NODE", {{"FLINK", ZOK_T_POINTER},
                                                       {"BLINK", ZOK_T_POINTER},
                                                       {"PARENT", ZOK_T_POINTER},
                                                       {"KEY", ZOK_T_POINTER},
                                                       {"VAL", ZOK_T_POINTER},
                                                       {"STATUS", ZOK_T_BYTE}});
    for (auto _ : state) {
        zok_var* t = host_temp_struct(node);
        uint32_t id = host_heap_var_new(ZOK_HEAP_POINTER, t, ZOK_HEAP_NEW_MOVE, 2)->id;
        if (t->flags & ZOK_VF_TEMPORARY)
            host_release_temp(t);
        host_heap_free(id, 0, 0);
    }
}
BENCHMARK(BM_heap_node_cycle);

void BM_plain_node_cycle(benchmark::State& state) {
    zok::Host host;
    for (auto _ : state) {
        void* p = host_mem_alloc_plain(48);
        benchmark::DoNotOptimize(p);
        host_mem_free_labelled(p, "map_rb_delete_node");
    }
}
BENCHMARK(BM_plain_node_cycle);

zok_var* nothing(int32_t, zok_var**, zok_keywords*) {
    return host_temp_long(0);
}

// A module method calling a method on an object by name.
void BM_method_call(benchmark::State& state) {
    zok::Host host;
    host.define_struct("BASE", {{"A", ZOK_T_LONG}});
    host.define_struct("LEAF", {{"B", ZOK_T_LONG}}, "BASE");
    const zok_routine_entry fn = {{nothing}, "BASE::PING", 1, 1, 0, nullptr};
    host_add_routines(&fn, 1, 1);
    zok::ObjectRef obj = host.new_object("LEAF");
    const zok_name* ping = host_lookup_name("PING", 0, 1, 2, 0);
    zok_heap_record* rec = host_object_heap_var(obj.id, 2);
    for (auto _ : state)
        host_release_temp(host_call_method(2, ping, rec, 0, 0, nullptr, 0, 0, 0));
}
BENCHMARK(BM_method_call);

int compare_plain(flux::RbWord a, flux::RbWord b) {
    return (a > b) - (a < b);
}

int compare_heap(uint32_t a, uint32_t b) {
    return (a > b) - (a < b);
}

std::vector<uint32_t> shuffled_keys(size_t n) {
    std::vector<uint32_t> keys(n);
    std::iota(keys.begin(), keys.end(), 1u);
    std::shuffle(keys.begin(), keys.end(), std::mt19937(7));
    return keys;
}

// Insert n keys, find each, free the map: in plain memory...
void BM_map_plain(benchmark::State& state) {
    zok::Host host;
    host.load_module(ZOK_Load, ZOK_ResetSession);
    auto keys = shuffled_keys(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        flux::RbNode* map = flux::map_new();
        for (uint32_t k : keys)
            flux::map_put(map, k, k, compare_plain);
        for (uint32_t k : keys)
            benchmark::DoNotOptimize(flux::map_find(map, k, compare_plain));
        flux::map_free(map);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_map_plain)->Arg(10000);

// ... and in heap variables (the target: at most four times the plain map).
void BM_map_heap(benchmark::State& state) {
    zok::Host host;
    host.load_module(ZOK_Load, ZOK_ResetSession);
    auto keys = shuffled_keys(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        uint32_t map = flux::maph_new();
        for (uint32_t k : keys)
            flux::maph_put(map, k, k, compare_heap);
        for (uint32_t k : keys)
            benchmark::DoNotOptimize(flux::maph_find(map, k, compare_heap));
        flux::maph_free(map);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_map_heap)->Arg(10000);

} // namespace
