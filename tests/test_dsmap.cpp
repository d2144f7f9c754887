// ZOKDSMAP against std::map<std::string, value> over random inserts,
// replacements, removals and look-ups; key order is the host's string order;
// values are copies; nothing outlives the object; the class check names each
// way a map can be broken.
#include <map>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "dsmap/ds_map.hpp"
#include "host.hpp"
#include "support/testing.hpp"

extern "C" int32_t ZOK_Load();
extern "C" void ZOK_ResetSession();

namespace {

using zok::ObjectRef;
using zok::Value;

class DsMap : public ::testing::Test {
protected:
    void SetUp() override {
        host.load_module(ZOK_Load, ZOK_ResetSession);
        baseline_heap = host.heap_count();
        map = host.new_object("ZOKDSMAP");
    }
    Value call(const char* method, const zok::Args& args = {}) {
        return host.call_method(map, method, args);
    }
    std::vector<std::string> keys() {
        const Value v = call("GETKEYS", {zok::Ref{"count"}});
        std::vector<std::string> out;
        if (!v.is_array()) {
            EXPECT_EQ(v.as_string(), "");
        } else {
            for (const Value& e : v.elements())
                out.push_back(e.as_string());
        }
        const Value count = host.get_var("count");
        EXPECT_EQ(count.type(), ZOK_T_LONG);
        EXPECT_EQ(count.as_int(), static_cast<int64_t>(out.size()));
        return out;
    }

    zok::Host host;
    ObjectRef map;
    size_t baseline_heap = 0;
};

TEST_F(DsMap, AgreesWithStdMap) {
    const uint32_t seed = test_seed();
    SCOPED_TRACE("ZOK_SEED=" + std::to_string(seed));
    std::mt19937 rng(seed);
    auto pick = [&](size_t n) { return static_cast<size_t>(rng() % n); };
    auto random_key = [&] {
        static const char letters[] = "aAbB\x01\xfe";
        std::string k;
        for (size_t n = pick(4); n > 0; --n)
            k += letters[pick(sizeof letters - 1)];
        return k;
    };
    auto random_value = [&] {
        const Value values[] = {static_cast<int32_t>(rng()), std::string(pick(5), 'v'),
                                static_cast<double>(pick(1000)) / 8,
                                std::vector<int32_t>{static_cast<int32_t>(pick(9)), 2, 3}};
        return values[pick(4)];
    };
    std::map<std::string, Value> model;
    // The heap holds as much for a size as the first time the map had it, so a
    // replacement that makes an entry anew, or leaks the old value, shows.
    std::map<size_t, size_t> heap_at_size;
    // An empty map lists a scalar "" and counts 0, into the output argument too.
    host.set_var("count", -1);
    ASSERT_TRUE(keys().empty());
    EXPECT_EQ(call("GETKEYS").as_string(), "");

    for (int step = 0; step < 4000; ++step) {
        SCOPED_TRACE("step " + std::to_string(step));
        const std::string key = random_key();
        switch (pick(6)) {
        case 0:
        case 1: {
            const Value v = random_value();
            if (pick(2) == 0) {
                call("INSERT", {key, v});
            } else { // from a program variable, changed afterwards: the map keeps a copy
                host.set_var("v", v);
                call("INSERT", {key, zok::Ref{"v"}});
                host.set_var("v", "changed");
            }
            model[key] = v;
            break;
        }
        case 2:
            call("REMOVE", {key});
            model.erase(key);
            break;
        case 3: {
            const Value got = call("GETDATA", {key});
            const auto it = model.find(key);
            ASSERT_EQ(got, it == model.end() ? Value() : it->second) << got.to_string();
            break;
        }
        case 4:
            ASSERT_EQ(call("KEYEXISTS", {key}).as_int(), model.count(key) ? 1 : 0);
            break;
        case 5:
            ASSERT_EQ(call("GETSIZE").as_int(), static_cast<int64_t>(model.size()));
            break;
        }
        const size_t heap = host.heap_count();
        ASSERT_EQ(heap_at_size.emplace(model.size(), heap).first->second, heap);
        if (step % 50 == 0) {
            std::vector<std::string> expected;
            for (auto& [k, v] : model)
                expected.push_back(k);
            ASSERT_EQ(keys(), expected);
        }
        ASSERT_EQ(host.live_temps(), 0u);
    }
    // Every entry is two heap variables plus a tree node each side; all go.
    host.destroy(map);
    host.erase_var("v");
    EXPECT_EQ(host.heap_count(), baseline_heap);
}

// The class check passes a sound map and names each way an entry or the map
// itself can be broken behind the class's back; methods that meet a heap
// variable gone raise the dereference error.
TEST_F(DsMap, CheckNamesEachBrokenPartAndVanishedHeapVariablesRaise) {
    call("INSERT", {"a", 1});
    call("INSERT", {"b", 2});
    EXPECT_EQ(flux::dsmap_check(map.id), "");
    auto heap_var_holding = [&](const Value& v) {
        for (const uint32_t id : host.heap_ids(ZOK_HEAP_POINTER))
            if (host.heap_value(id) == v)
                return host_heap_var(id);
        ADD_FAILURE() << "no heap variable holds " << v.to_string();
        return static_cast<zok_heap_record*>(nullptr);
    };
    zok_heap_record* a = heap_var_holding("a");
    zok_heap_record* b = heap_var_holding("b");
    auto expect_fault = [&](const std::string& ending) {
        const std::string fault = flux::dsmap_check(map.id);
        EXPECT_TRUE(fault.ends_with(ending)) << fault;
    };
    std::swap(a->var.value.str, b->var.value.str);
    expect_fault(": keys not in ascending order");
    std::swap(a->var.value.str, b->var.value.str);
    const zok_var text = a->var;
    a->var.type = ZOK_T_LONG;
    expect_fault(": the key is no string heap variable");
    a->var = text;
    const uint32_t the_map = host.get_tag(map, "THE_MAP").as_pointer().id;
    host.set_tag(map, "THE_MAP", zok::PointerRef{a->id});
    expect_fault(": the head names no node");
    host.set_tag(map, "THE_MAP", zok::PointerRef{the_map});
    host_heap_free(heap_var_holding(2)->id, 0, 0);
    expect_fault(": the value heap variable is gone");
    const std::string vanished = "ZOKdsMap heap dereference error";
    expect_module_error(0, vanished, [&] { call("GETDATA", {"b"}); });
    expect_module_error(0, vanished, [&] { call("INSERT", {"b", 3}); });
    host.call_method(map, "CLEANUP");
    EXPECT_FALSE(host.heap_alive(the_map));
    expect_module_error(0, vanished, [&] { call("GETSIZE"); });
}

} // namespace
