// Both trees against a std::map model over thousands of random puts, finds, removals,
// walks and duplicate-key inserts through the low-level insert, for every key kind, with
// the invariant checker and the node count after every step.  That both variants grow
// the same shapes is shown case by case in test_map_shapes.
#include <algorithm>
#include <array>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "support/map_testing.hpp"

namespace {

using flux::RbNode;
using flux::RbWord;
using namespace maptest;

// Orders that differ from the natural order of the key words, to show that the trees
// follow the caller's comparison.
int by_residue(RbWord a, RbWord b) {
    auto key = [](RbWord w) { return std::pair(w % 13, w); };
    return (key(a) > key(b)) - (key(a) < key(b));
}
int descending(uint32_t a, uint32_t b) {
    return unsigned_order(b, a);
}

// One tree variant and key kind, as the differential run drives it.
struct RbSubject {
    enum Kind { key, ikey, gkey } kind;
    using Entry = RbNode*;
    using Word = RbWord;
    RbNode* head = flux::map_new();

    flux::RbCompare order() const {
        return kind == key ? string_order : kind == ikey ? int_order : by_residue;
    }
    Entry find_n(Word k, bool& found) const {
        switch (kind) {
        case key:
            return flux::map_rb_find_key_n(head, reinterpret_cast<const char*>(k), found);
        case ikey:
            return flux::map_rb_find_ikey_n(head, static_cast<int32_t>(k), found);
        default:
            return flux::map_rb_find_gkey_n(head, k, by_residue, found);
        }
    }
    // The facade's put for the comparison kind, find-delete-insert for the others.
    Entry put(Word k, Word v) {
        if (kind == gkey)
            return flux::map_put(head, k, v, by_residue);
        bool found;
        Entry at = find_n(k, found);
        if (found) {
            flux::map_rb_delete_node(at);
            at = find_n(k, found);
        }
        return flux::map_rb_insert_b(at, k, v);
    }
    Entry insert_duplicate(Word k, Word v) {
        switch (kind) {
        case key:
            return flux::map_insert_key(head, reinterpret_cast<const char*>(k), v);
        case ikey:
            return flux::map_insert_ikey(head, static_cast<int32_t>(k), v);
        default:
            return flux::map_insert_gkey(head, k, v, by_residue);
        }
    }
    static Entry insert_after(Entry e, Word k, Word v) { return flux::map_insert_after(e, k, v); }
    static void remove(Entry e) { flux::map_remove_node(e); }
    static Word key_of(Entry e) { return flux::map_node_key(e); }
    static Word value_of(Entry e) { return flux::map_node_value(e); }
    Entry first() const { return flux::map_first(head); }
    static Entry next(Entry e) { return flux::map_next(e); }
    size_t count() const { return flux::map_count(head); }
    std::string check() const { return flux::map_rb_check(head, order()); }
    std::string dump() const {
        auto text = kind == key ? flux::RbKeyText(flux::map_rb_string_key_text) : int_text;
        return flux::map_rb_dump(head, text);
    }
    void free() { flux::map_free(head); }
};

struct RbhSubject {
    enum Kind { key, gkey } kind;
    using Entry = uint32_t;
    using Word = uint32_t;
    uint32_t head = flux::maph_new();

    flux::RbhCompare order() const { return kind == key ? unsigned_order : descending; }
    Entry find_n(Word k, bool& found) const {
        return kind == key ? flux::map_rbh_find_key_n(head, k, found)
                           : flux::map_rbh_find_gkey_n(head, k, descending, found);
    }
    Entry put(Word k, Word v) { return flux::maph_put(head, k, v, order()); }
    Entry insert_duplicate(Word k, Word v) {
        return kind == key ? flux::maph_insert_key(head, k, v)
                           : flux::maph_insert_gkey(head, k, v, descending);
    }
    static Entry insert_after(Entry e, Word k, Word v) { return flux::maph_insert_after(e, k, v); }
    static void remove(Entry e) { flux::maph_remove_node(e); }
    static Word key_of(Entry e) { return flux::maph_node_key(e); }
    static Word value_of(Entry e) { return flux::maph_node_value(e); }
    Entry first() const { return flux::maph_first(head); }
    static Entry next(Entry e) { return flux::maph_next(e); }
    size_t count() const { return flux::maph_count(head); }
    std::string check() const { return flux::map_rbh_check(head, order()); }
    std::string dump() const { return flux::map_rbh_dump(head); }
    void free() { flux::maph_free(head); }
};

// Entries per key: duplicate inserts may give a key several values.
template <class Subject>
using Model = std::map<typename Subject::Word, std::multiset<typename Subject::Word>,
                       std::function<bool(typename Subject::Word, typename Subject::Word)>>;

template <class Subject>
class Differential {
public:
    using Entry = typename Subject::Entry;
    using Word = typename Subject::Word;

    // `word(i)` is the key word for key number i; `nodes_alive()` counts live tree nodes.
    Differential(Subject subject, std::function<Word(uint32_t)> word,
                 std::function<size_t()> nodes_alive)
        : s_(subject), word_(std::move(word)), nodes_alive_(std::move(nodes_alive)),
          model_([order = subject.order()](Word a, Word b) { return order(a, b) < 0; }) {}

    // Phases of growth, churn and draining over key ranges of several sizes.
    void run(uint32_t seed, int steps) {
        std::mt19937 rng(seed);
        size_t base = nodes_alive_() - nodes_for(0);
        for (int step = 0; step < steps && !::testing::Test::HasFailure(); ++step) {
            if (step % 1000 == 0) {
                keys_ = std::array{8u, 100u, 3000u}[rng() % 3];
                grow_ = rng() % 3;
            }
            Word k = word_(rng() % keys_);
            uint32_t roll = rng() % 100;
            uint32_t put_share = grow_ == 0 ? 20 : grow_ == 1 ? 45 : 70;
            if (roll < put_share)
                put(k, step);
            else if (roll < put_share + 8)
                insert_duplicate(k, step, rng() % 2);
            else if (roll < put_share + 25)
                find(k);
            else if (roll < 99)
                remove(k);
            else
                walk();
            std::string fault = s_.check();
            ASSERT_EQ(fault, "") << "step " << step << "\n" << s_.dump();
            ASSERT_EQ(s_.count(), size_);
            ASSERT_EQ(nodes_alive_() - base, nodes_for(size_)) << "nodes leaked or lost";
        }
        walk();
        s_.free();
        EXPECT_EQ(nodes_alive_() - base, 0u) << "freeing the tree left nodes behind";
    }

private:
    // The value the tree holds for k, or none.
    std::optional<Word> probe(Word k) {
        bool found;
        Entry at = s_.find_n(k, found);
        if (!found)
            return std::nullopt;
        EXPECT_EQ(s_.order()(Subject::key_of(at), k), 0);
        return Subject::value_of(at);
    }

    void put(Word k, Word v) {
        std::optional<Word> replaced = probe(k);
        Entry e = s_.put(k, v);
        ASSERT_EQ(Subject::key_of(e), k);
        ASSERT_EQ(Subject::value_of(e), v);
        auto& values = model_[k];
        if (replaced) {
            ASSERT_EQ(values.count(*replaced), 1u) << "put found a value the model lacks";
            values.erase(*replaced);
            --size_;
        }
        values.insert(v);
        ++size_;
    }

    void insert_duplicate(Word k, Word v, bool after_found) {
        bool found;
        Entry at = s_.find_n(k, found);
        Entry e =
            found && after_found ? Subject::insert_after(at, k, v) : s_.insert_duplicate(k, v);
        ASSERT_EQ(Subject::value_of(e), v);
        model_[k].insert(v);
        ++size_;
    }

    void find(Word k) {
        std::optional<Word> held = probe(k);
        auto it = model_.find(k);
        bool expected = it != model_.end() && !it->second.empty();
        ASSERT_EQ(held.has_value(), expected);
        if (held) {
            ASSERT_EQ(it->second.count(*held), 1u);
        }
    }

    void remove(Word k) {
        bool found;
        Entry at = s_.find_n(k, found);
        if (!found)
            return;
        auto& values = model_[k];
        ASSERT_EQ(values.erase(Subject::value_of(at)), 1u);
        Subject::remove(at);
        --size_;
    }

    // The ring lists the model's entries in key order.
    void walk() {
        Model<Subject> seen(model_.key_comp());
        std::vector<Word> keys;
        for (Entry e = s_.first(); e != s_.head; e = Subject::next(e)) {
            seen[Subject::key_of(e)].insert(Subject::value_of(e));
            if (keys.empty() || s_.order()(keys.back(), Subject::key_of(e)) != 0)
                keys.push_back(Subject::key_of(e));
        }
        std::erase_if(model_, [](const auto& entry) { return entry.second.empty(); });
        ASSERT_EQ(seen, model_);
        ASSERT_EQ(keys.size(), model_.size()) << "equal keys are not adjacent in the ring";
    }

    Subject s_;
    std::function<Word(uint32_t)> word_;
    std::function<size_t()> nodes_alive_;
    Model<Subject> model_;
    size_t size_ = 0;
    uint32_t keys_ = 8;
    uint32_t grow_ = 0;
};

constexpr int steps = 10000;

class Trees : public TreeTest {
protected:
    // Stable texts for string keys, whose order differs from the numbers'.
    RbWord text_key(uint32_t i) {
        while (texts.size() <= i)
            texts.push_back(std::to_string(texts.size() * 7));
        return reinterpret_cast<RbWord>(texts[i].c_str());
    }
    std::deque<std::string> texts;
};

// Every key kind of both variants: string keys, whose order differs from the numbers';
// integer keys scattered over the whole signed range, negatives included; unsigned heap
// keys over the whole range; and the comparison kinds in orders of their own.
TEST_F(Trees, EveryKeyKindMatchesTheModel) {
    const uint32_t seed = test_seed();
    auto rb_nodes = [this] { return plain_blocks(); };
    auto rbh_nodes = [this] { return heap_vars(); };
    auto scattered = [](uint32_t i) { return i * 2654435761u; };
    auto plain = [](uint32_t i) { return i; };
    Differential<RbSubject>(
        {RbSubject::key}, [this](uint32_t i) { return text_key(i); }, rb_nodes)
        .run(seed, steps);
    Differential<RbSubject>({RbSubject::ikey}, scattered, rb_nodes).run(seed + 1, steps);
    Differential<RbSubject>({RbSubject::gkey}, plain, rb_nodes).run(seed + 2, steps);
    Differential<RbhSubject>({RbhSubject::key}, scattered, rbh_nodes).run(seed + 3, steps);
    Differential<RbhSubject>({RbhSubject::gkey}, plain, rbh_nodes).run(seed + 4, steps);
}

} // namespace
