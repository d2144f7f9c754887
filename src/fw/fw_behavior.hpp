// ZOKFWBEHAVIOR: the receiving end of a message.  A behaviour names its
// message by an identifier (MESSIDENT, one counted use) and, once registered,
// is filed under it in the nearest handler up its own chain that scopes it;
// every send that reaches that scope calls its EXECUTE, which subclasses
// override.
#pragma once

#include "fw/fw_hashndlr.hpp"
#include "fw/fw_messhndlr.hpp"

namespace flux {

#define ZOKFWBEHAVIOR_FIELDS                                                                       \
    ZOKFWHASAHANDLER_FIELDS                                                                        \
    int32_t behavior_version;                                                                      \
    uint8_t is_registered; /* set by REGISTER, cleared by UNREGISTER only */                       \
    uint32_t messident;

struct BehaviorFields {
    ZOKFWBEHAVIOR_FIELDS
};

inline constexpr ClassRef BEHAVIOR_CLASS{struct_behavior, "ZOKFWBEHAVIOR", "ZOKfwBehavior"};

// Base initialisation with the shared front of a keyword record (null: no
// keywords).  Returns 1, or 0 when the handler part fails.  A subclass's own
// initialisation runs as `own_part` (which obtains all it needs before it
// writes a field), after everything that registering and scoping need has been
// obtained and before any field is written or anything filed, so that a
// failure, of an INIT run again on a live object too, changes nothing.
template <class OwnPart>
int32_t behavior_initialise(Self self, const KeywordFront* keywords, OwnPart&& own_part) {
    const HandlerKeywords* handler = keywords != nullptr ? &keywords->h : nullptr;
    check_handler_keyword(handler);
    MessageInit message(self, keywords, true);
    own_part();
    if (hasahandler_initialise(self, handler) == 0)
        return 0;
    BehaviorFields& f = self.fields<BehaviorFields>();
    f.behavior_version = 1;
    f.is_registered = 0;
    message.finish(f.messident);
    return 1;
}
inline int32_t behavior_initialise(Self self, const KeywordFront* keywords) {
    return behavior_initialise(self, keywords, [] {});
}
void behavior_cleanup(Self self);
void behavior_restore(Self self);

// REGISTER and UNREGISTER: file self with, or take it from, its effective
// handler's chain; each does nothing when already in that state.  `reached`,
// when not 0, is the set the climb for self's message reaches, found by the
// caller with nothing changed since.
void behavior_register(Self self, uint32_t reached = 0);
void behavior_unregister(Self self);
// A registered behaviour is taken out and filed again, so that it lands in
// whatever scope is now the nearest for its message; others stay as they are.
// Run by the scoping operations once they hold all it needs.
void behavior_reregister(uint32_t behavior);

// SETMESSAGESTRING: the registration is deliberately left where it is.
void behavior_set_message(Self self, const zok_var* text);

// Calls the behaviour's EXECUTE (its most derived class's) with the argument,
// or with none.
void execute_behavior(uint32_t behavior, zok_var* argument);

// The order of behaviour sets: by the wrapping difference of the identifiers.
// Inline: every search of a set compares through it.
inline int behavior_order(uint32_t a, uint32_t b) {
    return static_cast<int32_t>(a - b);
}

extern const RoutineList behavior_routines;

void behavior_forget();

} // namespace flux
