// ZOKFWHASAHANDLER.  MYHANDLER names the object's handler, or is 0 for the
// default handler; SETHANDLER and the HANDLER keyword accept only live
// message handlers.
#include "fw/fw_hashndlr.hpp"

#include "fw/fw_messhndlr.hpp"

namespace flux {

int32_t hasahandler_initialise(Self self, const HandlerKeywords* keywords) {
    if (saveable_initialise(self) == 0)
        return 0;
    HasAHandlerFields& f = self.fields<HasAHandlerFields>();
    f.myhandler = 0;
    f.hasahandler_version = 1;
    if (keywords != nullptr && keywords->handler_given != 0)
        set_handler(self, keywords->handler);
    return 1;
}

void hasahandler_cleanup(Self self) {
    saveable_cleanup(self);
}

void hasahandler_restore(Self self) {
    saveable_restore(self);
    HasAHandlerFields& f = self.fields<HasAHandlerFields>();
    if (f.hasahandler_version < 1)
        f.hasahandler_version = 1;
}

void check_handler_keyword(const HandlerKeywords* keywords) {
    if (keywords != nullptr && keywords->handler_given != 0 && keywords->handler != 0)
        resolve_instance(keywords->handler, MESSAGEHANDLER_CLASS, "1");
}

uint32_t effective_handler_of(uint32_t self, uint32_t mine) {
    if (mine != 0)
        return mine;
    const uint32_t fallback = default_handler();
    if (fallback == self)
        return 0; // the default handler is the root of every chain
    return fallback != 0 ? fallback : ensure_default_handler();
}

uint32_t effective_handler(Self self) {
    return effective_handler_of(self.heap_id, self.fields<HasAHandlerFields>().myhandler);
}

void set_handler(Self self, uint32_t handler) {
    if (handler != 0)
        resolve_instance(handler, MESSAGEHANDLER_CLASS, "1");
    self.fields<HasAHandlerFields>().myhandler = handler;
}

namespace {

constexpr ClassRef HASAHANDLER_CLASS{struct_hasahandler, "ZOKFWHASAHANDLER", "ZOKfwHasAHandler"};

zok_var* hasahandler_init(int32_t argc, zok_var** argv, zok_keywords* kw) {
    return keyword_init<HandlerKeywords>(
        argc, argv, kw, handler_keyword_table, HASAHANDLER_CLASS,
        [](Self self, const HandlerKeywords& k) { return hasahandler_initialise(self, &k); });
}

void hasahandler_cleanup_method(int32_t, zok_var** argv, zok_keywords*) {
    hasahandler_cleanup(class_self(argv, HASAHANDLER_CLASS));
}

void hasahandler_restore_method(int32_t, zok_var** argv, zok_keywords*) {
    hasahandler_restore(class_self(argv, HASAHANDLER_CLASS));
}

zok_var* hasahandler_handler(int32_t, zok_var** argv, zok_keywords*) {
    const Self self = class_self(argv, HASAHANDLER_CLASS);
    TempGuard result(host_temp_var());
    result->value.heap_id = effective_handler(self);
    result->type = ZOK_T_OBJECT;
    return result.release();
}

void hasahandler_sethandler(int32_t, zok_var** argv, zok_keywords*) {
    const Self self = class_self(argv, HASAHANDLER_CLASS);
    const zok_var* handler = argv[1];
    if (handler->type != ZOK_T_OBJECT || (handler->flags & ZOK_VF_NOT_SIMPLE) != 0)
        host_message(ZOK_MSG_NOT_OBJECT, ZOK_ACTION_ERROR, "ZOKfwHasAHandler::SetHandler");
    set_handler(self, handler->value.heap_id);
}

constexpr zok_routine_entry functions[] = {
    function_entry(hasahandler_handler, "ZOKFWHASAHANDLER::HANDLER", 1, 1),
    function_entry(hasahandler_init, "ZOKFWHASAHANDLER::INIT", 1, 1, ZOK_RT_KEYWORDS),
};
constexpr zok_routine_entry procedures[] = {
    procedure_entry(hasahandler_cleanup_method, "ZOKFWHASAHANDLER::CLEANUP", 1, 1),
    procedure_entry(hasahandler_restore_method, "ZOKFWHASAHANDLER::RESTORE", 1, 1),
    procedure_entry(hasahandler_sethandler, "ZOKFWHASAHANDLER::SETHANDLER", 2, 2),
};

} // namespace

const RoutineList hasahandler_routines{functions, procedures};

} // namespace flux
