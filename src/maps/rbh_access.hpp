// How the tree algorithm reaches map_rbh nodes: by a handle that carries the node's data,
// looked up by heap identifier once when the handle is read from a link, the five flags
// as status bytes, routing words holding leaf identifiers.
#pragma once

#include <compare>
#include <cstring>

#include <zok/zok.h>

#include "maps/rbh.hpp"
#include "maps/tree.hpp"

namespace flux {

// A node: its heap identifier and its data, or null when no live heap variable has the
// identifier.  A node's data stays where it is while the node lives, so one look-up
// serves every access through the handle until the node is freed.  Handles compare by
// identifier.
class HeapNode {
public:
    HeapNode() = default;
    explicit HeapNode(uint32_t id) : id_(id), data_(data_of(id)) {}
    HeapNode(uint32_t id, RbhNodeData* data) : id_(id), data_(data) {}

    uint32_t id() const { return id_; }
    RbhNodeData* data() const { return data_; }
    friend bool operator==(HeapNode a, HeapNode b) { return a.id_ == b.id_; }
    friend std::strong_ordering operator<=>(HeapNode a, HeapNode b) { return a.id_ <=> b.id_; }

private:
    static RbhNodeData* data_of(uint32_t id) {
        const zok_heap_record* record = host_heap_var(id);
        return record ? static_cast<RbhNodeData*>(record->var.value.st.data) : nullptr;
    }

    uint32_t id_ = 0;
    RbhNodeData* data_ = nullptr;
};

struct RbhAccess {
    using Ref = HeapNode;
    using View = RbhNodeData*;
    using Word = uint32_t;

    static uint32_t id(Ref n) { return n.id(); }

    static View at(Ref n) { return n.data(); }
    static Ref left(View v) { return Ref{v->flink}; }
    static Ref right(View v) { return Ref{v->blink}; }
    static Ref parent(View v) { return Ref{v->parent}; }
    static void set_left(View v, Ref to) { v->flink = id(to); }
    static void set_right(View v, Ref to) { v->blink = id(to); }
    static void set_parent(View v, Ref to) { v->parent = id(to); }
    static Word key(View v) { return v->key; }
    static Word value(View v) { return v->val; }
    static void set_key(View v, Word w) { v->key = w; }
    static void set_value(View v, Word w) { v->val = w; }
    static Ref key_leaf(View v) { return Ref{v->key}; }
    static Ref value_leaf(View v) { return Ref{v->val}; }
    static void set_key_leaf(View v, Ref leaf) { v->key = id(leaf); }
    static void set_value_leaf(View v, Ref leaf) { v->val = id(leaf); }
    static bool has(View v, tree::Flag f) { return v->status[f] != 0; }
    static void mark(View v, tree::Flag f, bool on) { v->status[f] = on; }
    static void clear_flags(View v) { std::memset(v->status, 0, sizeof v->status); }
    static Word head_key() { return 0; }

    static bool alive(Ref n);
    static bool flags_sane(View v) {
        for (uint8_t flag : v->status)
            if (flag > 1)
                return false;
        return true;
    }
    static std::uint64_t number(Ref n) { return id(n); }

    static Ref make();
    static void free(Ref n, const char* label);
    static void complain(tree::Complaint c, Ref n);
    static const tree::Complaints complaints;
};

using RbhTree = tree::Tree<RbhAccess>;

} // namespace flux
