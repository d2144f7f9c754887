// ZOKFWSAVEABLE and the restore pass over an array of objects.
//
// A restore pass first clears the restored flag of every object in the array,
// then asks each to restore itself once.  A RESTORE may restore the objects it
// refers to (by their DORESTORE); those are then skipped when the pass reaches
// them, since their flag is already exactly 1.0.
#include "fw/fw_saveable.hpp"

#include <vector>

#include "frame/fw_x.hpp"

namespace flux {

int32_t saveable_initialise(Self self) {
    self.fields<SaveableFields>().saveable_version = 1;
    return 1;
}

void saveable_cleanup(Self) {}

void saveable_restore(Self self) {
    SaveableFields& f = self.fields<SaveableFields>();
    if (f.saveable_version < 1)
        f.saveable_version = 1;
    fw_x_set_flag(&f.top, true);
}

void restore_once(const double* restored_flag, uint32_t heap_id) {
    if (fw_x_flag_is_set(restored_flag))
        return;
    const zok_heap_record* rec = host_object_heap_var(heap_id, ZOK_ACTION_ERROR);
    const zok_name* restore = host_lookup_name("RESTORE", 0, 1, ZOK_ACTION_ERROR, 0);
    TempGuard result(host_call_method(2, restore, rec, 0, 0, nullptr, 0, 0, 0));
}

namespace {

zok_var* saveable_init(int32_t, zok_var** argv, zok_keywords*) {
    const Self self = framework_self(argv);
    // The result before any change: failing to make it leaves self as it was.
    TempGuard result(host_temp_long(0));
    result->value.long_val = saveable_initialise(self);
    hold_heap_var(self.heap_id);
    return result.release();
}

void saveable_cleanup_method(int32_t, zok_var** argv, zok_keywords*) {
    saveable_cleanup(framework_self(argv));
}

void saveable_restore_method(int32_t, zok_var** argv, zok_keywords*) {
    saveable_restore(framework_self(argv));
}

void saveable_dorestore(int32_t, zok_var** argv, zok_keywords*) {
    const Self self = framework_self(argv);
    restore_once(&self.fields<SaveableFields>().top, self.heap_id);
}

void saveable_resetrestored(int32_t, zok_var** argv, zok_keywords*) {
    fw_x_set_flag(&framework_self(argv).fields<SaveableFields>().top, false);
}

double* restored_flag_of(zok_heap_record* rec) {
    return static_cast<double*>(host_struct_tag_data(&rec->var, FRAMEWORK_ANCHOR, 0, 0, 0));
}

// Takes an array of object references; a single reference is taken as an
// array of one, so passing one object restores that object.
void saveable_restore_array(int32_t, zok_var** argv, zok_keywords*) {
    const zok_var* array = argv[0];
    if (array->type != ZOK_T_OBJECT)
        host_require_object(array, ZOK_ACTION_ERROR);
    int32_t count = 0;
    void* data = nullptr;
    host_var_elements(array, &count, &data, 0);
    // A RESTORE runs program code, which may reassign the array; the pass
    // works on the identifiers as they were when it started.
    const auto* first = static_cast<const uint32_t*>(data);
    const std::vector<uint32_t> ids(first, first + count);

    // A dead element here ends the pass with the host's error...
    for (const uint32_t id : ids)
        fw_x_set_flag(restored_flag_of(host_object_heap_var(id, ZOK_ACTION_ERROR)), false);
    // ...while here it is skipped: an earlier RESTORE may have destroyed it.
    for (const uint32_t id : ids) {
        if (zok_heap_record* rec = host_heap_var(id))
            restore_once(restored_flag_of(rec), id);
    }
}

constexpr zok_routine_entry functions[] = {
    function_entry(saveable_init, "ZOKFWSAVEABLE::INIT", 1, 1),
};
constexpr zok_routine_entry procedures[] = {
    procedure_entry(saveable_cleanup_method, "ZOKFWSAVEABLE::CLEANUP", 1, 1),
    procedure_entry(saveable_dorestore, "ZOKFWSAVEABLE::DORESTORE", 1, 1),
    procedure_entry(saveable_resetrestored, "ZOKFWSAVEABLE::RESETRESTORED", 1, 1),
    procedure_entry(saveable_restore_method, "ZOKFWSAVEABLE::RESTORE", 1, 1),
    procedure_entry(saveable_restore_array, "ZOKFWSAVEABLERESTOREARRAY", 1, 1),
};

} // namespace

const RoutineList saveable_routines{functions, procedures};

} // namespace flux
