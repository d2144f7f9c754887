// Restores its input as a save file into a host with the module and the program
// classes of the save tests.  An input whose first byte is odd is taken as the
// content alone and gets a sound header (checksum included) in front, so the
// decoder is reached as often as the checks before it.  A refused file must leave
// everything a program can observe as it was; a restored one must leave a sound
// heap, and a session reset afterwards must give back every text and block.
#include <unistd.h>
#include <zlib.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "host.hpp"

extern "C" int32_t ZOK_Load();
extern "C" void ZOK_ResetSession();

namespace {

zok::Host& host() {
    static zok::Host* the_host = [] {
        auto* h = new zok::Host;
        h->load_module(ZOK_Load, ZOK_ResetSession);
        h->define_struct("PROBE", {}, "ZOKFWBEHAVIOR");
        h->define_struct("TARGET", {{"N", ZOK_T_LONG}});
        h->reset_session(); // the module makes what it keeps for good on its first reset
        return h;
    }();
    return *the_host;
}

const std::string& path() {
    static const std::string p = "/dev/shm/fuzz_restore." + std::to_string(::getpid());
    return p;
}

std::string with_header(const uint8_t* content, size_t size) {
    std::string out = "ZOKSAVE\x1a";
    auto put = [&](auto v) { out.append(reinterpret_cast<const char*>(&v), sizeof v); };
    put(uint32_t{1});
    put(static_cast<uint32_t>(crc32_z(0, content, size)));
    put(uint64_t{size});
    out.append(reinterpret_cast<const char*>(content), size);
    return out;
}

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "%s\n", what.c_str());
    std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    zok::Host& h = host();
    const std::string file = size > 0 && (data[0] & 1)
                                 ? with_header(data + 1, size - 1)
                                 : std::string(reinterpret_cast<const char*>(data), size);
    std::ofstream(path(), std::ios::binary | std::ios::trunc) << file;
    const zok::Observation before = h.observe();
    try {
        h.restore(path());
        std::remove(path().c_str());
    } catch (const zok::Error& e) {
        std::remove(path().c_str());
        if (std::string diff = zok::difference(before, h.observe()); !diff.empty())
            fail("a refused file changed the host (" + e.text() + "): " + diff);
        return 0;
    }
    h.check_heap();
    h.reset_session();
    for (const auto& [name, _] : h.observe().vars)
        h.erase_var(name);
    if (std::string diff = zok::difference(before, h.observe()); !diff.empty())
        fail("a restored file left something behind after a reset: " + diff);
    return 0;
}
