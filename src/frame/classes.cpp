// The module's classes and routine groups, in the order of the class tree;
// the frame registers their routines and runs their session resets.
#include "dsmap/ds_map.hpp"
#include "frame/host_api.hpp"
#include "frame/module.hpp"
#include "fw/fw_behavior.hpp"
#include "fw/fw_delayargbehav.hpp"
#include "fw/fw_delaybehav.hpp"
#include "fw/fw_funcbehav.hpp"
#include "fw/fw_hashndlr.hpp"
#include "fw/fw_ident.hpp"
#include "fw/fw_message.hpp"
#include "fw/fw_messhndlr.hpp"
#include "fw/fw_objbehav.hpp"
#include "fw/fw_procbehav.hpp"
#include "fw/fw_query.hpp"
#include "fw/fw_querybehav.hpp"
#include "fw/fw_saveable.hpp"

namespace flux {
namespace {

const RoutineList* const routine_lists[] = {
    &saveable_routines,      &hasahandler_routines, &behavior_routines,  &delaybehav_routines,
    &delayargbehav_routines, &funcbehav_routines,   &procbehav_routines, &objbehav_routines,
    &querybehav_routines,    &message_routines,     &query_routines,     &messagehandler_routines,
    &dsmap_routines,         &fwident_routines,
};

// Identifiers first: every identifier is freed whatever its use count; then
// the default handler is forgotten (the host frees its heap).
const SessionReset resets[] = {
    fwident_session_reset,
    messagehandler_session_reset,
};

const LoadForget forgets[] = {
    anchor_forget,
    fwident_forget,
    messagehandler_forget,
    behavior_forget,
};

const ModuleCheck checks[] = {
    fwident_check,
};

const ClassCheck object_checks[] = {
    {"ZOKFWMESSAGEHANDLER", messagehandler_check_structure},
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
