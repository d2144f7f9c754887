// maph: one entry per key over map_rbh; the put and count steps are the tree's own.
#include "maps/maph.hpp"

#include "maps/rbh_access.hpp"

namespace flux {

uint32_t maph_new() {
    return map_rbh_new_tree();
}

uint32_t maph_put(uint32_t map, uint32_t key, uint32_t value, RbhCompare compare) {
    return RbhAccess::id(RbhTree::put(HeapNode{map}, key, value, [key, compare](uint32_t leaf_key) {
        return compare(key, leaf_key);
    }));
}

void maph_remove_node(uint32_t entry) {
    if (entry)
        map_rbh_delete_node(entry);
}

void maph_free(uint32_t map) {
    if (map)
        map_rbh_free_tree(map);
}

uint32_t maph_node_key(uint32_t entry) {
    return entry ? map_rbh_node(entry)->key : 0;
}

uint32_t maph_node_value(uint32_t entry) {
    return entry ? map_rbh_node(entry)->val : 0;
}

uint32_t maph_first(uint32_t map) {
    return map_rbh_node(map)->flink;
}

uint32_t maph_last(uint32_t map) {
    return map_rbh_node(map)->blink;
}

uint32_t maph_next(uint32_t entry) {
    return map_rbh_node(entry)->flink;
}

std::size_t maph_count(uint32_t map) {
    return RbhTree::count(HeapNode{map});
}

bool maph_is_empty(uint32_t map) {
    return map_rbh_node(map)->flink == map;
}

uint32_t maph_insert_after(uint32_t entry, uint32_t key, uint32_t value) {
    return map_rbh_insert_b(maph_next(entry), key, value);
}

uint32_t maph_insert_key(uint32_t map, uint32_t key, uint32_t value) {
    return map_rbh_insert_b(map_rbh_find_key(map, key), key, value);
}

uint32_t maph_insert_gkey(uint32_t map, uint32_t key, uint32_t value, RbhCompare compare) {
    return map_rbh_insert_b(map_rbh_find_gkey(map, key, compare), key, value);
}

} // namespace flux
