// ZOKFWFUNCBEHAV: the twin of ZOKFWPROCBEHAV (fw_procbehav) that calls a
// function and drops its result.
#pragma once

#include "fw/fw_procbehav.hpp"

namespace flux {

extern const RoutineList funcbehav_routines;

} // namespace flux
