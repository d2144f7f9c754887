// What the frame needs from the rest of the module: every class's routine
// list, and the steps that a session reset runs, in order.
#pragma once

#include <span>
#include <string>

#include "frame/routines.hpp"

namespace flux {

int32_t load_module();
void reset_session();

std::span<const RoutineList* const> class_routine_lists();

using SessionReset = void (*)();
std::span<const SessionReset> session_resets();

// Module state is per host process.  A load forgets whatever an earlier load
// left (a test process may load the module into several hosts in turn, and the
// memory of the earlier host is gone).
using LoadForget = void (*)();
std::span<const LoadForget> load_forgets();

// Invariant checks for tests and fuzzers, each giving the first broken
// invariant it finds or "" when all is sound: of the module's global state,
// and of one object of a class (run on every live object that is of that
// class or derives from it).
using ModuleCheck = std::string (*)();
std::span<const ModuleCheck> module_checks();

using ObjectCheck = std::string (*)(uint32_t object);
struct ClassCheck {
    const char* class_name;
    ObjectCheck check;
};
std::span<const ClassCheck> class_checks();

} // namespace flux
