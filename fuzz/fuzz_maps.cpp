// Reads its input as operations on an rb and an rbh map kept in the same unsigned order,
// each against a std::map model: puts, removals, finds, duplicate inserts through the
// low-level insert, walks, and insertions whose allocations fail.  After every operation
// both trees pass the checker, match the model, hold exactly their live nodes, and have
// the same shape.  Any breach aborts with the dumps.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <set>
#include <string>

#include "frame/structs.hpp"
#include "host.hpp"
#include "maps/map.hpp"
#include "maps/maph.hpp"

namespace {

int rb_order(flux::RbWord a, flux::RbWord b) {
    auto x = static_cast<uint32_t>(a);
    auto y = static_cast<uint32_t>(b);
    return (x > y) - (x < y);
}

int rbh_order(uint32_t a, uint32_t b) {
    return (a > b) - (a < b);
}

zok::Host& host() {
    static zok::Host* the_host = [] {
        auto* h = new zok::Host;
        flux::define_structures();
        return h;
    }();
    return *the_host;
}

[[noreturn]] void fail(const std::string& what, flux::RbNode* rb, uint32_t rbh) {
    std::fprintf(stderr, "%s\n%s\n%s\n", what.c_str(),
                 flux::map_rb_outline(rb, [](flux::RbWord k) { return std::to_string(k); }).c_str(),
                 flux::map_rbh_dump(rbh).c_str());
    std::abort();
}

class Run {
public:
    Run() : plain_(host().memory(zok::kPlainLabel).blocks), heap_(host().heap_count()) {
        host().clear_messages();
    }
    ~Run() {
        flux::map_free(rb_);
        flux::maph_free(rbh_);
        if (host().memory(zok::kPlainLabel).blocks != plain_ || host().heap_count() != heap_) {
            std::fprintf(stderr, "freeing the trees left nodes behind\n");
            std::abort();
        }
    }

    void step(uint8_t op, uint32_t key, uint8_t extra) {
        uint32_t value = ++serial_;
        switch (op % 6) {
        case 0:
        case 1:
            put(key, value);
            break;
        case 2: {
            flux::RbNode* e = flux::map_find(rb_, key, rb_order);
            uint32_t h = flux::maph_find(rbh_, key, rbh_order);
            auto it = model_.find(key);
            bool present = it != model_.end() && !it->second.empty();
            if ((e != nullptr) != present || (h != 0) != present)
                fail("find disagrees with the model", rb_, rbh_);
            if (e && (!it->second.count(static_cast<uint32_t>(flux::map_node_value(e))) ||
                      !it->second.count(flux::maph_node_value(h))))
                fail("find gives a value the model lacks", rb_, rbh_);
            break;
        }
        case 3:
            remove(key);
            break;
        case 4:
            duplicate(key, value, extra);
            break;
        default:
            walk();
            break;
        }
        verify();
    }

private:
    void put(uint32_t key, uint32_t value) {
        flux::RbNode* old_rb = flux::map_find(rb_, key, rb_order);
        if ((old_rb != nullptr) != (flux::maph_find(rbh_, key, rbh_order) != 0))
            fail("only one tree holds the key", rb_, rbh_);
        if (old_rb)
            model_[key].erase(static_cast<uint32_t>(flux::map_node_value(old_rb)));
        flux::map_put(rb_, key, value, rb_order);
        flux::maph_put(rbh_, key, value, rbh_order);
        model_[key].insert(value);
    }

    void remove(uint32_t key) {
        flux::RbNode* e = flux::map_find(rb_, key, rb_order);
        uint32_t h = flux::maph_find(rbh_, key, rbh_order);
        if ((e != nullptr) != (h != 0))
            fail("only one tree holds the key", rb_, rbh_);
        if (!e)
            return;
        if (!model_[key].erase(static_cast<uint32_t>(flux::map_node_value(e))))
            fail("removing a value the model lacks", rb_, rbh_);
        flux::map_remove_node(e);
        flux::maph_remove_node(h);
    }

    // A duplicate key through the low-level insert.  With a low `extra`, each tree first
    // tries it with a failing allocation, which must change nothing.
    void duplicate(uint32_t key, uint32_t value, uint8_t extra) {
        if (extra < 16) {
            // An insertion makes a leaf, and an internal node unless the tree is empty.
            uint64_t nth = 1 + extra % 2;
            bool must_fail = nth <= (flux::map_is_empty(rb_) ? 1u : 2u);
            host().fail_allocation(nth);
            flux::RbNode* e = flux::map_insert_gkey(rb_, key, value, rb_order);
            host().clear_faults();
            if ((e == nullptr) != must_fail)
                fail("an insertion ignored its allocations' outcome", rb_, rbh_);
            if (e) {
                flux::maph_insert_gkey(rbh_, key, value, rbh_order);
                model_[key].insert(value);
                return;
            }
            verify();
            host().fail_allocation(1 + extra / 2);
            uint32_t h = 0;
            try {
                h = flux::maph_insert_gkey(rbh_, key, value, rbh_order);
            } catch (const zok::Error& error) {
                if (error.code() != ZOK_ERR_NO_MEMORY)
                    throw;
            }
            host().clear_faults();
            if (h) {
                // Making a heap node may take fewer allocations than the fault's place.
                flux::map_insert_gkey(rb_, key, value, rb_order);
                model_[key].insert(value);
                return;
            }
            verify();
        }
        flux::map_insert_gkey(rb_, key, value, rb_order);
        flux::maph_insert_gkey(rbh_, key, value, rbh_order);
        model_[key].insert(value);
    }

    // Both rings hold the model's entries.
    void walk() {
        std::multiset<std::pair<uint32_t, uint32_t>> rb, rbh, expected;
        for (flux::RbNode* e = flux::map_first(rb_); e != rb_; e = flux::map_next(e))
            rb.emplace(static_cast<uint32_t>(flux::map_node_key(e)),
                       static_cast<uint32_t>(flux::map_node_value(e)));
        for (uint32_t e = flux::maph_first(rbh_); e != rbh_; e = flux::maph_next(e))
            rbh.emplace(flux::maph_node_key(e), flux::maph_node_value(e));
        for (const auto& [key, values] : model_)
            for (uint32_t v : values)
                expected.emplace(key, v);
        if (rb != expected || rbh != expected)
            fail("a ring differs from the model", rb_, rbh_);
    }

    void verify() {
        size_t entries = 0;
        for (const auto& [key, values] : model_)
            entries += values.size();
        std::string rb_fault = flux::map_rb_check(rb_, rb_order);
        std::string rbh_fault = flux::map_rbh_check(rbh_, rbh_order);
        if (!rb_fault.empty() || !rbh_fault.empty())
            fail("checker: " + rb_fault + " / " + rbh_fault, rb_, rbh_);
        if (flux::map_count(rb_) != entries || flux::maph_count(rbh_) != entries)
            fail("count differs from the model", rb_, rbh_);
        size_t nodes = entries ? 2 * entries : 1;
        if (host().memory(zok::kPlainLabel).blocks - plain_ != nodes ||
            host().heap_count() - heap_ != nodes)
            fail("nodes leaked or lost", rb_, rbh_);
        auto text = [](uint32_t k) { return std::to_string(k); };
        if (flux::map_rb_outline(rb_, [&](flux::RbWord k) {
                return text(static_cast<uint32_t>(k));
            }) != flux::map_rbh_outline(rbh_, text))
            fail("the two variants differ in shape", rb_, rbh_);
    }

    size_t plain_;
    size_t heap_;
    flux::RbNode* rb_ = flux::map_new();
    uint32_t rbh_ = flux::maph_new();
    std::map<uint32_t, std::multiset<uint32_t>> model_;
    uint32_t serial_ = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Run run;
    // Three bytes an operation: what, which key (spread over 32 bits, so that unsigned
    // order matters), and an extra byte.
    for (size_t i = 0; i + 3 <= size; i += 3)
        run.step(data[i], static_cast<uint32_t>(data[i + 1] * 16843009u), data[i + 2]);
    return 0;
}
