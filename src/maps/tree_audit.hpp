// The invariant checker and the variant-independent pictures of a tree (outline and
// Graphviz), written once over the node-access policy of tree.hpp.
//
// Nothing here trusts the tree: the walks refuse a node reached twice, a handle that
// names no node and a depth no sound tree reaches, so a corrupt tree yields a report,
// never a crash or an endless loop.  The policy adds, for these walks only:
//   alive(ref)      whether a handle names a node at all
//   flags_sane(v)   whether the status holds nothing but the five flags
//   number(ref)     the address or identifier, for messages and labels
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "maps/tree.hpp"

namespace flux::tree {

// Far beyond the height of any sound tree (at most twice the log of the leaf count).
inline constexpr int max_sound_depth = 130;

inline std::string hex(std::uint64_t n) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(n));
    return text;
}

template <NodeAccess A>
class Audit {
public:
    using Ref = typename A::Ref;
    using Word = typename A::Word;
    using Order = std::function<int(Word, Word)>;
    using KeyText = std::function<std::string(Word)>;

    // The first broken invariant, or "" when the tree is sound.  With an order, the leaf
    // ring must not descend.
    static std::string check(Ref h, const Order& order) {
        Audit audit(h);
        audit.check_tree(order);
        return audit.fault_;
    }

    // visit(node, depth) for every node in preorder; visit_stray(handle, depth) for a
    // handle that names no node or a node already visited, below which nothing is walked.
    template <class Visit, class VisitStray>
    static void preorder(Ref h, Visit visit, VisitStray visit_stray) {
        std::set<Ref> seen{h};
        auto walk = [&](auto& self, Ref n, int depth) -> void {
            if (!A::alive(n) || !seen.insert(n).second || depth > max_sound_depth) {
                visit_stray(n, depth);
                return;
            }
            visit(n, depth);
            auto v = A::at(n);
            if (A::has(v, internal)) {
                Ref l = A::left(v);
                Ref r = A::right(v);
                self(self, l, depth + 1);
                self(self, r, depth + 1);
            }
        };
        Ref root = A::parent(A::at(h));
        if (root != h)
            walk(walk, root, 0);
    }

    // The nodes reachable from the root in preorder, and the handles met on the way that
    // name no node or a node already listed.
    struct Listing {
        std::vector<Ref> nodes;
        std::set<Ref> listed;
        std::vector<Ref> strays;
        bool contains(Ref n) const { return listed.count(n) != 0; }
    };
    static Listing list(Ref h) {
        Listing out;
        preorder(
            h,
            [&](Ref n, int) {
                out.nodes.push_back(n);
                out.listed.insert(n);
            },
            [&](Ref n, int) { out.strays.push_back(n); });
        return out;
    }

    // The two flag letters of the text dumps: colour (R or B), then the side under the
    // parent (L or R, T for the root).
    static std::string flag_letters(Ref n) {
        auto v = A::at(n);
        std::string text = A::has(v, red) ? "R," : "B,";
        text += A::has(v, root) ? 'T' : A::has(v, left_child) ? 'L' : 'R';
        return text;
    }

    // Colour and kind of every node, leaves with their keys, indented by depth: equal
    // outlines mean equal shapes, whatever the variant.
    static std::string outline(Ref h, const KeyText& key_text) {
        if (!A::alive(h))
            return "no tree\n";
        if (A::parent(A::at(h)) == h)
            return "empty\n";
        std::string out;
        preorder(
            h,
            [&](Ref n, int depth) {
                auto v = A::at(n);
                out.append(2 * static_cast<size_t>(depth), ' ');
                out += A::has(v, red) ? "R " : "B ";
                out += A::has(v, internal) ? "I" : "L " + key_text(A::key(v));
                out += '\n';
            },
            [&](Ref n, int depth) {
                out.append(2 * static_cast<size_t>(depth), ' ');
                out += "? " + hex(A::number(n)) + '\n';
            });
        return out;
    }

    static std::string dot(Ref h, const KeyText& key_text) {
        std::string out = "digraph tree {\n"
                          "  node [style=filled, fontcolor=white, fontname=Helvetica];\n";
        if (!A::alive(h))
            return out + "}\n";
        std::map<Ref, std::string> ids{{h, "head"}};
        std::vector<Ref> order;
        std::string strays;
        preorder(
            h,
            [&](Ref n, int) {
                ids.emplace(n, "n" + std::to_string(ids.size()));
                order.push_back(n);
            },
            [&](Ref n, int) { strays += "  stray_" + hex(A::number(n)) + ";\n"; });
        auto id = [&](Ref n) {
            auto it = ids.find(n);
            return it != ids.end() ? it->second : "stray_" + hex(A::number(n));
        };
        out += "  head [shape=doubleoctagon, fillcolor=gray40, label=\"head\\n" +
               hex(A::number(h)) + "\"];\n";
        for (Ref n : order) {
            auto v = A::at(n);
            const char* fill = A::has(v, red) ? "red" : "black";
            if (A::has(v, internal)) {
                out += "  " + id(n) + " [shape=circle, fillcolor=" + fill + ", label=\"" +
                       hex(A::number(n)) + "\"];\n";
                out += "  " + id(n) + " -> " + id(A::left(v)) + ";\n";
                out += "  " + id(n) + " -> " + id(A::right(v)) + ";\n";
                out += "  " + id(n) + " -> " + id(A::key_leaf(v)) +
                       " [style=dashed, color=blue, constraint=false, label=\"key\"];\n";
                out += "  " + id(n) + " -> " + id(A::value_leaf(v)) +
                       " [style=dashed, color=darkgreen, constraint=false, label=\"value\"];\n";
            } else {
                out += "  " + id(n) + " [shape=box, fillcolor=" + fill + ", label=\"" +
                       escaped(key_text(A::key(v))) + "\\n" + hex(A::number(n)) + "\"];\n";
            }
        }
        if (!order.empty())
            out += "  head -> " + id(A::parent(A::at(h))) + " [label=\"root\"];\n";
        // The ring, as far as it runs through nodes of the tree.
        Ref at = h;
        for (std::size_t step = 0; step <= order.size(); ++step) {
            Ref next = A::left(A::at(at));
            out += "  " + id(at) + " -> " + id(next) +
                   " [style=dotted, color=gray50, constraint=false];\n";
            if (next == h || !ids.count(next))
                break;
            at = next;
        }
        return out + strays + "}\n";
    }

private:
    struct Span {
        Ref least;
        Ref greatest;
        int black_height;
    };

    explicit Audit(Ref h) : head_(h) {}

    static std::string escaped(const std::string& text) {
        std::string out;
        for (char c : text) {
            if (c == '"' || c == '\\')
                out += '\\';
            out += c;
        }
        return out;
    }

    std::nullopt_t fail(Ref n, const std::string& what) {
        if (fault_.empty())
            fault_ = "node " + hex(A::number(n)) + ": " + what;
        return std::nullopt;
    }

    void check_tree(const Order& order) {
        if (!A::alive(head_)) {
            fail(head_, "the head names no node");
            return;
        }
        auto hv = A::at(head_);
        if (!A::flags_sane(hv) || !A::has(hv, head) || A::has(hv, red) || A::has(hv, internal) ||
            A::has(hv, left_child) || A::has(hv, root)) {
            fail(head_, "a head must carry the head flag and no other");
            return;
        }
        if (A::key(hv) != A::head_key()) {
            fail(head_, "the head's key is not the empty key");
            return;
        }
        Ref root_node = A::parent(hv);
        if (root_node == head_) {
            if (A::left(hv) != head_ || A::right(hv) != head_)
                fail(head_, "an empty tree's head must name itself as first and last leaf");
            return;
        }
        if (!walk(root_node, head_, Side::left, 0))
            return;
        if (leaves_.size() != internals_ + 1) {
            fail(head_, std::to_string(leaves_.size()) + " leaves but " +
                            std::to_string(internals_) + " internal nodes");
            return;
        }
        check_ring(order);
    }

    // The span of n's subtree; `side` is where n hangs under `up` (unused for the root).
    // No node is visited twice: each is entered from the node its parent link names, and
    // no node names one child twice.
    std::optional<Span> walk(Ref n, Ref up, Side side, int depth) {
        if (depth > max_sound_depth)
            return fail(n, "deeper than any sound tree");
        if (!A::alive(n))
            return fail(up, "a child link names no node");
        if (n == head_)
            return fail(up, "a child link names the head");
        auto v = A::at(n);
        bool is_root = up == head_;
        if (!A::flags_sane(v))
            return fail(n, "stray status flags");
        if (A::has(v, head))
            return fail(n, "a node in the tree carries the head flag");
        if (A::has(v, root) != is_root)
            return fail(n, is_root ? "the root lacks the root flag"
                                   : "the root flag on a node that is not the root");
        if (A::parent(v) != up)
            return fail(n, "parent link names " + hex(A::number(A::parent(v))) + ", not " +
                               hex(A::number(up)));
        if (!is_root && A::has(v, left_child) != (side == Side::left))
            return fail(n, "the left-child flag contradicts the parent's links");
        if (!A::has(v, internal)) {
            if (A::has(v, red))
                return fail(n, "a red leaf");
            leaves_.push_back(n);
            return Span{n, n, 1};
        }
        ++internals_;
        Ref l = A::left(v);
        Ref r = A::right(v);
        if (l == r)
            return fail(n, "both child links name " + hex(A::number(l)));
        Ref key_leaf = A::key_leaf(v);
        Ref value_leaf = A::value_leaf(v);
        bool is_red = A::has(v, red);
        auto low = walk(l, n, Side::left, depth + 1);
        if (!low)
            return low;
        auto high = walk(r, n, Side::right, depth + 1);
        if (!high)
            return high;
        if (is_red && (A::has(A::at(l), red) || A::has(A::at(r), red)))
            return fail(n, "a red node with a red child");
        if (low->black_height != high->black_height)
            return fail(n, "black heights differ: " + std::to_string(low->black_height) +
                               " on the left, " + std::to_string(high->black_height) +
                               " on the right");
        if (key_leaf != low->greatest)
            return fail(n, "key word names " + hex(A::number(key_leaf)) +
                               ", not the greatest leaf of the left subtree " +
                               hex(A::number(low->greatest)));
        if (value_leaf != high->least)
            return fail(n, "value word names " + hex(A::number(value_leaf)) +
                               ", not the least leaf of the right subtree " +
                               hex(A::number(high->least)));
        return Span{low->least, high->greatest, low->black_height + !is_red};
    }

    // The ring from the head must list the leaves in tree order, linked both ways.
    void check_ring(const Order& order) {
        Ref prev = head_;
        Ref at = A::left(A::at(head_));
        for (std::size_t i = 0; i < leaves_.size(); ++i) {
            if (at != leaves_[i]) {
                fail(prev, "next link names " + hex(A::number(at)) + ", not leaf " +
                               std::to_string(i) + " in tree order " + hex(A::number(leaves_[i])));
                return;
            }
            auto v = A::at(at);
            if (A::right(v) != prev) {
                fail(at, "previous link names " + hex(A::number(A::right(v))) + ", not " +
                             hex(A::number(prev)));
                return;
            }
            if (order && prev != head_ && order(A::key(A::at(prev)), A::key(v)) > 0) {
                fail(at, "its key is less than the previous leaf's");
                return;
            }
            prev = at;
            at = A::left(v);
        }
        if (at != head_)
            fail(prev, "the last leaf's next link does not name the head");
        else if (A::right(A::at(head_)) != prev)
            fail(head_, "the head's last-leaf link does not name the last leaf");
    }

    Ref head_;
    std::vector<Ref> leaves_;
    std::size_t internals_ = 0;
    std::string fault_;
};

} // namespace flux::tree
