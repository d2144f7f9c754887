// ZOKFWPROCBEHAV, and the implementation that it shares with its twin
// ZOKFWFUNCBEHAV (fw_funcbehav).
#include "fw/fw_procbehav.hpp"

#include "fw/fw_messhndlr.hpp"

#include <string>

namespace flux {
namespace {

RoutineBehavFields& fields_of(Self self) {
    return self.fields<RoutineBehavFields>();
}

// The name field takes its own copy of `text`; the text it held is left as it
// is, deliberately.  Stored only once it owns the copy, so that an unwind
// never leaves a borrowed text in the field.
void take_name(Self self, const zok_string& text) {
    zok_string copy = text;
    host_string_duplicate(&copy, 1);
    fields_of(self).name = copy;
}

} // namespace

int32_t routine_behavior_initialise(const RoutineBehavWords& words, Self self,
                                    const KeywordFront& front, const zok_string* name) {
    return behavior_initialise(self, &front, [&] {
        // Both texts are made before the fields change.
        zok_string given{};
        if (name != nullptr) {
            given = *name;
            host_string_duplicate(&given, 1);
        }
        Undo drop_given([&given] { host_string_release(&given, 1); });
        zok_string default_name{};
        host_string_store(&default_name, words.default_name);
        drop_given.commit();
        RoutineBehavFields& f = fields_of(self);
        f.routine_version = 1;
        // The default text is deliberately not released when the given one replaces it.
        f.name = name != nullptr ? given : default_name;
    });
}

void routine_behavior_cleanup(Self self) {
    host_string_release(&fields_of(self).name, 1);
    behavior_cleanup(self);
}

zok_var* routine_behavior_name(Self self) {
    TempGuard result(host_temp_var());
    zok_string copy = fields_of(self).name;
    host_string_duplicate(&copy, 1);
    result->value.str = copy;
    result->type = ZOK_T_STRING;
    return result.release();
}

void routine_behavior_set_name(const RoutineBehavWords& words, Self self, const zok_var* name) {
    // An array of strings is no name either.
    if (name->type != ZOK_T_STRING || (name->flags & ZOK_VF_NOT_SIMPLE) != 0)
        host_message(ZOK_MSG_ARG_TYPE, ZOK_ACTION_ERROR, words.setter);
    take_name(self, name->value.str);
}

void routine_behavior_execute(const RoutineBehavWords& words, Self self, zok_var* argument) {
    const zok_string& text = fields_of(self).name;
    // The name as a text of its own: a stored name may hold a NUL byte.
    const std::string name(text.length != 0 ? text.text : "", text.length);
    const zok_name* routine = host_lookup_name(name.c_str(), 0, 1, ZOK_ACTION_ERROR, 0);
    zok_var* args[] = {argument, nullptr};
    const zok_call_block call{words.is_function, {}, 1, routine, nullptr, args, nullptr};
    // A function's result is dropped.
    TempGuard result(host_call_routine(&call));
}

void routine_behavior_restore(const RoutineBehavWords& words, Self self) {
    behavior_restore(self);
    RoutineBehavFields& f = fields_of(self);
    if (f.routine_version >= 1)
        return;
    f.routine_version = 1;
    host_string_release(&f.name, 1);
    host_string_store(&f.name, words.default_name);
}

namespace {

constexpr RoutineBehavWords PROCBEHAV_WORDS{
    {struct_procbehav, "ZOKFWPROCBEHAV", "ZOKfwProcBehav"},
    procbehav_keyword_table,
    "UnitializedProcedure",
    "ZOKfwProcBehav::SetProc",
    0,
};

using Routines =
    RoutineBehavRoutines<PROCBEHAV_WORDS, ProcBehavKeywords, &ProcBehavKeywords::procedure_given,
                         &ProcBehavKeywords::procedure>;

constexpr zok_routine_entry functions[] = {
    function_entry(Routines::init, "ZOKFWPROCBEHAV::INIT", 1, 1, ZOK_RT_KEYWORDS),
    function_entry(Routines::name, "ZOKFWPROCBEHAV::PROC", 1, 1),
};
constexpr zok_routine_entry procedures[] = {
    procedure_entry(Routines::cleanup, "ZOKFWPROCBEHAV::CLEANUP", 1, 1),
    procedure_entry(Routines::execute, "ZOKFWPROCBEHAV::EXECUTE", 1, 2),
    procedure_entry(Routines::restore, "ZOKFWPROCBEHAV::RESTORE", 1, 1),
    procedure_entry(Routines::set_name, "ZOKFWPROCBEHAV::SETPROC", 2, 2),
};

} // namespace

const RoutineList procbehav_routines{functions, procedures};

} // namespace flux
