// ZOKFWSAVEABLE, the root of the framework's classes: a layout version and the
// restored flag that lets a web of objects be restored with each object's
// RESTORE running once per pass.
#pragma once

#include "frame/host_api.hpp"
#include "frame/routines.hpp"

namespace flux {

// Instance fields from the anchor tag.  Each class's layout lists its
// parent's fields first, flat, as the host lays out inherited tags.
#define ZOKFWSAVEABLE_FIELDS                                                                       \
    double top; /* ZOKFWSAVEABLE_TOP: the restored flag */                                         \
    int32_t saveable_version;

struct SaveableFields {
    ZOKFWSAVEABLE_FIELDS
};

int32_t saveable_initialise(Self self);
void saveable_cleanup(Self self);
void saveable_restore(Self self);

// Runs the object's RESTORE (its most derived class's) unless its restored
// flag says it already ran in this pass.
void restore_once(const double* restored_flag, uint32_t heap_id);

extern const RoutineList saveable_routines;

} // namespace flux
