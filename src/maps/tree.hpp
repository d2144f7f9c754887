// The leaf-oriented red-black tree, written once over a node-access policy and
// instantiated for nodes in module memory (rb) and nodes in host heap variables (rbh).
//
// Every entry is a leaf; internal nodes only route the search.  Between operations:
//  - a tree with n leaves has n-1 internal nodes, each with exactly two children;
//  - an internal node's key word names the greatest leaf of its left subtree and its
//    value word the least leaf of its right subtree; keys are read through those leaves;
//  - no red node has a red parent, every leaf is black and has the same number of black
//    nodes above it (the root may be left red by a deletion);
//  - the leaves form a ring through the head in ascending key order: a leaf's left and
//    right links are its next and previous leaf, the head's are the first and last leaf;
//  - the head's parent is the root (the head itself when empty), the root's parent is
//    the head, and the status flags mirror the shape (root, head, left child).
//
// A node is reached through `A::at(ref)`, whose view stays valid while the node lives:
// making or freeing other nodes does not move it.
//
// Misuse and impossible states are raised through the host with the error action.  Code
// goes on after a raise that returns: a search searches, a count counts, and a deletion
// or free handed the wrong node returns without touching the tree.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>

#include <zok/zok.h>

namespace flux::tree {

// Status flags, by position: bit n of the rb status word, byte n of the rbh status.
enum Flag : unsigned { red = 0, internal = 1, left_child = 2, root = 3, head = 4 };
inline constexpr unsigned flag_count = 5;

enum class Side : bool { right = false, left = true };
constexpr Side opposite(Side s) {
    return s == Side::left ? Side::right : Side::left;
}

// A misuse or fault raised with the host's generic text message.  `names_node` says that
// the text has a "0x%x" for the node's identifier.
struct Complaint {
    const char* text;
    bool names_node = false;
};

// The texts a variant raises, besides the per-kind search texts.
struct Complaints {
    Complaint delete_internal, delete_head, sibling_black_internal, sibling_not_internal,
        recolour_fault, nblack_non_leaf, plength_non_leaf, free_non_head, find_gkey_non_head;
};

// How the algorithm reaches nodes.  Ref is a node handle (Ref{} is none), Word a key or
// value word.  Routing words name leaves, so they are read and written as Refs.
template <class A>
concept NodeAccess = requires(typename A::Ref r, typename A::View v, typename A::Word w, Flag f,
                              bool on, const char* label, Complaint c) {
    { A::at(r) } -> std::same_as<typename A::View>;
    { A::left(v) } -> std::same_as<typename A::Ref>;
    { A::right(v) } -> std::same_as<typename A::Ref>;
    { A::parent(v) } -> std::same_as<typename A::Ref>;
    A::set_left(v, r);
    A::set_right(v, r);
    A::set_parent(v, r);
    { A::key(v) } -> std::same_as<typename A::Word>;
    { A::value(v) } -> std::same_as<typename A::Word>;
    A::set_key(v, w);
    A::set_value(v, w);
    { A::key_leaf(v) } -> std::same_as<typename A::Ref>;
    { A::value_leaf(v) } -> std::same_as<typename A::Ref>;
    A::set_key_leaf(v, r);
    A::set_value_leaf(v, r);
    { A::has(v, f) } -> std::same_as<bool>;
    A::mark(v, f, on);
    A::clear_flags(v);
    { A::head_key() } -> std::same_as<typename A::Word>;
    { A::make() } -> std::same_as<typename A::Ref>;
    A::free(r, label);
    A::complain(c, r);
    { A::complaints } -> std::convertible_to<const Complaints&>;
};

template <NodeAccess A>
struct Tree {
    using Ref = typename A::Ref;
    using Word = typename A::Word;

    // ---- Field access by handle.

    static Ref left(Ref n) { return A::left(A::at(n)); }
    static Ref right(Ref n) { return A::right(A::at(n)); }
    static Ref parent(Ref n) { return A::parent(A::at(n)); }
    static Word key(Ref n) { return A::key(A::at(n)); }
    static bool is(Ref n, Flag f) { return A::has(A::at(n), f); }
    static bool is_red(Ref n) { return is(n, red); }
    static void mark(Ref n, Flag f, bool on) { A::mark(A::at(n), f, on); }
    static void set_left(Ref n, Ref to) { A::set_left(A::at(n), to); }
    static void set_right(Ref n, Ref to) { A::set_right(A::at(n), to); }
    static void set_parent(Ref n, Ref to) { A::set_parent(A::at(n), to); }

    static Side side(Ref n) { return is(n, left_child) ? Side::left : Side::right; }
    static Ref child(Ref n, Side s) { return s == Side::left ? left(n) : right(n); }
    static void set_child(Ref n, Side s, Ref c) {
        if (s == Side::left)
            set_left(n, c);
        else
            set_right(n, c);
    }
    static Ref sibling(Ref n) { return child(parent(n), opposite(side(n))); }

    // ---- Nodes made ahead.

    // While a Reserve lives, every node the tree needs comes from it while it has any, so
    // that a caller who reserved enough makes and fills trees without a failure for want
    // of memory.  Reserves nest: an inner one takes its nodes from the outer ones before
    // it makes any, and hands back what it did not use.  Spare nodes are chained through
    // their left link; the innermost reserve is the one in use.
    class Reserve {
    public:
        Reserve() : outer_(innermost()) { innermost() = this; }
        Reserve(const Reserve&) = delete;
        Reserve& operator=(const Reserve&) = delete;
        ~Reserve() {
            innermost() = outer_;
            for (Ref n = take(); n != Ref{}; n = take()) {
                if (outer_ != nullptr)
                    outer_->put(n);
                else
                    A::free(n, "map_rb_reserve");
            }
        }
        // Holds `count` more nodes; false when memory runs out (the nodes held stay held).
        bool add(std::size_t count) {
            for (; count > 0; --count) {
                Ref n = outer_ != nullptr ? outer_->take_any() : Ref{};
                if (n == Ref{} && (n = A::make()) == Ref{})
                    return false;
                put(n);
            }
            return true;
        }

    private:
        friend Tree;
        void put(Ref n) {
            A::set_left(A::at(n), spare_);
            spare_ = n;
        }
        Ref take() {
            Ref n = spare_;
            if (n != Ref{})
                spare_ = A::left(A::at(n));
            return n;
        }
        // A spare node of this reserve or of one around it.
        Ref take_any() {
            for (Reserve* r = this; r != nullptr; r = r->outer_)
                if (Ref n = r->take(); n != Ref{})
                    return n;
            return Ref{};
        }
        static Reserve*& innermost() {
            static Reserve* current = nullptr;
            return current;
        }

        Reserve* outer_;
        Ref spare_{};
    };

    // A node from the reserves, else a new one; none when allocation fails.
    static Ref make_node() {
        if (Reserve* r = Reserve::innermost())
            if (Ref n = r->take_any(); n != Ref{})
                return n;
        return A::make();
    }

    // ---- Making and searching.

    // A head whose three links name itself; none when allocation fails.
    static Ref new_tree() {
        Ref h = make_node();
        if (h == Ref{})
            return h;
        auto v = A::at(h);
        A::set_left(v, h);
        A::set_right(v, h);
        A::set_parent(v, h);
        A::set_key(v, A::head_key());
        A::clear_flags(v);
        A::mark(v, head, true);
        return h;
    }

    // The leaf with a key equal to the search key (found set), else the leaf to insert
    // before: the least greater leaf, or the head when every key is less.  The last leaf
    // is tried first, so appending in ascending order costs one comparison.
    // `compare(leaf_key)` orders the search key against a leaf's key.
    template <class Compare>
    static Ref find(Ref h, Compare compare, Complaint non_head, bool& found) {
        found = false;
        if (!is(h, head))
            A::complain(non_head, h);
        auto hv = A::at(h);
        Ref n = A::parent(hv);
        if (n == h)
            return h;
        Ref last = A::right(hv);
        auto order = compare(key(last));
        if (order == 0) {
            found = true;
            return last;
        }
        if (order > 0)
            return h;
        // Near the root, where nodes stay in cache, a comparison of a few instructions
        // (tagged `select_child_by_data`) picks the child with a conditional move: a random
        // search mispredicts every other branch, and that is the main cost there.  Further
        // down, reads from memory are, and a branch lets the processor run ahead down the
        // predicted child meanwhile (the hint only keeps it a branch).
        if constexpr (requires { requires Compare::select_child_by_data; }) {
            constexpr int cached_levels = 8;
#pragma GCC unroll 8
            for (int level = 0; level < cached_levels; ++level) {
                auto v = A::at(n);
                if (!A::has(v, internal))
                    return n;
                Ref routing = A::key_leaf(v);
                order = compare(key(routing));
                if (order == 0) {
                    found = true;
                    return routing;
                }
                n = __builtin_expect_with_probability(order < 0, true, 0.5) ? A::left(v)
                                                                            : A::right(v);
            }
        }
        for (auto v = A::at(n); A::has(v, internal); v = A::at(n)) {
            // A comparison that reads memory through the key word asks for both children's
            // key words ahead: a leaf's names its key, an internal node's its routing leaf.
            // Whichever way this comparison goes, the next one then waits for one read.
            if constexpr (requires { compare.fetch_ahead(Word{}); }) {
                compare.fetch_ahead(key(A::left(v)));
                compare.fetch_ahead(key(A::right(v)));
            }
            Ref routing = A::key_leaf(v);
            order = compare(key(routing));
            if (order == 0) {
                found = true;
                return routing;
            }
            if (__builtin_expect(order < 0, 0))
                n = A::left(v);
            else
                n = A::right(v);
        }
        return n;
    }

    // ---- Insertion.

    // A new leaf before `pos` (a leaf, or the head to append); none when a node cannot be
    // made.  Both nodes are made before anything is linked, so a failure, returned or
    // raised, changes nothing.
    static Ref insert_before(Ref pos, Word k, Word val, const char* label) {
        Ref leaf = make_node();
        if (leaf == Ref{})
            return leaf;
        Unlinked unlinked{leaf, label};
        bool empty = is(pos, head) && parent(pos) == pos;
        Ref node{};
        if (!empty) {
            node = make_node();
            if (node == Ref{})
                return node;
        }
        unlinked.node = Ref{};
        auto lv = A::at(leaf);
        A::set_key(lv, k);
        A::set_value(lv, val);
        A::clear_flags(lv);
        link_before(leaf, pos);
        if (empty) {
            set_parent(pos, leaf);
            set_parent(leaf, pos);
            mark(leaf, root, true);
        } else if (is(pos, head)) {
            // Appending: the former last leaf and the new one share a new parent.  The new
            // leaf is the greatest, so its key anchor is always the head: no routing word
            // names it, and the walk up the right spine is skipped.
            Ref last = right(leaf);
            mark(last, root, false);
            mark(last, head, false);
            build_internal(node, last, leaf, last);
        } else {
            mark(pos, root, false);
            mark(pos, head, false);
            build_internal(node, leaf, pos, pos);
            Ref anchor = value_anchor(leaf);
            if (!is(anchor, head))
                A::set_value_leaf(A::at(anchor), leaf);
        }
        return leaf;
    }

    // Frees a node that an insertion made but did not link, however the insertion ends.
    struct Unlinked {
        Ref node;
        const char* label;
        ~Unlinked() {
            if (node != Ref{})
                A::free(node, label);
        }
    };

    static void link_before(Ref leaf, Ref next) {
        Ref prev = right(next);
        set_left(leaf, next);
        set_right(leaf, prev);
        set_left(prev, leaf);
        set_right(next, leaf);
    }

    // Puts red internal `node` where `replaced` stood, over children a (left) and b.
    static void build_internal(Ref node, Ref a, Ref b, Ref replaced) {
        Ref g = parent(replaced);
        bool was_left = is(replaced, left_child);
        auto v = A::at(node);
        A::clear_flags(v);
        A::mark(v, red, true);
        A::mark(v, internal, true);
        A::set_left(v, a);
        A::set_right(v, b);
        A::set_key_leaf(v, a);
        A::set_value_leaf(v, b);
        A::set_parent(v, g);
        set_parent(a, node);
        set_parent(b, node);
        mark(a, left_child, true);
        mark(b, left_child, false);
        if (is(g, head)) {
            set_parent(g, node);
            mark(node, root, true);
        } else {
            mark(node, left_child, was_left);
            set_child(g, was_left ? Side::left : Side::right, node);
        }
        rebalance_after_insert(node);
    }

    // x is red; only x and its parent may break the red rule.
    static void rebalance_after_insert(Ref x) {
        Ref p, g;
        for (;;) {
            if (is(x, root)) {
                mark(x, red, false);
                return;
            }
            p = parent(x);
            if (!is_red(p))
                return;
            if (is(p, root)) {
                mark(p, red, false);
                return;
            }
            g = parent(p);
            Ref uncle = sibling(p);
            if (!is_red(uncle))
                break;
            //      g(b)              g(r)
            //     /    \            /    \      and go on from g
            //   p(r)   u(r)  =>   p(b)   u(b)
            //   /                 /
            //  x(r)              x(r)
            mark(p, red, false);
            mark(g, red, true);
            mark(uncle, red, false);
            x = g;
        }
        if (side(x) != side(p)) {
            /*
             *     g             g             x
             *    /             /            /   \
             *   p      =>     x      =>    p     g
             *    \           /
             *     x         p
             */
            rotate(p, side(x));
            rotate(g, side(x));
            mark(x, red, false);
        } else {
            /*
             *       g          p
             *      /         /   \
             *     p    =>   x     g
             *    /
             *   x
             */
            rotate(g, side(x));
            mark(p, red, false);
        }
        mark(g, red, true);
    }

    // Lifts n's child on side `rising` into n's place; n goes down on the other side.
    // Routing words stay right by themselves: each names the same leaf as before.
    static void rotate(Ref n, Side rising) {
        Side sinking = opposite(rising);
        Ref up = child(n, rising);
        Ref inner = child(up, sinking);
        bool n_was_left = is(n, left_child);
        set_child(n, rising, inner);
        mark(inner, left_child, rising == Side::left);
        set_parent(inner, n);
        set_child(up, sinking, n);
        mark(n, left_child, sinking == Side::left);
        Ref g = parent(n);
        set_parent(up, g);
        set_parent(n, up);
        if (is(n, root)) {
            set_parent(g, up);
            mark(n, root, false);
            mark(n, head, false);
            mark(up, root, true);
        } else {
            set_child(g, n_was_left ? Side::left : Side::right, up);
            mark(up, left_child, n_was_left);
        }
    }

    // ---- Anchors: the internal node whose routing word names an extreme leaf of y's
    // subtree.  Both return the head when there is none (the walk reached the root).

    // Its value word names the least leaf of y's subtree.
    static Ref value_anchor(Ref y) {
        while (!is(y, root) && is(y, left_child))
            y = parent(y);
        return parent(y);
    }
    // Its key word names the greatest leaf of y's subtree.
    static Ref key_anchor(Ref y) {
        while (!is(y, root) && !is(y, left_child))
            y = parent(y);
        return parent(y);
    }

    // ---- Deletion.

    // Removes leaf x and its parent.  The labels name the freeing routines of map_rb.
    static void erase(Ref x) {
        const Complaints& says = A::complaints;
        if (is(x, internal)) {
            A::complain(says.delete_internal, x);
            return;
        }
        if (is(x, head)) {
            A::complain(says.delete_head, x);
            return;
        }
        Ref next = left(x);
        Ref prev = right(x);
        // Only a routing word on x's own side can name x, and none names the first leaf as
        // the least of a subtree or the last as the greatest.
        const Side x_side = side(x);
        const bool named = !is(x_side == Side::left ? prev : next, head);
        set_right(next, prev);
        set_left(prev, next);
        if (is(x, root)) {
            Ref h = parent(x);
            set_parent(h, h);
            A::free(x, "map_rb_delete_node");
            return;
        }
        Ref p = parent(x);
        Ref s = sibling(x);
        Ref g = parent(p);
        set_parent(s, g);
        if (is(p, root)) {
            // The sibling becomes the root, keeping its colour.
            set_parent(g, s);
            mark(s, root, true);
            A::free(p, "map_rb_delete_node");
            A::free(x, "map_rb_delete_node");
            return;
        }
        bool p_was_left = is(p, left_child);
        bool p_was_red = is_red(p);
        set_child(g, p_was_left ? Side::left : Side::right, s);
        mark(s, left_child, p_was_left);
        A::free(p, "map_rb_delete_node");
        A::free(x, "map_rb_delete_node");

        // The routing word that named x now names s's extreme leaf on x's side; the one on
        // the other side names s's own extreme leaf already.  A red internal s has two leaf
        // children; turning it black restores the black height.
        if (is(s, internal)) {
            if (is_red(s)) {
                if (named)
                    aim_anchor(s, x_side, child(s, x_side));
                mark(s, red, false);
                return;
            }
            A::complain(says.sibling_black_internal, s);
        } else if (named) {
            aim_anchor(s, x_side, s);
        }
        if (!p_was_red)
            rebalance_after_delete(s);
    }

    // Aims the routing word that names the least (side left) or greatest (side right) leaf of
    // s's subtree at `leaf`.
    static void aim_anchor(Ref s, Side side, Ref leaf) {
        if (side == Side::left) {
            if (Ref anchor = value_anchor(s); !is(anchor, head))
                A::set_value_leaf(A::at(anchor), leaf);
        } else if (Ref anchor = key_anchor(s); !is(anchor, head)) {
            A::set_key_leaf(A::at(anchor), leaf);
        }
    }

    // x's subtree has one black node fewer than its sibling's; x is black.
    static void rebalance_after_delete(Ref x) {
        const Complaints& says = A::complaints;
        Ref p = parent(x);
        Ref w = sibling(x);
        // Move the deficit up while p, w and w's children are all black:
        /*
         *      p(b)            p(b)   <- x
         *     /    \          /    \
         *   x(b)   w(b)  => x(b)   w(r)
         *          /  \            /  \
         *        (b)  (b)        (b)  (b)
         */
        while (!is_red(p) && !is_red(w) && is(w, internal) && !is_red(left(w)) &&
               !is_red(right(w))) {
            mark(w, red, true);
            x = p;
            if (is(x, root))
                return;
            p = parent(x);
            w = sibling(x);
        }
        // A red sibling is lifted over p, so that x gets a black sibling and a red parent:
        /*
         *      p(b)              w(b)
         *     /    \            /    \
         *   x      w(r)  =>   p(r)   (b)
         *          /  \       /  \
         *        (b)  (b)    x   (b)
         */
        if (!is_red(p) && is_red(w)) {
            rotate(p, side(w));
            mark(p, red, true);
            mark(w, red, false);
            w = sibling(x);
        }
        if (!is(w, internal)) {
            // A leaf sibling cannot outweigh x; its links are ring links, so stop here.
            A::complain(says.sibling_not_internal, w);
            return;
        }
        Side near_side = side(x);
        Ref near = child(w, near_side);
        Ref far = child(w, opposite(near_side));
        bool p_was_red = is_red(p);
        if (!is_red(far) && is_red(near)) {
            // The near nephew rises twice, to p's place; w ends red when p was red:
            /*
             *      p                p                 n(b)
             *     / \              / \              /    \
             *    x   w(b)    =>   x   n(r)   =>    p      w
             *       /  \               \          / \    / \
             *     n(r)  f(b)           w(b)      x   .  .   f(b)
             *                            \
             *                            f(b)
             */
            rotate(w, near_side);
            rotate(p, opposite(near_side));
            mark(near, red, false);
            if (p_was_red)
                mark(w, red, true);
            return;
        }
        if (!is_red(far)) {
            // Both nephews black: a red p gives its red to w.
            /*
             *      p(r)              p(b)
             *     /    \            /    \
             *   x      w(b)  =>   x      w(r)
             */
            if (is_red(w) || !p_was_red)
                A::complain(says.recolour_fault, p);
            mark(p, red, false);
            mark(w, red, true);
            return;
        }
        // The far nephew is red: w rises to p's place with p's colour.
        /*
         *      p(c)              w(c)
         *     /    \            /    \
         *   x      w(b)  =>   p(b)   f(b)
         *            \        /
         *            f(r)    x
         */
        rotate(p, opposite(near_side));
        mark(far, red, false);
        mark(w, red, p_was_red);
        mark(p, red, false);
    }

    // Deletes every leaf, then frees the head.  Keys and values are the caller's.
    static void free_tree(Ref h) {
        if (!is(h, head)) {
            A::complain(A::complaints.free_non_head, h);
            return;
        }
        for (Ref first = left(h); first != h; first = left(h))
            erase(first);
        A::free(h, "map_rb_free_tree");
    }

    // ---- Checks.

    // Nodes from a leaf up to, not counting, the head: all of them, or the black ones.
    static int path_length(Ref leaf, bool black_only) {
        const Complaints& says = A::complaints;
        if (is(leaf, internal) || is(leaf, head))
            A::complain(black_only ? says.nblack_non_leaf : says.plength_non_leaf, leaf);
        int count = 0;
        for (Ref n = leaf; !is(n, head); n = parent(n))
            count += black_only ? !is_red(n) : 1;
        return count;
    }

    // ---- One entry per key, for the map facade.

    // Replaces the entry with an equal key, if any, by a new one; none when a node
    // cannot be made.
    template <class Compare>
    static Ref put(Ref map, Word k, Word val, Compare compare) {
        bool found;
        Ref at = find(map, compare, A::complaints.find_gkey_non_head, found);
        if (found) {
            erase(at);
            at = find(map, compare, A::complaints.find_gkey_non_head, found);
        }
        return insert_before(at, k, val, "map_rb_insert_b");
    }

    // Steps from the head along next links until the last leaf comes round.
    static std::size_t count(Ref map) {
        Ref last = right(map);
        std::size_t n = 0;
        for (Ref at = left(last); at != last; at = left(at))
            ++n;
        return n;
    }
};

} // namespace flux::tree
