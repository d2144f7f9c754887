// The identifier registry and the map class, each beside a plain C++
// equivalent on the same keys in the same run.
#include <map>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include <benchmark/benchmark.h>

#include "fw/fw_ident.hpp"
#include "host.hpp"

extern "C" int32_t ZOK_Load();
extern "C" void ZOK_ResetSession();

namespace {

std::vector<std::string> make_names(size_t n, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<std::string> names;
    for (size_t i = 0; i < n; ++i) {
        std::string s(16, ' ');
        for (char& c : s)
            c = static_cast<char>('a' + rng() % 26);
        names.push_back(std::move(s));
    }
    return names;
}

zok_string descriptor(std::string& s) {
    return zok_string{static_cast<uint32_t>(s.size()), 0, 0, s.data()};
}

// Acquire by name of names that all exist already.
void BM_fwident_existing(benchmark::State& state) {
    zok::Host host;
    host.load_module(ZOK_Load, ZOK_ResetSession);
    auto names = make_names(static_cast<size_t>(state.range(0)), 1);
    std::vector<zok_string> descs;
    for (auto& n : names)
        descs.push_back(descriptor(n));
    for (auto& d : descs)
        flux::fwident_acquire_name(&d);
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(flux::fwident_acquire_name(&descs[i]));
        i = i + 1 == descs.size() ? 0 : i + 1;
    }
}

// The same counting of existing names in a standard container.
template <class Counts>
void BM_existing(benchmark::State& state) {
    auto names = make_names(static_cast<size_t>(state.range(0)), 1);
    Counts counts;
    for (auto& n : names)
        counts[n] += 1;
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(counts[names[i]] += 1);
        i = i + 1 == names.size() ? 0 : i + 1;
    }
}

// Acquire by name of new names, collected in batches outside the timing.
void BM_fwident_new(benchmark::State& state) {
    zok::Host host;
    host.load_module(ZOK_Load, ZOK_ResetSession);
    auto names = make_names(static_cast<size_t>(state.range(0)), 2);
    std::vector<zok_string> descs;
    for (auto& n : names)
        descs.push_back(descriptor(n));
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(flux::fwident_acquire_name(&descs[i]));
        if (++i == descs.size()) {
            state.PauseTiming();
            flux::fwident_collect(true);
            i = 0;
            state.ResumeTiming();
        }
    }
}

void BM_map_new(benchmark::State& state) {
    auto names = make_names(static_cast<size_t>(state.range(0)), 2);
    std::map<std::string, int> counts;
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(counts[names[i]] += 1);
        if (++i == names.size()) {
            state.PauseTiming();
            counts.clear();
            i = 0;
            state.ResumeTiming();
        }
    }
}

// ZOKDSMAP::INSERT of n keys (fresh map each round), through the host's call.
void BM_dsmap_insert(benchmark::State& state) {
    zok::Host host;
    host.load_module(ZOK_Load, ZOK_ResetSession);
    const auto names = make_names(static_cast<size_t>(state.range(0)), 3);
    for (auto _ : state) {
        state.PauseTiming();
        const zok::ObjectRef map = host.new_object("ZOKDSMAP");
        state.ResumeTiming();
        for (const auto& n : names)
            host.call_method(map, "INSERT", {n, 1});
        state.PauseTiming();
        host.destroy(map);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_std_map_insert(benchmark::State& state) {
    const auto names = make_names(static_cast<size_t>(state.range(0)), 3);
    for (auto _ : state) {
        std::map<std::string, zok::Value> m;
        for (const auto& n : names)
            m[n] = 1;
        benchmark::DoNotOptimize(m);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_dsmap_getdata(benchmark::State& state) {
    zok::Host host;
    host.load_module(ZOK_Load, ZOK_ResetSession);
    const auto names = make_names(static_cast<size_t>(state.range(0)), 4);
    const zok::ObjectRef map = host.new_object("ZOKDSMAP");
    for (const auto& n : names)
        host.call_method(map, "INSERT", {n, 1});
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(host.call_method(map, "GETDATA", {names[i]}));
        i = i + 1 == names.size() ? 0 : i + 1;
    }
}

void BM_std_map_getdata(benchmark::State& state) {
    const auto names = make_names(static_cast<size_t>(state.range(0)), 4);
    std::map<std::string, zok::Value> m;
    for (const auto& n : names)
        m[n] = 1;
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(zok::Value(m.find(names[i])->second));
        i = i + 1 == names.size() ? 0 : i + 1;
    }
}

} // namespace

BENCHMARK(BM_fwident_existing)->Arg(1000)->Arg(100000);
BENCHMARK_TEMPLATE(BM_existing, std::unordered_map<std::string, int>)->Arg(1000)->Arg(100000);
BENCHMARK_TEMPLATE(BM_existing, std::map<std::string, int>)->Arg(1000)->Arg(100000);
BENCHMARK(BM_fwident_new)->Arg(1000)->Arg(100000);
BENCHMARK(BM_map_new)->Arg(1000)->Arg(100000);
BENCHMARK(BM_dsmap_insert)->Arg(1000)->Arg(10000);
BENCHMARK(BM_std_map_insert)->Arg(1000)->Arg(10000);
BENCHMARK(BM_dsmap_getdata)->Arg(1000)->Arg(10000);
BENCHMARK(BM_std_map_getdata)->Arg(1000)->Arg(10000);
