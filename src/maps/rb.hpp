// map_rb: an ordered tree in module memory.  Leaves are the entries and also form a ring
// in ascending key order through the head; internal nodes only route the search.  Keys
// and values are opaque words that the tree never copies or frees.  One tree is always
// searched with one key kind: C strings (key), signed 32-bit integers (ikey), or words
// ordered by a caller's comparison (gkey).
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace flux {

using RbWord = std::uintptr_t;
// Orders a search key against a leaf's key: negative less, 0 equal, positive greater.
using RbCompare = int (*)(RbWord key, RbWord leaf_key);

// One node, head included: six words from host_mem_alloc_plain.
struct RbNode {
    RbNode* left;    // leaf: next leaf (the head after the last); internal: left child;
                     // head: first leaf
    RbNode* right;   // leaf: previous leaf; internal: right child; head: last leaf
    RbNode* parent;  // the head for the root; head: the root
    uint32_t status; // bits: 1 red, 2 internal, 4 left child, 8 root, 16 head
    RbWord key;      // leaf: the key; internal: the greatest leaf of the left subtree
    RbWord value;    // leaf: the value; internal: the least leaf of the right subtree
};
static_assert(sizeof(RbNode) == 6 * sizeof(void*), "a node is six words");

// A new empty tree, or null when memory runs out.
RbNode* map_rb_new_tree();

// The leaf with an equal key (found = true), else the leaf to insert before: the least
// leaf with a greater key, or the head when every key is less.
RbNode* map_rb_find_key_n(RbNode* head, const char* key, bool& found);
RbNode* map_rb_find_ikey_n(RbNode* head, int32_t key, bool& found);
RbNode* map_rb_find_gkey_n(RbNode* head, RbWord key, RbCompare compare, bool& found);
RbNode* map_rb_find_key(RbNode* head, const char* key);
RbNode* map_rb_find_ikey(RbNode* head, int32_t key);
RbNode* map_rb_find_gkey(RbNode* head, RbWord key, RbCompare compare);

// A new leaf just before `pos` (a leaf, or the head to append), or null when memory runs
// out (the tree is then unchanged).  Equal keys are not looked for.
RbNode* map_rb_insert_b(RbNode* pos, RbWord key, RbWord value);
void map_rb_delete_node(RbNode* leaf);
// Deletes every leaf and the head; keys and values are the caller's to free.
void map_rb_free_tree(RbNode* head);

// Black nodes / all nodes from a leaf up to, not counting, the head.
int map_rb_nblack(RbNode* leaf);
int map_rb_plength(RbNode* leaf);

// ---- Diagnostics (no operation of the module calls these).

// Renders a key word for the dumps.
using RbKeyText = std::function<std::string(RbWord)>;
// The key word as a C string (the key kind).
std::string map_rb_string_key_text(RbWord key);

// The first broken invariant of the tree, or "" when it is sound.  The leaf ring is
// checked to ascend (equal keys allowed) by `order` unless it is null.
std::string map_rb_check(const RbNode* head, RbCompare order);
// Every node in preorder, one line each (addresses as they are).
std::string map_rb_dump(const RbNode* head, const RbKeyText& key_text = map_rb_string_key_text);
// The shape alone: colours, kinds and leaf keys, indented by depth.
std::string map_rb_outline(const RbNode* head, const RbKeyText& key_text);
// A Graphviz picture: colours, routing words as dashed arrows, the leaf ring dotted.
std::string map_rb_dot(const RbNode* head, const RbKeyText& key_text);

} // namespace flux
