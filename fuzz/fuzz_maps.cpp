// Reads its input as operations on an rb and an rbh map kept in one order, each driven
// against its model as the randomized tree test drives them; the two must also keep one
// shape.  Any fault aborts with the outlines.
#include <cstdio>
#include <cstdlib>

#include "../tests/support/tree_driver.hpp"

using namespace maptest;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static zok::Host* host = [] {
        auto* h = new zok::Host;
        flux::define_structures();
        return h;
    }();
    host->clear_messages();
    // Keys spread over 31 bits, where both variants read them alike.
    auto word = [](uint32_t i) { return i * 8421504u; };
    TreeDriver<Rb> rb({Rb::gkey}, word);
    TreeDriver<Rbh> rbh({Rbh::gkey}, word);
    // Three bytes an operation: what, which key, and which allocation fails.
    std::string fault;
    for (size_t i = 0; fault.empty() && i + 3 <= size; i += 3) {
        const auto op = TreeOp(data[i] % (static_cast<int>(TreeOp::walk) + 1));
        fault = rb.step(op, data[i + 1], data[i + 2]) + rbh.step(op, data[i + 1], data[i + 2]);
        if (fault.empty() && rb.outline() != rbh.outline())
            fault = "the two variants differ in shape\n" + rb.outline() + rbh.outline();
    }
    if (fault.empty())
        fault = rb.finish() + rbh.finish();
    if (!fault.empty()) {
        std::fprintf(stderr, "%s\n", fault.c_str());
        std::abort();
    }
    return 0;
}
