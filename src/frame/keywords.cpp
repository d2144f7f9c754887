// The INIT keyword tables, in ascending order of keyword within each table.
#include "frame/keywords.hpp"

namespace flux {
namespace {

constexpr zok_keyword_entry entry(const char* name, uint8_t type, uint16_t flags, size_t given,
                                  size_t value) {
    return {name, type, 0, 1, flags, 0, static_cast<int64_t>(given), static_cast<int64_t>(value)};
}
constexpr zok_keyword_entry object_kw(const char* name, size_t given, size_t value) {
    return entry(name, ZOK_T_OBJECT, 0, given, value);
}
constexpr zok_keyword_entry string_kw(const char* name, size_t given, size_t value) {
    return entry(name, ZOK_T_STRING, 0, given, value);
}
constexpr zok_keyword_entry integer_kw(const char* name, size_t given, size_t value) {
    return entry(name, ZOK_T_LONG, ZOK_KW_ZERO_IF_ABSENT, given, value);
}
constexpr zok_keyword_entry any_kw(const char* name, size_t given, size_t value) {
    return entry(name, ZOK_T_UNDEFINED, ZOK_KW_BY_REFERENCE | ZOK_KW_NULL_IF_ABSENT, given, value);
}
constexpr zok_keyword_entry opening{"", 0, 0, 0, 0, 0, 0, 0};
constexpr zok_keyword_entry closing{nullptr, 0, 0, 0, 0, 0, 0, 0};

// The shared keywords lie at the same places in every record: each record
// starts with its front.
constexpr zok_keyword_entry HANDLER = object_kw("HANDLER", offsetof(HandlerKeywords, handler_given),
                                                offsetof(HandlerKeywords, handler));
constexpr zok_keyword_entry MESSAGESTRING =
    string_kw("MESSAGESTRING", offsetof(KeywordFront, messagestring_given),
              offsetof(KeywordFront, messagestring));
constexpr zok_keyword_entry REGISTER = integer_kw(
    "REGISTER", offsetof(KeywordFront, register_given), offsetof(KeywordFront, register_value));
constexpr zok_keyword_entry SCOPE =
    integer_kw("SCOPE", offsetof(KeywordFront, scope_given), offsetof(KeywordFront, scope));
constexpr zok_keyword_entry METHOD = string_kw("METHOD", offsetof(ObjBehavKeywords, method_given),
                                               offsetof(ObjBehavKeywords, method));
constexpr zok_keyword_entry OBJECT = object_kw("OBJECT", offsetof(ObjBehavKeywords, object_given),
                                               offsetof(ObjBehavKeywords, object));

} // namespace

const zok_keyword_entry handler_keyword_table[] = {opening, HANDLER, closing};

const zok_keyword_entry behavior_keyword_table[] = {opening,  HANDLER, MESSAGESTRING,
                                                    REGISTER, SCOPE,   closing};

const zok_keyword_entry message_keyword_table[] = {opening, HANDLER, MESSAGESTRING, SCOPE, closing};

const zok_keyword_entry funcbehav_keyword_table[] = {
    opening,
    string_kw("FUNCTION", offsetof(FuncBehavKeywords, function_given),
              offsetof(FuncBehavKeywords, function)),
    HANDLER,
    MESSAGESTRING,
    REGISTER,
    SCOPE,
    closing};

const zok_keyword_entry procbehav_keyword_table[] = {
    opening,
    HANDLER,
    MESSAGESTRING,
    string_kw("PROCEDURE", offsetof(ProcBehavKeywords, procedure_given),
              offsetof(ProcBehavKeywords, procedure)),
    REGISTER,
    SCOPE,
    closing};

const zok_keyword_entry objbehav_keyword_table[] = {opening, HANDLER,  MESSAGESTRING, METHOD,
                                                    OBJECT,  REGISTER, SCOPE,         closing};

const zok_keyword_entry delaybehav_keyword_table[] = {
    opening,
    string_kw("DELAYMESSAGESTRING", offsetof(DelayBehavKeywords, delaymessagestring_given),
              offsetof(DelayBehavKeywords, delaymessagestring)),
    HANDLER,
    MESSAGESTRING,
    METHOD,
    OBJECT,
    REGISTER,
    SCOPE,
    closing};

const zok_keyword_entry querybehav_keyword_table[] = {
    opening,
    HANDLER,
    MESSAGESTRING,
    REGISTER,
    any_kw("RESPONSE", offsetof(QueryBehavKeywords, response_given),
           offsetof(QueryBehavKeywords, response)),
    SCOPE,
    closing};

} // namespace flux
