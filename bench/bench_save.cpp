// Saving and restoring a framework of 10,000 behaviours filed in 1,000 scopes
// (100 handlers, 10 scoped texts each), the module's restore pass over it on its
// own, and, in the same run, plain fwrite/fread of as many bytes as the save file
// holds: the floor for any format.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "host.hpp"

extern "C" int32_t ZOK_Load();
extern "C" void ZOK_ResetSession();

namespace {

using zok::ObjectRef;
using zok::Value;

constexpr int kHandlers = 100;
constexpr int kTextsPerHandler = 10;
constexpr int kBehaviours = 10000;
const std::string kPath = "/dev/shm/bench_save.zoksave";

// The host, holding the framework in the program variable FW.
zok::Host& framework() {
    static zok::Host* host = [] {
        auto* h = new zok::Host;
        h->load_module(ZOK_Load, ZOK_ResetSession);
        std::vector<Value> fw;
        std::vector<ObjectRef> handlers;
        for (int i = 0; i < kHandlers; ++i) {
            handlers.push_back(h->new_object("ZOKFWMESSAGEHANDLER"));
            fw.emplace_back(handlers.back());
            for (int t = 0; t < kTextsPerHandler; ++t)
                h->call_method(handlers.back(), "SCOPEMESSAGE", {"text" + std::to_string(t)});
        }
        for (int b = 0; b < kBehaviours; ++b)
            fw.emplace_back(h->new_object(
                "ZOKFWBEHAVIOR", {},
                {{"HANDLER", handlers[b % kHandlers]},
                 {"MESSAGESTRING", "text" + std::to_string(b / kHandlers % kTextsPerHandler)},
                 {"REGISTER", 1}}));
        h->set_var("FW", Value::array(ZOK_T_OBJECT, fw));
        h->save(kPath, {"FW"});
        std::atexit([] { std::remove(kPath.c_str()); });
        return h;
    }();
    return *host;
}

size_t file_size() {
    framework();
    std::FILE* f = std::fopen(kPath.c_str(), "rb");
    std::fseek(f, 0, SEEK_END);
    const long size = std::ftell(f);
    std::fclose(f);
    return static_cast<size_t>(size);
}

void restore_pass(zok::Host& host) {
    host.call_procedure("ZOKFWSAVEABLERESTOREARRAY", {zok::Ref{"FW"}});
    host.call_procedure("FWIDENT_GC");
}

void BM_save(benchmark::State& state) {
    zok::Host& host = framework();
    for (auto _ : state)
        host.save(kPath, {"FW"});
    state.counters["file_bytes"] = static_cast<double>(file_size());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * file_size()));
}
BENCHMARK(BM_save)->Unit(benchmark::kMillisecond);

void BM_restore(benchmark::State& state) {
    zok::Host& host = framework();
    for (auto _ : state) {
        state.PauseTiming();
        host.reset_session();
        state.ResumeTiming();
        host.restore(kPath);
    }
    restore_pass(host);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * file_size()));
}
BENCHMARK(BM_restore)->Unit(benchmark::kMillisecond);

void BM_restore_pass(benchmark::State& state) {
    zok::Host& host = framework();
    for (auto _ : state) {
        state.PauseTiming();
        host.reset_session();
        host.restore(kPath);
        state.ResumeTiming();
        restore_pass(host);
    }
    state.SetItemsProcessed(state.iterations() * (kHandlers + kBehaviours));
}
BENCHMARK(BM_restore_pass)->Unit(benchmark::kMillisecond);

// The floor: the same number of bytes through plain stdio.
void BM_fwrite_same_bytes(benchmark::State& state) {
    const std::vector<char> bytes(file_size(), 'x');
    const std::string path = kPath + ".raw";
    for (auto _ : state) {
        std::FILE* f = std::fopen(path.c_str(), "wb");
        std::fwrite(bytes.data(), 1, bytes.size(), f);
        std::fclose(f);
    }
    std::remove(path.c_str());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}
BENCHMARK(BM_fwrite_same_bytes)->Unit(benchmark::kMillisecond);

void BM_fread_same_bytes(benchmark::State& state) {
    std::vector<char> bytes(file_size());
    for (auto _ : state) {
        std::FILE* f = std::fopen(kPath.c_str(), "rb");
        benchmark::DoNotOptimize(std::fread(bytes.data(), 1, bytes.size(), f));
        std::fclose(f);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}
BENCHMARK(BM_fread_same_bytes)->Unit(benchmark::kMillisecond);

} // namespace
