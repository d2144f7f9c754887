// The identifier registry and the map class, each beside a plain C++
// equivalent on the same keys in the same run; the map class also beside a
// program class doing the same with a std::map through the same call path.
#include <map>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include <benchmark/benchmark.h>

#include "count.hpp"
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
    auto acquire = [&] {
        benchmark::DoNotOptimize(flux::fwident_acquire_name(&descs[i]));
        i = i + 1 == descs.size() ? 0 : i + 1;
    };
    for (auto _ : state)
        acquire();
    bench::count_instructions("name_existing/" + std::to_string(state.range(0)), 1000, [&] {
        for (int k = 0; k < 1000; ++k)
            acquire();
    });
}

// The same counting of existing names in a standard container.
template <class Counts>
void BM_existing(benchmark::State& state) {
    auto names = make_names(static_cast<size_t>(state.range(0)), 1);
    Counts counts;
    for (auto& n : names)
        counts[n] += 1;
    size_t i = 0;
    auto count = [&] {
        benchmark::DoNotOptimize(counts[names[i]] += 1);
        i = i + 1 == names.size() ? 0 : i + 1;
    };
    for (auto _ : state)
        count();
    if constexpr (std::is_same_v<Counts, std::map<std::string, int>>)
        bench::count_instructions("name_floor_std_map/" + std::to_string(state.range(0)), 1000,
                                  [&] {
                                      for (int k = 0; k < 1000; ++k)
                                          count();
                                  });
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

// A program class whose INSERT and GETDATA do what the map class's do with a
// std::map of values, so that both go through the same call path.
void define_std_map_class(zok::Host& host, std::map<std::string, zok::Value>& m) {
    host.define_struct("STDMAPCLASS", {{"N", ZOK_T_LONG}});
    host.add_procedure("STDMAPCLASS::INSERT", 3, 3, [&m](zok::Call& call) {
        m[call.arg(1).as_string()] = call.arg(2);
        return zok::Value();
    });
    host.add_function("STDMAPCLASS::GETDATA", 2, 2, [&m](zok::Call& call) {
        auto it = m.find(call.arg(1).as_string());
        return it == m.end() ? zok::Value() : it->second;
    });
}

// INSERT of n keys into a fresh map each round, through the host's method call,
// by the map class or (with range(1)) by the program class.
void BM_map_class_insert(benchmark::State& state) {
    zok::Host host;
    host.load_module(ZOK_Load, ZOK_ResetSession);
    std::map<std::string, zok::Value> m;
    define_std_map_class(host, m);
    const char* cls = state.range(1) ? "STDMAPCLASS" : "ZOKDSMAP";
    const auto names = make_names(static_cast<size_t>(state.range(0)), 3);
    auto insert_all = [&](zok::ObjectRef map) {
        for (const auto& n : names)
            host.call_method(map, "INSERT", {n, 1});
    };
    auto fresh = [&] {
        m.clear();
        return host.new_object(cls);
    };
    for (auto _ : state) {
        state.PauseTiming();
        const zok::ObjectRef map = fresh();
        state.ResumeTiming();
        insert_all(map);
        state.PauseTiming();
        host.destroy(map);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    const zok::ObjectRef map = fresh();
    bench::count_instructions(std::string("map_insert_") + cls + "/" +
                                  std::to_string(state.range(0)),
                              state.range(0), [&] { insert_all(map); });
}

void BM_map_class_getdata(benchmark::State& state) {
    zok::Host host;
    host.load_module(ZOK_Load, ZOK_ResetSession);
    std::map<std::string, zok::Value> m;
    define_std_map_class(host, m);
    const char* cls = state.range(1) ? "STDMAPCLASS" : "ZOKDSMAP";
    const auto names = make_names(static_cast<size_t>(state.range(0)), 4);
    const zok::ObjectRef map = host.new_object(cls);
    for (const auto& n : names)
        host.call_method(map, "INSERT", {n, 1});
    size_t i = 0;
    auto get = [&] {
        benchmark::DoNotOptimize(host.call_method(map, "GETDATA", {names[i]}));
        i = i + 1 == names.size() ? 0 : i + 1;
    };
    for (auto _ : state)
        get();
    bench::count_instructions(
        std::string("map_getdata_") + cls + "/" + std::to_string(state.range(0)), 1000, [&] {
            for (int k = 0; k < 1000; ++k)
                get();
        });
}

} // namespace

BENCHMARK(BM_fwident_existing)->Arg(1000)->Arg(100000);
BENCHMARK_TEMPLATE(BM_existing, std::unordered_map<std::string, int>)->Arg(1000)->Arg(100000);
BENCHMARK_TEMPLATE(BM_existing, std::map<std::string, int>)->Arg(1000)->Arg(100000);
BENCHMARK(BM_fwident_new)->Arg(1000)->Arg(100000);
BENCHMARK(BM_map_new)->Arg(1000)->Arg(100000);
BENCHMARK(BM_map_class_insert)->ArgsProduct({{1000, 10000}, {0, 1}});
BENCHMARK(BM_map_class_getdata)->ArgsProduct({{1000, 10000}, {0, 1}});
