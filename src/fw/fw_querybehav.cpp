// ZOKFWQUERYBEHAV.  Unlike the query's result, the response survives any
// RESTORE.
#include "fw/fw_querybehav.hpp"

#include "fw/fw_messhndlr.hpp"

#include "fw/fw_heldvalue.hpp"
#include "fw/fw_query.hpp"

namespace flux {
namespace {

constexpr ClassRef QUERYBEHAV_CLASS{struct_querybehav, "ZOKFWQUERYBEHAV", "ZOKfwQueryBehav"};
constexpr const char* NO_RESPONSE = "UnInitialized Response";

QueryBehavFields& fields_of(Self self) {
    return self.fields<QueryBehavFields>();
}

Self querybehav_self(zok_var** argv) {
    return class_self(argv, QUERYBEHAV_CLASS);
}

int32_t querybehav_initialise(Self self, const QueryBehavKeywords& k) {
    return behavior_initialise(self, &k.front, [&] {
        QueryBehavFields& f = fields_of(self);
        f.querybehav_version = 1;
        f.response = 0;
        if (k.response_given != 0)
            held_value_set(f.response, k.response);
    });
}

zok_var* querybehav_init(int32_t argc, zok_var** argv, zok_keywords* kw) {
    return keyword_init<QueryBehavKeywords>(argc, argv, kw, querybehav_keyword_table,
                                            QUERYBEHAV_CLASS, querybehav_initialise);
}

zok_var* querybehav_response(int32_t, zok_var** argv, zok_keywords*) {
    return held_value_copy(fields_of(querybehav_self(argv)).response, NO_RESPONSE);
}

void querybehav_cleanup(int32_t, zok_var** argv, zok_keywords*) {
    const Self self = querybehav_self(argv);
    behavior_cleanup(self);
    held_value_set(fields_of(self).response, nullptr);
}

// The query's result is written at its place in a query's fields, so the
// data must be a query: another object, having no such place, is refused
// (-572) rather than written into, deliberately.
void querybehav_execute(int32_t, zok_var** argv, zok_keywords*) {
    const Self self = querybehav_self(argv);
    const Self query = resolve_instance(object_argument(argv[1]), QUERY_CLASS, "1");
    TempGuard response(held_value_copy(fields_of(self).response, NO_RESPONSE));
    query_set_result(query, response.get());
}

void querybehav_restore(int32_t, zok_var** argv, zok_keywords*) {
    const Self self = querybehav_self(argv);
    behavior_restore(self);
    QueryBehavFields& f = fields_of(self);
    if (f.querybehav_version < 1)
        f.querybehav_version = 1;
}

void querybehav_setresponse(int32_t argc, zok_var** argv, zok_keywords*) {
    held_value_set(fields_of(querybehav_self(argv)).response, argc == 2 ? argv[1] : nullptr);
}

constexpr zok_routine_entry functions[] = {
    function_entry(querybehav_init, "ZOKFWQUERYBEHAV::INIT", 1, 1, ZOK_RT_KEYWORDS),
    function_entry(querybehav_response, "ZOKFWQUERYBEHAV::RESPONSE", 1, 1),
};
constexpr zok_routine_entry procedures[] = {
    procedure_entry(querybehav_cleanup, "ZOKFWQUERYBEHAV::CLEANUP", 1, 1),
    procedure_entry(querybehav_execute, "ZOKFWQUERYBEHAV::EXECUTE", 2, 2),
    procedure_entry(querybehav_restore, "ZOKFWQUERYBEHAV::RESTORE", 1, 1),
    procedure_entry(querybehav_setresponse, "ZOKFWQUERYBEHAV::SETRESPONSE", 1, 2),
};

} // namespace

const RoutineList querybehav_routines{functions, procedures};

} // namespace flux
