// The trees' edge cases, misuse messages, allocation failures and diagnostics: what the
// random differential run reaches seldom or never.
#include <functional>
#include <vector>

#include "support/map_testing.hpp"

namespace {

using flux::RbNode;
using flux::RbWord;
using namespace maptest;

class Rules : public TreeTest {
protected:
    static std::string hex(uint32_t id) {
        char text[16];
        std::snprintf(text, sizeof text, "0x%x", id);
        return text;
    }
};

// Searching an empty tree gives the head; a key above every key gives the head, one equal
// to the greatest gives the last leaf without a descent; an equal key goes before the one
// found.  Nodes go back under the names of the routines that free them.
TEST_F(Rules, SearchAndInsertAtTheEdges) {
    Rb tree;
    RbNode* head = tree.head;
    bool found = true;
    EXPECT_EQ(flux::map_rb_find_ikey_n(head, 5, found), head);
    EXPECT_FALSE(found);
    Rbh rbh;
    EXPECT_EQ(tree.check() + rbh.check(), "") << "a new head names itself and is flagged";
    EXPECT_EQ(flux::map_rbh_find_key_n(rbh.head, 5, found), rbh.head);
    EXPECT_FALSE(found);
    rbh.free();
    for (int32_t k : {1, 2, 3})
        tree.insert(k);
    EXPECT_EQ(flux::map_rb_find_ikey_n(head, 4, found), head);
    EXPECT_FALSE(found);
    EXPECT_EQ(flux::map_rb_find_ikey_n(head, 3, found), head->right);
    EXPECT_TRUE(found);
    RbNode* two = flux::map_rb_find_ikey(head, 2);
    EXPECT_EQ(flux::map_rb_insert_b(two, 2, 0)->left, two);
    EXPECT_EQ(keys(tree), (std::vector<int64_t>{1, 2, 2, 3}));
    EXPECT_EQ(tree.check(), "");
    flux::map_rb_delete_node(two);
    tree.free();
    EXPECT_EQ(host.frees("map_rb_delete_node"), nodes_for(4) - 1) << "all but the head";
    EXPECT_EQ(host.frees("map_rb_free_tree"), 1u);
    EXPECT_EQ(Rb::nodes() + Rbh::nodes(), 0u);
}

// An empty map is its own first and last entry; null maps and entries are harmless,
// whichever routine meets them.
TEST_F(Rules, EmptyAndNullMaps) {
    const uint32_t map = flux::maph_new();
    EXPECT_TRUE(flux::maph_is_empty(map));
    EXPECT_EQ(flux::maph_first(map), map);
    EXPECT_EQ(flux::maph_last(map), map);
    flux::maph_free(map);
    EXPECT_EQ(flux::maph_find(0, 7, unsigned_order) + flux::maph_node_key(0) +
                  flux::maph_node_value(0),
              0u);
    flux::maph_remove_node(0);
    flux::maph_free(0);
    EXPECT_EQ(flux::map_find(nullptr, 7, int_order), nullptr);
    EXPECT_EQ(flux::map_node_key(nullptr) + flux::map_node_value(nullptr), 0u);
    flux::map_remove_node(nullptr);
    flux::map_free(nullptr);
    EXPECT_EQ(Rb::nodes() + Rbh::nodes(), 0u);
}

// Each misuse raises its text and, when the error returns, goes on as documented.
TEST_F(Rules, MisuseIsReportedAndHarmless) {
    auto tree = tree_of<Rb>({1, 2, 3, 4});
    RbNode* head = tree.head;
    RbNode* leaf = head->left;
    RbNode* inner = head->parent;
    host.set_errors_return(true);
    bool found;
    flux::map_rb_find_key_n(leaf, "1", found);
    flux::map_rb_find_ikey_n(leaf, 1, found);
    flux::map_rb_find_gkey_n(inner, 1, int_order, found);
    flux::map_rb_delete_node(inner);
    flux::map_rb_delete_node(head);
    EXPECT_EQ(flux::map_rb_nblack(inner), 1) << "the black root counts";
    EXPECT_EQ(flux::map_rb_plength(head), 0);
    flux::map_rb_free_tree(leaf);
    EXPECT_EQ(raised_errors(host), (std::vector<std::string>{
                                       "map_rb_find_key_n called on non-head",
                                       "map_rb_find_ikey_n called on non-head",
                                       "map_rb_find_gkey_n called on non-head",
                                       "Cannot delete an internal node.",
                                       "Cannot delete an the head of a map_rb_tree.",
                                       "ERROR: map_rb_nblack called on a non-external node",
                                       "ERROR: map_rb_map_rb_plength called on a non-external node",
                                       "ERROR: map_rb_free_tree called on a non-head node",
                                   }));
    EXPECT_EQ(tree.check(), "");
    EXPECT_EQ(keys(tree), (std::vector<int64_t>{1, 2, 3, 4}));

    auto rbh = tree_of<Rbh>({1, 2, 3, 4});
    const uint32_t map = rbh.head;
    uint32_t hleaf = flux::maph_first(map);
    uint32_t hinner = flux::map_rbh_node(map)->parent;
    flux::map_rbh_find_key_n(hleaf, 1, found);
    flux::map_rbh_find_gkey_n(hleaf, 1, unsigned_order, found);
    flux::map_rbh_delete_node(hinner);
    flux::map_rbh_delete_node(map);
    flux::map_rbh_nblack(hinner);
    flux::map_rbh_plength(map);
    flux::map_rbh_free_tree(hleaf);
    EXPECT_EQ(raised_errors(host),
              (std::vector<std::string>{
                  "map_rbh_find_key_n called on non-head " + hex(hleaf),
                  "map_rbh_find_gkey_n called on non-head",
                  "Cannot delete an internal node: " + hex(hinner),
                  "Cannot delete the head of an map_rbh_tree: " + hex(map),
                  "ERROR: map_rbh_nblack called on a non-external node " + hex(hinner),
                  "ERROR: map_rbh_plength called on a non-external node " + hex(map),
                  "ERROR: map_rbh_free_tree called on a non-head node",
              }));
    EXPECT_EQ(rbh.check(), "");
    EXPECT_EQ(keys(rbh), (std::vector<int64_t>{1, 2, 3, 4}));

    // Raised for real, the error ends the call with the same text.
    host.set_errors_return(false);
    expect_error(ZOK_MSG_TEXT, "Cannot delete the head of an map_rbh_tree: " + hex(map),
                 [&] { flux::map_rbh_delete_node(map); });
    tree.free();
    rbh.free();
}

// A tree that cannot be made is null or 0 and leaves nothing behind.  (Insertions and
// puts meet failing allocations in the randomized tree test.)
template <class Tree>
void fail_to_make() {
    zok::Host& host = zok::Host::current();
    for (uint64_t nth = 1;; ++nth) {
        host.fail_allocation(nth);
        Tree tree;
        host.clear_faults();
        if (tree.head) {
            tree.free();
            break;
        }
        ASSERT_EQ(Tree::nodes() + host.live_temps(), 0u);
    }
}

TEST_F(Rules, AllocationFailures) {
    fail_to_make<Rb>();
    fail_to_make<Rbh>();
    auto tree = tree_of<Rb>({1});
    host.fail_allocation(2);
    EXPECT_EQ(tree.insert(2), nullptr);
    host.clear_faults();
    EXPECT_EQ(host.frees("map_rb_insert_b"), 1u) << "the leaf made for nothing";
    tree.free();
    EXPECT_EQ(Rb::nodes() + Rbh::nodes(), 0u);
}

// The checker is only worth its runs if it sees damage: each fault below is made, found
// and undone on a sound tree.
TEST_F(Rules, CheckerFindsEveryKindOfDamage) {
    auto tree = tree_of<Rb>({5, 1, 9, 3, 7, 2, 8, 4, 6});
    RbNode* head = tree.head;
    ASSERT_EQ(tree.check(), "");
    RbNode* root = head->parent;
    RbNode* leaf = flux::map_rb_find_ikey(head, 4);
    auto damaged = [&](const char* what, auto&& field, auto bad) {
        auto good = field;
        field = bad;
        EXPECT_NE(tree.check(), "") << what << " went unnoticed";
        field = good;
    };
    damaged("a red leaf", leaf->status, leaf->status | 1u);
    damaged("a lost root flag", root->status, root->status & ~8u);
    damaged("a flipped side flag", leaf->status, leaf->status ^ 4u);
    damaged("a stray flag", leaf->status, leaf->status | 64u);
    damaged("a wrong parent", leaf->parent, head);
    damaged("a wrong routing word", root->key, reinterpret_cast<RbWord>(head->right));
    damaged("a skipped ring link", leaf->left, leaf->left->left);
    damaged("a broken back link", leaf->right, head);
    damaged("leaves out of order", leaf->key, RbWord{100});
    damaged("a shared child", root->left, root->right);
    damaged("unequal black heights", root->left->status, root->left->status ^ 1u);
    damaged("a head without its flag", head->status, head->status & ~16u);
    damaged("a head with a key", head->key, RbWord{1});
    damaged("a head flag in the tree", leaf->status, leaf->status | 16u);
    damaged("a second root", leaf->status, leaf->status | 8u);
    damaged("a child link to the head", root->left, head);
    damaged("a child link to no node", root->right, nullptr);
    EXPECT_EQ(flux::map_rb_check(head, nullptr), "");
    tree.free();

    auto rbh = tree_of<Rbh>({5, 1, 9, 3});
    flux::RbhNodeData* node = flux::map_rbh_node(flux::maph_first(rbh.head));
    node->status[0] = 2;
    EXPECT_NE(rbh.check(), "");
    node->status[0] = 0;
    EXPECT_EQ(rbh.check(), "");
    rbh.free();
}

} // namespace
