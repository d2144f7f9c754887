// The module's classes and routine groups, in the order of the class tree;
// the frame registers their routines and runs their session resets.
#include "dsmap/ds_map.hpp"
#include "frame/module.hpp"
#include "fw/fw_ident.hpp"
#include "fw/fw_saveable.hpp"

namespace flux {
namespace {

const RoutineList* const routine_lists[] = {
    &saveable_routines,
    &dsmap_routines,
    &fwident_routines,
};

// Identifiers first: every identifier is freed whatever its use count.
const SessionReset resets[] = {
    fwident_session_reset,
};

const LoadForget forgets[] = {
    fwident_forget,
};

const ModuleCheck checks[] = {
    fwident_check,
};

const ClassCheck object_checks[] = {
    {"ZOKDSMAP", dsmap_check},
};

} // namespace

std::span<const ModuleCheck> module_checks() {
    return checks;
}

std::span<const ClassCheck> class_checks() {
    return object_checks;
}

std::span<const LoadForget> load_forgets() {
    return forgets;
}

std::span<const RoutineList* const> class_routine_lists() {
    return routine_lists;
}

std::span<const SessionReset> session_resets() {
    return resets;
}

} // namespace flux
