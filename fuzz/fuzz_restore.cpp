// Restores its input as a save file into a host with the module and the program
// classes of the save tests.  An input whose first byte is odd is taken as the
// content alone and gets a sound header (checksum included) in front, so the
// decoder is reached as often as the checks before it.  A refused file must leave
// everything a program can observe as it was; a restored one must leave a sound
// heap, and a session reset afterwards must give back every text and block.
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "../tests/support/checks.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const zoktest::TempFile file;
    static zok::Host& h = *[] {
        auto* host = new zok::Host;
        host->load_module(ZOK_Load, ZOK_ResetSession);
        host->define_struct("PROBE", {}, "ZOKFWBEHAVIOR");
        host->define_struct("TARGET", {{"N", ZOK_T_LONG}});
        host->reset_session(); // the module makes what it keeps for good on its first reset
        return host;
    }();
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    std::ofstream(file.path, std::ios::binary | std::ios::trunc)
        << (size > 0 && (data[0] & 1) ? zoktest::with_header(bytes.substr(1)) : bytes);
    const zok::Observation before = h.observe();
    std::string refused;
    try {
        h.restore(file.path);
    } catch (const zok::Error& e) {
        refused = e.text();
    }
    if (refused.empty()) {
        h.check_heap();
        h.reset_session();
        for (const auto& [name, _] : h.observe().vars)
            h.erase_var(name);
    }
    if (std::string diff = zok::difference(before, h.observe()); !diff.empty()) {
        std::fprintf(stderr, "%s left something behind: %s\n",
                     refused.empty() ? "a restored file, after a reset," : refused.c_str(),
                     diff.c_str());
        std::abort();
    }
    return 0;
}
