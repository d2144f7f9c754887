// ZOKFWMESSAGEHANDLER: routes messages to behaviours.  Every framework object
// has an effective handler (MYHANDLER, or the module's default handler when
// that is 0), so handlers form chains that end at the default handler.  A
// handler's scope table files, per message it scopes, the set of behaviours
// under that message; a send climbs its chain to the first handler that
// scopes the message and runs that scope's behaviours.
//
// Scope table (BEHAVIORS): a heap-backed map from message identifier (ordered
// by text, one counted use per key) to the heap identifier of a behaviour set.
// Behaviour set: a heap-backed map from behaviour heap identifier (ordered by
// the wrapping difference) to 0.
#pragma once

#include <span>
#include <string>

#include "fw/fw_hashndlr.hpp"

namespace flux {

#define ZOKFWMESSAGEHANDLER_FIELDS                                                                 \
    ZOKFWHASAHANDLER_FIELDS                                                                        \
    int32_t messagehandler_version;                                                                \
    uint32_t behaviors; /* the scope table; 0 after CLEANUP */

struct MessageHandlerFields {
    ZOKFWMESSAGEHANDLER_FIELDS
};

// The default handler, 0 when there is none; and the same, made first when
// there is none (a ZOKFWMESSAGEHANDLER without keywords, held by the module).
uint32_t default_handler();
uint32_t ensure_default_handler();

// The behaviour set that `handler` itself files under `ident`, or 0.
uint32_t find_scope(uint32_t handler, uint32_t ident);

// Climbs from `handler` to the first handler that scopes `ident` and delivers
// there; a message that nobody scopes is dropped.  `argument` may be null.
void send_message(uint32_t handler, uint32_t ident, zok_var* argument);
// Calls EXECUTE of every behaviour of the set, over a snapshot taken first,
// in ascending identifier order.
void deliver(uint32_t set, zok_var* argument);

// Files `behavior` under its message in the nearest scope up the chain from
// `handler`, scoping the message at the root when nobody does.
void add_behavior(uint32_t handler, uint32_t behavior);
// Takes `behavior` out of the first scope up the chain that files it; the
// default handler drops a scope that this leaves empty.
void remove_behavior(uint32_t handler, uint32_t behavior);

// Whether a scope up the behaviour's own chain files it under its message;
// makes nothing (a chain that reaches no default handler ends there).
bool chain_files(uint32_t behavior);

// Makes `handler` scope `ident` and pulls down the registered behaviours of
// the nearest enclosing scope whose chains pass through it.
void scope_message(uint32_t handler, uint32_t ident);
// Removes the scope; its registered behaviours move to the next enclosing
// scope, the others are dropped.  The default handler goes when it has no
// scope left.
void unscope_message(uint32_t handler, uint32_t ident);

// ---- Diagnostics.
// The first broken invariant of a handler's scope table, or "" when sound:
// a sound tree of keys ascending by text, each the registry's live identifier
// with a use counted for the table, each with a sound set of live behaviours.
std::string messagehandler_check(uint32_t handler);
// The part of it that holds whatever a program does: a program that destroys a
// behaviour filed without registration, or releases and collects identifiers
// that objects still hold, leaves dead names in a table, never a broken one.
std::string messagehandler_check_structure(uint32_t handler);
// A Graphviz picture of the handlers, the chains above them, their scopes and
// the behaviours filed in each; nothing is made or changed to draw it.
std::string handler_chain_dot(std::span<const uint32_t> handlers);

// What a messaging routine has made so far, taken as it starts.  When the
// routine ends with an error, a default handler that it made on its way (one
// is made on first need) and that files nothing, and the identifiers it made
// that count no use, are given back, so that a failed call leaves the host as
// it found it.
struct CallMark {
    uint32_t default_handler;
    uint64_t registry;
};
CallMark call_mark();
void give_back_since(const CallMark& mark);

// Every routine of the messaging classes runs through this.  The give-back
// sits in a handler, so the call path of a routine that succeeds (a delivery's
// EXECUTE among them) pays nothing for it.
template <auto Routine>
auto messaging_routine(int32_t argc, zok_var** argv, zok_keywords* kw) {
    const CallMark mark = call_mark();
    try {
        return Routine(argc, argv, kw);
    } catch (...) {
        give_back_since(mark);
        throw;
    }
}

void messagehandler_session_reset();
void messagehandler_forget();

extern const RoutineList messagehandler_routines;

} // namespace flux
