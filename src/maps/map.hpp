// map: a map_rb tree with one entry per key, always searched with the caller's comparison.
// A map is its tree's head, an entry a leaf.  The map never owns keys or values: whoever
// stored them frees them before removing an entry or freeing the map.  Entries run from
// map_first along map_next until the map itself comes back.
#pragma once

#include <cstddef>

#include "maps/rb.hpp"

namespace flux {

RbNode* map_new();
// Replaces the entry with an equal key, if any, by a new one.  The new entry, or null
// when memory runs out (an entry it replaced is gone even then).
RbNode* map_put(RbNode* map, RbWord key, RbWord value, RbCompare compare);
// The entry with an equal key, or null (also for a null map).
RbNode* map_find(RbNode* map, RbWord key, RbCompare compare);
void map_remove_node(RbNode* entry);        // nothing for null
void map_free(RbNode* map);                 // nothing for null
RbWord map_node_key(const RbNode* entry);   // 0 for null
RbWord map_node_value(const RbNode* entry); // 0 for null
// The first / last entry in key order, or the map itself when it is empty.
RbNode* map_first(RbNode* map);
RbNode* map_last(RbNode* map);
// The entry after `entry` in key order, or the map after the last.
RbNode* map_next(RbNode* entry);
std::size_t map_count(RbNode* map);
bool map_is_empty(const RbNode* map);

// Insertions without a look for an equal key.  Each returns the new entry or null.
// Just after `entry` (before its successor; after the map itself means first).
RbNode* map_insert_after(RbNode* entry, RbWord key, RbWord value);
RbNode* map_insert_key(RbNode* map, const char* key, RbWord value);
RbNode* map_insert_ikey(RbNode* map, int32_t key, RbWord value);
RbNode* map_insert_gkey(RbNode* map, RbWord key, RbWord value, RbCompare compare);

} // namespace flux
