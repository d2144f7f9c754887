// The identifier registry against a simple model of names, use counts and
// live identifiers, over random sequences of acquisitions, releases,
// rollovers (of live identifiers and of restored copies) and collections.
#include <array>
#include <cstdlib>
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
        bool operator==(const Entry&) const = default;
    };
    std::map<std::string, Entry> names;
    std::set<uint32_t> parked;
    std::set<uint32_t> dead;

    Entry* by_ident(uint32_t ident) {
        for (auto& [name, e] : names)
            if (e.ident == ident)
                return &e;
        return nullptr;
    }
    void collect(bool all) {
        dead.merge(parked);
        std::erase_if(names, [&](const auto& entry) {
            const bool goes = all || entry.second.uses <= 0;
            if (goes)
                dead.insert(entry.second.ident);
            return goes;
        });
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
            auto it = model.names.try_emplace(name, Model::Entry{id, 0}).first;
            ASSERT_EQ(id, it->second.ident);
            it->second.uses += 1;
            break;
        }
        case 2:
        case 3: { // acquire, release or release twice by identifier, live or dead: uses may
                  // go below zero
            const uint32_t id = any_ident();
            const int change = std::array{1, -1, -2}[pick(3)];
            for (int i = 0; id && i < std::abs(change); ++i)
                host.call_procedure(change > 0 ? "FWIDENT_ACQUIRE" : "FWIDENT_RELEASE",
                                    {PointerRef{id}});
            if (Model::Entry* e = model.by_ident(id))
                e->uses += change;
            break;
        }
        case 4: { // rollover of a live or dead identifier
            const uint32_t id = any_ident();
            if (id == 0)
                break;
            Model::Entry* e = model.by_ident(id);
            ASSERT_EQ(rollover(id), e ? id : 0u);
            if (e)
                e->uses += 1;
            break;
        }
        case 5: { // rollover of a restored copy
            const std::string& name = pool[pick(pool.size())];
            const uint32_t copy = restored_copy(name);
            const uint32_t live = rollover(copy);
            auto it = model.names.try_emplace(name, Model::Entry{live, 0}).first;
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
            const auto form = static_cast<int32_t>(pick(4)) - 1; // -1: no argument
            host.call_procedure("FWIDENT_GC", form < 0 ? zok::Args{} : zok::Args{form});
            model.collect(form == 1);
            break;
        }
        }
        ASSERT_EQ(flux::fwident_check(), "");
        // In name order.
        std::vector<std::pair<const std::string, Model::Entry>> entries;
        for (const flux::FwIdentEntry& e : flux::fwident_entries())
            entries.push_back({e.name, {e.ident, e.uses}});
        ASSERT_EQ(entries, decltype(entries)(model.names.begin(), model.names.end()));
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
