// Checks shared by the test suites and the fuzz targets, free of any test
// framework: the module's invariants over a host, and the registry's counts;
// and the module's entry points.
#pragma once

#include <string>

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

} // namespace zoktest
