// maph: a map_rbh tree with one entry per key, always searched with the caller's
// comparison.  A map is its head's heap identifier, an entry a leaf's; 0 is none.  The
// map never owns keys or values: whoever stored them frees them before removing an entry
// or freeing the map.  Entries run from maph_first along maph_next until the map itself
// comes back.
#pragma once

#include <cstddef>
#include <cstdint>

#include "maps/rbh.hpp"
#include "maps/rbh_access.hpp"

namespace flux {

// Nodes made ahead: while one lives, maph_new and the insertions take their nodes from it
// (see tree::Tree::Reserve), so that a caller who reserved enough cannot fail half way.
// An empty map needs 1 node, an insertion 2.
using MaphReserve = RbhTree::Reserve;

uint32_t maph_new();
// Replaces the entry with an equal key, if any, by a new one.  The new entry, or 0 when
// no heap variable can be made (an entry it replaced is gone even then).
uint32_t maph_put(uint32_t map, uint32_t key, uint32_t value, RbhCompare compare);
void maph_remove_node(uint32_t entry);    // nothing for 0
void maph_free(uint32_t map);             // nothing for 0
uint32_t maph_node_key(uint32_t entry);   // 0 for 0
uint32_t maph_node_value(uint32_t entry); // 0 for 0
// The first / last entry in key order, or the map itself when it is empty.
uint32_t maph_first(uint32_t map);
uint32_t maph_last(uint32_t map);
// The entry after `entry` in key order, or the map after the last.
uint32_t maph_next(uint32_t entry);
std::size_t maph_count(uint32_t map);
bool maph_is_empty(uint32_t map);

// The entry whose key `order(entry_key)` finds equal (found set), else the entry to insert
// before with maph_insert_before, or the map itself to append.  `order` orders the sought
// key against an entry's key: negative less, 0 equal, positive greater.
template <class Order>
HeapNode maph_search_node(uint32_t map, Order order, bool& found) {
    return RbhTree::find(HeapNode{map}, order, RbhAccess::complaints.find_gkey_non_head, found);
}
template <class Order>
uint32_t maph_search(uint32_t map, Order order, bool& found) {
    return RbhAccess::id(maph_search_node(map, order, found));
}
// A new entry just before what maph_search returned; 0 when no heap variable can be made.
inline uint32_t maph_insert_before(uint32_t at, uint32_t key, uint32_t value) {
    return map_rbh_insert_b(at, key, value);
}

// The order of `key` against an entry's key, for `compare(key, entry_key)` negative, 0 or
// positive as RbhCompare; an inline one is inlined into the search.
template <class Compare>
auto maph_key_order(uint32_t key, Compare compare) {
    return [key, compare](uint32_t entry_key) { return compare(key, entry_key); };
}
// The entry with an equal key, or 0 (also for map 0).
template <class Compare>
uint32_t maph_find(uint32_t map, uint32_t key, Compare compare) {
    if (!map)
        return 0;
    bool found;
    const uint32_t at = maph_search(map, maph_key_order(key, compare), found);
    return found ? at : 0;
}
// The value of the entry with an equal key, or 0 (also for map 0); read through the
// node the search ends at, with no look-up of its own.
template <class Compare>
uint32_t maph_find_value(uint32_t map, uint32_t key, Compare compare) {
    if (!map)
        return 0;
    bool found;
    const HeapNode at = maph_search_node(map, maph_key_order(key, compare), found);
    return found ? RbhAccess::value(RbhAccess::at(at)) : 0;
}
// The entry with an equal key if there is one, else a new entry; 0 when no heap variable
// can be made.  One search either way.
template <class Compare>
uint32_t maph_find_or_insert(uint32_t map, uint32_t key, uint32_t value, Compare compare) {
    bool found;
    const uint32_t at = maph_search(map, maph_key_order(key, compare), found);
    return found ? at : maph_insert_before(at, key, value);
}

// Insertions without a look for an equal key.  Each returns the new entry or 0.
// Just after `entry` (before its successor; after the map itself means first).
uint32_t maph_insert_after(uint32_t entry, uint32_t key, uint32_t value);
// By the unsigned key kind.
uint32_t maph_insert_key(uint32_t map, uint32_t key, uint32_t value);
uint32_t maph_insert_gkey(uint32_t map, uint32_t key, uint32_t value, RbhCompare compare);

} // namespace flux
