// The keyword tables of the framework classes' INIT methods and the results
// records the host fills from them.  Every record keeps one order of fields,
// the leading word, HANDLER, MESSAGESTRING, SCOPE, REGISTER, then the class's
// own, so that a class's INIT can hand the shared front of its record to its
// base class's initialisation.
#pragma once

#include <cstddef>

#include <zok/zok.h>

namespace flux {

// ZOKFWHASAHANDLER and ZOKFWMESSAGEHANDLER: HANDLER alone.
struct HandlerKeywords {
    int64_t leading; // nonzero when the host holds texts to free
    int32_t handler_given;
    uint32_t handler;
};

// The front shared by behaviours, messages and queries.
struct KeywordFront {
    HandlerKeywords h;
    int32_t messagestring_given;
    zok_string messagestring;
    int32_t scope_given;
    int32_t scope;
    int32_t register_given;
    int32_t register_value;
};

struct FuncBehavKeywords {
    KeywordFront front;
    int32_t function_given;
    zok_string function;
};

struct ProcBehavKeywords {
    KeywordFront front;
    int32_t procedure_given;
    zok_string procedure;
};

struct ObjBehavKeywords {
    KeywordFront front;
    int32_t method_given;
    zok_string method;
    int32_t object_given;
    uint32_t object;
};

struct DelayBehavKeywords {
    ObjBehavKeywords obj;
    int32_t delaymessagestring_given;
    zok_string delaymessagestring;
};

struct QueryBehavKeywords {
    KeywordFront front;
    int32_t response_given;
    zok_var* response; // the caller's own variable, any type
};

// Tables, each opening with the empty keyword and closed by a null one.
extern const zok_keyword_entry handler_keyword_table[];    // HASAHANDLER, MESSAGEHANDLER
extern const zok_keyword_entry behavior_keyword_table[];   // BEHAVIOR
extern const zok_keyword_entry message_keyword_table[];    // MESSAGE, QUERY
extern const zok_keyword_entry funcbehav_keyword_table[];  // FUNCBEHAV
extern const zok_keyword_entry procbehav_keyword_table[];  // PROCBEHAV
extern const zok_keyword_entry objbehav_keyword_table[];   // OBJBEHAV
extern const zok_keyword_entry delaybehav_keyword_table[]; // DELAYBEHAV, DELAYARGBEHAV
extern const zok_keyword_entry querybehav_keyword_table[]; // QUERYBEHAV

} // namespace flux
