// ZOKDSMAP: a host class mapping string keys to copies of host values, kept
// in key order.
#pragma once

#include <string>

#include "frame/routines.hpp"

namespace flux {

// Instance fields from the anchor tag ZOKDSMAP_VERSION.
struct DsMapFields {
    int32_t version;  // no method writes it
    uint32_t the_map; // head of the maph map; keeps its value after CLEANUP
};

extern const RoutineList dsmap_routines;

// The first broken invariant of a ZOKDSMAP object's map, or "" when it is
// sound: the tree, and its entries in strictly ascending key order, each with
// a string key and a value heap variable of its own.
std::string dsmap_check(uint32_t object);

} // namespace flux
