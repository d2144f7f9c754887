// ZOKFWQUERY: a message that expects an answer.  SENDQUERY sends the query
// with itself as the message's data, so that a query behaviour filed for its
// message can write the query's result; the sender then reads the result.
// The result (QUERY_RESULT) is a copy held in the query's own heap variable.
#pragma once

#include "fw/fw_message.hpp"

namespace flux {

#define ZOKFWQUERY_FIELDS                                                                          \
    ZOKFWMESSAGE_FIELDS                                                                            \
    int32_t query_version;                                                                         \
    uint32_t query_result; /* owned; 0: no result yet */

struct QueryFields {
    ZOKFWQUERY_FIELDS
};

inline constexpr ClassRef QUERY_CLASS{struct_query, "ZOKFWQUERY", "ZOKfwQuery"};

// The query's result becomes a copy of `value` (null: no result).
void query_set_result(Self query, const zok_var* value);

extern const RoutineList query_routines;

} // namespace flux
