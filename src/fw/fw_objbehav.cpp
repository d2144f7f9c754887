// ZOKFWOBJBEHAV.  The target is not owned and its life is not followed: a
// delivery finds out whether it still lives.
#include "fw/fw_objbehav.hpp"

#include "fw/fw_messhndlr.hpp"

#include <optional>
#include <string>

#include "fw/fw_ident.hpp"
#include "fw/fw_messtext.hpp"

namespace flux {
namespace {

ObjBehavFields& fields_of(Self self) {
    return self.fields<ObjBehavFields>();
}

// SETMETHOD and SETOBJECT name the same routine in their refusals, deliberately.
constexpr const char* SETTER = "ZOKfwObjBehav::SetMethod";

} // namespace

bool call_named_method(uint32_t object, uint32_t meth_ident, zok_var* argument) {
    const zok_heap_record* target = host_object_heap_var(object, ZOK_ACTION_RETURN);
    if (target == nullptr)
        return false;
    const zok_string* text = fwident_text(meth_ident);
    if (text == nullptr)
        return true;
    // The name as a text of its own: an identifier's text may hold a NUL byte.
    const std::string name(text->length != 0 ? text->text : "", text->length);
    const zok_name* method = host_lookup_name(name.c_str(), 0, 1, ZOK_ACTION_RETURN, 0);
    if (method == nullptr)
        return true;
    zok_var* args[] = {argument, nullptr};
    const int32_t count = argument != nullptr ? 1 : 0;
    TempGuard result(host_call_method(2, method, target, 0, count, args, 0, 0, 0));
    return true;
}

void replace_method_ident(uint32_t& field, const zok_string& text) {
    const uint32_t ident = fwident_acquire_name(&text);
    if (field != 0)
        fwident_release(field);
    field = ident;
}

void objbehav_set_method(Self self, const zok_var* text) {
    replace_message_ident(fields_of(self).meth_ident, text, SETTER);
}

namespace {

int32_t objbehav_initialise(Self self, const ObjBehavKeywords& k) {
    return behavior_initialise(self, &k.front, [&] {
        IdentReservation uninitialised("UnitializedMethod");
        std::optional<IdentReservation> method;
        if (k.method_given != 0)
            method.emplace(&k.method);
        // Nothing below can fail: both identifiers exist.
        ObjBehavFields& f = fields_of(self);
        f.objbehav_version = 1;
        f.object = 0;
        f.meth_ident = uninitialised.ident();
        fwident_acquire(f.meth_ident);
        uninitialised.commit();
        if (method) {
            replace_method_ident(f.meth_ident, k.method);
            method->commit();
        }
        if (k.object_given != 0)
            f.object = k.object;
    });
}

void objbehav_cleanup(Self self) {
    fwident_release(fields_of(self).meth_ident);
    behavior_cleanup(self);
}

void objbehav_execute(Self self, zok_var* argument) {
    const ObjBehavFields& f = fields_of(self);
    if (!call_named_method(f.object, f.meth_ident, argument))
        behavior_unregister(self);
}

void objbehav_restore(Self self) {
    behavior_restore(self);
    ObjBehavFields& f = fields_of(self);
    if (f.objbehav_version < 1) {
        f.objbehav_version = 1;
        f.object = 0;
    }
    f.meth_ident = fwident_rollover(f.meth_ident);
}

Self objbehav_self(zok_var** argv) {
    return class_self(argv, OBJBEHAV_CLASS);
}

zok_var* objbehav_init(int32_t argc, zok_var** argv, zok_keywords* kw) {
    return keyword_init<ObjBehavKeywords>(argc, argv, kw, objbehav_keyword_table, OBJBEHAV_CLASS,
                                          objbehav_initialise);
}

zok_var* objbehav_method(int32_t, zok_var** argv, zok_keywords*) {
    return message_text_result(fields_of(objbehav_self(argv)).meth_ident);
}

zok_var* objbehav_object(int32_t, zok_var** argv, zok_keywords*) {
    const uint32_t object = fields_of(objbehav_self(argv)).object;
    zok_var* result = host_temp_var();
    result->type = ZOK_T_OBJECT;
    result->value.heap_id = object;
    return result;
}

void objbehav_cleanup_method(int32_t, zok_var** argv, zok_keywords*) {
    objbehav_cleanup(objbehav_self(argv));
}

void objbehav_execute_method(int32_t argc, zok_var** argv, zok_keywords*) {
    objbehav_execute(objbehav_self(argv), argc == 2 ? argv[1] : nullptr);
}

void objbehav_restore_method(int32_t, zok_var** argv, zok_keywords*) {
    objbehav_restore(objbehav_self(argv));
}

void objbehav_setmethod(int32_t, zok_var** argv, zok_keywords*) {
    objbehav_set_method(objbehav_self(argv), argv[1]);
}

void objbehav_setobject(int32_t, zok_var** argv, zok_keywords*) {
    const Self self = objbehav_self(argv);
    const zok_var* object = argv[1];
    if (object->type != ZOK_T_OBJECT || (object->flags & ZOK_VF_NOT_SIMPLE) != 0)
        host_message(ZOK_MSG_ARG_TYPE, ZOK_ACTION_ERROR, SETTER);
    fields_of(self).object = object->value.heap_id;
}

constexpr zok_routine_entry functions[] = {
    function_entry(objbehav_init, "ZOKFWOBJBEHAV::INIT", 1, 1, ZOK_RT_KEYWORDS),
    function_entry(objbehav_method, "ZOKFWOBJBEHAV::METHOD", 1, 1),
    function_entry(objbehav_object, "ZOKFWOBJBEHAV::OBJECT", 1, 1),
};
constexpr zok_routine_entry procedures[] = {
    procedure_entry(objbehav_cleanup_method, "ZOKFWOBJBEHAV::CLEANUP", 1, 1),
    procedure_entry(objbehav_execute_method, "ZOKFWOBJBEHAV::EXECUTE", 1, 2),
    procedure_entry(objbehav_restore_method, "ZOKFWOBJBEHAV::RESTORE", 1, 1),
    procedure_entry(objbehav_setmethod, "ZOKFWOBJBEHAV::SETMETHOD", 2, 2),
    procedure_entry(objbehav_setobject, "ZOKFWOBJBEHAV::SETOBJECT", 2, 2),
};

} // namespace

const RoutineList objbehav_routines{functions, procedures};

} // namespace flux
