// ZOKFWDELAYARGBEHAV.  Its version tag is written by no method: it keeps what
// object creation gave it.  SETMETHOD and RESTORE are the delayed behaviour's,
// found through the inheritance.
#include "fw/fw_delayargbehav.hpp"

#include "fw/fw_messhndlr.hpp"

namespace flux {
namespace {

constexpr ClassRef DELAYARGBEHAV_CLASS{struct_delayargbehav, "ZOKFWDELAYARGBEHAV",
                                       "ZOKfwDelayArgBehav"};

struct DelayArgBehavFields {
    ZOKFWDELAYBEHAV_FIELDS
    int32_t delayargbehav_version;
    int32_t arg;
};

DelayArgBehavFields& fields_of(Self self) {
    return self.fields<DelayArgBehavFields>();
}

Self delayargbehav_self(zok_var** argv) {
    return class_self(argv, DELAYARGBEHAV_CLASS);
}

zok_var* delayargbehav_init(int32_t argc, zok_var** argv, zok_keywords* kw) {
    return keyword_init<DelayBehavKeywords>(argc, argv, kw, delaybehav_keyword_table,
                                            DELAYARGBEHAV_CLASS,
                                            [](Self self, const DelayBehavKeywords& k) {
                                                if (delaybehav_initialise(self, k) == 0)
                                                    return 0;
                                                fields_of(self).arg = 0;
                                                return 1;
                                            });
}

void delayargbehav_cleanup(int32_t, zok_var** argv, zok_keywords*) {
    delaybehav_cleanup(delayargbehav_self(argv));
}

// The value is converted by the host's rules, which report what they cannot convert.
void delayargbehav_execute(int32_t, zok_var** argv, zok_keywords*) {
    const Self self = delayargbehav_self(argv);
    TempGuard value(host_convert_var(argv[1], ZOK_T_LONG));
    delaybehav_arm(self);
    int32_t& arg = fields_of(self).arg;
    if (value->value.long_val > arg)
        arg = value->value.long_val;
}

void delayargbehav_delayexecute(int32_t, zok_var** argv, zok_keywords*) {
    const Self self = delayargbehav_self(argv);
    TempGuard value(host_temp_long(fields_of(self).arg));
    if (delaybehav_run(self, value.get()))
        fields_of(self).arg = 0;
}

constexpr zok_routine_entry functions[] = {
    function_entry(delayargbehav_init, "ZOKFWDELAYARGBEHAV::INIT", 1, 1, ZOK_RT_KEYWORDS),
};
constexpr zok_routine_entry procedures[] = {
    procedure_entry(delayargbehav_cleanup, "ZOKFWDELAYARGBEHAV::CLEANUP", 1, 1),
    procedure_entry(delayargbehav_delayexecute, "ZOKFWDELAYARGBEHAV::DELAYEXECUTE", 1, 1),
    procedure_entry(delayargbehav_execute, "ZOKFWDELAYARGBEHAV::EXECUTE", 2, 2),
};

} // namespace

const RoutineList delayargbehav_routines{functions, procedures};

} // namespace flux
