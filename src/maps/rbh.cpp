// map_rbh: the tree algorithm over nodes that are heap pointer variables holding
// ZOK_MAP_RBH_NODE instances, its two key kinds, and its text dump.  A node's data is
// looked up by identifier once per operation that reaches it through a link, and kept no
// longer than the operation.
#include "maps/rbh.hpp"

#include <cstdio>

#include "maps/rbh_access.hpp"
#include "maps/tree_audit.hpp"

namespace flux {
namespace {

constexpr tree::Complaint find_key_non_head{"map_rbh_find_key_n called on non-head 0x%x", true};

int unsigned_order(uint32_t key, uint32_t leaf_key) {
    return (key > leaf_key) - (key < leaf_key);
}

using RbhAudit = tree::Audit<RbhAccess>;

} // namespace

bool RbhAccess::alive(Ref n) {
    const zok_heap_record* record = host_heap_var(id(n));
    return record && record->var.type == ZOK_T_STRUCT &&
           record->var.value.st.def == struct_map_rbh_node() && record->var.value.st.data;
}

// A new heap pointer variable holding a copy of a zeroed instance: one host call, and no
// temporary to make and release.
HeapNode RbhAccess::make() {
    static RbhNodeData zeroed{};
    zok_var prototype{};
    prototype.type = ZOK_T_STRUCT;
    prototype.flags = ZOK_VF_STRUCT;
    prototype.value.st = {&zeroed, struct_map_rbh_node()};
    const zok_heap_record* record =
        host_heap_var_new(ZOK_HEAP_POINTER, &prototype, ZOK_HEAP_NEW_COPY, ZOK_ACTION_RETURN);
    return record ? Ref{record->id, static_cast<RbhNodeData*>(record->var.value.st.data)} : Ref{};
}

void RbhAccess::free(Ref n, const char*) {
    host_heap_free(id(n), 0, 0);
}

void RbhAccess::complain(tree::Complaint c, Ref n) {
    if (c.names_node)
        host_message(ZOK_MSG_TEXT, ZOK_ACTION_ERROR, c.text, id(n));
    else
        host_message(ZOK_MSG_TEXT, ZOK_ACTION_ERROR, c.text);
}

// The texts are the system's own, their wording included.
const tree::Complaints RbhAccess::complaints{
    .delete_internal = {"Cannot delete an internal node: 0x%x", true},
    .delete_head = {"Cannot delete the head of an map_rbh_tree: 0x%x", true},
    .sibling_black_internal = {"DELETION PROB -- sib is black, internal"},
    .sibling_not_internal = {"DELETION ERROR: sibling not internal"},
    .recolour_fault = {"DELETION ERROR: 2.3c not quite right"},
    .nblack_non_leaf = {"ERROR: map_rbh_nblack called on a non-external node 0x%x", true},
    .plength_non_leaf = {"ERROR: map_rbh_plength called on a non-external node 0x%x", true},
    .free_non_head = {"ERROR: map_rbh_free_tree called on a non-head node"},
    .find_gkey_non_head = {"map_rbh_find_gkey_n called on non-head"},
};

uint32_t map_rbh_new_tree() {
    return RbhAccess::id(RbhTree::new_tree());
}

uint32_t map_rbh_find_key_n(uint32_t head, uint32_t key, bool& found) {
    auto compare = [key](uint32_t leaf_key) { return unsigned_order(key, leaf_key); };
    return RbhAccess::id(RbhTree::find(HeapNode{head}, compare, find_key_non_head, found));
}

uint32_t map_rbh_find_gkey_n(uint32_t head, uint32_t key, RbhCompare compare, bool& found) {
    auto order = [key, compare](uint32_t leaf_key) { return compare(key, leaf_key); };
    return RbhAccess::id(
        RbhTree::find(HeapNode{head}, order, RbhAccess::complaints.find_gkey_non_head, found));
}

uint32_t map_rbh_find_key(uint32_t head, uint32_t key) {
    bool found;
    return map_rbh_find_key_n(head, key, found);
}

uint32_t map_rbh_find_gkey(uint32_t head, uint32_t key, RbhCompare compare) {
    bool found;
    return map_rbh_find_gkey_n(head, key, compare, found);
}

uint32_t map_rbh_insert_b(uint32_t pos, uint32_t key, uint32_t value) {
    return RbhAccess::id(RbhTree::insert_before(HeapNode{pos}, key, value, "map_rbh_insert_b"));
}

void map_rbh_delete_node(uint32_t leaf) {
    RbhTree::erase(HeapNode{leaf});
}

void map_rbh_free_tree(uint32_t head) {
    RbhTree::free_tree(HeapNode{head});
}

int map_rbh_nblack(uint32_t leaf) {
    return RbhTree::path_length(HeapNode{leaf}, true);
}

int map_rbh_plength(uint32_t leaf) {
    return RbhTree::path_length(HeapNode{leaf}, false);
}

// ---- Diagnostics.

std::string map_rbh_number_key_text(uint32_t key) {
    return std::to_string(key);
}

int map_rbh_key_order(uint32_t key, uint32_t leaf_key) {
    return unsigned_order(key, leaf_key);
}

std::string map_rbh_check(uint32_t head, RbhCompare order) {
    RbhAudit::Order ordered;
    if (order)
        ordered = order;
    return RbhAudit::check(HeapNode{head}, ordered);
}

std::string map_rbh_outline(uint32_t head, const RbhKeyText& key_text) {
    return RbhAudit::outline(HeapNode{head}, key_text);
}

std::string map_rbh_dot(uint32_t head, const RbhKeyText& key_text) {
    return RbhAudit::dot(HeapNode{head}, key_text);
}

std::string map_rbh_dump(uint32_t head) {
    char line[160];
    const RbhNodeData* h = map_rbh_node(head);
    if (!h || h->parent == head) {
        std::snprintf(line, sizeof line, "tree 0x%x is empty\n", head);
        return line;
    }
    std::snprintf(line, sizeof line, "Head: 0x%x.  Root = 0x%x, < = 0x%x, > = 0x%x\n", head,
                  h->parent, h->flink, h->blink);
    std::string out = line;
    auto listing = RbhAudit::list(HeapNode{head});
    auto routed_key = [&](uint32_t leaf) {
        return listing.contains(HeapNode{leaf}) ? static_cast<int>(map_rbh_node(leaf)->key) : -1;
    };
    for (HeapNode n : listing.nodes) {
        const RbhNodeData* v = map_rbh_node(RbhAccess::id(n));
        std::string flags = RbhAudit::flag_letters(n);
        if (v->status[tree::internal])
            std::snprintf(line, sizeof line,
                          "Int node 0x%x: %c,%c: l=0x%x, r=0x%x, p=0x%x, lr=(%d,%d)\n",
                          RbhAccess::id(n), flags[0], flags[2], v->flink, v->blink, v->parent,
                          routed_key(v->key), routed_key(v->val));
        else
            std::snprintf(line, sizeof line, "Ext node 0x%x: %c,%c: p=0x%x, <=0x%x, >=0x%x k=%d\n",
                          RbhAccess::id(n), flags[0], flags[2], v->parent, v->blink, v->flink,
                          static_cast<int>(v->key));
        out += line;
    }
    for (HeapNode n : listing.strays) {
        std::snprintf(line, sizeof line, "Stray link to 0x%x\n", RbhAccess::id(n));
        out += line;
    }
    return out;
}

} // namespace flux
