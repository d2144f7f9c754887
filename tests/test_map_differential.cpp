// Every key kind of both variants against a model over thousands of random operations,
// with the checker, the count and the live nodes after every step: string keys, whose
// order differs from the numbers'; integer keys scattered over the whole signed range;
// unsigned heap keys over the whole range; and both comparison kinds in an order of their
// own, side by side, where they must also keep one shape.
#include <array>
#include <deque>
#include <random>
#include <set>

#include "support/map_testing.hpp"

namespace {

using namespace maptest;

class Trees : public TreeTest {};

// Phases of growth, churn and draining over key ranges of several sizes.
template <class... Drivers>
void run(uint32_t seed, Drivers&&... drivers) {
    std::mt19937 rng(seed);
    uint32_t keys = 8;
    uint32_t puts = 20;
    for (int step = 0; step < 10000; ++step) {
        if (step % 1000 == 0) {
            keys = std::array{8u, 100u, 3000u}[rng() % 3];
            puts = std::array{20u, 45u, 70u}[rng() % 3];
        }
        const uint32_t roll = rng() % 100;
        const TreeOp op = roll < puts        ? TreeOp::put
                          : roll < puts + 8  ? std::array{TreeOp::insert, TreeOp::insert_after,
                                                         TreeOp::failing_insert}[roll % 3]
                          : roll < puts + 25 ? TreeOp::find
                          : roll < 99        ? TreeOp::remove
                                             : TreeOp::walk;
        const uint32_t key = rng() % keys;
        const uint32_t extra = rng();
        ASSERT_EQ((drivers.step(op, key, extra) + ...), "") << "step " << step;
        // Comparing whole outlines is slow; a shape once apart stays apart.
        if (sizeof...(drivers) > 1 && step % 256 == 0) {
            ASSERT_EQ(std::set{drivers.outline()...}.size(), 1u) << "the variants differ in shape";
        }
    }
    EXPECT_EQ((drivers.finish() + ...), "");
}

TEST_F(Trees, EveryKeyKindMatchesTheModel) {
    const uint32_t seed = test_seed();
    std::deque<std::string> texts;
    auto text_key = [&](uint32_t i) {
        while (texts.size() <= i)
            texts.push_back(std::to_string(texts.size() * 7));
        return reinterpret_cast<flux::RbWord>(texts[i].c_str());
    };
    auto scattered = [](uint32_t i) { return i * 2654435761u; };
    auto plain = [](uint32_t i) { return i; };
    run(seed, TreeDriver<Rb>({Rb::key}, text_key));
    run(seed + 1, TreeDriver<Rb>({Rb::ikey}, scattered));
    run(seed + 2, TreeDriver<Rbh>({Rbh::key}, scattered));
    run(seed + 3, TreeDriver<Rb>({Rb::gkey}, plain), TreeDriver<Rbh>({Rbh::gkey}, plain));
}

} // namespace
