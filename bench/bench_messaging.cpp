// Sending through handler chains, beside a plain loop over std::function
// receivers in the same run.  The sends use the module's own send operation,
// so that the figures are the module's (and the host's method calls), not the
// program API's conversions; the program's own SENDMESSAGE to program
// behaviours and the making of a connection go through the program API.
#include <functional>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "count.hpp"
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
    auto send = [&] {
        for (const auto& receive : receivers)
            receive(1);
        benchmark::DoNotOptimize(sum);
    };
    for (auto _ : state)
        send();
    state.SetItemsProcessed(state.iterations() * state.range(0));
    bench::count_instructions("send_floor_std_function/" + std::to_string(state.range(0)),
                              100 * state.range(0), [&] {
                                  for (int i = 0; i < 100; ++i)
                                      send();
                              });
}
BENCHMARK(BM_std_function_receivers)->Arg(1)->Arg(10)->Arg(100);

// A program's subclass of the behaviour base whose EXECUTE reads its integer
// argument, and a handler scoping "tick".
struct ProgramBehaviors {
    zok::Host host;
    ObjectRef h;
    int64_t sum = 0;
    ProgramBehaviors() {
        host.load_module(ZOK_Load, ZOK_ResetSession);
        host.define_struct("COUNTINGBEHAVIOR", {{"SEEN", ZOK_T_LONG}}, "ZOKFWBEHAVIOR");
        host.add_procedure("COUNTINGBEHAVIOR::EXECUTE", 1, 2, [this](zok::Call& call) {
            sum += call.integer(1);
            return Value();
        });
        h = make_handler(host, {});
        host.call_method(h, "SCOPEMESSAGE", {"tick"});
        registering = {{"HANDLER", h}, {"MESSAGESTRING", "tick"}, {"REGISTER", 1}};
    }
    // A registered behaviour; its keywords are made once, as a program that
    // connects in a loop makes them.
    ObjectRef connect() { return host.new_object("COUNTINGBEHAVIOR", {}, registering); }
    zok::Keywords registering;
};

// The program's SENDMESSAGE of a text with an integer to n program behaviours.
void BM_send_to_program_behaviors(benchmark::State& state) {
    ProgramBehaviors p;
    for (int64_t i = 0; i < state.range(0); ++i)
        p.connect();
    auto send = [&] { p.host.call_method(p.h, "SENDMESSAGE", {"tick", 1}); };
    for (auto _ : state)
        send();
    if (p.sum != static_cast<int64_t>(state.iterations()) * state.range(0))
        state.SkipWithError("a receiver missed a send");
    state.SetItemsProcessed(state.iterations() * state.range(0));
    bench::count_instructions("send_program_behaviors/" + std::to_string(state.range(0)),
                              10 * state.range(0), [&] {
                                  for (int i = 0; i < 10; ++i)
                                      send();
                              });
}
BENCHMARK(BM_send_to_program_behaviors)->Arg(1)->Arg(100);

// A connection: a program behaviour made with MESSAGESTRING and REGISTER in a
// scope of 100, then UNREGISTER and destroy.
void BM_connection(benchmark::State& state) {
    ProgramBehaviors p;
    for (int i = 0; i < 100; ++i)
        p.connect();
    const zok::Method unregister_method = p.host.method("UNREGISTER");
    auto connection = [&] {
        const ObjectRef b = p.connect();
        p.host.call_method(b, unregister_method);
        p.host.destroy(b);
    };
    for (auto _ : state)
        connection();
    bench::count_instructions("connection", 100, [&] {
        for (int i = 0; i < 100; ++i)
            connection();
    });
}
BENCHMARK(BM_connection);

// The same for a std::function put into a vector of 100 and taken out again.
void BM_std_function_connection(benchmark::State& state) {
    int sum = 0;
    std::vector<std::function<void(int)>> receivers(100, [&sum](int v) { sum += v; });
    auto connection = [&] {
        receivers.emplace_back([&sum](int v) { sum += v; });
        receivers.erase(receivers.begin() + 50);
        benchmark::DoNotOptimize(receivers.data());
    };
    for (auto _ : state)
        connection();
    bench::count_instructions("connection_floor_std_function", 100, [&] {
        for (int i = 0; i < 100; ++i)
            connection();
    });
}
BENCHMARK(BM_std_function_connection);

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
    const zok::Method register_method = host.method("REGISTER");
    const zok::Method unregister_method = host.method("UNREGISTER");
    auto round = [&] {
        host.call_method(b, register_method);
        host.call_method(b, unregister_method);
    };
    for (auto _ : state)
        round();
    bench::count_instructions("register_unregister", 100, [&] {
        for (int i = 0; i < 100; ++i)
            round();
    });
}
BENCHMARK(BM_register_unregister);

} // namespace
