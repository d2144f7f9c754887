// Shared by the tree tests: a host with the module's structures defined, the seed of a
// randomized test (ZOK_SEED re-runs one), and the key orders the tests search with.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

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

inline std::string int_text(flux::RbWord key) {
    return std::to_string(static_cast<int32_t>(key));
}

} // namespace maptest
