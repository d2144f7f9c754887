// The ordered trees beside std::map on identical keys in the same run: random and
// ascending insert, find hit, find miss, random erase and a full walk, over 32-bit integer
// keys and 16-byte string keys; and the memory per entry of each.
//
// Each benchmark is named workload<container, keys>/n; the ratio of a tree to std::map is
// the ratio of their times at the same workload, keys and n, best compared as the "min"
// of a few repetitions:
//   bench_maps --benchmark_min_time=0.1 --benchmark_repetitions=3
//              --benchmark_report_aggregates_only=true
#include <malloc.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "count.hpp"
#include "frame/structs.hpp"
#include "host.hpp"
#include "maps/map.hpp"
#include "maps/maph.hpp"

namespace {

// ---- Keys: a table of 2n distinct keys that never moves; n present keys in random
// order, the same ascending, and n absent keys, all pointing into the table.

template <class K>
struct KeySet {
    using Key = K;
    std::vector<K> table;
    std::vector<const K*> present, ascending, absent;

    explicit KeySet(std::vector<K> keys) : table(std::move(keys)) {
        size_t n = table.size() / 2;
        for (size_t i = 0; i < n; ++i) {
            present.push_back(&table[i]);
            absent.push_back(&table[n + i]);
        }
        ascending = present;
        std::sort(ascending.begin(), ascending.end(),
                  [](const K* a, const K* b) { return *a < *b; });
    }
};

// An odd multiplier is a bijection on 32 bits: distinct keys all over the range.
std::vector<int32_t> int_keys(size_t n) {
    std::vector<int32_t> keys;
    for (uint32_t i = 0; i < 2 * n; ++i)
        keys.push_back(static_cast<int32_t>(i * 2654435761u));
    return keys;
}

std::vector<std::string> string_keys(size_t n) {
    std::mt19937 rng(7);
    std::vector<std::string> keys;
    for (size_t i = 0; i < 2 * n; ++i) {
        std::string text(16, ' ');
        for (char& c : text)
            c = static_cast<char>('a' + rng() % 26);
        keys.push_back(std::move(text));
    }
    return keys;
}

struct IntKeys : KeySet<int32_t> {
    static constexpr const char* name = "int";
    explicit IntKeys(size_t n) : KeySet(int_keys(n)) {}
};
struct StringKeys : KeySet<std::string> {
    static constexpr const char* name = "string";
    explicit StringKeys(size_t n) : KeySet(string_keys(n)) {}
};

// ---- The containers, all with the same small interface over keys held by the caller.

template <class K>
struct StdMap {
    static constexpr const char* name = "std_map";
    std::map<K, uint32_t> m;
    void insert(const K& k, uint32_t v) { m.emplace(k, v); }
    bool find(const K& k) { return m.find(k) != m.end(); }
    void erase(const K& k) { m.erase(k); }
    uint64_t walk() {
        uint64_t sum = 0;
        for (const auto& entry : m)
            sum += entry.second;
        return sum;
    }
};

// map_rb with the integer or the string key kind.
template <class K>
struct Rb {
    static constexpr const char* name = "map_rb";
    flux::RbNode* head = flux::map_rb_new_tree();
    ~Rb() { flux::map_rb_free_tree(head); }
    flux::RbNode* find_n(const K& k, bool& found) {
        if constexpr (std::is_same_v<K, std::string>)
            return flux::map_rb_find_key_n(head, k.c_str(), found);
        else
            return flux::map_rb_find_ikey_n(head, k, found);
    }
    static flux::RbWord word(const K& k) {
        if constexpr (std::is_same_v<K, std::string>)
            return reinterpret_cast<flux::RbWord>(k.c_str());
        else
            return static_cast<uint32_t>(k);
    }
    void insert(const K& k, uint32_t v) {
        bool found;
        flux::RbNode* at = find_n(k, found);
        if (!found)
            flux::map_rb_insert_b(at, word(k), v);
    }
    bool find(const K& k) {
        bool found;
        find_n(k, found);
        return found;
    }
    void erase(const K& k) {
        bool found;
        flux::RbNode* at = find_n(k, found);
        if (found)
            flux::map_rb_delete_node(at);
    }
    uint64_t walk() {
        uint64_t sum = 0;
        for (flux::RbNode* e = head->left; e != head; e = e->left)
            sum += e->value;
        return sum;
    }
};

// map_rbh keys strings by their index in the key table, ordered by the texts.
const std::vector<std::string>* rbh_texts;

int text_order(uint32_t a, uint32_t b) {
    return std::strcmp((*rbh_texts)[a].c_str(), (*rbh_texts)[b].c_str());
}

template <class K>
struct Rbh {
    static constexpr const char* name = "map_rbh";
    uint32_t head = flux::map_rbh_new_tree();
    ~Rbh() { flux::map_rbh_free_tree(head); }
    uint32_t word(const K& k) {
        if constexpr (std::is_same_v<K, std::string>)
            return static_cast<uint32_t>(&k - rbh_texts->data());
        else
            return static_cast<uint32_t>(k);
    }
    uint32_t find_n(const K& k, bool& found) {
        if constexpr (std::is_same_v<K, std::string>)
            return flux::map_rbh_find_gkey_n(head, word(k), text_order, found);
        else
            return flux::map_rbh_find_key_n(head, word(k), found);
    }
    void insert(const K& k, uint32_t v) {
        bool found;
        uint32_t at = find_n(k, found);
        if (!found)
            flux::map_rbh_insert_b(at, word(k), v);
    }
    bool find(const K& k) {
        bool found;
        find_n(k, found);
        return found;
    }
    void erase(const K& k) {
        bool found;
        uint32_t at = find_n(k, found);
        if (found)
            flux::map_rbh_delete_node(at);
    }
    uint64_t walk() {
        uint64_t sum = 0;
        for (uint32_t e = flux::maph_first(head); e != head; e = flux::maph_next(e))
            sum += flux::maph_node_value(e);
        return sum;
    }
};

// A host for the trees, and the keys; string keys are what the rbh comparison indexes.
template <class Keys>
struct Setup {
    zok::Host host;
    Keys keys;
    explicit Setup(benchmark::State& state) : keys(static_cast<size_t>(state.range(0))) {
        flux::define_structures();
        if constexpr (std::is_same_v<Keys, StringKeys>)
            rbh_texts = &keys.table;
    }
};

// The label of a workload's instruction count: workload/container/keys/n.
template <class C, class Keys>
std::string label(const char* workload, benchmark::State& state) {
    return std::string(workload) + "/" + C::name + "/" + Keys::name + "/" +
           std::to_string(state.range(0));
}

template <class C, class Key>
void fill(C& c, const std::vector<const Key*>& keys) {
    uint32_t v = 0;
    for (const Key* k : keys)
        c.insert(*k, v++);
}

// Builds the container from `which` keys each round; only the insertions are timed.
template <class C, class Keys>
void insert_all(benchmark::State& state, bool ascending) {
    Setup<Keys> setup(state);
    for (auto _ : state) {
        {
            C c;
            fill(c, ascending ? setup.keys.ascending : setup.keys.present);
            state.PauseTiming();
        }
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <class C, class Keys>
void BM_random_insert(benchmark::State& state) {
    insert_all<C, Keys>(state, false);
}

template <class C, class Keys>
void BM_ascending_insert(benchmark::State& state) {
    insert_all<C, Keys>(state, true);
}

template <class C, class Keys>
void find_all(benchmark::State& state, bool hits) {
    Setup<Keys> setup(state);
    C c;
    fill(c, setup.keys.present);
    const auto& probes = hits ? setup.keys.present : setup.keys.absent;
    auto find_each = [&] {
        size_t found = 0;
        for (const auto* k : probes)
            found += c.find(*k);
        if (found != (hits ? probes.size() : 0))
            state.SkipWithError("wrong find result");
        benchmark::DoNotOptimize(found);
    };
    for (auto _ : state)
        find_each();
    state.SetItemsProcessed(state.iterations() * state.range(0));
    bench::count_instructions(label<C, Keys>(hits ? "find_hit" : "find_miss", state),
                              state.range(0), find_each);
}

template <class C, class Keys>
void BM_find_hit(benchmark::State& state) {
    find_all<C, Keys>(state, true);
}

template <class C, class Keys>
void BM_find_miss(benchmark::State& state) {
    find_all<C, Keys>(state, false);
}

template <class C, class Keys>
void BM_random_erase(benchmark::State& state) {
    Setup<Keys> setup(state);
    auto order = setup.keys.present;
    std::shuffle(order.begin(), order.end(), std::mt19937(3));
    auto erase_each = [&](C& c) {
        for (const auto* k : order)
            c.erase(*k);
    };
    for (auto _ : state) {
        state.PauseTiming();
        auto c = std::make_unique<C>();
        fill(*c, setup.keys.present);
        state.ResumeTiming();
        erase_each(*c);
        state.PauseTiming();
        c.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    C c;
    fill(c, setup.keys.present);
    bench::count_instructions(label<C, Keys>("erase", state), state.range(0),
                              [&] { erase_each(c); });
}

template <class C, class Keys>
void BM_walk(benchmark::State& state) {
    Setup<Keys> setup(state);
    C c;
    fill(c, setup.keys.present);
    for (auto _ : state)
        benchmark::DoNotOptimize(c.walk());
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

// Bytes per entry: what the allocator hands out (in use) and what it took from the
// system, both from the allocator's own statistics around one fill, and the plain
// blocks that the host accounts.
template <class C, class Keys>
void BM_memory(benchmark::State& state) {
    Setup<Keys> setup(state);
    double in_use = 0, from_system = 0, accounted = 0;
    for (auto _ : state) {
        struct mallinfo2 before = mallinfo2();
        size_t plain_before = setup.host.memory(zok::kPlainLabel).bytes;
        C c;
        fill(c, setup.keys.present);
        struct mallinfo2 after = mallinfo2();
        in_use = static_cast<double>((after.uordblks + after.hblkhd) -
                                     (before.uordblks + before.hblkhd));
        from_system =
            static_cast<double>((after.arena + after.hblkhd) - (before.arena + before.hblkhd));
        accounted = static_cast<double>(setup.host.memory(zok::kPlainLabel).bytes - plain_before);
    }
    double n = static_cast<double>(state.range(0));
    state.counters["in_use_per_entry"] = in_use / n;
    state.counters["from_system_per_entry"] = from_system / n;
    state.counters["plain_accounted_per_entry"] = accounted / n;
}

constexpr int64_t k1 = 1000, k100 = 100000, k1m = 1000000;

// Other work on a shared machine only ever slows a run down, so with repetitions the
// least time of each is the one to compare.
double least(const std::vector<double>& times) {
    return *std::min_element(times.begin(), times.end());
}

#define MAP_BENCH(workload, container, keys)                                                       \
    BENCHMARK_TEMPLATE(workload, container, keys)                                                  \
        ->ComputeStatistics("min", least)                                                          \
        ->Arg(k1)                                                                                  \
        ->Arg(k100)

#define MAP_BENCHES(workload)                                                                      \
    MAP_BENCH(workload, StdMap<int32_t>, IntKeys)->Arg(k1m);                                       \
    MAP_BENCH(workload, Rb<int32_t>, IntKeys)->Arg(k1m);                                           \
    MAP_BENCH(workload, Rbh<int32_t>, IntKeys);                                                    \
    MAP_BENCH(workload, StdMap<std::string>, StringKeys)->Arg(k1m);                                \
    MAP_BENCH(workload, Rb<std::string>, StringKeys)->Arg(k1m);                                    \
    MAP_BENCH(workload, Rbh<std::string>, StringKeys)

MAP_BENCHES(BM_random_insert);
MAP_BENCHES(BM_ascending_insert);
MAP_BENCHES(BM_find_hit);
MAP_BENCHES(BM_find_miss);
MAP_BENCHES(BM_random_erase);
MAP_BENCHES(BM_walk);

BENCHMARK_TEMPLATE(BM_memory, StdMap<int32_t>, IntKeys)->Arg(k1m)->Iterations(1);
BENCHMARK_TEMPLATE(BM_memory, Rb<int32_t>, IntKeys)->Arg(k1m)->Iterations(1);
BENCHMARK_TEMPLATE(BM_memory, Rbh<int32_t>, IntKeys)->Arg(k100)->Iterations(1);

} // namespace
