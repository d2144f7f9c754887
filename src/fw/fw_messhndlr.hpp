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

#include <cstddef>
#include <deque>
#include <optional>
#include <span>
#include <string>

#include "fw/fw_hashndlr.hpp"
#include "fw/fw_ident.hpp"
#include "maps/maph.hpp"

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

// A snapshot of a behaviour set (0: none): its identifiers in set order, in a
// block ("ZOkfwBehaviorList") that is given back when the snapshot goes (with
// `free_label` when given).  Every walk over a set that may call out goes over one.
class BehaviorList {
public:
    explicit BehaviorList(uint32_t set, const char* free_label = nullptr);
    BehaviorList(const BehaviorList&) = delete;
    BehaviorList& operator=(const BehaviorList&) = delete;
    ~BehaviorList();
    const uint32_t* begin() const { return ids_; }
    const uint32_t* end() const { return ids_ + count_; }
    std::size_t size() const { return count_; }

private:
    uint32_t* ids_ = nullptr;
    std::size_t count_ = 0;
    const char* free_label_;
};

// The set of the first handler up the chain from `handler` (itself first) that
// scopes `ident`, or 0 when none does.  Makes the default handler when the
// chain reaches it and it does not exist.
uint32_t receiving_set(uint32_t handler, uint32_t ident);
// Calls EXECUTE of every behaviour of the snapshot, in its order (ascending
// identifier).  `argument` may be null.
void deliver(const BehaviorList& receivers, zok_var* argument);
// Both: a message that nobody scopes is dropped.
void send_message(uint32_t handler, uint32_t ident, zok_var* argument);

// Files `behavior` under its message in the nearest scope up the chain from
// `handler`, scoping the message at the root when nobody does.  It obtains all
// it needs before it files anything: it fails without a change, or not at all.
void add_behavior(uint32_t handler, uint32_t behavior);
// The same for a behaviour known to be one, filed under its message `ident`;
// `reached`, when not 0, is the set that the climb from `handler` reaches, found
// by the caller with nothing changed since.
void add_behavior(uint32_t handler, uint32_t behavior, uint32_t ident, uint32_t reached = 0);
// Takes `behavior` out of the first scope up the chain that files it; the
// default handler drops a scope that this leaves empty.  Makes nothing.
void remove_behavior(uint32_t handler, uint32_t behavior);
void remove_behavior(uint32_t handler, uint32_t behavior, uint32_t ident);
// Whether that removal takes the default handler's last scope away, and so the
// default handler itself.
bool removal_frees_default(uint32_t handler, uint32_t behavior);

// Makes `handler` scope `ident` and pulls down the registered behaviours of
// the nearest enclosing scope whose chains pass through it.
void scope_message(uint32_t handler, uint32_t ident);
// Removes the scope; its registered behaviours move to the next enclosing
// scope, the others are dropped.  The default handler goes when it has no
// scope left.  Both obtain all they need before they change anything.
void unscope_message(uint32_t handler, uint32_t ident);

// The default handler obtained for a call that may still fail: one made while
// the guard is armed (there was none when it began) goes again, empty, unless
// the call commits before it files anything in it or calls out.
class DefaultHandlerGuard {
public:
    DefaultHandlerGuard();
    DefaultHandlerGuard(const DefaultHandlerGuard&) = delete;
    DefaultHandlerGuard& operator=(const DefaultHandlerGuard&) = delete;
    ~DefaultHandlerGuard();
    void commit() { armed_ = false; }

private:
    bool armed_;
};

// A default handler made ahead for a call that may free the default handler
// and then need one again: the next one asked for while it is held is this
// one.  It goes again if nobody took it.
class SpareDefaultHandler {
public:
    SpareDefaultHandler();
    SpareDefaultHandler(const SpareDefaultHandler&) = delete;
    SpareDefaultHandler& operator=(const SpareDefaultHandler&) = delete;
    ~SpareDefaultHandler();
};

// The re-filing of the registered behaviours of a set that a scope change moves
// (the scope of `ident` made below it, or `unscoped`, the set itself, taken
// out of its table first), with all it needs found and obtained: the snapshot,
// each behaviour checked, the default handler that their climbs reach, the
// registry entry of every message that gets a new root scope, and a spare
// default handler when the re-filing may empty the default handler and then
// file a behaviour at the root.  With nodes() tree nodes reserved, run()
// cannot fail.
class Refiling {
public:
    Refiling(uint32_t set, uint32_t unscoped, const char* free_label);
    std::size_t nodes() const;
    void run();

private:
    BehaviorList movers_;
    std::size_t registered_ = 0;
    std::deque<IdentReservation> root_keys_;
    std::optional<SpareDefaultHandler> spare_;
};

// A scope about to be made in `handler` for `ident`, with all it needs found
// and obtained: the key's identifier, the re-filing of the registered
// behaviours of the enclosing scope that it pulls down, the default handler
// when the chain needs it.  With nodes() tree nodes reserved, commit() cannot
// fail.
class ScopePlan {
public:
    ScopePlan(uint32_t handler, uint32_t ident);
    bool needed() const { return key_.has_value(); }
    std::size_t nodes() const;
    void commit();

private:
    uint32_t handler_;
    std::optional<IdentReservation> key_;
    std::optional<Refiling> movers_;
};

// The message part of a behaviour's or a message's INIT, in two steps so that
// the class's own work, which may fail, runs between them: the constructor
// obtains every identifier, tree node and default handler that the MESSAGESTRING,
// SCOPE and (for a behaviour) REGISTER keywords need; finish() stores the
// message's identifier in `ident_field`, scopes and registers, and cannot fail.
class MessageInit {
public:
    MessageInit(Self self, const KeywordFront* keywords, bool may_register);
    void finish(uint32_t& ident_field);

private:
    Self self_;
    bool register_;
    uint32_t reached_ = 0; // the set REGISTER files in, when the climb found one
    DefaultHandlerGuard made_default_;
    IdentReservation generic_;
    std::optional<IdentReservation> text_;
    std::optional<ScopePlan> scope_;
    MaphReserve nodes_;
};

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

void messagehandler_session_reset();
void messagehandler_forget();

extern const RoutineList messagehandler_routines;

} // namespace flux
