// ZOKFWFUNCBEHAV: the words in which it differs from ZOKFWPROCBEHAV, and its
// routines.  "UnitializedFuncedure" is spelt so deliberately.
#include "fw/fw_funcbehav.hpp"

#include "fw/fw_messhndlr.hpp"

namespace flux {
namespace {

constexpr RoutineBehavWords FUNCBEHAV_WORDS{
    {struct_funcbehav, "ZOKFWFUNCBEHAV", "ZOKfwFuncBehav"},
    funcbehav_keyword_table,
    "UnitializedFuncedure",
    "ZOKfwFuncBehav::SetFunc",
    1,
};

using Routines =
    RoutineBehavRoutines<FUNCBEHAV_WORDS, FuncBehavKeywords, &FuncBehavKeywords::function_given,
                         &FuncBehavKeywords::function>;

constexpr zok_routine_entry functions[] = {
    function_entry(Routines::name, "ZOKFWFUNCBEHAV::FUNC", 1, 1),
    function_entry(Routines::init, "ZOKFWFUNCBEHAV::INIT", 1, 1, ZOK_RT_KEYWORDS),
};
constexpr zok_routine_entry procedures[] = {
    procedure_entry(Routines::cleanup, "ZOKFWFUNCBEHAV::CLEANUP", 1, 1),
    procedure_entry(Routines::execute, "ZOKFWFUNCBEHAV::EXECUTE", 1, 2),
    procedure_entry(Routines::restore, "ZOKFWFUNCBEHAV::RESTORE", 1, 1),
    procedure_entry(Routines::set_name, "ZOKFWFUNCBEHAV::SETFUNC", 2, 2),
};

} // namespace

const RoutineList funcbehav_routines{functions, procedures};

} // namespace flux
