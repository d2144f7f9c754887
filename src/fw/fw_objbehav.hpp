// ZOKFWOBJBEHAV: a behaviour that answers its message by calling a method,
// named by an identifier (METH_IDENT, one counted use), on a target object
// (OBJECT, not owned).  A behaviour whose target has died, or was never set,
// unregisters itself on the first delivery that reaches it.
#pragma once

#include "fw/fw_behavior.hpp"

namespace flux {

#define ZOKFWOBJBEHAV_FIELDS                                                                       \
    ZOKFWBEHAVIOR_FIELDS                                                                           \
    int32_t objbehav_version;                                                                      \
    uint32_t object;                                                                               \
    uint32_t meth_ident;

struct ObjBehavFields {
    ZOKFWOBJBEHAV_FIELDS
};

inline constexpr ClassRef OBJBEHAV_CLASS{struct_objbehav, "ZOKFWOBJBEHAV", "ZOKfwObjBehav"};

// Calls the method named by `meth_ident` on `object` with the argument, or
// with none when `argument` is null.  False when `object` names no live
// object; an identifier without text or a name that nobody registered calls
// nothing, quietly.
bool call_named_method(uint32_t object, uint32_t meth_ident, zok_var* argument);

// Points `field` at the identifier of `text`: the new text's use is counted
// before the old one's is given back.
void replace_method_ident(uint32_t& field, const zok_string& text);

// SETMETHOD: a text that is not one string is refused with host message -209.
void objbehav_set_method(Self self, const zok_var* text);

extern const RoutineList objbehav_routines;

} // namespace flux
