// How the tree algorithm reaches map_rb nodes: plain pointers into module memory, the
// five flags as bits of the status word, routing words holding leaf addresses.
#pragma once

#include "maps/rb.hpp"
#include "maps/tree.hpp"

namespace flux {

struct RbAccess {
    using Ref = RbNode*;
    using View = RbNode*;
    using Word = RbWord;

    static View at(Ref n) { return n; }
    static Ref left(View v) { return v->left; }
    static Ref right(View v) { return v->right; }
    static Ref parent(View v) { return v->parent; }
    static void set_left(View v, Ref to) { v->left = to; }
    static void set_right(View v, Ref to) { v->right = to; }
    static void set_parent(View v, Ref to) { v->parent = to; }
    static Word key(View v) { return v->key; }
    static Word value(View v) { return v->value; }
    static void set_key(View v, Word w) { v->key = w; }
    static void set_value(View v, Word w) { v->value = w; }
    static Ref key_leaf(View v) { return reinterpret_cast<Ref>(v->key); }
    static Ref value_leaf(View v) { return reinterpret_cast<Ref>(v->value); }
    static void set_key_leaf(View v, Ref leaf) { v->key = reinterpret_cast<Word>(leaf); }
    static void set_value_leaf(View v, Ref leaf) { v->value = reinterpret_cast<Word>(leaf); }
    static bool has(View v, tree::Flag f) { return (v->status >> f) & 1u; }
    static void mark(View v, tree::Flag f, bool on) {
        v->status = on ? v->status | (1u << f) : v->status & ~(1u << f);
    }
    static void clear_flags(View v) { v->status = 0; }
    // The head's key names an empty text, so a stray string comparison with it is harmless.
    static Word head_key();

    static bool alive(Ref n) { return n != nullptr; }
    static bool flags_sane(View v) { return v->status < (1u << tree::flag_count); }
    static std::uint64_t number(Ref n) { return reinterpret_cast<std::uintptr_t>(n); }

    static Ref make();
    static void free(Ref n, const char* label);
    static void complain(tree::Complaint c, Ref n);
    static const tree::Complaints complaints;
};

using RbTree = tree::Tree<RbAccess>;

} // namespace flux
