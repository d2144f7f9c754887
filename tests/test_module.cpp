// The module's frame, identifier registry and map class.  The frame: loading and its
// failure paths and the field layouts as the host lays them out (the interface itself is
// pinned in test_interface).  The registry against a model of names, use counts and live
// identifiers over random acquisitions, releases, rollovers and collections, then a
// session reset.  ZOKDSMAP against std::map over random inserts, replacements, removals
// and look-ups: key order is the host's string order, values are copies, nothing
// outlives the object; and the class check names each way a map can be broken.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "dsmap/ds_map.hpp"
#include "frame/host_api.hpp"
#include "frame/structs.hpp"
#include "fw/fw_ident.hpp"
#include "maps/maph.hpp"
#include "support/checks.hpp"
#include "support/testing.hpp"

namespace {

using Tags = std::vector<std::string>;
using zok::ObjectRef;
using zok::PointerRef;
using zok::Value;

// A refused registration fails the load; what was registered before it stays,
// and a refused function table never lets the procedures in.  The structures
// are defined before anything that can be refused.
TEST(Load, ARefusedRegistrationAloneFailsTheLoad) {
    using zok::Operation;
    // The operation refused and which time, the routines registered then and those not.
    const std::tuple<Operation, uint32_t, Tags, Tags> cases[] = {
        {Operation::DefineMessageBlock, 1, {}, {"ZOKFWSAVEABLE::INIT", "ZOKFWSAVEABLE::CLEANUP"}},
        {Operation::AddRoutines, 1, {}, {"GET_FWIDENT", "FWIDENT_GC", "ZOKDSMAP::INSERT"}},
        {Operation::AddRoutines, 2, {"GET_FWIDENT"}, {"FWIDENT_GC"}},
    };
    for (const auto& [refused, nth, present, absent] : cases) {
        zok::Host host;
        host.refuse(refused, nth);
        EXPECT_EQ(ZOK_Load(), 0);
        EXPECT_NE(host.find_struct("ZOK_MAP_RBH_NODE"), nullptr);
        for (const std::string& name : present)
            EXPECT_TRUE(host.has_routine(name)) << name;
        for (const std::string& name : absent)
            EXPECT_FALSE(host.has_routine(name)) << name;
    }
    // Unrefused, the shared library loads whole, and it exports its two entry
    // points and nothing else of ours (the linker's own markers may be there).
    zok::Host host;
    host.load_module(ZOK_MODULE_PATH);
    EXPECT_TRUE(host.has_routine("ZOKDSMAP::GETKEYS"));
    FILE* nm = popen(("nm -D --defined-only -j " + std::string(ZOK_MODULE_PATH)).c_str(), "r");
    ASSERT_NE(nm, nullptr);
    std::set<std::string> exported;
    for (char name[1024]; std::fscanf(nm, "%1023s", name) == 1;)
        exported.insert(name);
    ASSERT_EQ(pclose(nm), 0);
    for (const char* marker : {"_init", "_fini", "__bss_start", "_edata", "_end"})
        exported.erase(marker);
    EXPECT_EQ(exported, (std::set<std::string>{"ZOK_Load", "ZOK_ResetSession"}));
}

class Loaded : public ::testing::Test {
protected:
    Loaded() { host.load_module(ZOK_Load, ZOK_ResetSession); }
    size_t pick(size_t n) { return rng() % n; }
    zok::Host host;
    std::mt19937 rng{test_seed()};
};

// The module reaches fields at fixed places behind the anchor tag; the host must lay them
// out at the same places.  (The classes' own fields show in every suite that reads a tag
// the module wrote; the map nodes' only here.)  Every INIT that takes keywords gives their
// texts back itself: the host would warn that it had to.
TEST_F(Loaded, StructuresAreLaidOutAndKeywordTextsGivenBack) {
    using flux::RbhNodeData;
    // Five words, then the status bytes one by one.
    const size_t words[] = {offsetof(RbhNodeData, flink), offsetof(RbhNodeData, blink),
                            offsetof(RbhNodeData, parent), offsetof(RbhNodeData, key),
                            offsetof(RbhNodeData, val)};
    const Tags tags = host.tags_of("ZOK_MAP_RBH_NODE");
    ASSERT_EQ(tags.size(), 10u);
    zok_var* node = host_temp_struct(flux::struct_map_rbh_node());
    auto at = [&](const std::string& tag) {
        return static_cast<char*>(host_struct_tag_data(node, tag.c_str(), 0, 0, 0));
    };
    for (size_t i = 0; i < tags.size(); ++i)
        EXPECT_EQ(static_cast<size_t>(at(tags[i]) - at("FLINK")),
                  i < 5 ? words[i] : offsetof(RbhNodeData, status) + i - 5)
            << tags[i];
    host_release_temp(node);
    // Behaviours that bracket strings have their structures prepared for copies and frees.
    for (const char* name : {"ZOKFWFUNCBEHAV", "ZOKFWPROCBEHAV"})
        EXPECT_NE(host.find_struct(name)->prepared, nullptr) << name;
    host.clear_messages();
    host.new_object("ZOKFWMESSAGE", {}, {{"MESSAGESTRING", "ping"}});
    EXPECT_TRUE(host.messages().empty());
}

using Registry = Loaded;

// The run ends in a session reset, which must leave what the load left: the registry's
// name index is made on first use and never freed, so the reset may leave one empty tree
// head in the node pool, nothing a program sees.
TEST_F(Registry, AgreesWithAModelOverRandomOperations) {
    auto observed = [&] {
        zok::Observation seen = host.observe();
        seen.memory.erase(zok::kPlainLabel);
        return seen;
    };
    const zok::Observation loaded = observed();
    auto rollover = [&](uint32_t ident) {
        return host.call_function("ROLLOVER_FWIDENT", {PointerRef{ident}}).as_pointer().id;
    };
    // A heap variable with the same text, as a restore makes it.
    auto restored_copy = [&](const std::string& name) {
        host.set_var("text", name);
        zok_var* text = host.raw_var("text");
        return host_heap_var_new(ZOK_HEAP_POINTER, text, ZOK_HEAP_NEW_COPY, ZOK_ACTION_ERROR)->id;
    };
    const std::vector<std::string> pool = {"alpha",     "Alpha", "ALPHA", "beta", "",
                                           "gamma ray", "b",     "beta2", "z",    "\xff"};
    // The model: each name's identifier and uses, in name order; the restored copies that
    // rollovers parked; the identifiers that must be gone.
    using Entry = std::pair<uint32_t, int32_t>;
    std::map<std::string, Entry> names;
    std::set<uint32_t> parked, dead;

    for (int step = 0; step < 3000; ++step) {
        SCOPED_TRACE("step " + std::to_string(step));
        const size_t what = pick(8);
        if (what < 3) { // acquire by name, or by a rollover of a restored copy, which parks it
            const std::string& name = pool[pick(pool.size())];
            const uint32_t copy = pick(3) == 0 ? restored_copy(name) : 0;
            const uint32_t id =
                copy ? rollover(copy) : host.call_function("GET_FWIDENT", {name}).as_pointer().id;
            auto& [ident, uses] = names.try_emplace(name, id, 0).first->second;
            ASSERT_EQ(id, ident);
            ASSERT_NE(id, copy);
            uses += 1;
            if (copy)
                parked.insert(copy);
            if (copy && pick(3) == 0) { // a second rollover of the same copy parks it once
                ASSERT_EQ(rollover(copy), id);
                uses += 1;
            }
        } else if (what < 6) { // acquire, release, release twice or roll over an identifier,
                               // live or dead: uses may go below zero
            std::vector<uint32_t> ids(dead.begin(), dead.end());
            for (auto& [name, e] : names)
                ids.push_back(e.first);
            const uint32_t id = ids.empty() ? 0 : ids[pick(ids.size())];
            auto live = std::find_if(names.begin(), names.end(),
                                     [&](const auto& n) { return n.second.first == id; });
            const int change = std::array{1, -1, -2, 0}[pick(4)];
            if (id && change == 0) { // a use more of a live one
                ASSERT_EQ(rollover(id), live != names.end() ? id : 0u);
            }
            for (int i = 0; id && i < std::abs(change); ++i)
                host.call_procedure(change > 0 ? "FWIDENT_ACQUIRE" : "FWIDENT_RELEASE",
                                    {PointerRef{id}});
            if (live != names.end())
                live->second.second += change == 0 ? 1 : change;
        } else { // the host's collection keeps what only the registry holds; then the
                 // registry's own, with no argument, 0, 1 or 2
            host.collect();
            for (auto& [name, e] : names)
                ASSERT_NE(host.heap_flags(e.first) & ZOK_HEAP_HELD, 0u) << name;
            const auto form = static_cast<int32_t>(pick(4)) - 1; // -1: no argument
            host.call_procedure("FWIDENT_GC", form < 0 ? zok::Args{} : zok::Args{form});
            dead.merge(parked);
            std::erase_if(names, [&](const auto& n) {
                const bool goes = form == 1 || n.second.second <= 0;
                if (goes)
                    dead.insert(n.second.first);
                return goes;
            });
        }
        ASSERT_EQ(flux::fwident_check(), "");
        std::vector<std::pair<const std::string, Entry>> entries; // in name order
        for (const flux::FwIdentEntry& e : flux::fwident_entries())
            entries.push_back({e.name, {e.ident, e.uses}});
        ASSERT_EQ(entries, decltype(entries)(names.begin(), names.end()));
        for (size_t i = 1; i < entries.size(); ++i)
            ASSERT_LT(flux::fwident_order(entries[i - 1].second.first, entries[i].second.first), 0);
        ASSERT_EQ(flux::fwident_parked(), std::vector<uint32_t>(parked.begin(), parked.end()));
        for (uint32_t id : dead)
            ASSERT_FALSE(host.heap_alive(id)) << id;
    }

    host.erase_var("text");
    host.clear_messages();
    ZOK_ResetSession();
    EXPECT_TRUE(flux::fwident_entries().empty());
    EXPECT_TRUE(flux::fwident_parked().empty());
    EXPECT_EQ(zok::difference(loaded, observed()), "");
    EXPECT_TRUE(host.messages().empty());
}

class DsMap : public Loaded {
protected:
    Value call(const char* method, const zok::Args& args = {}) {
        return host.call_method(map, method, args);
    }
    const size_t baseline_heap = host.heap_count();
    const ObjectRef map = host.new_object("ZOKDSMAP");
};

TEST_F(DsMap, AgreesWithStdMap) {
    std::map<std::string, Value> model;
    // The heap holds as much for a size as the first time the map had it, so a
    // replacement that makes an entry anew, or leaks the old value, shows.
    std::map<size_t, size_t> heap_at_size;
    // GETKEYS lists the keys in an array, or "" for none; its output argument counts them.
    auto check_keys = [&] {
        std::vector<std::string> expected;
        for (auto& [k, v] : model)
            expected.push_back(k);
        ASSERT_EQ(call("GETKEYS", {zok::Ref{"count"}}), expected.empty() ? Value("") : expected);
        ASSERT_EQ(host.get_var("count"), Value(static_cast<int32_t>(expected.size())));
    };
    host.set_var("count", -1);
    check_keys();
    EXPECT_EQ(call("GETKEYS"), Value(""));

    for (int step = 0; step < 4000; ++step) {
        SCOPED_TRACE("step " + std::to_string(step));
        std::string key;
        for (size_t n = pick(4); n > 0; --n)
            key += "aAbB\x01\xfe"[pick(6)];
        const size_t what = pick(4);
        if (what < 2) {
            const Value values[] = {static_cast<int32_t>(rng()), std::string(pick(5), 'v'),
                                    static_cast<double>(pick(1000)) / 8,
                                    std::vector<int32_t>{static_cast<int32_t>(pick(9)), 2, 3}};
            const Value& v = values[pick(4)];
            // Also from a program variable, changed afterwards: the map keeps a copy.
            host.set_var("v", v);
            call("INSERT", {key, pick(2) ? zok::Arg(zok::Ref{"v"}) : zok::Arg(v)});
            host.set_var("v", "changed");
            model[key] = v;
        } else if (what == 2) {
            call("REMOVE", {key});
            model.erase(key);
        }
        // Then the key and the size are looked up.
        const auto it = model.find(key);
        const Value got = call("GETDATA", {key});
        ASSERT_EQ(got, it == model.end() ? Value() : it->second) << got.to_string();
        ASSERT_EQ(call("KEYEXISTS", {key}).as_int(), it == model.end() ? 0 : 1);
        ASSERT_EQ(call("GETSIZE").as_int(), static_cast<int64_t>(model.size()));
        const size_t heap = host.heap_count();
        ASSERT_EQ(heap_at_size.emplace(model.size(), heap).first->second, heap);
        if (step % 50 == 0) {
            ASSERT_NO_FATAL_FAILURE(check_keys());
        }
        ASSERT_EQ(host.live_temps(), 0u);
    }
    // Every entry is two heap variables plus a tree node each side; all go, and the
    // object with them.
    host.destroy(map);
    host.erase_var("v");
    EXPECT_EQ(host.heap_count(), baseline_heap);
    expect_error(ZOK_ERR_INVALID_OBJECT,
                 "Invalid object reference: no live object has identifier " +
                     std::to_string(map.id) + ".",
                 [&] { call("GETSIZE"); });
}

// The class check passes a sound map and names each way an entry or the map
// itself can be broken behind the class's back; methods that meet a heap
// variable gone raise the dereference error.
TEST_F(DsMap, CheckNamesEachBrokenPartAndVanishedHeapVariablesRaise) {
    call("INSERT", {"a", 1});
    call("INSERT", {"b", 2});
    EXPECT_EQ(flux::dsmap_check(map.id), "");
    const uint32_t the_map = host.get_tag(map, "THE_MAP").as_pointer().id;
    zok_heap_record* a = host_heap_var(flux::maph_node_key(flux::maph_first(the_map)));
    zok_heap_record* b = host_heap_var(flux::maph_node_key(flux::maph_last(the_map)));
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
    host.set_tag(map, "THE_MAP", PointerRef{a->id});
    expect_fault(": the head names no node");
    host.set_tag(map, "THE_MAP", PointerRef{the_map});
    host_heap_free(flux::maph_node_value(flux::maph_last(the_map)), 0, 0);
    expect_fault(": the value heap variable is gone");
    const std::string vanished = "ZOKdsMap heap dereference error";
    expect_module_error(0, vanished, [&] { call("GETDATA", {"b"}); });
    expect_module_error(0, vanished, [&] { call("INSERT", {"b", 3}); });
    host.call_method(map, "CLEANUP");
    EXPECT_FALSE(host.heap_alive(the_map));
    expect_module_error(0, vanished, [&] { call("GETSIZE"); });
}

} // namespace
