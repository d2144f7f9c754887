// ZOKFWBEHAVIOR.  IS_REGISTERED records only what REGISTER and UNREGISTER did:
// ADDBEHAVIOR and REMOVEBEHAVIOR file and unfile a behaviour without touching
// it, and a handler's CLEANUP clears it.
#include "fw/fw_behavior.hpp"

#include "fw/fw_ident.hpp"
#include "fw/fw_messhndlr.hpp"
#include "fw/fw_messtext.hpp"

namespace flux {
namespace {

// The handle of the method name EXECUTE, looked up once per host.
const zok_name* execute_name = nullptr;

BehaviorFields& fields_of(Self self) {
    return self.fields<BehaviorFields>();
}

} // namespace

int32_t behavior_initialise(Self self, const KeywordFront* keywords) {
    if (hasahandler_initialise(self, keywords != nullptr ? &keywords->h : nullptr) == 0)
        return 0;
    BehaviorFields& f = fields_of(self);
    f.behavior_version = 1;
    f.is_registered = 0;
    f.messident = initial_message_ident(keywords, "ZOKfwBehavior::SetMessageString");
    // An INIT that raises frees the object without CLEANUP: give the use back.
    Undo release_ident([&f] { fwident_release(f.messident); });
    // Scoping first: a behaviour given both lands in its own handler's new scope.
    if (keywords != nullptr && keywords->scope != 0)
        scope_message(effective_handler(self), f.messident);
    if (keywords != nullptr && keywords->register_value != 0)
        behavior_register(self);
    release_ident.commit();
    return 1;
}

void behavior_cleanup(Self self) {
    behavior_unregister(self);
    // Given back once: a CLEANUP called again finds no identifier to release.
    BehaviorFields& f = fields_of(self);
    fwident_release(f.messident);
    f.messident = 0;
}

void behavior_restore(Self self) {
    hasahandler_restore(self);
    BehaviorFields& f = fields_of(self);
    if (f.behavior_version < 1) {
        f.behavior_version = 1;
        f.is_registered = 0;
    }
    // Taken out under the identifier as saved, filed again under its translation.
    const bool was_registered = f.is_registered != 0;
    behavior_unregister(self);
    f.messident = fwident_rollover(f.messident);
    if (was_registered)
        behavior_register(self);
}

void behavior_register(Self self) {
    if (fields_of(self).is_registered != 0)
        return;
    add_behavior(effective_handler(self), self.heap_id);
    fields_of(self).is_registered = 1;
}

void behavior_unregister(Self self) {
    if (fields_of(self).is_registered == 0)
        return;
    remove_behavior(effective_handler(self), self.heap_id);
    fields_of(self).is_registered = 0;
}

void behavior_reregister(uint32_t behavior) {
    const Self self = resolve_instance(behavior, BEHAVIOR_CLASS, "1");
    if (fields_of(self).is_registered == 0)
        return;
    try {
        remove_behavior(effective_handler(self), behavior);
        add_behavior(effective_handler(self), behavior);
    } catch (...) {
        // Memory ran out part way: registered only if it is still filed somewhere.
        fields_of(self).is_registered = chain_files(behavior) ? 1 : 0;
        throw;
    }
}

void behavior_set_message(Self self, const zok_var* text) {
    replace_message_ident(fields_of(self).messident, text, "ZOKfwBehavior::SetMessageString");
}

void execute_behavior(uint32_t behavior, zok_var* argument) {
    const zok_heap_record* rec = host_object_heap_var(behavior, ZOK_ACTION_ERROR);
    if (execute_name == nullptr)
        execute_name = host_lookup_name("EXECUTE", 0, 1, ZOK_ACTION_ERROR, 0);
    const int32_t argc = argument != nullptr ? 1 : 0;
    TempGuard result(
        host_call_method(2, execute_name, rec, 0, argc, argc != 0 ? &argument : nullptr, 0, 0, 0));
}

int behavior_order(uint32_t a, uint32_t b) {
    return static_cast<int32_t>(a - b);
}

void behavior_forget() {
    execute_name = nullptr;
}

namespace {

Self behavior_self(zok_var** argv) {
    return class_self(argv, BEHAVIOR_CLASS);
}

zok_var* behavior_init(int32_t argc, zok_var** argv, zok_keywords* kw) {
    return keyword_init<KeywordFront>(
        argc, argv, kw, behavior_keyword_table, BEHAVIOR_CLASS,
        [](Self self, const KeywordFront& k) { return behavior_initialise(self, &k); });
}

zok_var* behavior_isregistered(int32_t, zok_var** argv, zok_keywords*) {
    const uint8_t registered = fields_of(behavior_self(argv)).is_registered;
    zok_var* result = host_temp_var();
    result->type = ZOK_T_BYTE;
    result->value.byte_val = registered;
    return result;
}

zok_var* behavior_messagestring(int32_t, zok_var** argv, zok_keywords*) {
    return message_text_result(fields_of(behavior_self(argv)).messident);
}

void behavior_cleanup_method(int32_t, zok_var** argv, zok_keywords*) {
    behavior_cleanup(behavior_self(argv));
}

// The base class does nothing when its message arrives.
void behavior_execute(int32_t, zok_var** argv, zok_keywords*) {
    behavior_self(argv);
}

void behavior_register_method(int32_t, zok_var** argv, zok_keywords*) {
    behavior_register(behavior_self(argv));
}

void behavior_restore_method(int32_t, zok_var** argv, zok_keywords*) {
    behavior_restore(behavior_self(argv));
}

void behavior_setmessagestring(int32_t, zok_var** argv, zok_keywords*) {
    behavior_set_message(behavior_self(argv), argv[1]);
}

void behavior_unregister_method(int32_t, zok_var** argv, zok_keywords*) {
    behavior_unregister(behavior_self(argv));
}

constexpr zok_routine_entry functions[] = {
    function_entry(messaging_routine<behavior_init>, "ZOKFWBEHAVIOR::INIT", 1, 1, ZOK_RT_KEYWORDS),
    function_entry(messaging_routine<behavior_isregistered>, "ZOKFWBEHAVIOR::ISREGISTERED", 1, 1),
    function_entry(messaging_routine<behavior_messagestring>, "ZOKFWBEHAVIOR::MESSAGESTRING", 1, 1),
};
constexpr zok_routine_entry procedures[] = {
    procedure_entry(messaging_routine<behavior_cleanup_method>, "ZOKFWBEHAVIOR::CLEANUP", 1, 1,
                    ZOK_RT_KEYWORDS),
    procedure_entry(messaging_routine<behavior_execute>, "ZOKFWBEHAVIOR::EXECUTE", 1, 2),
    procedure_entry(messaging_routine<behavior_register_method>, "ZOKFWBEHAVIOR::REGISTER", 1, 1),
    procedure_entry(messaging_routine<behavior_restore_method>, "ZOKFWBEHAVIOR::RESTORE", 1, 1),
    procedure_entry(messaging_routine<behavior_setmessagestring>, "ZOKFWBEHAVIOR::SETMESSAGESTRING",
                    2, 2),
    procedure_entry(messaging_routine<behavior_unregister_method>, "ZOKFWBEHAVIOR::UNREGISTER", 1,
                    1),
};

} // namespace

const RoutineList behavior_routines{functions, procedures};

} // namespace flux
