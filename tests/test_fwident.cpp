// The identifier registry against a simple model of names, use counts and
// live identifiers, over random sequences of acquisitions, releases,
// rollovers (of live identifiers and of restored copies) and collections.
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fw/fw_ident.hpp"
#include "host.hpp"
#include "support/testing.hpp"

extern "C" int32_t ZOK_Load();
extern "C" void ZOK_ResetSession();

namespace {

using zok::PointerRef;

class Registry : public ::testing::Test {
protected:
    void SetUp() override { host.load_module(ZOK_Load, ZOK_ResetSession); }

    uint32_t get(const std::string& name) {
        return host.call_function("GET_FWIDENT", {name}).as_pointer().id;
    }
    uint32_t rollover(uint32_t ident) {
        return host.call_function("ROLLOVER_FWIDENT", {PointerRef{ident}}).as_pointer().id;
    }
    // A heap variable with the same text, as a restore makes it.
    uint32_t restored_copy(const std::string& name) {
        zok_var* text = host.make_temp(name);
        const uint32_t id =
            host_heap_var_new(ZOK_HEAP_POINTER, text, ZOK_HEAP_NEW_MOVE, ZOK_ACTION_ERROR)->id;
        host_release_temp(text);
        return id;
    }

    zok::Host host;
};

struct Model {
    struct Entry {
        uint32_t ident;
        int32_t uses;
    };
    std::map<std::string, Entry> names;
    std::set<uint32_t> parked;
    std::map<uint32_t, std::string> copies; // restored copies not yet parked or freed
    std::set<uint32_t> dead;

    Entry* by_ident(uint32_t ident) {
        for (auto& [name, e] : names)
            if (e.ident == ident)
                return &e;
        return nullptr;
    }
    void collect(bool all) {
        for (uint32_t id : parked)
            dead.insert(id);
        parked.clear();
        for (auto it = names.begin(); it != names.end();) {
            if (all || it->second.uses <= 0) {
                dead.insert(it->second.ident);
                it = names.erase(it);
            } else {
                ++it;
            }
        }
    }
};

TEST_F(Registry, AgreesWithAModelOverRandomOperations) {
    const uint32_t seed = test_seed();
    SCOPED_TRACE("ZOK_SEED=" + std::to_string(seed));
    std::mt19937 rng(seed);
    const std::vector<std::string> pool = {"alpha",     "Alpha", "ALPHA", "beta", "",
                                           "gamma ray", "b",     "beta2", "z",    "\xff"};
    Model model;
    const size_t baseline_heap = host.heap_count();
    auto pick = [&](size_t n) { return static_cast<size_t>(rng() % n); };
    auto any_ident = [&]() -> uint32_t {
        std::vector<uint32_t> ids(model.dead.begin(), model.dead.end());
        for (auto& [name, e] : model.names)
            ids.push_back(e.ident);
        return ids.empty() ? 0 : ids[pick(ids.size())];
    };

    for (int step = 0; step < 3000; ++step) {
        SCOPED_TRACE("step " + std::to_string(step));
        switch (pick(8)) {
        case 0:
        case 1: { // acquire by name
            const std::string& name = pool[pick(pool.size())];
            const uint32_t id = get(name);
            auto [it, fresh] = model.names.try_emplace(name, Model::Entry{id, 0});
            if (!fresh) {
                ASSERT_EQ(id, it->second.ident);
            }
            it->second.uses += 1;
            break;
        }
        case 2: { // acquire or release by identifier, live or dead
            const uint32_t id = any_ident();
            if (id == 0)
                break;
            const bool acquire = pick(2) == 0;
            host.call_procedure(acquire ? "FWIDENT_ACQUIRE" : "FWIDENT_RELEASE", {PointerRef{id}});
            if (Model::Entry* e = model.by_ident(id))
                e->uses += acquire ? 1 : -1;
            break;
        }
        case 3: // release twice: counts may go below zero
            if (const uint32_t id = any_ident()) {
                for (int i = 0; i < 2; ++i)
                    host.call_procedure("FWIDENT_RELEASE", {PointerRef{id}});
                if (Model::Entry* e = model.by_ident(id))
                    e->uses -= 2;
            }
            break;
        case 4: { // rollover of a live or dead identifier
            const uint32_t id = any_ident();
            if (id == 0)
                break;
            const uint32_t live = rollover(id);
            if (Model::Entry* e = model.by_ident(id)) {
                ASSERT_EQ(live, id);
                e->uses += 1;
            } else {
                ASSERT_EQ(live, 0u);
            }
            break;
        }
        case 5: { // rollover of a restored copy
            const std::string& name = pool[pick(pool.size())];
            const uint32_t copy = restored_copy(name);
            const uint32_t live = rollover(copy);
            auto [it, fresh] = model.names.try_emplace(name, Model::Entry{live, 0});
            ASSERT_NE(live, copy);
            ASSERT_EQ(live, it->second.ident);
            it->second.uses += 1;
            model.parked.insert(copy);
            if (pick(3) == 0) { // a second rollover of the same copy parks it once
                ASSERT_EQ(rollover(copy), live);
                it->second.uses += 1;
            }
            break;
        }
        case 6:
        case 7: { // the host's collection keeps what only the registry holds; then
                  // the registry's own, with no argument, 0, 1 or 2
            host.collect();
            for (auto& [name, e] : model.names)
                ASSERT_NE(host.heap_flags(e.ident) & ZOK_HEAP_HELD, 0u) << name;
            const size_t form = pick(4);
            if (form == 0)
                host.call_procedure("FWIDENT_GC");
            else
                host.call_procedure("FWIDENT_GC", {static_cast<int32_t>(form - 1)});
            model.collect(form == 2);
            break;
        }
        }
        ASSERT_EQ(flux::fwident_check(), "");
        const auto entries = flux::fwident_entries();
        ASSERT_EQ(entries.size(), model.names.size());
        size_t i = 0;
        for (auto& [name, e] : model.names) {
            ASSERT_EQ(entries[i].name, name);
            ASSERT_EQ(entries[i].ident, e.ident);
            ASSERT_EQ(entries[i].uses, e.uses) << name;
            ++i;
        }
        ASSERT_EQ(flux::fwident_parked(),
                  std::vector<uint32_t>(model.parked.begin(), model.parked.end()));
        for (uint32_t id : model.dead)
            ASSERT_FALSE(host.heap_alive(id)) << id;
    }

    ZOK_ResetSession();
    EXPECT_TRUE(flux::fwident_entries().empty());
    EXPECT_TRUE(flux::fwident_parked().empty());
    EXPECT_EQ(host.memory("FW_Ident key").blocks, 0u);
    EXPECT_EQ(host.memory("FW_Ident data").blocks, 0u);
    EXPECT_EQ(host.heap_count(), baseline_heap);
    EXPECT_EQ(host.live_temps(), 0u);
}

TEST_F(Registry, OrderRaisesCorruptionForAVanishedIdentifier) {
    const uint32_t a = get("a");
    const uint32_t b = get("b");
    EXPECT_LT(flux::fwident_order(a, b), 0);
    EXPECT_EQ(flux::fwident_order(a, restored_copy("a")), 0);
    host.call_procedure("FWIDENT_RELEASE", {PointerRef{b}});
    host.call_procedure("FWIDENT_GC");
    expect_module_error(-1, "FWIdent corruption", [&] { flux::fwident_order(a, b); });
}

} // namespace
