// ZOKDSMAP: a host class mapping string keys to copies of host values, kept
// in key order.
#pragma once

#include "frame/routines.hpp"

namespace flux {

// Instance fields from the anchor tag ZOKDSMAP_VERSION.
struct DsMapFields {
    int32_t version;  // no method writes it
    uint32_t the_map; // head of the maph map; keeps its value after CLEANUP
};

extern const RoutineList dsmap_routines;

} // namespace flux
