// Shared by the tree tests: a host with the module's structures defined, the seed of a
// randomized test (ZOK_SEED re-runs one), the key orders the tests search with, and the
// two variants behind one face for tests that drive both alike.
#pragma once

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "frame/structs.hpp"
#include "host.hpp"
#include "maps/map.hpp"
#include "maps/maph.hpp"
#include "support/testing.hpp"

namespace maptest {

using ::test_seed;

class TreeTest : public ::testing::Test {
protected:
    TreeTest() { flux::define_structures(); }

    // Plain blocks (rb nodes) and heap variables (rbh nodes) now alive.
    size_t plain_blocks() const { return host.memory(zok::kPlainLabel).blocks; }
    size_t heap_vars() const { return host.heap_count(); }

    zok::Host host;
};

// A tree of n entries holds n leaves, n-1 internal nodes and the head.
constexpr size_t nodes_for(size_t entries) {
    return entries ? 2 * entries : 1;
}

inline int string_order(flux::RbWord a, flux::RbWord b) {
    return std::strcmp(reinterpret_cast<const char*>(a), reinterpret_cast<const char*>(b));
}
inline int int_order(flux::RbWord a, flux::RbWord b) {
    auto x = static_cast<int32_t>(a);
    auto y = static_cast<int32_t>(b);
    return (x > y) - (x < y);
}
inline int unsigned_order(uint32_t a, uint32_t b) {
    return (a > b) - (a < b);
}

// The texts of the error messages raised and returned since the last call, each checked
// to be the host's text message.
inline std::vector<std::string> raised_errors(zok::Host& host) {
    std::vector<std::string> texts;
    for (const zok::Message& m : host.messages()) {
        EXPECT_EQ(m.code, ZOK_MSG_TEXT);
        EXPECT_EQ(m.action, ZOK_ACTION_ERROR);
        texts.push_back(m.text);
    }
    host.clear_messages();
    return texts;
}

inline std::string int_text(flux::RbWord key) {
    return std::to_string(static_cast<int32_t>(key));
}

// A tree of integer keys in either variant.  `paint` colours the node that a path of 'l'
// and 'r' reaches from the root; `nodes` counts the variant's live nodes.
struct Rb {
    flux::RbNode* head = flux::map_rb_new_tree();

    Rb(std::initializer_list<int64_t> keys = {}) {
        for (int64_t k : keys)
            insert(k);
    }
    bool insert(int64_t k) { return flux::map_insert_ikey(head, static_cast<int32_t>(k), 0); }
    bool put(int64_t k) { return flux::map_put(head, static_cast<uint32_t>(k), 0, int_order); }
    void erase(int64_t k) {
        bool found;
        flux::RbNode* leaf = flux::map_rb_find_ikey_n(head, static_cast<int32_t>(k), found);
        ASSERT_TRUE(found) << k;
        flux::map_rb_delete_node(leaf);
    }
    std::vector<int64_t> keys() const {
        std::vector<int64_t> out;
        for (flux::RbNode* e = flux::map_first(head); e != head; e = flux::map_next(e))
            out.push_back(static_cast<int32_t>(e->key));
        return out;
    }
    std::string outline() const { return flux::map_rb_outline(head, int_text); }
    std::string check() const { return flux::map_rb_check(head, int_order); }
    void paint(const char* path, bool red) {
        flux::RbNode* n = head->parent;
        for (const char* c = path; *c; ++c)
            n = *c == 'l' ? n->left : n->right;
        n->status = red ? n->status | 1u : n->status & ~1u;
    }
    void free() { flux::map_rb_free_tree(head); }
    static size_t nodes() { return zok::Host::current().memory(zok::kPlainLabel).blocks; }
};

struct Rbh {
    uint32_t head = flux::map_rbh_new_tree();

    Rbh(std::initializer_list<int64_t> keys = {}) {
        for (int64_t k : keys)
            insert(k);
    }
    bool insert(int64_t k) { return flux::maph_insert_key(head, static_cast<uint32_t>(k), 0); }
    bool put(int64_t k) {
        return flux::maph_put(head, static_cast<uint32_t>(k), 0, unsigned_order);
    }
    void erase(int64_t k) {
        bool found;
        uint32_t leaf = flux::map_rbh_find_key_n(head, static_cast<uint32_t>(k), found);
        ASSERT_TRUE(found) << k;
        flux::map_rbh_delete_node(leaf);
    }
    std::vector<int64_t> keys() const {
        std::vector<int64_t> out;
        for (uint32_t e = flux::maph_first(head); e != head; e = flux::maph_next(e))
            out.push_back(flux::maph_node_key(e));
        return out;
    }
    std::string outline() const { return flux::map_rbh_outline(head); }
    std::string check() const { return flux::map_rbh_check(head, unsigned_order); }
    void paint(const char* path, bool red) {
        uint32_t n = flux::map_rbh_node(head)->parent;
        for (const char* c = path; *c; ++c)
            n = *c == 'l' ? flux::map_rbh_node(n)->flink : flux::map_rbh_node(n)->blink;
        flux::map_rbh_node(n)->status[0] = red;
    }
    void free() { flux::map_rbh_free_tree(head); }
    static size_t nodes() { return zok::Host::current().heap_count(); }
};

} // namespace maptest
