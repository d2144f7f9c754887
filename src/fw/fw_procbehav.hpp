// ZOKFWPROCBEHAV and ZOKFWFUNCBEHAV: behaviours that answer their message by
// calling a program routine named by a text, a procedure or a function whose
// result is dropped.  The twins are one implementation over the few words that
// tell them apart (RoutineBehavWords); each class file instantiates the
// routines below with its words and lists them.
//
// The name field owns its text.  Setting a new name deliberately does not
// give the old text back (the setter and INIT's keyword both overwrite it).
#pragma once

#include "fw/fw_behavior.hpp"

namespace flux {

// Instance fields of either twin; the two markers around the name are never
// read or written.
struct RoutineBehavFields {
    ZOKFWBEHAVIOR_FIELDS
    int64_t marker_top;
    int32_t routine_version;
    zok_string name;
    int64_t marker_bottom;
};

struct RoutineBehavWords {
    ClassRef cls;
    const zok_keyword_entry* keywords;
    const char* default_name; // until a name is set, and after an upgrading RESTORE
    const char* setter;       // the setter's name in its wrong-type message
    uint8_t is_function;      // the routine is called as a function
};

// INIT after the keywords: the base initialisation, then the name (`name`
// null when the keyword was not given).
int32_t routine_behavior_initialise(const RoutineBehavWords& words, Self self,
                                    const KeywordFront& front, const zok_string* name);
void routine_behavior_cleanup(Self self);
// A temporary string holding its own copy of the name.
zok_var* routine_behavior_name(Self self);
void routine_behavior_set_name(const RoutineBehavWords& words, Self self, const zok_var* name);
// Calls the named routine with exactly one argument, undefined when `argument`
// is null.  The host reports a name that it does not know.
void routine_behavior_execute(const RoutineBehavWords& words, Self self, zok_var* argument);
void routine_behavior_restore(const RoutineBehavWords& words, Self self);

// The registered routines of one twin; Keywords is its results record, whose
// name keyword sits at Given / Name.
template <const RoutineBehavWords& W, class Keywords, int32_t Keywords::*Given,
          zok_string Keywords::*Name>
struct RoutineBehavRoutines {
    static zok_var* init(int32_t argc, zok_var** argv, zok_keywords* kw) {
        return keyword_init<Keywords>(
            argc, argv, kw, W.keywords, W.cls, [](Self self, const Keywords& k) {
                return routine_behavior_initialise(W, self, k.front,
                                                   k.*Given != 0 ? &(k.*Name) : nullptr);
            });
    }
    static zok_var* name(int32_t, zok_var** argv, zok_keywords*) {
        return routine_behavior_name(class_self(argv, W.cls));
    }
    static void cleanup(int32_t, zok_var** argv, zok_keywords*) {
        routine_behavior_cleanup(class_self(argv, W.cls));
    }
    static void execute(int32_t argc, zok_var** argv, zok_keywords*) {
        routine_behavior_execute(W, class_self(argv, W.cls), argc == 2 ? argv[1] : nullptr);
    }
    static void restore(int32_t, zok_var** argv, zok_keywords*) {
        routine_behavior_restore(W, class_self(argv, W.cls));
    }
    static void set_name(int32_t, zok_var** argv, zok_keywords*) {
        routine_behavior_set_name(W, class_self(argv, W.cls), argv[1]);
    }
};

extern const RoutineList procbehav_routines;

} // namespace flux
