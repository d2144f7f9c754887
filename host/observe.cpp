// Observations: everything a program can see of the host, taken at one moment,
// and the first difference between two of them.
#include "state.hpp"

#include <bit>

namespace zok {

using namespace detail;

namespace {

bool same(const Value& a, const Value& b) {
    if (a.type() != b.type() || a.is_array() != b.is_array())
        return false;
    if (a.is_array()) {
        const std::vector<Value> x = a.elements();
        const std::vector<Value> y = b.elements();
        if (x.size() != y.size())
            return false;
        for (size_t i = 0; i < x.size(); ++i)
            if (!same(x[i], y[i]))
                return false;
        return true;
    }
    if (a.type() == ZOK_T_FLOAT || a.type() == ZOK_T_DOUBLE)
        return std::bit_cast<uint64_t>(a.as_double()) == std::bit_cast<uint64_t>(b.as_double());
    if (a.type() == ZOK_T_STRUCT) {
        const StructValue& x = a.as_struct();
        const StructValue& y = b.as_struct();
        if (x.name != y.name || x.fields.size() != y.fields.size())
            return false;
        for (size_t i = 0; i < x.fields.size(); ++i)
            if (x.fields[i].first != y.fields[i].first ||
                !same(x.fields[i].second, y.fields[i].second))
                return false;
        return true;
    }
    return a == b;
}

std::string heap_var_difference(const Observation::HeapVar& a, const Observation::HeapVar& b) {
    const std::string name = format("heap variable %u", a.id);
    if (a.kind != b.kind)
        return format("%s: kind %d -> %d", name.c_str(), a.kind, b.kind);
    if (a.flags != b.flags)
        return format("%s: flags 0x%x -> 0x%x", name.c_str(), a.flags, b.flags);
    if (!same(a.value, b.value))
        return name + ": value " + a.value.to_string() + " -> " + b.value.to_string();
    return {};
}

std::string memory_text(const MemStats& m) {
    return format("%zu blocks, %zu bytes", m.blocks, m.bytes);
}

} // namespace

std::string difference(const Observation& before, const Observation& after) {
    auto a = before.heap.begin();
    auto b = after.heap.begin();
    while (a != before.heap.end() || b != after.heap.end()) {
        if (b == after.heap.end() || (a != before.heap.end() && a->id < b->id))
            return format("heap variable %u vanished", a->id);
        if (a == before.heap.end() || b->id < a->id)
            return format("heap variable %u appeared", b->id);
        if (std::string d = heap_var_difference(*a, *b); !d.empty())
            return d;
        ++a;
        ++b;
    }
    if (before.texts != after.texts)
        return format("live texts %zu -> %zu", before.texts, after.texts);
    if (before.temps != after.temps)
        return format("live temporaries %zu -> %zu", before.temps, after.temps);
    for (const auto* side : {&before.memory, &after.memory})
        for (const auto& [label, stats] : *side) {
            const auto x = before.memory.find(label);
            const auto y = after.memory.find(label);
            const MemStats was = x == before.memory.end() ? MemStats{} : x->second;
            const MemStats now = y == after.memory.end() ? MemStats{} : y->second;
            if (was != now)
                return "memory under \"" + label + "\": " + memory_text(was) + " -> " +
                       memory_text(now);
        }
    for (const auto* side : {&before.vars, &after.vars})
        for (const auto& [name, value] : *side) {
            const auto x = before.vars.find(name);
            const auto y = after.vars.find(name);
            if (x == before.vars.end() || y == after.vars.end())
                return "variable " + name + (x == before.vars.end() ? " appeared" : " vanished");
            if (!same(x->second, y->second))
                return "variable " + name + ": " + x->second.to_string() + " -> " +
                       y->second.to_string();
        }
    return {};
}

Observation Host::observe() const {
    Observation out;
    state_->heap.for_each([&](HeapSlot* slot) {
        out.heap.push_back({slot->rec.id, slot->kind, slot->rec.flags, from_var(slot->rec.var)});
    });
    out.texts = live_text_count(*state_);
    out.temps = state_->temps.live();
    out.memory = memory_by_label();
    for (const auto& [name, var] : state_->vars)
        out.vars.emplace(name, from_var(var));
    return out;
}

} // namespace zok
