// The acting behaviours under a send: 100 procedure behaviours and 100
// object-method behaviours (per behaviour, beside the base class's figure in
// bench_messaging), 1,000 arming messages then one delay message, and a query
// answered two handlers up.  Sends use the module's own send operation.
#include <string>

#include <benchmark/benchmark.h>

#include "fw/fw_ident.hpp"
#include "fw/fw_messhndlr.hpp"
#include "host.hpp"

extern "C" int32_t ZOK_Load();
extern "C" void ZOK_ResetSession();

namespace {

using zok::ObjectRef;
using zok::Value;

uint32_t ident_of(const char* text) {
    std::string s(text);
    const zok_string d{static_cast<uint32_t>(s.size()), 0, 0, s.data()};
    return flux::fwident_acquire_name(&d);
}

// A host with the module, a handler scoping "tick", and program code to call.
struct Setup {
    zok::Host host;
    ObjectRef h;
    int64_t calls = 0;
    Setup() {
        host.load_module(ZOK_Load, ZOK_ResetSession);
        h = host.new_object("ZOKFWMESSAGEHANDLER");
        host.call_method(h, "SCOPEMESSAGE", {"tick"});
        host.add_procedure("COUNT", 1, 1, [this](zok::Call&) {
            ++calls;
            return Value();
        });
        host.define_struct("COUNTER", {{"N", ZOK_T_LONG}});
        host.add_procedure("COUNTER::BUMP", 1, 2, [this](zok::Call&) {
            ++calls;
            return Value();
        });
    }
};

void BM_send_to_procedure_behaviors(benchmark::State& state) {
    Setup s;
    for (int64_t i = 0; i < state.range(0); ++i)
        s.host.new_object(
            "ZOKFWPROCBEHAV", {},
            {{"HANDLER", s.h}, {"MESSAGESTRING", "tick"}, {"PROCEDURE", "COUNT"}, {"REGISTER", 1}});
    const uint32_t tick = ident_of("tick");
    for (auto _ : state)
        flux::send_message(s.h.id, tick, nullptr);
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_send_to_procedure_behaviors)->Arg(100);

void BM_send_to_object_behaviors(benchmark::State& state) {
    Setup s;
    const ObjectRef counter = s.host.new_object("COUNTER");
    for (int64_t i = 0; i < state.range(0); ++i)
        s.host.new_object("ZOKFWOBJBEHAV", {},
                          {{"HANDLER", s.h},
                           {"MESSAGESTRING", "tick"},
                           {"METHOD", "BUMP"},
                           {"OBJECT", counter},
                           {"REGISTER", 1}});
    const uint32_t tick = ident_of("tick");
    for (auto _ : state)
        flux::send_message(s.h.id, tick, nullptr);
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_send_to_object_behaviors)->Arg(100);

// One delayed behaviour armed by n "tick" sends, then fired by one "fire".
void BM_arm_then_fire(benchmark::State& state) {
    Setup s;
    s.host.call_method(s.h, "SCOPEMESSAGE", {"fire"});
    const ObjectRef counter = s.host.new_object("COUNTER");
    s.host.new_object("ZOKFWDELAYBEHAV", {},
                      {{"HANDLER", s.h},
                       {"MESSAGESTRING", "tick"},
                       {"DELAYMESSAGESTRING", "fire"},
                       {"METHOD", "BUMP"},
                       {"OBJECT", counter},
                       {"REGISTER", 1}});
    const uint32_t tick = ident_of("tick");
    const uint32_t fire = ident_of("fire");
    for (auto _ : state) {
        for (int64_t i = 0; i < state.range(0); ++i)
            flux::send_message(s.h.id, tick, nullptr);
        flux::send_message(s.h.id, fire, nullptr);
    }
    if (s.calls != static_cast<int64_t>(state.iterations()))
        state.SkipWithError("the deferred call did not run once per round");
    state.SetItemsProcessed(state.iterations() * (state.range(0) + 1));
}
BENCHMARK(BM_arm_then_fire)->Arg(1000);

// SENDQUERY of a query whose answer is filed two handlers up.
void BM_query_two_up(benchmark::State& state) {
    Setup s;
    const ObjectRef mid = s.host.new_object("ZOKFWMESSAGEHANDLER", {}, {{"HANDLER", s.h}});
    const ObjectRef low = s.host.new_object("ZOKFWMESSAGEHANDLER", {}, {{"HANDLER", mid}});
    s.host.new_object("ZOKFWQUERYBEHAV", {},
                      {{"HANDLER", s.h},
                       {"MESSAGESTRING", "tick"},
                       {"RESPONSE", std::string("forty-two")},
                       {"REGISTER", 1}});
    const ObjectRef q =
        s.host.new_object("ZOKFWQUERY", {}, {{"HANDLER", low}, {"MESSAGESTRING", "tick"}});
    zok_var self{};
    self.type = ZOK_T_OBJECT;
    self.value.heap_id = q.id;
    zok_var* argv[] = {&self, nullptr};
    const zok_name* sendquery = host_lookup_name("ZOKFWQUERY::SENDQUERY", 0, 1, 2, 0);
    const zok_call_block call{1, {}, 1, sendquery, nullptr, argv, nullptr};
    for (auto _ : state) {
        zok_var* result = host_call_routine(&call);
        benchmark::DoNotOptimize(result->value.str.length);
        host_release_temp(result);
    }
}
BENCHMARK(BM_query_two_up);

} // namespace
