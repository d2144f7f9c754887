// The reference host's accounting: temporaries, texts and module memory,
// double-free detection, the plain node pool under random churn, and fault
// injection.  Randomized tests print their seed; ZOK_SEED=<n> re-runs one.
#include "host.hpp"
#include "support/testing.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <set>
#include <string>

namespace {

TEST(HostTemporaries, CountedReleasedOnceAndOnlyTemporaries) {
    zok::Host host;
    zok_var* a = host_temp_long(7);
    zok_var* b = host_temp_var();
    EXPECT_EQ(host.live_temps(), 2u);
    EXPECT_EQ(a->type, ZOK_T_LONG);
    EXPECT_EQ(a->value.long_val, 7);
    EXPECT_TRUE(a->flags & ZOK_VF_TEMPORARY);
    host_release_temp(a);
    EXPECT_EQ(host.live_temps(), 1u);
    expect_error(ZOK_ERR_BAD_FREE, [&] { host_release_temp(a); });
    zok_var local{};
    local.flags = ZOK_VF_TEMPORARY;
    expect_error(ZOK_ERR_BAD_FREE, [&] { host_release_temp(&local); });
    b->flags = 0; // a module that cleared the mark no longer holds a temporary
    expect_error(ZOK_ERR_BAD_FREE, [&] { host_release_temp(b); });
    b->flags = ZOK_VF_TEMPORARY;
    host_release_temp(b);
    EXPECT_EQ(host.live_temps(), 0u);
}

TEST(HostTemporaries, ArraysAndStructuresGiveEverythingBackOnRelease) {
    zok::Host host;
    host.define_struct("REC", {{"S", ZOK_T_STRING}, {"N", ZOK_T_LONG}, {"T", ZOK_T_STRING}});
    zok_var* strs = nullptr;
    auto* elems = static_cast<zok_string*>(host_make_temp_vector(ZOK_T_STRING, 3, 1, &strs));
    for (int i = 0; i < 3; ++i)
        host_string_store(&elems[i], ("text" + std::to_string(i)).c_str());
    zok_var* rec = host.make_temp(zok::StructValue{"REC", {{"S", "one"}, {"N", 4}, {"T", "two"}}});
    EXPECT_EQ(host.live_texts(), 5u);

    // Copies are deep: every text is duplicated, and freeing the copy gives
    // back exactly the copy's texts.
    zok_var copy{};
    host_var_copy(rec, &copy, 0);
    host_var_copy(strs, &copy, 0); // frees the structure copy first
    EXPECT_EQ(host.live_texts(), 8u);
    EXPECT_EQ(host.read(copy), host.read(*strs));
    host_var_free_value(&copy);
    EXPECT_EQ(copy.type, ZOK_T_UNDEFINED);
    host_release_temp(strs);
    host_release_temp(rec);
    EXPECT_EQ(host.live_texts(), 0u);
    EXPECT_EQ(host.live_temps(), 0u);
}

TEST(HostTexts, StoreDuplicateReleaseAndDoubleRelease) {
    zok::Host host;
    zok_string a{};
    host_string_store(&a, "abc");
    ASSERT_EQ(a.length, 3u);
    EXPECT_EQ(std::string(a.text), "abc"); // NUL-terminated
    zok_string b = a;
    host_string_duplicate(&b, 1);
    EXPECT_NE(b.text, a.text);
    EXPECT_EQ(host.live_texts(), 2u);
    zok_string alias = a;
    host_string_release(&a, 1);
    EXPECT_EQ(a.length, 0u);
    EXPECT_EQ(host.live_texts(), 1u);
    expect_error(ZOK_ERR_BAD_FREE, [&] { host_string_release(&alias, 1); });
    EXPECT_EQ(host.live_texts(), 1u);
    host_string_release(&b, 1);
    zok_string empty{};
    host_string_store(&empty, "");
    EXPECT_EQ(empty.length, 0u);
    EXPECT_EQ(host.live_texts(), 0u);
}

TEST(HostTexts, CompareMatchesByteOrderOnRandomTexts) {
    uint32_t seed = test_seed();
    std::mt19937 rng(seed);
    zok::Host host;
    // Few distinct bytes (NUL and high bytes included) so prefixes and ties are common.
    const char alphabet[] = {'\0', 'a', 'b', '\x7f', '\x80', '\xff'};
    auto random_text = [&] {
        std::string s(rng() % 5, ' ');
        for (char& c : s)
            c = alphabet[rng() % sizeof alphabet];
        return s;
    };
    for (int i = 0; i < 5000; ++i) {
        std::string x = random_text(), y = random_text();
        zok_string a{static_cast<uint32_t>(x.size()), 0, 0, x.data()};
        zok_string b{static_cast<uint32_t>(y.size()), 0, 0, y.data()};
        int expected = x.compare(y); // std::string compares bytes as unsigned char
        int got = host_string_compare(&a, &b);
        ASSERT_EQ((got > 0) - (got < 0), (expected > 0) - (expected < 0))
            << "seed " << seed << " texts of length " << x.size() << " and " << y.size();
    }
}

TEST(HostMemory, LabelledAccountingAndBadFrees) {
    zok::Host host;
    void* a = host_mem_alloc(16, "FW_Ident key");
    void* b = host_mem_alloc(40, "FW_Ident key");
    void* c = host_mem_alloc(8, "ZOkfwBehaviorList");
    EXPECT_EQ(host.memory("FW_Ident key"), (zok::MemStats{2, 56}));
    EXPECT_EQ(host.memory("ZOkfwBehaviorList"), (zok::MemStats{1, 8}));
    host_mem_free_tagged(c, "messagehandler_unscopeMessage");
    EXPECT_EQ(host.frees("messagehandler_unscopeMessage"), 1u);
    EXPECT_EQ(host.memory("ZOkfwBehaviorList"), (zok::MemStats{0, 0}));
    expect_error(ZOK_ERR_BAD_FREE, [&] { host_mem_free(c); });
    int local = 0;
    expect_error(ZOK_ERR_BAD_FREE, [&] { host_mem_free(&local); });
    void* plain = host_mem_alloc_plain(48);
    expect_error(ZOK_ERR_BAD_FREE, [&] { host_mem_free(plain); });
    expect_error(ZOK_ERR_BAD_FREE, [&] { host_mem_free_labelled(a, "x"); });
    host_mem_free_labelled(plain, "x");
    host_mem_free(a);
    host_mem_free(b);
    EXPECT_EQ(host.memory_total(), (zok::MemStats{0, 0}));
    EXPECT_TRUE(host.memory_by_label().empty());
}

// The pools under random churn against a model, with sizes of every class
// (the classes share chunks): distinct aligned live blocks, intact contents,
// exact accounting, and refusal of every address that is not a live block,
// stale addresses into chunks that went back for reuse included.
TEST(HostMemory, PlainPoolChurnMatchesModel) {
    uint32_t seed = test_seed();
    std::mt19937 rng(seed);
    zok::Host host;
    struct Block {
        unsigned char* p;
        size_t size;
    };
    std::vector<Block> live;
    std::set<unsigned char*> live_set;
    std::vector<unsigned char*> dead;
    size_t bytes = 0, frees = 0;
    auto fill = [](const Block& b) {
        std::memset(b.p, static_cast<int>(reinterpret_cast<uintptr_t>(b.p) >> 4 & 0xff), b.size);
    };
    auto intact = [](const Block& b) {
        for (size_t k = 0; k < b.size; ++k)
            if (b.p[k] != (reinterpret_cast<uintptr_t>(b.p) >> 4 & 0xff))
                return false;
        return true;
    };
    for (int step = 0; step < 60000; ++step) {
        // Phases of growth and shrinking, so whole chunks empty and are reused.
        bool growing = (step / 10000) % 2 == 0;
        if (live.empty() || rng() % 100 < (growing ? 70u : 30u)) {
            size_t size = 1 + rng() % (rng() % 4 == 0 ? 256 : 64);
            Block b{static_cast<unsigned char*>(host_mem_alloc_plain(size)), size};
            ASSERT_NE(b.p, nullptr);
            ASSERT_EQ(reinterpret_cast<uintptr_t>(b.p) % 16, 0u);
            ASSERT_TRUE(live_set.insert(b.p).second)
                << "seed " << seed << ": block handed out twice";
            fill(b);
            live.push_back(b);
            bytes += (size + 15) & ~size_t{15};
        } else {
            size_t i = rng() % live.size();
            Block b = live[i];
            ASSERT_TRUE(intact(b)) << "seed " << seed << ": block of " << b.size << " overwritten";
            if (rng() % 50 == 0)
                expect_error(ZOK_ERR_BAD_FREE, [&] { host_mem_free_labelled(b.p + 8, "inside"); });
            host_mem_free_labelled(b.p, "map_rb_delete_node");
            ++frees;
            bytes -= (b.size + 15) & ~size_t{15};
            live_set.erase(b.p);
            live[i] = live.back();
            live.pop_back();
            dead.push_back(b.p);
        }
        if (rng() % 100 == 0 && !dead.empty()) {
            unsigned char* stale = dead[rng() % dead.size()];
            if (!live_set.count(stale))
                expect_error(ZOK_ERR_BAD_FREE, [&] { host_mem_free_labelled(stale, "again"); });
        }
        ASSERT_EQ(host.memory(zok::kPlainLabel), (zok::MemStats{live.size(), bytes}))
            << "seed " << seed << " step " << step;
    }
    for (const Block& b : live)
        host_mem_free_labelled(b.p, "map_rb_free_tree");
    EXPECT_EQ(host.frees("map_rb_delete_node"), frees);
    EXPECT_EQ(host.frees("map_rb_free_tree"), live.size());
    EXPECT_EQ(host.memory(zok::kPlainLabel), (zok::MemStats{0, 0}));
    for (unsigned char* stale : dead)
        expect_error(ZOK_ERR_BAD_FREE, [&] { host_mem_free_labelled(stale, "again"); });
    EXPECT_EQ(host.frees("again"), 0u);
}

// Freed chunks serve the next blocks, of any size: a tree built again after
// being freed lands in the memory the first one used.
TEST(HostMemory, RebuildReusesTheChunksOfFreedBlocks) {
    zok::Host host;
    constexpr uintptr_t kChunk = 64 * 1024;
    std::vector<void*> blocks;
    std::set<uintptr_t> chunks;
    for (int i = 0; i < 20000; ++i) {
        blocks.push_back(host_mem_alloc_plain(48));
        chunks.insert(reinterpret_cast<uintptr_t>(blocks.back()) & ~(kChunk - 1));
    }
    for (void* b : blocks)
        host_mem_free_labelled(b, "map_rb_free_tree");
    blocks.clear();
    for (int i = 0; i < 12000; ++i) {
        blocks.push_back(host_mem_alloc_plain(64));
        ASSERT_TRUE(chunks.count(reinterpret_cast<uintptr_t>(blocks.back()) & ~(kChunk - 1)))
            << "block " << i << " in a chunk the first blocks did not use";
    }
    for (void* b : blocks)
        host_mem_free_labelled(b, "map_rb_free_tree");
}

// Labels are counted by their text: a label in a buffer that is later
// rewritten counts under each text it held.
TEST(HostMemory, FreesCountUnderTheTextTheLabelHeld) {
    zok::Host host;
    char label[16] = "first";
    for (int i = 0; i < 3; ++i)
        host_mem_free_labelled(host_mem_alloc_plain(32), label);
    std::strcpy(label, "second");
    host_mem_free_labelled(host_mem_alloc_plain(32), label);
    void* block = host_mem_alloc(8, label);
    std::strcpy(label, "third");
    host_mem_free_tagged(block, label);
    EXPECT_EQ(host.frees("first"), 3u);
    EXPECT_EQ(host.frees("second"), 1u);
    EXPECT_EQ(host.frees("third"), 1u);
    EXPECT_EQ(host.memory("second"), (zok::MemStats{0, 0}));
    host_mem_free_labelled(host_mem_alloc_plain(32), nullptr);
    EXPECT_EQ(host.memory(zok::kPlainLabel), (zok::MemStats{0, 0}));
}

#if defined(__SANITIZE_ADDRESS__)
TEST(HostMemoryDeathTest, UseOfAFreedNodeIsReported) {
    zok::Host host;
    auto* p = static_cast<volatile char*>(host_mem_alloc_plain(48));
    host_mem_free_labelled(const_cast<char*>(p), "map_rb_delete_node");
    EXPECT_DEATH(p[8] = 1, "use-after-poison");
}
#else
// Without the sanitizer, a write over the link that a freed node holds is
// found when the pool follows that link.
TEST(HostMemoryDeathTest, WriteIntoAFreedNodeStopsThePool) {
    zok::Host host;
    auto* p = static_cast<uint32_t*>(host_mem_alloc_plain(48));
    host_mem_free_labelled(p, "map_rb_delete_node");
    *p = 0x7fffffff;
    EXPECT_DEATH(
        {
            host_mem_alloc_plain(48);
            host_mem_alloc_plain(48);
        },
        "freed block was written to");
}
#endif

// An observation sees each kind of change a call could leave behind, names the
// first, and sees no change where there is none (a NaN included).
TEST(HostObservation, NamesEachKindOfChange) {
    zok::Host host;
    host.set_var("x", std::numeric_limits<double>::quiet_NaN());
    zok::Observation before = host.observe();
    auto expect_change = [&](const std::string& expected) {
        const zok::Observation now = host.observe();
        EXPECT_EQ(zok::difference(before, now), expected);
        EXPECT_EQ(zok::difference(now, host.observe()), "");
        before = now;
    };
    zok_var seven{};
    seven.type = ZOK_T_LONG;
    seven.value.long_val = 7;
    zok_heap_record* rec =
        host_heap_var_new(ZOK_HEAP_POINTER, &seven, ZOK_HEAP_NEW_COPY, ZOK_ACTION_ERROR);
    expect_change("heap variable 1 appeared");
    rec->flags |= ZOK_HEAP_HELD;
    expect_change("heap variable 1: flags 0x0 -> 0x40");
    rec->var.value.long_val = 8;
    expect_change("heap variable 1: value 7 -> 8");
    host_heap_free(rec->id, 0, 0);
    expect_change("heap variable 1 vanished");
    zok_string text{};
    host_string_store(&text, "t");
    expect_change("live texts 0 -> 1");
    zok_var* temp = host_temp_var();
    expect_change("live temporaries 0 -> 1");
    void* block = host_mem_alloc(8, "L");
    expect_change("memory under \"L\": 0 blocks, 0 bytes -> 1 blocks, 8 bytes");
    host.set_var("x", -0.0);
    expect_change("variable X: nan -> -0");
    host.set_var("y", 1);
    expect_change("variable Y appeared");
    host_mem_free(block);
    host_release_temp(temp);
    host_string_release(&text, 1);
}

TEST(HostFaults, TheNthAllocationOfAnyKindFails) {
    // Runs one sequence of mixed allocations with each step failing in turn:
    // exactly that step fails, cleanly, and the others succeed.
    for (int nth = 1; nth <= 5; ++nth) {
        zok::Host host;
        host.define_struct("NODE", {{"A", ZOK_T_LONG}});
        host.fail_allocation(static_cast<uint64_t>(nth));
        uint64_t before = host.allocations();
        std::vector<bool> failed;
        void* block = host_mem_alloc(8, "label");
        failed.push_back(block == nullptr);
        void* node = host_mem_alloc_plain(48);
        failed.push_back(node == nullptr);
        zok_var* temp = nullptr;
        try {
            temp = host_temp_long(1);
        } catch (const zok::Error& e) {
            EXPECT_EQ(e.code(), ZOK_ERR_NO_MEMORY);
        }
        failed.push_back(temp == nullptr);
        zok_var value{};
        value.type = ZOK_T_LONG;
        zok_heap_record* rec = host_heap_var_new(ZOK_HEAP_POINTER, &value, 2, ZOK_ACTION_RETURN);
        failed.push_back(rec == nullptr);
        void* again = host_mem_alloc(8, "label");
        failed.push_back(again == nullptr);
        EXPECT_EQ(host.allocations() - before, 5u);
        for (int i = 0; i < 5; ++i)
            EXPECT_EQ(failed[static_cast<size_t>(i)], i + 1 == nth)
                << "nth " << nth << " step " << i;
        EXPECT_EQ(host.heap_count(), rec ? 1u : 0u);
        EXPECT_EQ(host.memory("label").blocks, (block ? 1u : 0u) + (again ? 1u : 0u));
    }
}

TEST(HostFaults, EveryAllocationUnderALabelFails) {
    zok::Host host;
    host.fail_label("FW_Ident data");
    EXPECT_EQ(host_mem_alloc(8, "FW_Ident data"), nullptr);
    EXPECT_EQ(host_mem_alloc(8, "FW_Ident data"), nullptr);
    void* other = host_mem_alloc(8, "FW_Ident key");
    EXPECT_NE(other, nullptr);
    host.fail_label(zok::kPlainLabel);
    EXPECT_EQ(host_mem_alloc_plain(48), nullptr);
    host.clear_faults();
    void* node = host_mem_alloc_plain(48);
    EXPECT_NE(node, nullptr);
    host_mem_free_labelled(node, "x");
    host_mem_free(other);
    EXPECT_EQ(host.memory_total(), (zok::MemStats{0, 0}));
}

TEST(HostFaults, RegistrationOperationsRefuseTheNthCall) {
    zok::Host host;
    const zok_message_def msgs[] = {{"M0", "first"}, {"M1", "second"}};
    host.refuse(zok::Operation::DefineMessageBlock);
    EXPECT_EQ(host_define_message_block("BLK", 2, msgs), nullptr);
    const zok_message_block* blk = host_define_message_block("BLK", 2, msgs);
    ASSERT_NE(blk, nullptr);
    try {
        host_message_from_block(blk, -1, ZOK_ACTION_ERROR);
        ADD_FAILURE() << "no error raised";
    } catch (const zok::Error& e) {
        EXPECT_EQ(e.code(), -1);
        EXPECT_EQ(e.text(), "second");
    }

    zok_function fn = [](int32_t, zok_var**, zok_keywords*) { return host_temp_long(1); };
    const zok_routine_entry first[] = {{{fn}, "FIRST", 0, 0, 0, nullptr}};
    const zok_routine_entry second[] = {{{fn}, "SECOND", 0, 0, 0, nullptr}};
    host.refuse(zok::Operation::AddRoutines, 2);
    EXPECT_EQ(host_add_routines(first, 1, 1), 1);
    EXPECT_EQ(host_add_routines(second, 1, 1), 0);
    EXPECT_FALSE(host.has_routine("SECOND"));
    EXPECT_EQ(host_add_routines(second, 1, 1), 1);
    EXPECT_EQ(host.call_function("SECOND").as_int(), 1);
}

} // namespace
