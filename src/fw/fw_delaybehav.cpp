// ZOKFWDELAYBEHAV, and the deferred call that ZOKFWDELAYARGBEHAV
// (fw_delayargbehav) shares.
#include "fw/fw_delaybehav.hpp"

#include "fw/fw_messhndlr.hpp"

#include <cstring>

#include "fw/fw_ident.hpp"
#include "fw/fw_messtext.hpp"
#include "fw/fw_objbehav.hpp"

namespace flux {
namespace {

constexpr ClassRef DELAYBEHAV_CLASS{struct_delaybehav, "ZOKFWDELAYBEHAV", "ZOKfwDelayBehav"};

DelayBehavFields& fields_of(Self self) {
    return self.fields<DelayBehavFields>();
}

Self inner_of(Self self) {
    return resolve_instance(fields_of(self).sub_behavior, OBJBEHAV_CLASS, "SUB_BEHAVIOR");
}

// Destroys an object through a variable of our own, which needs no allocation.
void destroy_object(uint32_t object) {
    zok_var ref{};
    ref.type = ZOK_T_OBJECT;
    ref.value.heap_id = object;
    zok_var* args[] = {&ref};
    host_object_destroy(1, args, nullptr);
}

// The inner behaviour: an object-method behaviour aimed at `self`'s DELAYEXECUTE.
uint32_t make_inner(Self self) {
    uint32_t inner = 0;
    {
        TempGuard cls(host_find_class(OBJBEHAV_CLASS.name));
        zok_var* args[] = {cls.get()};
        TempGuard object(host_object_new(1, args, nullptr));
        inner = object->value.heap_id;
    }
    try {
        ObjBehavFields& f =
            resolve_instance(inner, OBJBEHAV_CLASS, "SUB_BEHAVIOR").fields<ObjBehavFields>();
        f.object = self.heap_id;
        const char* method = "DELAYEXECUTE";
        const zok_string borrowed{static_cast<uint32_t>(std::strlen(method)), 0, 0,
                                  const_cast<char*>(method)};
        replace_method_ident(f.meth_ident, borrowed);
    } catch (...) {
        destroy_object(inner);
        throw;
    }
    return inner;
}

} // namespace

int32_t delaybehav_initialise(Self self, const DelayBehavKeywords& k) {
    if (behavior_initialise(self, &k.obj.front) == 0)
        return 0;
    DelayBehavFields& f = fields_of(self);
    f.delaybehav_version = 1;
    f.object = 0;
    f.meth_ident = 0;
    f.sub_behavior = 0;
    try {
        f.meth_ident = acquire_message_ident("UnitializedMethod");
        f.sub_behavior = make_inner(self);
        const Self inner = inner_of(self);
        if (k.obj.front.h.handler_given != 0)
            set_handler(inner, k.obj.front.h.handler);
        if (k.obj.method_given != 0)
            replace_method_ident(f.meth_ident, k.obj.method);
        if (k.obj.object_given != 0)
            f.object = k.obj.object;
        if (k.delaymessagestring_given != 0) {
            zok_var text{};
            text.type = ZOK_T_STRING;
            text.value.str = k.delaymessagestring;
            behavior_set_message(inner, &text);
        }
    } catch (...) {
        // The host frees an object whose INIT raises without its CLEANUP.
        if (f.sub_behavior != 0)
            destroy_object(f.sub_behavior);
        if (f.meth_ident != 0)
            fwident_release(f.meth_ident);
        behavior_cleanup(self);
        throw;
    }
    return 1;
}

void delaybehav_cleanup(Self self) {
    DelayBehavFields& f = fields_of(self);
    fwident_release(f.meth_ident);
    destroy_object(f.sub_behavior);
    behavior_cleanup(self);
}

void delaybehav_arm(Self self) {
    behavior_register(inner_of(self));
}

bool delaybehav_run(Self self, zok_var* argument) {
    const DelayBehavFields& f = fields_of(self);
    if (!call_named_method(f.object, f.meth_ident, argument))
        behavior_unregister(self);
    // The target may have been this very behaviour, and destroyed it.
    if (host_heap_var(self.heap_id) == nullptr)
        return false;
    behavior_unregister(inner_of(self));
    return true;
}

namespace {

Self delaybehav_self(zok_var** argv) {
    return class_self(argv, DELAYBEHAV_CLASS);
}

zok_var* delaybehav_init(int32_t argc, zok_var** argv, zok_keywords* kw) {
    return keyword_init<DelayBehavKeywords>(argc, argv, kw, delaybehav_keyword_table,
                                            DELAYBEHAV_CLASS, delaybehav_initialise);
}

void delaybehav_cleanup_method(int32_t, zok_var** argv, zok_keywords*) {
    delaybehav_cleanup(delaybehav_self(argv));
}

void delaybehav_delayexecute(int32_t, zok_var** argv, zok_keywords*) {
    delaybehav_run(delaybehav_self(argv), nullptr);
}

void delaybehav_execute(int32_t, zok_var** argv, zok_keywords*) {
    delaybehav_arm(delaybehav_self(argv));
}

void delaybehav_restore(int32_t, zok_var** argv, zok_keywords*) {
    const Self self = delaybehav_self(argv);
    // The inner behaviour is resolved first: a dead one is refused before anything changes.
    const Self inner = inner_of(self);
    behavior_restore(self);
    restore_once(&inner.fields<SaveableFields>().top, inner.heap_id);
    DelayBehavFields& f = fields_of(self);
    if (f.delaybehav_version < 1)
        f.delaybehav_version = 1;
    f.meth_ident = fwident_rollover(f.meth_ident);
}

// Wrong types are the host's own errors here, unlike the object-method
// behaviour's setter.
void delaybehav_setmethod(int32_t, zok_var** argv, zok_keywords*) {
    const Self self = delaybehav_self(argv);
    string_argument(argv[1]);
    replace_method_ident(fields_of(self).meth_ident, *host_var_string(argv[1], 0, 1));
}

constexpr zok_routine_entry functions[] = {
    function_entry(messaging_routine<delaybehav_init>, "ZOKFWDELAYBEHAV::INIT", 1, 1,
                   ZOK_RT_KEYWORDS),
};
constexpr zok_routine_entry procedures[] = {
    procedure_entry(messaging_routine<delaybehav_cleanup_method>, "ZOKFWDELAYBEHAV::CLEANUP", 1, 1),
    procedure_entry(messaging_routine<delaybehav_delayexecute>, "ZOKFWDELAYBEHAV::DELAYEXECUTE", 1,
                    1),
    procedure_entry(messaging_routine<delaybehav_execute>, "ZOKFWDELAYBEHAV::EXECUTE", 1, 1),
    procedure_entry(messaging_routine<delaybehav_restore>, "ZOKFWDELAYBEHAV::RESTORE", 1, 1),
    procedure_entry(messaging_routine<delaybehav_setmethod>, "ZOKFWDELAYBEHAV::SETMETHOD", 2, 2),
};

} // namespace

const RoutineList delaybehav_routines{functions, procedures};

} // namespace flux
