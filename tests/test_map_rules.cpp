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
    // An rb tree of the integer keys given, inserted in that order.
    RbNode* rb_tree(const std::vector<int32_t>& keys) {
        RbNode* head = flux::map_rb_new_tree();
        for (int32_t k : keys)
            flux::map_insert_ikey(head, k, 0);
        return head;
    }
    uint32_t rbh_tree(const std::vector<uint32_t>& keys) {
        uint32_t head = flux::map_rbh_new_tree();
        for (uint32_t k : keys)
            flux::maph_insert_key(head, k, 0);
        return head;
    }
    std::vector<int32_t> rb_keys(RbNode* head) {
        std::vector<int32_t> keys;
        for (RbNode* e = flux::map_first(head); e != head; e = flux::map_next(e))
            keys.push_back(static_cast<int32_t>(e->key));
        return keys;
    }
    std::vector<uint32_t> rbh_keys(uint32_t head) {
        std::vector<uint32_t> keys;
        for (uint32_t e = flux::maph_first(head); e != head; e = flux::maph_next(e))
            keys.push_back(flux::maph_node_key(e));
        return keys;
    }
    // The messages raised since the last call, as code and text.
    std::vector<std::string> raised() {
        std::vector<std::string> texts;
        for (const zok::Message& m : host.messages()) {
            EXPECT_EQ(m.code, ZOK_MSG_TEXT);
            EXPECT_EQ(m.action, ZOK_ACTION_ERROR);
            texts.push_back(m.text);
        }
        host.clear_messages();
        return texts;
    }
    static std::string hex(uint32_t id) {
        char text[16];
        std::snprintf(text, sizeof text, "0x%x", id);
        return text;
    }
};

TEST_F(Rules, EmptyTreeAndItsOnlyLeaf) {
    RbNode* rb = flux::map_rb_new_tree();
    uint32_t rbh = flux::map_rbh_new_tree();
    auto names_itself = [&] {
        const flux::RbhNodeData* head = flux::map_rbh_node(rbh);
        return rb->left == rb && rb->right == rb && rb->parent == rb && head->flink == rbh &&
               head->blink == rbh && head->parent == rbh && head->status[4] == 1;
    };
    EXPECT_TRUE(names_itself());
    bool found = true, hfound = true;
    EXPECT_EQ(flux::map_rb_find_ikey_n(rb, 5, found), rb);
    EXPECT_EQ(flux::map_rbh_find_key_n(rbh, 5, hfound), rbh);
    EXPECT_FALSE(found || hfound);
    // Inserting at the head makes a single black root leaf.
    RbNode* leaf = flux::map_rb_insert_b(rb, 5, 50);
    uint32_t hleaf = flux::map_rbh_insert_b(rbh, 5, 50);
    EXPECT_EQ(rb->parent, leaf);
    EXPECT_EQ(flux::map_rbh_node(rbh)->parent, hleaf);
    EXPECT_EQ(flux::map_rb_nblack(leaf) + flux::map_rbh_nblack(hleaf), 2);
    EXPECT_EQ(flux::map_rb_check(rb, int_order) + flux::map_rbh_check(rbh, unsigned_order), "");
    flux::map_rb_delete_node(leaf);
    flux::map_rbh_delete_node(hleaf);
    EXPECT_TRUE(names_itself());
    EXPECT_EQ(host.frees("map_rb_delete_node"), 1u);
    EXPECT_FALSE(host.heap_alive(hleaf));
    flux::map_rb_free_tree(rb);
    flux::map_rbh_free_tree(rbh);
    EXPECT_EQ(host.frees("map_rb_free_tree"), 1u);
    EXPECT_EQ(plain_blocks() + heap_vars(), 0u);
}

TEST_F(Rules, SearchAndInsertAtTheEdges) {
    RbNode* head = rb_tree({1, 2, 3});
    bool found = true;
    EXPECT_EQ(flux::map_rb_find_ikey_n(head, 4, found), head);
    EXPECT_FALSE(found);
    EXPECT_EQ(flux::map_rb_find_ikey_n(head, 3, found), head->right);
    EXPECT_TRUE(found);
    // An equal key goes before the one found.
    RbNode* two = flux::map_rb_find_ikey(head, 2);
    EXPECT_EQ(flux::map_rb_insert_b(two, 2, 0)->left, two);
    EXPECT_EQ(rb_keys(head), (std::vector<int32_t>{1, 2, 2, 3}));
    EXPECT_EQ(flux::map_rb_check(head, int_order), "");
    flux::map_rb_free_tree(head);
}

TEST_F(Rules, HeapKeysAreUnsigned) {
    uint32_t head = rbh_tree({4294967295u, 0, 2147483648u, 1, 2147483647u});
    EXPECT_EQ(rbh_keys(head), (std::vector<uint32_t>{0, 1, 2147483647u, 2147483648u, 4294967295u}));
    bool found;
    EXPECT_EQ(flux::map_rbh_find_key_n(head, 4294967295u, found), flux::maph_last(head));
    EXPECT_TRUE(found);
    EXPECT_EQ(flux::map_rbh_check(head, unsigned_order), "");
    flux::maph_free(head);
}

TEST_F(Rules, PutReplacesAndNullsAreHarmless) {
    uint32_t map = flux::maph_new();
    EXPECT_TRUE(flux::maph_is_empty(map));
    EXPECT_EQ(flux::maph_count(map), 0u);
    EXPECT_EQ(flux::maph_first(map), map);
    EXPECT_EQ(flux::maph_last(map), map);
    uint32_t old_entry = flux::maph_put(map, 7, 70, unsigned_order);
    flux::maph_put(map, 3, 30, unsigned_order);
    uint32_t new_entry = flux::maph_put(map, 7, 71, unsigned_order);
    EXPECT_EQ(flux::maph_count(map), 2u);
    EXPECT_FALSE(host.heap_alive(old_entry));
    EXPECT_EQ(flux::maph_find(map, 7, unsigned_order), new_entry);
    EXPECT_EQ(flux::maph_node_value(new_entry), 71u);
    EXPECT_EQ(flux::maph_find(0, 7, unsigned_order) + flux::maph_node_key(0) +
                  flux::maph_node_value(0),
              0u);
    flux::maph_remove_node(0);
    flux::maph_free(0);
    flux::maph_free(map);
    EXPECT_EQ(flux::map_find(nullptr, 7, int_order), nullptr);
    EXPECT_EQ(flux::map_node_key(nullptr) + flux::map_node_value(nullptr), 0u);
    flux::map_remove_node(nullptr);
    flux::map_free(nullptr);
}

// Each misuse raises its text and, when the error returns, goes on as documented.
TEST_F(Rules, MisuseIsReportedAndHarmless) {
    RbNode* head = rb_tree({1, 2, 3, 4});
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
    EXPECT_EQ(raised(), (std::vector<std::string>{
                            "map_rb_find_key_n called on non-head",
                            "map_rb_find_ikey_n called on non-head",
                            "map_rb_find_gkey_n called on non-head",
                            "Cannot delete an internal node.",
                            "Cannot delete an the head of a map_rb_tree.",
                            "ERROR: map_rb_nblack called on a non-external node",
                            "ERROR: map_rb_map_rb_plength called on a non-external node",
                            "ERROR: map_rb_free_tree called on a non-head node",
                        }));
    EXPECT_EQ(flux::map_rb_check(head, int_order), "");
    EXPECT_EQ(rb_keys(head), (std::vector<int32_t>{1, 2, 3, 4}));

    uint32_t map = rbh_tree({1, 2, 3, 4});
    uint32_t hleaf = flux::maph_first(map);
    uint32_t hinner = flux::map_rbh_node(map)->parent;
    flux::map_rbh_find_key_n(hleaf, 1, found);
    flux::map_rbh_find_gkey_n(hleaf, 1, unsigned_order, found);
    flux::map_rbh_delete_node(hinner);
    flux::map_rbh_delete_node(map);
    flux::map_rbh_nblack(hinner);
    flux::map_rbh_plength(map);
    flux::map_rbh_free_tree(hleaf);
    EXPECT_EQ(raised(), (std::vector<std::string>{
                            "map_rbh_find_key_n called on non-head " + hex(hleaf),
                            "map_rbh_find_gkey_n called on non-head",
                            "Cannot delete an internal node: " + hex(hinner),
                            "Cannot delete the head of an map_rbh_tree: " + hex(map),
                            "ERROR: map_rbh_nblack called on a non-external node " + hex(hinner),
                            "ERROR: map_rbh_plength called on a non-external node " + hex(map),
                            "ERROR: map_rbh_free_tree called on a non-head node",
                        }));
    EXPECT_EQ(flux::map_rbh_check(map, unsigned_order), "");
    EXPECT_EQ(rbh_keys(map), (std::vector<uint32_t>{1, 2, 3, 4}));

    // Raised for real, the error ends the call with the same text.
    host.set_errors_return(false);
    try {
        flux::map_rbh_delete_node(map);
        ADD_FAILURE() << "deleting the head did not raise";
    } catch (const zok::Error& e) {
        EXPECT_EQ(e.code(), ZOK_MSG_TEXT);
        EXPECT_EQ(e.text(), "Cannot delete the head of an map_rbh_tree: " + hex(map));
    }
    flux::map_rb_free_tree(head);
    flux::maph_free(map);
}

// Every allocation of an insertion fails in turn: null or 0, no node lost or leaked, the
// tree unchanged and sound.
TEST_F(Rules, AllocationFailureInInsertionChangesNothing) {
    RbNode* head = rb_tree({10, 20, 30, 40});
    size_t blocks = plain_blocks();
    size_t insert_frees = host.frees("map_rb_insert_b");
    for (int32_t key : {25, 50}) {
        for (uint64_t nth = 1;; ++nth) {
            host.fail_allocation(nth);
            RbNode* leaf = flux::map_insert_ikey(head, key, 0);
            host.clear_faults();
            if (leaf) {
                ASSERT_GT(nth, 2u) << "an insertion makes two nodes";
                flux::map_rb_delete_node(leaf);
                break;
            }
            ASSERT_EQ(flux::map_rb_check(head, int_order), "") << flux::map_rb_dump(head, int_text);
            ASSERT_EQ(rb_keys(head), (std::vector<int32_t>{10, 20, 30, 40}));
            ASSERT_EQ(plain_blocks(), blocks);
        }
    }
    EXPECT_EQ(host.frees("map_rb_insert_b"), insert_frees + 2) << "one freed leaf per key";
    flux::map_rb_free_tree(head);

    uint32_t map = rbh_tree({10, 20, 30, 40});
    size_t vars = heap_vars();
    size_t temps = host.live_temps();
    for (uint32_t key : {25u, 50u}) {
        for (uint64_t nth = 1;; ++nth) {
            // Making a heap variable may fail with a null result or with the host's error.
            host.fail_allocation(nth);
            uint32_t leaf = 0;
            try {
                leaf = flux::maph_insert_key(map, key, 0);
            } catch (const zok::Error& e) {
                EXPECT_EQ(e.code(), ZOK_ERR_NO_MEMORY);
            }
            host.clear_faults();
            if (leaf) {
                flux::maph_remove_node(leaf);
                break;
            }
            ASSERT_LT(nth, 20u);
            ASSERT_EQ(flux::map_rbh_check(map, unsigned_order), "") << flux::map_rbh_dump(map);
            ASSERT_EQ(rbh_keys(map), (std::vector<uint32_t>{10, 20, 30, 40}));
            ASSERT_EQ(heap_vars(), vars);
            ASSERT_EQ(host.live_temps(), temps);
        }
    }
    flux::maph_free(map);
    EXPECT_EQ(heap_vars(), 0u);
}

// A tree that cannot be made is null or 0 and leaves nothing behind.  A put whose new
// entry cannot be made has already deleted the entry it replaces: the result is null or 0,
// the key is gone, and the tree is sound and holds nothing more.
TEST_F(Rules, AllocationFailureInNewTreeAndPut) {
    for (uint64_t nth = 1;; ++nth) {
        host.fail_allocation(nth);
        const uint32_t head = flux::map_rbh_new_tree();
        host.clear_faults();
        if (head != 0) {
            ASSERT_GT(nth, 1u);
            flux::map_rbh_free_tree(head);
            break;
        }
        ASSERT_EQ(heap_vars() + host.live_temps(), 0u);
    }
    host.fail_allocation(1);
    EXPECT_EQ(flux::map_rb_new_tree(), nullptr);
    host.clear_faults();

    for (uint64_t nth = 1;; ++nth) {
        RbNode* head = rb_tree({10, 20, 30});
        host.fail_allocation(nth);
        RbNode* entry = flux::map_put(head, 20, 99, int_order);
        host.clear_faults();
        if (entry == nullptr) {
            EXPECT_EQ(rb_keys(head), (std::vector<int32_t>{10, 30}));
            EXPECT_EQ(flux::map_rb_check(head, int_order), "");
            EXPECT_EQ(plain_blocks(), nodes_for(2));
        }
        flux::map_rb_free_tree(head);
        if (entry != nullptr) {
            ASSERT_GT(nth, 2u) << "a put makes two nodes";
            break;
        }
    }
    for (uint64_t nth = 1;; ++nth) {
        uint32_t map = rbh_tree({10, 20, 30});
        host.fail_allocation(nth);
        uint32_t entry = flux::maph_put(map, 20, 99, unsigned_order);
        host.clear_faults();
        if (entry == 0) {
            EXPECT_EQ(rbh_keys(map), (std::vector<uint32_t>{10, 30}));
            EXPECT_EQ(flux::map_rbh_check(map, unsigned_order), "");
            EXPECT_EQ(heap_vars(), nodes_for(2));
            EXPECT_EQ(host.live_temps(), 0u);
        }
        flux::maph_free(map);
        if (entry != 0) {
            ASSERT_GT(nth, 2u) << "a put makes two nodes";
            break;
        }
    }
    EXPECT_EQ(plain_blocks() + heap_vars(), 0u);
}

// The checker is only worth its runs if it sees damage: each fault below is made, found
// and undone on a sound tree.
TEST_F(Rules, CheckerFindsEveryKindOfDamage) {
    RbNode* head = rb_tree({5, 1, 9, 3, 7, 2, 8, 4, 6});
    ASSERT_EQ(flux::map_rb_check(head, int_order), "");
    RbNode* root = head->parent;
    RbNode* leaf = flux::map_rb_find_ikey(head, 4);
    auto damaged = [&](const char* what, auto&& field, auto bad) {
        auto good = field;
        field = bad;
        EXPECT_NE(flux::map_rb_check(head, int_order), "") << what << " went unnoticed";
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
    EXPECT_EQ(flux::map_rb_check(head, nullptr), "");
    flux::map_rb_free_tree(head);

    uint32_t map = rbh_tree({5, 1, 9, 3});
    flux::RbhNodeData* node = flux::map_rbh_node(flux::maph_first(map));
    node->status[0] = 2;
    EXPECT_NE(flux::map_rbh_check(map, unsigned_order), "");
    node->status[0] = 0;
    EXPECT_EQ(flux::map_rbh_check(map, unsigned_order), "");
    flux::maph_free(map);
}

} // namespace
