// Shared by the test suites and the fuzz targets, free of any test framework:
// the module's entry points, the module's invariants over a host, the
// registry's counts, and the making of save files.
#pragma once

#include <unistd.h>
#include <zlib.h>

#include <filesystem>

#include "frame/module.hpp"
#include "fw/fw_ident.hpp"
#include "host.hpp"

extern "C" int32_t ZOK_Load();
extern "C" void ZOK_ResetSession();

namespace zoktest {

// The first broken invariant of the module, then of every live object of a
// class with a check; "" when there is none.
inline std::string module_fault(zok::Host& host) {
    for (const flux::ModuleCheck check : flux::module_checks())
        if (std::string fault = check(); !fault.empty())
            return "module check: " + fault;
    for (const uint32_t id : host.heap_ids(ZOK_HEAP_OBJECT))
        for (const flux::ClassCheck& c : flux::class_checks())
            if (host.isa(zok::ObjectRef{id}, c.class_name))
                if (std::string fault = c.check(id); !fault.empty())
                    return std::string(c.class_name) + " check: " + fault;
    return "";
}

// The registry's use counts, which no observation of the host shows.
inline std::string registry_counts() {
    std::string out;
    for (const flux::FwIdentEntry& e : flux::fwident_entries())
        out += e.name + "=" + std::to_string(e.uses) + " ";
    return out;
}

// A save file of format version 1 around `content`, with a sound checksum.
inline std::string with_header(const std::string& content) {
    std::string out = "ZOKSAVE\x1a";
    auto put = [&](auto v) { out.append(reinterpret_cast<const char*>(&v), sizeof v); };
    put(uint32_t{1});
    put(static_cast<uint32_t>(
        crc32_z(0, reinterpret_cast<const unsigned char*>(content.data()), content.size())));
    put(uint64_t{content.size()});
    return out + content;
}

// A file in memory where the system offers it (tests and fuzzers write
// thousands), removed however the test ends.
struct TempFile {
    const std::filesystem::path dir = std::filesystem::is_directory("/dev/shm")
                                          ? "/dev/shm"
                                          : std::filesystem::temp_directory_path();
    const std::string path = dir / ("zok." + std::to_string(::getpid()) + ".zoksave");
    ~TempFile() { std::filesystem::remove(path); }
};

} // namespace zoktest
