// ZOKFWDELAYBEHAV, and the deferred call that ZOKFWDELAYARGBEHAV
// (fw_delayargbehav) shares.
#include "fw/fw_delaybehav.hpp"

#include "fw/fw_messhndlr.hpp"

#include <optional>

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

// The inner behaviour: an object-method behaviour aimed at `self`'s
// DELAYEXECUTE, destroyed again unless committed.
class InnerBehavior {
public:
    explicit InnerBehavior(Self self) {
        {
            TempGuard cls(host_find_class(OBJBEHAV_CLASS.name));
            zok_var* args[] = {cls.get()};
            TempGuard object(host_object_new(1, args, nullptr));
            id_ = object->value.heap_id;
        }
        fields().object = self.heap_id;
    }
    InnerBehavior(const InnerBehavior&) = delete;
    InnerBehavior& operator=(const InnerBehavior&) = delete;
    ~InnerBehavior() {
        if (id_ != 0)
            destroy_object(id_);
    }
    Self self() const { return resolve_instance(id_, OBJBEHAV_CLASS, "SUB_BEHAVIOR"); }
    ObjBehavFields& fields() const { return self().fields<ObjBehavFields>(); }
    uint32_t commit() {
        const uint32_t id = id_;
        id_ = 0;
        return id;
    }

private:
    uint32_t id_ = 0;
};

} // namespace

int32_t delaybehav_initialise(Self self, const DelayBehavKeywords& k) {
    return behavior_initialise(self, &k.obj.front, [&] {
        // Every identifier first, then the inner behaviour: nothing after it can fail.
        IdentReservation uninitialised("UnitializedMethod");
        IdentReservation delay_execute("DELAYEXECUTE");
        std::optional<IdentReservation> method;
        std::optional<IdentReservation> delay_message;
        if (k.obj.method_given != 0)
            method.emplace(&k.obj.method);
        if (k.delaymessagestring_given != 0)
            delay_message.emplace(&k.delaymessagestring);
        InnerBehavior inner(self);
        if (k.obj.front.h.handler_given != 0)
            set_handler(inner.self(), k.obj.front.h.handler);

        DelayBehavFields& f = fields_of(self);
        f.delaybehav_version = 1;
        f.object = 0;
        f.meth_ident = uninitialised.ident();
        fwident_acquire(f.meth_ident);
        if (method)
            replace_method_ident(f.meth_ident, k.obj.method);
        replace_method_ident(inner.fields().meth_ident, *fwident_text(delay_execute.ident()));
        if (k.obj.object_given != 0)
            f.object = k.obj.object;
        if (delay_message) {
            zok_var text{};
            text.type = ZOK_T_STRING;
            text.value.str = k.delaymessagestring;
            behavior_set_message(inner.self(), &text);
        }
        for (IdentReservation* kept : {&uninitialised, &delay_execute})
            kept->commit();
        for (auto* kept : {&method, &delay_message})
            if (*kept)
                (*kept)->commit();
        f.sub_behavior = inner.commit();
    });
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
    function_entry(delaybehav_init, "ZOKFWDELAYBEHAV::INIT", 1, 1, ZOK_RT_KEYWORDS),
};
constexpr zok_routine_entry procedures[] = {
    procedure_entry(delaybehav_cleanup_method, "ZOKFWDELAYBEHAV::CLEANUP", 1, 1),
    procedure_entry(delaybehav_delayexecute, "ZOKFWDELAYBEHAV::DELAYEXECUTE", 1, 1),
    procedure_entry(delaybehav_execute, "ZOKFWDELAYBEHAV::EXECUTE", 1, 1),
    procedure_entry(delaybehav_restore, "ZOKFWDELAYBEHAV::RESTORE", 1, 1),
    procedure_entry(delaybehav_setmethod, "ZOKFWDELAYBEHAV::SETMETHOD", 2, 2),
};

} // namespace

const RoutineList delaybehav_routines{functions, procedures};

} // namespace flux
