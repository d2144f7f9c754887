// ZOKFWHASAHANDLER: a framework object's message handler, the
// ZOKFWMESSAGEHANDLER it sends to (a message) or files itself with (a
// behaviour).  An object that names none uses the module's default handler.
// The object does not own its handler.
#pragma once

#include "frame/keywords.hpp"
#include "frame/structs.hpp"
#include "fw/fw_saveable.hpp"

namespace flux {

#define ZOKFWHASAHANDLER_FIELDS                                                                    \
    ZOKFWSAVEABLE_FIELDS                                                                           \
    int32_t hasahandler_version;                                                                   \
    uint32_t myhandler; /* 0: the default handler */

struct HasAHandlerFields {
    ZOKFWHASAHANDLER_FIELDS
};

inline constexpr ClassRef MESSAGEHANDLER_CLASS{struct_messagehandler, "ZOKFWMESSAGEHANDLER",
                                               "ZOKfwMessageHandler"};

// Base initialisation; `keywords` is null when the object is made without a
// keyword record.  Returns 1 (0 when the saveable part fails).
int32_t hasahandler_initialise(Self self, const HandlerKeywords* keywords);
// The check of the HANDLER keyword that the initialisation makes, for an INIT
// that checks everything before it changes anything.
void check_handler_keyword(const HandlerKeywords* keywords);
// The effective handler that an object `self` would have with MYHANDLER `mine`.
uint32_t effective_handler_of(uint32_t self, uint32_t mine);
void hasahandler_cleanup(Self self);
void hasahandler_restore(Self self);

// MYHANDLER, else the default handler (made now if there is none), else 0 for
// the default handler itself.
uint32_t effective_handler(Self self);
// Stores `handler` (0: back to the default handler) after checking that it is
// a live message handler.
void set_handler(Self self, uint32_t handler);

extern const RoutineList hasahandler_routines;

} // namespace flux
