// ZOKFWQUERYBEHAV: a behaviour that answers a query with a fixed response.
// When its message arrives with a query as the data, the query's result
// becomes a copy of the response (RESPONSE, a copy held in the behaviour's
// own heap variable; 0: no response).
#pragma once

#include "fw/fw_behavior.hpp"

namespace flux {

#define ZOKFWQUERYBEHAV_FIELDS                                                                     \
    ZOKFWBEHAVIOR_FIELDS                                                                           \
    int32_t querybehav_version;                                                                    \
    uint32_t response; /* owned; 0: no response */

struct QueryBehavFields {
    ZOKFWQUERYBEHAV_FIELDS
};

extern const RoutineList querybehav_routines;

} // namespace flux
