// A value that an object owns in a heap variable of its own, named by one of
// its heap-pointer fields (0: no value).  Values go in and come out as
// copies, so that neither side sees what the other does with its own.  Used
// by the query's result and the query behaviour's response.
#pragma once

#include <cstdint>

#include <zok/zok.h>

namespace flux {

// A temporary holding a copy of the held value; `unset_text` as a string when
// nothing is held, and an undefined temporary when the heap variable has gone.
zok_var* held_value_copy(uint32_t held, const char* unset_text);

// Copies `value` into the held heap variable (made when there is none), or
// frees it when `value` is null.  A heap variable that cannot be made leaves
// the field 0 without a message; one that has gone is the host's error.
void held_value_set(uint32_t& field, const zok_var* value);

} // namespace flux
