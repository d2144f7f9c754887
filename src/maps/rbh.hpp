// map_rbh: the ordered tree of map_rb with every node, head included, a host heap pointer
// variable holding a ZOK_MAP_RBH_NODE instance, so that a tree lives in the interpreter's
// heap and is saved with its owner.  Nodes, keys and values are 32-bit heap identifiers
// (or any 32-bit words); the tree never frees what KEY and VAL name.  Keys are unsigned
// integers (key) or words ordered by a caller's comparison (gkey).
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "frame/structs.hpp"

namespace flux {

// Orders a search key against a leaf's key: negative less, 0 equal, positive greater.
using RbhCompare = int (*)(uint32_t key, uint32_t leaf_key);

// A new empty tree's head, or 0 when no heap variable can be made.
uint32_t map_rbh_new_tree();
// The node's instance data, or null when no heap variable has that identifier.  Valid
// until the node is freed.  Inline: every walk over a tree reads each node through it.
inline RbhNodeData* map_rbh_node(uint32_t node) {
    zok_heap_record* record = host_heap_var(node);
    return record ? static_cast<RbhNodeData*>(record->var.value.st.data) : nullptr;
}

// As map_rb_find_*_n: the leaf with an equal key (found = true), else the leaf to insert
// before, or the head.
uint32_t map_rbh_find_key_n(uint32_t head, uint32_t key, bool& found);
uint32_t map_rbh_find_gkey_n(uint32_t head, uint32_t key, RbhCompare compare, bool& found);
uint32_t map_rbh_find_key(uint32_t head, uint32_t key);
uint32_t map_rbh_find_gkey(uint32_t head, uint32_t key, RbhCompare compare);

// A new leaf just before `pos` (a leaf, or the head to append), or 0 when no heap
// variable can be made (the tree is then unchanged).  Equal keys are not looked for.
uint32_t map_rbh_insert_b(uint32_t pos, uint32_t key, uint32_t value);
void map_rbh_delete_node(uint32_t leaf);
// Frees every node of the tree, head included.
void map_rbh_free_tree(uint32_t head);

int map_rbh_nblack(uint32_t leaf);
int map_rbh_plength(uint32_t leaf);

// ---- Diagnostics (no operation of the module calls these).

using RbhKeyText = std::function<std::string(uint32_t)>;
// The key as an unsigned decimal number.
std::string map_rbh_number_key_text(uint32_t key);

// The first broken invariant of the tree, or "" when it is sound; the leaf ring is checked
// to ascend by `order` unless it is null.
std::string map_rbh_check(uint32_t head, RbhCompare order);
// The unsigned order of the key kind, for map_rbh_check.
int map_rbh_key_order(uint32_t key, uint32_t leaf_key);
std::string map_rbh_dump(uint32_t head);
std::string map_rbh_outline(uint32_t head, const RbhKeyText& key_text = map_rbh_number_key_text);
std::string map_rbh_dot(uint32_t head, const RbhKeyText& key_text = map_rbh_number_key_text);

} // namespace flux
