// ZOKFWQUERY.  A send does not clear the result first: a query that nobody
// answers keeps the result of an earlier send.
#include "fw/fw_query.hpp"

#include "fw/fw_messhndlr.hpp"

#include "fw/fw_heldvalue.hpp"

namespace flux {
namespace {

constexpr const char* NO_RESULT = "UnInitialized Result";

QueryFields& fields_of(Self self) {
    return self.fields<QueryFields>();
}

} // namespace

void query_set_result(Self query, const zok_var* value) {
    held_value_set(fields_of(query).query_result, value);
}

namespace {

Self query_self(zok_var** argv) {
    return class_self(argv, QUERY_CLASS);
}

int32_t query_initialise(Self self, const KeywordFront& k) {
    if (message_initialise(self, &k) == 0)
        return 0;
    QueryFields& f = fields_of(self);
    f.query_version = 1;
    f.query_result = 0;
    return 1;
}

zok_var* query_init(int32_t argc, zok_var** argv, zok_keywords* kw) {
    return keyword_init<KeywordFront>(argc, argv, kw, message_keyword_table, QUERY_CLASS,
                                      query_initialise);
}

zok_var* query_result(int32_t, zok_var** argv, zok_keywords*) {
    return held_value_copy(fields_of(query_self(argv)).query_result, NO_RESULT);
}

zok_var* query_sendquery(int32_t, zok_var** argv, zok_keywords*) {
    {
        const Self self = query_self(argv);
        TempGuard data(host_temp_var());
        data->type = ZOK_T_OBJECT;
        data->value.heap_id = self.heap_id;
        message_send(self, data.get());
    }
    // Resolved again: a receiver may have destroyed the query.
    return held_value_copy(fields_of(query_self(argv)).query_result, NO_RESULT);
}

// The heap variable goes; its identifier stays in the field.
void query_cleanup(int32_t, zok_var** argv, zok_keywords*) {
    const Self self = query_self(argv);
    const uint32_t result = fields_of(self).query_result;
    if (result != 0 && host_heap_var(result) != nullptr)
        host_heap_free(result, 0, 0);
    message_cleanup(self);
}

void query_restore(int32_t, zok_var** argv, zok_keywords*) {
    const Self self = query_self(argv);
    message_restore(self);
    QueryFields& f = fields_of(self);
    if (f.query_version < 1) {
        // A result saved before the class had a version is dropped, not freed.
        f.query_version = 1;
        f.query_result = 0;
    }
}

void query_setresult(int32_t, zok_var** argv, zok_keywords*) {
    query_set_result(query_self(argv), argv[1]);
}

constexpr zok_routine_entry functions[] = {
    function_entry(query_init, "ZOKFWQUERY::INIT", 1, 1, ZOK_RT_KEYWORDS),
    function_entry(query_result, "ZOKFWQUERY::RESULT", 1, 1),
    function_entry(query_sendquery, "ZOKFWQUERY::SENDQUERY", 1, 1),
};
constexpr zok_routine_entry procedures[] = {
    procedure_entry(query_cleanup, "ZOKFWQUERY::CLEANUP", 1, 1),
    procedure_entry(query_restore, "ZOKFWQUERY::RESTORE", 1, 1),
    procedure_entry(query_setresult, "ZOKFWQUERY::SETRESULT", 2, 2),
};

} // namespace

const RoutineList query_routines{functions, procedures};

} // namespace flux
