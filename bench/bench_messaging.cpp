// Sending through handler chains, beside a plain loop over std::function
// receivers in the same run.  The sends use the module's own send operation,
// so that the figures are the module's (and the host's method calls), not the
// program API's conversions.
#include <functional>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "fw/fw_ident.hpp"
#include "fw/fw_messhndlr.hpp"
#include "host.hpp"

extern "C" int32_t ZOK_Load();
extern "C" void ZOK_ResetSession();

namespace {

using zok::ObjectRef;

uint32_t ident_of(const char* text) {
    std::string s(text);
    const zok_string d{static_cast<uint32_t>(s.size()), 0, 0, s.data()};
    return flux::fwident_acquire_name(&d);
}

ObjectRef make_handler(zok::Host& host, ObjectRef parent) {
    return host.new_object("ZOKFWMESSAGEHANDLER", {}, {{"HANDLER", parent}});
}

// One handler scoping "tick" with n base-class behaviours filed in it.
void BM_send_to_behaviors(benchmark::State& state) {
    zok::Host host;
    host.load_module(ZOK_Load, ZOK_ResetSession);
    const ObjectRef h = make_handler(host, {});
    host.call_method(h, "SCOPEMESSAGE", {"tick"});
    for (int64_t i = 0; i < state.range(0); ++i)
        host.new_object("ZOKFWBEHAVIOR", {},
                        {{"HANDLER", h}, {"MESSAGESTRING", "tick"}, {"REGISTER", 1}});
    const uint32_t tick = ident_of("tick");
    for (auto _ : state)
        flux::send_message(h.id, tick, nullptr);
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_send_to_behaviors)->Arg(1)->Arg(10)->Arg(100);

// The same number of receivers as a plain loop of calls.
void BM_std_function_receivers(benchmark::State& state) {
    int sum = 0;
    std::vector<std::function<void(int)>> receivers;
    for (int64_t i = 0; i < state.range(0); ++i)
        receivers.emplace_back([&sum](int v) { sum += v; });
    for (auto _ : state) {
        for (const auto& receive : receivers)
            receive(1);
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_std_function_receivers)->Arg(1)->Arg(10)->Arg(100);

// A send that climbs n handlers, each scoping another message, to the one
// that scopes "tick" with one behaviour.
void BM_send_climbing(benchmark::State& state) {
    zok::Host host;
    host.load_module(ZOK_Load, ZOK_ResetSession);
    ObjectRef top = make_handler(host, {});
    host.call_method(top, "SCOPEMESSAGE", {"tick"});
    host.new_object("ZOKFWBEHAVIOR", {},
                    {{"HANDLER", top}, {"MESSAGESTRING", "tick"}, {"REGISTER", 1}});
    ObjectRef low = top;
    for (int64_t i = 0; i < state.range(0); ++i) {
        low = make_handler(host, low);
        host.call_method(low, "SCOPEMESSAGE", {"other"});
    }
    const uint32_t tick = ident_of("tick");
    for (auto _ : state)
        flux::send_message(low.id, tick, nullptr);
}
BENCHMARK(BM_send_climbing)->Arg(0)->Arg(1)->Arg(4)->Arg(16);

// REGISTER then UNREGISTER of one behaviour in a scope that files 1,000.
void BM_register_unregister(benchmark::State& state) {
    zok::Host host;
    host.load_module(ZOK_Load, ZOK_ResetSession);
    const ObjectRef h = make_handler(host, {});
    host.call_method(h, "SCOPEMESSAGE", {"tick"});
    for (int i = 0; i < 1000; ++i)
        host.new_object("ZOKFWBEHAVIOR", {},
                        {{"HANDLER", h}, {"MESSAGESTRING", "tick"}, {"REGISTER", 1}});
    const ObjectRef b =
        host.new_object("ZOKFWBEHAVIOR", {}, {{"HANDLER", h}, {"MESSAGESTRING", "tick"}});
    for (auto _ : state) {
        host.call_method(b, "REGISTER");
        host.call_method(b, "UNREGISTER");
    }
}
BENCHMARK(BM_register_unregister);

} // namespace
