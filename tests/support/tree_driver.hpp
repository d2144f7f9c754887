// Both tree variants behind one face, and a driver that runs one tree against a model of
// its entries: the randomized tree test runs it over fixed seeds, the fuzz target over
// its inputs.  No test framework here: a check gives the fault it found as text, "" when
// the tree is sound.
#pragma once

#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "frame/structs.hpp"
#include "host.hpp"
#include "maps/map.hpp"
#include "maps/maph.hpp"

namespace maptest {

inline int string_order(flux::RbWord a, flux::RbWord b) {
    return std::strcmp(reinterpret_cast<const char*>(a), reinterpret_cast<const char*>(b));
}
inline int int_order(flux::RbWord a, flux::RbWord b) {
    auto x = static_cast<int32_t>(a);
    auto y = static_cast<int32_t>(b);
    return (x > y) - (x < y);
}
inline int unsigned_order(uint32_t a, uint32_t b) {
    return (a > b) - (a < b);
}
// An order unlike the key words' own, to show that the trees follow the caller's.
template <class Word>
int by_residue(Word a, Word b) {
    auto key = [](Word w) { return std::pair(w % 13, w); };
    return (key(a) > key(b)) - (key(a) < key(b));
}
inline std::string int_text(flux::RbWord key) {
    return std::to_string(static_cast<int32_t>(key));
}

// A tree of one variant and key kind.  `insert` goes through the kind's low-level insert,
// which allows equal keys; `paint` colours the node that a path of 'l' and 'r' reaches
// from the root; `nodes` counts the variant's live nodes.
struct Rb {
    enum Kind { key, ikey, gkey } kind = ikey;
    using Entry = flux::RbNode*;
    using Word = flux::RbWord;
    flux::RbNode* head = flux::map_new();

    flux::RbCompare order() const {
        return kind == key ? string_order : kind == ikey ? int_order : by_residue<Word>;
    }
    Entry find_n(Word k, bool& found) const {
        switch (kind) {
        case key:
            return flux::map_rb_find_key_n(head, reinterpret_cast<const char*>(k), found);
        case ikey:
            return flux::map_rb_find_ikey_n(head, static_cast<int32_t>(k), found);
        default:
            return flux::map_rb_find_gkey_n(head, k, order(), found);
        }
    }
    Entry insert(Word k, Word v = 0) {
        switch (kind) {
        case key:
            return flux::map_insert_key(head, reinterpret_cast<const char*>(k), v);
        case ikey:
            return flux::map_insert_ikey(head, static_cast<int32_t>(k), v);
        default:
            return flux::map_insert_gkey(head, k, v, order());
        }
    }
    Entry put(Word k, Word v = 0) { return flux::map_put(head, k, v, order()); }
    static Entry insert_after(Entry e, Word k, Word v) { return flux::map_insert_after(e, k, v); }
    static void remove(Entry e) { flux::map_remove_node(e); }
    static Word key_of(Entry e) { return flux::map_node_key(e); }
    static Word value_of(Entry e) { return flux::map_node_value(e); }
    Entry first() const { return flux::map_first(head); }
    static Entry next(Entry e) { return flux::map_next(e); }
    size_t count() const { return flux::map_count(head); }
    std::string check() const { return flux::map_rb_check(head, order()); }
    flux::RbKeyText text() const {
        return kind == key ? flux::RbKeyText(flux::map_rb_string_key_text) : int_text;
    }
    std::string dump() const { return flux::map_rb_dump(head, text()); }
    std::string outline() const { return flux::map_rb_outline(head, text()); }
    void paint(const char* path, bool red) {
        flux::RbNode* n = head->parent;
        for (const char* c = path; *c; ++c)
            n = *c == 'l' ? n->left : n->right;
        n->status = red ? n->status | 1u : n->status & ~1u;
    }
    void free() { flux::map_free(head); }
    static size_t nodes() { return zok::Host::current().memory(zok::kPlainLabel).blocks; }
};

struct Rbh {
    enum Kind { key, gkey } kind = key;
    using Entry = uint32_t;
    using Word = uint32_t;
    uint32_t head = flux::maph_new();

    flux::RbhCompare order() const { return kind == key ? unsigned_order : by_residue<Word>; }
    Entry find_n(Word k, bool& found) const {
        return kind == key ? flux::map_rbh_find_key_n(head, k, found)
                           : flux::map_rbh_find_gkey_n(head, k, order(), found);
    }
    Entry insert(Word k, Word v = 0) {
        return kind == key ? flux::maph_insert_key(head, k, v)
                           : flux::maph_insert_gkey(head, k, v, order());
    }
    Entry put(Word k, Word v = 0) { return flux::maph_put(head, k, v, order()); }
    static Entry insert_after(Entry e, Word k, Word v) { return flux::maph_insert_after(e, k, v); }
    static void remove(Entry e) { flux::maph_remove_node(e); }
    static Word key_of(Entry e) { return flux::maph_node_key(e); }
    static Word value_of(Entry e) { return flux::maph_node_value(e); }
    Entry first() const { return flux::maph_first(head); }
    static Entry next(Entry e) { return flux::maph_next(e); }
    size_t count() const { return flux::maph_count(head); }
    std::string check() const { return flux::map_rbh_check(head, order()); }
    std::string dump() const { return flux::map_rbh_dump(head); }
    std::string outline() const { return flux::map_rbh_outline(head); }
    void paint(const char* path, bool red) {
        uint32_t n = flux::map_rbh_node(head)->parent;
        for (const char* c = path; *c; ++c)
            n = *c == 'l' ? flux::map_rbh_node(n)->flink : flux::map_rbh_node(n)->blink;
        flux::map_rbh_node(n)->status[0] = red;
    }
    void free() { flux::maph_free(head); }
    static size_t nodes() { return zok::Host::current().heap_count(); }
};

// A tree of n entries holds n leaves, n-1 internal nodes and the head.
constexpr size_t nodes_for(size_t entries) {
    return entries ? 2 * entries : 1;
}

template <class Tree>
Tree tree_of(std::initializer_list<int64_t> keys) {
    Tree tree;
    for (int64_t k : keys)
        tree.insert(static_cast<typename Tree::Word>(k));
    return tree;
}

// The keys in ring order, as the integer key kinds store them.
template <class Tree>
std::vector<int64_t> keys(const Tree& tree) {
    std::vector<int64_t> out;
    for (auto e = tree.first(); e != tree.head; e = Tree::next(e))
        out.push_back(static_cast<int32_t>(Tree::key_of(e)));
    return out;
}

enum class TreeOp { put, insert, insert_after, failing_insert, find, remove, walk, count };

template <class Tree>
class TreeDriver {
public:
    using Entry = typename Tree::Entry;
    using Word = typename Tree::Word;

    // `word(i)` is the key word for key number i.
    TreeDriver(Tree tree, std::function<Word(uint32_t)> word)
        : t_(tree), word_(std::move(word)), base_(Tree::nodes() - nodes_for(0)),
          model_([order = tree.order()](Word a, Word b) { return order(a, b) < 0; }) {}

    // One operation on key number i, then the whole tree against the model: its checker,
    // its count and its live nodes.  `extra` picks the allocation a failing insert fails.
    std::string step(TreeOp op, uint32_t i, uint32_t extra) {
        const Word k = word_(i);
        const Word v = ++serial_;
        std::string fault;
        switch (op) {
        case TreeOp::put:
            fault = put(k, v);
            break;
        case TreeOp::insert:
        case TreeOp::insert_after:
        case TreeOp::failing_insert:
            fault = insert(op, k, v, extra);
            break;
        case TreeOp::find:
            fault = find(k);
            break;
        case TreeOp::remove:
            fault = remove(k);
            break;
        default:
            fault = walk();
            break;
        }
        if (fault.empty())
            fault = t_.check();
        if (fault.empty() && t_.count() != size_)
            fault = "the count differs from the model";
        if (fault.empty() && Tree::nodes() - base_ != nodes_for(size_))
            fault = "nodes leaked or lost";
        return fault.empty() ? "" : fault + "\n" + t_.dump();
    }

    // A last walk, then the tree freed whole.
    std::string finish() {
        std::string fault = walk();
        t_.free();
        if (Tree::nodes() != base_)
            fault += "freeing the tree left nodes behind";
        return fault;
    }

    std::string outline() const { return t_.outline(); }

private:
    using Model = std::map<Word, std::multiset<Word>, std::function<bool(Word, Word)>>;

    // The value the tree holds for k, with a fault if the entry found has another key.
    std::pair<bool, Word> probe(Word k, std::string& fault) {
        bool found;
        Entry at = t_.find_n(k, found);
        if (found && t_.order()(Tree::key_of(at), k) != 0)
            fault = "the entry found has another key";
        return {found, found ? Tree::value_of(at) : 0};
    }

    std::string put(Word k, Word v) {
        std::string fault;
        const auto [replaces, old] = probe(k, fault);
        Entry e = t_.put(k, v);
        if (Tree::key_of(e) != k || Tree::value_of(e) != v)
            return "put gave another entry";
        if (replaces && model_[k].erase(old) != 1)
            return "put replaced a value the model lacks";
        size_ -= replaces;
        model_[k].insert(v);
        ++size_;
        return fault;
    }

    // Inserts an equal key too: after the entry found, or through the kind's insert, first
    // with a failing allocation, which must change nothing.
    std::string insert(TreeOp op, Word k, Word v, uint32_t extra) {
        Entry e{};
        if (op == TreeOp::failing_insert) {
            const std::string before = t_.outline();
            zok::Host::current().fail_allocation(1 + extra % 3);
            try {
                e = t_.insert(k, v);
            } catch (const zok::Error& error) {
                if (error.code() != ZOK_ERR_NO_MEMORY)
                    throw;
            }
            zok::Host::current().clear_faults();
            if (!e && (t_.outline() != before || zok::Host::current().live_temps() != 0))
                return "a failed insertion changed the tree";
        }
        bool found;
        Entry at = t_.find_n(k, found);
        if (!e)
            e = found && op == TreeOp::insert_after ? Tree::insert_after(at, k, v)
                                                    : t_.insert(k, v);
        if (Tree::value_of(e) != v)
            return "the insertion gave another entry";
        model_[k].insert(v);
        ++size_;
        return "";
    }

    std::string find(Word k) {
        std::string fault;
        const auto [found, held] = probe(k, fault);
        auto it = model_.find(k);
        if (found != (it != model_.end() && !it->second.empty()))
            return "find disagrees with the model";
        if (found && it->second.count(held) != 1)
            return "find gives a value the model lacks";
        return fault;
    }

    std::string remove(Word k) {
        bool found;
        Entry at = t_.find_n(k, found);
        if (!found)
            return "";
        if (model_[k].erase(Tree::value_of(at)) != 1)
            return "removing a value the model lacks";
        Tree::remove(at);
        --size_;
        return "";
    }

    // The ring lists the model's entries in key order, equal keys side by side.
    std::string walk() {
        Model seen(model_.key_comp());
        size_t runs = 0;
        for (Entry e = t_.first(), prev = t_.head; e != t_.head; prev = e, e = Tree::next(e)) {
            runs += prev == t_.head || t_.order()(Tree::key_of(prev), Tree::key_of(e)) != 0;
            seen[Tree::key_of(e)].insert(Tree::value_of(e));
        }
        std::erase_if(model_, [](const auto& entry) { return entry.second.empty(); });
        if (seen != model_)
            return "the ring differs from the model";
        return runs == model_.size() ? "" : "equal keys are not side by side in the ring";
    }

    Tree t_;
    std::function<Word(uint32_t)> word_;
    size_t base_;
    Model model_;
    size_t size_ = 0;
    Word serial_ = 0;
};

} // namespace maptest
