// Helpers shared by the test suites: the seed of a randomized test (printed,
// and taken from ZOK_SEED when set, so a failure can be re-run), and the check
// that a call raises a given host or module code.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <random>

#include <gtest/gtest.h>

#include "host.hpp"

inline uint32_t test_seed() {
    const char* env = std::getenv("ZOK_SEED");
    const uint32_t seed =
        env ? static_cast<uint32_t>(std::strtoul(env, nullptr, 10)) : std::random_device{}();
    std::printf("seed %u (re-run with ZOK_SEED=%u)\n", seed, seed);
    return seed;
}

// Runs f, expecting it to raise `code`; returns what was raised (code 0 when
// nothing was).
template <typename F>
zok::Error expect_error(int32_t code, F&& f) {
    try {
        f();
        ADD_FAILURE() << "no error raised, expected code " << code;
    } catch (const zok::Error& e) {
        EXPECT_EQ(e.code(), code) << e.what();
        return e;
    }
    return zok::Error(0, "", "");
}

// The same, and the error must have exactly `text` and come from `block`
// (the host's own messages come from none).
template <typename F>
zok::Error expect_error(int32_t code, const std::string& text, F&& f,
                        const std::string& block = "") {
    zok::Error e = expect_error(code, std::forward<F>(f));
    EXPECT_EQ(e.text(), text);
    EXPECT_EQ(e.block(), block);
    return e;
}

// The same for one of the module's own messages, raised from its block.
template <typename F>
void expect_module_error(int32_t code, const std::string& text, F&& f) {
    expect_error(code, text, std::forward<F>(f), "ZOK_MBLK_FLUXTOOLS");
}
