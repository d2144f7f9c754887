// The FW_Ident registry: each distinct message text gets one identifier, the
// heap identifier of a module-held heap pointer variable whose value is the
// text.  Uses are counted; a collection frees identifiers nobody uses; rollover
// maps an identifier that came back from a restore (a new heap variable with
// the same text) onto the live identifier of that text.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "frame/routines.hpp"

namespace flux {

// The text of an identifier: its heap variable's string, or null when it has
// no heap variable or the variable holds no single string.
const zok_string* fwident_text(uint32_t ident);
// Finds or makes the identifier of `name` and counts one use of it.  When
// memory runs out the registry is left as it was.
uint32_t fwident_acquire_name(const zok_string* name);
// Count one more / one fewer use of the identifier's text; an identifier whose
// heap variable is gone, or whose text has no entry, is ignored.
void fwident_acquire(uint32_t ident);
void fwident_release(uint32_t ident);
// The live identifier for the text of `ident` (one use counted), or 0 when
// `ident` names no heap variable.  A stale `ident` is parked and freed by the
// next collection.  When memory runs out the registry is left as it was.
uint32_t fwident_rollover(uint32_t ident);
// Frees parked stale identifiers and every identifier whose use count is 0 or
// less (every identifier when `all`).
void fwident_collect(bool all);
// The identifier of a text obtained ahead by a call that may still fail: the
// text's entry is made now when it has none (no use counted), and an entry made
// here goes again if the call fails before it commits, that is before it stores
// the identifier or calls out.  Once committed, the ordinary rules hold.
struct IdentRecord;

class IdentReservation {
public:
    explicit IdentReservation(const zok_string* name);
    explicit IdentReservation(const char* fixed_name);
    IdentReservation(const IdentReservation&) = delete;
    IdentReservation& operator=(const IdentReservation&) = delete;
    ~IdentReservation();
    uint32_t ident() const { return ident_; }
    void commit() { made_ = false; }
    // Counts one use, as fwident_acquire(ident()) does, through the entry found
    // or made here (no entry goes while a reservation is held uncommitted).
    void acquire();

private:
    IdentRecord* obtain(const zok_string* name);

    uint32_t ident_ = 0;
    IdentRecord* record_ = nullptr;
    bool made_ = false;
};
// The order of identifiers: by text.  Raises "FWIdent corruption" when either
// identifier names no heap variable.
int fwident_order(uint32_t a, uint32_t b);

// ---- Diagnostics for tests.
struct FwIdentEntry {
    std::string name;
    uint32_t ident;
    int32_t uses;
};
// Live identifiers in name order, and the parked stale ones in identifier order.
std::vector<FwIdentEntry> fwident_entries();
std::vector<uint32_t> fwident_parked();
// The first broken invariant of the registry, or "" when it is sound.
std::string fwident_check();

// Full collection at a session reset.
void fwident_session_reset();
// Forgets both indexes without freeing them (their host has gone).
void fwident_forget();

extern const RoutineList fwident_routines;

} // namespace flux
