// ZOKFWDELAYBEHAV: a behaviour that defers its work.  Its message arms an
// inner object-method behaviour (SUB_BEHAVIOR, owned: made by INIT, destroyed
// by CLEANUP) whose target is the delayed behaviour itself and whose method
// is DELAYEXECUTE; the inner behaviour's message, the delay message, then
// runs the deferred call once and disarms it.  Any number of arming messages
// before the delay message lead to one call.
//
// States: unarmed (inner behaviour not registered; after INIT and after each
// deferred call) and armed (inner behaviour registered; after EXECUTE).
#pragma once

#include "fw/fw_behavior.hpp"

namespace flux {

#define ZOKFWDELAYBEHAV_FIELDS                                                                     \
    ZOKFWBEHAVIOR_FIELDS                                                                           \
    int32_t delaybehav_version;                                                                    \
    uint32_t object;     /* the deferred call's target, not owned */                               \
    uint32_t meth_ident; /* its method's identifier, one counted use */                            \
    uint32_t sub_behavior;

struct DelayBehavFields {
    ZOKFWDELAYBEHAV_FIELDS
};

// Initialisation after the keywords; 0 when the base initialisation fails.
int32_t delaybehav_initialise(Self self, const DelayBehavKeywords& k);
void delaybehav_cleanup(Self self);
// Arms the trigger (registering an armed one again does nothing).
void delaybehav_arm(Self self);
// The deferred call with the argument (or none), then disarming.  A dead or
// unset target unregisters the delayed behaviour.  False when the call
// destroyed the delayed behaviour itself.
bool delaybehav_run(Self self, zok_var* argument);

extern const RoutineList delaybehav_routines;

} // namespace flux
