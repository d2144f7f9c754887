// map: one entry per key over map_rb; the put and count steps are the tree's own.
#include "maps/map.hpp"

#include "maps/rb_access.hpp"

namespace flux {

RbNode* map_new() {
    return map_rb_new_tree();
}

RbNode* map_put(RbNode* map, RbWord key, RbWord value, RbCompare compare) {
    return RbTree::put(map, key, value,
                       [key, compare](RbWord leaf_key) { return compare(key, leaf_key); });
}

RbNode* map_find(RbNode* map, RbWord key, RbCompare compare) {
    if (!map)
        return nullptr;
    bool found;
    RbNode* at = map_rb_find_gkey_n(map, key, compare, found);
    return found ? at : nullptr;
}

void map_remove_node(RbNode* entry) {
    if (entry)
        map_rb_delete_node(entry);
}

void map_free(RbNode* map) {
    if (map)
        map_rb_free_tree(map);
}

RbWord map_node_key(const RbNode* entry) {
    return entry ? entry->key : 0;
}

RbWord map_node_value(const RbNode* entry) {
    return entry ? entry->value : 0;
}

RbNode* map_first(RbNode* map) {
    return map->left;
}

RbNode* map_last(RbNode* map) {
    return map->right;
}

RbNode* map_next(RbNode* entry) {
    return entry->left;
}

std::size_t map_count(RbNode* map) {
    return RbTree::count(map);
}

bool map_is_empty(const RbNode* map) {
    return map->left == map;
}

RbNode* map_insert_after(RbNode* entry, RbWord key, RbWord value) {
    return map_rb_insert_b(entry->left, key, value);
}

RbNode* map_insert_key(RbNode* map, const char* key, RbWord value) {
    return map_rb_insert_b(map_rb_find_key(map, key), reinterpret_cast<RbWord>(key), value);
}

RbNode* map_insert_ikey(RbNode* map, int32_t key, RbWord value) {
    return map_rb_insert_b(map_rb_find_ikey(map, key), static_cast<uint32_t>(key), value);
}

RbNode* map_insert_gkey(RbNode* map, RbWord key, RbWord value, RbCompare compare) {
    return map_rb_insert_b(map_rb_find_gkey(map, key, compare), key, value);
}

} // namespace flux
