// map_rb: the tree algorithm over nodes in module memory, its three key kinds, and its
// text dump.  Nodes come from the host's plain allocator and go back to it under the
// name of the routine that frees them.
#include "maps/rb.hpp"

#include <cstdio>
#include <cstring>

#include "maps/rb_access.hpp"
#include "maps/tree_audit.hpp"

namespace flux {
namespace {

constexpr char empty_key[] = "";

constexpr tree::Complaint find_key_non_head{"map_rb_find_key_n called on non-head"};
constexpr tree::Complaint find_ikey_non_head{"map_rb_find_ikey_n called on non-head"};

// The key word of the ikey kind holds the integer in its low half.
int32_t ikey_of(RbWord word) {
    return static_cast<int32_t>(static_cast<uint32_t>(word));
}

// The key kind's order.  Every key word is a text's address, and so is every routing
// word: the search may fetch ahead through any of them.
struct TextOrder {
    const char* key;
    int operator()(RbWord leaf_key) const {
        return std::strcmp(key, reinterpret_cast<const char*>(leaf_key));
    }
    static void fetch_ahead(RbWord word) {
        __builtin_prefetch(reinterpret_cast<const void*>(word));
    }
};

// The ikey kind's order: a difference in 64 bits orders two 32-bit keys without a
// three-way step.
struct IntegerOrder {
    static constexpr bool select_child_by_data = true;
    int32_t key;
    int64_t operator()(RbWord leaf_key) const {
        return static_cast<int64_t>(key) - static_cast<int64_t>(ikey_of(leaf_key));
    }
};

using RbAudit = tree::Audit<RbAccess>;

} // namespace

RbAccess::Word RbAccess::head_key() {
    return reinterpret_cast<Word>(empty_key);
}

RbNode* RbAccess::make() {
    return static_cast<RbNode*>(host_mem_alloc_plain(sizeof(RbNode)));
}

void RbAccess::free(Ref n, const char* label) {
    host_mem_free_labelled(n, label);
}

void RbAccess::complain(tree::Complaint c, Ref) {
    host_message(ZOK_MSG_TEXT, ZOK_ACTION_ERROR, c.text);
}

// The texts are the system's own, the odd wording of the head case included.
const tree::Complaints RbAccess::complaints{
    .delete_internal = {"Cannot delete an internal node."},
    .delete_head = {"Cannot delete an the head of a map_rb_tree."},
    .sibling_black_internal = {"DELETION PROB -- sib is black, internal"},
    .sibling_not_internal = {"DELETION ERROR: sibling not internal"},
    .recolour_fault = {"DELETION ERROR: 2.3c not quite right"},
    .nblack_non_leaf = {"ERROR: map_rb_nblack called on a non-external node"},
    .plength_non_leaf = {"ERROR: map_rb_map_rb_plength called on a non-external node"},
    .free_non_head = {"ERROR: map_rb_free_tree called on a non-head node"},
    .find_gkey_non_head = {"map_rb_find_gkey_n called on non-head"},
};

RbNode* map_rb_new_tree() {
    return RbTree::new_tree();
}

RbNode* map_rb_find_key_n(RbNode* head, const char* key, bool& found) {
    return RbTree::find(head, TextOrder{key}, find_key_non_head, found);
}

RbNode* map_rb_find_ikey_n(RbNode* head, int32_t key, bool& found) {
    return RbTree::find(head, IntegerOrder{key}, find_ikey_non_head, found);
}

RbNode* map_rb_find_gkey_n(RbNode* head, RbWord key, RbCompare compare, bool& found) {
    auto order = [key, compare](RbWord leaf_key) { return compare(key, leaf_key); };
    return RbTree::find(head, order, RbAccess::complaints.find_gkey_non_head, found);
}

RbNode* map_rb_find_key(RbNode* head, const char* key) {
    bool found;
    return map_rb_find_key_n(head, key, found);
}

RbNode* map_rb_find_ikey(RbNode* head, int32_t key) {
    bool found;
    return map_rb_find_ikey_n(head, key, found);
}

RbNode* map_rb_find_gkey(RbNode* head, RbWord key, RbCompare compare) {
    bool found;
    return map_rb_find_gkey_n(head, key, compare, found);
}

RbNode* map_rb_insert_b(RbNode* pos, RbWord key, RbWord value) {
    return RbTree::insert_before(pos, key, value, "map_rb_insert_b");
}

void map_rb_delete_node(RbNode* leaf) {
    RbTree::erase(leaf);
}

void map_rb_free_tree(RbNode* head) {
    RbTree::free_tree(head);
}

int map_rb_nblack(RbNode* leaf) {
    return RbTree::path_length(leaf, true);
}

int map_rb_plength(RbNode* leaf) {
    return RbTree::path_length(leaf, false);
}

// ---- Diagnostics.

std::string map_rb_string_key_text(RbWord key) {
    return reinterpret_cast<const char*>(key);
}

std::string map_rb_check(const RbNode* head, RbCompare order) {
    RbAudit::Order ordered;
    if (order)
        ordered = order;
    return RbAudit::check(const_cast<RbNode*>(head), ordered);
}

std::string map_rb_outline(const RbNode* head, const RbKeyText& key_text) {
    return RbAudit::outline(const_cast<RbNode*>(head), key_text);
}

std::string map_rb_dot(const RbNode* head, const RbKeyText& key_text) {
    return RbAudit::dot(const_cast<RbNode*>(head), key_text);
}

std::string map_rb_dump(const RbNode* head, const RbKeyText& key_text) {
    using tree::hex;
    RbNode* h = const_cast<RbNode*>(head);
    auto name = [](const RbNode* n) { return hex(RbAccess::number(const_cast<RbNode*>(n))); };
    if (h->parent == h)
        return "tree " + name(h) + " is empty\n";
    std::string out = "Head: " + name(h) + ".  Root = " + name(h->parent) + "\n";
    auto listing = RbAudit::list(h);
    auto routed_key = [&](RbNode* leaf) {
        return listing.contains(leaf) ? key_text(leaf->key) : "?";
    };
    for (RbNode* n : listing.nodes) {
        std::string flags = RbAudit::flag_letters(n);
        if (RbAccess::has(n, tree::internal))
            out += "Int node " + name(n) + ": " + flags + ": l=" + name(n->left) +
                   ", r=" + name(n->right) + ", p=" + name(n->parent) + ", lr=(" +
                   routed_key(RbAccess::key_leaf(n)) + "," + routed_key(RbAccess::value_leaf(n)) +
                   ")\n";
        else
            out += "Ext node " + name(n) + ": " + flags + ": p=" + name(n->parent) +
                   ", k=" + key_text(n->key) + "\n";
    }
    for (RbNode* n : listing.strays)
        out += "Stray link to " + name(n) + "\n";
    return out;
}

} // namespace flux
