// The TALLY module tested as a host program would use it: loaded into the
// reference host, called with values and variables, and checked through what
// the host observes.
#include <zok/host.hpp>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <limits>
#include <string>
#include <vector>

namespace {

using zok::ObjectRef;
using zok::Ref;
using zok::Value;

class Tally : public ::testing::Test {
protected:
    void SetUp() override { host.load_module(TALLY_MODULE); }

    ObjectRef make(const zok::Keywords& kw = {}) { return host.new_object("TALLY", {}, kw); }

    zok::Host host;
};

TEST_F(Tally, AddsUpAndReports) {
    // Keywords may be shortened to any unique prefix.
    const ObjectRef t = make({{"LAB", "apples"}, {"start", 2}});
    host.set_var("amount", 5);
    host.call_method(t, "ADD", {Ref{"amount"}});
    host.call_method(t, "ADD", {uint8_t{3}});
    EXPECT_EQ(host.call_method(t, "TOTAL"), Value(int64_t{10}));
    EXPECT_EQ(host.call_method(t, "REPORT").as_string(), "apples: 10 in 2 additions");
    // The state is the object's tags, visible to (and settable by) the program.
    EXPECT_EQ(host.get_tag(t, "COUNT"), Value(int32_t{2}));
    host.set_tag(t, "TOTAL", int64_t{40});
    EXPECT_EQ(host.call_method(t, "TOTAL").as_int(), 40);
    // Every temporary the module made was released by the module itself.
    EXPECT_EQ(host.leftover_temps(), 0u);

    host.destroy(t);
    EXPECT_EQ(host.heap_count(), 0u);
    EXPECT_EQ(host.live_texts(), 0u);
}

TEST_F(Tally, RefusedCallsChangeNothing) {
    const ObjectRef t = make({{"LABEL", "x"}});
    host.call_method(t, "ADD", {std::numeric_limits<int64_t>::max() - 1});

    struct Case {
        const char* what;
        std::function<void()> call;
        int32_t code;
        const char* text; // the exact text, or null to check the routine only
    };
    const Case cases[] = {
        {"negative amount", [&] { host.call_method(t, "ADD", {-1}); }, 0,
         "Tally amounts must not be negative"},
        {"overflow", [&] { host.call_method(t, "ADD", {2}); }, ZOK_MSG_TEXT,
         "TALLY::ADD: the total would overflow"},
        {"negative start",
         [&] {
             make({{"START", -3}});
         },
         0, "Tally amounts must not be negative"},
        {"not a number", [&] { host.call_method(t, "ADD", {"many"}); }, ZOK_ERR_CONVERSION,
         nullptr},
        {"no amount", [&] { host.call_method(t, "ADD"); }, ZOK_ERR_ARG_COUNT, nullptr},
        {"keyword to TOTAL",
         [&] {
             host.call_method(t, "TOTAL", {}, {{"LABEL", "y"}});
         },
         ZOK_ERR_NO_KEYWORDS, nullptr},
        {"unknown keyword",
         [&] {
             make({{"COLOUR", 1}});
         },
         ZOK_ERR_UNKNOWN_KEYWORD, nullptr},
        {"unknown method", [&] { host.call_method(t, "SUBTRACT", {1}); }, ZOK_ERR_UNKNOWN_METHOD,
         nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const zok::Observation before = host.observe();
        try {
            c.call();
            ADD_FAILURE() << "no error";
        } catch (const zok::Error& e) {
            EXPECT_EQ(e.code(), c.code) << e.what();
            if (c.text != nullptr) {
                EXPECT_EQ(e.text(), c.text);
            }
            if (c.code == 0) {
                EXPECT_EQ(e.block(), "TALLY_MBLK");
            }
        }
        EXPECT_EQ(zok::difference(before, host.observe()), "");
    }
}

// Every allocation a call makes is failed in turn: each failure is the host's
// out-of-memory error and leaves the host exactly as it was.
TEST_F(Tally, FailedAllocationsChangeNothing) {
    host.set_var("t", make({{"LABEL", "pears"}}));
    const ObjectRef t = host.get_var("t").as_object();
    const std::function<void()> calls[] = {
        [&] {
            make({{"LABEL", "plums"}, {"START", 1}});
        },
        [&] { host.call_method(t, "ADD", {"4"}); },
        [&] { host.call_method(t, "REPORT"); },
    };
    for (const auto& call : calls) {
        for (uint64_t nth = 1;; ++nth) {
            SCOPED_TRACE(nth);
            const zok::Observation before = host.observe();
            host.fail_allocation(nth);
            try {
                call();
                host.clear_faults();
                EXPECT_GT(nth, 1u) << "the call allocates nothing";
                break;
            } catch (const zok::Error& e) {
                host.clear_faults();
                EXPECT_EQ(e.code(), ZOK_ERR_NO_MEMORY) << e.what();
                EXPECT_EQ(zok::difference(before, host.observe()), "");
            }
        }
    }
}

// A tally saved in one session comes back in another: its state is in its
// tags, so the module needs no restore pass of its own.
TEST_F(Tally, SurvivesSaveAndRestore) {
    const std::string path = ::testing::TempDir() + "tally.save";
    host.set_var("t", make({{"LABEL", "figs"}, {"START", 3}}));
    host.call_method(host.get_var("t").as_object(), "ADD", {4});
    host.save(path, {"t"});
    host.reset_session();
    host.erase_var("t");
    ASSERT_EQ(host.heap_count(), 0u);

    EXPECT_EQ(host.restore(path), std::vector<std::string>{"T"});
    std::remove(path.c_str());
    const ObjectRef t = host.get_var("t").as_object();
    EXPECT_EQ(host.call_method(t, "REPORT").as_string(), "figs: 7 in 1 additions");
    host.call_method(t, "ADD", {1});
    EXPECT_EQ(host.call_method(t, "TOTAL").as_int(), 8);
}

// The installed fluxtools module loads beside a module of one's own.
TEST_F(Tally, SharesTheHostWithFluxtools) {
    host.load_module(FLUXTOOLS_MODULE);
    const ObjectRef map = host.new_object("ZOKDSMAP");
    EXPECT_EQ(host.call_method(map, "GETSIZE").as_int(), 0);
    EXPECT_EQ(host.call_method(make(), "TOTAL").as_int(), 0);
}

} // namespace
