// ZOKFWDELAYARGBEHAV: a delayed behaviour (fw_delaybehav) whose arming calls
// each bring an integer; the deferred call passes the largest since the last
// one (ARG, never below 0) as its one argument and starts again from 0.
#pragma once

#include "fw/fw_delaybehav.hpp"

namespace flux {

extern const RoutineList delayargbehav_routines;

} // namespace flux
