// The trees.  Both variants against a model over thousands of random operations, with
// the driver the map fuzz target runs too; the exact shapes they grow through every
// fix-up case; and what the random run reaches seldom or never: the states only broken
// colours reach, misuse, null maps, the names nodes are freed under, the checker's eye for
// damage, and the dumps.  (A tree that cannot be made meets the allocation sweep of the
// refusal suite.)
#include <array>
#include <cstdio>
#include <functional>
#include <map>
#include <random>
#include <regex>
#include <set>
#include <sstream>
#include <vector>

#include "support/testing.hpp"
#include "support/tree_driver.hpp"

namespace {

using namespace flux;
using namespace maptest;

class Trees : public ::testing::Test {
protected:
    Trees() { define_structures(); }
    zok::Host host;
};

// The texts of the error messages raised and returned since the last call, each checked
// to be the host's text message.
using Texts = std::vector<std::string>;
Texts raised_errors(zok::Host& host) {
    Texts texts;
    for (const zok::Message& m : host.messages()) {
        EXPECT_EQ(m.code, ZOK_MSG_TEXT);
        EXPECT_EQ(m.action, ZOK_ACTION_ERROR);
        texts.push_back(m.text);
    }
    host.clear_messages();
    return texts;
}

std::string hex(uint64_t id) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(id));
    return text;
}

// Phases of growth, churn and draining over key ranges of several sizes.
template <class... Drivers>
void run(uint32_t seed, Drivers&&... drivers) {
    std::mt19937 rng(seed);
    uint32_t keys = 0, puts = 0;
    for (int step = 0; step < 10000; ++step) {
        if (step % 1000 == 0) {
            keys = std::array{8u, 100u, 3000u}[rng() % 3];
            puts = std::array{20u, 45u, 70u}[rng() % 3];
        }
        const uint32_t roll = rng() % 100;
        // Puts, then failing puts and the three insertions, finds, removals and walks.
        const TreeOp op = roll < puts        ? TreeOp::put
                          : roll < puts + 8  ? TreeOp(1 + roll % 4)
                          : roll < puts + 25 ? TreeOp::find
                          : roll < 99        ? TreeOp::remove
                                             : TreeOp::walk;
        const uint32_t key = rng() % keys;
        const uint32_t extra = rng();
        ASSERT_EQ((drivers.step(op, key, extra) + ...), "") << "step " << step;
        // Comparing whole outlines is slow; a shape once apart stays apart.
        if (sizeof...(drivers) > 1 && step % 500 == 0) {
            ASSERT_EQ(std::set{drivers.outline()...}.size(), 1u) << "the variants differ in shape";
        }
    }
    EXPECT_EQ((drivers.finish() + ...), "");
}

TEST_F(Trees, EveryKeyKindMatchesTheModel) {
    const uint32_t seed = test_seed();
    std::vector<std::string> texts(3000);
    for (size_t i = 0; i < texts.size(); ++i)
        texts[i] = std::to_string(i * 7);
    auto text_key = [&](uint32_t i) { return reinterpret_cast<RbWord>(texts[i].c_str()); };
    auto scattered = [](uint32_t i) { return i * 2654435761u; };
    auto plain = [](uint32_t i) { return i; };
    run(seed, TreeDriver<Rb>({Rb::key}, text_key));
    run(seed + 1, TreeDriver<Rb>({Rb::ikey}, scattered));
    run(seed + 2, TreeDriver<Rbh>({Rbh::key}, scattered));
    run(seed + 3, TreeDriver<Rb>({Rb::gkey}, plain), TreeDriver<Rbh>({Rbh::gkey}, plain));
}

// An outline on one line: a leaf is its key, an internal node its colour and its two
// children, as in "B(10 R(20 30))"; the empty tree is "".
std::string shape(const std::string& outline) {
    std::istringstream in(outline);
    auto node = [&](auto& self) -> std::string {
        std::string colour, kind, key;
        in >> colour >> kind;
        if (colour == "empty")
            return "";
        if (kind == "I") {
            const std::string left = self(self);
            return colour + "(" + left + " " + self(self) + ")";
        }
        in >> key;
        return colour == "B" && kind == "L" ? key : "<" + colour + " " + kind + " " + key + ">";
    };
    return node(node);
}

// Keys to insert, or minus keys to delete, one after the other, where 0 starts a new tree;
// the shape after the last and the error it reports.  Before its keys a step may paint
// the nodes that paths of 'l' and 'r' from the root reach red (true) or black.  Deletion
// cases are named by x, the deleted leaf's sibling once it has taken their parent's
// place, p its new parent and w x's sibling; "left" and "right" say on which side of p x
// hangs.  The shape is pinned after each step that meets a case.
struct Step {
    std::vector<int32_t> keys;
    const char* shape;
    const char* error = nullptr;
    std::vector<std::pair<const char*, bool>> paint = {};
};

const Step steps[] = {
    // Appending keys in ascending order.
    {{10}, "10"},
    {{20}, "B(10 20)"},                                               // a red root turns black
    {{30}, "B(10 R(20 30))"},                                         // under a black parent
    {{40}, "B(R(10 20) R(30 40))"},                                   // right-right: one rotation
    {{50}, "B(B(10 20) B(30 R(40 50)))"},                             // red uncle, up to the root
    {{60, 70}, "B(B(10 20) R(B(30 40) B(50 R(60 70))))"},             // red uncle, black above
    {{80, 90}, "B(R(B(10 20) B(30 40)) R(B(50 60) B(70 R(80 90))))"}, // red uncle, rotation
    // Twice up.
    {{100, 110}, "B(B(B(10 20) B(30 40)) B(B(50 60) R(B(70 80) B(90 R(100 110)))))"},
    // A red uncle on the right.
    {{0, 10, 20, 30, 40, 50, 25, 27}, "B(B(10 20) R(B(25 R(27 30)) B(40 50)))"},
    {{26}, "B(B(10 20) R(B(R(25 26) R(27 30)) B(40 50)))"},             // right-left: two rotations
    {{5, 3}, "B(B(R(3 5) R(10 20)) R(B(R(25 26) R(27 30)) B(40 50)))"}, // left-left
    {{35, 37}, "B(B(R(3 5) R(10 20)) R(B(R(25 26) R(27 30)) B(R(35 37) R(40 50))))"},
    // Left-right, then a red parent goes: nothing to mend.
    {{-3}, "B(B(5 R(10 20)) R(B(R(25 26) R(27 30)) B(R(35 37) R(40 50))))"},
    {{-5}, "B(B(10 20) R(B(R(25 26) R(27 30)) B(R(35 37) R(40 50))))"}, // red x turns black
    {{-10}, "B(R(B(20 R(25 26)) B(27 30)) B(R(35 37) R(40 50)))"},      // red w, left; far red
    {{-27}, "B(B(R(20 25) R(26 30)) B(R(35 37) R(40 50)))"},            // near red, red p, right
    {{-20, -25, -40, -50}, "B(B(26 30) B(35 37))"},                     // red x turns black, right
    {{-26}, "B(30 R(35 37))"},                                          // deficit up to the root
    {{-30}, "R(35 37)"},      // the root's red child becomes the root, still red
    {{40}, "B(35 R(37 40))"}, // under a red root
    {{-40, -35}, "37"},       // the root's leaf child becomes the root
    {{-37}, ""},              // the last leaf
    {{0, 10, 20, 30, 40, 50, -20}, "B(B(10 30) B(40 50))"}, // far red, black p, left
    {{5, -50}, "B(B(5 10) B(30 40))"},                      // far red, black p, right
    {{25, -10}, "B(B(5 25) B(30 40))"},                     // near red, black p, left
    {{7, -40}, "B(B(5 7) B(25 30))"},                       // near red, black p, right
    // red w, left; both nephews black, left
    {{40, 50, 60, -5}, "B(B(7 R(25 30)) B(40 R(50 60)))"},
    // red w, right; far red, red p, right
    {{27, 26, -50, -60}, "B(B(7 25) R(B(26 27) B(30 40)))"},
    {{-30}, "B(B(7 25) B(R(26 27) 40))"}, // both nephews black, right
    // Up, then far red.
    {{0, 10, 20, 30, 40, 50, 60, 70, 80, 90, 100, 110, -10},
     "B(B(B(20 R(30 40)) B(50 60)) B(B(70 80) B(90 R(100 110))))"},
    {{-30, -50}, "B(B(R(20 40) 60) R(B(70 80) B(90 R(100 110))))"}, // up twice to the root
    {{-100, -70}, "B(B(R(20 40) 60) B(80 R(90 110)))"},
    // Near red, red p, left; then the root's red child on the left becomes the root.
    {{0, 10, 20, 30, 40, 50, 60, 70, 80, -70, -30}, "B(B(10 20) B(R(40 50) R(60 80)))"},
    {{-60, -80, -50, -40}, "R(10 20)"},
    // Colours broken from outside lead deletion into states no sound tree has: each is
    // reported with the host's text message and deletion goes on as documented.
    {{0, 10, 20, 30}, "B(10 R(20 30))"},
    {{-20}, "B(10 30)", "DELETION ERROR: sibling not internal", {{"r", false}}},
    {{0, 10, 20, 30, 40, 50}, "B(B(10 20) B(30 R(40 50)))"},
    {{-30}, "B(R(10 20) B(40 50))", "DELETION PROB -- sib is black, internal", {{"rr", false}}},
    // A red w under a red p: reported, and p still turns black.
    {{0, 10, 20, 30, 40, 50, 60}, "B(B(10 20) B(R(30 40) R(50 60)))"},
    {{-30},
     "B(B(10 20) B(40 R(50 60)))",
     "DELETION ERROR: 2.3c not quite right",
     {{"r", true}, {"rl", false}}},
};

// The trees of both variants take every step.  (The random run checks each state.)
TEST_F(Trees, BothVariantsGrowTheGoldenShapes) {
    host.set_errors_return(true);
    auto grow = [&]<class Tree>(Tree tree) {
        for (size_t i = 0; i < std::size(steps); ++i) {
            SCOPED_TRACE("step " + std::to_string(i));
            for (const auto& [path, red] : steps[i].paint)
                tree.paint(path, red);
            for (const int32_t key : steps[i].keys) {
                bool found;
                if (key == 0) {
                    tree.free();
                    tree = Tree{};
                } else if (key > 0)
                    tree.insert(key);
                else
                    Tree::remove(tree.find_n(-key, found));
            }
            ASSERT_EQ(raised_errors(host), steps[i].error ? Texts{steps[i].error} : Texts{});
            ASSERT_EQ(shape(tree.outline()), steps[i].shape) << tree.outline();
        }
        tree.free();
        EXPECT_EQ(Tree::nodes(), 0u);
    };
    grow(Rb{});
    grow(Rbh{});
}

// A dump with each address replaced by @ and the order of its first appearance.
std::string numbered(const std::string& dump) {
    std::map<std::string, size_t> seen;
    std::string out;
    const std::regex address("0x[0-9a-f]+");
    auto at = dump.cbegin();
    for (std::sregex_iterator m(dump.begin(), dump.end(), address), end; m != end; ++m) {
        out.append(at, (*m)[0].first);
        out += "@" + std::to_string(seen.emplace(m->str(), seen.size()).first->second);
        at = (*m)[0].second;
    }
    return out.append(at, dump.cend());
}

// The empty trees name their heads in full.
TEST_F(Trees, DumpsFollowTheirFormats) {
    Rb tree;
    EXPECT_EQ(map_rb_dump(tree.head),
              "tree " + hex(reinterpret_cast<uintptr_t>(tree.head)) + " is empty\n");
    for (const char* k : {"a", "b", "c"})
        map_insert_key(tree.head, k, 0);
    EXPECT_EQ(numbered(map_rb_dump(tree.head)), "Head: @0.  Root = @1\n"
                                                "Int node @1: B,T: l=@2, r=@3, p=@0, lr=(a,b)\n"
                                                "Ext node @2: B,L: p=@1, k=a\n"
                                                "Int node @3: R,R: l=@4, r=@5, p=@1, lr=(b,c)\n"
                                                "Ext node @4: B,L: p=@3, k=b\n"
                                                "Ext node @5: B,R: p=@3, k=c\n");
    tree.free();

    Rbh rbh;
    const uint32_t h = rbh.head;
    EXPECT_EQ(map_rbh_dump(h), "tree " + hex(h) + " is empty\n");
    for (int32_t k : {3, 5, 7})
        rbh.insert(k);
    EXPECT_EQ(numbered(map_rbh_dump(h)), "Head: @0.  Root = @1, < = @2, > = @3\n"
                                         "Int node @1: B,T: l=@2, r=@4, p=@0, lr=(3,5)\n"
                                         "Ext node @2: B,L: p=@1, <=@0, >=@5 k=3\n"
                                         "Int node @4: R,R: l=@5, r=@3, p=@1, lr=(5,7)\n"
                                         "Ext node @5: B,L: p=@4, <=@2, >=@3 k=5\n"
                                         "Ext node @3: B,R: p=@4, <=@5, >=@0 k=7\n");

    // The picture: one dashed arrow per routing word, the ring dotted all the way round.
    const std::string dot = map_rbh_dot(h);
    auto count = [&](const char* what) {
        const std::regex pattern(what);
        return std::distance(std::sregex_iterator(dot.begin(), dot.end(), pattern), {});
    };
    EXPECT_EQ(count("style=dashed"), 4);
    EXPECT_EQ(count("style=dotted"), 4);
    rbh.free();
}

// Each misuse raises its text and, when the error returns, goes on as documented.  The
// checker is only worth its runs if it sees damage: each fault is made, found and undone
// on the same sound trees.  An empty map is its own first and last entry; null maps and
// entries are harmless, whichever routine meets them.
TEST_F(Trees, MisuseDamageAndNullMapsAreReported) {
    Rb tree;
    Rbh rbh;
    for (const int32_t k : {1, 2, 3, 4}) {
        tree.insert(k);
        rbh.insert(k);
    }
    const std::string before = tree.outline();
    RbNode* head = tree.head;
    RbNode* leaf = head->left;
    RbNode* inner = head->parent;
    const uint32_t map = rbh.head;
    const uint32_t hleaf = maph_first(map);
    const uint32_t hinner = map_rbh_node(map)->parent;
    bool f;
    const std::pair<std::function<void()>, std::string> misuses[] = {
        {[&] { map_rb_find_key_n(leaf, "1", f); }, "map_rb_find_key_n called on non-head"},
        {[&] { map_rb_find_ikey_n(leaf, 1, f); }, "map_rb_find_ikey_n called on non-head"},
        {[&] { map_rb_find_gkey_n(inner, 1, int_order, f); },
         "map_rb_find_gkey_n called on non-head"},
        {[&] { map_rb_delete_node(inner); }, "Cannot delete an internal node."},
        {[&] { map_rb_delete_node(head); }, "Cannot delete an the head of a map_rb_tree."},
        // The black root counts.
        {[&] { EXPECT_EQ(map_rb_nblack(inner), 1); },
         "ERROR: map_rb_nblack called on a non-external node"},
        {[&] { EXPECT_EQ(map_rb_plength(head), 0); },
         "ERROR: map_rb_map_rb_plength called on a non-external node"},
        {[&] { map_rb_free_tree(leaf); }, "ERROR: map_rb_free_tree called on a non-head node"},
        {[&] { map_rbh_find_key_n(hleaf, 1, f); },
         "map_rbh_find_key_n called on non-head " + hex(hleaf)},
        {[&] { map_rbh_find_gkey_n(hleaf, 1, three_way<uint32_t>, f); },
         "map_rbh_find_gkey_n called on non-head"},
        {[&] { map_rbh_delete_node(hinner); }, "Cannot delete an internal node: " + hex(hinner)},
        {[&] { map_rbh_delete_node(map); },
         "Cannot delete the head of an map_rbh_tree: " + hex(map)},
        {[&] { map_rbh_nblack(hinner); },
         "ERROR: map_rbh_nblack called on a non-external node " + hex(hinner)},
        {[&] { map_rbh_plength(map); },
         "ERROR: map_rbh_plength called on a non-external node " + hex(map)},
        {[&] { map_rbh_free_tree(hleaf); }, "ERROR: map_rbh_free_tree called on a non-head node"},
    };
    host.set_errors_return(true);
    for (const auto& [misuse, text] : misuses) {
        misuse();
        EXPECT_EQ(raised_errors(host), Texts{text});
    }
    EXPECT_EQ(tree.check(), "");
    EXPECT_EQ(tree.outline(), before);
    EXPECT_EQ(rbh.check(), "");
    EXPECT_EQ(rbh.outline(), before);
    auto damaged = [&](const char* what, auto&& field, auto bad) {
        auto good = field;
        field = bad;
        EXPECT_NE(tree.check(), "") << what << " went unnoticed";
        field = good;
    };
    damaged("a red leaf", leaf->status, leaf->status | 1u);
    damaged("a lost root flag", inner->status, inner->status & ~8u);
    damaged("a flipped side flag", leaf->status, leaf->status ^ 4u);
    damaged("a stray flag", leaf->status, leaf->status | 64u);
    damaged("a wrong parent", leaf->parent, head);
    damaged("a wrong routing word", inner->key, reinterpret_cast<RbWord>(head->right));
    damaged("a skipped ring link", leaf->left, leaf->left->left);
    damaged("a broken back link", leaf->right, leaf->left);
    damaged("leaves out of order", leaf->key, RbWord{100});
    damaged("a shared child", inner->left, inner->right);
    damaged("unequal black heights", inner->left->status, inner->left->status ^ 1u);
    damaged("a head without its flag", head->status, head->status & ~16u);
    damaged("a head with a key", head->key, RbWord{1});
    damaged("a head flag in the tree", leaf->status, leaf->status | 16u);
    damaged("a second root", leaf->status, leaf->status | 8u);
    damaged("a child link to the head", inner->left, head);
    damaged("a child link to no node", inner->right, nullptr);
    EXPECT_EQ(map_rb_check(head, nullptr), "");
    map_rbh_node(hleaf)->status[0] = 2;
    EXPECT_NE(rbh.check(), "");
    map_rbh_node(hleaf)->status[0] = 0;

    // Nodes go back under the names of the routines that free them.
    host.fail_allocation(2);
    EXPECT_EQ(tree.insert(5), nullptr);
    host.clear_faults();
    EXPECT_EQ(host.frees("map_rb_insert_b"), 1u) << "the leaf made for nothing";

    // Raised for real, the error ends the call with the same text.
    host.set_errors_return(false);
    expect_error(ZOK_MSG_TEXT, "Cannot delete the head of an map_rbh_tree: " + hex(map),
                 [&] { map_rbh_delete_node(map); });
    tree.free();
    rbh.free();
    EXPECT_EQ(host.frees("map_rb_delete_node"), nodes_for(4) - 1) << "all but the head";
    EXPECT_EQ(host.frees("map_rb_free_tree"), 1u);

    const uint32_t empty = maph_new();
    EXPECT_EQ(maph_last(empty), empty);
    maph_free(empty);
    EXPECT_EQ(maph_find(0, 7, three_way<uint32_t>) + maph_node_key(0) + maph_node_value(0), 0u);
    maph_remove_node(0);
    maph_free(0);
    EXPECT_EQ(map_find(nullptr, 7, int_order), nullptr);
    EXPECT_EQ(map_node_key(nullptr) + map_node_value(nullptr), 0u);
    map_remove_node(nullptr);
    map_free(nullptr);
    EXPECT_EQ(Rb::nodes() + Rbh::nodes(), 0u);
}

} // namespace
