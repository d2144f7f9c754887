// Shared by the messaging suites: a host with the module loaded and PROBE, a
// program subclass of ZOKFWBEHAVIOR whose EXECUTE records who ran (and runs an
// optional action), plus readers of a handler's scopes.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "fw/fw_messhndlr.hpp"
#include "support/checks.hpp"
#include "support/testing.hpp"

namespace msgtest {

using zok::ObjectRef;
using zok::Value;

// Everything a program can observe of the host (its own observation) and the
// registry's use counts, for "a refusal changes nothing".
struct Observable {
    zok::Observation host;
    std::string registry; // each text with its use count

    explicit Observable(zok::Host& h) : host(h.observe()), registry(zoktest::registry_counts()) {}
    // What changed since `before`; empty when nothing did.
    std::string since(const Observable& before) const {
        if (std::string d = zok::difference(before.host, host); !d.empty())
            return d;
        return registry == before.registry ? "" : before.registry + "-> " + registry;
    }
};

// A call expected to be refused with `code` (and `text`, when given) and to
// change nothing a program can observe.
struct Refusal {
    std::function<void()> call;
    int32_t code;
    std::string text;
    std::string block = ""; // the module's own messages come from its block
};

inline void expect_refusals(zok::Host& host, const std::vector<Refusal>& refusals) {
    for (size_t i = 0; i < refusals.size(); ++i) {
        SCOPED_TRACE("refusal " + std::to_string(i));
        const Observable before(host);
        const zok::Error e = expect_error(refusals[i].code, refusals[i].call);
        if (!refusals[i].text.empty()) {
            EXPECT_EQ(e.text(), refusals[i].text);
        }
        EXPECT_EQ(e.block(), refusals[i].block);
        EXPECT_EQ(Observable(host).since(before), "");
    }
}

class Messaging : public ::testing::Test {
protected:
    Messaging() { start(); }
    // Loads the module and defines PROBE with `probe_tags` (none: no PROBE).
    void start(std::optional<std::vector<zok::TagSpec>> probe_tags = std::vector<zok::TagSpec>{}) {
        host.load_module(ZOK_Load, ZOK_ResetSession);
        if (!probe_tags)
            return;
        host.define_struct("PROBE", *probe_tags, "ZOKFWBEHAVIOR");
        host.add_procedure("PROBE::EXECUTE", 1, 2, [this](zok::Call& call) {
            const uint32_t self = call.self().id;
            executed.push_back(self);
            if (const auto action = on_execute.find(self); action != on_execute.end())
                action->second(call);
            return Value();
        });
    }

    // The module serves one host at a time: this one goes, a fresh one takes
    // its place, so every helper uses it.
    void
    fresh_host(std::optional<std::vector<zok::TagSpec>> probe_tags = std::vector<zok::TagSpec>{}) {
        host.~Host();
        new (&host) zok::Host();
        start(std::move(probe_tags));
    }

    ObjectRef handler(ObjectRef parent = {}) {
        return host.new_object("ZOKFWMESSAGEHANDLER", {}, {{"HANDLER", parent}});
    }
    ObjectRef probe(const std::string& text, ObjectRef parent = {}, bool reg = true) {
        return host.new_object(
            "PROBE", {}, {{"MESSAGESTRING", text}, {"HANDLER", parent}, {"REGISTER", reg ? 1 : 0}});
    }
    ObjectRef message(const std::string& text, ObjectRef parent = {}) {
        return host.new_object("ZOKFWMESSAGE", {}, {{"MESSAGESTRING", text}, {"HANDLER", parent}});
    }
    // Who a send reached, in order.
    std::vector<uint32_t> send(ObjectRef message, const zok::Args& args = {},
                               const char* how = "SEND") {
        executed.clear();
        host.call_method(message, how, args);
        return executed;
    }
    std::vector<uint32_t> send_from(ObjectRef handler, const Value& message) {
        return send(handler, {message}, "SENDMESSAGE");
    }
    std::vector<std::string> scoped(ObjectRef handler) {
        std::vector<std::string> texts;
        for (const Value& v : host.call_method(handler, "SCOPEDMESSAGES").elements())
            texts.push_back(v.as_string());
        return texts;
    }
    std::vector<uint32_t> filed(ObjectRef handler, const std::string& text) {
        const Value v = host.call_method(handler, "BEHAVIORS", {text});
        EXPECT_TRUE(v.is_array() || !v.as_object()) << "a scalar BEHAVIORS result must be null";
        std::vector<uint32_t> ids;
        for (const Value& e : v.is_array() ? v.elements() : std::vector<Value>{})
            ids.push_back(e.as_object().id);
        return ids;
    }
    // The heap identifier a pointer field holds.
    uint32_t pointer(uint32_t id, const char* tag) {
        return host.get_tag(ObjectRef{id}, tag).as_pointer().id;
    }
    ObjectRef default_handler() const { return ObjectRef{flux::default_handler()}; }

    // The first broken invariant of the module and of every live handler (the
    // full check: these programs never leave dead names in a table).
    std::string check_all() {
        std::string fault = zoktest::module_fault(host);
        for (const uint32_t id : host.heap_ids(ZOK_HEAP_OBJECT))
            if (fault.empty() && host.isa(ObjectRef{id}, "ZOKFWMESSAGEHANDLER"))
                fault = flux::messagehandler_check(id);
        return fault;
    }

    zok::Host host;
    std::vector<uint32_t> executed;
    std::map<uint32_t, std::function<void(zok::Call&)>> on_execute;
};

} // namespace msgtest
