// What the frame needs from the rest of the module: every class's routine
// list, and the steps that a session reset runs, in order.
#pragma once

#include <span>

#include "frame/routines.hpp"

namespace flux {

int32_t load_module();
void reset_session();

std::span<const RoutineList* const> class_routine_lists();

using SessionReset = void (*)();
std::span<const SessionReset> session_resets();

} // namespace flux
