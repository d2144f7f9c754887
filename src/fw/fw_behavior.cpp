// ZOKFWBEHAVIOR.  IS_REGISTERED records only what REGISTER and UNREGISTER did:
// ADDBEHAVIOR and REMOVEBEHAVIOR file and unfile a behaviour without touching
// it, and a handler's CLEANUP clears it.
#include "fw/fw_behavior.hpp"

#include "fw/fw_ident.hpp"
#include "fw/fw_messtext.hpp"

namespace flux {
namespace {

// The handle of the method name EXECUTE, looked up once per host.
const zok_name* execute_name = nullptr;

BehaviorFields& fields_of(Self self) {
    return self.fields<BehaviorFields>();
}

} // namespace

// Releases only: MESSIDENT keeps naming the identifier, which lives until the
// next collection, and a CLEANUP called again releases it again.
void behavior_cleanup(Self self) {
    behavior_unregister(self);
    fwident_release(fields_of(self).messident);
}

void behavior_restore(Self self) {
    BehaviorFields& f = fields_of(self);
    // What filing the behaviour again needs is obtained first and the
    // translation last, so that a failure changes nothing.
    const bool was_registered = f.behavior_version >= 1 && f.is_registered != 0;
    DefaultHandlerGuard made_default;
    // Taking it out may free the default handler, which filing it again then needs.
    std::optional<SpareDefaultHandler> spare;
    MaphReserve nodes;
    if (was_registered) {
        if (removal_frees_default(effective_handler(self), self.heap_id))
            spare.emplace();
        if (!nodes.add(5))
            raise_no_memory("ZOKfwBehavior::Restore");
    }
    const uint32_t live = fwident_rollover(f.messident);
    made_default.commit();
    hasahandler_restore(self);
    if (f.behavior_version < 1) {
        f.behavior_version = 1;
        f.is_registered = 0;
    }
    // Taken out under the identifier as saved, filed again under its translation.
    behavior_unregister(self);
    f.messident = live;
    if (was_registered)
        behavior_register(self);
}

void behavior_register(Self self, uint32_t reached) {
    if (fields_of(self).is_registered != 0)
        return;
    DefaultHandlerGuard made_default;
    add_behavior(effective_handler(self), self.heap_id, fields_of(self).messident, reached);
    made_default.commit();
    fields_of(self).is_registered = 1;
}

void behavior_unregister(Self self) {
    if (fields_of(self).is_registered == 0)
        return;
    remove_behavior(effective_handler(self), self.heap_id, fields_of(self).messident);
    fields_of(self).is_registered = 0;
}

void behavior_reregister(uint32_t behavior) {
    const Self self = resolve_instance(behavior, BEHAVIOR_CLASS, "1");
    if (fields_of(self).is_registered == 0)
        return;
    const uint32_t ident = fields_of(self).messident;
    remove_behavior(effective_handler(self), behavior, ident);
    add_behavior(effective_handler(self), behavior, ident);
}

void behavior_set_message(Self self, const zok_var* text) {
    replace_message_ident(fields_of(self).messident, text, "ZOKfwBehavior::SetMessageString");
}

void execute_behavior(uint32_t behavior, zok_var* argument) {
    if (execute_name == nullptr)
        execute_name = host_lookup_name("EXECUTE", 0, 1, ZOK_ACTION_ERROR, 0);
    const int32_t argc = argument != nullptr ? 1 : 0;
    TempGuard result(
        host_call_method_id(execute_name, behavior, argc, argc != 0 ? &argument : nullptr));
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
    function_entry(behavior_init, "ZOKFWBEHAVIOR::INIT", 1, 1, ZOK_RT_KEYWORDS),
    function_entry(behavior_isregistered, "ZOKFWBEHAVIOR::ISREGISTERED", 1, 1),
    function_entry(behavior_messagestring, "ZOKFWBEHAVIOR::MESSAGESTRING", 1, 1),
};
constexpr zok_routine_entry procedures[] = {
    procedure_entry(behavior_cleanup_method, "ZOKFWBEHAVIOR::CLEANUP", 1, 1, ZOK_RT_KEYWORDS),
    procedure_entry(behavior_execute, "ZOKFWBEHAVIOR::EXECUTE", 1, 2),
    procedure_entry(behavior_register_method, "ZOKFWBEHAVIOR::REGISTER", 1, 1),
    procedure_entry(behavior_restore_method, "ZOKFWBEHAVIOR::RESTORE", 1, 1),
    procedure_entry(behavior_setmessagestring, "ZOKFWBEHAVIOR::SETMESSAGESTRING", 2, 2),
    procedure_entry(behavior_unregister_method, "ZOKFWBEHAVIOR::UNREGISTER", 1, 1),
};

} // namespace

const RoutineList behavior_routines{functions, procedures};

} // namespace flux
