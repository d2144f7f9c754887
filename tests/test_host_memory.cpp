// The reference host's accounting and heap: temporaries, texts, module memory,
// the plain node pool and heap variables against a model under random churn,
// with copies and moves into the heap, collection, the whole identifier space,
// chunk reuse, observation and fault injection.  Randomized tests print their
// seed; ZOK_SEED=<n> re-runs one.
#include "support/values.hpp"

#include <cstring>
#include <set>

namespace {

using namespace zoktest;

// Calls `ref` with every heap identifier the value refers to; returns the
// count of texts it holds (the empty text is none).
size_t visit(const Value& v, const std::function<void(uint32_t)>& ref) {
    size_t texts = 0;
    for (const Value& e : v.elements()) {
        if (e.type() == ZOK_T_STRING)
            texts += !e.as_string().empty();
        else if (e.type() == ZOK_T_POINTER)
            ref(e.as_pointer().id);
        else if (e.type() == ZOK_T_OBJECT)
            ref(e.as_object().id);
        else if (e.type() == ZOK_T_STRUCT)
            for (const auto& field : e.as_struct().fields)
                texts += visit(field.second, ref);
    }
    return texts;
}

// Temporaries, texts, labelled blocks, pool blocks and heap variables made and
// given back at random against a model, with the next allocation failing now
// and then.  After every step the host counts what the model holds; every
// misuse (a second release, an address that is no live block, the wrong free
// for a block's kind) is refused with the bad-free error and changes no count.
// Pool blocks are distinct, aligned and keep their contents while whole chunks
// empty and are reused; frees count under the text their label held.  Heap
// variables are copies or moves of random values (texts, arrays, structures
// referring to each other); identifiers are handed out in order, across the
// middle of the identifier space up to its end, dead ones find nothing,
// records stay put while they live, a collection frees exactly what the roots
// (a program variable, a temporary, held heap variables) do not reach, and the
// heap table's own checker runs along.
TEST(HostAccounting, AgreesWithAModelOverRandomOperations) {
    ValueMaker values;
    auto& rng = values.rng;
    zok::Host host;
    define_value_structs(host);
    struct Block {
        unsigned char* p;
        size_t size;
        int label; // into `labels`; 0 is a pool block
    };
    struct HeapVar {
        int32_t kind;
        Value value;
        zok_heap_record* rec;
        bool held;
        bool operator==(const HeapVar&) const = default;
    };
    const char* const labels[] = {zok::kPlainLabel, "FW_Ident key", "ZOkfwBehaviorList"};
    const char* const free_labels[] = {"map_rb_delete_node", "map_rb_free_tree",
                                       "messagehandler_unscopeMessage"};
    char freeing[32]; // one buffer holding each label in turn
    std::map<std::string, size_t> frees;
    std::vector<zok_var*> temps;
    std::vector<std::pair<zok_string, std::string>> texts;
    std::vector<Block> blocks;
    std::set<unsigned char*> live;
    std::vector<unsigned char*> dead;
    std::map<uint32_t, HeapVar> heap;
    std::vector<uint32_t> heap_dead;
    uint32_t next_id = 1;
    Value roots;
    zok_var* root_temp = host.make_temp(zok::PointerRef{});

    auto refused = [&](auto&& f) { expect_error(ZOK_ERR_BAD_FREE, f); };
    // Now and then the very next allocation, of whatever kind, fails.
    bool fault = false;
    auto failing = [&] {
        if ((fault = rng() % 16 == 0))
            host.fail_allocation(1);
        return fault;
    };
    auto take = [&](auto& v) {
        std::swap(v[rng() % v.size()], v.back());
        auto x = v.back();
        v.pop_back();
        return x;
    };
    auto any_heap = [&] { return std::next(heap.begin(), static_cast<long>(rng() % heap.size())); };
    auto label = [&](const char* text) {
        std::strcpy(freeing, text);
        ++frees[text];
        return freeing;
    };
    auto mark = [](const Block& b) { return reinterpret_cast<uintptr_t>(b.p) >> 4 & 0xff; };
    // Few distinct bytes, high ones and NUL included, so prefixes and ties are common.
    auto random_text = [&](size_t letters) {
        std::string s(rng() % 5, ' ');
        for (char& c : s)
            c = "ab\x7f\x80\xff"[rng() % letters];
        return s;
    };
    auto some_id = [&]() -> uint32_t {
        if (heap.empty() || rng() % 4 == 0)
            return rng() % next_id; // dead, never made, or null
        return any_heap()->first;
    };
    values.id = some_id;
    // Makes a heap variable from a temporary holding `v`, which a move empties
    // and a copy or a refusal leaves as it was; null when it was refused.
    auto add_heap = [&](int32_t kind, const Value& v, int32_t action, bool may_fail) {
        zok_var* temp = host.make_temp(v);
        const bool move = rng() % 2 == 0;
        const bool fails = may_fail && failing();
        zok_heap_record* rec =
            host_heap_var_new(kind, temp, move ? ZOK_HEAP_NEW_MOVE : ZOK_HEAP_NEW_COPY, action);
        EXPECT_EQ(rec == nullptr, fails);
        EXPECT_EQ(host.read(*temp), move && rec ? Value() : v);
        host_release_temp(temp);
        if (rec) {
            EXPECT_EQ(rec->id, next_id) << "identifiers are handed out in order";
            EXPECT_EQ(rec->var.flags & ZOK_VF_TEMPORARY, 0);
            heap[next_id++] = {kind, v, rec, false};
        }
        return rec;
    };
    auto live_texts = [&] {
        size_t n = texts.size();
        for (const auto& entry : heap)
            n += visit(entry.second.value, [](uint32_t) {});
        return n;
    };
    // What the model says a program observes; a NaN variable equals itself.
    host.set_var("NAN", std::numeric_limits<double>::quiet_NaN());
    auto model = [&] { return std::tuple(temps.size(), texts.size(), blocks.size(), heap, roots); };
    auto check_heap = [&] {
        std::vector<uint32_t> ids;
        for (const auto& [id, h] : heap) {
            ASSERT_EQ(host.heap_value(id), h.value);
            ASSERT_EQ(host.heap_kind(id), h.kind);
            ASSERT_EQ((host.heap_flags(id) & ZOK_HEAP_HELD) != 0, h.held);
            ids.push_back(id);
        }
        ASSERT_EQ(host.heap_ids(), ids);
        ASSERT_NO_THROW(host.check_heap());
    };

    for (int step = 0; step < 60000; ++step) {
        // Phases of growth and shrinking, so that whole pool chunks empty.
        const bool make = rng() % 100 < ((step / 10000) % 2 == 0 ? 70u : 30u);
        // Now and then: what a program observes changes exactly when the model does.
        std::optional<std::pair<zok::Observation, decltype(model())>> seen;
        if (step % 8 == 0)
            seen.emplace(host.observe(), model());
        if (step == 30000) // on across the middle of the identifier space
            host.set_next_heap_id(next_id = std::max(next_id, 0x7fffffffu));
        switch (rng() % 4) {
        case 0:
            if ((make || temps.empty()) && failing()) {
                expect_error(ZOK_ERR_NO_MEMORY,
                             "Unable to allocate memory: making a temporary variable.",
                             [&] { host_temp_long(1); });
            } else if (make || temps.empty()) {
                const auto v = static_cast<int32_t>(rng());
                zok_var* t = host_temp_long(v);
                ASSERT_TRUE(t->type == ZOK_T_LONG && t->value.long_val == v &&
                            (t->flags & ZOK_VF_TEMPORARY));
                temps.push_back(t);
            } else if (zok_var* t = take(temps); rng() % 10 == 0) {
                t->flags = 0; // a module that cleared the mark holds no temporary
                refused([&] { host_release_temp(t); });
                t->flags = ZOK_VF_TEMPORARY;
                host_release_temp(t);
                refused([&] { host_release_temp(t); });
            } else {
                host_release_temp(t);
            }
            break;
        case 1: {
            const std::string x = random_text(6), y = random_text(6);
            const zok_string a{static_cast<uint32_t>(x.size()), 0, 0, const_cast<char*>(x.data())};
            const zok_string b{static_cast<uint32_t>(y.size()), 0, 0, const_cast<char*>(y.data())};
            const int got = host_string_compare(&a, &b), want = x.compare(y);
            ASSERT_EQ((got > 0) - (got < 0), (want > 0) - (want < 0))
                << x.size() << " " << y.size();
            if (make || texts.empty()) {
                std::string stored = random_text(5);
                zok_string s{};
                if (texts.empty() || rng() % 2 == 0) {
                    host_string_store(&s, stored.c_str());
                } else { // a duplicate is a text of its own
                    const auto& original = texts[rng() % texts.size()];
                    s = original.first;
                    host_string_duplicate(&s, 1);
                    ASSERT_NE(s.text, original.first.text);
                    stored = original.second;
                }
                ASSERT_EQ(s.length, stored.size());
                if (s.length != 0) { // the empty text is no text to give back
                    ASSERT_EQ(std::string(s.text), stored); // NUL-terminated
                    texts.emplace_back(s, stored);
                }
            } else {
                zok_string s = take(texts).first;
                const zok_string alias = s;
                host_string_release(&s, 1);
                ASSERT_EQ(s.length, 0u);
                if (rng() % 20 == 0)
                    refused([&] { host_string_release(const_cast<zok_string*>(&alias), 1); });
            }
            break;
        }
        case 2:
            if (make || blocks.empty()) {
                Block b{nullptr, 1 + rng() % (rng() % 4 == 0 ? 256 : 64),
                        static_cast<int>(rng() % 3)};
                const bool fails = failing();
                b.p = static_cast<unsigned char*>(b.label == 0
                                                      ? host_mem_alloc_plain(b.size)
                                                      : host_mem_alloc(b.size, labels[b.label]));
                ASSERT_EQ(b.p == nullptr, fails);
                if (fails)
                    break;
                ASSERT_TRUE(b.label > 0 || reinterpret_cast<uintptr_t>(b.p) % 16 == 0);
                ASSERT_TRUE(live.insert(b.p).second) << "block handed out twice";
                std::memset(b.p, static_cast<int>(mark(b)), b.size);
                blocks.push_back(b);
            } else {
                const Block b = take(blocks);
                for (size_t k = 0; k < b.size; ++k)
                    ASSERT_EQ(b.p[k], mark(b)) << "block of " << b.size << " overwritten";
                // The other kind's free, or an address inside a block, is refused.
                if (rng() % 20 == 0)
                    refused([&] {
                        b.label == 0 ? host_mem_free(b.p) : host_mem_free_labelled(b.p, "x");
                    });
                if (rng() % 50 == 0)
                    refused([&] { host_mem_free_labelled(b.p + 8, "inside"); });
                if (b.label == 0)
                    host_mem_free_labelled(b.p, rng() % 8 == 0 ? nullptr
                                                               : label(free_labels[rng() % 2]));
                else if (rng() % 2 == 0)
                    host_mem_free(b.p);
                else
                    host_mem_free_tagged(b.p, label(free_labels[2]));
                live.erase(b.p);
                dead.push_back(b.p);
            }
            if (rng() % 100 == 0 && !dead.empty()) {
                unsigned char* stale = dead[rng() % dead.size()];
                if (!live.count(stale))
                    refused([&] { host_mem_free_labelled(stale, "again"); });
            }
            break;
        default:
            if (make || heap.empty()) {
                const bool object = rng() % 4 == 0;
                add_heap(object ? ZOK_HEAP_OBJECT : ZOK_HEAP_POINTER,
                         object ? values.scalar(ZOK_T_STRUCT) : values.any(values.any_type()),
                         ZOK_ACTION_RETURN, true);
            } else if (rng() % 3 != 0) {
                auto it = any_heap();
                host_heap_free(it->first, 0, 0);
                heap_dead.push_back(it->first);
                heap.erase(it);
            } else if (rng() % 4 != 0) { // a live identifier finds its record, any other nothing
                const uint32_t id = heap_dead.empty() || rng() % 2
                                        ? some_id()
                                        : heap_dead[rng() % heap_dead.size()];
                ASSERT_EQ(host_heap_var(id), heap.count(id) ? heap.at(id).rec : nullptr);
            } else if (rng() % 3 == 0) {
                HeapVar& h = any_heap()->second;
                h.rec->flags ^= ZOK_HEAP_HELD;
                h.held = !h.held;
            } else if (rng() % 3 == 0) { // a new value written over a heap variable's
                HeapVar& h = any_heap()->second;
                zok_var* temp = host.make_temp(h.value = h.kind == ZOK_HEAP_OBJECT
                                                             ? values.scalar(ZOK_T_STRUCT)
                                                             : values.any(values.any_type()));
                host_var_copy(temp, &h.rec->var, 0);
                host_release_temp(temp);
            } else if (rng() % 2 == 0) { // a collection from roots chosen now
                host.set_var("ROOTS",
                             roots = Value::array(ZOK_T_POINTER, {zok::PointerRef{some_id()},
                                                                  zok::PointerRef{some_id()}}));
                host_release_temp(root_temp);
                root_temp = host.make_temp(zok::PointerRef{some_id()});
                std::set<uint32_t> reached;
                std::function<void(uint32_t)> reach = [&](uint32_t id) {
                    if (heap.count(id) && reached.insert(id).second)
                        visit(heap.at(id).value, reach);
                };
                for (const auto& [id, h] : heap)
                    if (h.held)
                        reach(id);
                visit(roots, reach);
                visit(host.read(*root_temp), reach);
                ASSERT_EQ(host.collect(), heap.size() - reached.size());
                std::erase_if(heap, [&](const auto& entry) { return !reached.count(entry.first); });
            } else { // jump forward, sometimes across many pages
                host.set_next_heap_id(next_id += 1 + rng() % (rng() % 2 ? 10 : 10000000));
            }
            break;
        }
        SCOPED_TRACE("step " + std::to_string(step));
        if (seen) {
            ASSERT_EQ(zok::difference(seen->first, host.observe()).empty(),
                      seen->second == model());
        }
        if (fault) {
            host.clear_faults();
            fault = false;
        }
        zok::MemStats counted[3]; // pool blocks take whole 16-byte slots
        for (const Block& b : blocks) {
            counted[b.label].blocks += 1;
            counted[b.label].bytes += b.label == 0 ? (b.size + 15) & ~size_t{15} : b.size;
        }
        std::map<std::string, zok::MemStats> expected;
        for (int i = 0; i < 3; ++i)
            if (counted[i].blocks != 0)
                expected[labels[i]] = counted[i];
        ASSERT_EQ(host.memory_by_label(), expected);
        ASSERT_EQ(host.live_temps(), temps.size() + 1);
        ASSERT_EQ(host.live_texts(), live_texts());
        ASSERT_EQ(host.heap_count(), heap.size());
        if (step % 1000 == 0)
            check_heap();
    }
    // The last identifiers, and then none: no identifier is ever handed out twice.
    host.set_next_heap_id(next_id = 0xfffffffeu);
    host.set_next_heap_id(1); // never backward
    for (int i = 0; i < 2; ++i)
        ASSERT_NE(add_heap(ZOK_HEAP_POINTER, Value(i), ZOK_ACTION_ERROR, false), nullptr);
    zok_var none{};
    expect_error(ZOK_ERR_NO_MEMORY, "host_heap_var_new: unable to allocate a heap variable.", [&] {
        host_heap_var_new(ZOK_HEAP_POINTER, &none, ZOK_HEAP_NEW_COPY, ZOK_ACTION_ERROR);
    });
    EXPECT_EQ(host_heap_var(0), nullptr);

    check_heap();
    for (uint32_t id : host.heap_ids())
        host_heap_free(id, 0, 0);
    for (zok_var* t : temps)
        host_release_temp(t);
    for (auto& text : texts)
        host_string_release(&text.first, 1);
    for (const Block& b : blocks)
        b.label == 0 ? host_mem_free_labelled(b.p, label(free_labels[1])) : host_mem_free(b.p);
    for (const char* l : free_labels)
        EXPECT_EQ(host.frees(l), frees[l]) << l;
    EXPECT_EQ(host.frees("again"), 0u); // refused frees count nowhere
    EXPECT_EQ(host.memory_total(), (zok::MemStats{0, 0}));
    host_release_temp(root_temp);
    EXPECT_EQ(host.live_temps() + host.live_texts(), 0u);
}

// Freed chunks serve the next blocks, of any size: a tree built again after
// being freed lands in the memory the first one used.
TEST(HostMemory, RebuildReusesTheChunksOfFreedBlocks) {
    zok::Host host;
    std::set<uintptr_t> chunks; // of 64 KiB
    for (const size_t size : {48, 64}) {
        const bool first = chunks.empty();
        std::vector<void*> blocks(first ? 20000 : 12000);
        for (void*& b : blocks) {
            const uintptr_t chunk =
                reinterpret_cast<uintptr_t>(b = host_mem_alloc_plain(size)) >> 16;
            if (first)
                chunks.insert(chunk);
            else
                ASSERT_TRUE(chunks.count(chunk)) << "a block in a chunk the first ones did not use";
        }
        for (void* b : blocks)
            host_mem_free_labelled(b, "map_rb_free_tree");
    }
}

// A write into a freed node is found: by the sanitizer at once, else when the
// pool follows the link the write overwrote.
TEST(HostMemoryDeathTest, WriteIntoAFreedNodeIsFound) {
#if defined(__SANITIZE_ADDRESS__)
    const char* const found = "use-after-poison";
#else
    const char* const found = "freed block was written to";
#endif
    zok::Host host;
    auto* p = static_cast<volatile uint32_t*>(host_mem_alloc_plain(48));
    host_mem_free_labelled(const_cast<uint32_t*>(p), "map_rb_delete_node");
    EXPECT_DEATH(
        {
            *p = 0x7fffffff;
            host_mem_alloc_plain(48);
            host_mem_alloc_plain(48);
        },
        found);
}

} // namespace
