// Both tree variants behind one face, and a driver that runs one tree against a model of
// its entries: the randomized tree test runs it over fixed seeds, the fuzz target over
// its inputs.  No test framework here: a check gives the fault it found as text, "" when
// the tree is sound.
#pragma once

#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <type_traits>
#include <utility>

#include "frame/structs.hpp"
#include "host.hpp"
#include "maps/map.hpp"
#include "maps/maph.hpp"

namespace maptest {

using namespace flux;

// Negative, 0 or positive as a is less than, equal to or greater than b.
template <class T>
int three_way(T a, T b) {
    return (a > b) - (a < b);
}
inline int string_order(RbWord a, RbWord b) {
    return std::strcmp(reinterpret_cast<const char*>(a), reinterpret_cast<const char*>(b));
}
inline int int_order(RbWord a, RbWord b) {
    return three_way(static_cast<int32_t>(a), static_cast<int32_t>(b));
}
// An order unlike the key words' own, to show that the trees follow the caller's.
template <class Word>
int by_residue(Word a, Word b) {
    return three_way(std::pair(a % 13, a), std::pair(b % 13, b));
}

// A tree of one variant and key kind: Tree<false> is map_rb, whose nodes are blocks of the
// plain allocator, Tree<true> map_rbh, whose nodes are heap variables; text and signed
// keys are map_rb's kinds, unsigned ones map_rbh's.  `insert` goes through the kind's
// low-level insert, which allows equal keys; `paint` colours the node that a path of 'l'
// and 'r' reaches from the root; `nodes` counts the variant's live nodes.
template <bool Heap>
struct Tree {
    using Entry = std::conditional_t<Heap, uint32_t, RbNode*>;
    using Word = std::conditional_t<Heap, uint32_t, RbWord>;
    enum Kind { key, ikey, gkey } kind = Heap ? key : ikey;

    // The map_rb entry point, or the map_rbh one.
    static constexpr auto pick(auto rb, auto rbh) {
        if constexpr (Heap)
            return rbh;
        else
            return rb;
    }
    Entry head = pick(map_new, maph_new)();

    int (*order() const)(Word, Word) {
        if (kind == gkey)
            return by_residue<Word>;
        return pick(kind == key ? string_order : int_order, three_way<Word>);
    }
    Entry find_n(Word k, bool& found) const {
        if (kind == gkey)
            return pick(map_rb_find_gkey_n, map_rbh_find_gkey_n)(head, k, order(), found);
        if constexpr (Heap)
            return map_rbh_find_key_n(head, k, found);
        else
            return kind == key ? map_rb_find_key_n(head, reinterpret_cast<const char*>(k), found)
                               : map_rb_find_ikey_n(head, static_cast<int32_t>(k), found);
    }
    Entry insert(Word k, Word v = 0) {
        if (kind == gkey)
            return pick(map_insert_gkey, maph_insert_gkey)(head, k, v, order());
        if constexpr (Heap)
            return maph_insert_key(head, k, v);
        else
            return kind == key ? map_insert_key(head, reinterpret_cast<const char*>(k), v)
                               : map_insert_ikey(head, static_cast<int32_t>(k), v);
    }
    Entry put(Word k, Word v = 0) { return pick(map_put, maph_put)(head, k, v, order()); }
    static Entry insert_after(Entry e, Word k, Word v) {
        return pick(map_insert_after, maph_insert_after)(e, k, v);
    }
    static void remove(Entry e) { pick(map_remove_node, maph_remove_node)(e); }
    static Word key_of(Entry e) { return pick(map_node_key, maph_node_key)(e); }
    static Word value_of(Entry e) { return pick(map_node_value, maph_node_value)(e); }
    Entry first() const { return pick(map_first, maph_first)(head); }
    static Entry next(Entry e) { return pick(map_next, maph_next)(e); }
    size_t count() const { return pick(map_count, maph_count)(head); }
    std::string check() const { return pick(map_rb_check, map_rbh_check)(head, order()); }
    std::string outline() const {
        std::function<std::string(Word)> text = [](Word k) {
            return std::to_string(static_cast<int32_t>(k));
        };
        if (!Heap && kind == key)
            text = map_rb_string_key_text;
        return pick(map_rb_outline, map_rbh_outline)(head, text);
    }
    void paint(const char* path, bool red) {
        if constexpr (Heap) {
            uint32_t n = map_rbh_node(head)->parent;
            for (const char* c = path; *c; ++c)
                n = *c == 'l' ? map_rbh_node(n)->flink : map_rbh_node(n)->blink;
            map_rbh_node(n)->status[0] = red;
        } else {
            RbNode* n = head->parent;
            for (const char* c = path; *c; ++c)
                n = *c == 'l' ? n->left : n->right;
            n->status = red ? n->status | 1u : n->status & ~1u;
        }
    }
    void free() { pick(map_free, maph_free)(head); }
    static size_t nodes() {
        zok::Host& host = zok::Host::current();
        return Heap ? host.heap_count() : host.memory(zok::kPlainLabel).blocks;
    }
};
using Rb = Tree<false>;
using Rbh = Tree<true>;

// A tree of n entries holds n leaves, n-1 internal nodes and the head.
constexpr size_t nodes_for(size_t entries) {
    return entries ? 2 * entries : 1;
}

// The fuzz target reads an operation as a number up to walk: its corpus depends on this order.
enum class TreeOp { put, failing_put, insert, insert_after, failing_insert, find, remove, walk };

template <class Tree>
class TreeDriver {
public:
    using Entry = typename Tree::Entry;
    using Word = typename Tree::Word;

    // `word(i)` is the key word for key number i.
    TreeDriver(Tree tree, std::function<Word(uint32_t)> word)
        : t_(tree), word_(std::move(word)), base_(Tree::nodes() - nodes_for(0)),
          model_([order = tree.order()](Word a, Word b) { return order(a, b) < 0; }) {}

    // A find of key number i, then the operation on it, then the whole tree against the
    // model: its checker, its count and its live nodes.  `extra` picks the allocation a
    // failing insert fails.  The first fault found, with the tree's outline, or "".
    std::string step(TreeOp op, uint32_t i, uint32_t extra) {
        const Word k = word_(i);
        const Word v = ++serial_;
        bool found;
        const Entry at = t_.find_n(k, found);
        auto& values = model_[k];
        // A hit has the key and a value of the model, a miss gives the place before a
        // greater key.
        const auto order = t_.order();
        expect(found ? order(Tree::key_of(at), k) == 0 && values.count(Tree::value_of(at)) == 1
                     : values.empty() && (at == t_.head || order(k, Tree::key_of(at)) < 0),
               "find disagrees with the model");
        const bool put = op == TreeOp::put || op == TreeOp::failing_put;
        if ((put || op == TreeOp::remove) && found) {
            values.erase(Tree::value_of(at));
            --size_;
        }
        if (put) {
            Entry e =
                op == TreeOp::put ? t_.put(k, v) : failing([&] { return t_.put(k, v); }, extra);
            if (!e) {
                // A put that fails has already removed the entry it replaces; then the
                // entry goes in after all, so that trees of both variants stay alike.
                audit(" after a failed put");
                e = t_.insert(k, v);
            }
            record(e, k, v);
        } else if (op == TreeOp::remove && found)
            Tree::remove(at);
        else if (op == TreeOp::walk)
            walk();
        else if (op != TreeOp::find && op != TreeOp::remove)
            insert(op, k, v, found ? at : Entry{}, extra);
        audit("");
        return fault_.empty() ? "" : fault_ + "\n" + t_.outline();
    }

    // A last walk, then the tree freed whole.
    std::string finish() {
        walk();
        t_.free();
        expect(Tree::nodes() == base_, "freeing the tree left nodes behind");
        return fault_;
    }

    std::string outline() const { return t_.outline(); }

private:
    void expect(bool holds, const std::string& fault) {
        if (!holds && fault_.empty())
            fault_ = fault;
    }

    // The tree's checker, count and live nodes against the model.
    void audit(const std::string& when) {
        if (const std::string fault = t_.check(); !fault.empty())
            expect(false, fault + when);
        expect(t_.count() == size_, "the count differs from the model" + when);
        expect(Tree::nodes() - base_ == nodes_for(size_), "nodes leaked or lost" + when);
    }

    void record(Entry e, Word k, Word v) {
        expect(e && Tree::key_of(e) == k && Tree::value_of(e) == v, "the tree gave another entry");
        model_[k].insert(v);
        ++size_;
    }

    // f() with one of its first allocations failing: null or 0 when that was one of f's.
    template <class F>
    Entry failing(F f, uint32_t extra) {
        zok::Host& host = zok::Host::current();
        host.fail_allocation(1 + extra % 3);
        const Entry e = f();
        host.clear_faults();
        expect(e || host.live_temps() == 0, "a failed call kept temporaries");
        return e;
    }

    // An equal key may go in too: after the entry found, or through the kind's insert,
    // first with a failing allocation, which must change nothing.
    void insert(TreeOp op, Word k, Word v, Entry found, uint32_t extra) {
        Entry e{};
        if (op == TreeOp::failing_insert) {
            // Outlines cost much; a failure comes before any change, whatever the size.
            const bool small = t_.count() <= 64;
            const std::string before = small ? t_.outline() : "";
            e = failing([&] { return t_.insert(k, v); }, extra);
            expect(e || !small || t_.outline() == before, "a failed insertion changed the tree");
        }
        if (!e && found && op == TreeOp::insert_after) {
            e = Tree::insert_after(found, k, v);
            expect(Tree::next(found) == e, "the entry went elsewhere than after the one found");
        }
        record(e ? e : t_.insert(k, v), k, v);
    }

    // The ring lists the model's entries in key order, equal keys side by side.
    void walk() {
        using Model = decltype(model_);
        Model seen(model_.key_comp());
        size_t runs = 0;
        for (Entry e = t_.first(), prev = t_.head; e != t_.head; prev = e, e = Tree::next(e)) {
            runs += prev == t_.head || t_.order()(Tree::key_of(prev), Tree::key_of(e)) != 0;
            seen[Tree::key_of(e)].insert(Tree::value_of(e));
        }
        std::erase_if(model_, [](const auto& entry) { return entry.second.empty(); });
        expect(seen == model_, "the ring differs from the model");
        expect(runs == model_.size(), "equal keys are not side by side in the ring");
    }

    Tree t_;
    std::function<Word(uint32_t)> word_;
    size_t base_;
    std::map<Word, std::multiset<Word>, std::function<bool(Word, Word)>> model_;
    size_t size_ = 0;
    Word serial_ = 0;
    std::string fault_;
};

} // namespace maptest
